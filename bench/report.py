#!/usr/bin/env python3
"""Runs every measurement, compares it with its target, prints tables and writes JSON.

Times depend on the machine and its load; counts don't. With --counts it measures only counts, and
fails if one misses its target.
"""

import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile

BUILD = "build/bench"
BUILD_32 = "build/bench-i386"
DRIVE = f"{BUILD}/bench/orvex-drive"
DAEMON = os.path.abspath(f"{BUILD}/app/orvex")
DAEMON_32 = os.path.abspath(f"{BUILD_32}/app/orvex")
PROFILES = pathlib.Path(BUILD, "profiles")  # of this run
# Of the last run that met all targets, in whichever checkout.
MET = pathlib.Path(os.environ.get("XDG_CACHE_HOME", pathlib.Path.home() / ".cache"), "orvex/profiles")
PATHS = ["write", "report", "read", "mirror", "reliable"]
TITLES = {
    "write": "write from the bus to line",
    "report": "line to report on the bus",
    "read": "read to reply",
    "mirror": "remote line to line",
    "reliable": "reliable message to acknowledgement",
}

DELAY_EVENTS = 4000
SHORT, LONG = 100, 300  # events in the two runs whose difference is counted
IDLE_SECONDS = 85

MAX_DELAY_RATIO = 1.04
MAX_PROCESSOR_RATIO = 1.05
ITEMS = [6, 256, 4000]  # in the encoded and decoded messages
SYSCALLS = {"write": 4, "report": 6, "read": 5, "mirror": 5, "reliable": 4}
ALLOCATIONS = {"write": 0, "report": 1, "read": 1, "mirror": 0, "reliable": 0}
INSTRUCTIONS = {"write": 1400, "report": 2600, "read": 2600, "mirror": 1200, "reliable": 1300}
MAX_RESIDENT_KIB = 2560
MAX_WAKEUPS_A_MINUTE = 3

verdicts = []


def check(name, value, limit, met=None):
    """Records whether a target is met: by default, a value of at most the limit."""
    verdicts.append({"target": name, "value": value, "limit": limit,
                     "met": value <= limit if met is None else met})
    return value


def drive(*words):
    done = subprocess.run([DRIVE, *map(str, words)], capture_output=True, text=True, timeout=120)
    if done.returncode != 0:
        sys.exit(f"orvex-drive {' '.join(map(str, words))}: {done.stderr}")
    return json.loads(done.stdout)


# ---- counts: the difference between a longer and a shorter run, per event


def per_event(path, count):
    """count(path, events) returns a dict of totals."""
    short, long = count(path, SHORT), count(path, LONG)
    return {key: (long[key] - short.get(key, 0)) / (LONG - SHORT)
            for key in long if long[key] != short.get(key, 0)}


def callgrind(path, events):
    PROFILES.mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        run = drive("events", path, events, "valgrind", "--tool=callgrind",
                    f"--callgrind-out-file={folder}/%p", DAEMON)
        profile = shutil.move(f"{folder}/{run['pid']}", PROFILES / f"{path}.{events}")
    return read_profile(profile)[0]


def read_profile(path):
    """Instructions and calls of the C library's allocation functions; instructions by function."""
    totals = {"instructions": 0, "allocations": 0}
    names, own = {}, {}
    caller = callee = None
    inclusive = False  # the next line is the cost of a call, which the callee's own lines contain
    with open(path) as profile:
        for line in profile:
            function = re.match(r"(c?)fn=\((\d+)\)(?: (.*))?", line)
            if function:
                names.setdefault(function[2], (function[3] or "").rstrip())
                if function[1]:
                    callee = names[function[2]]
                else:
                    caller = names[function[2]]
            elif line.startswith("calls="):
                inclusive = True
                if callee in ("malloc", "calloc", "realloc"):
                    totals["allocations"] += int(line[6:].split()[0])
            elif line.startswith("totals:"):
                totals["instructions"] = int(line.split()[1])
            elif re.match(r"[+*-]?\d* ?\d+$", line.rstrip()) and caller is not None:
                if not inclusive:
                    own[caller] = own.get(caller, 0) + int(line.split()[-1])
                inclusive = False
    return totals, own


def by_function(folder, path):
    """Instructions for each event, by function."""
    short, long = (read_profile(folder / f"{path}.{events}")[1] for events in (SHORT, LONG))
    return {name: (long[name] - short.get(name, 0)) / (LONG - SHORT) for name in long}


def explain():
    """For missed targets: what to run, where the limits are, and which functions grew."""
    print("\nTo repeat: scripts/bench --counts    The limits: SYSCALLS, ALLOCATIONS, INSTRUCTIONS and\n"
          f"MAX_RESIDENT_KIB in bench/report.py    The profiles, for callgrind_annotate: {PROFILES}/")
    for path in PATHS:
        if not any(TITLES[path] in verdict["target"] and not verdict["met"] for verdict in verdicts):
            continue
        now = by_function(PROFILES, path)
        before = by_function(MET, path) if (MET / f"{path}.{LONG}").exists() else {}
        grown = sorted(((count - before.get(name, 0), count, name) for name, count in now.items()),
                       reverse=True)
        print(f"\n{TITLES[path]}: instructions of functions" +
              (", and how many more since the targets were last met" if before else ""))
        for more, count, name in grown[:10]:
            if more > 0.5:
                print(f"  {count:9,.1f}" + (f"  {more:+9,.1f}" if before else "") + f"  {name[:90]}")


def keep_profiles():
    shutil.rmtree(MET, ignore_errors=True)
    shutil.copytree(PROFILES, MET)


def strace(path, events):
    with tempfile.NamedTemporaryFile("r") as summary:
        drive("events", path, events, "strace", "-f", "-c", "-o", summary.name, DAEMON)
        rows = re.findall(r"^ *[\d.]+ +[\d.]+ +\d+ +(\d+) +(?:\d+ +)?(\w+)$", summary.read(), re.M)
        return {name: int(calls) for calls, name in rows if name != "total"}


def counts():
    result = {}
    for path in PATHS:
        row = result[path] = per_event(path, callgrind)
        row.setdefault("allocations", 0)
        row["calls"] = per_event(path, strace)
        row["system_calls"] = sum(row["calls"].values())
        title = TITLES[path]
        check(f"system calls, {title}", row["system_calls"], SYSCALLS[path],
              row["system_calls"] == SYSCALLS[path])
        check(f"allocations, {title}", row["allocations"], ALLOCATIONS[path])
        check(f"user instructions, {title}", row["instructions"], INSTRUCTIONS[path])
    return result


# ---- times


def delays(mode):
    result = drive(mode, DELAY_EVENTS)
    for row in result["paths"].values():
        row["ratio"] = row["daemon"]["median_us"] / row["same"]["median_us"]
    return result


def check_delays(figures):
    for path in PATHS:
        check(f"median beside the same calls, {TITLES[path]}",
              figures["delay"]["paths"][path]["ratio"], MAX_DELAY_RATIO)


def micro():
    done = subprocess.run([f"{BUILD}/bench/orvex-micro", "--benchmark_format=json",
                           "--benchmark_min_time=0.05", "--benchmark_repetitions=7",
                           "--benchmark_enable_random_interleaving=true",
                           "--benchmark_report_aggregates_only=true"],
                          capture_output=True, text=True, timeout=120, check=True)
    rows = json.loads(done.stdout)["benchmarks"]
    ns = {row["run_name"]: row["cpu_time"] for row in rows if row["aggregate_name"] == "median"}
    for operation, other, factor in [("decode", "msgpack", 1), ("decode", "protobuf", 1),
                                     ("encode", "protobuf", 1), ("encode", "msgpack", 3)]:
        for items in ITEMS:
            check(f"{operation} beside {other}, {items:,} items",
                  ns[f"{operation}_orvex/{items}"] / ns[f"{operation}_{other}/{items}"], factor)
    return ns


# ---- memory and idling


def resident_32():
    """The memory of an emulated program is its emulator's memory below 4 GiB."""
    with open(f"{BUILD_32}/CMakeCache.txt") as cache:
        native = "ORVEX_RUNS_FOREIGN:BOOL=TRUE" in cache.read()
    command = [DAEMON_32] if native else ["qemu-i386-static", DAEMON_32]
    result = {path: drive("events", path, LONG, *command)["low_resident_kib"] for path in PATHS}
    check("resident KiB, 32 bit, under every path", max(result.values()), MAX_RESIDENT_KIB)
    return {"emulated": not native, "kib": result}


def check_memory(figures):
    loads = [row["daemon"]["resident_kib"] for row in figures["delay"]["paths"].values()]
    loads += [row["resident_after_kib"] for row in figures["rate"].values()]
    loads += [row["resident_after_kib"] for row in figures["growth"]["items"]]
    check("resident KiB, 64 bit, every path, full rate and 4,000 items", max(loads),
          MAX_RESIDENT_KIB)
    check("resident KiB, 64 bit, 50,000 senders",
          figures["growth"]["senders"][-1]["resident_after_kib"], MAX_RESIDENT_KIB)
    grown = [row["resident_after_kib"] - row["resident_before_kib"]
             for row in figures["rate"].values()]
    check("resident KiB gained at full rate", max(grown), 0)
    for path in PATHS:
        check(f"processor time beside the same calls at full rate, {TITLES[path]}",
              figures["rate"][path]["cpu_ratio"], MAX_PROCESSOR_RATIO)


def check_idle(idle):
    check("wake-ups a minute when idle", idle["wakeups"] * 60 / idle["seconds"],
          MAX_WAKEUPS_A_MINUTE)


# ---- output


def table(title, head, rows):
    texts = [head] + [[cell if isinstance(cell, str) else f"{cell:,.1f}".removesuffix(".0")
                       for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in texts) for i in range(len(head))]
    print(f"\n{title}")
    for row in texts:
        print("  " + row[0].ljust(widths[0]) + "".join(
            "  " + cell.rjust(width) for cell, width in zip(row[1:], widths[1:])))


def print_figures(f):
    for key, title in [("delay", "alone on a processor"), ("shared", "among other programs")]:
        table(f"Delay in microseconds, {title}: median, 99th percentile",
              ["", "daemon", "", "same calls", "", "least", "", "daemon/same"],
              [[TITLES[path]] + [f[key]["paths"][path][who][part]
                                 for who in ("daemon", "same", "least")
                                 for part in ("median_us", "p99_us")] +
               [f"{f[key]['paths'][path]['ratio']:.3f}"] for path in PATHS])
    table("For each event",
          ["", "system calls", "allocations", "instructions", "processor us", "events/s, no loss"],
          [[TITLES[path], row["system_calls"], row["allocations"], row["instructions"],
            f["delay"]["paths"][path]["daemon"]["cpu_us"], f["rate"][path]["events_per_s"]]
           for path, row in f["counts"].items()])
    for key in ("senders", "items"):
        table(f"A write's delay with the number of {key}",
              [key, "median us", "99th us", "resident KiB"],
              [[f"{row[key]:,}", row["median_us"], row["p99_us"], row["resident_after_kib"]]
               for row in f["growth"][key]])
    table("Single operations", ["", "ns"], sorted(f["micro"].items()))
    table("Resident KiB", ["", "64 bit", "32 bit"],
          [[TITLES[path], f["delay"]["paths"][path]["daemon"]["resident_kib"],
            f["resident_32"]["kib"][path]] for path in PATHS])


def print_verdicts():
    table("Targets", ["", "measured", "at most", ""],
          [[v["target"], f"{v['value']:,.3f}".rstrip("0").rstrip("."), f"{v['limit']:,}",
            "met" if v["met"] else "MISSED"] for v in verdicts])


def machine():
    with open("/proc/cpuinfo") as info:
        model = re.search(r"model name\s*: (.*)", info.read())
    return {"processor": model[1] if model else platform.processor(),
            "processors": os.cpu_count(), "kernel": platform.release(),
            "load": os.getloadavg()[0]}


def main():
    if sys.argv[1:] == ["--counts"]:
        counts()
        resident_32()
        print_verdicts()
        if not all(verdict["met"] for verdict in verdicts):
            explain()
            sys.exit(1)
        keep_profiles()
        return
    figures = {"date": datetime.date.today().isoformat(), "machine": machine()}
    with subprocess.Popen([DRIVE, "idle", str(IDLE_SECONDS)], stdout=subprocess.PIPE,
                          text=True) as idler:
        for name, measure in [("counts", counts), ("delay", lambda: delays("delay")),
                              ("shared", lambda: delays("shared")), ("micro", micro),
                              ("resident_32", resident_32), ("rate", lambda: drive("rate")),
                              ("growth", lambda: drive("growth"))]:
            print(f"== Measuring: {name}", flush=True)
            figures[name] = measure()
        figures["idle"] = json.loads(idler.communicate()[0])
    check_delays(figures)
    check_memory(figures)
    check_idle(figures["idle"])
    figures["targets"] = verdicts
    print_figures(figures)
    print_verdicts()
    for name in [f"{BUILD}/figures.json", *sys.argv[1:]]:
        with open(name, "w") as file:
            json.dump(figures, file, indent=1)


main()
