"""Peers, control servers and remote GPIO servers for the orvex bus.

Bus reads, sets and watches pins. ControlServer and RemoteServer are bases for servers of one's own:
they do what such a server owes, and a subclass connects them to something real. All of them run in an
asyncio loop and need nothing but Python.
"""

from orvex.bus import Bus, BusError, Change
from orvex.packets import Item, Message, Packet
from orvex.pins import Level, Pin
from orvex.servers import ControlServer, RemoteServer

__all__ = ["Bus", "BusError", "Change", "ControlServer", "Item", "Level", "Message", "Packet", "Pin",
           "RemoteServer"]
