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


def main():
    program, tool, folder, document = map(pathlib.Path, sys.argv[1:])
    compare, driver = comparison.Comparison(), comparison.Driver(program)
    every = streams.make(folder)
    for stream, place in every:
        checks = h264_checks if isinstance(stream, streams.Video) else aac_checks
        checks.check(compare, driver, checks.Stream(stream, place))
    compare.same("the driver", "exit code", driver.end(), 0)
    print(len(every), "streams")
    return compare.finish(document, least=100 * len(every))


sys.exit(main())
