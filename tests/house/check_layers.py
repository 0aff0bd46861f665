#!/usr/bin/env python3
"""Checks who includes whom: check_layers.py SOURCE-FOLDER LIST-OF-PUBLIC-HEADERS

Every rule that is broken is one line, and the exit code 1.
"""

import graphlib
import pathlib
import re
import sys

# The floor of each folder; a file includes its own floor or a lower one. The longest match counts.
FLOORS = {
    "mivra/platform": 0,
    "mivra/crypto": 1,
    "mivra/network": 1,
    "mivra/common/runtime": 1,
    "mivra/common/identity": 1,
    "mivra/common/buffers": 2,
    "mivra/common/binary": 3,
    "mivra/transport": 3,
    "mivra/common/model": 4,
    "mivra/common": 5,
    "mivra/codecs": 5,
    "mivra/media": 6,
    "mivra/ffmpeg": 7,
    "mivra/mediafoundation": 7,
}
UMBRELLA = "mivra/mivra.h"

# The source files that may look up a floor, and where to. This list may only shrink.
LOOKS_UP = {
    "mivra/common/buffers/PacketBuffer.cpp": ("mivra/common/model/",),
    "mivra/common/model/MediaTypeCodecs.cpp": ("mivra/codecs/",),
    "mivra/media/DecoderFactory.cpp": ("mivra/ffmpeg/", "mivra/mediafoundation/"),
    "mivra/media/EncoderFactory.cpp": ("mivra/ffmpeg/", "mivra/mediafoundation/"),
}
MOST_EXCEPTIONS = 4

# What the tool may use beside the public headers: nothing of it stands in the shared library.
HEADERS_ONLY = {"mivra/common/runtime/Reference.h"}

# What a public header never shows to its users.
FOREIGN = re.compile(r"(openssl|libav\w+|libsw\w+|boost|curl|uuid|spdlog|nlohmann|CLI|gtest)/")

# What goes through Platform::System() everywhere else, and the locks that are a CritSec.
SEAM = re.compile(
    r"std::chrono::\w+_clock|\b(?:clock_gettime|gettimeofday|nanosleep|usleep|poll|select|dlopen|dlsym|fcntl)\s*\("
    r"|this_thread::sleep|new std::thread|std::thread\s*[({]|std::jthread|std::async|\bpthread_\w+"
    r"|std::(?:recursive_)?(?:timed_)?mutex|std::shared_mutex|std::condition_variable|std::lock_guard|std::unique_lock"
    r"|std::scoped_lock|(?<![\w.>])(?:std::)?(?:malloc|calloc|realloc|fopen)\s*\("
    r"|(?<![\w.>:])::(?:open|close|read|write|pread|pwrite|lseek|rename|unlink|mkdir|send|recv|socket)\s*\("
)
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
TEXT = re.compile(r'"(?:\\.|[^"\\\n])*"')

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def floor_of(name):
    matches = [folder for folder in FLOORS if name.startswith(folder + "/")]
    return FLOORS[max(matches, key=len)] if matches else None


def includes_of(path):
    return [match.groups() for match in INCLUDE.finditer(path.read_text(encoding="utf-8"))]


def check_floors(files):
    for name, includes in files.items():
        own = floor_of(name)
        if name == UMBRELLA:
            continue
        if own is None:
            yield f"{name}: stands in no folder of the table of floors"
            continue
        for _, target in includes:
            if not target.startswith("mivra/"):
                continue
            other = floor_of(target)
            if other is None:
                yield f"{name}: includes {target}, which is for applications or has no floor"
            elif other > own and not target.startswith(LOOKS_UP.get(name, ("none",))):
                yield f"{name} (floor {own}) looks up at {target} (floor {other})"


def check_form(files):
    for name, includes in files.items():
        for bracket, target in includes:
            if bracket == '"' and not target.startswith(("mivra/", "tests/")):
                yield f'{name}: "{target}" is not written from the root, as "mivra/..."'
            if target.startswith("mivra/") and bracket == "<":
                yield f"{name}: includes {target} like a file of the system"
            if target.startswith("tests/"):
                yield f"{name}: the library includes its tests"


def check_codecs(files):
    for name, includes in files.items():
        own = re.match(r"mivra/codecs/(\w+)/", name)
        for _, target in includes if own else []:
            other = re.match(r"mivra/codecs/(\w+)/", target)
            if other and other[1] != own[1]:
                yield f"{name}: a codec includes another, {target}"


def check_cycles(headers):
    try:
        graphlib.TopologicalSorter({name: [target for _, target in includes if target in headers]
                                    for name, includes in headers.items()}).prepare()
    except graphlib.CycleError as cycle:
        yield "cycle: " + " <- ".join(cycle.args[1])


def check_public(files, public):
    for name in sorted(public):
        if name not in files:
            yield f"{name}: is listed as public and does not exist"
            continue
        if name.startswith("mivra/platform/"):
            yield f"{name}: the platform floor is not installed"
        for _, target in files[name]:
            if target.startswith("mivra/") and target not in public:
                yield f"{name}: a public header includes {target}, which is not installed"
            if FOREIGN.match(target):
                yield f"{name}: a public header shows {target} to its users"
    shown = [target for _, target in files[UMBRELLA]]
    for name in sorted(set(shown) ^ (public - {UMBRELLA})):
        yield f"{UMBRELLA}: {'includes ' + name + ', which is not public' if name in shown else name + ' is missing'}"
    if len(shown) != len(set(shown)):
        yield f"{UMBRELLA}: a header stands in it twice"


def check_seam(root, files):
    """Faults and time can be injected only where the table of system calls is used, and not beside it."""
    for name in files:
        if name.startswith("mivra/platform/"):
            continue
        text = COMMENT.sub("", TEXT.sub('""', (root / name).read_text(encoding="utf-8")))
        for call in sorted(set(SEAM.findall(text))):
            yield f"{name}: {call.strip()} goes past Platform::System() or CritSec"


def check_outside(root, public):
    """The tool and the examples live on the public headers, as any application does."""
    for path in sorted([*root.glob("tools/**/*.[ch]*"), *root.glob("examples/**/*.[ch]*")]):
        for _, target in includes_of(path):
            if target.startswith("mivra/") and target not in public | HEADERS_ONLY:
                yield f"{path.relative_to(root)}: includes {target}, which is not installed"


def check_exceptions(files):
    if len(LOOKS_UP) > MOST_EXCEPTIONS:
        yield f"more than {MOST_EXCEPTIONS} files may look up a floor"
    used = [
        name
        for name in LOOKS_UP
        if any((floor_of(target) or 0) > floor_of(name) for _, target in files.get(name, []))
    ]
    print(f"looking up a floor, of {len(LOOKS_UP)} that may: {', '.join(used) or 'none'}")


def main():
    root = pathlib.Path(sys.argv[1])
    public = {
        str(pathlib.Path(line).relative_to(root))
        for line in pathlib.Path(sys.argv[2]).read_text(encoding="utf-8").split("\n")
        if line
    }
    files = {
        str(path.relative_to(root)): includes_of(path)
        for pattern in ("*.h", "*.cpp")
        for path in sorted((root / "mivra").rglob(pattern))
    }
    headers = {name: includes for name, includes in files.items() if name.endswith(".h")}
    faults = [
        *check_floors(files),
        *check_form(files),
        *check_codecs(files),
        *check_cycles(headers),
        *check_public(files, public),
        *check_seam(root, files),
        *check_outside(root, public),
        *check_exceptions(files),
    ]
    print("\n".join(faults))
    print(f"{len(files)} files, {len(public)} public headers, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
