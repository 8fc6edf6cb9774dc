"""Checks that the manuals are well-formed, and that they contain every option and message.

Usage: test_manuals.py ORVEX ORVEXCTL ORVEX_SIM [OTHER_PROGRAM]...
"""

import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
MANUALS = sorted((ROOT / "docs/man").iterdir())
DAEMON, CTL, SIM, *OTHERS = sys.argv[1:]

LITERAL = r'"((?:[^"\\]|\\.)*)"'
PRINTED = re.compile(r"printf\((?:stderr,)?\s*((?:" + LITERAL + r"\s*)+)(,\s*APP_NAME)?")
# The beginning of a statement in the tools that makes a message.
TOLD = re.compile(r"\b(?:Refuse|invalid_argument|Failure|BusError|NamesError|Fail|Note|Detail|Error|PrintProblem|Tell"
                  r"|Disconnect|NumberError)\(|fprintf\(stderr|(?:return|reason =|_ERROR =) \"")

# Limits and times: where the code defines them, and what documents say about them.
LIMITS = [
    ("rudp/RUdpLayer1Base.h", "REPEAT_MEMORY_MS", lambda ms: ms / 1000,
     {"docs/protocol.md": "remembered for {} seconds", "SECURITY.md": "remembered for {} seconds",
      "docs/man/orvex-protocol.7": "remembered for {} seconds", "wireshark/orvex.lua": "REPEAT_SECONDS = {} "}),
    ("app/mainloop.cpp", "RECONNECT_PAUSE_US", lambda us: us / 1e6,
     {"docs/protocol.md": "waits {} seconds before each new connection", "docs/man/orvex.8": "tries every {} seconds"}),
    ("protocol/numbers.h", "SWEEP_PERIOD_S", lambda s: s,
     {"docs/protocol.md": "at least {} seconds after the one before", "docs/man/orvex.8": "are at least {} seconds apart"}),
    ("protocol/numbers.h", "SWEEP_PERIOD_S", lambda s: 2 * s,
     {"docs/protocol.md": "0 to {} seconds after it lost", "docs/man/orvex.8": "tried again after 0 to {} seconds"}),
    ("tqr/tqrcli.h", "LINE_SIZE", lambda size: size - 1,
     {"docs/protocol.md": "more than {} characters ends", "docs/man/orvex-protocol.7": "at most {} characters long",
      "docs/wireshark.md": "more than {} characters", "wireshark/orvex_line.lua": "MAX_LINE = {} "}),
    ("protocol/numbers.h", "HIGHEST_FOLLOWED", lambda channel: channel,
     {"docs/protocol.md": "used for channels 1 to {} |", "docs/man/orvex.8": "Outputs of channels 1 to {} can be read"}),
]


def text_of(path):
    """A manual as displayed, with each run of blanks as one."""
    shown = subprocess.run(["mandoc", "-T", "utf8", path], check=True, capture_output=True).stdout
    return " ".join(re.sub(".\b", "", shown.decode()).split())


def sources(*folders):
    for folder in folders:
        for path in sorted((ROOT / folder).glob("*.cpp")):
            yield path.read_text("utf-8")


def joined(literals):
    return "".join(re.findall(LITERAL, literals)).replace('\\"', '"').replace("\\n", " ")


def messages(folder):
    """What the daemon's code in a folder prints, with APP_NAME filled in."""
    name = "tqrcli" if folder == "tqr" else "orvex"
    for text in sources(folder):
        for call in PRINTED.finditer(text):
            yield joined(call[1]).replace("%s", name, 1 if call[3] else 0)


def is_told(message, manual):
    """Whether the manual has the message, with a word in place of each conversion."""
    words = " ".join(message.split())
    pattern = r"\S+".join(re.escape(part) for part in re.split(r"%\d*l*[a-zA-Z]", words))
    return re.search(rf"(?<!\S){pattern}(?!\S)", manual)


class ManualsTest(unittest.TestCase):
    maxDiff = None

    def test_lint(self):
        done = subprocess.run(["mandoc", "-T", "lint", *MANUALS], check=False, capture_output=True,
                              encoding="utf-8")
        # These depend on what is installed, not on the manuals.
        found = [line for line in done.stdout.splitlines()
                 if "referenced manual not found" not in line and "mandoc.db" not in line]
        self.assertEqual(found, [])

    def test_daemon_messages(self):
        manual = text_of(ROOT / "docs/man/orvex.8")
        found = [message for folder in ("app", "net", "rudp", "msg", "tqr", "gpiocli", "protocol")
                 for message in messages(folder)]
        self.assertGreater(len(found), 30)
        missing = [message for message in found
                   if "<options>" not in message and not is_told(message, manual)]
        missing += [variable for text in sources("app", "net")
                    for variable in re.findall(r'"([A-Z]+_[A-Z_]+)"', text) if variable not in manual]
        self.assertEqual(missing, [])

    def test_tool_messages(self):
        for name, folders in {"orvexctl": ("tools/ctl", "tools/bus"), "orvex-sim": ("tools/sim",),
                              "orvex-gpio": ("tools/gpio", "tools/server"), "orvex-board": ("tools/board",),
                              "orvex-mqtt": ("tools/mqtt",), "orvex-tsl": ("tools/tsl",)}.items():
            manual = " ".join(map(text_of, [ROOT / "docs/man/orvex-names.5",
                                            *(ROOT / "docs/man").glob(f"{name}.*")]))
            parts = {" ".join(joined(f'"{literal}"').split())
                     for text in sources(*folders) for start in TOLD.finditer(text)
                     for literal in re.findall(LITERAL, text[start.start():].split(";\n", 1)[0])}
            parts = {part for part in parts if re.search("[a-z]{2}", part) and "%" not in part}
            self.assertGreater(len(parts), 20 if name != "orvex-sim" else 3)
            self.assertEqual(sorted(part for part in parts if part not in manual), [], name)

    def test_limits(self):
        for source, name, unit, documents in LIMITS:
            value = re.search(rf"\b{name} = (\d+);", (ROOT / source).read_text("utf-8"))[1]
            for document, sentence in documents.items():
                text = " ".join((ROOT / document).read_text("utf-8").replace(",", "").split())
                expected = sentence.format(f"{unit(int(value)):g}")
                with self.subTest(limit=name, document=document):
                    self.assertTrue(expected in text, f"not found: {expected}")

    def test_verbs(self):
        shown = subprocess.run([CTL, "--completion", "bash"], check=True, capture_output=True,
                               encoding="utf-8").stdout
        verbs = re.search(r"\[' '\]='([a-z ]*) -", shown)[1].split()
        manual = (ROOT / "docs/man/orvexctl.1").read_text("utf-8")
        self.assertEqual(verbs, re.findall(r"^\.It Cm (\w+)", manual, re.M))

    def test_options(self):
        helps = {"orvex.8": (DAEMON, "-help"), "orvexctl.1": (CTL, "--completion", "bash"),
                 "orvex-sim.1": (SIM, "--completion", "bash")}
        for program in OTHERS:
            helps[f"{pathlib.Path(program).name}.8"] = (program, "--completion", "bash")
        for name, command in helps.items():
            shown = subprocess.run(command, check=True, capture_output=True, encoding="utf-8").stdout
            words = shown.split("values=(")[0]
            options = set(re.findall(r"(?<=[\s'])--?[a-zA-Z][a-z-]*", words)) - {"-A"}
            self.assertGreater(len(options), 2)
            manual = text_of(ROOT / "docs/man" / name)
            missing = [option for option in sorted(options)
                       if not re.search(rf"(?<![\w-]){option}(?![\w-])", manual)]
            self.assertEqual(missing, [], name)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
