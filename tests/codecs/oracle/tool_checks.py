"""Streams through the command line tool, held against what FFmpeg says of them."""

import json
import pathlib
import subprocess
import tempfile

import h264_checks
import references
import streams

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
    with tempfile.TemporaryDirectory() as folder:
        filled = [stream for stream in videos if stream.name == "cbr"]
        for stream in some(videos, 18) + filled:
            converted_video(compare, tool, stream, pathlib.Path(folder))
        for stream in some(audios, 10):
            converted_audio(compare, tool, stream, pathlib.Path(folder))
        for i, stream in enumerate(some(videos[1:], 11)):
            edited(compare, tool, stream, pathlib.Path(folder), "mp4" if i % 2 else "h264")


def some(every, count):
    return every[::len(every) // (count * 5 if streams.SOAK else count)]


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


def converted_video(compare, tool, stream, folder):
    tool("convert", stream.folder / "stream.mp4", folder / "out.h264", "--to", "annexb")
    theirs = references.units((stream.folder / "again.h264").read_bytes())
    compare.same(stream.name, "converted to Annex B", references.units((folder / "out.h264").read_bytes()),
                 h264_checks.without_filler(compare, stream.name, theirs))
    tool("convert", stream.folder / "stream.h264", folder / "out.mp4", "--to", "avcc")
    compare.same(stream.name, "converted to a record", references.record(folder / "out.mp4")[1], stream.record)
    # What the record says already is not said again.
    bare = h264_checks.samples(stream.folder / "bare.mp4")
    if bare != stream.samples:
        compare.meant("parameter sets in samples", stream.name)
    compare.same(stream.name, "samples converted", h264_checks.samples(folder / "out.mp4"), bare)


def converted_audio(compare, tool, stream, folder):
    if stream.described:
        return
    tool("convert", stream.folder / "stream.m4a", folder / "out.aac", "--to", "adts")
    compare.same(stream.name, "converted to ADTS", (folder / "out.aac").read_bytes(), stream.adts)
    tool("convert", stream.folder / "stream.aac", folder / "out.m4a", "--to", "asc")
    compare.same(stream.name, "converted to a configuration", references.audio_config(folder / "out.m4a"), stream.again)
    compare.same(stream.name, "frames converted", references.samples(folder / "out.m4a"), stream.samples)


def edited(compare, tool, stream, folder, form):
    """What players see of an edited stream: the size, the aspect ratio, the pictures cut out."""
    told = dict(references.elements(next(unit for kind, unit in stream.traced if kind.startswith("Seq"))))
    left, right, top, bottom = stream.video.crop
    coded = ((told["pic_width_in_mbs_minus1"] + 1) * 16,
             (told["pic_height_in_map_units_minus1"] + 1) * 16 * (2 - told["frame_mbs_only_flag"]))
    size = [coded[0] - left - right, coded[1] - top - bottom]
    out, source = folder / f"edited.{form}", stream.folder / f"stream.{form}"
    tool("sps", source, "--crop", f"{left},{right},{top},{bottom}", "--aspect", stream.video.aspect.replace("/", ":"),
         "-o", out)
    seen = json.loads(subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-of", "json", out], check=True,
                                     capture_output=True).stdout)["streams"][0]
    compare.same(f"{stream.name}.{form} edited", "size and aspect", [seen["width"], seen["height"],
                 h264_checks.ratio(seen["sample_aspect_ratio"])], [*size, h264_checks.ratio(stream.video.aspect)])
    whole = folder / f"whole.{form}"
    tool("sps", source, "--crop", "0,0,0,0", "-o", whole)
    compare.same(f"{stream.name}.{form} edited", "pictures", streams.decoded(out),
                 streams.decoded(whole, "-vf", f"crop={size[0]}:{size[1]}:{left}:{top}:exact=1"))
    if "frame_crop_right_offset" not in told:
        compare.same(f"{stream.name}.{form} edited", "whole pictures", streams.decoded(whole), streams.decoded(source))
