"""Pins, and the bytes that are written to them."""

from __future__ import annotations

import enum
from dataclasses import dataclass

PIN_COUNT = 5
FIRST_OUTPUT_CIRCUIT = 8
FIRST_INPUT_CIRCUIT = 13
HIGHEST_ADDRESS = 0xFFFFFF

LEVEL_LOW = 0x40
STEP_10_MS = 0x80
MOST_STEPS = 31


class Level(enum.Enum):
    """L is the active level of contacts and lamps."""

    HIGH = "H"
    LOW = "L"

    def __str__(self) -> str:
        return self.value


def _number(text: str) -> int:
    """A decimal, hexadecimal (0x10) or octal (010) number."""
    if not text.isascii() or not text.isalnum():
        raise ValueError(f"not a number: {text}")
    return int(text, 8 if len(text) > 1 and text[0] == "0" and text.isdigit() else 0)


@dataclass(frozen=True, order=True)
class Pin:
    """A pin on the bus: the address of a circuit group, and a circuit from 0 to 255."""

    address: int
    circuit: int

    @classmethod
    def parse(cls, text: str | Pin) -> Pin:
        """Reads "1:2:in1", "258:out5" or "1:2:c20". Raises ValueError."""
        if isinstance(text, Pin):
            return text
        *numbers, name = text.split(":")
        address = parse_address(":".join(numbers))
        first = {"in": FIRST_INPUT_CIRCUIT, "out": FIRST_OUTPUT_CIRCUIT}.get(name.rstrip("12345"))
        if first is not None and name[-1] in "12345" and len(name.rstrip("12345")) == len(name) - 1:
            return cls(address, first + 1 - int(name[-1]))
        if name[:1] == "c" and 0 <= _number(name[1:]) <= 255:
            return cls(address, _number(name[1:]))
        raise ValueError(f"not in1 to in5, out1 to out5 or c0 to c255: {text}")

    @property
    def tag(self) -> int:
        """As in messages."""
        return self.address << 8 | self.circuit

    @classmethod
    def of_tag(cls, tag: int) -> Pin:
        return cls(tag >> 8, tag & 0xFF)

    @property
    def is_input(self) -> bool:
        return FIRST_INPUT_CIRCUIT - PIN_COUNT < self.circuit <= FIRST_INPUT_CIRCUIT

    @property
    def is_output(self) -> bool:
        return FIRST_OUTPUT_CIRCUIT - PIN_COUNT < self.circuit <= FIRST_OUTPUT_CIRCUIT

    def __str__(self) -> str:
        name = (f"in{FIRST_INPUT_CIRCUIT + 1 - self.circuit}" if self.is_input else
                f"out{FIRST_OUTPUT_CIRCUIT + 1 - self.circuit}" if self.is_output else f"c{self.circuit}")
        return f"{self.address >> 8}:{self.address & 0xFF}:{name}"


def parse_address(text: str) -> int:
    """Reads "1:2" or "258". Raises ValueError."""
    numbers = [_number(part) for part in text.split(":")]
    if len(numbers) == 2 and numbers[1] <= 0xFF:
        numbers = [numbers[0] * 256 + numbers[1]]
    if len(numbers) != 1 or numbers[0] > HIGHEST_ADDRESS:
        raise ValueError(f"not an address, such as 1:2: {text}")
    return numbers[0]


def pins_of(address: int) -> list[Pin]:
    """The five inputs and five outputs of an address."""
    return [Pin(address, first - i) for first in (FIRST_INPUT_CIRCUIT, FIRST_OUTPUT_CIRCUIT)
            for i in range(PIN_COUNT)]


def write_byte(level: Level, duration_ms: int = 0) -> int:
    """What is written for a level and a duration; 0: no limit. The nearest possible duration counts:
    10 to 310 ms in steps of 10, and up to 7750 in steps of 250."""
    if not 0 <= duration_ms <= 10**9:
        raise ValueError(f"not a duration in ms: {duration_ms}")
    low = LEVEL_LOW if level is Level.LOW else 0
    if duration_ms == 0:
        return low

    def steps(step: int) -> int:
        return min(max((duration_ms + step // 2) // step, 1), MOST_STEPS)

    fine, coarse = steps(10), steps(250)
    if abs(fine * 10 - duration_ms) < abs(coarse * 250 - duration_ms):
        return low | STEP_10_MS | fine
    return low | coarse


def read_byte(value: int) -> tuple[Level, int]:
    """The level and the duration in ms of a written byte."""
    step = 10 if value & STEP_10_MS else 250
    return Level.LOW if value & LEVEL_LOW else Level.HIGH, (value & MOST_STEPS) * step
