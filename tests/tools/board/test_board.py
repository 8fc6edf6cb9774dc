"""Asks a board, and tries to do it harm. Run by world.sh.

Usage: test_board.py ORVEXCTL
"""

import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import unittest

CTL = sys.argv[1]
PORT = 8093
TOKEN = "0123456789abcdef0123"
HOST = f"127.0.0.1:{PORT}"
SET = {"Origin": f"http://{HOST}", "X-Orvex-Board": "set", "Content-Type": "application/json",
       "Authorization": f"Bearer {TOKEN}"}


def ask(path, method="GET", body=None, headers=None):
    connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
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
    raise AssertionError("waited in vain")


def control(line):
    pathlib.Path("/run/in").write_text(line + "\n", "ascii")


def board_pid():
    return int(pathlib.Path("/run/board.pid").read_text("ascii"))


def send(data, close=True):
    with socket.create_connection(("127.0.0.1", PORT), timeout=3) as client:
        client.sendall(data)
        if close:
            client.shutdown(socket.SHUT_WR)
        try:
            return client.recv(65536)
        except OSError:
            return b""


class Viewer:
    """Follows the stream, line by line."""

    def __init__(self, last=None):
        self.connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=10)
        self.connection.request("GET", "/api/v1/events", headers={"Last-Event-ID": last} if last else {})
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

    def test_what_changes_is_told_kept_and_counted(self):
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
        # One who was away gets what it missed, one who was away for too long is told.
        missed = next(one for one in Viewer(event["id"]).events() if one["event"] == "pin")
        self.assertNotEqual(missed["event"], "reload")
        self.assertEqual(next(Viewer("1-1").events())["event"], "reload")
        for kind in ("text/plain", "application/openmetrics-text"):
            status, text = ask("/metrics", headers={"Accept": kind})
            self.assertEqual(status, 200)
            self.assertIn('orvex_board_pin_low{pin="1:2:in1",name="studio1.door"} 1', text)
        self.assertTrue(text.endswith("# EOF\n"))

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
        self.assertEqual(ask("/api/v1/set", "POST", "x" * 5000, SET)[0], 413)
        self.assertNotIn("GPO 2 xxxxL", pathlib.Path("/run/sim.log").read_text("utf-8"))
        self.assertEqual(ask("/api/v1/set", "POST", body, SET)[0], 202)
        until(lambda: "< GPO 2 xxxxL DURATION:310" in pathlib.Path("/run/sim.log").read_text("utf-8"))
        asked = [one["host"] for one in get("/api/v1/history?pin=1:2:out5")["events"] if one["kind"] == "set"]
        self.assertEqual(asked, ["Ann (127.0.0.1)"])

    def test_nothing_sent_stops_it(self):
        whole = f"GET /api/v1/history?pin=1:2:in1&from=%31 HTTP/1.1\r\nHost: {HOST}\r\nConnection: close\r\n\r\n"
        for length in range(len(whole) + 1):
            send(whole[:length].encode())
        for request in (b"\0" * 100, b"GET /%zz HTTP/1.1\r\nHost: x\r\n\r\n", b"GET / HTTP/1.1\r\n\r\n",
                        b"GET / HTTP/1.1\r\nX: " + b"y" * 20000 + b"\r\n\r\n",
                        b"GET /../../etc/passwd HTTP/1.1\r\nHost: localhost\r\n\r\n",
                        b"GET /api/v1/history?limit=-1 HTTP/1.1\r\nHost: localhost\r\n\r\n"):
            self.assertRegex(send(request), rb"^HTTP/1.1 4|^$", request[:40])
        half = [socket.create_connection(("127.0.0.1", PORT), timeout=15) for _ in range(1000)]
        for client in half:
            client.sendall(b"GET / HTTP/1.1\r\n")
        self.assertEqual(ask("/")[0], 200)
        half[-1].settimeout(15)
        self.assertEqual(half[-1].recv(100), b"")  # cut off for taking too long
        for client in half:
            client.close()
        self.assertTrue(get("/healthz")["healthy"])

    def test_a_viewer_that_does_not_read_costs_little(self):
        slow = socket.create_connection(("127.0.0.1", PORT))
        slow.sendall(f"GET /api/v1/events HTTP/1.1\r\nHost: {HOST}\r\n\r\n".encode())
        viewers = [Viewer() for _ in range(199)]
        self.assertEqual(ask("/api/v1/events")[0], 503)
        for _ in range(300):
            control("GPI 2 LHLHL\nGPI 2 HLHLH")
        control("GPI 2 LHHHH")
        until(lambda: pin("1:2:in1")["level"] == "L" and pin("1:2:in5")["level"] == "H")
        resident = int(next(line for line in pathlib.Path(f"/proc/{board_pid()}/status").read_text("utf-8").splitlines()
                            if line.startswith("VmRSS")).split()[1])
        if os.environ.get("MEASURED") != "no":
            self.assertLess(resident, 48 * 1024)
        for viewer in viewers:
            viewer.answer.close()
        slow.close()
        until(lambda: "orvex_board_viewers 0\n" in ask("/metrics")[1])

    def test_what_was_stored_survives(self):
        control("GPI 2 LHHLH")
        until(lambda: pin("1:2:in4")["level"] == "L")
        os.kill(board_pid(), signal.SIGKILL)
        time.sleep(0.3)
        subprocess.run(["bash", "/run/board.sh"], check=True)
        until(lambda: not ask_fails())
        answer = get("/api/v1/history?pin=1:2:in4")
        self.assertIn("L", [one["level"] for one in answer["events"]])
        self.assertIn("the board was not running", [gap["reason"] for gap in answer["gaps"]])
        control("GPI 2 LHHHH")

    def test_a_damaged_history_is_put_aside(self):
        os.kill(board_pid(), signal.SIGTERM)
        time.sleep(0.5)
        with open("/run/h.db", "r+b") as file:
            file.seek(4096)
            file.write(b"damage" * 4000)
        subprocess.run(["bash", "/run/board.sh"], check=True)
        until(lambda: not ask_fails())
        until(lambda: "damaged" in get("/api/v1/pins")["board"]["history"]["notice"])
        control("GPI 2 LHHHL")
        until(lambda: any(one.get("pin") == "1:2:in5" for one in get("/api/v1/history")["events"]))

    def test_the_bus_that_is_gone_is_told(self):
        subprocess.run("ip link set eth0 down", shell=True, check=True)
        until(lambda: ask("/healthz")[0] == 503)
        self.assertEqual(pin("1:2:in1")["state"] if get("/api/v1/channels")["problem"] else "unknown", "unknown")
        subprocess.run("ip link set eth0 up; ip route replace 224.0.0.0/4 dev eth0", shell=True, check=True)
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
    unittest.main(argv=sys.argv[:1])
