"""Writes captures of UDP datagrams and TCP segments, and reads them back with tshark."""

import os
import pathlib
import shutil
import struct
import subprocess
import tempfile

PLUGINS = pathlib.Path(__file__).resolve().parents[2] / "wireshark"
RAW_IP = 101
UDP, TCP, ICMP = 17, 6, 1
NOBODY = 65534


def address(text):
    return bytes(int(part) for part in text.split("."))


class Capture:
    def __init__(self):
        self.frames = []
        self.sent = {}  # bytes sent so far from one TCP end to another

    def ip(self, protocol, src, dst, data, time, kept):
        time = len(self.frames) * 0.001 if time is None else time
        header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(data), 0, 0, 64, protocol, 0,
                             address(src), address(dst))
        self.frames.append((time, header + data, kept))
        return header + data

    def udp(self, data, src="10.0.0.2:40000", dst="239.192.255.4:2060", time=None, kept=None):
        """Adds a datagram. The capture contains only the first `kept` bytes of its data."""
        src, sport = src.split(":")
        dst, dport = dst.split(":")
        header = struct.pack("!HHHH", int(sport), int(dport), 8 + len(data), 0)
        kept = None if kept is None else 28 + kept
        return self.ip(UDP, src, dst, header + data, time, kept)

    def tcp(self, data, sport=50000, dport=93):
        ends = (sport, dport)
        seq = 1000 + self.sent.get(ends, 0)
        self.sent[ends] = self.sent.get(ends, 0) + len(data)
        header = struct.pack("!HHIIBBHHH", sport, dport, seq, 1, 0x50, 0x18, 65535, 0, 0)
        self.ip(TCP, "10.0.0.2", "10.0.0.1", header + data, None, None)

    def write(self, path):
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, RAW_IP))
            for time, data, kept in self.frames:
                cut = data[:kept]
                seconds, micros = divmod(round(time * 1000000), 1000000)
                file.write(struct.pack("<IIII", seconds, micros, len(cut), len(data)) + cut)


def ordinary_user():
    """Options to run tshark as an ordinary user, because Wireshark 4.4 loads no plugins for root.
    None in a user namespace that has only one user."""
    users = int(pathlib.Path("/proc/self/uid_map").read_text("utf-8").split()[2])
    if os.getuid() != 0 or users == 1:
        return {}
    return {"user": NOBODY, "group": NOBODY, "extra_groups": []}


def tshark(*args):
    """The output of tshark, with the plugins of this tree installed for its user. Files that it reads
    must be readable by all users."""
    user = ordinary_user()
    with tempfile.TemporaryDirectory() as home:
        plugins = pathlib.Path(home, ".local/lib/wireshark/plugins")
        shutil.copytree(PLUGINS, plugins)
        if user:
            for path in [pathlib.Path(home), *pathlib.Path(home).rglob("*")]:
                os.chown(path, NOBODY, NOBODY)
        env = {"PATH": os.environ["PATH"], "HOME": home, "LC_ALL": "C.UTF-8"}
        done = subprocess.run([os.environ.get("TSHARK", "tshark"), *args], env=env, check=False,
                              cwd=home, capture_output=True, encoding="utf-8", errors="replace",
                              timeout=120, **user)
    if done.returncode != 0 or "Lua" in done.stderr:
        raise AssertionError(f"tshark {args}: {done.returncode}\n{done.stderr}")
    return done.stdout


def read(capture, *names, options=()):
    """For every frame, a tuple with the list of values of each named field. Fails if a plugin failed
    on any frame."""
    fields = [option for name in ("_ws.lua.error", *names) for option in ("-e", name)]
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        path = os.path.join(folder, "capture.pcap")
        capture.write(path)
        text = tshark("-r", path, "-T", "fields", "-E", "separator=/t", "-E", "aggregator=~",
                      *fields, *options)
    frames = []
    for line in text.split("\n")[:-1]:
        error, *values = (column.split("~") if column else [] for column in line.split("\t"))
        if error:
            raise AssertionError(f"the script failed: {error}")
        frames.append(tuple(values))
    return frames
