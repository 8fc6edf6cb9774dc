"""Runs orvexctl top in terminals of three sizes and reads the screen.

Usage: test_top.py ORVEXCTL
"""

import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

CTL = sys.argv[1]
NAMES = '1:2 studio1\n1:2:out3 studio1.onair "Studio 1 on air"\n'


class TopTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.names = os.path.join(self.folder.name, "names")
        with open(self.names, "w", encoding="utf-8") as file:
            file.write(NAMES)
        self.terminals = 0
        self.addCleanup(self.tmux, "kill-server")

    def tmux(self, *words):
        return subprocess.run(("tmux", "-S", f"{self.folder.name}/{self.terminals}", "-f", "/dev/null") + words,
                              check=False, capture_output=True, encoding="utf-8").stdout

    def start(self, columns, rows):
        self.tmux("kill-server")
        self.terminals += 1
        self.tmux("new-session", "-d", "-x", str(columns), "-y", str(rows),
                  f"{CTL} -i lo --names {self.names} top; echo end=$?; sleep 60")
        self.screen("0 pins")

    def screen(self, wanted):
        """The lines of the screen, once one of them has the text and nothing is being drawn."""
        before = ""
        for _ in range(200):
            shown = self.tmux("capture-pane", "-p")
            if wanted in shown and shown == before:
                return shown.rstrip("\n").split("\n")
            before = shown
            time.sleep(0.05)
        self.fail(f"no {wanted!r} on the screen:\n{shown}")

    def tell(self, pins, message="INDI", port=2055):
        items = [{"pin": pin, "type": "byte", "value": value} for pin, value in pins.items()]
        subprocess.run([CTL, "-i", "lo", "send", "-"], check=True, encoding="utf-8",
                       input=json.dumps({"id": message, "port": port, "items": items}) + "\n")

    def test_sizes(self):
        for columns, rows in ((80, 24), (132, 50), (40, 8)):
            with self.subTest(columns=columns):
                self.start(columns, rows)
                self.tell({f"{address}:out1": 64 for address in range(1, 61)}, "WRNI", 2060)
                shown = self.screen("60 pins")
                self.assertEqual(len(shown), rows)
                self.assertLessEqual(max(len(line) for line in shown), columns)
                self.assertEqual("WRITTEN BY" in shown[2], columns >= 80)
                self.assertIn("type to filter", shown[-1])
                for line in shown[3:-1]:
                    self.assertRegex(line, r"^ +\d+:out1 +LOW ")
                self.tmux("send-keys", *["NPage"] * 20)
                self.screen("60:out1")

    def test_follows_the_bus(self):
        self.start(80, 24)
        self.tell({"1:2:out3": 0, "1:2:in1": 0, "7:in2": 1})
        rows = self.screen("3 pins")[3:6]
        self.assertEqual([row[2:24].strip() for row in rows], ["", "studio1:in1", "studio1.onair"])
        self.assertRegex(rows[0], r"^  +7:in2 +LOW +>\d.* told *$")
        self.tell({"1:2:out3": 64}, "WRNI", 2060)
        written = self.screen("written")[5]
        self.assertRegex(written, r"^\* studio1.onair +1:2:out3 +LOW +[0-9.]+s +written +127.0.0.1$")
        self.tmux("send-keys", "ONAIR")
        self.assertIn("shown: 1 ", self.screen("filter: ONAIR")[1])
        self.tmux("send-keys", "BSpace", "BSpace", "BSpace", "BSpace", "BSpace", "Tab", "Space")
        self.screen("PAUSED")
        self.assertIn("studio1.onair", self.screen("sorted by: name")[3])
        self.tell({"9:in1": 0})
        self.assertNotIn("9:in1", "".join(self.screen("4 pins")))
        self.tmux("send-keys", "7:in")
        self.screen("shown: 1 ")
        self.tmux("send-keys", "Escape", "Space")
        self.screen("9:in1")
        self.tmux("resize-window", "-x", "100", "-y", "30")
        for _ in range(50):
            shown = self.screen("type to filter")
            if len(shown) == 30:
                break
            time.sleep(0.1)
        self.assertIn("type to filter", shown[29])

    def test_ends_cleanly(self):
        for end in ("INT", "TERM", "HUP", "QUIT", "F10"):
            with self.subTest(end=end):
                self.start(80, 24)
                if end == "F10":
                    self.tmux("send-keys", end)
                else:
                    pane = self.tmux("display-message", "-p", "#{pane_pid}").strip()
                    with open(f"/proc/{pane}/task/{pane}/children", encoding="ascii") as children:
                        os.kill(int(children.read()), getattr(signal, f"SIG{end}"))
                shown = self.screen("end=0")
                self.assertNotIn("type to filter", "".join(shown))

    def test_json(self):
        top = subprocess.Popen([CTL, "-i", "lo", "top", "--json", "-f", "1"],
                               stdout=subprocess.PIPE, encoding="utf-8")
        time.sleep(0.3)
        self.tell({"7:in2": 1})
        pins = [json.loads(line) for line in top.communicate()[0].splitlines()]
        self.assertEqual([(pin["pin"], pin["level"], pin["state"], pin["writer"]) for pin in pins],
                         [("7:in2", "L", "told", None)])


if __name__ == "__main__":
    if "--inside" not in sys.argv:
        flags = "-n" if os.getuid() == 0 else "-Urn"
        os.environ.update(LC_ALL="C.UTF-8", TERM="xterm")
        os.execvp("unshare", ["unshare", flags, sys.executable, "-B", *sys.argv, "--inside"])
    subprocess.run("ip link set lo up && ip route add 224.0.0.0/4 dev lo", shell=True, check=True)
    unittest.main(argv=sys.argv[:1])
