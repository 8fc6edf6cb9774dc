#!/usr/bin/env python3
"""Measures a fleet: daemons, each on a host of its own with a control server, on one bus.

Prints the cost of a write, a read and a report as the fleet grows, and the losses in a burst; then
the effect on one daemon of 31 remote servers that reconnect and of a control server that does not
read. Writes the figures to a JSON file.
"""

import ctypes
import json
import os
import pathlib
import random
import select
import signal
import socket
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))

from orvex.packets import BUS_PORT, BYTE, GROUP, READ, REPORT_PORT, WRITE, Item, Message, Packet  # noqa: E402
from orvex.pins import FIRST_OUTPUT_CIRCUIT, LEVEL_LOW, Pin  # noqa: E402

DAEMON = os.path.abspath("build/bench/app/orvex")
SIZES = [1, 10, 50, 200]
EVENTS = 300  # measured events of each path
BURST = 1000  # writes, or at least that many reports, sent as fast as possible
LINE_PORT = 93
STUDIO = "10.77.255.254"
CLONE_NEWNET = 0x40000000
LIMIT_S = 5
SWEEP_S = 60  # the daemon reconnects to lost servers within this time

libc = ctypes.CDLL(None, use_errno=True)


def run(*words):
    subprocess.run(words, check=True, stdout=subprocess.DEVNULL)


def enter(namespace):
    if libc.setns(namespace, CLONE_NEWNET) != 0:
        sys.exit(f"setns: {os.strerror(ctypes.get_errno())}")


def await_carrier(name):
    """A link carries nothing until the system has seen both ends up, which may take a while."""
    command = f"until ip -o link show {name} | grep -q 'state UP'; do sleep 0.01; done"
    run("timeout", str(LIMIT_S), "sh", "-c", command)


class Device:
    """A host with a control server on its loopback and a daemon. Its bus address is 1:number."""

    def __init__(self, number, studio):
        self.address = 0x100 | number
        if libc.unshare(CLONE_NEWNET) != 0:
            sys.exit("this system permits no network namespaces")
        namespace = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", f"port{number}")
        run("ip", "link", "set", f"port{number}", "netns", f"/proc/{os.getpid()}/fd/{studio}")
        run("ip", "addr", "add", f"10.77.{number // 250}.{number % 250 + 1}/16", "dev", "eth0")
        run("ip", "link", "set", "eth0", "up")
        run("ip", "route", "add", "224.0.0.0/4", "dev", "eth0")
        enter(studio)
        run("ip", "link", "set", f"port{number}", "master", "bridge", "up")
        enter(namespace)
        await_carrier("eth0")
        listener = socket.create_server(("127.0.0.1", LINE_PORT))
        run(DAEMON)
        self.control = listener.accept()[0]
        self.control.settimeout(LIMIT_S)
        with open("/run/orvex.pid") as file:
            self.pid = int(file.read())
        self.hear(b"CFG GPO\n")
        self.control.sendall(b"CFG GPO 1 SRCA=1:%d\n" % number)
        self.hear(b"ADD GPI 1\n")
        self.snmp = open("/proc/thread-self/net/snmp")  # this host's, wherever it is read
        enter(studio)
        os.close(namespace)
        listener.close()
        self.level = 0

    def hear(self, text):
        heard = b""
        while text not in heard:
            heard += self.control.recv(2000)

    def cpu_ns(self):
        with open(f"/proc/{self.pid}/schedstat") as file:
            return int(file.read().split()[0])

    def report(self):
        self.level ^= 1
        self.control.sendall(b"GPI 1 LHHHH\n" if self.level else b"GPI 1 HHHHH\n")

    def lost(self):
        """Datagrams lost so far because the receive buffer was full."""
        self.snmp.seek(0)
        names, values = [line.split() for line in self.snmp if line.startswith("Udp:")]
        return int(values[names.index("RcvbufErrors")])


class Fleet:
    def __init__(self, size):
        self.home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        if libc.unshare(CLONE_NEWNET) != 0:
            sys.exit("this system permits no network namespaces")
        studio = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "bridge", "type", "bridge", "mcast_snooping", "0")
        run("ip", "addr", "add", f"{STUDIO}/16", "dev", "bridge")
        run("ip", "link", "set", "bridge", "up")
        run("ip", "route", "add", "224.0.0.0/4", "dev", "bridge")
        self.devices = [Device(number, studio) for number in range(1, size + 1)]
        self.sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.reports = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.reports.bind(("", REPORT_PORT))
        self.reports.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(GROUP) + socket.inet_aton(STUDIO))
        self.reports.settimeout(LIMIT_S)
        self.tid = 0
        for device in self.devices:
            self.await_port(device)

    def await_port(self, device):
        """Waits until the bridge forwards a write to the device."""
        limit = time.monotonic() + LIMIT_S
        self.send(self.packet(WRITE, device))
        while not select.select([device.control], [], [], 0.1)[0]:
            if time.monotonic() > limit:
                sys.exit("a daemon receives nothing from the bus")
            self.send(self.packet(WRITE, device))
        time.sleep(0.01)
        device.control.recv(2000)

    def end(self):
        for device in self.devices:
            os.kill(device.pid, signal.SIGTERM)
            device.control.close()
            device.snmp.close()
        self.sender.close()
        self.reports.close()
        enter(self.home)

    def packet(self, kind, device):
        """The next packet: a write of output 1 of a device, or a read."""
        self.tid += 1
        output = Pin(device.address, FIRST_OUTPUT_CIRCUIT)
        return Packet(self.tid, Message(kind, [Item(output.tag, BYTE, LEVEL_LOW)]).encode()).encode()

    def send(self, packet):
        self.sender.sendto(packet, (GROUP, BUS_PORT))

    def event(self, path):
        device = random.choice(self.devices)
        packet = self.packet(READ if path == "read" else WRITE, device)
        start = time.perf_counter_ns()
        if path == "report":
            device.report()
        else:
            self.send(packet)
        (device.control if path == "write" else self.reports).recv(2000)
        delay = time.perf_counter_ns() - start
        if path != "write":
            self.reports.recv(2000)
        time.sleep(0.002 + 0.00005 * len(self.devices))  # until all daemons sleep again
        return delay / 1000

    def measure(self, path):
        self.event(path)
        before, busy = self.cpu(), busy_ns()
        delays = sorted(self.event(path) for _ in range(EVENTS))
        return {"median_us": statistics.median(delays), "p99_us": delays[EVENTS * 99 // 100],
                "daemons_us": (self.cpu() - before) / 1000 / EVENTS,
                "machine_us": (busy_ns() - busy) / 1000 / EVENTS}

    def cpu(self):
        return sum(device.cpu_ns() for device in self.devices)

    def burst_of_writes(self):
        packets = [self.packet(WRITE, self.devices[i % len(self.devices)]) for i in range(BURST)]
        lost = sum(device.lost() for device in self.devices)
        for packet in packets:
            self.send(packet)
        lines, last = 0, time.monotonic()
        while lines < BURST and time.monotonic() < last + 1:
            for control in select.select([d.control for d in self.devices], [], [], 0.1)[0]:
                lines += control.recv(1 << 16).count(b"\n")
                last = time.monotonic()
        lost = sum(device.lost() for device in self.devices) - lost
        return {"sent": BURST, "done": lines, "lost": lost,
                "lost_percent": 100 * lost / (BURST * len(self.devices))}

    def burst_of_reports(self):
        """All devices report at once, to a peer with the system's default buffer."""
        each = max(1, BURST // len(self.devices))
        for _ in range(each):
            for device in self.devices:
                device.report()
        datagrams = []
        self.reports.settimeout(0.5)
        try:
            while True:
                datagrams.append(self.reports.recv(2000)[16:])
        except TimeoutError:
            self.reports.settimeout(LIMIT_S)
        return {"sent": 2 * each * len(self.devices), "done": len(datagrams)}


class RemoteServer:
    """A silent server on the studio's host; the daemon follows its input 1."""

    def __init__(self, number, device):
        self.port = 10000 + number
        self.device = device
        self.serve()
        device.control.sendall(b"CFG GPO %d SRCA=%s:%d/1\n" % (number, STUDIO.encode(), self.port))
        self.accept()

    def serve(self):
        self.listener = socket.create_server((STUDIO, self.port))
        self.listener.settimeout(2 * SWEEP_S)

    def accept(self):
        self.connection = self.listener.accept()[0]

    def is_back(self):
        if self.connection is None and select.select([self.listener], [], [], 0)[0]:
            self.accept()
        return self.connection is not None

    def go(self):
        """Closes the connection, but keeps listening: the daemon's next sweep reconnects."""
        self.connection.close()
        self.connection = None

    def end(self):
        self.listener.close()
        self.connection.close()


def sweep_of_servers(fleet, servers):
    """Delays of writes from when the servers close their connections until all have new ones."""
    delays = []
    for server in servers:
        server.go()
        delays.append(fleet.event("write"))
    start = time.monotonic()
    while not all([server.is_back() for server in servers]) and time.monotonic() < start + 2 * SWEEP_S:
        delays.append(fleet.event("write"))
    return {"seconds": time.monotonic() - start, "median_us": statistics.median(delays),
            "max_us": max(delays)}


def unread_lines(fleet):
    """How many lines wait for a control server that does not read before the daemon blocks."""
    device, sent = fleet.devices[0], 0
    while True:
        for _ in range(100):
            fleet.send(fleet.packet(WRITE, device))
            sent += 1
            time.sleep(0.00005)
        fleet.send(fleet.packet(READ, device))
        if not select.select([fleet.reports], [], [], 0.5)[0]:
            break
        fleet.reports.recv(2000)
        fleet.reports.recv(2000)
    lines = 0
    while select.select([device.control], [], [], 0.5)[0]:
        lines += device.control.recv(1 << 16).count(b"\n")
    return {"sent": sent, "done": lines, "lost": device.lost()}


def show_peers():
    fleet = Fleet(1)
    device = fleet.devices[0]
    try:
        alone = fleet.measure("write")
        servers = [RemoteServer(number, device) for number in range(2, 33)]
        time.sleep(0.1)
        while select.select([device.control], [], [], 0.1)[0]:
            device.control.recv(1 << 16)
        connected = fleet.measure("write")
        sweep = sweep_of_servers(fleet, servers)
        slow = unread_lines(fleet)
        for server in servers:
            server.end()
    finally:
        fleet.end()
    print("Peers of one daemon")
    for title, row in ("no remote server", alone), ("31 remote servers", connected):
        print(f"  write, {title:<18} {row['median_us']:>6,.0f} us, 99th {row['p99_us']:>6,.0f}, daemon"
              f" {row['daemons_us']:.1f} us")
    print(f"  write, while all 31 go and come back in {sweep['seconds']:.0f} s: {sweep['median_us']:,.0f} us,"
          f" at most {sweep['max_us']:,.0f}")
    print(f"  a control server that does not read: {slow['sent']:,} writes until the daemon waits for it,"
          f" {slow['done']:,} lines when it reads again, {slow['lost']:,} datagrams lost")
    return {"alone": alone, "connected": connected, "sweep": sweep, "unread": slow}


def busy_ns():
    """Processor time used on the whole machine, by all programs."""
    with open("/proc/stat") as file:
        fields = [int(field) for field in file.readline().split()[1:9]]
    return (sum(fields) - fields[3] - fields[4]) * 10**9 // os.sysconf("SC_CLK_TCK")


def resident_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return int(file.read().split("Rss:")[1].split()[0])


def figures_of(size):
    fleet = Fleet(size)
    try:
        result = {"daemons": size, **{path: fleet.measure(path)
                                      for path in ("write", "read", "report")}}
        result["burst of writes"] = fleet.burst_of_writes()
        result["burst of reports"] = fleet.burst_of_reports()
        result["resident_kib"] = max(resident_kib(device.pid) for device in fleet.devices)
        return result
    finally:
        fleet.end()


def show(result):
    for path in ("write", "read", "report"):
        row = result[path]
        print(f"  {result['daemons']:>7}  {path:<6} {row['median_us']:>10,.0f} {row['p99_us']:>8,.0f}"
              f" {row['daemons_us'] / result['daemons']:>10,.1f} {row['daemons_us']:>12,.0f}"
              f" {row['machine_us']:>12,.0f}")
    writes, reports = result["burst of writes"], result["burst of reports"]
    print(f"           burst of {writes['sent']:,} writes: {writes['done']:,} lines,"
          f" {writes['lost_percent']:.1f} % of all receptions lost for want of room")
    print(f"           burst of {reports['sent']:,} report datagrams: {reports['done']:,} received;"
          f" resident KiB at most {result['resident_kib']:,}", flush=True)


def main():
    if "--inside" not in sys.argv:
        inner = f'mount -t tmpfs run /run && exec "{sys.executable}" "$0" --inside "$@"'
        as_root = [] if os.getuid() == 0 else ["--map-root-user"]
        os.execvp("unshare", ["unshare", *as_root, "--net", "--mount", "sh", "-c", inner,
                              os.path.abspath(__file__), *sys.argv[1:]])
    sizes = [int(word) for word in sys.argv[2:]] or SIZES
    print(f"Load {os.getloadavg()[0]:.1f}, {os.cpu_count()} processors")
    print("  daemons  path    median us  99th us  us/daemon  all daemons  the machine")
    results = []
    for size in sizes:
        results.append(figures_of(size))
        show(results[-1])
    results.append({"peers": show_peers()})
    with open("build/bench/fleet.json", "w") as file:
        json.dump(results, file, indent=1)


main()
