"""Queries a board, and tries to harm it. Run by world.sh.

Usage: test_board.py ORVEXCTL
"""

import contextlib
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT / "python"), str(ROOT / "tests/support")]

from orvex.packets import BYTE, GROUP, REPORT, REPORT_PORT, Item, Message, Packet  # noqa: E402
from schemas import Schemas  # noqa: E402

CTL = sys.argv[1]
MANUAL = ROOT / "docs/man/orvex-board.8"
PORT = 8093
TOKEN = "0123456789abcdef0123"
HOST = f"127.0.0.1:{PORT}"
SET = {"Origin": f"http://{HOST}", "X-Orvex-Board": "set", "Content-Type": "application/json",
       "Authorization": f"Bearer {TOKEN}"}


def ask(path, method="GET", body=None, headers=None, source="127.0.0.1"):
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10, source_address=(source, 0))
    connection.request(method, path, body, headers or {})
    answer = connection.getresponse()
    body = "" if answer.headers.get_content_type() == "text/event-stream" else answer.read().decode()
    connection.close()
    return answer.status, body


def get(path):
    status, body = ask(path)
    assert status == 200, (path, status, body)
    return json.loads(body)


def pin(name):
    return next(one for one in get("/api/v1/pins")["pins"] if one["pin"] == name)


def until(condition, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return
        time.sleep(0.05)
    raise AssertionError("timed out")


def control(line):
    pathlib.Path("/run/in").write_text(line + "\n", "ascii")


def board_pid():
    return int(pathlib.Path("/run/board.pid").read_text("ascii"))


def converse(talks):
    """Sends each list of pieces, one after the other, on a connection of its own; returns the answers."""
    answers = []
    for begin in range(0, len(talks), 200):
        clients = [socket.create_connection(("127.0.0.1", PORT), timeout=10) for _ in talks[begin:begin + 200]]
        for step in range(3):
            for client, pieces in zip(clients, talks[begin:]):
                with contextlib.suppress(OSError):  # it may have answered and closed
                    if step < len(pieces):
                        client.sendall(pieces[step])
                    elif step == len(pieces):
                        client.shutdown(socket.SHUT_WR)
        for client in clients:
            answer = b""
            with contextlib.suppress(ConnectionResetError), client:
                while data := client.recv(65536):
                    answer += data
            answers.append(answer)
    return answers


def report(tags, low, source="10.77.0.1"):
    """Reports pins on the bus, in two packets as devices do."""
    message = Message(REPORT, [Item(tag, BYTE, low) for tag in tags]).encode()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as bus:
        bus.bind((source, 0))
        bus.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(source))
        for _ in range(2):
            report.number += 1
            bus.sendto(Packet(report.number, message).encode(), (GROUP, REPORT_PORT))


report.number = int(time.time())


def is_gone():
    try:
        return pathlib.Path(f"/proc/{board_pid()}/stat").read_text("ascii").split()[2] == "Z"
    except OSError:
        return True


def restart(db):
    with contextlib.suppress(OSError):
        os.kill(board_pid(), signal.SIGKILL)
    until(is_gone)
    subprocess.run(["bash", "/run/board.sh"], check=True, env={**os.environ, "DB": db})
    until(lambda: not ask_fails())


class Viewer:
    """Follows the stream, line by line."""

    def __init__(self, last=None, source="127.0.0.1"):
        self.connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10, source_address=(source, 0))
        self.connection.request("GET", "/api/v1/events", headers={"Last-Event-ID": last} if last else {})
        self.connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)  # and not more when it is read
        self.answer = self.connection.getresponse()

    def events(self):
        event = {}
        for line in self.answer:
            name, _, value = line.decode().rstrip("\n").partition(": ")
            if name:
                event[name] = value
            elif "event" in event:
                yield event
                event = {}


class BoardTest(unittest.TestCase):
    def setUp(self):
        until(lambda: get("/api/v1/pins")["board"]["link"]["up"])

    def test_changes_are_sent_stored_and_counted(self):
        until(lambda: pin("1:2:in1")["state"] == "told")
        events = Viewer().events()
        control("GPI 2 LLHHH")
        event = next(one for one in events if one["event"] == "pin" and "1:2:in2" in one["data"])
        self.assertEqual(json.loads(event["data"])["level"], "L")
        subprocess.run([CTL, "-q", "-i", "eth0", "set", "1:2:out4=L,500"], check=True)
        until(lambda: pin("1:2:out4").get("write", {}).get("duration") == 500)
        until(lambda: pin("1:2:out4")["state"] == "told" and pin("1:2:out4")["level"] == "H")
        kinds = [(one["kind"], one["level"]) for one in get("/api/v1/history?pin=1:2:out4")["events"]]
        self.assertEqual(kinds[:3], [("told", "H"), ("told", "L"), ("written", "L")])
        self.assertTrue('told,1:2:in2,"studio1.fader",L' in ask("/api/v1/history?format=csv")[1])
        control("GPI 2 LHHHH")
        # A viewer that reconnects gets what it missed, or is told that it was away for too long.
        missed = next(one for one in Viewer(event["id"]).events() if one["event"] == "pin")
        self.assertNotEqual(missed["event"], "reload")
        self.assertEqual(next(Viewer("1-1").events())["event"], "reload")
        for kind in ("text/plain", "application/openmetrics-text"):
            status, text = ask("/metrics", headers={"Accept": kind})
            self.assertEqual(status, 200)
            self.assertIn('orvex_board_pin_low{pin="1:2:in1"} 1\n', text)
            self.assertIn('orvex_board_pin_info{pin="1:2:in1",name="studio1.door",title="Studio 1 door",group="studio1"} 1\n',
                          text)
        self.assertTrue(text.endswith("# EOF\n"))

    def test_metrics_are_documented_and_those_that_are_used_exist(self):
        def names(pattern, text):
            return {re.sub("_(bucket|sum|count)$", "", name) for name in re.findall(pattern, text, re.M)}

        until(lambda: "orvex_board_device_answer_seconds_count" in ask("/metrics")[1])
        exported = names(r"^(\w+)", ask("/metrics")[1])
        listed = MANUAL.read_text("utf-8").partition(".Sh METRICS")[2]
        self.assertEqual(exported, {name for line in re.findall(r"^\.It Sy (.*)", listed, re.M)
                                    for name in re.findall(r"(?:orvex_board|process)_\w+", line)})
        doctor = subprocess.run([CTL, "-q", "-i", "eth0", "doctor", "--metrics"], capture_output=True, text=True, check=True)
        exported |= names(r"^(\w+)", doctor.stdout)
        rules = (ROOT / "packaging/prometheus/orvex-board.rules.yml").read_text("utf-8")
        used = rules + (ROOT / "packaging/grafana/orvex-board.json").read_text("utf-8")
        exported |= names(r"^\.It Ic (orvex_mqtt_\w+)", (ROOT / "docs/man/orvex-mqtt.8").read_text("utf-8"))
        self.assertEqual(names(r"\b((?:orvex_board|orvex_doctor|orvex_mqtt|process)_\w+)", used) - exported, set())
        self.assertEqual(re.findall(r"alert: (\w+)", rules),
                         re.findall(r"^## (\w+)", (ROOT / "docs/runbook.md").read_text("utf-8"), re.M))

    def test_what_is_emitted_fits_its_schemas(self):
        def flip():
            while not over.wait(0.3):
                control("GPI 2 LHLHH\nGPI 2 LHHHH")

        over = threading.Event()
        flipping = threading.Thread(target=flip)
        flipping.start()
        self.addCleanup(flipping.join)
        self.addCleanup(over.set)
        board = Schemas(ROOT / "docs/openapi.json")
        paths = board.document["paths"]
        self.assertEqual(get("/openapi.json"), board.document)
        served = {path for file in (ROOT / "tools/board").glob("*.cpp")
                  for path in re.findall(r'"(/api/v1/\w+)"', file.read_text("utf-8"))}
        self.assertEqual(served - set(paths), set())
        until(lambda: get("/api/v1/devices")["devices"] and get("/api/v1/history")["events"])
        wall = {"lamps": [{"pin": "1:2:out3", "color": "red", "on": "ON AIR"}], "version": 0}
        self.assertEqual(ask("/api/v1/walls/corridor", "PUT", json.dumps(wall), SET)[0], 200)
        for path, reads in paths.items():
            content = reads.get("get", {"responses": {"200": {"content": {}}}})["responses"]["200"]["content"]
            if "application/json" in content:
                required = [one for one in reads["get"].get("parameters", []) if one.get("required")]
                query = "&".join(f"{one['name']}={one['example']}" for one in required)
                board.check(content["application/json"]["schema"], get(path.format(name="corridor") + "?" + query))
        board.check("#/components/schemas/Error", json.loads(ask("/api/v1/history?from=x")[1]))
        wanted = {"pin", "channel", "beat"}
        events = Viewer().events()
        body = '{"pin":"1:2:out2","level":"L","duration":100}'
        board.check("#/components/schemas/Sent", json.loads(ask("/api/v1/set", "POST", body, SET)[1]))
        while wanted:
            event = next(events)
            board.check(paths["/api/v1/events"]["get"]["x-events"][event["event"]], json.loads(event["data"]))
            wanted.discard(event["event"])
        lines = Schemas(ROOT / "docs/schemas/orvexctl.json")
        for name, command in [("fact", "get 1:2"), ("fact", "list 1:2-1:3"), ("followed", "top --for 1"), ("channel", "channels"),
                              ("source", "channels --explain SRCA=1:2"), ("input", "channels --inputs 1-2"),
                              ("message", "set 1:2:out2=L,100"), ("change", "watch --changes -c 1 1:2"),
                              ("message", "watch --heartbeat 0.1 -f 1"), ("finding", "doctor"),
                              ("duty", "conform remote 127.0.0.1 1 -f 1")]:
            done = subprocess.run([CTL, "-q", "-i", "eth0", "-n", "/run/names", "--json", *command.split()],
                                  capture_output=True, text=True, timeout=60, check=False)
            found = [json.loads(line) for line in done.stdout.splitlines()]
            self.assertTrue(found, (command, done.stderr))
            for one in found:
                lines.check(f"#/$defs/{name if 'event' not in one else 'event'}", one)

    def test_setting_needs_everything(self):
        body = json.dumps({"pin": "1:2:out5", "level": "L", "duration": 310, "who": "Ann"})
        for name, value, status in [("Host", "evil.example", 421), ("Origin", "http://evil.example", 403),
                                    ("Origin", "", 403), ("X-Orvex-Board", "", 403),
                                    ("Content-Type", "text/plain", 415),
                                    ("Authorization", "Bearer " + "x" * 20, 401), ("Authorization", "", 401)]:
            self.assertEqual(ask("/api/v1/set", "POST", body, {**SET, name: value})[0], status, name)
        for wrong in ("", "[" * 4000, '{"pin":"1:2:in1","level":"L"}', '{"pin":"1:2:out1","level":"x"}',
                      '{"pin":"1:2:out1","level":"L","duration":-1}', '{"pin":7,"level":"L"}'):
            self.assertEqual(ask("/api/v1/set", "POST", wrong, SET)[0], 400, wrong[:40])
        self.assertEqual(ask("/api/v1/set", "POST", "x" * 20000, SET)[0], 413)
        self.assertNotIn("GPO 2 xxxxL", pathlib.Path("/run/sim.log").read_text("utf-8"))
        self.assertEqual(ask("/api/v1/set", "POST", body, SET)[0], 202)
        until(lambda: "< GPO 2 xxxxL DURATION:310" in pathlib.Path("/run/sim.log").read_text("utf-8"))
        asked = [one["host"] for one in get("/api/v1/history?pin=1:2:out5")["events"] if one["kind"] == "set"]
        self.assertEqual(asked, ["Ann (127.0.0.1)"])

    def test_wrong_tokens_of_others_refuse_nobody(self):
        body = json.dumps({"pin": "1:2:out5", "level": "H"})
        guess = {**SET, "Authorization": "Bearer " + "x" * 20}
        statuses = [ask("/api/v1/set", "POST", body, guess, "127.0.0.66")[0] for _ in range(12)]
        self.assertEqual(statuses, 10 * [401] + 2 * [429])
        for source in ("127.0.0.1", "127.0.0.66"):
            self.assertEqual(ask("/api/v1/set", "POST", body, SET, source)[0], 202, source)

    def test_a_second_board_leaves_the_history_alone(self):
        second = subprocess.run([f"/proc/{board_pid()}/exe", "-i", "eth0", "--listen", "127.0.0.1:8094", "--db", "/run/h.db"],
                                stderr=subprocess.PIPE, text=True, timeout=10, check=False)
        self.assertEqual((second.returncode, second.stderr),
                         (1, f"orvex-board: /run/h.db is used by another program (process {board_pid()})\n"))

    def test_days_tell_how_long_and_how_often_and_who(self):
        begin = int(time.time() * 1000) - 60000
        until(lambda: pin("1:2:in1")["state"] == "told")
        for level in "LH":
            body = json.dumps({"pin": "1:2:out2", "level": level, "who": "Ann"})
            self.assertEqual(ask("/api/v1/set", "POST", body, SET)[0], 202)
            until(lambda level=level: (pin("1:2:out2")["state"], pin("1:2:out2")["level"]) == ("told", level))
            time.sleep(0.05)  # times are in ms, and each level has come within one
        day, end = 86400000, begin + 3600000
        days = f"days={end - 2 * day},{end - day},{end}"
        answer = get(f"/api/v1/days?{days}&pin=1:2:out2")
        before, today = answer["pins"][0]["days"]
        self.assertEqual((before["unknown_ms"], before["became_low"]), (day, 0))
        self.assertGreater(min(today["low_ms"], today["became_low"], today["became_high"]), 0)
        self.assertLess(abs(today["low_ms"] + today["high_ms"] + today["unknown_ms"] - (answer["now"] - (end - day))), 2000)
        spells = get(f"/api/v1/spells?from={begin}&pin=1:2:out2")["spells"]
        self.assertEqual((spells[-1]["who"], spells[-1]["to_known"]), ("Ann (127.0.0.1)", True))
        self.assertIn('1:2:out2,"studio1:out2",L,', ask(f"/api/v1/spells?from={begin}&group=studio1&format=csv")[1])
        self.assertGreater(len(get(f"/api/v1/days?{days}&after=1:2:out2")["pins"]), 4)  # the rest
        for wrong in ("", "days=1", "days=2,1", "days=1,2x", "days=1,99999999999", f"days={2**63 - 1},{-2**63}", f"days={2**63 - 2},{2**63 - 1}", "days=" + ",".join(map(str, range(40)))):
            self.assertEqual(ask(f"/api/v1/days?{wrong}")[0], 400, wrong)

    def test_walls_are_kept_by_those_who_may(self):
        def put(name, wall, **headers):
            return ask(f"/api/v1/walls/{name}", "PUT", json.dumps(wall), {**SET, **headers})[0]

        wall = {"title": "Flur \u00fc", "version": 0, "lamps": [{"pin": "studio1.onair", "on": "", "color": "#ff8800"}]}
        self.assertEqual(put("hall", wall, Authorization="Bearer " + "x" * 20), 401)
        self.assertEqual(put("hall", wall), 200)
        self.assertEqual([put("hall", wall), put("hall", {**wall, "version": 1}), put("other", {**wall, "version": 1})], [409, 200, 409])
        for name, change in [("..%2fx", {}), ("%20", {}), ("x" * 41, {}), ("x", {"lamps": []}), ("x", {"lamps": [7]}), ("x", {"lamps": "y"}),
                             ("x", {"lamps": [{"pin": "no"}]}), ("x", {"lamps": [{"pin": "1:2:in1"}] * 201}), ("x", {"size": -1}),
                             ("x", {"lamps": [{"pin": "1:2:in1", "color": "url(x)"}]}), ("x", {"title": "t" * 121}), ("x", {"version": "1"})]:
            self.assertEqual(put(name, {**wall, **change}), 400, (name, change))
        restart("/run/h.db")
        kept = get("/api/v1/walls/hall")
        self.assertEqual((kept["title"], kept["version"], kept["lamps"]), (wall["title"], 2, wall["lamps"]))
        pathlib.Path("/run/walls.json").write_text("[", "ascii")
        restart("/run/h.db")
        self.assertEqual(put("hall", wall), 503)
        self.assertEqual(pathlib.Path("/run/walls.json").read_text("ascii"), "[")
        os.remove("/run/walls.json")
        restart("/run/h.db")
        self.assertEqual([put("hall", wall), ask("/api/v1/walls/hall", "DELETE", None, SET)[0], len(get("/api/v1/walls")["walls"])], [200, 200, 0])

    def test_requests_cut_at_every_byte(self):
        end = f"Host: {HOST}\r\nConnection: close\r\n"
        body = '{"pin":"1:2:out2","level":"L","duration":990}'
        fields = "".join(f"{name}: {value}\r\n" for name, value in SET.items())
        for request, status in [
                (f"GET / HTTP/1.1\r\n{end}\r\n", 200),
                (f"HEAD /main.js HTTP/1.1\r\n{end}\r\n", 200),
                (f"GET /api/v1/history?pin=1:2:in1&from=%31&limit=3 HTTP/1.1\r\n{end}Accept: text/csv\r\n\r\n", 200),
                (f"GET /metrics HTTP/1.1\r\nX:{'y' * 200}\r\n{end}\r\n", 200),
                (f"GET / HTTP/1.1\r\nHost: {HOST}\r\n\r\nGET /no HTTP/1.1\r\n{end}\r\n", 200),
                (f"OPTIONS * HTTP/1.1\r\n{end}\r\n", 400),
                (f"POST /api/v1/set HTTP/1.1\r\n{end}{fields}Content-Length: {len(body)}\r\n\r\n{body}", 202),
                (f"POST /api/v1/set HTTP/1.1\r\n{end}{fields}Transfer-Encoding: chunked\r\n\r\n"
                 f"{len(body):x}\r\n{body}\r\n0\r\n\r\n", 202)]:
            whole = request.encode()
            self.assertIn(f"HTTP/1.1 {status}".encode(), converse([[whole]])[0][:12])
            # Two requests on one connection: the first is complete before the end of the text.
            first = whole.index(b"\r\n\r\n") + 4 if whole.count(b"HTTP/1.1") == 2 else len(whole)
            sets = pathlib.Path("/run/sim.log").read_text("utf-8").count("DURATION:990")
            for cut, answer in enumerate(converse([[whole[:cut]] for cut in range(first)])):
                self.assertRegex(answer, rb"^HTTP/1.1 4|^$", whole[:cut])
            self.assertEqual(pathlib.Path("/run/sim.log").read_text("utf-8").count("DURATION:990"), sets)
            if status == 200:  # the same in two pieces, wherever it is split
                for cut, answer in enumerate(converse([[whole[:cut], whole[cut:]] for cut in range(1, len(whole))])):
                    self.assertIn(b"HTTP/1.1 200", answer[:12], whole[:cut + 1])
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
        for length in range(0, 8800):  # headers of every length, up to the limit and beyond it
            connection.request("GET", "/icon.svg", headers={"X": "y" * length})
            answer = connection.getresponse()
            answer.read()
            if answer.status != 200:
                break
        self.assertEqual(answer.status, 431)
        self.assertGreater(length, 8000)
        self.assertLess(length, 8192)
        connection.close()

    def test_one_host_leaves_places_for_others(self):
        for address in range(0x300000, 0x300000 + 5000, 100):
            report([place << 8 | 13 for place in range(address, address + 100)], 1)
        until(lambda: "one host has too many" in ask("/healthz")[1])
        self.assertIn("one host has too many", get("/api/v1/pins")["board"]["left_out"])
        subprocess.run("ip addr add 10.77.0.9/24 dev eth0", shell=True, check=True)
        report([0x290111], 1, "10.77.0.9")
        until(lambda: any(one["pin"] == "41:1:c17" for one in get("/api/v1/pins")["pins"]))
        subprocess.run("ip addr del 10.77.0.9/24 dev eth0", shell=True, check=True)
        restart("/run/h.db")

    def test_without_descriptors_the_bus_is_still_heard(self):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
        connection.request("GET", "/api/v1/devices")
        connection.getresponse().read()
        used = len(os.listdir(f"/proc/{board_pid()}/fd"))
        subprocess.run(["prlimit", f"--pid={board_pid()}", f"--nofile={used}:"], check=True)
        subprocess.run("ip addr add 10.99.0.1/24 dev eth0; sleep 1.5", shell=True, check=True)  # it looks for what changed
        connection.request("GET", "/api/v1/pins")
        self.assertEqual(json.loads(connection.getresponse().read())["board"]["link"], {"up": True, "problem": ""})
        connection.close()
        subprocess.run(["prlimit", f"--pid={board_pid()}", "--nofile=1024:"], check=True)
        subprocess.run("ip addr del 10.99.0.1/24 dev eth0", shell=True, check=True)

    def test_a_control_server_that_vanishes_is_not_believed(self):
        lines = "CFG GPO 2 SRCA=9:9\\nGPI 2 LHHHH\\n"
        serve = f"import socket, time; c = socket.create_server(('', 93)).accept()[0]; c.sendall(b'{lines}'); time.sleep(99)"
        server = subprocess.Popen(["ip", "netns", "exec", "studio", sys.executable, "-c", serve])
        board = subprocess.Popen([f"/proc/{board_pid()}/exe", "-i", "eth0", "--listen", "127.0.0.1:8094", "-r", "10.77.0.2"])

        def level():
            connection = http.client.HTTPConnection("127.0.0.1", 8094, timeout=10)
            with contextlib.suppress(OSError), contextlib.closing(connection):
                connection.request("GET", "/api/v1/pins")
                return next((one["level"] for one in json.loads(connection.getresponse().read())["pins"]
                             if one["pin"] == "9:9:in1"), "")

        until(lambda: level() == "L")
        subprocess.run("ip netns exec studio ip link set eth0 down", shell=True, check=True)
        until(lambda: level() is None, 30)
        subprocess.run("ip netns exec studio ip link set eth0 up", shell=True, check=True)
        for program in (board, server):
            program.kill()
            program.wait()

    def test_an_idle_board_sleeps(self):
        def wakes():
            status = pathlib.Path(f"/proc/{board_pid()}/status").read_text("ascii")
            return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])

        restart("/run/h.db")
        time.sleep(12)
        before = wakes()
        time.sleep(20)
        self.assertLessEqual(wakes() - before, 10)

    def test_no_request_stops_it(self):
        answer = converse([[f"POST /api/v1/set HTTP/1.1\r\nHost: {HOST}\r\nTransfer-Encoding: xchunked\r\n\r\n"
                            f"GET / HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode()]])[0]
        self.assertRegex(answer, rb"^HTTP/1.1 501")
        self.assertEqual(answer.count(b"HTTP/1.1"), 1)
        for request in (b"\0" * 100, b"GET /%zz HTTP/1.1\r\nHost: x\r\n\r\n", b"GET / HTTP/1.1\r\n\r\n",
                        b"GET / HTTP/1.1\r\nX: " + b"y" * 20000 + b"\r\n\r\n",
                        b"GET /../../etc/passwd HTTP/1.1\r\nHost: localhost\r\n\r\n",
                        b"GET /api/v1/history?limit=-1 HTTP/1.1\r\nHost: localhost\r\n\r\n"):
            self.assertRegex(converse([[request]])[0], rb"^HTTP/1.1 4|^$", request[:40])
        half = [socket.create_connection(("127.0.0.1", PORT), timeout=15) for _ in range(1000)]
        for client in half:
            client.sendall(b"GET / HTTP/1.1\r\n")
        begin = time.monotonic()
        self.assertEqual(ask("/")[0], 200)
        while time.monotonic() < begin + 8:  # sending a byte now and then must not help
            half[-2].sendall(b"X")
            time.sleep(0.5)
        half[-1].setblocking(False)
        self.assertRaises(BlockingIOError, half[-1].recv, 100)  # not timed out yet
        for client in half[-2:]:
            client.settimeout(5)
            self.assertEqual(client.recv(100), b"")  # cut off for taking too long
        for client in half:
            client.close()
        self.assertTrue(get("/healthz")["healthy"])

    def test_viewers_that_do_not_read_are_disconnected(self):
        viewers = [Viewer() for _ in range(200)]
        self.assertEqual(ask("/api/v1/events")[0], 503)
        reader = Viewer(source="127.0.0.66")  # another host takes a place from the one that has them all
        self.assertEqual(reader.answer.status, 200)
        self.assertEqual([one["event"] for one in viewers.pop().events()][-1], "refused")
        begin = time.monotonic()
        events = reader.events()
        for number in range(400):  # 40,000 changes: more than the board stores for viewers
            report([0x200000 + i * 256 + 13 for i in range(100)], number % 2)
            if number < 60:  # one after the other, until the buffers of those that don't read are full
                last = f'"pin":"32:99:in1","level":"{"HL"[number % 2]}"'
                next(one for one in events if last in one["data"])
            else:
                time.sleep(0.01)
        until(lambda: pin("32:99:in1")["level"] == "L")
        told = reader.answer.read()
        self.assertTrue(told.endswith(b'"this viewer reads more slowly than things happen"}\n\n'), told[-200:])
        self.assertNotIn("orvex_board_viewers_cut_total 0\n", ask("/metrics")[1])
        resident = int(next(line for line in pathlib.Path(f"/proc/{board_pid()}/status").read_text("utf-8").splitlines()
                            if line.startswith("VmRSS")).split()[1])
        if os.environ.get("MEASURED") != "no":
            self.assertLess(resident, 48 * 1024)
        # Viewers that read nothing at all are disconnected.
        until(lambda: "orvex_board_viewers_cut_total 200\n" in ask("/metrics")[1], 20)
        self.assertGreater(time.monotonic() - begin, 14)
        self.assertIn("orvex_board_viewers 0\n", ask("/metrics")[1])
        for viewer in viewers:
            viewer.answer.close()

    def test_what_was_stored_survives(self):
        control("GPI 2 LHHLH")
        until(lambda: pin("1:2:in4")["level"] == "L")
        restart("/run/h.db")
        answer = get("/api/v1/history?pin=1:2:in4")
        self.assertIn("L", [one["level"] for one in answer["events"]])
        self.assertIn("the board was not running", [gap["reason"] for gap in answer["gaps"]])
        control("GPI 2 LHHHH")

    def test_a_full_disk_affects_only_history(self):
        def history():
            return get("/api/v1/pins")["board"]["history"]

        def flip(times):
            for _ in range(times):
                control("GPI 2 LHHHL\nGPI 2 LHHHH")

        subprocess.run("mkdir /run/disk; mount -t tmpfs -o size=512k disk /run/disk", shell=True, check=True)
        restart("/run/disk/h.db")
        fill = open("/run/disk/fill", "wb", buffering=0)
        flip(1)
        until(lambda: any(one.get("pin") == "1:2:in5" for one in get("/api/v1/history")["events"]))
        with contextlib.suppress(OSError):
            while True:
                fill.write(bytes(4096))
        until(lambda: flip(20) or "full" in history()["problem"], 30)
        self.assertIn("full", get("/healthz")["history"])
        self.assertIn("orvex_board_history_ok 0", ask("/metrics")[1])
        events = Viewer().events()
        control("GPI 2 LHLHH")
        next(one for one in events if one["event"] == "pin" and "1:2:in3" in one["data"])  # viewers still see it
        fill.truncate(0)
        until(lambda: history()["problem"] == "")
        levels = [one["level"] for one in get("/api/v1/history?pin=1:2:in3")["events"]]
        self.assertEqual(levels[0], "L")  # stored once there was room
        control("GPI 2 LHHHH")
        restart("/run/h.db")
        fill.close()

    def test_a_lost_bus_is_reported(self):
        report([0x29010D], 1)
        until(lambda: pin("41:1:in1")["level"] == "L")
        subprocess.run("ip netns exec studio ip link set eth0 down", shell=True, check=True)
        until(lambda: ask("/healthz")[0] == 503)
        report([0x29010D], 1)  # by this host, and nobody could notice when it becomes wrong
        time.sleep(0.3)
        lost = pin("41:1:in1")  # it was heard, and is not known now
        self.assertEqual((lost["level"], lost["state"], lost["by"]), (None, "unknown", "10.77.0.1"))
        self.assertEqual(pin("1:2:in1")["state"], "told")  # by the control server
        subprocess.run("ip netns exec studio ip link set eth0 up", shell=True, check=True)
        until(lambda: ask("/healthz")[0] == 200)
        gaps = get("/api/v1/history")["gaps"]
        self.assertIn("the bus could not be heard", [gap["reason"] for gap in gaps if gap["until"]])


def ask_fails():
    try:
        return ask("/")[0] != 200
    except OSError:
        return True


if __name__ == "__main__":
    until(lambda: not ask_fails())
    unittest.main(argv=sys.argv[1:])
