"""Plants faults and tells which tests see them: see scripts/mutate."""
import argparse
import collections
import os
import random
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
COPY = os.path.join(ROOT, "build/mutate")
FOLDERS = ("app", "msg", "net", "rudp", "tqr", "gpiocli")
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

TESTS = [
    ("world", ["-R", "^world"]),
    ("replay", ["-R", "^replay"]),
    ("unit", ["-LE", "e2e|slow|wireshark", "-E", "^(world|replay|completion|manuals|unit$)"]),
]
END_TO_END = ["-L", "e2e", "-LE", "wireshark"]


def faults_of(path):
    """All one-line faults of a file, as (line number, new line, what)."""
    with open(os.path.join(COPY, path), encoding="utf-8") as file:
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


def run(command, limit):
    """Whether a command in the copy ends with 0 in time."""
    try:
        return subprocess.run(command, cwd=COPY, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=limit, check=False).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def passes(selection):
    return run(["ctest", "--preset", "debug", "-j", "2", "--timeout", "60", "--stop-on-failure"]
               + selection, 300)


def make_copy():
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                           stdout=subprocess.PIPE, text=True).stdout.split("\n")
    for name in filter(None, files):
        source, target = os.path.join(ROOT, name), os.path.join(COPY, name)
        if os.path.isfile(source):
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copy2(source, target)
    if not (run(["cmake", "--preset", "debug"], 600)
            and run(["cmake", "--build", "--preset", "debug"], 3600)):
        sys.exit("mutate: the copy in build/mutate does not build")


def who_sees(path, number, new):
    """The tests that see the fault; None when it is none to a compiler."""
    name = os.path.join(COPY, path)
    with open(name, encoding="utf-8") as file:
        text = file.read()
    lines = text.split("\n")
    lines[number] = new
    try:
        with open(name, "w", encoding="utf-8") as file:
            file.write("\n".join(lines))
        if not run(["cmake", "--build", "--preset", "debug"], 1200):
            return None
        seen = [test for test, selection in TESTS if not passes(selection)]
        if not seen and not passes(END_TO_END):
            seen = ["end to end"]
        return seen
    finally:
        with open(name, "w", encoding="utf-8") as file:
            file.write(text)


def main():
    parser = argparse.ArgumentParser(prog="mutate", add_help=False)
    parser.add_argument("--sample", type=int, default=20)
    parser.add_argument("--seed", type=int, default=time.time_ns() // 1000000 % 1000000000)
    options = parser.parse_args()
    print(f"== mutate: {options.sample} faults, seed {options.seed}", flush=True)
    make_copy()
    files = subprocess.run(["git", "ls-files"] + [f"{folder}/*.cpp" for folder in FOLDERS], cwd=ROOT,
                           check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    faults = [(path,) + fault for path in files for fault in faults_of(path)]
    random.Random(options.seed).shuffle(faults)
    counts, unseen, planted = collections.Counter(), [], 0
    for path, number, new, what in faults:
        if planted == options.sample:
            break
        seen = who_sees(path, number, new)
        if seen is None:
            continue
        planted += 1
        counts.update(seen or ["none"])
        place = f"{path}:{number + 1}: {what}"
        print(f"{', '.join(seen) or 'NONE':24} {place}", flush=True)
        if not seen:
            unseen.append(place)
    print(f"== of {planted} planted, seen by: "
          + ", ".join(f"{test} {count}" for test, count in sorted(counts.items())))
    for place in unseen:
        print(f"   not seen: {place}")


if __name__ == "__main__":
    main()
