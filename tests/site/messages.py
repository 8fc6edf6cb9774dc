"""Every line that a program logs is one that its manual explains."""

import os
import pathlib
import re

MANUALS = pathlib.Path(__file__).parents[2] / "docs/man"
ERRORS = {"".join(os.strerror(number).split()) for number in range(1, 134)}
BESIDES = re.compile(r"\(\d+timesmore\)$|^orvex-[a-z]*:|\d+moremessageswereleftout$")


def patterns(text):
    """The items of a manual's lists of messages, without blanks."""
    for item in re.findall(r"^\.It (.*)$", text.partition(".Sh DIAGNOSTICS")[2], re.M):
        pattern, is_argument = "", False
        for word in item.replace(r"\\&", "").replace(r"\&", "").split() + [","]:
            if word in ("Ar", "No", "Ns"):
                is_argument = word == "Ar" or is_argument and word == "Ns"
            elif word == ",":  # another one
                yield pattern
                pattern = ""
            elif is_argument and word not in ":()":
                pattern += "" if pattern.endswith(".*") else ".*"
            else:
                pattern += re.escape(word)


class Messages:
    """Reads the logs now and then, and keeps the end of each."""

    def __init__(self, world):
        self.world, self.known, self.texts = world, {}, {}
        for manual in MANUALS.glob("*.8"):
            text = manual.read_text("utf-8")
            known = [pattern for pattern in patterns(text) if re.search("[A-Za-z]", pattern)]
            self.known[manual.stem] = re.compile("|".join(known), re.A)
            file = manual.with_suffix(".conf.5")
            text += file.read_text("utf-8") if file.exists() else ""
            self.texts[manual.stem] = "".join(re.sub(r"^\.[A-Z]\w ", "", text, flags=re.M).split())

    def is_explained(self, name, line):
        """Of "FILE: REASON", which would be anything, the reason must be the system's or in the manual."""
        words = BESIDES.sub("", "".join(line.split()))
        reason = words.rpartition(":")[2]
        return (name not in self.known or line[:1] in ("", " ") or self.known[name].fullmatch(words)
                or ":" in words and (reason in ERRORS or reason in self.texts[name]))

    def read(self):
        for unit in self.world.units():
            with open(unit.log, "r+b") as log:
                text = log.read()
                if len(text) > 65536:
                    unit.log.with_name(unit.log.name + ".1").write_bytes(text[-65536:])
                    log.truncate(0)
            for line in text[unit.read_to:].decode("utf-8", "backslashreplace").splitlines():
                self.world.counts["lines of logs"] += 1
                assert self.is_explained(unit.name, line), (
                    f"{unit.part.name} says what its manual does not explain: {line}")
            unit.read_to = 0 if len(text) > 65536 else len(text)
