"""Wires two boards, and makes each part fail. Runs in the world of world.sh.

Usage: scripts/gpiosim world.sh BUILD test_gpio.py BUILD [TEST]...
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

BUILD = sys.argv.pop(1)
GPIO = f"{BUILD}/tools/gpio/orvex-gpio"
RUN = pathlib.Path("/run")
CHIPS = pathlib.Path("/sys/kernel/config/gpio-sim")
BOARD = """listen 127.0.0.1:93
listen 0.0.0.0:94 from 10.77.0.0/24 inputs
chip relay label sim0
input 1.1 line sim0-0 pull-up
input 1.2 relay 1 debounce 10ms
output 1.1 relay 4
output 1.2 relay 5 active-high
output 1.3 relay 6 initial L on-exit L
CFG GPO 1 SRCA=1:2
SET NIC_IPADDR=10.77.0.1
"""
STUDIO = """chip relay label sim1
output 2.1 relay 3
CFG GPO 2 SRCA=10.77.0.1:94/1
"""


def write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def pull(line, level, chip="sim0"):
    write(RUN / f"gpio/{chip}/sim_gpio{line}/pull", "pull-up" if level else "pull-down")


def value(line, chip="sim0"):
    return int((RUN / f"gpio/{chip}/sim_gpio{line}/value").read_text("ascii"))


def plug(chip, live):
    folder = CHIPS / chip
    write(folder / "live", str(int(live)))
    if live:
        (RUN / "gpio" / chip).unlink()
        (RUN / "gpio" / chip).symlink_to(pathlib.Path("/sys/devices/platform", *(
            (folder / name).read_text("ascii").strip() for name in ("dev_name", "bank/chip_name"))))


def until(condition, what, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what() if callable(what) else what} in {seconds} s")
        time.sleep(0.001)


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)
    return done.returncode, done.stdout, done.stderr


def orvexctl(*arguments):
    return run(f"{BUILD}/tools/ctl/orvexctl", *arguments)[1]


class Client:
    """A client of the control server."""

    def __init__(self, *lines, port=93):
        self.lines = []
        self.socket = socket.create_connection(("10.77.0.1" if port == 94 else "127.0.0.1", port))
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()
        for line in lines:
            self.send(line)

    def send(self, line):
        self.socket.sendall(line.encode() + b"\n")

    def read(self):
        with self.socket, self.socket.makefile("rb") as lines, contextlib.suppress(OSError):
            for line in lines:
                self.lines.append(line.decode().strip())

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)

    def expect(self, *lines):
        until(lambda: len(self.lines) >= len(lines), f"not {lines} but {self.lines}")
        assert self.lines[:len(lines)] == list(lines), f"not {lines} but {self.lines}"
        del self.lines[:len(lines)]


class GpioTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # The daemon learns its configuration, and sets its outputs high this once.
        test = cls("connected")
        test.setUp()
        test.connected()
        test.doCleanups()

    def setUp(self):
        self.processes = {}
        self.addCleanup(lambda: [self.end(name) for name in list(self.processes)])
        for line in 0, 1:
            pull(line, 1)
        self.start()

    def start(self, name="board", text=BOARD, *host, prefix=()):
        write(RUN / f"{name}.conf", text)
        with open(RUN / f"{name}.log", "wb") as log:
            self.processes[name] = subprocess.Popen(
                [*host, *prefix, GPIO, f"/run/{name}.conf"], stdout=log, stderr=log)
        self.says("listening on", name)

    def end(self, name="board", number=signal.SIGTERM):
        process = self.processes.pop(name)
        process.send_signal(number)
        self.assertEqual(process.wait(20), 0 if number == signal.SIGTERM else -number)

    def log(self, name="board"):
        return (RUN / f"{name}.log").read_text("utf-8", "replace")

    def says(self, text, name="board"):
        until(lambda: text in self.log(name), f"no '{text}' in the log, which is {self.log(name)}")

    def connected(self):
        """Until the daemon has subscribed to its input again."""
        until(lambda: re.search(r"connected to 127.*\n", self.log()), "no daemon")
        until(lambda: "in1 H" in re.sub(" +", " ", orvexctl("get", "1:2:in1")).replace("1:2:", ""),
              lambda: "in1 is not high on the bus but: " + orvexctl("get", "1:2:in1"))

    def test_pins_on_the_bus(self):
        self.connected()
        with subprocess.Popen([f"{BUILD}/tools/ctl/orvexctl", "watch", "--json", "1:2:in1"],
                              stdout=subprocess.PIPE, text=True) as watch:
            time.sleep(0.5)
            pull(0, 0)
            self.assertTrue(any('"L"' in line for line in watch.stdout))
            watch.terminate()
        for pin, line, level, low in ("out1", 4, "L", 0), ("out2", 5, "L", 1), ("out2", 5, "H", 0):
            orvexctl("set", f"1:2:{pin}={level}")
            until(lambda line=line, low=low: value(line) == low, f"{pin} is not {level}")
        levels = []
        client = Client()
        client.send("GPO 1 Hxxxx")
        client.send("GPO 1 Lxxxx DURATION:10")
        end = time.monotonic() + 0.2
        while time.monotonic() < end:
            levels.append((time.monotonic(), value(4)))
        low = [at for at, level in levels if level == 0 and at > levels[0][0]]
        self.assertEqual(value(4), 1)
        self.assertLess(low[-1] - low[0], 0.1)

    def test_contact_lights_a_lamp_on_another_board(self):
        self.start("studio", STUDIO, "ip", "netns", "exec", "studio")
        until(lambda: " connected to 0.0.0.0:94" in self.log(), "no daemon of the studio", 60)
        for level in 0, 1, 0, 1:
            pull(0, level)
            until(lambda level=level: value(3, "sim1") == level, f"lamp is not {level}")
        self.assertNotIn("not permitted", self.log())

    def test_rights(self):
        client = Client("ADD GPI 1", "GPO 1 L", "SET", "CFG GPO", port=94)
        client.expect("GPI 1 HHHHH")
        Client("GPO 1 xxH").expect("GPO 1 HHHHH")
        self.says("not permitted at this address: CFG GPO")
        self.assertEqual(client.lines, [])
        with socket.create_connection(("127.0.0.1", 94)) as other:
            self.assertEqual(other.recv(1), b"")
        self.says("refused: 0.0.0.0:94 is not for this address")

    def test_every_edge_counts(self):
        client = Client("ADD GPI 1")
        client.expect("GPI 1 HHHHH")
        pull(0, 0)
        time.sleep(0.01)
        pull(0, 1)
        client.expect("GPI 1 LHHHH", "GPI 1 HHHHH")
        # Shorter than the program's turn: it is stopped.
        self.processes["board"].send_signal(signal.SIGSTOP)
        for level in 0, 1, 0, 1:
            pull(0, level)
            time.sleep(0.003)
        self.processes["board"].send_signal(signal.SIGCONT)
        client.expect(*["GPI 1 LHHHH", "GPI 1 HHHHH"] * 2)
        # More than the kernel keeps: the rest is counted, and the last level is right.
        self.processes["board"].send_signal(signal.SIGSTOP)
        for i in range(1501):
            pull(0, i % 2)
            time.sleep(0.0025)
        self.processes["board"].send_signal(signal.SIGCONT)
        self.says("edges were lost, its line is read again")
        lost = int(re.search(r"input 1.1: (\d+) edges were lost", self.log())[1])
        self.assertGreater(lost, 200)
        until(lambda: len(client.lines) > 900 and client.lines[-1] == "GPI 1 LHHHH", "edges missing")
        # A burst that it keeps up with.
        pull(0, 1)
        until(lambda: client.lines[-1] == "GPI 1 HHHHH", "not high")
        client.lines.clear()
        for i in range(1000):
            pull(0, i % 2)
            time.sleep(0.0025)
        until(lambda: len(client.lines) > 950, lambda: f"{len(client.lines)} of 1000 edges", 5)

    def test_debounce(self):
        client = Client("ADD GPI 1")
        for level, seconds in [(0, 0.002), (1, 0.002)] * 5 + [(0, 0.1), (1, 0.1)]:
            pull(1, level)
            time.sleep(seconds)
        client.expect("GPI 1 HHHHH", "GPI 1 HLHHH", "GPI 1 HHHHH")

    def test_chip_goes_and_comes(self):
        client = Client("ADD GPI 1", "GPO 1 LLHxx")
        client.expect("GPI 1 HHHHH", "GPO 1 LLHHH")
        pull(0, 0)
        client.expect("GPI 1 LHHHH")
        stop = threading.Event()

        def traffic():
            while not stop.is_set():
                Client("GPO 1 LHxxx", "GPO 1 LLxxx").close()
                time.sleep(0.005)
        thread = threading.Thread(target=traffic)
        thread.start()
        try:
            for _ in range(5):
                plug("sim0", False)
                until(lambda: "GPI 1 HHHHH" in client.lines, "stale level")
                until(lambda: any("GPIO_PROBLEMS=\"input 1.1" in line for line in client.lines),
                      "nothing told")
                client.lines.clear()
                plug("sim0", True)
                until(lambda: any("PROBLEMS=none" in line for line in client.lines), "not back")
                pull(0, 0)
                until(lambda: any("GPI 1 L" in line for line in client.lines), "not low again")
        finally:
            stop.set()
            thread.join()
        Client("GPO 1 LLHxx")
        until(lambda: (value(4), value(5), value(6)) == (0, 1, 1), "outputs not set again")
        self.says("gpiochip0 (sim0) is lost")

    def test_busy_line(self):
        self.start("other", "listen 127.0.0.1:95\noutput 3.1 line sim0-9\n")
        self.start("third", "listen 127.0.0.1:96\noutput 3.1 line sim0-9\noutput 3.2 line sim0-10\n")
        self.says("output 3.1: line sim0-9 is used by orvex-gpio", "third")
        client = Client("SET", "GPO 3 LL", port=96)
        client.expect('SET GPIO_PROBLEMS="output 3.1: line sim0-9 is used by orvex-gpio"',
                      "GPO 3 LLHHH")
        self.assertEqual((value(9), value(10)), (1, 0))
        self.end("other")
        until(lambda: value(9) == 0, "line not taken")
        client.expect("SET GPIO_PROBLEMS=none")

    def test_outlives_a_kill(self):
        self.connected()
        self.end(number=signal.SIGKILL)
        self.start()
        pull(0, 0)
        until(lambda: '"L"' in orvexctl("get", "--json", "1:2:in1"), "no level after the restart")
        orvexctl("set", "1:2:out1=L")
        until(lambda: value(4) == 0, "output not set")
        self.assertEqual(value(6), 0)
        Client("GPO 1 xxH")
        until(lambda: value(6) == 1, "output not set")
        self.end()
        self.assertEqual(value(6), 0)

    def test_reload(self):
        client = Client("ADD GPI 1", "GPO 1 LLHxx")
        client.expect("GPI 1 HHHHH", "GPO 1 LLHHH")
        levels, stop = set(), threading.Event()
        thread = threading.Thread(
            target=lambda: [levels.add((value(4), value(5))) for _ in iter(stop.is_set, True)])
        thread.start()
        self.addCleanup(stop.set)
        for old, new, line in [("", "output 2.1 relay 7 initial L\n", "CFG GPO 2 SRCA=none\n"),
                               ("output 1.3 relay 6 initial L on-exit L\n", "", ""),
                               ("input 1.2 relay 1 debounce 10ms", "input 1.3 relay 1", "")]:
            text = (RUN / "board.conf").read_text("utf-8", "replace")
            write(RUN / "board.conf", (text.replace(old, new) if old else text + new) + line)
            before = self.log().count("is used")
            self.processes["board"].send_signal(signal.SIGHUP)
            until(lambda before=before: self.log().count("is used") > before, "not used")
        pull(1, 0)
        until(lambda: "GPI 1 HHLHH" in client.lines, f"moved pin: {client.lines}")
        self.assertEqual((value(6), value(7)), (0, 0))
        write(RUN / "board.conf", "input 1.1 line sim0-1\nbogus\n")
        self.processes["board"].send_signal(signal.SIGHUP)
        self.says("/run/board.conf is not used: the configuration stays as it was")
        stop.set()
        thread.join()
        self.assertEqual(levels, {(0, 1)})
        self.assertEqual([line for line in client.lines if re.match("GPO 1|SET", line)], [])

    def test_check_and_lines(self):
        self.assertEqual(run(GPIO, "--check", "/run/board.conf"), (0, "", ""))
        write(RUN / "bad.conf", "chip s label sim0\ninput 1.1 s 99\ninput 1.2 line no\n")
        self.assertEqual(run(GPIO, "--check", "/run/bad.conf")[0::2], (
            1, "orvex-gpio: /run/bad.conf:2: s 99: gpiochip0 (sim0) has lines 0 to 15\n"
            "orvex-gpio: /run/bad.conf:3: line no: no chip has a line of this name\n"))
        lines = [json.loads(line) for line in
                 run(GPIO, "--lines", "--json", "/run/board.conf")[1].splitlines()]
        self.assertEqual(lines[4] | {"label": ""}, {
            "chip": "gpiochip0", "label": "", "line": 4, "name": "sim0-4", "direction": "output",
            "used": True, "consumer": "orvex-gpio", "pin": "output 1.1"})

    @unittest.skipUnless(os.path.exists("/usr/bin/strace"), "no strace")
    def test_relays_switch_together(self):
        self.end()
        self.start(prefix=("strace", "-D", "-o", "/run/calls", "-e", "trace=ioctl"))
        Client("GPO 1 LLLxx", "ADD GPI 9").expect("GPO 1 LLLHH", "GPI 9 HHHHH")
        self.assertEqual((RUN / "calls").read_text("ascii").count("GPIO_V2_LINE_SET_VALUES"), 1)

    def test_idles(self):
        self.connected()
        Client("ADD GPI 1").expect("GPI 1 HHHHH")
        status = pathlib.Path(f"/proc/{self.processes['board'].pid}/status")
        time.sleep(1)
        before = status.read_text("utf-8", "replace")
        time.sleep(5)
        after = status.read_text("utf-8", "replace")
        self.assertLess(int(re.search(r"VmRSS:\s+(\d+)", after)[1]), 4096)
        self.assertEqual(*(re.search(r"\nvoluntary_ctxt_switches.*", text)[0] for text in (before, after)))


if __name__ == "__main__":
    unittest.main()
