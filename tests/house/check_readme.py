#!/usr/bin/env python3
"""Holds the README to the tree: check_readme.py SOURCE-FOLDER [MIVRA]

The programs it shows are those of examples/ to the letter, every file it points to is there, and the commands it
shows for a shell do what they are for.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

PROGRAMS = ["examples/FirstPacket.cpp", "examples/Decode.cpp", "examples/EchoServer.cpp"]


def run_recipes(readme, mivra):
    """Each as it is pasted, but for where the program stands; every line has to succeed."""
    faults = []
    recipes = re.findall(r"```sh\n(.*?)```", readme, re.DOTALL)
    for recipe in recipes:
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(["bash", "-e", "-c", recipe.replace("./run ", f"'{mivra}' ")], cwd=folder, text=True,
                                  capture_output=True, stdin=subprocess.DEVNULL)
            if done.returncode != 0 or "duration=" not in done.stdout.splitlines()[-2]:
                faults.append(f"a recipe of README.md fails: {done.stdout}{done.stderr}")
    return faults if recipes else ["README.md shows no recipe"]


def main():
    root = pathlib.Path(sys.argv[1])
    faults = []
    readme = (root / "README.md").read_text(encoding="utf-8")
    if len(sys.argv) > 2:
        faults += run_recipes(readme, sys.argv[2])
    shown = re.findall(r"```cpp\n(.*?)```", readme, re.DOTALL)
    if shown != [(root / program).read_text(encoding="utf-8") for program in PROGRAMS]:
        faults.append(f"the programs in README.md are not {', '.join(PROGRAMS)}")
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
