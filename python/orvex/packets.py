"""The bytes on the bus: packets, and messages of tagged items."""

from __future__ import annotations

import struct
from dataclasses import dataclass, field
from typing import Union

BUS_PORT = 2060  # requests
REPORT_PORT = 2055  # replies and reports
GROUP = "239.192.255.4"

LAYER = 3
PAYLOAD_VERSION = 2
PACKET_VERSION = 7
DATAGRAM, MESSAGE, ACKNOWLEDGEMENT, REFUSAL = 0x00, 0x4D, 0x41, 0x4E
HEADER_SIZE = 16
ANSWER_SIZE = 8

WRITE, WRITE_TOO, READ, REPORT = b"WRNI", b"WRIN", b"READ", b"INDI"

TAG_REQUEST = 0xFFFFFFFF
TAG_REPLY = 0xFFFFFFFE
TAG_ECHO = 0xFFFFFFFC
HIGHEST_PIN_TAG = 0xFFFFFEFF

DWORD, STRING, BYTES, WORDS, DWORDS, NESTED, BYTE, WORD, QWORD = range(1, 10)
_FIXED = {DWORD: "I", BYTE: "B", WORD: "H", QWORD: "Q"}
_ARRAYS = {WORDS: "H", DWORDS: "I"}

Value = Union[int, bytes, list[int], "Message", None]


@dataclass(frozen=True)
class Item:
    """A tag with a value: of type DWORD, BYTE, WORD and QWORD an int, of STRING and BYTES bytes (of a
    string without its final 0), of WORDS and DWORDS a list, of NESTED a Message; else None."""

    tag: int
    type: int
    value: Value

    def encode(self) -> bytes:
        head = struct.pack(">IB", self.tag, self.type)
        if self.type in _FIXED:
            return head + struct.pack(">" + _FIXED[self.type], self.value)
        if self.type in _ARRAYS:
            assert isinstance(self.value, list)
            return head + struct.pack(f">H{len(self.value)}{_ARRAYS[self.type]}", len(self.value), *self.value)
        if isinstance(self.value, Message):
            body = self.value.encode()
        elif isinstance(self.value, bytes):
            body = self.value + (b"\0" if self.type == STRING else b"")
        else:
            return head + struct.pack(">H", 0)
        return head + struct.pack(">H", len(body)) + body


class _Reader:
    def __init__(self, data: bytes) -> None:
        self.data = data
        self.at = 0

    def take(self, size: int) -> bytes:
        if size > len(self.data) - self.at:
            raise ValueError("an item extends past the end")
        self.at += size
        return self.data[self.at - size:self.at]

    def unpack(self, layout: str) -> tuple[int, ...]:
        return struct.unpack(">" + layout, self.take(struct.calcsize(">" + layout)))

    def item(self, depth: int) -> Item:
        tag, kind = self.unpack("IB")
        if kind in _FIXED:
            return Item(tag, kind, self.unpack(_FIXED[kind])[0])
        (count,) = self.unpack("H")
        if kind in _ARRAYS:
            return Item(tag, kind, list(self.unpack(f"{count}{_ARRAYS[kind]}")))
        if kind == STRING:
            return Item(tag, kind, self.take(count).split(b"\0")[0])
        if kind == BYTES:
            return Item(tag, kind, self.take(count))
        if kind == NESTED:
            return Item(tag, kind, _nested(self.take(count), depth))
        return Item(tag, kind, None)


def _nested(data: bytes, depth: int) -> Message:
    try:
        return Message.decode(data, depth + 1) if depth < 32 else Message(b"\0\0\0\0")
    except ValueError:
        return Message(b"\0\0\0\0")


@dataclass(frozen=True)
class Message:
    """An identifier of four bytes, and items."""

    id: bytes
    items: list[Item] = field(default_factory=list)

    def encode(self) -> bytes:
        return (self.id + struct.pack(">H", len(self.items))
                + b"".join(item.encode() for item in self.items))

    @classmethod
    def decode(cls, data: bytes, depth: int = 0) -> Message:
        """Raises ValueError if the bytes are not exactly one message."""
        reader = _Reader(data)
        identifier = reader.take(4)
        (count,) = reader.unpack("H")
        items = [reader.item(depth) for _ in range(count)]
        if reader.at != len(data):
            raise ValueError("bytes after the last item")
        return cls(identifier, items)

    def find(self, tag: int, kind: int) -> Value:
        """The value of the first such item; None if there is none."""
        return next((item.value for item in self.items if item.tag == tag and item.type == kind), None)

    def bytes_of_pins(self) -> dict[int, int]:
        """The values of byte items whose tags are pins, by tag."""
        return {item.tag: item.value for item in self.items
                if item.type == BYTE and item.tag <= HIGHEST_PIN_TAG and isinstance(item.value, int)}


@dataclass(frozen=True)
class Packet:
    """A header and a payload."""

    tid: int
    payload: bytes
    type: int = DATAGRAM
    layer: int = LAYER
    payload_version: int = PAYLOAD_VERSION

    def encode(self) -> bytes:
        return struct.pack(">BBBBIHHI", self.layer, self.type, self.payload_version, PACKET_VERSION, self.tid,
                           0, 0, 0) + self.payload

    @classmethod
    def decode(cls, data: bytes) -> Packet:
        """Raises ValueError if it is no packet of this version."""
        if len(data) < HEADER_SIZE or data[3] != PACKET_VERSION:
            raise ValueError("not a packet of version 7")
        layer, kind, version, _, tid = struct.unpack_from(">BBBBI", data)
        return cls(tid, data[HEADER_SIZE:], kind, layer, version)


def answer(packet: Packet, accepted: bool = True) -> bytes:
    """The acknowledgement of a packet, or its refusal."""
    return struct.pack(">BBBBI", 0, ACKNOWLEDGEMENT if accepted else REFUSAL, 0, PACKET_VERSION, packet.tid)


def read_answer(data: bytes) -> tuple[int, bool] | None:
    """The transaction ID that an answer is for, and whether it accepts; None: it is no answer."""
    if len(data) < ANSWER_SIZE or data[3] != PACKET_VERSION or data[1] not in (ACKNOWLEDGEMENT, REFUSAL):
        return None
    return struct.unpack_from(">I", data, 4)[0], data[1] == ACKNOWLEDGEMENT


def next_tid(tid: int) -> int:
    """The number of the next packet: 0 is skipped."""
    return (tid + 1) % 2**32 or 1
