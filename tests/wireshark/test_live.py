"""Tests the Wireshark plugins on what the daemon and its peers really exchange, captured on hosts
that exist for this test only.

Usage: test_live.py ORVEX ORVEXCTL ORVEX_SIM
"""

import contextlib
import json
import os
import pathlib
import subprocess
import sys
import time
import unittest

from capture import read_file

NETWORK = """
mount -t tmpfs run /run && mount -t tmpfs log /var/log && mkdir /run/netns && ip netns add studio
ip link set lo up && ip link add eth0 type veth peer name eth0 netns studio
for host in "10.77.0.1" "10.77.0.2 ip netns exec studio"; do
    set -- $host; address=$1; shift
    $* ip addr add $address/24 dev eth0 && $* ip link set eth0 up
    $* ip route add 224.0.0.0/4 dev eth0
done
"""
DEVICE_LINES = "CFG GPO 1 SRCA=10.77.0.2/3\nCFG GPO 2 SRCA=1:2\nGPI 2 LHHHH\n"
SKIPPED = 77
PIN = {"tag": 0x0001020D, "type": "byte", "value": 1}
NESTED = {"id": "TEST", "items": [{"tag": 1, "type": "message",
                                   "value": {"id": "INDI", "items": [PIN]}}]}


def in_studio(*command):
    return ["ip", "netns", "exec", "studio", *command]


def await_bytes(path, data):
    limit = time.monotonic() + 20
    while data not in pathlib.Path(path).read_bytes():
        if time.monotonic() > limit:
            raise AssertionError(f"no {data} in {path}: {pathlib.Path(path).read_bytes()}")
        time.sleep(0.02)


@contextlib.contextmanager
def running(name, *command):
    """Yields a function that waits for a text in what the command prints."""
    log = f"/run/{name}.log"
    with open(log, "wb") as out, subprocess.Popen(command, stdin=subprocess.PIPE, stdout=out,
                                                  stderr=subprocess.STDOUT) as process:
        try:
            yield process, lambda text: await_bytes(log, text.encode())
        finally:
            process.terminate()


def make_capture(path, daemon, ctl, sim):
    """A remote input mirrored, then two writes, a read, and a message in a message."""
    def tool(*words, **options):
        subprocess.run(in_studio(ctl, *words), check=True, stdout=subprocess.DEVNULL, **options)

    subprocess.run(["sh", "-ec", NETWORK], check=True)
    pathlib.Path("/run/device.conf").write_text(DEVICE_LINES, "utf-8")
    with contextlib.ExitStack() as stack:
        def start(*command):
            return stack.enter_context(running(*command))

        capturer, captured = start("dumpcap", "dumpcap", "-q", "-i", "any", "-w", path)
        captured("File:")
        studio, studio_printed = start("studio", *in_studio(sim, "--listen", "10.77.0.2:93"))
        _, device_printed = start("device", sim, "/run/device.conf")
        device_printed("listening")
        studio_printed("listening")
        _, daemon_printed = start("orvex", daemon, "-debug")
        daemon_printed("I> 239.192.255.4:2055")
        studio_printed("> GPI 3 HHHHH")
        studio.stdin.write(b"GPI 3 LHHHH\n")
        studio.stdin.flush()
        device_printed("< GPO 1 LHHHH")
        tool("set", "1:2:out3=L,500")
        tool("set", "--reliable", "--to", "10.77.0.1", "1:2:out1=H,50")
        tool("get", "1:2:in1")
        tool("send", "-", input=json.dumps(NESTED).encode())
        daemon_printed("S< DGRM [TEST")
        await_bytes(path, b"TEST")
        capturer.terminate()
        capturer.wait(20)
    os.chmod(path, 0o644)


class LiveTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.path = "/run/capture.pcapng"
        make_capture(cls.path, *PROGRAMS)

    def frames(self, shown, *names):
        """Of the frames that pass the filter, the named fields in words; empty ones left out."""
        rows = read_file(self.path, *names, options=["-2", "-Y", shown])
        keys = [name.split(".", 1)[1] for name in names]
        return [{key: " ".join(values) for key, values in zip(keys, row) if values} for row in rows]

    def test_bus(self):
        names = [f"orvex.{name}" for name in (
            "message", "type", "pin.group", "pin.name", "pin.level", "write.duration", "reply_mark",
            "expert.unknown_message")]
        pins = {"pin.group": " ".join(["1:2"] * 5), "pin.name": "in1 in2 in3 in4 in5"}
        report = {"message": "INDI", "type": "0x00", **pins, "pin.level": "L H H H H"}
        one = {"pin.group": "1:2", "pin.name": "in1", "type": "0x00"}
        reply = {"message": "INDI", "pin.level": "L", "reply_mark": "2", **one}
        self.assertEqual(self.frames("orvex", *names), [
            report, report,
            {"message": "WRNI", "type": "0x00", "pin.group": "1:2", "pin.name": "out3",
             "pin.level": "L", "write.duration": "500"},
            {"message": "WRNI", "type": "0x4d", "pin.group": "1:2", "pin.name": "out1",
             "pin.level": "H", "write.duration": "50"},
            {"type": "0x41"},
            {"message": "READ", **one}, reply, reply,
            {"message": "TEST INDI", "type": "0x00", "expert.unknown_message": "1"},
        ])

    def test_links(self):
        names = ["frame.number"] + [f"orvex.{name}" for name in (
            "id", "refi", "ack_in", "ack_to", "request_in", "response_in", "copy_of", "tid")]
        *_, message, answer, request, reply, copy, _ = self.frames("orvex", *names)
        self.assertEqual(message["ack_in"], answer["number"])
        self.assertEqual(answer["ack_to"], message["number"])
        self.assertEqual(answer["tid"], message["tid"])
        self.assertEqual(request["response_in"], reply["number"])
        self.assertEqual(reply["request_in"], request["number"])
        self.assertEqual(copy["copy_of"], reply["number"])
        self.assertEqual(int(reply["refi"].split()[0]), int(request["id"].split()[0]))

    def test_control_lines(self):
        names = [f"orvex_line.{name}" for name in (
            "command", "object", "number", "state", "pin1", "duration", "source.ip",
            "source.port", "source.input", "source.group", "source.kind")]
        sent = read_file(self.path, "orvex_line.text", options=["-Y", "tcp.dstport == 93"])
        self.assertEqual(sorted(line for (texts,) in sent for line in texts), [
            "ADD GPI 2", "ADD GPI 3", "CFG GPO", "GPO 1 HHHHH", "GPO 1 HHHHH", "GPO 1 LHHHH",
            "GPO 2 HHHHH", "GPO 2 Hxxxx DURATION:50", "GPO 2 xxLxx DURATION:500", "SET"])
        configured = {}
        for row in self.frames('orvex_line.text contains "SRCA"', *names):
            configured.update({key: value for key, value in row.items() if "source" in key})
        configured.pop("source.kind")  # of one line or of two, as they came
        self.assertEqual(configured, {"source.ip": "10.77.0.2", "source.port": "93",
                                      "source.input": "3", "source.group": "1:2"})
        *_, timed = self.frames("orvex_line.duration", *names)
        self.assertEqual(timed, {"command": "GPO", "number": "2", "state": "Hxxxx", "pin1": "H",
                                 "duration": "50"})
        subscribed = self.frames("orvex_line and ip.dst == 10.77.0.2", *names)
        self.assertEqual(subscribed, [{"command": "ADD", "object": "GPI", "number": "3"}])
        self.assertEqual(self.frames("_ws.expert.group == Malformed", "frame.number"), [])


if __name__ == "__main__":
    if sys.argv[1] != "--inside":
        for FLAGS in "-nmpf", "-Urnmpf":
            INSIDE = ["unshare", FLAGS, "--mount-proc", "--kill-child"]
            if subprocess.run([*INSIDE, "true"], check=False, capture_output=True).returncode == 0:
                os.execvp("unshare", [*INSIDE, sys.executable, "-B", os.path.abspath(__file__),
                                      "--inside", *map(os.path.abspath, sys.argv[1:])])
        print("Skipped: needs network namespaces, and neither as root nor in a user namespace can "
              "one be had")
        sys.exit(SKIPPED)
    PROGRAMS = sys.argv[2:]
    unittest.main(argv=sys.argv[:1])
