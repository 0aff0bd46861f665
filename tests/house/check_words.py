#!/usr/bin/env python3
"""Looks through every tracked file for what does not belong: check_words.py SOURCE-FOLDER

Paths of somebody's machine, addresses but those listed, marks of an unfinished merge, tabs and blanks at line ends.
"""

import pathlib
import re
import subprocess
import sys

ADDRESSES = ("https://www.itu.int/", "https://www.iso.org/", "https://www.rfc-editor.org/", "https://ffmpeg.org/")

# Brackets keep this file from finding itself.
FORBIDDEN = [
    (re.compile(r"(^|[^\w.}$])/[w]ork/"), "a path of one machine"),
    (re.compile(r"(^|[^\w.])/([h]ome|[r]oot|[U]sers)/\w"), "a path of one machine"),
    (re.compile(r"^(<{7}|>{7}) "), "a mark of an unfinished merge"),
    (re.compile(r"[ \t]+$"), "blanks at the end"),
    (re.compile(r"\b([T]ODO|[F]IXME|[X]XX)\b"), "something unfinished"),
    (re.compile(r"\b[n]pmjs\b|\b[p]ypi\b|\b[a]rtifactory\b|[p]roxy\.golang"), "a registry"),
]
ADDRESS = re.compile(r"\b(?:https?|ftp)://[\w.-]+\.[a-z]{2,}/?")
# Names that stand for no host, as tests of addresses use them.
EXAMPLE = re.compile(r"://([\w.-]*\.)?(example(\.\w+)?|test|invalid|localhost)/?$")


def main():
    root = pathlib.Path(sys.argv[1])
    listing = subprocess.run(["git", "-C", root, "ls-files", "-z"], capture_output=True, text=True)
    if listing.returncode != 0:
        print("skipped: this is no working copy of git")
        return 77
    faults, looked = [], 0
    for name in filter(None, listing.stdout.split("\0")):
        path = root / name
        if not path.is_file() or name.startswith("fuzz/corpus/"):
            continue
        try:
            lines = path.read_text(encoding="utf-8").split("\n")
        except UnicodeDecodeError:
            faults.append(f"{name}: is not text")
            continue
        looked += 1
        for number, line in enumerate(lines, 1):
            faults += [f"{name}:{number}: {what}" for form, what in FORBIDDEN if form.search(line)]
            for address in ADDRESS.findall(line):
                if not EXAMPLE.search(address) and not address.startswith(ADDRESSES):
                    faults.append(f"{name}:{number}: the address {address}")
    print("\n".join(faults))
    print(f"{looked} files, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
