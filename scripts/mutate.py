"""Plants faults and tells which tests see them: see scripts/mutate."""
import argparse
import collections
import concurrent.futures
import contextlib
import filecmp
import os
import random
import re
import shutil
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FOLDERS = ("app", "msg", "net", "rudp", "tqr", "gpiocli", "protocol")
UNSEEN_BY_DESIGN = re.compile(r"^\s*(//|#|\}|$)|printf|static_assert")

# Replacements; each place where one fits is a fault.
REPLACEMENTS = [
    (r"==", "!="), (r"!=", "=="), (r"&&", "||"), (r"\|\|", "&&"), (r" < ", " <= "),
    (r" > ", " >= "), (r" <= ", " < "), (r" >= ", " > "), (r" \+ ", " - "), (r" - ", " + "),
    (r"\btrue\b", "false"), (r"\bfalse\b", "true"), (r"\+\+(?=\w)", "--"), (r" << ", " >> "),
    (r" >> ", " << "), (r" & ", " | "), (r"\+= ", "-= "), (r"!(?=[\w(])", ""),
]
STATEMENT = re.compile(r"^\s+(?!return|break|case|const|static|delete|using|\w+ \w+;)[\w*:\[\]>.()-]+"
                       r"( [-+|&]?= .*|\(.*\));$")
CALL = re.compile(r"(\w+)\(([\w.*&:]+), ([\w.*&:]+)\)")
NUMBER = re.compile(r"(?<![\w.])([1-9]\d*)(?![\w.])")

# Each step is a preset and selections of its tests. A fault that no test of a step sees goes to the
# next step.
STEPS = [
    ("debug", [("world", ["-R", "^world"]),
               ("replay", ["-R", "^replay"]),
               ("unit", ["-LE", "e2e|slow|wireshark",
                         "-E", "^(world|replay|completion|manuals|install|.*unit$)"])]),
    ("sanitize", [("sanitizers", ["-LE", "e2e|slow|wireshark",
                                  "-E", "^(completion|manuals|install|.*unit$)"])]),
    ("debug", [("end to end", ["-j2", "-L", "e2e|slow", "-LE", "wireshark"])]),
]
# A fault takes one compilation and many links, so these must be quick.
LINK = "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -Wl,--strip-debug"
# Each run has its own network and processes, so that copies don't disturb each other and nothing
# remains after a timeout.
ALONE = ["unshare", "-n", "-p", "-f", "--mount-proc", "--kill-child"]
ALONE += [] if os.geteuid() == 0 else ["-U", "-r"]


def faults_of(path):
    """All one-line faults of a file, as (line number, new line, what)."""
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        lines = file.read().split("\n")
    for number, line in enumerate(lines):
        if UNSEEN_BY_DESIGN.search(line):
            continue
        code = line.split("//")[0]
        for pattern, new in REPLACEMENTS:
            for found in re.finditer(pattern, code):
                yield number, line[:found.start()] + new + line[found.end():], \
                    f"{found.group().strip()} becomes {new.strip() or 'nothing'}"
        for found in NUMBER.finditer(code):
            more = str(int(found.group()) + 1)
            yield number, line[:found.start()] + more + line[found.end():], \
                f"{found.group()} becomes {more}"
        for found in CALL.finditer(code):
            swapped = f"{found.group(1)}({found.group(3)}, {found.group(2)})"
            yield number, line[:found.start()] + swapped + line[found.end():], \
                f"arguments of {found.group(1)} swapped"
        if STATEMENT.match(code):
            yield number, "    ;", f"dropped: {line.strip()}"


class Copy:
    """A copy of the tree in which one fault after the other is planted."""

    end_to_end = threading.Lock()  # held by those tests, which measure times

    def __init__(self, number):
        self.folder = os.path.join(ROOT, "build/mutate", str(number))
        files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                               stdout=subprocess.PIPE, text=True).stdout.split("\n")
        for name in filter(None, files):
            source, target = os.path.join(ROOT, name), os.path.join(self.folder, name)
            if not os.path.isfile(source):
                continue
            # An interrupted run leaves a fault behind: copying gives the file a new time, and it is
            # compiled again. Unchanged files are not.
            if not os.path.isfile(target) or not filecmp.cmp(source, target, shallow=False):
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copy(source, target)
        os.makedirs(os.path.join(self.folder, "build"), exist_ok=True)
        for preset, selections in STEPS:
            if not self.run(["cmake", "--preset", preset, LINK], 600) or not self.builds(preset):
                sys.exit(f"mutate: the copy does not build: see {self.folder}/build/log")
            for test, selection in selections:
                if not self.passes(preset, test, selection):
                    sys.exit(f"mutate: {test} fails without a fault: see {self.folder}/build/log")

    def run(self, command, limit):
        """Whether a command in the copy ends with 0 in time."""
        with open(os.path.join(self.folder, "build/log"), "w", encoding="utf-8") as log, \
                subprocess.Popen(command, cwd=self.folder, stdout=log, stderr=log,
                                 env={**os.environ, "TMPDIR": self.folder}) as process:
            try:
                return process.wait(limit) == 0
            except subprocess.TimeoutExpired:
                process.kill()
                return False

    def builds(self, preset):
        return self.run(["cmake", "--build", "--preset", preset, "-j1"], 3600)

    def passes(self, preset, test, selection):
        is_slow = test == "end to end"
        with Copy.end_to_end if is_slow else contextlib.nullcontext():
            return self.run(ALONE + ["sh", "-c", 'ip link set lo up && exec ctest "$@"', "ctest",
                                     "--preset", preset, "--stop-on-failure"] + selection,
                            900 if is_slow else 120)

    def who_sees(self, path, number, new):
        """The tests that see the fault; None if it does not compile."""
        name = os.path.join(self.folder, path)
        with open(name, encoding="utf-8") as file:
            text = file.read()
        lines = text.split("\n")
        lines[number] = new
        try:
            with open(name, "w", encoding="utf-8") as file:
                file.write("\n".join(lines))
            for preset, selections in STEPS:
                if not self.builds(preset):
                    return None
                seen = [test for test, selection in selections
                        if not self.passes(preset, test, selection)]
                if seen:
                    return seen
            return []
        finally:
            with open(name, "w", encoding="utf-8") as file:
                file.write(text)


class Sample:
    """Plants faults in several copies at a time, until as many as wanted have compiled."""

    def __init__(self, faults, wanted):
        self.faults = iter(faults)
        self.wanted = wanted
        self.taken = 0
        self.lock = threading.Lock()
        self.counts = collections.Counter()
        self.unseen = []

    def next(self):
        with self.lock:
            fault = next(self.faults, None) if self.taken < self.wanted else None
            self.taken += 1 if fault else 0
            return fault

    def work(self, copy):
        while fault := self.next():
            path, line, new, what = fault
            seen = copy.who_sees(path, line, new)
            with self.lock:
                if seen is None:
                    self.taken -= 1
                    continue
                self.counts.update(seen or ["none"])
                self.counts["in all"] += 1
                place = f"{path}:{line + 1}: {what}"
                print(f"{self.counts['in all']:4} {', '.join(seen) or 'NONE':24} {place}", flush=True)
                if not seen:
                    self.unseen.append(place)


def main():
    parser = argparse.ArgumentParser(prog="mutate", add_help=False)
    parser.add_argument("--sample", type=int, default=20)
    parser.add_argument("--seed", type=int, default=time.time_ns() // 1000000 % 1000000000)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    options = parser.parse_args()
    print(f"== mutate: {options.sample} faults, seed {options.seed}", flush=True)
    files = subprocess.run(["git", "ls-files"] + [f"{folder}/*.cpp" for folder in FOLDERS], cwd=ROOT,
                           check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    faults = [(path,) + fault for path in files for fault in faults_of(path)]
    random.Random(options.seed).shuffle(faults)
    sample = Sample(faults, options.sample)
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        copies = list(pool.map(Copy, range(options.jobs)))
        list(pool.map(sample.work, copies))
    print(f"== of {sample.counts.pop('in all', 0)} planted, seen by: "
          + ", ".join(f"{test} {count}" for test, count in sorted(sample.counts.items())))
    for place in sample.unseen:
        print(f"   not seen: {place}")


if __name__ == "__main__":
    main()
