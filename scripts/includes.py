#!/usr/bin/env python3
"""Checks that every folder includes only from the folders that its libraries depend on, and that no
files include each other in a circle.

The CMakeLists.txt of each folder defines what it depends on. Nothing includes from app/, the router.
A header and the source of the same name count as one file."""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
# Tests and benchmarks may include everything.
FREE = ("tests", "fuzz", "bench")


def read_links():
    """The folder of each library, and what the libraries and programs of each folder link."""
    folder_of, links = {}, {}
    call = re.compile(r"^\s*(add_library|target_link_libraries|orvex_library|orvex_program)\(([^)]*)\)", re.M)
    for path in ROOT.glob("**/CMakeLists.txt"):
        folder = path.parent.relative_to(ROOT).as_posix()
        if folder.startswith(("build", *FREE)):
            continue
        for name, text in call.findall(path.read_text(encoding="utf-8")):
            words = text.split()
            if name.endswith("_library"):
                folder_of[words[0]] = folder
            links.setdefault(folder, set()).update(words[1:])
    return folder_of, links


def reachable(folder, folder_of, links):
    seen, waiting = set(), [folder]
    while waiting:
        at = waiting.pop()
        if at not in seen:
            seen.add(at)
            waiting += [folder_of[name] for name in links.get(at, ()) if name in folder_of]
    return seen


def read_includes():
    """For each C++ file, the project's files that it includes."""
    names = subprocess.run(["git", "-C", ROOT, "ls-files", "*.h", "*.cpp"], check=True,
                           stdout=subprocess.PIPE, encoding="utf-8").stdout.split()
    include = re.compile(r'^#include "(.*/.*)"', re.M)
    return {name: include.findall((ROOT / name).read_text(encoding="utf-8"))
            for name in names if (ROOT / name).exists()}


def find_upward(includes):
    """Includes from folders that the file's own folder does not depend on."""
    folder_of, links = read_links()
    for name, included in includes.items():
        folder = name.rpartition("/")[0]
        if folder.startswith(FREE):
            continue
        allowed = reachable(folder, folder_of, links) - {"app"} | {folder}
        for header in included:
            if header.rpartition("/")[0] not in allowed:
                yield f"{name}: {folder} does not depend on what it includes: {header}"


def find_circles(includes):
    """Files from which includes lead back to themselves."""
    stem = lambda name: name.rpartition(".")[0]
    graph = {}
    for name, included in includes.items():
        graph.setdefault(stem(name), set()).update(map(stem, included))

    def leads_to(start):
        seen, waiting = set(), list(graph[start] - {start})
        while waiting:
            at = waiting.pop()
            if at not in seen:
                seen.add(at)
                waiting += graph.get(at, ())
        return seen

    reached = {name: leads_to(name) for name in graph}
    circles = {tuple(sorted({name} | {other for other in reached[name] if name in reached.get(other, ())}))
               for name in graph if name in reached[name]}
    return [f"a circle of includes: {' '.join(circle)}" for circle in sorted(circles)]


def main():
    if sys.argv[1:] in (["--help"], ["-h"]):
        print(__doc__.strip())
        return 0
    includes = read_includes()
    wrong = [*find_upward(includes), *find_circles(includes)]
    print("".join(f"{text}\n" for text in wrong), end="")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
