"""Measures what orvexctl top takes of a processor, in each order of its rows.

Usage: top.py ORVEXCTL [SECONDS]

Runs it in a terminal of 80 x 24, on a bus where 10,000 pins with names are known and 1,000 of them
change each second; like a device, sends every report twice. Prints a line for each order, and fails
if one of them takes a tenth of a processor.
"""

import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))

from orvex.packets import BYTE, GROUP, REPORT, REPORT_PORT, Item, Message, Packet  # noqa: E402

CTL = os.path.abspath(sys.argv[1])
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 and sys.argv[2] != "--inside" else 10
ADDRESSES = range(256, 1256)
PINS = [address << 8 | circuit for address in ADDRESSES for circuit in range(4, 14)]
RATE = 1000
LIMIT = 10  # percent


class Device:
    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        self.tid = 0
        self.levels = dict.fromkeys(PINS, 0)
        self.sent = 0

    def report(self, pins):
        message = Message(REPORT, [Item(pin, BYTE, self.levels[pin]) for pin in pins]).encode()
        for _ in range(2):
            self.tid += 1
            self.socket.sendto(Packet(self.tid, message).encode(), (GROUP, REPORT_PORT))

    def change_for(self, seconds):
        due = time.monotonic()
        end = due + seconds
        while due < end:
            for _ in range(RATE // 100):
                pin = PINS[self.sent * 7 % len(PINS)]
                self.levels[pin] ^= 1
                self.sent += 1
                self.report([pin])
            due += 0.01
            time.sleep(max(0, due - time.monotonic()))


def measure(folder):
    names = f"{folder}/names"
    with open(names, "w", encoding="ascii") as file:
        file.writelines(f"{address >> 8}:{address & 255} device{address}\n" for address in ADDRESSES)

    def tmux(*words):
        return subprocess.run(("tmux", "-S", f"{folder}/tmux", "-f", "/dev/null", *words), check=True,
                              capture_output=True, encoding="utf-8").stdout

    tmux("new-session", "-d", "-x", "80", "-y", "24", f"exec {CTL} -i lo --names {names} top")
    pid = tmux("display-message", "-p", "#{pane_pid}").strip()

    def busy():
        with open(f"/proc/{pid}/schedstat", encoding="ascii") as stat:
            return int(stat.read().split()[0]) / 1e9

    time.sleep(1)
    device = Device()
    for first in range(0, len(PINS), 100):
        device.report(PINS[first:first + 100])
        time.sleep(0.002)
    worst = 0
    for _ in range(5):
        device.change_for(1)
        before, begin = busy(), time.monotonic()
        device.change_for(SECONDS)
        share = 100 * (busy() - before) / (time.monotonic() - begin)
        heading, order = tmux("capture-pane", "-p").split("\n")[:2]
        print(f"{heading.strip()}, {order.split('  ')[-1].strip()}: {share:.1f} % of a processor")
        worst = max(worst, share)
        tmux("send-keys", "Tab")
    tmux("kill-server")
    return worst


def main():
    with tempfile.TemporaryDirectory() as folder:
        sys.exit(measure(folder) >= LIMIT)


if __name__ == "__main__":
    if sys.argv[-1] != "--inside":
        flags = "-n" if os.getuid() == 0 else "-Urn"
        os.environ.update(LC_ALL="C.UTF-8", TERM="xterm")
        os.execvp("unshare", ["unshare", flags, sys.executable, "-B", *sys.argv, "--inside"])
    subprocess.run("ip link set lo up && ip route add 224.0.0.0/4 dev lo", shell=True, check=True)
    main()
