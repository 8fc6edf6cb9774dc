"""Links two sites through a real broker, and makes each part fail. Runs in the world of world.sh.

Usage: world.sh BUILD test_mqtt.py BUILD [TEST]...

In the environment: BROKER_RESTARTS (10), FAULTS (4) of two that stand by for each other, HOSTILE
(20000), the number of malformed messages, and CUT (12), the seconds for which a cable is cut.
"""

import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "tests/support"))

from schemas import Schemas  # noqa: E402

BUILD = sys.argv.pop(1)
RUN = pathlib.Path("/run")
SCHEMAS = Schemas(ROOT / "docs/schemas/orvex-mqtt.json")
PLAIN = "listener 1883\nallow_anonymous true\n"
CUT = int(os.environ.get("CUT", "12"))
# Sends to every client what its arguments contain in hex, then zeros if the last one says so.
HOSTILE_BROKER = """
import socket, sys, time
server = socket.create_server(("10.78.0.1", 1883))
while True:
    client = server.accept()[0]
    print("accepted", flush=True)
    try:
        client.settimeout(2)
        client.recv(1000)
        client.sendall(bytes.fromhex(sys.argv[1]))
        while "zeros" in sys.argv:
            client.sendall(bytes(65536))
    except OSError:
        pass
    time.sleep(0.02)
    client.close()
"""
LINK = "link studio:1:2:in1 -> tower:7:4:out1 on-loss H 2"


def start(host, *command, log=None):
    with open(RUN / (log or "output"), "wb") as output:
        return subprocess.Popen(["ip", "netns", "exec", host, *command], stdout=output,
                                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)


def run(host, *command, data=None):
    return subprocess.run(["ip", "netns", "exec", host, *command], check=False, input=data,
                          capture_output=True, timeout=60).stdout.decode()


def kill(process, number=signal.SIGKILL):
    if process.poll() is None:
        process.send_signal(number)
    return process.wait(20)


def contact(level, pin=1):
    contacts("H" * (pin - 1) + level)


def contacts(levels, site="studio"):
    with open(RUN / f"{site}.in", "w", encoding="ascii") as control:
        control.write(f"GPI 1 {levels:H<5}\n")


def level_of(pin="7:4:out1", site="tower"):
    shown = run(site, f"{BUILD}/tools/ctl/orvexctl", "get", "-i", "eth0", pin).split()
    return shown[1] if len(shown) > 1 else ""


def retained(topic):
    return run("hub", "mosquitto_sub", "-t", topic, "-C", "1", "-W", "1").strip()


def ask(topic, payload, *options):
    text = run("hub", "mosquitto_rr", "-V", "5", "-t", f"orvex/{topic}", "-e", "reply/test", "-m",
               payload, "-W", "6", *options)
    answer = json.loads(text) if text else {}
    if answer:
        SCHEMAS.check("#/$defs/answer", answer)
    return answer


class MqttTest(unittest.TestCase):
    def setUp(self):
        self.processes = {}
        contact("H")
        run("tower", f"{BUILD}/tools/ctl/orvexctl", "set", "-i", "eth0",
            *(f"7:4:out{pin}=H" for pin in range(1, 6)))
        self.addCleanup(self.end)

    def end(self):
        for process in self.processes.values():
            kill(process)

    def broker(self, config=PLAIN):
        (RUN / "broker.conf").write_text(config, "ascii")
        self.processes["broker"] = start("hub", "mosquitto", "-c", "/run/broker.conf", log="broker.log")
        self.until(lambda: run("hub", "ss", "-Hltn", "sport = 1883 or sport = 8883"), 5, "no broker")

    def bridge(self, site, *lines, replace=(), key=None, host=None):
        config = (RUN / f"{site}.conf").read_text("ascii")
        for old, new in replace:
            self.assertIn(old, config)
            config = config.replace(old, new)
        path = RUN / f"{key or site}.mqtt.conf"
        path.write_text(config + "".join(line + "\n" for line in lines), "ascii")
        self.processes[key or site] = start(host or site, f"{BUILD}/tools/mqtt/orvex-mqtt", str(path),
                                            "--metrics", f"/run/{key or site}.prom", log=f"{key or site}.mqtt")

    def until(self, condition, seconds, what):
        end = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), end, f"{what}; the bridges said: " + " | ".join(
                path.read_text("utf-8", "replace")[-600:] for path in RUN.glob("*.mqtt")))
            time.sleep(0.05)

    def says(self, text, seconds=8, key="studio"):
        self.until(lambda: text in (RUN / f"{key}.mqtt").read_text("utf-8", "replace"), seconds, text)

    def lamp(self, level, seconds=3.0, pin="7:4:out1", site="tower"):
        self.until(lambda: level_of(pin, site) == level, seconds, f"{pin} is not {level}")

    @staticmethod
    def lines():
        return len((RUN / "tower.mqtt").read_text("ascii").splitlines())

    def both(self, *lines):
        self.broker()
        self.bridge("studio")
        self.bridge("tower", *lines)
        for site in "studio", "tower":
            self.says("is online", key=site)

    def lit(self, *lines):
        self.both(*lines)
        contact("L")
        self.lamp("L", 5)

    def test_contact_lights_lamp(self):
        self.both("link studio:1:2:in2 -> tower:7:4:out2 invert on-loss L",
                  "link studio:1:2:in3 -> tower:7:4:out3 pulse 500")
        heard = self.processes["heard"] = start("hub", "mosquitto_sub", "-v", "-t", "orvex/#", log="heard")
        self.lamp("L", pin="7:4:out2")
        for level in "LHLH":
            contact(level)
            self.lamp(level, 1)
        contact("L", pin=2)
        self.lamp("H", 1, "7:4:out2")
        contact("L", pin=3)
        self.lamp("L", 0.45, "7:4:out3")
        self.lamp("H", 2, "7:4:out3")
        state = json.loads(retained("orvex/studio/pin/1/2/in3"))
        self.assertEqual((state["level"], state["state"], state["host"]), ("L", "told", "10.77.2.1"))
        self.assertEqual(retained("orvex/studio/pin/1/2/in3/level"), "L")
        kill(heard, signal.SIGTERM)
        kinds = {"pin": "pin-state", "event": "change", "device": "device"}
        published = (RUN / "heard").read_text("utf-8")
        self.assertEqual([kind for kind in kinds if f"studio/{kind}/" not in published], [])
        for line in published.splitlines():
            topic, _, payload = line.partition(" ")
            kind = topic.split("/")[2]
            if kind in kinds and payload.startswith("{"):
                SCHEMAS.check(f"#/$defs/{kinds[kind]}", json.loads(payload))

    def test_expressions(self):
        pins = "studio:1:2:in1, studio:1:2:in2, tower:7:4:in3"
        self.both(f"link any({pins}) -> tower:7:4:out2", f"link all( {pins} ) -> tower:7:4:out3",
                  f"link 2 of ({pins.replace('tower', 'not tower')}) -> tower:7:4:out4 on-loss L",
                  "link any(studio:1:2:in1 lost L, tower:7:4:in3) -> tower:7:4:out5 on-loss H 2")
        for studio, tower, lamps in [("H", "H", "HHHH"), ("LHH", "H", "LHLL"), ("LL", "H", "LHLL"),
                                     ("LL", "HHL", "LLLL"), ("HLH", "HHL", "LHHL")]:
            contacts(studio)
            contacts(tower, "tower")
            for pin, level in enumerate(lamps, 2):
                self.lamp(level, 2, f"7:4:out{pin}")
        # any is decided by the contact that is left, 2 of 3 is not, and a lost one may count as low.
        contacts("H", "tower")
        kill(self.processes["studio"])
        for pin, level in [(2, "H"), (3, "H"), (4, "L"), (5, "L")]:
            self.lamp(level, 6, f"7:4:out{pin}")
        contacts("HHL", "tower")
        self.lamp("L", 2, "7:4:out2")
        self.assertIn("is lost: studio:1:2:in1, studio:1:2:in2\n", (RUN / "tower.mqtt").read_text("ascii"))
        told = run("tower", f"{BUILD}/tools/mqtt/orvex-mqtt", "--explain", "/run/tower.mqtt.conf", "7:4:out5")
        self.assertRegex(told, r"out5: L, \w+ by .*, for \d+ s\n.* line 10: any.*\n.*studio:1:2:in1: not known: its site is "
                         r"offline.*\n.*tower:7:4:in3: L, told by 10.77.3.1, for \d+ s\nso the output is to be L\n$")
        self.assertEqual(retained("orvex/tower/status"), "online")

    def test_without_a_broker(self):
        self.bridge("studio", "link any(studio:1:2:in1, studio:1:2:in2) -> studio:1:2:out2", "link studio:1:2:in3 -> studio:1:2:out3 "
                    "pulse 700", "link not studio:1:2:out2 -> studio:1:2:out4 delay 300", replace=[("10.78.0.1", "none"), (LINK, "")])
        self.says("is online")
        for levels, lamps in ("LHH", "LHH"), ("LLH", "LHH"), ("HHH", "HHL"), ("HHL", "HLL"), ("HHL", "HHL"):
            contacts(levels)
            for pin, level in enumerate(lamps, 2):
                self.lamp(level, 2, f"1:2:out{pin}", "studio")
        told = run("studio", f"{BUILD}/tools/mqtt/orvex-mqtt", "--explain", "/run/studio.mqtt.conf", "1:2:out4")
        self.assertRegex(told, r"out4: L, told by .*\n.* not studio:1:2:out2 .*\n  studio:1:2:out2: H, .*\nso the output is to be L, once")
        run("studio", "ip", "link", "set", "bus", "down")
        self.says("is down")
        run("studio", "ip", "link", "set", "bus", "up")
        contact("L")
        self.lamp("L", 8, "1:2:out2", "studio")
        self.assertEqual(kill(self.processes["studio"], signal.SIGTERM), 0)
        self.lamp("H", 2, "1:2:out2", "studio")

    def test_chatter(self):
        self.both(*(f"link studio:1:2:in1 -> tower:7:4:{rest}" for rest in [
            "out2 delay 600", "out3 hold 1500", "out4 min-interval 900"]))
        log = RUN / "tower.log"
        begin = log.stat().st_size
        for _ in range(3):
            contact("L")
            time.sleep(0.15)
            contact("H")
            time.sleep(0.15)
        time.sleep(1.6)
        states = re.findall(r"GPO 1 ([LH]{5})", log.read_text("ascii")[begin:])
        lit = ["H" + "".join(state[pin] for state in states) for pin in range(4)]
        changes = [sum(a != b for a, b in zip(levels, levels[1:])) for levels in lit]
        self.assertEqual((changes[:3], changes[3] in (2, 3)), ([6, 0, 2], True), lit)
        contact("L")
        self.lamp("H", 0.1, "7:4:out2")
        self.lamp("L", 2, "7:4:out2")

    def test_reload(self):
        (RUN / "names").write_text("1:2:in1 red\n1:2:in2 blue\n", "ascii")
        self.broker()
        self.bridge("studio", "discovery homeassistant", replace=[("/dev/null", "/run/names")])
        self.bridge("tower", "link studio:1:2:in1 -> tower:7:4:out2")
        self.says("is online")
        contacts("LL")
        self.lamp("L", 5)
        self.lamp("L", 2, "7:4:out2")
        path, tower = RUN / "tower.mqtt.conf", self.processes["tower"]
        good, written = path.read_text("ascii"), (RUN / "tower.log").stat().st_size
        for text, said in [(good + "nonsense 1\n", "unknown setting: nonsense; the old configuration stays"),
                           (good.replace("site tower", "site other").replace("tower:", "other:"), "without a restart"),
                           (good.replace("in1 -> tower:7:4:out2", "in2 -> tower:7:4:out3"), "was read again")]:
            path.write_text(text, "ascii")
            tower.send_signal(signal.SIGHUP)
            self.says(said, key="tower")
        self.lamp("L", 2, "7:4:out3")
        self.lamp("H", 2, "7:4:out2")
        self.assertNotIn("GPO 1 H", (RUN / "tower.log").read_text("ascii")[written:])  # the other link's
        (RUN / "names").write_text("1:2:in1 green\n", "ascii")
        self.processes["studio"].send_signal(signal.SIGHUP)
        self.says("was read again")
        self.until(lambda: retained("orvex/studio/pin/green/level") == "L", 3, "no new name")
        topic = "homeassistant/device/orvex_studio/1_2/config"
        self.until(lambda: set(json.loads(retained(topic))["components"]) == {"in1"}, 3, "a ghost")
        self.assertEqual([retained(f"orvex/studio/pin/{name}") for name in ("red", "blue")], ["", ""])
        time.sleep(1)
        self.assertEqual([retained(f"orvex/studio/pin/{name}/level") for name in ("green", "1/2/in1")], ["L", "L"])
        self.assertIn("green", retained(topic))

    def test_sets(self):
        (RUN / "names").write_text("1:2:out2 red\n", "ascii")
        self.broker()
        self.bridge("studio", "discovery homeassistant", replace=[("/dev/null", "/run/names")])
        self.says("is online")
        for pin, payload, result in [
                ("1/2/out2", "L", "done"), ("red", '{"level":"H"}', "done"), ("red", "L,300", "done"),
                ("9/9/out1", "L", "sent"), ("1/2/in1", "L", "refused"), ("1/2/out2", "M", "refused"),
                ("1/2/out2", '{"level":1}', "refused"), ("1/2", "L", "refused"),
                ("1/2/out2", "L,-1", "refused"), ("1/2/out2", "L,7751", "refused"), ("red", " L\r\n", "done"),
                ("red", ' {"level":"H"}\n', "done")]:
            self.assertEqual(ask(f"studio/set/{pin}", payload).get("result"), result, (pin, payload))
        self.lamp("H", 2, "1:2:out2", "studio")
        metrics = RUN / "studio.prom"
        self.until(lambda: 'orvex_mqtt_sets_total{result="done"} 5\n' in metrics.read_text("ascii"), 12, "no metrics")
        for line in ["orvex_mqtt_connected 1", "orvex_mqtt_online 1", 'orvex_mqtt_sets_total{result="refused"} 6',
                     'orvex_mqtt_links{state="lost"} 0', "orvex_mqtt_reconnections_total 0"]:
            self.assertIn(line + "\n", metrics.read_text("ascii"))
        self.assertEqual(subprocess.run(["promtool", "check", "metrics"], input=metrics.read_bytes(), check=False).returncode, 0)
        # Who may set a pin may not speak for the bridge.
        for pin, topic in enumerate(["studio/status", "orvex/studio/bridge", "orvex", "homeassistant/x", "$SYS/x"]):
            run("hub", "mosquitto_pub", "-V", "5", "-t", f"orvex/studio/set/1/2/out{pin + 1}", "-m", "H", "-D",
                "publish", "response-topic", topic)
        self.says("1:2:out5: no answer may go to its response topic")
        self.assertEqual((RUN / "studio.mqtt").read_text("utf-8").count("its response topic"), 4)
        # A retained set is refused, and again when the bridge connects.
        run("hub", "mosquitto_pub", "-t", "orvex/studio/set/red", "-r", "-m", "L")
        self.says("it is retained")
        self.assertEqual(level_of("1:2:out2", "studio"), "H")
        kill(self.processes["studio"])
        self.bridge("studio", replace=[("/dev/null", "/run/names")])
        self.says("it is retained")
        self.says("is online")
        self.assertEqual(level_of("1:2:out2", "studio"), "H")

    def test_discovery(self):
        (RUN / "names").write_text('1:2:in1 red "Red light"\n', "ascii")
        self.broker()
        self.bridge("studio", "pins 1:2:out2 9:9:in1", "discovery homeassistant", "board http://board/", replace=[("/dev/null", "/run/names")])
        self.says("is online")
        # What a hub does, which knows only the discovery messages.
        topic = "homeassistant/device/orvex_studio/1_2/config"
        device = json.loads(retained(topic))
        sensor, switch = (device["components"][pin] for pin in ("in1", "out2"))
        self.assertEqual((sensor["platform"], switch["platform"]), ("binary_sensor", "switch"))
        self.assertEqual(device["device"]["configuration_url"], "http://board/")
        self.assertRegex(device["origin"]["sw_version"], r"^\d+\.\d+\.\d+$")
        self.assertEqual(sensor["name"], "Red light")
        self.assertEqual(retained(sensor["state_topic"]), sensor["payload_off"])
        run("hub", "mosquitto_pub", "-t", switch["command_topic"], "-m", switch["payload_on"])
        self.until(lambda: retained(switch["state_topic"]) == switch["state_on"], 2, "not on")
        status, pin = (entry["topic"] for entry in switch["availability"])
        self.assertEqual(retained(status), "online")
        self.assertIn('"level":"L"', retained(pin))
        self.assertNotEqual(sensor["unique_id"], switch["unique_id"])
        # What is removed while no bridge is there leaves no ghost: the hub is told what to remove.
        kill(self.processes["studio"])
        self.processes["sub"] = start("hub", "mosquitto_sub", "-R", "-t", "homeassistant/#", "-F", "%t %p", log="hub")
        self.bridge("studio", "discovery homeassistant", replace=[("/dev/null", "/run/names")])
        self.until(lambda: retained("homeassistant/device/orvex_studio/9_9/config") == "", 8, "a ghost")
        self.until(lambda: (RUN / "hub").read_text("utf-8").count("1_2/config") == 2, 3, "not two messages")
        told = [json.loads(line.split(" ", 1)[1])["components"] for line in (RUN / "hub").read_text("utf-8").splitlines()
                if "1_2/config" in line]
        self.assertEqual((told[0]["out2"], told[0]["in1"], set(told[1])), ({"platform": "switch"}, sensor, {"in1"}))

    def test_no_set_comes_late(self):
        self.both()
        tower = self.processes["tower"]
        tower.send_signal(signal.SIGSTOP)
        for options in [], ["-D", "publish", "message-expiry-interval", "60"]:
            run("hub", "mosquitto_pub", "-V", "5", "-t", f"orvex/tower/set/7/4/out{3 + len(options) // 4}",
                "-q", "1", "-m", "L", *options)
        time.sleep(4)
        tower.send_signal(signal.SIGCONT)
        self.says("may have come late", key="tower")
        self.assertEqual(level_of("7:4:out3"), "H")
        self.lamp("L", pin="7:4:out4")  # this set may be a minute old

    def test_broker_dies_in_traffic(self):
        self.both()
        rounds = int(os.environ.get("BROKER_RESTARTS", "10"))
        for _ in range(rounds):
            feed = subprocess.Popen(["sh", "-c", "while echo L && sleep .02 && echo H; do :; done"],
                                    stdout=subprocess.PIPE)
            sets = subprocess.Popen(["ip", "netns", "exec", "hub", "mosquitto_pub", "-l", "-t",
                                     "orvex/tower/set/7/4/out3"], stdin=feed.stdout)
            time.sleep(random.uniform(0.1, 0.5))
            kill(self.processes["broker"])
            kill(sets)
            kill(feed)
            feed.stdout.close()
            level = random.choice("LH")
            contact(level)
            time.sleep(random.uniform(0.1, 1))
            before = level_of("7:4:out3")
            self.broker()
            self.until(lambda: level_of() == retained("orvex/studio/pin/1/2/in1/level") == level, 1, level)
            self.assertEqual(level_of("7:4:out3"), before)
        self.assertGreater((RUN / "tower.log").read_text("utf-8").count("GPO 1"), 4 * rounds)

    def test_losses_switch_the_lamp_off(self):
        self.lit()
        for what, lose, restore in [
                ("source bridge", lambda: kill(self.processes["studio"]), lambda: self.bridge("studio")),
                ("source cable", lambda: run("hub", "ip", "link", "set", "studio", "down"),
                 lambda: run("hub", "ip", "link", "set", "studio", "up")),
                ("own cable", lambda: run("hub", "ip", "link", "set", "tower", "down"),
                 lambda: run("hub", "ip", "link", "set", "tower", "up")),
                ("source bus", lambda: run("studio", "ip", "link", "set", "bus", "down"),
                 lambda: run("studio", "ip", "link", "set", "bus", "up")),
                ("broker", lambda: kill(self.processes["broker"]), self.broker)]:
            with self.subTest(what):
                end = time.monotonic() + (CUT if "cable" in what else 0)
                lose()
                self.lamp("H", 6)
                run("hub", "mosquitto_pub", "-t", "orvex/tower/set/7/4/out4", "-q", "1", "-m", "L")
                time.sleep(max(end - time.monotonic(), 0.5))
                before = level_of("7:4:out4")
                restore()
                self.lamp("L", 15)
                self.assertEqual(level_of("7:4:out4"), before)
                run("hub", "mosquitto_pub", "-t", "orvex/tower/set/7/4/out4", "-m", "H")

    def test_state_cleared_while_away(self):
        self.lit()
        client = int(run("tower", "pgrep", "-P", str(self.processes["tower"].pid)))
        os.kill(client, signal.SIGSTOP)  # takes with it what the broker sends
        run("hub", "mosquitto_pub", "-t", "orvex/studio/pin/1/2/in1", "-q", "1", "-r", "-n")
        os.kill(client, signal.SIGKILL)
        self.says("crashed the MQTT client", key="tower")
        self.lamp("H", 8)
        contact("H")
        contact("L")
        self.lamp("L")

    def test_far_bridge_is_killed(self):
        self.lit("link studio:1:2:in3 -> tower:7:4:out3 pulse 7000")
        kill(self.processes["tower"])
        time.sleep(3)
        self.assertEqual(level_of(), "L")  # no bridge is running that could switch it off
        contact("L", pin=3)  # this also opens contact 1
        self.bridge("tower", "link studio:1:2:in3 -> tower:7:4:out3 pulse 7000")
        self.lamp("H", 5)
        self.says("is online", key="tower")
        self.assertEqual(level_of("7:4:out3"), "H")  # missed pulses are not repeated

    def test_late_changes_are_not_followed(self):
        self.lit("link studio:1:2:in3 -> tower:7:4:out3 pulse 500")
        studio, log = self.processes["studio"], RUN / "tower.log"
        studio.send_signal(signal.SIGSTOP)  # as if a cable or a second broker kept its messages
        time.sleep(0.2)
        begin = log.stat().st_size
        contacts("HHL")
        time.sleep(4)
        studio.send_signal(signal.SIGCONT)
        time.sleep(2)
        self.assertEqual(re.findall(r"GPO 1 ([LH]{5})", log.read_text("ascii")[begin:]), ["HHHHH"])
        for level in "HL":
            contact(level, pin=3)
            time.sleep(0.3)
        self.until(lambda: "HHLHH" in log.read_text("ascii")[begin:], 3, "no pulse")

    def test_end_and_keep(self):
        self.lit("link studio:1:2:in1 -> tower:7:4:out2 on-loss keep")
        self.lamp("L", pin="7:4:out2")
        self.assertEqual(kill(self.processes["tower"], signal.SIGTERM), 0)
        self.lamp("H", 1)
        self.assertEqual(level_of("7:4:out2"), "L")
        self.assertEqual(retained("orvex/tower/status"), "offline")

    def test_output_is_held_without_a_broker(self):
        self.lit("link studio:1:2:in1 -> tower:7:4:out2 invert on-loss L 2")
        kill(self.processes["broker"])
        self.lamp("L", 6, "7:4:out2")
        with open(RUN / "tower.in", "w", encoding="ascii") as control:  # as a device does that starts again
            control.write("GPO 1 HHHHH\n")
        self.lamp("H", 1, "7:4:out2")
        self.lamp("L", 8, "7:4:out2")

    def test_device_silent(self):
        self.lit()
        daemons = [int(pid) for pid in run("studio", "pgrep", "-f", "app/orvex -debug").split()
                   if os.readlink(f"/proc/{pid}/ns/net") == os.readlink(
                       f"/proc/{self.processes['studio'].pid}/ns/net")]
        self.assertEqual(len(daemons), 1)
        os.kill(daemons[0], signal.SIGSTOP)
        self.lamp("H", 16)  # three rounds of two seconds, and the link's on-loss time
        self.assertEqual(json.loads(retained("orvex/studio/pin/1/2/in1"))["level"], None)
        os.kill(daemons[0], signal.SIGCONT)
        self.lamp("L", 10)

    def test_bus_too_fast(self):
        self.both()
        self.processes["studio"].send_signal(signal.SIGSTOP)
        (RUN / "flood").write_text('{"pin":"3:1:in1","level":"L","kind":"report"}\n' * 20000, "ascii")
        run("studio", f"{BUILD}/tools/ctl/orvexctl", "send", "--fast", "-i", "eth0", "/run/flood")
        contact("L")  # its report is among the lost datagrams
        time.sleep(0.5)
        self.processes["studio"].send_signal(signal.SIGCONT)
        self.says("datagrams were lost, all pins are read")
        self.lamp("L")

    def test_broker_too_slow(self):
        self.both()
        broker, bridge = self.processes["broker"], self.processes["studio"]
        bridge.send_signal(signal.SIGSTOP)
        answer = start("hub", "mosquitto_rr", "-V", "5", "-t", "orvex/studio/set/1/2/out2", "-e",
                       "reply/slow", "-m", "L", "-W", "20", log="answer")
        time.sleep(0.3)
        broker.send_signal(signal.SIGSTOP)
        bridge.send_signal(signal.SIGCONT)
        (RUN / "flood").write_text("".join(
            f'{{"pin":"3:{i % 200}:in1","level":"{"LH"[i // 200 % 2]}","kind":"report"}}\n'
            for i in range(20200)), "ascii")

        def dropped():
            run("studio", f"{BUILD}/tools/ctl/orvexctl", "send", "--fast", "-i", "eth0", "/run/flood")
            return "events were dropped" in (RUN / "studio.mqtt").read_text("ascii")
        self.until(dropped, 6, "nothing was dropped")
        contact("L")
        broker.send_signal(signal.SIGCONT)
        self.until(lambda: retained("orvex/studio/pin/3/199/in1/level") == "L", 5, "an old state")
        self.lamp("L", 5)
        self.assertEqual(answer.wait(10), 0)
        self.assertIn('"result":"done"', (RUN / "answer").read_text("utf-8"))

    def test_loop_over_files(self):
        self.broker()
        link = (LINK, "link studio:1:2:out1 -> tower:7:4:out1")
        self.bridge("tower", replace=[link])
        self.bridge("studio", replace=[(LINK, "link tower:7:4:out1 -> studio:1:2:out1 invert")])
        self.says("is online", key="tower")
        # The bridge that sees it first breaks it.
        self.until(lambda: any("a loop over several files is broken" in path.read_text("utf-8")
                               for path in RUN.glob("*.mqtt")), 8, "a broken loop")

        def writes():
            return sum(len(re.findall("GPO 1", (RUN / f"{site}.log").read_text("utf-8")))
                       for site in ("studio", "tower"))
        before = writes()
        time.sleep(3)
        self.assertLess(writes() - before, 10)

    def test_two_bridges(self):
        self.both()
        self.bridge("studio", key="second")
        self.says("is online", key="second")
        self.assertEqual(self.processes["studio"].wait(5), 3)

    def spare(self, host, number):
        """A host on the tower's bus that has just a bridge."""
        if (RUN / "netns" / host).exists():
            return
        for command in [
                f"netns add {host}", f"-n {host} link add eth0 type veth peer name {host} netns tower",
                f"-n {host} addr add 10.77.3.{number}/24 dev eth0", f"-n {host} link set eth0 up",
                f"-n {host} route add 224.0.0.0/4 dev eth0",
                f"-n {host} link add wan type veth peer name {host} netns hub",
                f"-n {host} addr add 10.78.0.{number}/24 dev wan", f"-n {host} link set wan up",
                f"-n hub link set {host} master br0 up", "-n tower link add br1 type bridge mcast_snooping 0",
                "-n tower link set bus master br1", "-n tower link set br1 up",
                f"-n tower link set {host} master br1 up"]:
            subprocess.run(["ip", *command.split()], check=False, capture_output=True)

    def writers(self, since):
        """The hosts that have written the lamp since then, with the times."""
        lines = (RUN / "writes").read_text("ascii").splitlines()[since:]
        found = [json.loads(line) for line in lines if line.endswith("}")]
        return [(line["time"], line["host"]) for line in found if line["id"] == "WRNI"]

    def toggle(self, seconds):
        """Opens and closes the contact; returns for how long nobody, and more than one, drove the lamp."""
        times, since = [], len((RUN / "writes").read_text("ascii").splitlines())
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            contact("LH"[len(times) % 2])
            times.append(time.time())
            time.sleep(0.2)
        contact("L")
        longest, spans = {0: 0.0, 2: 0.0}, {0: times[0], 2: times[0]}
        writes = self.writers(since)
        for begin, after in zip(times, times[1:]):
            hosts = len({host for moment, host in writes if begin <= moment < after})
            for kind, holds in (0, hosts == 0), (2, hosts > 1):
                spans[kind] = spans[kind] if holds else after
                longest[kind] = max(longest[kind], after - spans[kind])
        return longest[0], longest[2]

    def test_standby(self):
        self.broker()
        self.bridge("studio")
        hosts = ["first", "second"]
        for number, host in enumerate(hosts, 4):
            self.spare(host, number)
            self.bridge("tower", "standby yes", key=host, host=host)
        self.processes["watch"] = start("tower", f"{BUILD}/tools/ctl/orvexctl", "watch", "--json", "-i", "eth0",
                                        "7:4:out1", log="writes")
        contact("L")
        self.lamp("L", 8)
        random.seed(os.environ.get("SEED", "5"))
        rounds, worst = int(os.environ.get("FAULTS", "4")), [0.0, 0.0]
        for number in range(rounds):
            self.lamp("L", 8)
            self.until(lambda: sorted((RUN / f"{host}.mqtt").read_text("utf-8").rsplit("site tower ", 1)[-1][:6]
                                      for host in hosts) == ["is onl", "stands"], 15, "not exactly one is active")
            active = next(host for host in hosts if "is onl" in (RUN / f"{host}.mqtt").read_text("utf-8").rsplit("site tower ")[-1])
            waits = hosts[hosts[0] == active]
            what = ["kill", "stop", "hub", "tower", "kill waiting", "term"][number if rounds < 6 else random.randrange(6)]
            host, log = waits if "waiting" in what else active, (RUN / "tower.log").stat().st_size
            process = self.processes[host]
            if what in ("hub", "tower"):  # the cable to the broker, or the bus
                run(what, "ip", "link", "set", host, "down")
            elif what == "stop":
                process.send_signal(signal.SIGSTOP)
            else:
                kill(process, signal.SIGTERM if what == "term" else signal.SIGKILL)
            for index, longest in enumerate(self.toggle(4) if number % 2 else (time.sleep(4) or (0, 0))):
                worst[index] = max(worst[index], longest)
                self.assertLess(longest, 3 if rounds > 5 else 8, (what, "none" if index == 0 else "both"))
            shown = re.findall(r"GPO 1 ([LH])", (RUN / "tower.log").read_text("ascii")[log:])
            self.assertTrue(number % 2 or "H" not in shown, (number, what, shown))
            if what in ("hub", "tower"):
                run(what, "ip", "link", "set", host, "up")
            elif what == "stop":
                process.send_signal(signal.SIGCONT)
            else:
                self.bridge("tower", "standby yes", key=host, host=host)
            if number % 2 == 0:  # nor when both live again
                time.sleep(3)
                self.assertNotIn("H", re.findall(r"GPO 1 ([LH])", (RUN / "tower.log").read_text("ascii")[log:]), what)
            elif "waiting" not in what:
                self.assertLess(self.toggle(3)[1], 3)
        if rounds > 4:
            print(f"{rounds} faults: none drove for {worst[0]:.1f} s, both for {worst[1]:.1f} s", file=sys.stderr)

    def test_what_an_earlier_bridge_left(self):
        self.broker()
        own = [(LINK, "")]  # nothing in the studio's file names the pin
        self.bridge("studio", replace=own)
        self.bridge("tower", "link studio:9:9:in1 -> tower:7:4:out2")
        self.says("is online")
        contact("L")
        self.lamp("L", 5)
        kill(self.processes["studio"])
        contact("H")
        left = ["pin/9/9/in1", "pin/9/9/in1/level", "pin/old.name", "device/9.9.9.9"]
        for topic in left:
            run("hub", "mosquitto_pub", "-t", f"orvex/studio/{topic}", "-r", "-m", '{"level":"L"}')
        self.bridge("studio", replace=own)
        self.says("is online")
        self.lamp("H", 1)
        self.assertEqual([retained(f"orvex/studio/{topic}") for topic in left], [""] * 4)
        self.assertEqual(json.loads(retained("orvex/studio/pin/1/2/in1"))["level"], "H")
        # Nobody has cleared this one, but no living bridge has told it.
        run("hub", "mosquitto_pub", "-t", "orvex/studio/pin/9/9/in1", "-r", "-m", '{"level":"L","bridge":1}')
        time.sleep(1)
        self.assertEqual(level_of("7:4:out2"), "H")

    def test_old_database(self):
        keep = PLAIN + "user root\npersistence true\npersistence_location /run/\n"
        self.broker(keep)
        self.bridge("studio")
        self.says("is online")
        kill(self.processes["broker"], signal.SIGTERM)  # it saves its database
        kill(self.processes["studio"])
        shutil.copy(RUN / "mosquitto.db", RUN / "old.db")
        self.broker(keep)
        self.bridge("studio")
        self.bridge("tower")
        contact("L")
        self.lamp("L", 8)
        kill(self.processes["broker"])
        shutil.copy(RUN / "old.db", RUN / "mosquitto.db")
        self.lamp("H", 8)
        self.broker(keep)
        self.lamp("L", 8)
        self.until(lambda: json.loads(retained("orvex/studio/pin/1/2/in1"))["bridge"] ==
                   int(retained("orvex/studio/bridge")), 5, "its number")
        (RUN / "mosquitto.db").unlink()
        # A will that comes late is not the last word.
        run("hub", "mosquitto_pub", "-t", "orvex/studio/status", "-r", "-m", "offline")
        self.until(lambda: retained("orvex/studio/status") == "online", 5, "not online")
        self.assertIsNone(self.processes["studio"].poll())

    def test_hostile_broker(self):
        self.lit()
        kill(self.processes["broker"])
        connected = "2003000000"
        for name, packets, said in [
                ("unknown property", "200500000277 01", "the broker: "),
                ("beyond the end", connected + "30060001617f0000", "the broker: "),
                ("never ends", connected + "30ffffff7f", "the broker: "),
                ("gone at once", connected, "the broker: ")]:
            with self.subTest(name):
                before = self.lines()
                hostile = start("hub", sys.executable, "-c", HOSTILE_BROKER, packets,
                                *["zeros"] * (name == "never ends"), log="hostile")
                self.lamp("H", 6)
                time.sleep(4)
                kill(hostile)
                self.assertLess((RUN / "hostile").read_text("ascii").count("accepted"), 50)
                self.assertLess(self.lines() - before, 40)
                self.says(said, key="tower")
                self.assertNotIn("Success", (RUN / "tower.mqtt").read_text("utf-8"))
                self.broker()
                self.lamp("L", 15)
                kill(self.processes["broker"])
        # A large message ends nothing either, and retained, no later start.
        self.broker()
        (RUN / "large").write_bytes(b"L" * (24 << 20))
        run("hub", "mosquitto_pub", "-t", "orvex/tower/set/7/4/out3", "-r", "-f", "/run/large")
        self.lamp("L", 15)
        kill(self.processes["tower"])
        self.bridge("tower")
        self.says("is online", key="tower")
        for site in "studio", "tower":
            self.assertIsNone(self.processes[site].poll())
            status = pathlib.Path(f"/proc/{self.processes[site].pid}/status").read_text("ascii")
            self.assertLess(int(re.findall(r"VmHWM:\s+(\d+)", status)[0]), 32000)

    def test_killed_again_and_again(self):
        os.environ["STATE_DIRECTORY"] = str(RUN)
        self.lit()
        kill(self.processes["broker"])
        for _ in range(5):
            kill(self.processes["tower"])
            self.bridge("tower")
            time.sleep(0.8)
        self.assertEqual(level_of(), "H")
        self.broker()
        self.lamp("L", 8)
        kill(self.processes["tower"])
        self.bridge("tower")
        self.says("is online", key="tower")
        self.assertNotIn("loss", (RUN / "tower.mqtt").read_text("utf-8"))

    def test_access_list(self):
        (RUN / "acl").write_text("topic read #\ntopic write orvex/tower/#\n", "ascii")
        self.broker(PLAIN + "acl_file /run/acl\n")
        self.bridge("studio")
        self.says("the broker refuses what is published: Not authorized")
        self.says("heartbeats do not come back", 15)
        self.assertNotIn("is online", (RUN / "studio.mqtt").read_text("utf-8"))
        self.end()
        # The access list in the documentation is sufficient.
        text = (pathlib.Path(__file__).parents[3] / "docs" / "mqtt.md").read_text("utf-8")
        (RUN / "acl").write_text("".join(
            line + "\n" for line in text.split("An access list for mosquitto")[1].splitlines()
            if line.startswith("    ")).replace("    ", ""), "ascii")
        (RUN / "secret").write_text("pass word\n", "ascii")
        subprocess.run(["mosquitto_passwd", "-b", "-c", "users", "studio", "pass word"], check=True, cwd=RUN)
        self.broker("listener 1883\npassword_file /run/users\nacl_file /run/acl\n")
        self.bridge("studio", "user studio", "password-file secret")
        self.says("is online")
        self.assertNotIn("refuses", (RUN / "studio.mqtt").read_text("utf-8"))

    def test_hostile(self):
        self.both()
        source = random.Random(14)
        levels = ["1", "2", "7", "4", "in1", "out1", "out99999999999999999999", "-1", "0x102", "", "%n", "level",
                  "\u202e", "x" * 300]
        starts = [b'{"level":', b"L,", b"[" * 90, b"", b'{"level":"L","via":["', b"H"]

        def field(data):
            return len(data).to_bytes(2, "big") + data

        def packet(kind, data):
            return bytes([kind, len(data) & 0x7F | 0x80, len(data) >> 7]) + data
        packets = [packet(0x10, field(b"MQTT") + b"\x04\x02\x00\x3c" + field(b"evil"))]
        for _ in range(int(os.environ.get("HOSTILE", "20000"))):
            topic = "/".join(["orvex", source.choice(["studio", "tower"]),
                              source.choice(["set", "set", "pin", "alive", "status", "device", "event"]),
                              *source.choices(levels, k=source.randrange(8))])
            packets.append(packet(0x30 + source.randrange(2), field(topic.encode())
                                  + source.choice(starts) + source.randbytes(source.randrange(120))))
        packets.append(packet(0x31, field(b"end") + b"all was taken"))
        before = self.lines()
        run("hub", "bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/1883; cat >&3; head -c 4 <&3; sleep 1", data=b"".join(packets))
        self.until(lambda: retained("end") == "all was taken", 20, "not all was taken")
        self.until(lambda: ask("studio/set/1/2/out2", "H").get("result") == "done", 20, "no answer")
        self.assertLess(self.lines() - before, 2000)
        self.assertIsNone(self.processes["studio"].poll())
        self.assertIsNone(self.processes["tower"].poll())

    def test_tls(self):
        def openssl(*arguments):
            subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=RUN)
        for ca in "ca", "foreign":
            openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{ca}.key", "-out",
                    f"{ca}.crt", "-subj", f"/CN={ca}", "-days", "2")
        for name, ip, ca, days in [("good", "10.78.0.1", "ca", "2"), ("wrong", "10.78.0.9", "ca", "2"),
                                   ("expired", "10.78.0.1", "ca", "0"),
                                   ("stranger", "10.78.0.1", "foreign", "2")]:
            openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{name}.key", "-out",
                    f"{name}.csr", "-subj", "/CN=broker")
            (RUN / "ext").write_text(f"subjectAltName=IP:{ip}\n", "ascii")
            openssl("x509", "-req", "-in", f"{name}.csr", "-CA", f"{ca}.crt", "-CAkey", f"{ca}.key",
                    "-CAcreateserial", "-out", f"{name}.crt", "-days", days, "-extfile", "ext")
        time.sleep(1)
        (RUN / "credentials").mkdir()
        (RUN / "credentials" / "secret").write_text("pass word\r\n", "ascii")
        os.environ["CREDENTIALS_DIRECTORY"] = str(RUN / "credentials")
        subprocess.run(["mosquitto_passwd", "-b", "-c", "users", "joe", "pass word"], check=True, cwd=RUN)
        asks = "require_certificate true\ncafile /run/ca.crt\n"
        for name, client, extra, said in [
                ("good", "", "", "is online"), ("wrong", "", "", "certificate"),
                ("expired", "", "", "certificate"), ("stranger", "", "", "certificate"),
                ("good", "", asks, "no connection"), ("good", "stranger", asks, "no connection"),
                ("good", "good", asks, "is online")]:
            with self.subTest(name=name, client=client, extra=extra):
                self.broker(f"listener 8883\nuser root\npassword_file /run/users\ncertfile /run/{name}.crt\n"
                            f"keyfile /run/{name}.key\n{extra}")
                own = [f"certificate {client}.crt", f"key {client}.key"] if client else []
                self.bridge("studio", "tls yes", "ca ca.crt", "user joe", "password-file secret", *own)
                self.says(said)
                if said != "is online":
                    self.assertNotIn("connected", (RUN / "studio.mqtt").read_text("utf-8"))
                self.end()

    def test_configuration(self):
        (RUN / "password").write_text("word\r\n", "ascii")
        base = "site studio\nbroker 127.0.0.1\nnames /dev/null\n"
        link = "link studio:1:2:in1 -> tower:1:2:out1"
        for line, text, reason in [
                (0, "", "no site"), (4, base + "nonsense 1", "unknown setting"),
                (4, base + "site tower", "given twice"), (4, base + "ask never", "not a number"),
                (4, base + "link studio:1:2:in1 tower:1:2:out1", "not link"),
                (4, base + link + " pulse 9", "not a number"),
                (4, base + link + " on-loss H 1", "not a number"),
                (4, base + link + " on-loss", "needs a value"),
                (4, base + "link tower:1:2:in1 -> studio:1:2:in2", "is an input"),
                (4, base + "link tower:1:2:in1 -> studio:lamp", "lamp"),
                (5, base + link + "\n" + link.replace("in1", "in2"), "any(studio:1:2:in1, studio:1:2:in2) -> tower:1:2:out1"),
                (4, base + link.replace("studio:1:2:in1", "any(studio:1:2:in1"), "no ) before the end"),
                (4, base + link.replace("studio:1:2:in1", "3 of (studio:1:2:in1)"), "not a number from 1 to 1: 3"),
                (4, base + link.replace("studio:1:2:in1", "all()"), "not SITE:PIN: )"),
                (4, base + link.replace("studio:1:2:in1", "not"), "missing at the end"),
                (4, base + link.replace("studio:1:2:in1", "studio:1:2:in1 or"), "not expected here: or"),
                (4, base + link.replace("studio:1:2:in1", "not " * 10 + "studio:1:2:in1"), "too deeply"),
                (5, base + "link any(b:1:2:out1, b:1:2:out2) -> studio:1:2:out1\n"
                 "link all(studio:1:2:out2, studio:1:2:out1) -> b:1:2:out2", "a loop: b:1:2:out2 -> studio:1:2:out1 -> b"),
                (6, base + "link studio:1:2:out1 -> b:1:2:out1\nlink b:1:2:out1 -> studio:1:2:out2\n"
                 "link studio:1:2:out2 -> studio:1:2:out1", "a loop: "),
                (4, base + "link studio:1:2:out1 -> studio:0x102:out1", "a loop: "),
                (4, base.replace("127.0.0.1", "none") + link, "without a broker, nobody knows tower:1:2:out1"),
                (0, base.replace("127.0.0.1", "none") + "standby yes", "need a broker"), (4, base + "standby maybe", "not yes or no"),
                (0, base + "key /run/password", "needs a key"), (0, base + "ca /run/password", "need tls yes"),
                (5, base + "tls yes\nca /gone", "can't read /gone"), (4, base + "key /run", "can't read"),
                (0, base + "password-file /run/password", "needs a user"),
                (2, base.replace("127.0.0.1", "mqtt://hub"), "not HOST"),
                (2, base.replace("127.0.0.1", "[::1]1883"), "not HOST"),
                (2, base.replace("127.0.0.1", "hub:1883.5"), "whole"),
                (4, base + "link 1:2:in1 -> 7:4:out1", "there is no site: 1:2:in1"),
                (4, base + link.replace("studio", "Studio"), "no pin is at this file's site"),
                (4, base + link + " pulse 12.5", "whole"), (4, base + link + " hold 9 pulse 90", "not for a pulse"), (4, base + link + " invert invert", "given twice"),
                (4, base + "site", "needs one value"), (4, base + "password-file /gone", "/gone")]:
            path = RUN / "bad.conf"
            path.write_text(text + "\n", "ascii")
            done = subprocess.run([f"{BUILD}/tools/mqtt/orvex-mqtt", "--check", path], check=False,
                                  capture_output=True, encoding="utf-8")
            self.assertEqual(done.returncode, 1, text)
            self.assertIn(f"bad.conf:{line}: " if line else "bad.conf: ", done.stderr)
            self.assertIn(reason, done.stderr)
        done = subprocess.run([f"{BUILD}/tools/mqtt/orvex-mqtt", "--print-topics", RUN / "studio.conf"],
                              check=True, capture_output=True, encoding="utf-8")
        self.assertIn("orvex/studio/pin/1/2/in1\n", done.stdout)
        self.assertNotIn("homeassistant", done.stdout)


if __name__ == "__main__":
    unittest.main()
