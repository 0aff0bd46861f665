#!/usr/bin/env python3
"""Compares what the shared library shows with exports.txt:

    check_exports.py LIBRARY SOURCE-FOLDER          fails on any difference
    check_exports.py LIBRARY SOURCE-FOLDER --write  writes the list anew

The list holds demangled names. What compilers make beside the written code (tables of virtual functions, type
information, thunks, and the several bodies of one constructor) is left out, so that it is theirs to choose.
"""

import pathlib
import re
import subprocess
import sys

BESIDE = re.compile(
    r"^(vtable for|VTT for|construction vtable for|typeinfo for|typeinfo name for|guard variable for"
    r"|(non-)?virtual thunk to|covariant return thunk to) "
)
# "class MIVRA_API Name", also with annotations between, and "MIVRA_API ... Name(".
MARKED_CLASS = re.compile(r"\b(?:class|struct)\s+MIVRA_API\s+(?:MIVRA_\w+(?:\([^)]*\))?\s+)*(\w+)")
MARKED_FUNCTION = re.compile(r"\bMIVRA_API\b[^;{}=]*?\b(\w+|operator[^\s(]+)\s*\(")
MARKED_DATA = re.compile(r"\bMIVRA_API\b[^;{}()]*?\b(\w+)\s*(?:;|=|\[)")


def exported(library):
    command = ["nm", "--dynamic", "--defined-only", "--demangle", "--format=posix", library]
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    names = set()
    for line in output.splitlines():
        name = re.sub(r" [A-Za-z] [0-9a-f]+( [0-9a-f]+)?$", "", line)
        name = name.replace("[abi:cxx11]", "").replace("std::__cxx11::", "std::")
        if not BESIDE.match(name):
            names.add(name)
    return names


def marked(root):
    """The names that a header marks with MIVRA_API."""
    names = set()
    for header in (root / "mivra").rglob("*.h"):
        text = re.sub(r"//[^\n]*", "", header.read_text(encoding="utf-8"))
        for form in (MARKED_CLASS, MARKED_FUNCTION, MARKED_DATA):
            names.update(form.findall(text))
    return names


def is_marked(name, marks):
    """A name counts as marked when it, or a class around it, is."""
    path = re.sub(r"\(.*", "", name) if "operator()" not in name else name
    path = re.sub(r"<.*", "", path)
    return any(part.strip("~") in marks for part in path.split("::"))


def main():
    library, root = sys.argv[1], pathlib.Path(sys.argv[2])
    listing = root / "tests/house/exports.txt"
    found = exported(library)
    if "--write" in sys.argv:
        listing.write_text("".join(f"{name}\n" for name in sorted(found)), encoding="utf-8")
        print(f"{listing}: {len(found)} names")
        return 0
    expected = set(listing.read_text(encoding="utf-8").splitlines())
    marks = marked(root)
    faults = [f"shown and not in exports.txt: {name}" for name in sorted(found - expected)]
    faults += [f"in exports.txt and not shown: {name}" for name in sorted(expected - found)]
    faults += [f"shown without MIVRA_API: {name}" for name in sorted(found) if not is_marked(name, marks)]
    print("\n".join(faults))
    print(f"{len(found)} names, {len(faults)} faults")
    if found != expected:
        print("When the change is meant: scripts/update-exports")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
