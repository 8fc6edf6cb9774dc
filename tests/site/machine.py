"""Hosts of a site on the kernel of scripts/gpiosim, what runs on them, and the clock that moves them."""

import contextlib
import ctypes
import fcntl
import heapq
import itertools
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import time

LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNS, CLONE_NEWNET = 0x20000, 0x40000000
MS_BIND, MS_PRIVATE = 0x1000, 0x44000  # the latter with MS_REC
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1
UNITS = pathlib.Path(__file__).parents[2] / "packaging/systemd"
RUN = pathlib.Path("/run")
CHIPS = pathlib.Path("/sys/kernel/config/gpio-sim")


def call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), f"{function.__name__}{arguments}")


class Loop:
    """What happens at which time, and what is read in between."""

    def __init__(self):
        self.queue, self.numbers = [], itertools.count()
        self.poll, self.readers = select.poll(), {}

    def at(self, when, do):
        heapq.heappush(self.queue, (when, next(self.numbers), do))

    def after(self, seconds, do):
        self.at(time.monotonic() + seconds, do)

    def every(self, seconds, do):
        def again():
            do()
            self.after(seconds, again)
        self.after(seconds, again)

    def read(self, descriptor, do):
        self.readers[descriptor] = do
        self.poll.register(descriptor, select.POLLIN)

    def forget(self, descriptor):
        del self.readers[descriptor]
        self.poll.unregister(descriptor)

    def until(self, end):
        while True:
            now = time.monotonic()
            if self.queue and self.queue[0][0] <= now:
                heapq.heappop(self.queue)[2]()
            elif now >= end:
                return
            else:
                wake = min(end, self.queue[0][0]) if self.queue else end
                for descriptor, _ in self.poll.poll((wake - now) * 1000 + 1):
                    if descriptor in self.readers:
                        self.readers[descriptor]()


class Part:
    """Something that can be broken: since when it is, or is whole again. Several reasons may break it."""

    def __init__(self, name):
        self.name, self.reasons, self.since = name, set(), time.monotonic()

    def mark(self, reason, is_broken):
        was = bool(self.reasons)
        (self.reasons.add if is_broken else self.reasons.discard)(reason)
        if is_broken or was != bool(self.reasons):
            self.since = time.monotonic()


class Host:
    def __init__(self, name):
        self.name, self.folder = name, RUN / "hosts" / name
        for folder in "log", "orvex":
            (self.folder / folder).mkdir(parents=True)
        subprocess.run(["ip", "netns", "add", name], check=True)
        self.ip("link set lo up")
        self.namespace = os.open(f"/run/netns/{name}", os.O_RDONLY)
        with self.inside():  # an address that is followed by another takes nothing else with it
            pathlib.Path("/proc/sys/net/ipv4/conf/all/promote_secondaries").write_text("1", "ascii")

    def ip(self, *commands):
        subprocess.run(["ip", "-n", self.name, "-batch", "-"], check=True, text=True,
                       input="".join(command + "\n" for command in commands))

    def enter(self):
        """Called in a child process: what a unit and "ip netns exec" make of mounts."""
        call(LIBC.setns, self.namespace, CLONE_NEWNET)
        call(LIBC.unshare, CLONE_NEWNS)
        call(LIBC.mount, b"none", b"/", None, MS_PRIVATE, None)
        call(LIBC.mount, b"sysfs", b"/sys", b"sysfs", 0, None)
        for folder, at in ("log", b"/var/log"), ("orvex", b"/run/orvex"):
            call(LIBC.mount, bytes(self.folder / folder), at, None, MS_BIND, None)

    def start(self, command, output, environment=()):
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                env=dict(os.environ, **dict(environment)), preexec_fn=self.enter)

    @contextlib.contextmanager
    def inside(self):
        """For as long, this process is on that host."""
        with open("/proc/self/ns/net", "rb") as own:
            call(LIBC.setns, self.namespace, CLONE_NEWNET)
            try:
                yield
            finally:
                call(LIBC.setns, own.fileno(), CLONE_NEWNET)

    def socket(self, *kind):
        """A socket on that host."""
        with self.inside():
            return socket.socket(*kind)

    def set_quality(self, name, *how):
        """What the network emulator does to the packets towards an interface; without words, nothing."""
        with self.inside():
            subprocess.run(["tc", "qdisc", *(("replace", "dev", name, "root", "netem", *how) if how else
                                             ("replace", "dev", name, "root", "pfifo"))], check=True)

    def set_link(self, name, is_up):
        with self.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            request = fcntl.ioctl(sock, SIOCGIFFLAGS, struct.pack("16sh22x", name.encode(), 0))
            flags = struct.unpack_from("16sh", request)[1]
            flags = flags | IFF_UP if is_up else flags & ~IFF_UP
            fcntl.ioctl(sock, SIOCSIFFLAGS, struct.pack("16sh22x", name.encode(), flags))


class Chip:
    """Lines NAME-0 and so on. While it is out, its lines have no level."""

    def __init__(self, name, lines):
        self.name, self.folder, self.part, self.pulled = name, CHIPS / name, Part(f"chip {name}"), {}
        (self.folder / "bank").mkdir(parents=True)
        (self.folder / "bank/num_lines").write_text(str(lines), "ascii")
        (self.folder / "bank/label").write_text(name, "ascii")
        for line in range(lines):
            (self.folder / f"bank/line{line}").mkdir()
            (self.folder / f"bank/line{line}/name").write_text(f"{name}-{line}", "ascii")
        self.plug(True)

    def plug(self, is_in):
        (self.folder / "live").write_text(str(int(is_in)), "ascii")
        if is_in:
            self.lines = pathlib.Path("/sys/devices/platform", *(
                (self.folder / name).read_text("ascii").strip() for name in ("dev_name", "bank/chip_name")))
        self.part.mark("out", not is_in)
        for line, level in self.pulled.items():
            self.pull(line, level)

    def pull(self, line, level):
        self.pulled[line] = level
        if not self.part.reasons:
            (self.lines / f"sim_gpio{line}/pull").write_text("pull-up" if level else "pull-down", "ascii")

    def value(self, line):
        return int((self.lines / f"sim_gpio{line}/value").read_text("ascii"))


class Panel:
    """The pins of orvex-sim, in place of a chip. Its console is told the inputs and asked for the outputs; its file
    has the inputs too, for the next start."""

    def __init__(self, host, file, pins, inputs):
        self.file, self.text, self.pins, self.inputs = file, file.read_text("ascii"), pins, inputs
        self.part, self.log = Part(f"panel {host.name}"), RUN / f"log/{host.name}.orvex-sim"
        self.levels, self.outputs, self.asked = {line: 1 for line in inputs}, {}, -1
        self.input = host.folder / "panel"
        os.mkfifo(self.input)
        self.writer = os.open(self.input, os.O_RDWR | os.O_NONBLOCK)

    def pull(self, line, level):
        self.levels[line] = level
        state = "GPI 1 " + "".join("LH"[self.levels[line]] for line in self.inputs) + "\n"
        self.file.write_text(self.text + state, "ascii")
        os.write(self.writer, state.encode())

    def value(self, line):
        if time.monotonic() - self.asked > 0.1:
            end = self.log.stat().st_size
            os.write(self.writer, b"show\n")
            time.sleep(0.01)  # nothing takes longer where only waiting takes time
            text = self.log.read_bytes()[end:].decode("ascii", "replace")
            assert "SET NIC_IPADDR" in text, f"{self.part.name} does not answer"  # it says nothing of high outputs
            self.outputs = dict(re.findall(r"^GPO (\d) (\w+)", text, re.M))
            self.asked = time.monotonic()
        number, pin = self.pins[line]
        return int(self.outputs.get(number, "HHHHH")[pin] == "H")


class Unit:
    """A program that is started, watched and started again as its unit says."""

    def __init__(self, loop, host, name, command, **environment):
        self.loop, self.host, self.name, self.command = loop, host, name, command
        self.part, self.log = Part(f"{host.name} {name}"), RUN / f"log/{host.name}.{name}"
        file = UNITS / f"{name}.service.in"
        text = re.sub(r"\\\n", "", file.read_text("utf-8")) if file.exists() else "Restart=always\nRestartSec=1"
        found = dict(re.findall(r"^(\w+)=(.*)$", text, re.M))
        times = {"s": 1, "min": 60}
        number, unit = re.match(r"(\d+)(min|s|)", found.get("WatchdogSec", "0")).groups()
        self.watchdog = int(number) * times.get(unit, 1)
        self.restarts, self.pause = found["Restart"], float(found["RestartSec"])
        self.no_restart = [int(status) for status in found.get("RestartPreventExitStatus", "").split()]
        self.environment = dict(environment)
        for words in re.findall(r"^Environment=(.*)$", text, re.M):
            self.environment.update(word.split("=", 1) for word in words.split())
        self.process, self.stopping, self.starts, self.beaten, self.read_to = None, False, 0, 0, 0
        if self.watchdog:
            path = str(host.folder / f"{name}.notify")
            self.notices = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
            self.notices.bind(path)
            loop.read(self.notices.fileno(), self.notice)
            self.environment.update(NOTIFY_SOCKET=path, WATCHDOG_USEC=str(self.watchdog * 1000000))
            loop.every(self.watchdog / 8, self.watch)
        self.start()

    def start(self):
        if self.process:
            return
        with open(self.log, "ab") as log:
            self.process = self.host.start(self.command, log, self.environment)
        self.stopping, self.beaten = False, time.monotonic()
        self.starts += 1
        self.descriptor = os.pidfd_open(self.process.pid)
        self.loop.read(self.descriptor, self.ended)
        self.part.mark("ended", False)

    def notice(self):
        for text in self.notices.recv(4096).decode().split("\n"):
            if text == "WATCHDOG=1":
                self.beaten = time.monotonic()

    def watch(self):
        if self.process and time.monotonic() - self.beaten > self.watchdog:
            assert "stopped" in self.part.reasons, f"{self.part.name} runs, but does not feed its watchdog"
            self.signal(signal.SIGABRT)
            self.signal(signal.SIGCONT)

    def signal(self, number):
        if not self.process:
            return False
        if number == signal.SIGSTOP:
            self.part.mark("stopped", True)
        elif number == signal.SIGCONT:
            self.part.mark("stopped", False)
        self.process.send_signal(number)
        return True

    def stop(self):
        """As "systemctl stop" does: it also continues what is stopped."""
        self.stopping, process = True, self.process
        self.loop.after(90, lambda: self.process is process and self.signal(signal.SIGKILL))
        return self.signal(signal.SIGTERM) and self.signal(signal.SIGCONT)

    def ended(self):
        self.loop.forget(self.descriptor)
        os.close(self.descriptor)
        status, self.process = self.process.wait(), None
        self.part.mark("ended", True)
        self.part.mark("stopped", False)
        is_failure = status not in (0, -signal.SIGTERM)
        restarts = self.restarts == "always" or (self.restarts == "on-failure" and is_failure)
        if not self.stopping and status not in self.no_restart and restarts:
            self.loop.after(self.pause, self.start)
