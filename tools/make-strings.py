#!/usr/bin/env python3
"""Builds the language string files of the server from their UTF-8 sources.

resources/strings-XX.src (UTF-8, one entry a line, '#' comments and blank
lines allowed) becomes resources/strings-XX.txt: UTF-16LE behind the FF FE
mark, CRLF line ends, and a final line end, which the loader drops.

Each key needs a text line "|key|text" and a help line "|key?help". English
is the reference: every other language must have exactly its keys. Texts
are checked for what would break a lookup: control characters, and a piece
like "|name|" or "|name?" that would be found in place of the real entry.

Usage: tools/make-strings.py [--check] [LANG ...]   (default: every .src)
  --check  builds in memory and fails if a .txt file differs from its source
"""
import re
import sys
from pathlib import Path

RESOURCES = Path(__file__).resolve().parent.parent / "resources"
ENTRY = re.compile(r"^\|([A-Za-z0-9_]+)([|?])(.*)$")


def fail(where, message):
    sys.exit(f"{where}: {message}")


def parse(path):
    """Returns {key: {'|': text, '?': help}} in file order."""
    entries = {}
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        where = f"{path.name}:{number}"
        if not line.strip() or line.startswith("#"):
            continue
        m = ENTRY.match(line)
        if not m:
            fail(where, "expected |key|text or |key?help")
        key, mark, text = m.groups()
        if any(ord(c) < 32 for c in text):
            fail(where, "control character in the text")
        if not text.strip():
            fail(where, "empty text")
        if mark in entries.setdefault(key, {}):
            fail(where, f"second {'text' if mark == '|' else 'help'} line for {key}")
        entries[key][mark] = text
    for key, lines in entries.items():
        for mark, kind in (("|", "text"), ("?", "help")):
            if mark not in lines:
                fail(path.name, f"{key} has no {kind} line")
    return entries


def check_lookups(path, entries):
    """A text holding "|key|" or "|key?" of any key would answer its lookup."""
    for key, lines in entries.items():
        for text in lines.values():
            for other in entries:
                if f"|{other}|" in text or f"|{other}?" in text:
                    fail(path.name, f"text of {key} holds the lookup of {other}")


def render(entries):
    lines = []
    for key, lines_of_key in entries.items():
        lines.append(f"|{key}|{lines_of_key['|']}")
        lines.append(f"|{key}?{lines_of_key['?']}")
    return b"\xff\xfe" + "".join(line + "\r\n" for line in lines).encode("utf-16-le")


def main(arguments):
    check = "--check" in arguments
    wanted = [a for a in arguments if a != "--check"]
    sources = sorted(RESOURCES.glob("strings-*.src"))
    if wanted:
        sources = [RESOURCES / f"strings-{code}.src" for code in wanted]
    reference = parse(RESOURCES / "strings-en.src")
    stale = []
    for source in sources:
        entries = parse(source)
        check_lookups(source, entries)
        missing = reference.keys() - entries.keys()
        extra = entries.keys() - reference.keys()
        if missing or extra:
            fail(source.name, f"keys differ from English: missing {sorted(missing)}, extra {sorted(extra)}")
        data = render(entries)
        target = source.with_suffix(".txt")
        if check:
            if not target.exists() or target.read_bytes() != data:
                stale.append(target.name)
        else:
            target.write_bytes(data)
            print(f"{target.name}: {len(entries)} keys")
    if stale:
        sys.exit("out of date: " + ", ".join(stale))


if __name__ == "__main__":
    main(sys.argv[1:])
