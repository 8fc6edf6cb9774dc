"""Lives through days of a whole site in simulated time, on the kernel of scripts/gpiosim: draws hosts, rules
and events from a seed, and checks from outside what the programs owe. Called by scripts/simulate --site.

Usage: site.py BUILD OUTPUT SEED SECONDS HOSTS EVENT,EVENT...|all
"""

import collections
import http.client
import itertools
import json
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from machine import RUN, Chip, Host, Loop, Panel, Part, Unit
from messages import Messages
from boards import Board, Viewer
from rules import Doctor, Drivers, Figures, Follow, Growth, Link, Pulse, Running, Setting, Tally

SAMPLE = 5  # seconds between two looks at the lamps
LINES = 9
PINS = {3: ("1", 0), 4: ("1", 1), 5: ("1", 2), 6: ("1", 3), 8: ("1", 4), 7: ("2", 0)}  # line: output and its pin
PANELS = 0.2  # the share of hosts with orvex-sim


class Device:
    """A host with a chip, or with orvex-sim in its place: two contacts, and lamps that follow a link, an expression,
    a write, a tally, a pulse and a contact of another host."""

    def __init__(self, site, number, others):
        self.world, self.site, self.number = site.world, site, number
        self.address, self.ip = f"{site.number}:{number}", f"10.77.{site.number}.{number}"
        self.host = Host(f"s{site.number}h{number}")
        name = self.host.name
        self.world.hub.ip(f"link add {name} type veth peer name eth0 netns {name}",
                          f"link set {name} master bus{site.number} up")
        self.host.ip(f"addr add {self.ip}/24 dev eth0", "link set eth0 up", "route add 224.0.0.0/4 dev eth0")
        self.cable = Part(f"{name} cable")
        self.contacts = {pin: ("H", -1000.0) for pin in (1, 2)}
        self.source = f"10.77.{site.number}.{number % others + 1}"
        self.units = {}
        self.channels = (f"CFG GPO 1 SRCA={self.address}\nCFG GPO 2 SRCA={self.source}:94/1\n"
                         f"SET NIC_IPADDR={self.ip}\n")
        self.chip = self.make_panel() if self.world.panels.random() < PANELS else self.make_chip(name)
        self.run("", "../app/orvex", "-debug", ORVEX_RESUBSCRIBE="yes")

    def make_chip(self, name):
        chip = Chip(name, LINES)
        for line in range(LINES):
            chip.pull(line, 1)
        self.write("gpio.conf", f"""listen 127.0.0.1:93
listen 0.0.0.0:94 from 10.77.0.0/16 inputs
chip c label {name}
input 1.1 c 0
input 1.2 c 1
output 1.1 c 3
output 1.2 c 4
output 1.3 c 5
output 1.4 c 6
output 1.5 c 8
output 2.1 c 7
""" + self.channels)
        self.run("gpio", "gpio/orvex-gpio", self.host.folder / "gpio.conf")
        return chip

    def make_panel(self):
        self.write("sim.conf", self.channels)
        panel = Panel(self.host, self.host.folder / "sim.conf", PINS, (0, 1))
        command = ["sh", "-c", 'exec "$0" "$@" <>"$PANEL"', f"{self.world.build}/tools/sim/orvex-sim", "--listen",
                   "127.0.0.1:93", "--listen", "0.0.0.0:94", str(self.host.folder / "sim.conf")]
        self.units["gpio"] = Unit(self.world.loop, self.host, "orvex-sim", command, PANEL=str(panel.input))
        return panel

    def write(self, name, text):
        (self.host.folder / name).write_text(text, "ascii")

    def run(self, name, program, *arguments, **environment):
        self.units[name] = Unit(self.world.loop, self.host, f"orvex-{name}".rstrip("-"),
                                ["stdbuf", "-oL", f"{self.world.build}/tools/{program}", *map(str, arguments)],
                                **environment)

    def parts(self, *names):
        return [self.units[name].part for name in names]

    def pull(self, pin, level):
        self.chip.pull(pin - 1, int(level == "H"))
        self.contacts[pin] = level, time.monotonic()

    def contact(self, pin):
        """Its level, and since when."""
        level, since = self.contacts[pin]
        is_out = bool(self.chip.part.reasons)
        return ("H" if is_out else level), max(since, self.chip.part.since)

    def lamp(self, line):
        return "L" if self.chip.value(line) == 0 else "H"


class Site:
    """Hosts on one bus. The first has the bridge to the broker and the tallies, the last has the board, and at some
    sites another bridge that stands by."""

    def __init__(self, world, number, hosts):
        self.world, self.number = world, number
        world.hub.ip(f"link add bus{number} type bridge", f"link set bus{number} up")
        self.devices = [Device(self, i + 1, hosts) for i in range(hosts)]
        self.first, self.last = self.devices[0], self.devices[-1]
        self.bridged = [self.first, self.last] if hosts > 1 and world.random.random() < 0.5 else [self.first]
        self.wans = []
        for i, device in enumerate(self.bridged):
            name = f"w{number}.{i}"
            world.hub.ip(f"link add {name} type veth peer name wan netns {device.host.name}",
                         f"link set {name} master wan up")
            device.host.ip(f"addr add 10.78.{i}.{number + 1}/16 dev wan", "link set wan up")
            self.wans.append(Part(name))
        self.first.write("tsl.conf", "interface eth0\nnames /dev/null\nlisten udp 127.0.0.1:8900 v3.1\n" + "".join(
            f"display {device.number} tally1 -> {device.address}:out4 on-loss H 30\n" for device in self.devices))
        self.switcher = self.first.host.socket(2, 2)
        self.last.write("token", "0123456789abcdef\n")
        (self.last.host.folder / "token").chmod(0o600)
        self.disk = self.last.host.folder / "board"
        self.disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16M", "board", self.disk], check=True)
        self.full = Part(f"site {number} disk")

    def start(self):
        self.configure()
        for device in self.bridged:
            state = device.host.folder / "mqtt"
            state.mkdir()
            device.run("mqtt", "mqtt/orvex-mqtt", "--metrics", device.host.folder / "mqtt.prom",
                       device.host.folder / "mqtt.conf", STATE_DIRECTORY=str(state))
        self.chains = [[*device.parts("mqtt"), device.cable, wan] for device, wan in zip(self.bridged, self.wans)]
        self.first.run("tsl", "tsl/orvex-tsl", self.first.host.folder / "tsl.conf")
        self.last.run("board", "board/orvex-board", "-i", "eth0", "--names", "/dev/null", "--keep-size", "1M",
                      "--allow-set", "--token-file", self.last.host.folder / "token", STATE_DIRECTORY=str(self.disk))
        self.board, self.drivers, self.figures = Board(self), Drivers(self), Figures(self)
        self.viewer = Viewer(self.board)

    def configure(self):
        """Writes the file of each bridge."""
        text = f"site s{self.number}\nbroker 10.78.0.1\ninterface eth0\nnames /dev/null\n"
        text += "standby yes\n" * (len(self.bridged) > 1)
        text += "".join(link.text for link in self.world.links if self.number in link.sites)
        for device in self.bridged:
            device.write("mqtt.conf", text)

    def bridge(self):
        return [*self.first.parts("mqtt"), self.first.cable]

    def request(self, method, path, body=None, is_json=True, **headers):
        """An answer of the board, None if there is none."""
        sock = self.last.host.socket(2, 1)
        sock.settimeout(5)
        try:
            sock.connect(("127.0.0.1", 8093))
            connection = http.client.HTTPConnection("127.0.0.1:8093")
            connection.sock = sock
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            text = answer.read().decode()
            return text if not is_json else None if answer.status >= 400 else json.loads(text)
        except (OSError, http.client.HTTPException):
            return None
        finally:
            sock.close()


class World:
    def __init__(self, build, output, seed, seconds, hosts, events):
        self.build, self.output, self.seconds = build, pathlib.Path(output), seconds
        self.random, self.panels = random.Random(seed), random.Random(f"{seed}/orvex-sim")
        self.counts = collections.Counter()
        self.loop, self.start = Loop(), time.monotonic()
        self.trace, self.happened, self.delayed = collections.deque(maxlen=30), [], set()
        (RUN / "log").mkdir()
        (RUN / "netns").mkdir()
        (RUN / "orvex").mkdir()
        self.hub = Host("hub")
        self.hub.ip("link add wan type bridge", "addr add 10.78.0.1/16 dev wan", "link set wan up")
        self.clock, self.sweeps = Part("clock"), Part("reconnections")
        (self.hub.folder / "broker.conf").write_text(
            "listener 1883\nallow_anonymous true\nset_tcp_nodelay true\nuser root\n", "ascii")
        self.broker = Unit(self.loop, self.hub, "mosquitto", ["/usr/sbin/mosquitto", "-c",
                                                              str(self.hub.folder / "broker.conf")])
        sizes = [self.random.randint(1, 4) for _ in range(self.random.randint(2, 3))]
        self.sites = [Site(self, i + 1, min(size, hosts)) for i, size in enumerate(sizes)]
        self.devices = [device for site in self.sites for device in site.devices]
        self.links = [Link(self, device, number) for device in self.devices for number in (1, 2)]
        for site in self.sites:
            site.start()
        self.settings = {device.address: Setting(device) for device in self.devices}
        self.tallies = {device.address: Tally(device) for device in self.devices}
        self.pulses = {device.address: Pulse(device) for device in self.devices}
        self.doctors = {device.address: Doctor(device) for device in self.devices}
        self.growth = Growth(self)
        self.messages = Messages(self)
        self.rules = [*self.links, *self.settings.values(), *self.tallies.values(), *self.pulses.values(),
                      *self.doctors.values(), *(Follow(device) for device in self.devices), Running(self)]
        self.draw(seed, events)

    def units(self):
        return [self.broker, *(unit for device in self.devices for unit in device.units.values())]

    def draw(self, seed, events):
        """The rates are drawn too: a run may be nearly quiet, or a storm."""
        kinds = {name[3:]: getattr(self, name) for name in dir(self) if name.startswith("do_")}
        weights = [self.random.expovariate(1) * (6 if kind in ("contact", "set", "tally") else 1) for kind in kinds]
        pause = 10 ** self.random.uniform(1.2, 2.8)
        sites = ", ".join(f"{len(site.devices)}{' and a standby' * (len(site.bridged) > 1)}" for site in self.sites)
        panels = sum(isinstance(device.chip, Panel) for device in self.devices)
        print(f"drawn sites with hosts: {sites}; {panels} with orvex-sim; an event every {pause:.0f} s", flush=True)
        when = 90.0
        for number in itertools.count():
            when += self.random.expovariate(1 / pause)
            kind = self.random.choices(list(kinds), weights)[0]
            if when > self.seconds - 150:
                break
            if events == "all" or str(number) in events.split(","):
                chance = random.Random(f"{seed}/{number}")
                self.loop.at(self.start + when, lambda n=number, k=kind, c=chance: self.happen(n, k, kinds[k], c))

    def happen(self, number, kind, do, chance):
        self.counts["event: " + kind] += 1
        self.happened.append(str(number))
        device = chance.choice(self.devices)
        seconds = 10 ** chance.uniform(-1, 2.5)
        self.say(f"event {number}: {kind} {do(device, chance, seconds) or device.host.name}")

    def say(self, text):
        self.trace.append(f"{time.monotonic() - self.start:11.3f}  {text}")
        with open(self.output / "events", "a", encoding="utf-8") as events:
            events.write(self.trace[-1] + "\n")

    def break_(self, how, part, seconds, breaks, mends):
        """Breaks something for so long; it stays broken while another event breaks it in the same way."""
        reason = f"{how} {time.monotonic()}"
        if not any(other.startswith(how) for other in part.reasons):
            breaks()
        part.mark(reason, True)

        def mend():
            part.mark(reason, False)
            if not any(other.startswith(how) for other in part.reasons):
                mends()
        self.loop.after(seconds, mend)
        return f"{part.name} for {seconds:.1f} s"

    def run(self, host, command, done=lambda said: None):
        """Runs a command beside everything else; done gets its output."""
        file = tempfile.TemporaryFile()
        process = host.start(command, file)
        descriptor = os.pidfd_open(process.pid)

        def ended():
            self.loop.forget(descriptor)
            os.close(descriptor)
            process.wait()
            file.seek(0)
            with file:
                done(file.read().decode())
        self.loop.read(descriptor, ended)

    # ---- events

    def do_contact(self, device, chance, _):
        pin, level = chance.choice((1, 2)), chance.choice("LH")
        if device.contacts[pin][0] != level:
            device.pull(pin, level)
            device.site.board.changed(device, pin)
        return f"{device.host.name} {pin} is {level}"

    def do_set(self, device, chance, _):
        level, way = chance.choice("LH"), chance.choice(("orvexctl", "mqtt", "board"))
        self.settings[device.address].write(level, way)
        return f"{device.address}:out3 {level} by {way}"

    def do_tally(self, device, chance, _):
        level = chance.choice("LH")
        self.tallies[device.address].say(level)
        return f"{device.host.name} {level}"

    def do_pulse(self, device, chance, _):
        seconds = chance.randint(5, 7)
        self.pulses[device.address].send(seconds)
        return f"{device.address}:out5 for {seconds} s"

    def do_kill(self, _, chance, __):
        unit = chance.choice(self.units())
        unit.signal(signal.SIGKILL)
        return unit.part.name

    def do_freeze(self, _, chance, seconds):
        unit = chance.choice(self.units())
        process = unit.process
        if unit.signal(signal.SIGSTOP):
            self.loop.after(seconds, lambda: unit.process is process and unit.signal(signal.SIGCONT))
        return f"{unit.part.name} for {seconds:.1f} s"

    def do_restart(self, _, chance, seconds):
        unit = chance.choice(self.units())
        unit.stop()
        self.loop.after(seconds, unit.start)
        return f"{unit.part.name} after {seconds:.1f} s"

    def do_cable(self, device, _, seconds):
        if device is device.site.last:
            device.site.board.missed(seconds)
        return self.break_("cut", device.cable, seconds, lambda: self.hub.set_link(device.host.name, False),
                           lambda: self.hub.set_link(device.host.name, True))

    def do_wan(self, device, chance, seconds):
        wan = chance.choice(device.site.wans)
        return self.break_("cut", wan, seconds, lambda: self.hub.set_link(wan.name, False),
                           lambda: self.hub.set_link(wan.name, True))

    def do_loss(self, device, chance, seconds):
        name, loss = device.host.name, chance.randint(5, 60)
        return self.break_("lossy", device.cable, seconds, lambda: self.hub.set_quality(
            name, "loss", f"{loss}%", "duplicate", "5%", "delay", "30ms", "30ms"), lambda: self.hub.set_quality(name))

    def do_delay(self, device, chance, seconds):
        """Late and in another order: that is no reason to show less."""
        if any(reason.startswith("lossy") for reason in device.cable.reasons) or device in self.delayed:
            return None
        name, ms = device.host.name, chance.randint(1, 30)
        self.hub.set_quality(name, "delay", f"{ms}ms", f"{ms / 2}ms")
        self.delayed.add(device)

        def end():
            self.delayed.discard(device)
            if not any(reason.startswith("lossy") for reason in device.cable.reasons):
                self.hub.set_quality(name)
        self.loop.after(seconds, end)
        return f"{name} {ms} ms for {seconds:.1f} s"

    def do_address(self, device, _, seconds):
        other = device.ip.rpartition(".")[0] + f".{100 + device.number}"

        def move(old, new):
            device.host.ip(f"addr add {new}/24 dev eth0", f"addr del {old}/24 dev eth0")
        return self.break_("moved", device.cable, seconds, lambda: move(device.ip, other),
                           lambda: move(other, device.ip))

    def do_clock(self, _, chance, __):
        seconds = chance.choice((-1, 1)) * 10 ** chance.uniform(0, 3.5)
        time.clock_settime(time.CLOCK_REALTIME, time.time() + seconds)
        self.clock.mark("set", True)
        self.clock.mark("set", False)
        if seconds < 0:  # orvex reconnects to remote servers by this clock, so not until it has caught up
            reason = f"back {time.monotonic()}"
            self.sweeps.mark(reason, True)
            self.loop.after(-seconds, lambda: self.sweeps.mark(reason, False))
        return f"by {seconds:.1f} s"

    def do_viewer(self, device, _, seconds):
        device.site.viewer.leave(seconds)
        return f"of site {device.site.number} is away for {seconds:.1f} s"

    def do_chip(self, device, _, seconds):
        if isinstance(device.chip, Panel):
            return f"{device.host.name} has none"
        if device.chip.part.reasons:
            return f"{device.host.name} is out already"
        # While a program that hangs has the interrupts of a lost chip, this kernel gives them to the next chip too.
        if device.units["gpio"].part.reasons:
            return f"{device.host.name} stays, as orvex-gpio does not run"
        device.chip.plug(False)
        self.loop.after(seconds, lambda: device.chip.plug(True))
        return f"{device.host.name} for {seconds:.1f} s"

    def do_disk(self, device, _, seconds):
        file = device.site.disk / "filler"

        def fill():
            try:
                with open(file, "wb", buffering=0) as filler:
                    while True:
                        filler.write(bytes(4096))
            except OSError:
                pass  # it is full
        return self.break_("full", device.site.full, seconds, fill, lambda: file.unlink(missing_ok=True))

    def do_reload(self, device, chance, _):
        link = chance.choice([link for link in self.links if link.device is device])
        link.draw(chance)
        for site in self.sites:
            site.configure()
            for bridge in site.bridged:
                bridge.units["mqtt"].signal(signal.SIGHUP)
        return link.text.strip()

    def do_doctor(self, device, _, __):
        self.doctors[device.address].ask()

    # ---- the observer

    def look(self):
        for rule in self.rules:
            rule.check()

    def live(self):
        self.loop.every(SAMPLE, self.look)
        self.loop.every(10, lambda: [tally.send() for tally in self.tallies.values()])
        self.loop.every(120, lambda: [site.viewer.check() for site in self.sites])
        self.loop.every(20, lambda: [site.figures.check() for site in self.sites])
        self.loop.every(600, lambda: [site.board.measure() for site in self.sites])
        self.loop.every(3600, self.growth.measure)
        self.loop.every(600, self.messages.read)
        while (now := time.monotonic() - self.start) < self.seconds:
            print("progress", int(now), len(self.happened), flush=True)
            self.loop.until(self.start + min(now + 600, self.seconds))
        self.growth.measure()
        self.messages.read()

    def end(self):
        for unit in self.units():
            unit.stop()
        for log in (RUN / "log").iterdir():
            shutil.copy(log, self.output)


def main():
    build, output, seed, seconds, hosts, events = sys.argv[1:]
    world = World(build, output, int(seed), int(seconds), int(hosts), events)
    try:
        world.live()
    except AssertionError as error:
        print(f"After {time.monotonic() - world.start:.0f} s: {error}\nThe last events:")
        print("\n".join(world.trace))
        print("happened", ",".join(world.happened))
        return 1
    finally:
        world.end()
    for what, count in sorted(world.counts.items()):
        print("count", count, what)
    return 0


if __name__ == "__main__":
    sys.exit(main())
