"""What the boards of a site owe: their history, what their viewers see, and their metrics."""

import json
import re
import socket
import time

from rules import BRIDGE, CHANGE, whole

LATE = 15  # seconds after an event at which its history is looked up
SETTLED = 75  # until the board has forgotten that a device has answered from two addresses at once


class Board:
    """The board of a site. It has been told every change that its host could hear, and knows since when it could
    not."""

    def __init__(self, site):
        self.site, self.world, self.host = site, site.world, site.last
        self.sets, self.unsure, self.starts = 0, 0, 0  # a set without an answer may be carried out later

    def parts(self):
        """All that it needs to hear and to store."""
        return [self.host.cable, *self.host.parts("board"), self.site.full, self.world.clock]

    def changed(self, device, pin):
        """Called after a contact has changed."""
        parts, when = [*self.parts(), device.cable, *device.parts("gpio", ""), device.chip.part], time.time()
        level, since = device.contact(pin)
        if whole(parts, BRIDGE):
            self.world.loop.after(LATE, lambda: self.check(parts, since, when, f"{device.address}:in{pin}", level))

    def check(self, parts, since, when, pin, level):
        if any(part.since > since for part in parts):
            return
        self.world.counts["changes looked up"] += 1
        found = self.site.request("GET", f"/api/v1/history?pin={pin}&from={int(when * 1000) - 500}")
        events = [event for event in (found or {}).get("events", []) if event["kind"] == "told"]
        assert any(event["level"] == level and event["time"] < (when + CHANGE) * 1000 for event in events), (
            f"the board of site {self.site.number} has no change of {pin} to {level} at {when:.3f}: {found}")

    def missed(self, seconds):
        """Called when it begins to hear nothing for so long."""
        others = [part for part in self.parts() if part is not self.host.cable]
        when, since = time.time(), time.monotonic()
        if seconds > 5 and whole(self.parts(), BRIDGE):
            self.world.loop.after(seconds + LATE, lambda: self.check_gap(others, since, when, when + seconds))

    def check_gap(self, parts, since, begin, end):
        if any(part.since > since for part in parts) or self.host.cable.reasons:
            return
        self.world.counts["gaps looked up"] += 1
        found = self.site.request("GET", f"/api/v1/history?from={int(begin * 1000)}&to={int(end * 1000) + 5000}")
        assert any(gap["from"] < (begin + CHANGE) * 1000 and (gap["until"] or 1e15) > (end - CHANGE) * 1000
                   for gap in (found or {}).get("gaps", [])), (
            f"the board of site {self.site.number} has no gap from {begin:.3f} to {end:.3f}: {found}")

    def set_pin(self, pin, level):
        done = self.site.request("POST", "/api/v1/set", json.dumps({"pin": pin, "level": level}),
                                 **{"Origin": "http://127.0.0.1:8093", "X-Orvex-Board": "set",
                                    "Content-Type": "application/json", "Authorization": "Bearer 0123456789abcdef"})
        self.count_starts()
        if done is None:
            self.unsure += 1
        else:
            self.sets += 1

    def count_starts(self):
        if (starts := self.host.units["board"].starts) != self.starts:
            self.starts, self.sets, self.unsure = starts, 0, 0

    def measure(self):
        """Compares its metrics with what has happened."""
        self.count_starts()
        if not whole(self.parts(), BRIDGE):
            return
        text = self.site.request("GET", "/metrics", is_json=False) or ""
        found = dict(re.findall(r"^(orvex_board_\w+) (\S+)$", text, re.M))
        self.world.counts["metrics read"] += 1
        others = [part for device in self.site.devices for part in (device.cable, *device.parts("gpio", ""))]
        wanted_of = {"link_up": 1, "history_ok": 1, "shared_addresses": 0,
                     "viewers": int(bool(self.site.viewer.stream)), "healthy": 1}
        if not whole(others, SETTLED):
            del wanted_of["healthy"], wanted_of["shared_addresses"]
        sets = float(found.get("orvex_board_sets_total", -1))
        assert self.sets <= sets <= self.sets + self.unsure, (
            f"the board of site {self.site.number} counts {sets:g} sets of {self.sets} and {self.unsure} unsure ones")
        for what, wanted in wanted_of.items():
            value = float(found.get("orvex_board_" + what, -1))
            assert value == wanted, (f"{what} of the board of site {self.site.number} is {value:g}, not {wanted}: "
                                     f"{self.site.request('GET', '/healthz', is_json=False)}")


class Viewer:
    """A page of the board, which stays and reconnects with the last event that it has seen."""

    def __init__(self, board):
        self.board, self.site, self.loop = board, board.site, board.world.loop
        self.stream, self.pins, self.last, self.since, self.away = None, None, "", 0, 0
        self.loop.every(5, self.tend)

    def tend(self):
        if not self.stream and time.monotonic() >= self.away and self.board.host.units["board"].process:
            self.connect()

    def leave(self, seconds):
        self.close()
        self.away = time.monotonic() + seconds

    def close(self):
        if self.stream:
            self.loop.forget(self.stream.fileno())
            self.stream.close()
            self.stream = None

    def connect(self):
        if self.pins is None:
            found = self.site.request("GET", "/api/v1/pins")
            if not found:
                return
            self.pins, self.last = {pin["pin"]: pin for pin in found["pins"]}, found["stream"]
        stream = self.board.host.host.socket(socket.AF_INET, socket.SOCK_STREAM)
        stream.settimeout(5)
        try:
            stream.connect(("127.0.0.1", 8093))
            stream.sendall(b"GET /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1:8093\r\nLast-Event-ID: %s\r\n\r\n" %
                           self.last.encode())
        except OSError:
            stream.close()
            return
        stream.setblocking(False)
        self.stream, self.rest, self.since = stream, b"", time.monotonic()
        self.loop.read(stream.fileno(), self.hear)
        self.loop.after(CHANGE + 1, self.check)

    def hear(self):
        try:
            data = self.stream.recv(65536)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if not data:
            self.close()
            return
        *events, self.rest = (self.rest + data).split(b"\n\n")
        for event in events:
            fields = dict(re.findall(r"^(id|event|data): ?(.*?)\r?$", event.decode("utf-8", "replace"), re.M))
            self.last = fields.get("id", self.last)
            if fields.get("event") == "pin":
                pin = json.loads(fields["data"])
                self.pins[pin["pin"]] = pin
            elif fields.get("event") == "reload":
                self.pins = None
                self.close()
                return

    def check(self, tries=3):
        """It shows what the board knows, and that is what the history ends with."""
        if not self.stream or time.monotonic() - self.since < CHANGE:
            return
        before = self.last
        found = self.site.request("GET", "/api/v1/pins")
        self.hear()
        if not found or not self.stream or self.last != before:
            return
        wrong = [(self.pins.get(pin["pin"]), pin) for pin in found["pins"] if self.differs(pin)]
        if wrong and tries:  # perhaps something is on its way
            self.loop.after(1, lambda: self.check(tries - 1))
            return
        self.board.world.counts["pages compared"] += 1
        assert not wrong, f"a viewer of site {self.site.number} sees, and the board has, {wrong}"
        if whole(self.board.parts(), BRIDGE):
            for pin in found["pins"]:
                self.compare(pin)

    def differs(self, pin):
        seen = self.pins.get(pin["pin"], {})
        return (seen.get("level"), seen.get("state")) != (pin["level"], pin["state"])

    def compare(self, pin):
        path = f"/api/v1/history?pin={pin['pin']}&kind=told&limit=1"
        events = (self.site.request("GET", path) or {}).get("events")
        assert not events or pin["state"] != "told" or events[0].get("level") == pin["level"], (
            f"the history of {pin['pin']} at site {self.site.number} ends with {events}, the board has {pin}")
