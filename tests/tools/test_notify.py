"""Checks what programs tell the service manager, and that a loop that hangs tells nothing.

Usage: loopback.sh test_notify.py PROGRAM...
"""

import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = {pathlib.Path(path).name: path for path in sys.argv[1:]}
FOLDER = tempfile.TemporaryDirectory()
PINS = pathlib.Path(FOLDER.name, "pins")
PINS.write_text("listen 127.0.0.1:4093\n", "ascii")
SWITCHERS = pathlib.Path(FOLDER.name, "switchers")
SWITCHERS.write_text("names /dev/null\nlisten udp 127.0.0.1:4900 v3.1\n", "ascii")
# Nobody listens there: the bridge is ready without its broker.
CONFIG = pathlib.Path(FOLDER.name, "conf")
CONFIG.write_text("site a\nbroker 127.0.0.1:1\n", "ascii")
STARTS = {
    "orvex-sim": (["--listen", "127.0.0.1:0"], "clients connected: 0"),
    "orvex-board": (["-i", "127.0.0.1", "--listen", "127.0.0.1:0"], "viewers: 0"),
    "orvex-gpio": ([str(PINS)], "all pins have their lines"),
    "orvex-mqtt": ([str(CONFIG)], "site a is not connected to the broker"),
    "orvex-tsl": ([str(SWITCHERS)], "all switchers are heard"),
}


class NotifyTest(unittest.TestCase):
    def await_state(self, state):
        while (got := self.manager.recv(4096).decode()) != state:
            self.assertRegex(got, "^(READY|WATCHDOG|STATUS)=")

    def check(self, name, arguments, status):
        program = subprocess.Popen([PROGRAMS[name], *arguments], stdout=subprocess.DEVNULL,
                                   env={**os.environ, "NOTIFY_SOCKET": self.path, "WATCHDOG_USEC": "1000000"})
        try:
            for state in ("STATUS=" + status, "WATCHDOG=1", "WATCHDOG=1"):
                self.await_state(state)
            program.send_signal(signal.SIGSTOP)
            self.manager.settimeout(1)
            with self.assertRaises(TimeoutError):
                for _ in range(10):  # what it has told before
                    self.manager.recv(4096)
            self.manager.settimeout(10)
            program.send_signal(signal.SIGCONT)
            self.await_state("WATCHDOG=1")
            program.terminate()
            self.await_state("STOPPING=1")
            self.assertEqual(program.wait(10), 0)
        finally:
            program.kill()
            program.wait()

    def test_programs(self):
        for name, (arguments, status) in STARTS.items():
            if name in PROGRAMS:
                with self.subTest(name), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as self.manager:
                    self.path = f"{FOLDER.name}/{name}"
                    self.manager.bind(self.path)
                    self.manager.settimeout(10)
                    self.check(name, arguments, status)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
