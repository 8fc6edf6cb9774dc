"""A peer on the bus."""

from __future__ import annotations

import asyncio
import random
import socket
import struct
import time
from collections.abc import AsyncIterator, Iterable
from dataclasses import dataclass
from types import TracebackType
from typing import cast

from orvex.packets import (ANSWER_SIZE, BUS_PORT, BYTE, DATAGRAM, DWORD, GROUP, MESSAGE, READ, REPORT,
                           REPORT_PORT, TAG_REPLY, TAG_REQUEST, WRITE, Item, Message, Packet, answer, next_tid,
                           read_answer)
from orvex.pins import Level, Pin, parse_address, pins_of, write_byte

ATTEMPT_PAUSES = (0.062, 0.124, 0.248, 0.566)  # after each attempt of a message with acknowledgement
ASK_AGAIN = 0.25  # seconds between two reads of pins that were not answered
PINS_IN_A_READ = 100
SIOCGIFADDR = 0x8915


class BusError(Exception):
    """Nobody answered, or a device refused."""


@dataclass(frozen=True)
class Change:
    """What is known about a pin from now on; level None: nobody answers for it. is_initial: it was
    read when watching began."""

    pin: Pin
    level: Level | None
    host: str
    time: float  # seconds since 1970
    is_initial: bool


def _address_of(interface: str) -> str:
    """The IPv4 address of an interface, which may be given itself."""
    try:
        return socket.inet_ntoa(socket.inet_aton(interface)) if interface.count(".") == 3 else _ask(interface)
    except OSError as error:
        raise BusError(f"{interface}: {error.strerror or error}") from error


def _ask(interface: str) -> str:
    import fcntl  # only where it is needed: it is not on every system

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        request = struct.pack("16s24x", interface.encode()[:15])
        return socket.inet_ntoa(fcntl.ioctl(sock.fileno(), SIOCGIFADDR, request)[20:24])


class _Ear(asyncio.DatagramProtocol):
    def __init__(self, bus: Bus) -> None:
        self.bus = bus
        self.transport: asyncio.DatagramTransport

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self.transport = cast(asyncio.DatagramTransport, transport)

    def datagram_received(self, data: bytes, address: tuple[str, int]) -> None:
        self.bus._heard(data, address, self.transport)


class Bus:
    """Reads, sets and watches pins. Use it in "async with".

    interface is a name or an address on the bus; empty: the system chooses. With to, an address,
    requests go to that host instead of the group; what devices report and answer is heard in any case."""

    def __init__(self, interface: str = "", group: str = GROUP, to: str | None = None) -> None:
        self._interface = interface
        self._group = group
        self._to = to or group
        self._tid = int(time.time()) & 0xFFFFFFFF or 1
        self._heard_from: dict[tuple[str, int], int] = {}  # who sent last, and its transaction ID
        self._listeners: set[asyncio.Queue[tuple[Message, str]]] = set()
        self._answers: dict[tuple[int, int], asyncio.Future[bool]] = {}  # by transaction ID and port
        self._transports: list[asyncio.DatagramTransport] = []

    async def __aenter__(self) -> Bus:
        loop = asyncio.get_running_loop()
        address = _address_of(self._interface) if self._interface else "0.0.0.0"
        for port in (REPORT_PORT, 0):
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
            sock.bind(("" if port else address, port))
            if port:
                sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(self._group) + socket.inet_aton(address))
            transport, _ = await loop.create_datagram_endpoint(lambda: _Ear(self), sock=sock)
            self._transports.append(transport)
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        trace: TracebackType | None) -> None:
        for transport in self._transports:
            transport.close()
        self._transports.clear()

    # ---- messages

    def send(self, message: Message, port: int = BUS_PORT) -> None:
        """Sends a message once, without acknowledgement."""
        self._tid = next_tid(self._tid)
        self._transports[1].sendto(Packet(self._tid, message.encode()).encode(), (self._to, port))

    async def send_acknowledged(self, message: Message, port: int = BUS_PORT) -> None:
        """Sends a message until somebody acknowledges it, for at most a second: received, not carried
        out. Raises BusError if nobody does, or if it is refused."""
        self._tid = tid = next_tid(self._tid)
        data = Packet(tid, message.encode(), MESSAGE).encode()
        future: asyncio.Future[bool] = asyncio.get_running_loop().create_future()
        self._answers[tid, port] = future
        try:
            for pause in ATTEMPT_PAUSES:
                self._transports[1].sendto(data, (self._to, port))
                done, _ = await asyncio.wait([future], timeout=pause)
                if done:
                    if not future.result():
                        raise BusError("refused")
                    return
            raise BusError("not acknowledged")
        finally:
            del self._answers[tid, port]

    def _heard(self, data: bytes, address: tuple[str, int], transport: asyncio.DatagramTransport) -> None:
        found = read_answer(data) if len(data) < 2 * ANSWER_SIZE else None
        if found is not None:
            future = self._answers.get((found[0], address[1]))
            is_from_there = self._to in (self._group, address[0])
            if future is not None and is_from_there and not future.done():
                future.set_result(found[1])
            return
        try:
            packet = Packet.decode(data)
            if packet.type != DATAGRAM:
                transport.sendto(answer(packet, packet.layer >= 3), address)
            is_repetition = self._heard_from.get(address) == packet.tid
            if len(self._heard_from) > 1000:
                self._heard_from.clear()
            self._heard_from[address] = packet.tid
            if not is_repetition and packet.layer >= 3 and packet.payload_version == 2:
                message = Message.decode(packet.payload)
                for queue in self._listeners:
                    if queue.qsize() < 10000:
                        queue.put_nowait((message, address[0]))
        except ValueError:
            pass  # not a packet of this protocol

    # ---- pins

    async def get(self, *pins: str | Pin, wait: float = 1.0) -> dict[Pin, Level]:
        """Reads pins, or all pins of addresses such as "1:2". Those that nobody has answered for within
        so many seconds are left out."""
        wanted = [pin for text in pins for pin in _pins(text)]
        levels: dict[Pin, Level] = {}
        queue = self._listen()
        request = random.randrange(1, 2**32)
        end = time.monotonic() + wait
        try:
            while len(levels) < len(set(wanted)) and time.monotonic() < end:
                self._ask([pin for pin in wanted if pin not in levels], request)
                until = min(end, time.monotonic() + ASK_AGAIN)
                while len(levels) < len(set(wanted)) and time.monotonic() < until:
                    try:
                        message, _ = await asyncio.wait_for(queue.get(), until - time.monotonic())
                    except TimeoutError:
                        break
                    if message.id == REPORT and message.find(TAG_REPLY, DWORD) == request:
                        levels.update({pin: level for pin, level in _levels(message).items()
                                       if pin in wanted and pin not in levels})
        finally:
            self._listeners.discard(queue)
        return levels

    async def set(self, pin: str | Pin, level: Level | str, duration_ms: int = 0, *, check: bool = False,
                  wait: float = 2.0) -> None:
        """Writes a pin. With check, which is for levels without a duration, reads it back and writes it
        again until a device has the level; raises BusError if none has within the time."""
        target = Pin.parse(pin)
        wanted = Level(level)
        if check and duration_ms:
            raise ValueError("a level with a duration can't be checked")
        message = Message(WRITE, [Item(target.tag, BYTE, write_byte(wanted, duration_ms))])
        end = time.monotonic() + wait
        while True:
            self.send(message)
            if not check:
                return
            found = await self.get(target, wait=min(0.5, max(end - time.monotonic(), 0.05)))
            if found.get(target) is wanted:
                return
            if time.monotonic() >= end:
                raise BusError(f"{target}: " + (f"is {found[target]}" if found else "nobody answers"))

    async def watch(self, *pins: str | Pin, every: float = 10.0) -> AsyncIterator[Change]:
        """What is known about pins now, then each change. Devices report inputs; outputs are known from
        reading them every so many seconds. A pin for which nobody answers three times is unknown."""
        wanted = {pin for text in pins for pin in _pins(text)}
        known: dict[Pin, Level | None] = {}
        misses = dict.fromkeys(wanted, 0)
        queue = self._listen()
        ask_at = time.monotonic()
        try:
            while True:
                if time.monotonic() >= ask_at:
                    self._ask(wanted, random.randrange(1, 2**32))
                    ask_at = time.monotonic() + (every if len(known) == len(wanted) else 1.0)
                    for pin in wanted:
                        misses[pin] += 1
                        if misses[pin] > 3 and (pin not in known or known[pin] is not None):
                            yield Change(pin, None, "", time.time(), pin not in known)
                            known[pin] = None
                try:
                    message, host = await asyncio.wait_for(queue.get(), max(ask_at - time.monotonic(), 0.001))
                except TimeoutError:
                    continue
                if message.id != REPORT:
                    continue
                for pin, level in _levels(message).items():
                    if pin in wanted:
                        misses[pin] = 0
                        if pin not in known or known[pin] is not level:
                            is_initial = pin not in known
                            known[pin] = level
                            yield Change(pin, level, host, time.time(), is_initial)
        finally:
            self._listeners.discard(queue)

    async def list(self, first: str = "0:0", last: str = "1:255", wait: float = 2.0) -> dict[int, str]:
        """The addresses in a range for which somebody answers, and who does."""
        queue = self._listen()
        found: dict[int, str] = {}
        request = random.randrange(1, 2**32)
        pins = [Pin(address, 13) for address in range(parse_address(first), parse_address(last) + 1)]
        end = time.monotonic() + wait
        try:
            for begin in range(0, len(pins), PINS_IN_A_READ):
                self._ask(pins[begin:begin + PINS_IN_A_READ], request)
                await asyncio.sleep(0.01)
            while time.monotonic() < end:
                try:
                    message, host = await asyncio.wait_for(queue.get(), max(end - time.monotonic(), 0.001))
                except TimeoutError:
                    break
                if message.find(TAG_REPLY, DWORD) == request:
                    found.update({pin.address: host for pin in _levels(message)})
        finally:
            self._listeners.discard(queue)
        return dict(sorted(found.items()))

    def _listen(self) -> asyncio.Queue[tuple[Message, str]]:
        queue: asyncio.Queue[tuple[Message, str]] = asyncio.Queue()
        self._listeners.add(queue)
        return queue

    def _ask(self, pins: Iterable[Pin], request: int) -> None:
        every = sorted(set(pins))
        for begin in range(0, len(every), PINS_IN_A_READ):
            self.send(Message(READ, [Item(TAG_REQUEST, DWORD, request)] + [
                Item(pin.tag, BYTE, 0) for pin in every[begin:begin + PINS_IN_A_READ]]))


def _pins(text: str | Pin) -> list[Pin]:
    if isinstance(text, Pin):
        return [text]
    last = text.rpartition(":")[2]
    return [Pin.parse(text)] if last[:1].isalpha() else pins_of(parse_address(text))


def _levels(message: Message) -> dict[Pin, Level]:
    return {Pin.of_tag(tag): Level.LOW if value else Level.HIGH
            for tag, value in message.bytes_of_pins().items()}
