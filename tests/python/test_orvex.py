"""The Python module between the real daemon and the real client, on loopback.

Usage: loopback.sh test_orvex.py BUILD [TEST]...
"""

import asyncio
import contextlib
import json
import pathlib
import re
import socket
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
sys.path.insert(0, str(ROOT / "python"))

from orvex import Bus, BusError, ControlServer, Item, Level, Message, Packet, Pin, RemoteServer  # noqa: E402
from orvex.packets import BYTE, answer  # noqa: E402

IN1, IN2, OUT1 = (Pin.parse(f"1:2:{name}") for name in ("in1", "in2", "out1"))


VECTORS = json.loads((ROOT / "docs/vectors.json").read_text("utf-8"))


def captures():
    """The bytes of the tables in docs/protocol.md, by name."""
    text = (ROOT / "docs/protocol.md").read_text("utf-8")
    for name, table in re.findall(r"<!-- capture (\w+) -->\n\n(.*?)\n\n", text + "\n\n", re.S):
        yield name, bytes.fromhex("".join(re.findall(r"^\| \d+ \| ([0-9A-F ]+) \|", table, re.M)))


class Device(ControlServer):
    def __init__(self, *args):
        super().__init__(*args)
        self.seen = []

    def output_changed(self, number, state):
        self.seen.append(f"{number} {state}")


async def until(condition, seconds=5):
    async with asyncio.timeout(seconds):
        while not condition():
            await asyncio.sleep(0.02)


class OrvexTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        self.device = Device({1: "1:2", 2: "127.0.0.1:94/3"}, {"NIC_IPADDR": "127.0.0.1"})
        self.device.set_input(1, "LHHHH")
        await self.device.start("127.0.0.1", 93)
        self.remote = RemoteServer()
        await self.remote.start("127.0.0.1", 94)
        self.daemon = subprocess.Popen([BUILD / "app/orvex", "-debug"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.daemon.wait)
        self.addCleanup(self.daemon.kill)
        await until(lambda: 1 in self.device._subscribed)

    async def asyncTearDown(self):
        await self.device.stop()
        await self.remote.stop()

    async def test_reads_sets_and_watches(self):
        async with Bus("lo") as bus:
            levels = await bus.get("1:2")
            self.assertEqual((len(levels), levels[IN1], levels[IN2]), (10, Level.LOW, Level.HIGH))
            self.assertEqual(list(await bus.list()), [0x102])
            await bus.set(OUT1, "L", check=True)
            self.assertEqual(self.device.output_state(1), "LHHHH")
            await bus.set("1:2:out2", Level.LOW, 100)
            await until(lambda: "1 LLHHH" in self.device.seen)
            await until(lambda: self.device.seen[-1] == "1 LHHHH")
            with self.assertRaisesRegex(BusError, "nobody answers"):
                await bus.set("9:9:out1", "L", check=True, wait=0.3)
            seen = []

            async def watch():
                async for change in bus.watch(IN1, IN2, every=1):
                    seen.append((change.pin, change.level, change.is_initial))
            task = asyncio.create_task(watch())
            await until(lambda: len(seen) == 2)
            self.device.set_input(1, "HL")
            await until(lambda: len(seen) == 4)
            self.assertEqual(set(seen), {(IN1, Level.LOW, True), (IN2, Level.HIGH, True),
                                         (IN1, Level.HIGH, False), (IN2, Level.LOW, False)})
            self.daemon.kill()
            await until(lambda: len(seen) == 6, 10)
            self.assertEqual({level for _, level, _ in seen[4:]}, {None})
            task.cancel()

    async def test_acknowledgements(self):
        async with Bus("lo", to="127.0.0.1") as bus:
            await bus.send_acknowledged(Message(b"WRNI"))
            self.daemon.kill()
            self.daemon.wait()
            with self.assertRaisesRegex(BusError, "not acknowledged"):
                await bus.send_acknowledged(Message(b"WRNI"))

    async def test_a_remote_input_is_mirrored(self):
        self.remote.set_input(3, "LxL")
        await until(lambda: self.device.output_state(2) == "LHLHH")

    async def test_a_new_control_server_tells_its_outputs(self):
        async with Bus("lo") as bus:
            await bus.set(OUT1, "L", check=True)
            await self.device.stop()
            self.device = Device({1: "1:2"})
            await self.device.start("127.0.0.1", 93)
            async with asyncio.timeout(8):
                while (await bus.get(OUT1)).get(OUT1) is not Level.HIGH:
                    pass

    async def conform(self, *words, meanwhile=None):
        """The exit status of orvexctl conform, and the duties by their verdict."""
        self.daemon.kill()
        self.daemon.wait()
        process = await asyncio.create_subprocess_exec(
            BUILD / "tools/ctl/orvexctl", "-i", "lo", "conform", "-j", "-q", *words, stdout=asyncio.subprocess.PIPE)
        task = asyncio.create_task(meanwhile()) if meanwhile else None
        out, _ = await process.communicate()
        if task:
            task.cancel()
        duties = {}
        for line in out.splitlines():
            duties.setdefault(json.loads(line)["verdict"], set()).add(json.loads(line)["duty"])
        return process.returncode, duties

    async def test_servers_conform(self):
        async def toggle():
            while True:
                await asyncio.sleep(0.3)
                for server, number in (self.device, 1), (self.remote, 3):
                    server.set_input(number, "L" if server.input_state(number)[0] == "H" else "H")

        status, duties = await self.conform("-W", "3", "control", "127.0.0.1:93", "--for", "1", meanwhile=toggle)
        self.assertEqual((status, list(duties)), (0, ["met"]), duties)
        status, duties = await self.conform("-W", "3", "remote", "127.0.0.1:94", "3", "--for", "1", meanwhile=toggle)
        self.assertEqual((status, list(duties)), (0, ["met"]), duties)

    async def test_faults_are_found(self):
        class Forgetful(Device):
            def _return(self, number, pin):  # pins stay as they are
                self._timers.pop((number, pin))

        await self.device.stop()
        self.device = Forgetful({1: "1:2"})
        await self.device.start("127.0.0.1", 93)
        status, duties = await self.conform("-W", "2", "control")
        self.assertEqual((status, duties["not met"]), (1, {"duration", "overlap", "away"}))

        async def send_no_packets():
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
                while True:
                    sock.sendto(b"no packet", ("127.0.0.1", 2060))
                    await asyncio.sleep(0.02)

        status, duties = await self.conform("peer", "--for", "1", meanwhile=send_no_packets)
        self.assertEqual((status, duties["not met"]), (1, {"header"}))

    async def test_a_peer_conforms(self):
        async def use():
            async with Bus("lo", to="127.0.0.1") as bus:
                acknowledged = 0
                while acknowledged < 1000:  # with the one that is refused, one more than are judged
                    with contextlib.suppress(BusError):
                        await bus.send_acknowledged(Message(b"WRNI", [Item(OUT1.tag, BYTE, 0)]))
                        acknowledged += 1
                    if acknowledged % 100 == 1:
                        await bus.get(IN1)

        for seconds in "5", "20":  # a busy machine may not try everything in the shorter time
            status, duties = await self.conform("peer", "--for", seconds, meanwhile=use)
            if "not tried" not in duties:
                break
        self.assertEqual((status, list(duties)), (0, ["met"]), duties)

    async def test_examples_run(self):
        await self.device.stop()
        self.daemon.kill()
        environment = {"PYTHONPATH": str(ROOT / "python"), "PATH": "/usr/bin:/bin"}
        server = subprocess.Popen([sys.executable, ROOT / "python/examples/control_server.py"], env=environment,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")
        await asyncio.sleep(1)
        daemon = subprocess.Popen([BUILD / "app/orvex", "-debug", "-r", "1093"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        follow = subprocess.Popen([sys.executable, ROOT / "python/examples/follow.py", "lo", "1:2:in1", "1:2:out1"],
                                  env=environment, stdout=subprocess.PIPE, encoding="utf-8")
        try:
            self.assertEqual(await asyncio.to_thread(follow.stdout.readline), "1:2:in1 is H\n")
            await asyncio.sleep(0.5)
            server.stdin.write("\n")
            server.stdin.flush()
            self.assertEqual(await asyncio.to_thread(follow.stdout.readline), "1:2:in1 is L\n")
            self.assertEqual(await asyncio.to_thread(server.stdout.readline), "output 1 is LHHHH\n")
        finally:
            for process in (follow, daemon, server):
                process.kill()
                process.communicate()


class BytesTest(unittest.TestCase):
    def test_the_document_has_the_bytes_of_the_vectors(self):
        named = {v["name"]: bytes.fromhex(v["hex"]) for v in VECTORS["packets"] + VECTORS["sent"]}
        shown = dict(captures())
        self.assertEqual(len(shown), 6)
        self.assertEqual(shown, {name: named[name] for name in shown})

    def test_packets(self):
        for vector in VECTORS["packets"]:
            with self.subTest(vector["name"]):
                data = bytes.fromhex(vector["hex"])
                if len(data) < 16 or data[3] != 7:
                    self.assertRaises(ValueError, Packet.decode, data)
                    continue
                packet = Packet.decode(data)
                if vector["answer"] is not None:
                    self.assertEqual(answer(packet, packet.layer >= 3).hex().upper(), vector["answer"])
                if vector["name"] not in ("message", "repetition"):  # which have a result port and locks
                    self.assertEqual(packet.encode(), data)

    def test_messages(self):
        for vector in VECTORS["messages"]:
            with self.subTest(vector["meaning"]):
                data = bytes.fromhex(vector["hex"])
                if not vector["valid"]:
                    self.assertRaises(ValueError, Message.decode, data)
                    continue
                message = Message.decode(data)
                self.assertEqual([item.tag for item in message.items], [item["tag"] for item in vector["items"]])
                for item, expected in zip(message.items, vector["items"]):
                    if isinstance(expected["value"], (int, list)):
                        value = list(item.value) if isinstance(item.value, bytes) else item.value
                        self.assertEqual(value, expected["value"])

    def test_pins(self):
        for text, tag in {"1:2:in1": 0x1020D, "258:out5": 0x10204, "0x102:c0x20": 0x10220, "010:in5": 0x809}.items():
            self.assertEqual(Pin.parse(text).tag, tag)
        for text in "1:2", "1:256:in1", "in1", "1:2:in6", "1:2:out", "1:2:c256", "16777216:in1", "-1:in1", "":
            self.assertRaises(ValueError, Pin.parse, text)


if __name__ == "__main__":
    unittest.main()
