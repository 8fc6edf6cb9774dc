"""Prints a contact and lets a lamp follow it:  follow.py INTERFACE 1:2:in1 1:2:out1"""

import asyncio
import sys

from orvex import Bus


async def main(interface: str, contact: str, lamp: str) -> None:
    async with Bus(interface) as bus:
        async for change in bus.watch(contact):
            print(f"{change.pin} is {change.level or 'not known'}", flush=True)
            if change.level is not None:
                await bus.set(lamp, change.level, check=True)


asyncio.run(main(*sys.argv[1:]))
