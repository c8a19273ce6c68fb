#!/usr/bin/env python3
"""Fails when a file under src/ includes a header of a higher floor.

The folders of src/ stand in floors, from the ground up; a file may include
its own floor and the floors below, never one above. Where a lower floor
must reach up, the upper one hands a function down at start instead.
Prints every offending include as file:line and exits 1 when there is one.
"""
import os
import re
import sys

FLOORS = ["runtime", "config", "database", "media", "http", "upnp", "admin", "control"]
INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def floor_of(path):
    first = path.split("/", 1)[0]
    return FLOORS.index(first) if first in FLOORS else None


def check(src):
    bad = []
    for root, _, files in os.walk(src):
        for name in sorted(files):
            path = os.path.join(root, name)
            own = floor_of(os.path.relpath(path, src))
            if own is None:
                continue
            with open(path, encoding="utf-8", errors="replace") as f:
                for number, line in enumerate(f, 1):
                    m = INCLUDE.match(line)
                    target = floor_of(m.group(1)) if m else None
                    if target is not None and target > own:
                        bad.append(f"{path}:{number}: includes {m.group(1)} from a higher floor")
    return bad


def main():
    top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    src = sys.argv[1] if len(sys.argv) > 1 else os.path.join(top, "src")
    bad = check(src)
    for line in bad:
        print(line)
    if bad:
        print(f"{len(bad)} include(s) run up a floor")
        return 1
    print("floors: every include points down")
    return 0


if __name__ == "__main__":
    sys.exit(main())
