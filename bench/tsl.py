"""Measures orvex-tsl: from a switcher's datagram to the line at the control server, beside a write by
orvexctl, and how many packets a second it takes. Plays the control server itself.

Usage: loopback.sh bench/tsl.py BUILD
"""

import os
import pathlib
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

BUILD = pathlib.Path(sys.argv[1])
EVENTS = 200
RATE, SECONDS = 10000, 10
DISPLAYS = 100


def message(index, tallies):
    return bytes([0x80 + index, tallies]) + b"CAMERA          "


class Server:
    """The control server: takes the daemon's connection, and waits for its lines."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 93))
        self.data = b""

    def accept(self):
        self.socket, _ = self.listener.accept()
        self.socket.settimeout(1)
        self.socket.sendall(b"SET NIC_IPADDR=127.0.0.1\r\nCFG GPO 1 SRCA=1:2\r\nGPO 1 HHHHH\r\nGPI 1 HHHHH\r\n")

    def await_line(self, start):
        while start not in self.data:
            received = self.socket.recv(4096)
            if not received:
                raise ConnectionError("the daemon has ended")
            self.data += received
        self.data = self.data[self.data.index(start) + len(start):]


def measure(name, server, act):
    """A second program that gets the port of an earlier one within the same second also begins with its
    transaction ID: the bus takes the write for a repetition, and it is sent again here."""
    delays = []
    lost = 0
    while len(delays) < EVENTS:
        letter = b"L" if len(delays) % 2 == 0 else b"H"
        begin = time.perf_counter()
        act(letter == b"L")
        try:
            server.await_line(b"GPO 1 " + letter + b"xxxx")
        except TimeoutError:
            lost += 1
            if lost == 10:
                raise
            continue
        delays.append((time.perf_counter() - begin) * 1e6)
        time.sleep(0.005)
    delays.sort()
    median = statistics.median(delays)
    print(f"{name:24} to the line: median {median:9,.1f} us, "
          f"99th percentile {delays[int(EVENTS * 0.99)]:9,.1f} us"
          + (f"; {lost} taken for repetitions" if lost else ""), flush=True)
    return median


def cpu_seconds(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text("ascii").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def drops():
    for line in pathlib.Path("/proc/net/udp").read_text("ascii").splitlines()[1:]:
        if line.split()[1].endswith(f":{8900:04X}"):
            return int(line.split()[-1])
    raise RuntimeError("nobody listens")


def flood(sender, tsl):
    """Packets at an even rate; every display changes all the time."""
    before, lost = cpu_seconds(tsl), drops()
    begin = time.perf_counter()
    for number in range(RATE * SECONDS):
        sender(message(2 + number % DISPLAYS, number // DISPLAYS % 2))
        while time.perf_counter() - begin < number / RATE:
            pass
    took = time.perf_counter() - begin
    return RATE * SECONDS / took, drops() - lost, (cpu_seconds(tsl) - before) / took


def main():
    subprocess.run(["ip", "link", "set", "lo", "multicast", "on"], check=True)
    server = Server()
    switcher = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    switcher.connect(("127.0.0.1", 8900))
    with tempfile.NamedTemporaryFile("w") as config:
        config.write("interface lo\nnames /dev/null\nlisten udp 127.0.0.1:8900 v3.1\n"
                     "display 1 tally1 -> 1:2:out1\n" + "".join(
                         f"display {2 + i} tally1 -> {100 + i}:out2\n" for i in range(DISPLAYS)))
        config.flush()
        daemon = subprocess.Popen([BUILD / "app/orvex"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        server.accept()
        tsl = None
        try:
            time.sleep(1)
            alone = measure("orvexctl set", server, lambda low: subprocess.run(
                [BUILD / "tools/ctl/orvexctl", "set", "-q", "-i", "lo", f"1:2:out1={'L' if low else 'H'}"],
                check=True))
            tsl = subprocess.Popen([BUILD / "tools/tsl/orvex-tsl", config.name], stdout=subprocess.DEVNULL)
            time.sleep(1)
            median = measure("datagram to orvex-tsl", server, lambda low: switcher.send(message(1, low)))
            print(f"{'ratio':24} {median / alone:.3f}")
            rate, lost, cpu = flood(switcher.send, tsl)
            print(f"{rate:,.0f} packets a second for {SECONDS} s: {lost} lost, {cpu * 100:.0f} % of a processor")
            return int(lost > 0 or median > 1.3 * alone)
        finally:
            for process in filter(None, (tsl, daemon)):
                process.send_signal(signal.SIGTERM)
                process.wait()


sys.exit(main())
