"""Runs worlds (tests/world), several at a time, and prints what came of them: see scripts/simulate."""
import argparse
import collections
import concurrent.futures
import os
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORLD = os.path.join(ROOT, "build/release/tests/world")
KEPT = os.path.join(ROOT, "tests/world/seeds")
MONTH = 30  # days that one world lasts: a longer time is several worlds, with one seed after the other
DAY = 86400


class Difference(Exception):
    pass


class Progress:
    """One line on a terminal that follows all worlds; on anything else nothing."""

    def __init__(self, days):
        self.days = days
        self.worlds = {}
        self.lock = threading.Lock()
        self.shown = 0.0

    def update(self, world, seconds, events, faults):
        with self.lock:
            self.worlds[world] = (seconds, events, faults)
            if sys.stderr.isatty() and time.monotonic() - self.shown > 0.1:
                self.shown = time.monotonic()
                seconds, events, faults = (sum(column) for column in zip(*self.worlds.values()))
                done = min(seconds / DAY / self.days, 1)
                print(f"\r[{'#' * int(done * 30):30}] {seconds / DAY:6.1f} of {self.days:g} days  "
                      f"{events:,} events  {faults:,} faults ", end="", file=sys.stderr, flush=True)

    def end(self):
        if sys.stderr.isatty():
            print("\r\033[K", end="", file=sys.stderr, flush=True)


def live(seed, days, progress):
    """Runs one world. Returns what it counted and its last line."""
    counts = collections.Counter()
    command = [WORLD, f"{days:g}", str(seed)]
    said = []
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, errors="replace") as process:
        for line in process.stdout:
            word, _, rest = line.rstrip("\n").partition(" ")
            if word in ("progress", "done"):
                progress.update(seed, *(int(number) for number in rest.split()[:3]))
            if word == "count":
                number, what = rest.split(" ", 1)
                counts[what] += int(number)
            elif word != "progress":
                said.append(line)
    if process.returncode != 0:
        raise Difference("".join(said) or f"The world died with status {process.returncode}.\n"
                         f"To repeat: scripts/simulate --seed {seed} --days {days:g}")
    return counts, said[-1].split()


def print_table(counts, lives):
    seconds, events, faults = (sum(int(life[column]) for life in lives) for column in (1, 2, 3))
    traces = " ".join(life[4] for life in lives[:3]) + (" ..." if len(lives) > 3 else "")
    print(f"{seconds / DAY:.1f} days, {events:,} events, {faults:,} faults; hash of the trace {traces}")
    group = ""
    for what, count in sorted(counts.items()):
        kind, _, name = what.partition(": ")
        if kind != group and name:
            print(f"{kind}:")
            group = kind
        print(f"{count:14,}  {name or kind}")


def simulate(worlds, jobs):
    progress = Progress(sum(days for _, days in worlds))
    counts, lives = collections.Counter(), []
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        futures = [pool.submit(live, seed, days, progress) for seed, days in worlds]
        try:
            for future in futures:
                counted, last = future.result()
                counts += counted
                lives.append(last)
        except Difference as difference:
            pool.shutdown(cancel_futures=True)
            progress.end()
            print(difference)
            return 1
    progress.end()
    print_table(counts, lives)
    print(f"No difference. It took {time.monotonic() - start:.0f} s.")
    return 0


def kept_worlds():
    with open(KEPT, encoding="utf-8") as seeds:
        lines = [line.split("#")[0].split() for line in seeds]
    return [(int(line[0]), float(line[1])) for line in lines if line]


def main():
    parser = argparse.ArgumentParser(prog="simulate", add_help=False)
    parser.add_argument("--days", type=float, default=30)
    parser.add_argument("--seed", type=int, default=time.time_ns() // 1000000 % 1000000000)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--kept", action="store_true")
    options = parser.parse_args()
    if options.days <= 0 or options.seed < 0 or options.jobs < 1:
        parser.error("days and jobs are above 0, a seed is not below")
    if options.kept:
        print("== simulate: the kept seeds")
        return simulate(kept_worlds(), options.jobs)
    print(f"== simulate: {options.days:g} days, seed {options.seed}")
    count = int(-(-options.days // MONTH))
    return simulate([(options.seed + i, min(MONTH, options.days - i * MONTH)) for i in range(count)],
                    options.jobs)


if __name__ == "__main__":
    sys.exit(main())
