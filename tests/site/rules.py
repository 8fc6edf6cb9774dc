"""What a site owes: each rule knows from the events what must be seen, and when."""

import ctypes
import itertools
import os
import pathlib
import re
import socket
import struct
import sys
import time

sys.path.append(str(pathlib.Path(__file__).parents[2] / "python"))
from orvex.packets import BUS_PORT, WRITE, Message, Packet  # noqa: E402
from orvex.pins import Pin, read_byte  # noqa: E402

# Seconds after which things are as they must be, once everything concerned is whole. The bridge reads all pins
# every ten seconds; orvex looks for lost servers every 27 to 54, which it notices in 30; the rest is what starting
# and connecting takes.
CHANGE = 3
BRIDGE = 45
SERVER = 110
SILENCE = 25  # until a silent device's pins are unknown, beyond the link's own time
HANDOVER = 10  # until a bridge that stands by has taken over


def whole(parts, seconds):
    """Whether all of them have been whole for so long."""
    now = time.monotonic()
    return all(not part.reasons and now - part.since >= seconds for part in parts)


def broken(parts, seconds):
    """Whether one of them has been broken for so long, in a way that others must notice: some packets pass a lossy
    cable, a device may have another address, and orvex answers for a control server that hangs."""
    now = time.monotonic()
    return any(not reason.startswith(("lossy", "moved")) and
               (reason != "stopped" or not part.name.endswith(("orvex-gpio", "orvex-sim")))
               for part in parts if now - part.since >= seconds for reason in part.reasons)


def served(site, seconds):
    """Whether a bridge of the site has been whole for so long, and with another that stands by, neither has
    changed just now."""
    now = time.monotonic()
    return (any(whole(chain, seconds) for chain in site.chains) and
            all(now - part.since >= HANDOVER for chain in site.chains for part in chain))


def unserved(site, seconds):
    return all(broken(chain, seconds) for chain in site.chains)


class Rule:
    """A lamp, and what it must show."""

    def __init__(self, device, line, what):
        self.device, self.line, self.what, self.since = device, line, what, time.monotonic()

    def sink(self):
        device = self.device
        return [device.chip.part, device.cable, *device.parts("gpio", "")]

    def check(self):
        wanted = self.wanted() if whole(self.sink(), BRIDGE) and time.monotonic() - self.since >= CHANGE else None
        if wanted:
            self.device.world.counts[f"lamps looked at: {type(self).__name__.lower()}"] += 1
            shown = self.device.lamp(self.line)
            assert shown == wanted, f"{self.what} shows {shown}, not {wanted}: {self.why()}"

    def why(self):
        return ""


class Running:
    """Programs run, unless somebody has stopped them; one that hangs is started again."""

    def __init__(self, world):
        self.world = world

    def check(self):
        for unit in self.world.units():
            age = time.monotonic() - unit.part.since
            assert unit.process or unit.stopping or age < 10, f"{unit.part.name} is not started again"
            assert not unit.watchdog or "stopped" not in unit.part.reasons or age < unit.watchdog * 1.5, (
                f"{unit.part.name} has hung for {age:.0f} s")


class Follow(Rule):
    """The first contact of another host, by orvex itself, which does not repeat it for a server that has
    started again: that has the initial level until the contact changes."""

    def __init__(self, device):
        super().__init__(device, 7, f"{device.host.name} output 2.1")
        self.other = next(other for other in device.site.devices if other.ip == device.source)

    def wanted(self):
        level, since = self.other.contact(1)
        parts = [self.other.cable, *self.other.parts("gpio"), *self.sink(), self.device.world.sweeps]
        follows = since > self.device.units["gpio"].part.since and time.monotonic() - since >= CHANGE
        return level if follows and whole(parts, SERVER) else None


class Link(Rule):
    """A link of the bridge, from pins of other sites."""

    def __init__(self, world, device, number):
        super().__init__(device, 2 + number, f"{device.address}:out{number}")
        self.number = number
        self.others = [other for other in world.devices if other.site is not device.site]
        self.draw(world.random)

    def draw(self, chance):
        count = 1 if self.number == 1 else chance.randint(2, 3)
        choices = [(other, pin) for other in self.others for pin in (1, 2)]
        self.pins = chance.sample(choices, min(count, len(choices)))
        self.need = chance.randint(1, len(self.pins))
        self.inverts, self.on_loss = chance.random() < 0.3, chance.choice(("H", "L", "keep"))
        self.seconds = chance.randint(2, 10)
        self.sites = {self.device.site.number} | {other.site.number for other, _ in self.pins}
        texts = [f"s{other.site.number}:{other.address}:in{pin}" for other, pin in self.pins]
        source = texts[0] if len(texts) == 1 else f"{self.need} of ({', '.join(texts)})"
        self.text = (f"link {source} -> s{self.device.site.number}:{self.what}{' invert' * self.inverts}"
                     f" on-loss {self.on_loss} {self.seconds}\n")
        self.since = time.monotonic() + BRIDGE

    def known(self, other, pin):
        """The levels that the bridge may take the pin for; None is one that is not known."""
        own, far = self.device.site, other.site
        parts = [own.world.broker.part, other.cable, *other.parts("gpio", "")]
        level, since = other.contact(pin)
        if (whole(parts, BRIDGE) and served(own, BRIDGE) and served(far, BRIDGE) and
                time.monotonic() - since >= CHANGE):
            return [level]
        late = SILENCE + self.seconds
        is_lost = broken(parts, late) or unserved(own, late) or unserved(far, late)
        return [None] if is_lost else ["L", "H", None]

    def is_known(self):
        """Whether the bridge must know all its pins."""
        return (time.monotonic() >= self.since and
                all(levels in (["L"], ["H"]) for levels in (self.known(*pin) for pin in self.pins)))

    def value(self, levels):
        if levels.count("L") >= self.need:
            return "H" if self.inverts else "L"
        if len(levels) - levels.count("H") >= self.need:
            return {"keep": None}.get(self.on_loss, self.on_loss)
        return "L" if self.inverts else "H"

    def wanted(self):
        # Which of two bridges sets the output, and when, is not said while neither can be active.
        site = self.device.site
        if not (served(site, BRIDGE) if len(site.chains) > 1 else whole(site.bridge(), BRIDGE)):
            return None
        values = {self.value(levels) for levels in itertools.product(*(self.known(*pin) for pin in self.pins))}
        return values.pop() if len(values) == 1 else None

    def why(self):
        return f"{self.text.strip()}; {[(other.address, pin, self.known(other, pin)) for other, pin in self.pins]}"


class Setting(Rule):
    """An output that is written now and then. A device that starts sets it high."""

    def __init__(self, device):
        super().__init__(device, 5, f"{device.address}:out3")
        self.level, self.starts = "H", 0  # no level: a write may be carried out late, or not at all

    def parts(self):
        site = self.device.site
        return [*self.sink(), site.first.cable, site.last.cable, *site.last.parts("board"), site.world.broker.part]

    def write(self, level, way):
        self.level = level if whole(self.parts(), BRIDGE) and served(self.device.site, BRIDGE) else None
        self.since = time.monotonic()
        site, world = self.device.site, self.device.world
        site.figures.published += way == "mqtt"
        if way == "board":
            site.board.set_pin(self.what, level)
        else:
            host, *command = (site.first.host, f"{world.build}/tools/ctl/orvexctl", "-q", "-i", "eth0", "set",
                              f"{self.what}={level}") if way == "orvexctl" else (
                world.hub, "mosquitto_pub", "-h", "10.78.0.1", "-t",
                f"orvex/s{site.number}/set/{self.what.replace(':', '/')}", "-m", level)
            world.run(host, command)

    def wanted(self):
        starts = sum(unit.starts for name, unit in self.device.units.items() if name in ("gpio", ""))
        if starts != self.starts:
            self.level, self.starts = self.level and "H", starts
        return self.level


class Pulse(Rule):
    """An output that is set low for some seconds now and then, by a client that wants an acknowledgement. If
    that is lost, the pulse may come twice, and so end later."""

    TRIES = 5  # seconds

    def __init__(self, device):
        super().__init__(device, 8, f"{device.address}:out5")
        self.begin, self.end, self.latest, self.said = 0, 0, 0, ""

    def send(self, seconds):
        site, now = self.device.site, time.monotonic()
        is_safe = whole([*self.sink(), site.first.cable], BRIDGE) and now > self.latest
        self.begin, self.end = now if is_safe else now + 1e9, now + seconds
        self.latest = max(self.latest, self.end + CHANGE + (0 if is_safe else self.TRIES))
        site.world.run(site.first.host, [f"{site.world.build}/tools/ctl/orvexctl", "-q", "-i", "eth0", "set", "-k",
                                         f"{self.what}=L,{seconds * 1000}"], self.hear)
        site.world.loop.after(CHANGE + 0.5, self.check)  # the next look may come too late to see it

    def hear(self, said):
        self.said = said

    def wanted(self):
        now = time.monotonic()
        if self.begin + CHANGE < now < self.end - 1:
            return "L" if all(part.since < self.begin for part in self.sink()) else None
        return "H" if now > self.latest else None

    def why(self):
        return (f"the last pulse began at {self.begin:.3f} and ended at {self.end:.3f}, {self.latest:.3f} at the "
                f"latest; {self.said}")


class Tally(Rule):
    """A display of a switcher, which repeats what it says."""

    def __init__(self, device):
        super().__init__(device, 6, f"{device.address}:out4")
        self.level = "H"

    def say(self, level):
        self.level, self.since = level, time.monotonic()
        self.send()

    def send(self):
        packet = bytes([0x80 + self.device.number, int(self.level == "L")]) + b" " * 16
        try:
            self.device.site.switcher.sendto(packet, ("127.0.0.1", 8900))
        except OSError:
            pass  # the program is not there

    def wanted(self):
        first = self.device.site.first
        return self.level if whole([*first.parts("tsl"), first.cable], BRIDGE) else None


class Drivers:
    """Never two bridges of a site that set one output against each other: reads the writes on the bus."""

    WRITES = ((0xB1, 0, 0, 0),       # the length of the IP header
              (0x48, 0, 0, 2),       # the port
              (0x15, 0, 3, BUS_PORT),
              (0x40, 0, 0, 24),      # the identifier of the message, behind the headers
              (0x15, 0, 1, int.from_bytes(WRITE, "big")),
              (0x06, 0, 0, 65535), (0x06, 0, 0, 0))

    def __init__(self, site):
        self.site, self.last = site, {}
        self.ear = site.world.hub.socket(socket.AF_PACKET, socket.SOCK_DGRAM, 0)  # hears nothing yet
        program = b"".join(struct.pack("HBBI", *step) for step in self.WRITES)
        buffer = ctypes.create_string_buffer(program)
        self.ear.setsockopt(socket.SOL_SOCKET, 26, struct.pack("HP", len(self.WRITES), ctypes.addressof(buffer)))
        self.ear.bind((f"bus{site.number}", 0x0800))
        self.linked = {Pin.parse(link.what).tag for link in site.world.links if link.device.site is site}
        site.world.loop.read(self.ear.fileno(), self.hear)

    def hear(self):
        data, now = self.ear.recv(65536), time.monotonic()
        source, udp = socket.inet_ntoa(data[12:16]), data[(data[0] & 15) * 4:]
        for tag, value in Message.decode(Packet.decode(udp[8:]).payload).bytes_of_pins().items():
            if tag not in self.linked:
                continue
            self.site.world.counts["writes heard"] += 1
            level = read_byte(value)[0]
            before, when, was = self.last.get(tag, (source, now, level))
            parts = [part for chain in self.site.chains for part in chain]
            assert before == source or was == level or now - when > 5 or not whole(parts, HANDOVER), (
                f"{before} set {Pin.of_tag(tag)} {was}, {now - when:.3f} s later {source} {level}")
            self.last[tag] = source, now, level


class Figures:
    """The metrics of a site's bridges agree with what can be seen from outside."""

    WRITTEN = 15  # seconds in which a bridge must have written its file again

    def __init__(self, site):
        self.site, self.world, self.published = site, site.world, 0  # sets

    def of(self, device):
        """The latest figures of a bridge, None if they may be old."""
        if not whole([*device.parts("mqtt"), self.world.clock], self.WRITTEN):
            return None
        file = device.host.folder / "mqtt.prom"
        age = time.time() - file.stat().st_mtime
        assert age < self.WRITTEN, f"the metrics of {device.host.name} are {age:.0f} s old"
        self.world.counts["metrics of bridges read"] += 1
        return dict(re.findall(r"^orvex_mqtt_(\S+) (\S+)$", file.read_text("ascii"), re.M))

    def check(self):
        active = []
        for device, chain, wan in zip(self.site.bridged, self.site.chains, self.site.wans):
            if not (found := self.of(device)):
                return
            active += [found] * (found["standing_by"] == "0")
            far = [wan, self.world.broker.part]
            wanted = "1" if whole([*chain, *far], BRIDGE) else "0" if broken(far, SILENCE) else found["connected"]
            sets = sum(float(found[f'sets_total{{result="{result}"}}']) for result in ("done", "sent", "refused"))
            assert found["connected"] == wanted and sets <= self.published, (
                f"the bridge of {device.host.name} counts {sets:g} sets of {self.published} and says {found}")
        if whole([*itertools.chain(*self.site.chains), self.world.broker.part], BRIDGE):
            followed = [link for link in self.world.links if link.device.site is self.site and link.is_known()]
            assert len(active) == 1 and active[0]["online"] == "1" and (
                float(active[0]['links{state="followed"}']) >= len(followed)), (
                f"of the bridges of site {self.site.number} these are active: {active}")


class Doctor:
    """Names what is broken, and nothing when nothing is: asked about each fault, and now and then."""

    QUIET = 1800  # seconds between two questions while all is well

    def __init__(self, device):
        self.device, self.world, self.asked = device, device.world, 0
        self.own = [device.cable, *device.parts("gpio", "")]
        others = [part for other in device.site.devices
                  for part in (other.cable, other.chip.part, *other.parts("gpio", ""))]
        self.parts = [*others, *(unit.part for unit in device.units.values()), self.world.sweeps]

    def check(self):
        if broken(self.own, 5):
            asks = self.asked <= max(part.since for part in self.own)
        else:
            asks = time.monotonic() - self.asked > self.QUIET and whole(self.parts, SERVER)
        if asks:
            self.ask()

    def ask(self):
        device, is_whole, is_broken = self.device, whole(self.parts, SERVER), broken(self.own, 5)
        self.asked = began = time.monotonic()

        def judge(said):
            if is_whole and all(part.since < began for part in self.parts):
                self.world.counts["doctors asked while all was well"] += 1
                assert not said, f"doctor on {device.host.name} finds: {said}"
            elif is_broken and all(part.since < began for part in self.own):
                self.world.counts["doctors asked about a fault"] += 1
                assert said, f"doctor on {device.host.name} finds nothing"
        self.world.run(device.host, [f"{self.world.build}/tools/ctl/orvexctl", "doctor", "-q", "-W", "3"], judge)


class Growth:
    """Memory, descriptors and files: below the limits of the units always, and no more after the first day."""

    FILLS = {"orvex-board": 13000}  # KiB that take days to fill: the last 4 MiB of events, for viewers

    def __init__(self, world):
        self.world, self.first = world, {}

    def measure(self):
        is_first = time.monotonic() - self.world.start <= 86400
        for unit in self.world.units():
            if not unit.process:
                continue
            folder = f"/proc/{unit.process.pid}"
            with open(f"{folder}/status", encoding="ascii", errors="replace") as status:
                memory = re.search(r"VmRSS:\s+(\d+)", status.read())
            files = sum(len(names) for _, _, names in os.walk(unit.host.folder))
            now = (int(memory[1]) if memory else 0, len(os.listdir(f"{folder}/fd")), files)
            assert now[1] < 64 and now[0] < 65536, f"{unit.part.name} has {now[0]} KiB and {now[1]} descriptors"
            if is_first:
                self.first[unit.name] = tuple(map(max, now, self.first.get(unit.name, (0, 0, 0))))
            elif unit.name in self.first:
                memory, descriptors, files = self.first[unit.name]
                most = memory * 1.2 + 1024 + self.FILLS.get(unit.name, 0)
                assert now[0] <= most and now[1] <= descriptors + 8 and now[2] <= files + 8, (
                    f"{unit.part.name} has grown: KiB, descriptors and files were {self.first[unit.name]}, are {now}")
