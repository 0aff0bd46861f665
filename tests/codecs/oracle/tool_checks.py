"""Streams through the command line tool, held against what FFmpeg says of them."""

import json
import subprocess

import h264_checks
import references

NAMES = {1: "Slice", 5: "SliceIdr", 6: "Sei", 7: "SequenceParameterSet", 8: "PictureParameterSet",
         9: "AccessUnitDelimiter", 12: "FillerData"}


class Tool:
    def __init__(self, program):
        self.program = program

    def __call__(self, *words, code=0):
        done = subprocess.run([self.program, *map(str, words)], capture_output=True, text=True, timeout=300)
        if done.returncode != code:
            raise RuntimeError(f"{words}: exit code {done.returncode}: {done.stderr}")
        return done.stdout


def check(compare, tool, videos, audios):
    probe(compare, tool, [(stream, form) for stream in videos for form in ("h264", "mp4")], probed_video)
    probe(compare, tool, [(stream, form) for stream in audios for form in ("m4a", "aac")], probed_audio)


def probe(compare, tool, files, probed):
    """One process for hundreds of files; it tells an object a line."""
    for start in range(0, len(files), 500):
        some = files[start:start + 500]
        told = tool("probe", "--json", "--nal", "--sdp", *(stream.folder / f"stream.{form}" for stream, form in some))
        for (stream, form), line in zip(some, told.splitlines(), strict=True):
            file = json.loads(line)
            probed(compare, f"{stream.name}.{form} probed", stream, form, file["streams"][0], file.get("packets"))


def described(compare, where, stream, lines):
    ours, theirs = references.session(lines), references.session((stream.folder / "stream.sdp").read_text().splitlines())
    if theirs["profile-level-id"] == "1" and ours.get("profile-level-id") in ("40", "41", "42", "43", "254"):
        compare.meant("audio profile levels", where)
        del theirs["profile-level-id"]
    for name, value in theirs.items():
        compare.same(where, name, ours.get(name, "").lower() if name == "config" else ours.get(name),
                     value.lower() if name == "config" else value)


def probed_video(compare, where, stream, form, told, packets):
    ours, theirs = told["h264"], stream.probe
    sets = {kind: references.elements(unit) for kind, unit in reversed(stream.traced)}
    compare.same(where, "sets", [(one["kind"], [(element["name"], element["value"]) for element in one["elements"]])
                                 for one in ours["sets"]],
                 [("sps", sets["Sequence Parameter Set"]), ("pps", sets["Picture Parameter Set"])])
    compare.same(where, "form", [ours["form"], ours["lengthSize"]], ["avcc", 4] if form == "mp4" else ["annexb", None])
    aspect = h264_checks.ratio(theirs.get("sample_aspect_ratio", "0/0"))
    for what, mine, reference in (
            ("codecs", told["codecs"], references.codecs(stream.folder)), ("width", ours["width"], theirs["width"]),
            ("height", ours["height"], theirs["height"]), ("level", ours["level"], theirs["level"]),
            ("profile", ours["profile"], h264_checks.PROFILES[theirs["profile"]]),
            ("rate", h264_checks.ratio(ours["frameRate"]), h264_checks.ratio(theirs["r_frame_rate"])),
            ("aspect", h264_checks.ratio(ours["aspectRatio"] or "0/0"), aspect)):
        compare.same(where, what, mine, reference)
    if ours["reordering"]["exact"]:
        compare.same(where, "depth", ours["reordering"]["depth"], theirs["has_b_frames"])
    if not stream.padded:
        described(compare, where, stream, told["sdp"])
        listed(compare, where, stream, form, packets)


def listed(compare, where, stream, form, packets):
    """The units of every packet, as trace_headers sees them."""
    traced = [dict(unit) for _, unit in stream.traced if unit[0][0] == "forbidden_zero_bit"]
    for packet, picture, flags in zip(packets, stream.pictures, (one["flags"] for one in stream.packets), strict=True):
        want, at = [], 0
        starts = [len(found[0]) for found in references.START_CODE.finditer(picture)]
        for unit, code in zip(references.units(picture), starts, strict=True):
            at += 4 if form == "mp4" else code
            header = traced.pop(0)
            kind = ", " + "PBI"[header["slice_type"] % 5] if "slice_type" in header else ""
            want.append(f"{at}: {NAMES[header['nal_unit_type']]}, {len(unit)} bytes, ref {header['nal_ref_idc']}{kind}")
            at += len(unit)
        compare.same(where, "units", packet["units"], want)
        compare.same(where, "key", packet["key"], flags.startswith("K"))


def probed_audio(compare, where, stream, form, told, packets):
    ours = told["aac"]
    described_layout = None if stream.described else stream.channels
    compare.same(where, "stream", [told["codecs"], ours["objectType"], ours["sampleRate"], ours["channels"], ours["form"]],
                 [references.codecs(stream.folder), stream.profile, stream.rate, described_layout,
                  "asc" if form == "m4a" else "adts"])
    if form == "m4a":
        compare.same(where, "configuration", ours["config"], stream.config.hex())
        described(compare, where, stream, told["sdp"])
    elif not stream.described:
        compare.same(where, "configuration", ours["config"], stream.again.hex())
