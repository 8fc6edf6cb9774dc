"""A device of one's own: its output 1 of address 1:2 is a lamp, here a printed line, and its input 1 a
contact, here the Enter key. Beside it runs: orvex -r 1093"""

import asyncio
import sys

from orvex import ControlServer


class Device(ControlServer):
    def output_changed(self, number: int, state: str) -> None:
        print(f"output {number} is {state}", flush=True)


async def main() -> None:
    device = Device(channels={1: "1:2"})
    await device.start("127.0.0.1", 1093)
    loop = asyncio.get_running_loop()
    level = "H"
    while await loop.run_in_executor(None, sys.stdin.readline):
        level = "L" if level == "H" else "H"
        device.set_input(1, level)


asyncio.run(main())
