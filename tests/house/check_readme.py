#!/usr/bin/env python3
"""Holds the README to the tree: check_readme.py SOURCE-FOLDER

The program it shows is examples/FirstPacket.cpp to the letter, and every file it points to is there.
"""

import pathlib
import re
import sys

PROGRAM = "examples/FirstPacket.cpp"


def main():
    root = pathlib.Path(sys.argv[1])
    faults = []
    shown = re.search(r"```cpp\n(.*?)```", (root / "README.md").read_text(encoding="utf-8"), re.DOTALL)
    if shown is None:
        faults.append("README.md shows no program")
    elif shown[1] != (root / PROGRAM).read_text(encoding="utf-8"):
        faults.append(f"the program in README.md is not {PROGRAM}")
    for document in [root / "README.md", *sorted((root / "docs").rglob("*.md"))]:
        text = document.read_text(encoding="utf-8")
        for target in re.findall(r"\]\(([^)#]+)(?:#[^)]*)?\)", text):
            if "://" not in target and not (document.parent / target).exists():
                faults.append(f"{document.relative_to(root)} points to {target}, which is not there")
        # Files named in backticks, from the root of the tree.
        for target in re.findall(r"`((?:mivra|tools|tests|scripts|docs|examples|fuzz|benchmarks|cmake)/[\w./-]+)`", text):
            if not (root / target).exists():
                faults.append(f"{document.relative_to(root)} names {target}, which is not there")
    print("\n".join(faults))
    print(f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
