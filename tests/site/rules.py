"""What a site owes: each rule knows from the events what must be seen, and when."""

import itertools
import json
import os
import re
import time

# Seconds after which things are as they must be, once everything concerned is whole. The bridge reads all pins
# every ten seconds; orvex looks for lost servers every 27 to 54, which it notices in 30; the rest is what starting
# and connecting takes.
CHANGE = 3
BRIDGE = 45
SERVER = 110
SILENCE = 25  # until a silent device's pins are unknown, beyond the link's own time


def whole(parts, seconds):
    """Whether all of them have been whole for so long."""
    now = time.monotonic()
    return all(not part.reasons and now - part.since >= seconds for part in parts)


def broken(parts, seconds):
    """Whether one of them has been broken for so long, in a way that others must notice: orvex answers for a
    control server that hangs."""
    now = time.monotonic()
    return any(part.reasons - ({"stopped"} if part.name.endswith("orvex-gpio") else set())
               for part in parts if now - part.since >= seconds)


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
            self.device.world.counts["lamps looked at"] += 1
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
        parts = [self.other.cable, *self.other.parts("gpio"), *self.sink()]
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
        near = [self.device.site.wan, other.site.wan, self.device.world.broker.part, *other.site.bridge()]
        parts = [*near, other.cable, *other.parts("gpio", "")]
        level, since = other.contact(pin)
        if whole(parts, BRIDGE) and time.monotonic() - since >= CHANGE:
            return [level]
        return [None] if broken(parts, SILENCE + self.seconds) else ["L", "H", None]

    def value(self, levels):
        if levels.count("L") >= self.need:
            return "H" if self.inverts else "L"
        if len(levels) - levels.count("H") >= self.need:
            return {"keep": None}.get(self.on_loss, self.on_loss)
        return "L" if self.inverts else "H"

    def wanted(self):
        if not whole(self.device.site.bridge(), BRIDGE):
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
        return [*self.sink(), *site.bridge(), site.wan, site.last.cable, *site.last.parts("board"),
                site.world.broker.part]

    def write(self, level, way):
        self.level = level if whole(self.parts(), BRIDGE) else None
        self.since = time.monotonic()
        site, world = self.device.site, self.device.world
        if way == "board":
            site.request("POST", "/api/v1/set", json.dumps({"pin": self.what, "level": level}),
                         **{"Origin": "http://127.0.0.1:8093", "X-Orvex-Board": "set",
                            "Content-Type": "application/json", "Authorization": "Bearer 0123456789abcdef"})
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


class Board:
    """The history of each site's board has every change that its host could hear."""

    def __init__(self, world):
        self.world = world

    def changed(self, device, pin):
        site, when = device.site, time.time()
        parts = [device.cable, *device.parts("gpio", ""), site.last.cable, *site.last.parts("board"), site.full,
                 device.chip.part]
        level, since = device.contact(pin)
        if whole(parts, BRIDGE):
            name = f"{device.address}:in{pin}"
            self.world.loop.after(15, lambda: self.check(site, parts, since, when, name, level))

    def check(self, site, parts, since, when, pin, level):
        if any(part.since > since for part in parts):
            return
        self.world.counts["changes looked up"] += 1
        found = site.request("GET", f"/api/v1/history?pin={pin}&from={int(when * 1000) - 500}")
        events = [event for event in (found or {}).get("events", []) if event["kind"] == "told"]
        assert any(event["level"] == level and event["time"] < (when + CHANGE) * 1000 for event in events), (
            f"the board of site {site.number} has no change of {pin} to {level} at {when:.3f}: {found}")


class Doctor:
    """Names what is broken, and nothing when nothing is."""

    def __init__(self, world):
        self.world = world

    def ask(self, device):
        site = device.site
        others = [part for other in site.devices for part in (other.cable, other.chip.part, *other.parts("gpio", ""))]
        parts = [*others, *(unit.part for unit in device.units.values())]
        own = device.parts("gpio", "")
        is_whole, is_broken, began = whole(parts, SERVER), broken(own, 5), time.monotonic()

        def judge(said):
            if all(part.since < began for part in parts):
                self.world.counts["doctors judged"] += is_whole or is_broken
                assert not (is_whole and said), f"doctor on {device.host.name} finds: {said}"
                assert not (is_broken and not said), f"doctor on {device.host.name} finds nothing"
        self.world.run(device.host, [f"{self.world.build}/tools/ctl/orvexctl", "doctor", "-q", "-W", "3"], judge)


class Growth:
    """Memory and descriptors: below the limits of the units always, and no more after the first day."""

    def __init__(self, world):
        self.world, self.first, self.most = world, {}, {}

    def measure(self):
        is_first = time.monotonic() - self.world.start <= 86400
        for unit in self.world.units():
            if not unit.process:
                continue
            folder = f"/proc/{unit.process.pid}"
            with open(f"{folder}/status", encoding="ascii", errors="replace") as status:
                memory = re.search(r"VmRSS:\s+(\d+)", status.read())
            now = (int(memory[1]) if memory else 0, len(os.listdir(f"{folder}/fd")))
            most = tuple(map(max, now, self.first.get(unit.name, (0, 0))))
            assert now[1] < 64 and now[0] < 65536, f"{unit.part.name} has {now[0]} KiB and {now[1]} descriptors"
            if is_first:
                self.first[unit.name] = most
            else:
                memory, descriptors = self.first[unit.name]
                assert now[0] <= memory * 1.2 + 1024 and now[1] <= descriptors + 8, (
                    f"{unit.part.name} has grown from {memory} KiB and {descriptors} descriptors to {now}")
