#!/usr/bin/env python3
"""Checks that every folder includes only from the folders that its libraries depend on.

The CMakeLists.txt of each folder defines what it depends on. Nothing includes from app/, the router.
"""

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


def main():
    folder_of, links = read_links()
    files = subprocess.run(["git", "-C", ROOT, "ls-files", "*.h", "*.cpp"], check=True,
                           stdout=subprocess.PIPE, encoding="utf-8").stdout.split()
    wrong = 0
    for name in files:
        folder = name.rpartition("/")[0]
        if folder.startswith(FREE):
            continue
        allowed = reachable(folder, folder_of, links) - {"app"} | {folder}
        for line in (ROOT / name).read_text(encoding="utf-8").splitlines():
            found = re.match(r'#include "(.*)/([^/]*)"', line)
            if found and found[1] not in allowed:
                print(f"{name}: {folder} does not depend on {found[1]}: {line}")
                wrong += 1
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
