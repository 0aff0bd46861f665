#!/usr/bin/env python3
"""Holds the codec parsers against FFmpeg, over streams that it makes: every element, every derived value, every
conversion. check_oracle.py DRIVER MIVRA FOLDER-FOR-STREAMS DOCUMENT

What differs on purpose is listed in the document, docs/codec-oracles.md. MIVRA_SOAK=1 takes a wider matrix."""

import pathlib
import sys

import aac_checks
import comparison
import h264_checks
import streams
import tool_checks


def main():
    program, tool, folder, document = map(pathlib.Path, sys.argv[1:])
    compare, driver = comparison.Comparison(), comparison.Driver(program)
    videos, audios = [], []
    for stream, place in streams.make(folder):
        checks, kind = (h264_checks, videos) if isinstance(stream, streams.Video) else (aac_checks, audios)
        kind.append(checks.Stream(stream, place))
        checks.check(compare, driver, kind[-1])
    compare.same("the driver", "exit code", driver.end(), 0)
    tool_checks.check(compare, tool_checks.Tool(tool), videos, audios)
    print(len(videos) + len(audios), "streams")
    return compare.finish(document, least=100 * len(videos))


sys.exit(main())
