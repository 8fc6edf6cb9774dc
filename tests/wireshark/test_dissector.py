"""Tests the Wireshark plugins on captures made of hand-written packets and lines."""

import json
import pathlib
import random
import re
import unittest

from capture import ICMP, PLUGINS, Capture, read, tshark

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs" / "wireshark.md"
INFO = "_ws.col.Info"


def packet(payload, tid=0x654A1C07, start="03000207", routing="0000 0000 00000000"):
    return bytes.fromhex(f"{start} {tid:08X} {routing} {payload}")


def items(name, *parts):
    """A payload: the identifier and its items."""
    return f"{name.encode().hex()} {len(parts):04X} {' '.join(parts)}"


WRITE = packet(items("WRNI", "00010208 07 41"))
READ = packet(items("READ", "FFFFFFFF 01 00000007", "FFFFFFFC 09 0102030405060708",
                    "0001020D 07 00", "00010208 07 00"), tid=8)
REPLY = items("INDI", "FFFFFFFE 01 00000007", "0001020D 07 01", "00010208 07 00",
              "FFFFFFFD 07 02", "FFFFFFFC 09 0102030405060708")
MESSAGE = packet(items("WRIN", "00010207 07 40", "00FF0304 07 85"), start="034D0207",
                 routing="0807 0005 00000063", tid=9)
ACK = bytes.fromhex("00410007 00000009")
NACK = bytes.fromhex("004E0007 00000009")
INNER = "494E4E45 0002 00000001 07 2A 4E414D45 02 0003 616200"
EVERY_TYPE = packet(items(
    "TEST", "00000001 01 01020304", "4E414D45 02 0003 616200", "00000003 03 0002 0A0B",
    "00000004 04 0002 0001 ABCD", "00000005 05 0001 DEADBEEF", "00000006 06 0016" + INNER,
    "00000007 07 85", "00000008 08 1234", "00000009 09 0102030405060708", "0000000A 0C 0005",
    "0000000B 02 0000"))
EXAMPLES = [WRITE, READ, packet(REPLY), MESSAGE, ACK, EVERY_TYPE]


def frames(names, *data, options=()):
    """The fields of a capture of these datagrams."""
    capture = Capture()
    for datagram in data:
        capture.udp(datagram)
    return read(capture, *names, options=options)


def nest(depth):
    inner = bytes.fromhex("4C454146 0000")
    for _ in range(depth):
        inner = bytes.fromhex("4E455354 0001 00000001 06") + len(inner).to_bytes(2, "big") + inner
    return packet(inner.hex())


def flips(data):
    for bit in range(len(data) * 8):
        changed = bytearray(data)
        changed[bit // 8] ^= 1 << bit % 8
        yield bytes(changed)


class BusTest(unittest.TestCase):
    def check(self, data, info, **fields):
        names = [name.replace("__", ".") for name in fields]
        (got,) = frames([INFO] + [f"orvex.{name}" for name in names], data)
        self.assertEqual(dict(zip(["info"] + names, (" ".join(values) for values in got))),
                         dict(zip(["info"] + names, [info, *fields.values()])))

    def test_write(self):
        self.check(WRITE, "WRNI 1:2 out1=L 250 ms", layer="3", type="0x00", version="7",
                   payload_version="2", tid="0x654a1c07", message="WRNI", message__items="1",
                   message__id="0x57524e49", item__tag="0x00010208", item__type="7",
                   item__byte="0x41", pin="1:2 out1=L 250 ms", pin__address="0x000102",
                   pin__group="1:2", pin__circuit="8", pin__name="out1", pin__level="L",
                   write__step="0", write__level="1", write__count="1", write__duration="250")

    def test_reliable_write(self):
        self.check(MESSAGE, "WRIN 1:2 out2=L, 255:3 out5=H 50 ms (reliable 00000009)",
                   type="0x4d", result_port="2055", lock_id="5", lock_tid="0x00000063",
                   pin__group="1:2 255:3", pin__name="out2 out5", pin__level="L H",
                   write__step="0 1", write__count="0 5", write__duration="0 50")

    def test_read_and_reply(self):
        self.check(READ, "READ id=7 1:2 in1, out1", id="7", echo="0x0102030405060708",
                   pin__name="in1 out1", pin__level="", write__duration="")
        self.check(packet(REPLY), "INDI refi=7 1:2 in1=L, out1=H", refi="7", reply_mark="2",
                   echo="0x0102030405060708", pin__level="L H", expert__unknown_tag="")

    def test_every_type(self):
        self.check(EVERY_TYPE, "TEST", item__dword="0x01020304 0xdeadbeef",
                   message="TEST INNE", item__string="ab ab", item__bytes="0a0b",
                   item__word="0x0001 0xabcd 0x1234", item__byte="0x2a 0x85",
                   item__qword="0x0102030405060708", item__count="3 2 2 1 22 3 5 0",
                   item__type="1 2 3 4 5 6 7 2 7 8 9 12 2", expert__unknown_message="1",
                   expert__unknown_type="1", undecoded="")

    def test_answers(self):
        self.check(ACK, "ACK of 00000009", type="0x41", version="7", tid="0x00000009", layer="",
                   expert__refused="")
        self.check(NACK, "NACK of 00000009", type="0x4e", expert__refused="1")

    def test_every_pin(self):
        circuits = [13, 12, 11, 10, 9, 8, 7, 6, 5, 4]
        names = " ".join([f"in{pin}" for pin in range(1, 6)] + [f"out{pin}" for pin in range(1, 6)])
        self.check(packet(items("INDI", *[f"FFFFFF{circuit:02X} 07 00" for circuit in circuits])),
                   "INDI 65535:255 " + ", ".join(f"{name}=H" for name in names.split()),
                   pin__name=names)

    def test_faults_are_marked(self):
        one = items("INDI", "00010208 07 01")
        cases = {
            "short": [bytes(15), ACK[:7], b"\x03"],
            "long_answer": [ACK + b"\0"],
            "type": [packet(one, start="03410207")],
            "version": [packet(one, start="03000206"), bytes.fromhex("00410006 654A1C07")],
            "layer": [packet(one, start="02000207")],
            "payload_version": [packet(one, start="03000307")],
            "truncated": [packet(""), packet("494E44"), WRITE[:-1], WRITE[:-6],
                          packet(items("INDI", "00000001 04 0003 00010002")),
                          packet(items("INDI", "00000001 06 0007 494E44490000"))],
            "trailing": [WRITE + b"\0"],
            "nested": [packet(items("INDI", "00000001 06 0003 494E44")),
                       packet(items("INDI", "00000001 06 0000"))],
            "depth": [nest(16), nest(4000)],
            "unknown_tag": [packet(items("WRNI", "00010203 07 00"))],
            "item_type": [packet(items("WRNI", "00010208 08 0040")),
                          packet(items("INDI", "00010208 07 02")),
                          packet(items("READ", "FFFFFFFF 07 01"))],
            "input": [packet(items("WRNI", "0001020D 07 40"))],
        }
        got = frames([f"orvex.expert.{name}" for name in cases], *sum(cases.values(), []))
        names = [name for name, data in cases.items() for _ in data]
        for name, values in zip(names, got, strict=True):
            self.assertEqual(dict(zip(cases, values))[name], ["1"], name)
        faultless = frames(["_ws.expert"], WRITE, MESSAGE, READ, packet(REPLY, tid=1))
        self.assertEqual(faultless, [([],)] * 4)

    def test_rest_is_shown(self):
        got = frames(["orvex.undecoded"], packet("494E44"), WRITE + b"\1",
                     packet("00", start="02000207"))
        self.assertEqual(got, [(["494e44"],), (["01"],), (["00"],)])

    def test_cut_capture_is_no_fault_of_the_packet(self):
        capture = Capture()
        for data in EXAMPLES + [nest(2)]:
            for kept in range(1, len(data)):
                capture.udp(data, kept=kept)
        got = read(capture, "orvex.expert.cut", "orvex.expert.truncated", "orvex.expert.short")
        self.assertEqual(got, [(["1"], [], [])] * len(capture.frames))

    def test_frames_are_linked(self):
        capture = Capture()
        peer, daemon, group = "10.0.0.2:40000", "10.0.0.1:2060", "239.192.255.4:2055"
        capture.udp(READ, time=0)                                            # 1
        capture.udp(packet(REPLY, tid=5), "10.0.0.1:2061", group, time=0.25)
        capture.udp(packet(REPLY, tid=6), "10.0.0.1:2061", group, time=0.5)
        capture.udp(packet(REPLY, tid=6), "10.0.0.3:2061", group, time=1)    # 4: from another daemon
        capture.udp(MESSAGE, peer, daemon, time=2)
        capture.udp(MESSAGE, peer, daemon, time=2.0625)
        capture.udp(ACK, daemon, peer, time=2.065)                           # 7
        capture.udp(ACK, daemon, "10.0.0.2:40001", time=3)                   # to another sender
        refused = capture.udp(packet(REPLY, tid=9), peer, daemon, time=20)
        error = bytes.fromhex("03030000 00000000") + refused
        capture.ip(ICMP, "10.0.0.1", "10.0.0.2", error, 20.5, None)          # 10: quotes frame 9
        capture.udp(MESSAGE, peer, daemon, time=40)                          # forgotten by now
        capture.udp(packet(REPLY, tid=8), "10.0.0.3:2061", group, time=41)   # 12: one is missing
        capture.udp(packet(items("READ", "00010208 07 00")), time=42)        # without identifier
        for refi in [0, 7]:                                                  # without echo
            reply = items("INDI", f"FFFFFFFE 01 {refi:08X}")
            capture.udp(packet(reply, tid=90 + refi), "10.0.0.1:2061", group, time=43)
        links = ["response_in", "request_in", "copy_of", "repeat_of", "ack_in", "ack_to",
                 "response_time", "ack_time"]
        got = read(capture, *[f"orvex.{name}" for name in links], options=["-2"])
        expected = {
            1: {"response_in": "2 4 9 12"},
            2: {"request_in": "1", "response_time": "0.250000000"},
            3: {"request_in": "1", "response_time": "0.500000000", "copy_of": "2"},
            4: {"request_in": "1", "response_time": "1.000000000"},
            6: {"repeat_of": "5", "ack_in": "7"},
            7: {"ack_to": "6", "ack_time": "0.002500000"},
            9: {"request_in": "1", "response_time": "20.000000000"},
            12: {"request_in": "1", "response_time": "41.000000000"},
        }
        for number, values in enumerate(got, 1):
            found = {name: " ".join(value) for name, value in zip(links, values) if value}
            self.assertEqual(found, expected.get(number, {}), f"frame {number}")

    def test_reads_the_vectors(self):
        vectors = json.loads((PLUGINS.parent / "docs/vectors.json").read_text("utf-8"))
        packets = {v["name"]: bytes.fromhex(v["hex"]) for v in vectors["packets"] + vectors["sent"]}
        got = frames(["orvex.message", "_ws.malformed"], *packets.values())
        found = {name: (names, bool(malformed)) for name, (names, malformed) in zip(packets, got)}
        self.assertEqual({name: names for name, (names, _) in found.items() if name in (
            "write", "read", "indication", "report", "message", "acknowledgement")},
            {"write": ["WRNI"], "read": ["READ"], "indication": ["INDI"], "report": ["INDI"], "message": ["WRIN"],
             "acknowledgement": []})
        self.assertEqual({name for name, (_, malformed) in found.items() if malformed},
                         {"no payload", "bytes behind the message", "item past the end", "short"})

    def test_any_bytes_are_dissected(self):
        capture = Capture()
        numbers = random.Random(1)
        for data in EXAMPLES + [nest(2)]:
            for changed in flips(data):
                capture.udp(changed)
            for length in range(1, len(data)):
                capture.udp(data[:length])
        for _ in range(1000):
            capture.udp(packet(numbers.randbytes(numbers.randrange(1, 60)).hex()))
        # An item of each type that announces more elements than any packet holds.
        for code in range(256):
            capture.udp(packet(items("READ", f"00010208 {code:02X} FFFF")))
        self.check_dissected(capture, "orvex")

    def check_dissected(self, capture, protocol):
        expected = f"{protocol} and (_ws.expert.group == Malformed or not _ws.malformed)"
        taken = read(capture, "frame.number", options=["-2", "-Y", expected])
        self.assertEqual(len(taken), len(capture.frames))

    def test_ports_can_be_chosen(self):
        capture = Capture()
        capture.udp(WRITE, dst="239.192.255.4:9999")
        for options, expected in [([], []), (["-o", "orvex.ports:9999"], ["7"]),
                                  (["-d", "udp.port==9999,orvex"], ["7"])]:
            self.assertEqual(read(capture, "orvex.version", options=options), [(expected,)])


LINES = [
    ("SET", {"command": "SET"}),
    ("CFG GPO", {"command": "CFG", "object": "GPO"}),
    ("SET A:1,NIC_IPADDR=10.0.0.1",
     {"field": "A:1|NIC_IPADDR=10.0.0.1", "field.key": "A|NIC_IPADDR",
      "field.value": "1|10.0.0.1", "nic_ipaddr": "10.0.0.1"}),
    ("SET NIC_IPADDR=10.0.0", {"nic_ipaddr": "", "expert.source": "1"}),
    ("GPI 0x12 HLhlx", {"command": "GPI", "number": "18", "state": "HLhlx", "pin1": "H",
                        "pin2": "L", "pin3": "h", "pin4": "l", "pin5": "x", "expert.state": ""}),
    ("GPO 5 LH DURATION:250", {"number": "5", "state": "LH", "pin3": "", "duration": "250"}),
    ("GPO 33 HHHHHH", {"expert.number": "1", "expert.state": "1", "pin5": "H"}),
    ("GPI 1 HZ", {"expert.state": "1"}),
    ("ADD GPI 3", {"command": "ADD", "object": "GPI", "number": "3", "expert.unknown": ""}),
    ("DEL GPI 04", {"command": "DEL", "object": "GPI", "number": "4"}),
    ('CFG GPO 3 NAME="a, \\"b" SRCA="10.0.0.9:94/2"',
     {"number": "3", "field.key": "NAME|SRCA", "field.value": 'a, "b|10.0.0.9:94/2',
      "source.kind": "remote", "source.ip": "10.0.0.9", "source.port": "94", "source.input": "2"}),
    ("CFG GPO 3 SRCA=10.0.0.9 X=1", {"source.port": "93", "source.input": "1"}),
    ("CFG GPO 3 SRCA=10.0.0.9/3:94", {"source.port": "93", "source.input": "3"}),
    ("CFG GPO 3 SRCA=3:7,X=1.5", {"source.ip": "0.0.0.3", "source.port": "7"}),
    ("CFG GPO 3 SRCA=255.255.255.255", {"source.kind": "none", "expert.source": "1"}),
    ("CFG GPO 3 SRCA=10.0.0.256", {"source.kind": "none", "expert.source": "1"}),
    ('CFG GPO 3 SRCA="tqs://0x12:0x34"', {"source.kind": "bus", "source.address": "0x00001234",
                                          "source.group": "18:52"}),
    ("CFG GPO 3 SRCA=7", {"source.address": "0x00000007", "source.group": "0:7"}),
    ("CFG GPO 3 SRCA=none SRCA=7", {"source.kind": "none", "expert.source": ""}),
    ("CFG GPO 3 SRCA=", {"source.kind": "none"}),
    ("X" * 1999, {"expert.unknown": "1", "expert.overlong": ""}),
    ("X" * 2000, {"expert.unknown": "", "expert.overlong": "1"}),
    ("GPI 1 H\0", {"expert.nul": "1", "number": ""}),
] + [(text, {"expert.unknown": "1"}) for text in [
    "set", "SETX", "CFG", "CFG GPI 1 A=1", "CFG GPO x", "CFG GPOX", "GPI 1", "GPI 1,H", "ADD GPO 1",
    "ADD GPI", "ADD GPI 1 x", "HELLO WORLD"]]


class LineTest(unittest.TestCase):
    def test_parts_of_lines(self):
        names = sorted({name for _, parts in LINES for name in parts})
        capture = Capture()
        for number, (text, _) in enumerate(LINES):
            capture.tcp(text.encode() + b"\n", sport=50000 + number)
        got = read(capture, *[f"orvex_line.{name}" for name in names])
        for (text, parts), values in zip(LINES, got, strict=True):
            found = dict(zip(names, map("|".join, values)))
            self.assertEqual({name: found[name] for name in parts}, parts, text)

    def test_lines_cut_anywhere(self):
        stream = b"\nSET\r\n\r\nCFG GPO 3 SRCA=1:2\rGPI 3 LHHHH\n"
        capture = Capture()
        for cut in range(1, len(stream)):
            capture.tcp(stream[:cut], sport=50000 + cut)
            capture.tcp(stream[cut:], sport=50000 + cut)
        for pos in range(len(stream)):
            capture.tcp(stream[pos:pos + 1], sport=60000)
        texts = {}
        for (port, *_), lines in read(capture, "tcp.srcport", "orvex_line.text"):
            texts[port] = texts.get(port, []) + lines
        self.assertEqual(len(texts), len(stream))
        for port, lines in texts.items():
            self.assertEqual(lines, ["SET", "CFG GPO 3 SRCA=1:2", "GPI 3 LHHHH"], port)

    def test_info_names_every_line(self):
        capture = Capture()
        capture.tcp(b"SET\nCFG GPO\nGPI 1 ")
        capture.tcp(b"HHHHH\nNO\x1b\nGP")
        capture.tcp(b"I 2 L\n")
        self.assertEqual([info for (info,) in read(capture, INFO)],
                         [["SET | CFG GPO"], ["GPI 1 HHHHH | NO. (unknown)"], ["GPI 2 L"]])

    def test_endless_line_is_not_collected(self):
        capture = Capture()
        capture.tcp(b"X" * 1999)
        capture.tcp(b"X")
        self.assertEqual(read(capture, "orvex_line.expert.overlong"), [([],), (["1"],)])
        options = ["-o", "tcp.desegment_tcp_streams:FALSE"]
        unfinished = read(capture, "orvex_line.expert.unfinished", options=options)
        self.assertEqual(unfinished, [(["1"],), (["1"],)])

    def test_any_bytes_are_dissected(self):
        capture = Capture()
        for text, _ in LINES:
            if len(text) < 100:
                for changed in flips(text.encode()):
                    capture.tcp(changed.replace(b"\n", b"n").replace(b"\r", b"r") + b"\n")
                for length in range(1, len(text)):
                    capture.tcp(text[:length].encode() + b"\n")
        BusTest.check_dissected(self, capture, "orvex_line")

    def test_port_can_be_chosen(self):
        capture = Capture()
        capture.tcp(b"SET\n", dport=9393)
        for options, expected in [([], []), (["-o", "orvex_line.ports:9393"], ["SET"]),
                                  (["-d", "tcp.port==9393,orvex_line"], ["SET"])]:
            self.assertEqual(read(capture, "orvex_line.text", options=options), [(expected,)])


class DocumentationTest(unittest.TestCase):
    def test_table_lists_every_filter(self):
        rows = [line.split("\t") for line in tshark("-G", "fields").splitlines()]
        fields = {row[2] for row in rows if row[0] == "F" and re.match(r"orvex(_line)?\.", row[2])}
        documented = re.findall(r"^\| `(\S+)` \|", DOCS.read_text("utf-8"), re.MULTILINE)
        self.assertEqual(sorted(documented), sorted(fields))

    def test_examples_are_filters(self):
        examples = re.findall(r"^\|[^`|]*\| `(.*)` \|$", DOCS.read_text("utf-8"), re.MULTILINE)
        self.assertGreater(len(examples), 4)
        any_of = " or ".join(f"({example})" for example in examples)
        found = frames(["frame.number"], ACK, WRITE, READ, packet(REPLY), NACK, packet("", tid=3),
                       options=["-Y", any_of])
        self.assertEqual([number for ((number,),) in found], ["2", "3", "4", "5", "6"])


if __name__ == "__main__":
    unittest.main()
