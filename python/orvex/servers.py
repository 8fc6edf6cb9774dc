"""Bases for servers of control lines. They do what a server owes; a subclass connects them to something
real, by overriding the hooks and calling set_input()."""

from __future__ import annotations

import asyncio
import re

PINS = 5
OUTPUTS = 32
INPUTS = 256
MAX_LINE = 4096
MAX_UNSENT = 256 * 1024


def _state(text: str) -> str:
    """A state as all five pins. Raises ValueError."""
    if not re.fullmatch("[HLhlx]{1,5}", text):
        raise ValueError(f"not a state of up to five of H, L, h, l and x: {text}")
    return text.ljust(PINS, "x")


class _Connection:
    def __init__(self, writer: asyncio.StreamWriter) -> None:
        self.writer = writer
        self.inputs: set[int] = set()  # of a remote server: it forgets them with the connection

    def send(self, line: str) -> None:
        """Ends the connection of a client that does not read."""
        transport = self.writer.transport
        if transport.get_write_buffer_size() > MAX_UNSENT:
            transport.abort()
        elif not transport.is_closing():
            self.writer.write(line.encode("ascii") + b"\n")


class LineServer:
    """Connections, lines, and inputs to which clients subscribe."""

    def __init__(self) -> None:
        self._inputs: dict[int, str] = {}
        self._connections: set[_Connection] = set()
        self._server: asyncio.Server | None = None

    async def start(self, host: str = "127.0.0.1", port: int = 93) -> int:
        """Listens; returns the port, which may have been given as 0."""
        self._server = await asyncio.start_server(self._serve, host, port, limit=MAX_LINE)
        port_in_use: int = self._server.sockets[0].getsockname()[1]
        return port_in_use

    async def stop(self) -> None:
        if self._server is not None:
            self._server.close()
        for connection in list(self._connections):
            connection.writer.transport.abort()

    def input_state(self, number: int) -> str:
        return self._inputs.get(number, "H" * PINS)

    def set_input(self, number: int, state: str) -> None:
        """Changes pins of an input; x leaves one as it is. Subscribers are told if it changed."""
        if not 1 <= number <= INPUTS:
            raise ValueError(f"not an input from 1 to {INPUTS}: {number}")
        before = self.input_state(number)
        after = "".join(old if new == "x" else new for old, new in zip(before, _state(state)))
        self._inputs[number] = after
        if after != before:
            for connection in self._connections:
                if self._is_subscribed(connection, number):
                    connection.send(f"GPI {number} {after}")

    def _is_subscribed(self, connection: _Connection, number: int) -> bool:
        raise NotImplementedError

    def _take(self, connection: _Connection, line: str) -> None:
        raise NotImplementedError

    def _subscribe(self, connection: _Connection, line: str, inputs: set[int]) -> bool:
        """Whether the line adds an input to these. It is answered, also the second one for an input."""
        found = re.fullmatch(r"ADD GPI (\d{1,3})", line)
        if found is None or not 1 <= int(found[1]) <= INPUTS:
            return False
        inputs.add(int(found[1]))
        connection.send(f"GPI {found[1]} {self.input_state(int(found[1]))}")
        return True

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        connection = _Connection(writer)
        self._connections.add(connection)
        data = b""
        try:
            while more := await reader.read(MAX_LINE):
                *lines, data = re.split(rb"[\r\n]+", data + more)
                for line in filter(None, lines):
                    self._take(connection, line.decode("ascii", "replace"))
                if len(data) > MAX_LINE:
                    break
        except ConnectionError:
            pass
        finally:
            self._connections.discard(connection)
            writer.transport.abort()


class RemoteServer(LineServer):
    """A remote GPIO server: inputs that devices follow. Nothing outlives a connection."""

    def _is_subscribed(self, connection: _Connection, number: int) -> bool:
        return number in connection.inputs

    def _take(self, connection: _Connection, line: str) -> None:
        self._subscribe(connection, line, connection.inputs)


class ControlServer(LineServer):
    """The control server of a device: it owns pins and configuration.

    Subscriptions and outputs outlive connections. Outputs are told after every change, whatever caused
    it, and after each connection."""

    def __init__(self, channels: dict[int, str] | None = None, settings: dict[str, str] | None = None) -> None:
        """channels: what drives outputs, such as {1: "1:2"}."""
        super().__init__()
        self._channels = dict(channels or {})
        self._settings = dict(settings or {})
        self._outputs: dict[int, str] = {}
        self._subscribed: set[int] = set()
        self._timers: dict[tuple[int, int], tuple[asyncio.TimerHandle, str]] = {}

    def output_changed(self, number: int, state: str) -> None:
        """A hook: an output has that state now."""

    def output_state(self, number: int) -> str:
        return self._outputs.get(number, "H" * PINS)

    def set_output(self, number: int, state: str) -> None:
        """Something other than a client sets pins of an output."""
        self._set(number, _state(state), 0)

    def configure(self, number: int, source: str) -> None:
        """Changes what drives an output; "none": nothing."""
        if not 1 <= number <= OUTPUTS or not source or set(source) & set(" \r\n\t"):
            raise ValueError(f"not a channel from 1 to {OUTPUTS} and a source: {number} {source}")
        self._channels[number] = source
        self._tell(f"CFG GPO {number} SRCA={source}")

    def _tell(self, line: str) -> None:
        for connection in self._connections:
            connection.send(line)

    def _is_subscribed(self, connection: _Connection, number: int) -> bool:
        return number in self._subscribed

    def _take(self, connection: _Connection, line: str) -> None:
        if self._subscribe(connection, line, self._subscribed):
            return
        if line == "SET":
            for name, value in self._settings.items():
                connection.send(f"SET {name}={value}")
        elif line == "CFG GPO":
            for number, source in sorted(self._channels.items()):
                connection.send(f"CFG GPO {number} SRCA={source}")
            # What was told before a client had its configuration would have been ignored. A client may
            # know the outputs from before this server was started.
            for number in sorted(self._channels):
                connection.send(f"GPO {number} {self.output_state(number)}")
            for number in self._subscribed:
                connection.send(f"GPI {number} {self.input_state(number)}")
        elif found := re.fullmatch(r"DEL GPI (\d{1,3})", line):
            self._subscribed.discard(int(found[1]))
        elif found := re.fullmatch(r"GPO (\d{1,2}) ([HLhlx]{1,5})(?: DURATION:(\d{1,9}))?", line):
            if 1 <= int(found[1]) <= OUTPUTS:
                self._set(int(found[1]), _state(found[2]), int(found[3] or 0))

    def _set(self, number: int, state: str, duration_ms: int) -> None:
        before = self.output_state(number)
        for pin, level in enumerate(state):
            if level == "x":
                continue
            timer, back = self._timers.pop((number, pin), (None, before[pin]))
            if timer is not None:
                timer.cancel()
            if duration_ms:
                # A second duration returns to the level before the first.
                self._timers[number, pin] = (asyncio.get_running_loop().call_later(
                    duration_ms / 1000, self._return, number, pin), back)
        self._change(number, state)

    def _return(self, number: int, pin: int) -> None:
        _, back = self._timers.pop((number, pin))
        self._change(number, "x" * pin + back + "x" * (PINS - 1 - pin))

    def _change(self, number: int, state: str) -> None:
        before = self.output_state(number)
        after = "".join(old if new == "x" else new.upper() for old, new in zip(before, state))
        self._outputs[number] = after
        if after != before:
            self._tell(f"GPO {number} {after}")
            self.output_changed(number, after)
