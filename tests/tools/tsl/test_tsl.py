"""A switcher lights lamps of a device, and a multiviewer shows its contacts. Runs in the world of world.sh.

Usage: world.sh BUILD test_tsl.py BUILD [TEST]...
"""

import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

BUILD = sys.argv.pop(1)
CONFIG = pathlib.Path("/run/tsl.conf")
LOG = pathlib.Path("/run/tsl.log")
LINES = """interface eth0
names /dev/null
listen udp 127.0.0.1:8900 v3.1
listen tcp 127.0.0.1:8901 v5 from 127.0.0.0/8
display 2 tally1 -> 1:2:out1 on-loss H 2
display screen 1 index 254 right red -> 1:2:out2
display 4 tally1 -> 1:2:out5 on-loss H 60
send udp 127.0.0.1:8910 v5 screen 1 every 1
send tcp 127.0.0.1:8911 v3.1 every 1
pin 1:2:in1 -> index 7 right red tally2 label "Front door"
"""


def v31(address, tallies, label="CAM"):
    return bytes([0x80 + address, tallies]) + label.ljust(16).encode("ascii")


def v5(index, control):
    body = struct.pack("<BBHHHH", 0, 0, 1, index, control, 0)
    return b"\xfe\x02" + (struct.pack("<H", len(body)) + body).replace(b"\xfe", b"\xfe\xfe")


def level(pin):
    words = subprocess.run([f"{BUILD}/tools/ctl/orvexctl", "get", "-i", "eth0", pin], check=False,
                           capture_output=True, encoding="utf-8").stdout.split()
    return words[1] if len(words) > 1 else ""


def contact(pins):
    with open("/run/in", "w", encoding="ascii") as control:
        control.write(f"GPI 1 {pins}\n")


class TslTest(unittest.TestCase):
    def setUp(self):
        contact("HHHHH")
        CONFIG.write_text(LINES, "ascii")
        self.viewer = socket.create_server(("127.0.0.1", 8911))
        self.screen = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.screen.bind(("127.0.0.1", 8910))
        self.switcher = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        with open(LOG, "wb") as log:
            self.program = subprocess.Popen([f"{BUILD}/tools/tsl/orvex-tsl", CONFIG], stdout=log, stderr=log)
        for name in ("viewer", "screen", "switcher"):
            self.addCleanup(getattr(self, name).close)
        self.addCleanup(self.end)
        self.says("listening on tcp")

    def end(self):
        if self.program.poll() is None:
            self.program.terminate()
        self.assertEqual(self.program.wait(10), 0)

    def until(self, condition, seconds, what):
        end = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), end, f"{what}; the program said: {LOG.read_text('utf-8')}")
            time.sleep(0.05)

    def says(self, text, seconds=5):
        self.until(lambda: text in LOG.read_text("utf-8"), seconds, text)

    def lamp(self, pin, expected, seconds=2.0, meanwhile=None):
        def is_it():
            if meanwhile:
                meanwhile()
            return level(pin) == expected
        self.until(is_it, seconds, f"{pin} is not {expected}")

    def say(self, packet):
        self.switcher.sendto(packet, ("127.0.0.1", 8900))

    def test_lamps_follow_the_switcher_and_its_loss(self):
        self.say(v31(2, 0b0101))
        self.lamp("1:2:out1", "L")
        # Other displays show that it is alive; what is malformed shows nothing and changes nothing.
        alive = lambda: self.say(v31(3, 0))
        end = time.monotonic() + 3
        while time.monotonic() < end:
            self.assertEqual(level("1:2:out1"), "L")
            alive()
            time.sleep(0.3)
        # Somebody else puts it out.
        sets = lambda pins: pathlib.Path("/run/sim.log").read_text("utf-8").count(f"< GPO 1 {pins}")
        before = sets("Hxxxx")
        subprocess.run([f"{BUILD}/tools/ctl/orvexctl", "set", "-q", "-i", "eth0", "1:2:out1=H"], check=True)
        self.until(lambda: sets("Hxxxx") > before, 5, "it was not put out")
        self.lamp("1:2:out1", "L", 6, alive)
        begin = time.monotonic()
        self.lamp("1:2:out1", "H", 4, lambda: self.say(v31(2, 0b0101)[:17]))
        self.assertGreater(time.monotonic() - begin, 1.5)
        self.says("is lost: 127.0.0.1 sends nothing")
        self.says("malformed packets, the first: not messages of 18 bytes: 82 05 43", 70)
        # It says a last thing while the program is held up.
        before = sets("Lxxxx")
        self.program.send_signal(signal.SIGSTOP)
        self.say(v31(2, 1))
        time.sleep(2.5)
        self.program.send_signal(signal.SIGCONT)
        time.sleep(0.5)
        self.assertEqual(sets("Lxxxx"), before)
        self.say(v31(2, 1))
        self.lamp("1:2:out1", "L")
        self.program.terminate()
        self.lamp("1:2:out1", "H")

    def test_a_first_write_that_is_lost_is_repeated(self):
        def route(do):  # the device takes nothing from a host that it has no way back to
            subprocess.run(f"ip -n studio route {do} blackhole 10.77.0.1", shell=True, check=True)

        subprocess.run(["ip", "netns", "exec", "studio", "sh", "-c", "echo 1 >/proc/sys/net/ipv4/conf/eth0/rp_filter"],
                       check=True)
        route("add")
        self.say(v31(4, 1))
        time.sleep(0.1)
        route("del")
        self.lamp("1:2:out5", "L", 12)

    def test_a_write_that_was_not_possible_is_repeated(self):
        subprocess.run(["/usr/sbin/nft", "add table ip t; add chain ip t o { type filter hook output priority 0; };"
                        "add rule ip t o udp dport 2060 drop"], check=True)
        self.addCleanup(subprocess.run, ["/usr/sbin/nft", "delete table ip t"], stderr=subprocess.DEVNULL, check=False)
        self.say(v31(4, 1))
        self.says("1:2:out5: not sent: Operation not permitted")
        subprocess.run(["/usr/sbin/nft", "delete table ip t"], check=True)
        self.lamp("1:2:out5", "L", 5)

    def test_what_was_lost_may_have_been_said(self):
        self.say(v31(2, 1))
        self.lamp("1:2:out1", "L")
        self.program.send_signal(signal.SIGSTOP)
        for number in range(4000):
            self.say(v31(3, 0))
        self.say(v31(2, 0))  # there is no room for it
        self.program.send_signal(signal.SIGCONT)
        self.lamp("1:2:out1", "H", 5, lambda: self.say(v31(3, 0)))
        self.says("datagrams were lost: they came too fast")

    def test_streams_arrive_in_pieces(self):
        with socket.create_connection(("127.0.0.1", 8901)) as stream:
            for byte in v5(254, 0x0001)[3:] + v5(254, 0x0001):
                stream.send(bytes([byte]))
                time.sleep(0.01)
            self.lamp("1:2:out2", "L")
            stream.send(v5(254, 0x0006))
            self.lamp("1:2:out2", "H")
        self.says("has ended its connection")

    def shown(self, seconds, expected, meanwhile=lambda: None):
        self.screen.settimeout(seconds)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            meanwhile()
            packet = self.screen.recv(2048)
            index, control, length = struct.unpack_from("<HHH", packet, 6)
            self.assertEqual((index, packet[12:12 + length]), (7, b"Front door"))
            if control & 3 == expected:
                return
        self.fail(f"right is not {expected}")

    def test_multiviewers_show_contacts_that_are_known(self):
        connection, _ = self.viewer.accept()
        with connection:
            self.shown(5, 0)
            contact("LHHHH")
            self.shown(1, 1)
            connection.settimeout(3)
            data = b""
            while v31(7, 0b110010, "Front door") not in data:
                data += connection.recv(1000)
        daemon = int(pathlib.Path("/run/orvex.pid").read_text("ascii"))
        os.kill(daemon, signal.SIGSTOP)
        try:
            self.shown(20, 0)
        finally:
            os.kill(daemon, signal.SIGCONT)
        self.shown(20, 1)

    def test_reads_its_file_again(self):
        self.say(v31(2, 1))
        self.lamp("1:2:out1", "L")
        CONFIG.write_text(LINES + "display ü tally1 -> 1:2:out3\n", "utf-8")
        self.program.send_signal(signal.SIGHUP)
        self.says(":11: not a number from 0 to 126: \\xC3\\xBC\n")
        CONFIG.write_text(LINES.replace("127.0.0.1:8901", "127.0.0.1:8902")
                          + "display 2 tally2 -> 1:2:out3\n", "ascii")
        self.program.send_signal(signal.SIGHUP)
        self.says("listening on tcp 127.0.0.1:8902")
        self.say(v31(2, 2))
        self.lamp("1:2:out3", "L")
        self.lamp("1:2:out1", "H", meanwhile=lambda: self.say(v31(2, 2)))
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", 8901))
        self.say(v31(2, 1))
        self.lamp("1:2:out1", "L", meanwhile=lambda: self.say(v31(2, 1)))
        CONFIG.write_text(LINES.replace("display 2", "display 3").replace("out1", "out4"), "ascii")
        self.program.send_signal(signal.SIGHUP)
        self.lamp("1:2:out1", "H", meanwhile=lambda: self.say(v31(2, 1)))


if __name__ == "__main__":
    unittest.main(verbosity=2)
