#!/usr/bin/env python3
"""Holds what `mivra relay` writes against what `ffmpeg -c copy` writes, packet by packet: bytes, order, times
and key flags of every input in every output. check_fidelity.py MIVRA FOLDER-FOR-INPUTS [PART PARTS]

What differs on purpose is in docs/relay-fidelity.md."""

import concurrent.futures
import pathlib
import subprocess
import sys
import tempfile

import relay_inputs

MIVRA = pathlib.Path(sys.argv[1])
INPUTS = relay_inputs.make(sys.argv[2])
OUTPUTS = ["ts", "mp4", "mkv", "flv", "h264", "aac"]

# Inputs that cannot be read whole: what can be read is compared all the same.
DAMAGED = {"jump.ts"}
# No H.264 or AAC in it, for the outputs that take nothing else.
NOTHING_TO_TAKE = {("mpeg2.ts", "flv"), ("mpeg2.ts", "h264"), ("mpeg2.ts", "aac")}
# One of each kind is all that these hold; the program chooses them by itself there.
ONE_OF_EACH = {"flv", "h264", "aac"}


def packets(path):
    return subprocess.run(
        ["ffprobe", "-v", "error", "-show_packets", "-show_data_hash", "sha256", "-show_entries",
         "packet=stream_index,pts,dts,duration,size,flags,data_hash", "-of", "csv", path],
        capture_output=True, text=True, check=True).stdout.splitlines()


def difference(ours, theirs):
    if ours.read_bytes() == theirs.read_bytes():
        return None
    a, b = packets(ours), packets(theirs)
    if not b:
        return "the reference has no packets"
    for i, (mine, reference) in enumerate(zip(a, b)):
        if mine != reference:
            return f"packet {i}: {mine} instead of {reference}"
    return None if len(a) == len(b) else f"{len(a)} packets instead of {len(b)}"


def compare(source, extension, folder):
    ours, theirs = folder / f"{source.name}.{extension}", folder / f"{source.name}.reference.{extension}"
    done = subprocess.run([MIVRA, "relay", source, ours], capture_output=True, text=True, timeout=120)
    if (source.name, extension) in NOTHING_TO_TAKE:
        return None if done.returncode == 3 and not ours.exists() else f"exit code {done.returncode}"
    if done.returncode != (5 if source.name in DAMAGED else 0):
        return f"exit code {done.returncode}: {done.stderr}"
    choice = [] if extension in ONE_OF_EACH else ["-map", "0"]
    subprocess.run(["ffmpeg", "-nostdin", "-v", "fatal", "-y", "-i", source, "-c", "copy", *choice, theirs],
                   check=True)
    return difference(ours, theirs)


def main():
    sources = sorted(path for path in INPUTS.iterdir() if path.suffix)
    pairs = [(source, extension) for source in sources for extension in OUTPUTS]
    failures = 0
    with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(2) as pool:
        results = pool.map(lambda pair: compare(*pair, pathlib.Path(folder)), pairs)
        for (source, extension), result in zip(pairs, results):
            if result is not None:
                failures += 1
                print(f"{source.name} to .{extension}: {result}")
    print(f"{len(pairs) - failures} of {len(pairs)} pairs of input and output are equal")
    return 1 if failures or len(pairs) < 80 else 0


sys.exit(main())
