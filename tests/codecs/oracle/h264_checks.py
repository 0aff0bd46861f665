"""A stream of H.264 through the library, held against what FFmpeg says of it."""

import base64
import itertools
import pathlib
import tempfile
from fractions import Fraction

import references
import streams

PROFILES = {"Constrained Baseline": 66, "Baseline": 66, "Main": 77, "High": 100, "High 10": 110, "High 10 Intra": 110,
            "High 4:2:2": 122, "High 4:2:2 Intra": 122, "High 4:4:4 Predictive": 244, "High 4:4:4 Intra": 244}
USER_DATA = 5
WITH_MESSAGES = {"main", "set-id", "tff", "cbr", "bluray"}
SETS = (7, 8)
FILLER = 12
LONG, SHORT = b"\0\0\0\1", b"\0\0\1"


class Stream:
    """Everything that FFmpeg says of it."""

    def __init__(self, video, folder):
        self.name, self.video, self.folder = video.name, video, folder
        self.bytes = (folder / "stream.h264").read_bytes()
        self.probe, self.packets = references.probe(folder)
        self.pictures = list(references.cut(self.bytes, [int(packet["size"]) for packet in self.packets]))
        self.samples = samples(folder / "stream.mp4")
        told, self.record = references.record(folder / "stream.mp4")
        self.padded = told != self.record
        units = references.units(self.bytes)
        self.sps = next(unit for unit in units if unit[0] & 31 == 7)
        self.pps = next(unit for unit in units if unit[0] & 31 == 8)
        self.sets = LONG + self.sps + LONG + self.pps
        self.traced = references.traced_units((folder / "trace.txt").read_text())


def samples(path):
    return [references.prefixed(references.prefixed_units(sample, 4)[0], 4) for sample in references.samples(path)]


def check(compare, driver, stream):
    if stream.padded:
        compare.meant("zeros behind units", stream.name)
    for part in (elements, derived, private_data, packets, refined, pictures, messages, edits):
        part(compare, driver, stream)


def elements(compare, driver, stream):
    told = {kind: references.elements(unit) for kind, unit in reversed(stream.traced)}
    theirs = {"sps": told["Sequence Parameter Set"], "pps": told["Picture Parameter Set"]}
    # Without start codes: lengths of a byte count what is left without emulation prevention; 0 is the rest.
    plain = stream.sps.replace(b"\0\0\3", b"\0\0")
    for form, data, flags in (("Annex B", stream.sets, 0), ("record", stream.record, 0),
                              ("units", bytes([9, 9, len(plain) & 255]) + stream.sps + bytes([9, 9, 0]) + stream.pps, 1)):
        if len(plain) > 255:
            continue
        ours = driver("parse", data=data, flags=flags)
        compare.same(stream.name, f"parse of {form}", ours.get("result"), 1)
        for kind in ("sps", "pps"):
            compare.same(stream.name, f"{kind} of {form}", ours["elements"][kind], [[*one] for one in theirs[kind]])
    ours = driver("parse", data=stream.sps)
    compare.same(stream.name, "one unit", [ours["result"], ours["elements"]["sps"]], [1, [[*one] for one in theirs["sps"]]])


def ratio(text):
    numerator, denominator = (int(part) for part in text.replace(":", "/").split("/"))
    return [*Fraction(numerator, denominator).as_integer_ratio()] if numerator and denominator else [0, 0]


def derived(compare, driver, stream):
    """What the program does not tell of its files, or only rounded."""
    ours, theirs = driver("parse", data=stream.sets), stream.probe
    told = dict(references.elements(next(unit for kind, unit in stream.traced if kind.startswith("Seq"))))
    rate = [0, 0]
    if told.get("timing_info_present_flag"):
        rate = [*Fraction(told["time_scale"], 2 * told["num_units_in_tick"]).as_integer_ratio()]
    compare.same(stream.name, "rate", ours["rate"], rate)
    compare.same(stream.name, "depth", ours["told"],
                 theirs["has_b_frames"] if told.get("bitstream_restriction_flag") else None)
    bitrate = 0
    if told.get("nal_hrd_parameters_present_flag"):
        bitrate = (told["bit_rate_value_minus1[0]"] + 1) << 6 + told["bit_rate_scale"]
        (maximum,) = [int(data["max_bitrate"]) for data in theirs.get("side_data_list", [])
                      if "max_bitrate" in data] or [bitrate]
        compare.same(stream.name, "maximum bit rate", ours["bitrates"][1], maximum)
    compare.same(stream.name, "bit rates", ours["bitrates"], [bitrate] * 2)


def private_data(compare, driver, stream):
    sets = {"sps": [stream.sps], "pps": [stream.pps]}
    for what, ours, theirs in (
            ("record of Annex B", driver("record", data=stream.sets), stream.record),
            ("record of a stream", driver("record", data=stream.pictures[0]), stream.record),
            ("record of two sets", driver("record", single=True, **sets), stream.record),
            ("record of lists", driver("record", **sets), stream.record),
            ("record of Annex B in a type", driver("private", private=stream.sets, to="avc"), stream.record),
            ("record of a record", driver("private", private=stream.record, to="avc"), stream.record),
            ("Annex B of lists", driver("record", annexb=True, **sets), stream.sets),
            ("Annex B of a record", driver("private", private=stream.record, to="annexb"), stream.sets),
            ("Annex B of Annex B", driver("private", private=stream.sets, to="annexb"), stream.sets)):
        compare.same(stream.name, what, (ours.get("done"), ours.get("private")), (True, theirs.hex()))
        compare.same(stream.name, what + ": codecs", ours.get("codecs"), references.codecs(stream.folder))
    parameters = dict(one.split("=", 1) for one in driver("describe", private=stream.record)["parameters"].split("&"))
    compare.same(stream.name, "SDP", parameters["privateDataSdp"],
                 ",".join(base64.b64encode(one).decode() for one in (stream.sps, stream.pps)))
    for data in (stream.sets, stream.record):
        ours = driver("find", data=data)
        compare.same(stream.name, "sets found", [ours["first"], ours["sps"], ours["pps"]],
                     [[stream.sps.hex(), stream.pps.hex()], [stream.sps.hex()], [stream.pps.hex()]])


def packets(compare, driver, stream):
    """Every packet both ways, with every size of a length."""
    taken_back = picture_by_picture(stream, "again.h264", [len(references.units(picture)) for picture in stream.pictures])
    for i, (picture, sample, theirs) in enumerate(zip(stream.pictures, stream.samples, taken_back, strict=True)):
        where = f"{stream.name} packet {i}"
        units = references.units(picture)
        compare.same(where, "sample", driver("packet", to="avc", data=picture)["data"], sample.hex())
        byte_stream(compare, where, driver("packet", to="annexb", data=sample), theirs)
        for size, drop in itertools.product((1, 2, 3, 4), (False, True)):
            kept = [unit for unit in units if not drop or unit[0] & 31 not in SETS]
            ours = driver("packet", to="avc", data=picture, length=size, drop=drop)
            fits = max(map(len, kept)) < 1 << 8 * size
            want = references.prefixed(kept, size) if fits else b""
            compare.same(where, f"length {size}", [ours.get("done"), ours.get("data")], [fits, want.hex()])
            if fits:
                back = driver("packet", to="annexb", data=want, length=size)
                compare.same(where, f"units of length {size}", units_of(back), kept)


def byte_stream(compare, where, ours, theirs):
    """Byte for byte, or unit for unit when only the lengths of start codes differ."""
    data = bytes.fromhex(ours["data"])
    compare.same(where, "conversion", ours.get("done"), True)
    if data != theirs and references.units(data) == references.units(theirs):
        compare.meant("start codes", where)
    else:
        compare.same(where, "byte stream", data, theirs)


def picture_by_picture(stream, name, counts):
    """A byte stream of FFmpeg's, cut behind so many units each."""
    body = (stream.folder / name).read_bytes()
    starts = [found.start() for found in references.START_CODE.finditer(body)] + [len(body)]
    assert len(starts) == sum(counts) + 1
    ends = [starts[sum(counts[:i])] for i in range(len(counts) + 1)]
    return [body[a:b] for a, b in zip(ends, ends[1:])]


def refined(compare, driver, stream):
    """Parameter sets put in front of key frames that have none, in both forms."""
    bare = samples(stream.folder / "bare.mp4")
    lists = [[unit for unit in references.units(picture) if unit[0] & 31 not in SETS] for picture in stream.pictures]
    whole = [5 in {unit[0] & 31 for unit in units} for units in lists]
    theirs = picture_by_picture(stream, "filled.h264", [len(units) + 2 * idr for units, idr in zip(lists, whole)])
    for i, (sample, units, idr) in enumerate(zip(bare, lists, whole, strict=True)):
        where = f"{stream.name} packet {i}, refined"
        plain = driver("packet", to="avc", data=stream.pictures[i], drop=True)
        compare.same(where, "sample without sets", plain["data"], sample.hex())
        short = b"".join(SHORT + unit for unit in units)
        filled = driver("packet", to="refined", data=short, sets=stream.sets)
        placed(compare, where, filled, theirs[i], idr)
        again = driver("packet", to="refined", data=bytes.fromhex(filled["data"]), sets=stream.sets)
        compare.same(where, "once more", again, filled)
        own = units_of(driver("packet", to="refined", data=stream.pictures[i], sets=stream.sets))
        compare.same(where, "sets of its own", own, without_filler(compare, where, references.units(stream.pictures[i])))
        if idr:
            placed(compare, where, driver("packet", to="annexb", data=sample, sets=stream.sets), theirs[i], idr)


def units_of(answer):
    return references.units(bytes.fromhex(answer["data"]))


def without_filler(compare, where, units):
    kept = [unit for unit in units if unit[0] & 31 != FILLER]
    if kept != units:
        compare.meant("filler data", where)
    return kept


def placed(compare, where, ours, theirs, idr):
    """FFmpeg puts the sets in front of the slice; here they stand where the standard wants them, in front of
    everything but a delimiter."""
    mine, units = units_of(ours), references.units(theirs)
    if mine == units:
        byte_stream(compare, where, ours, theirs)
        return
    if FILLER not in {unit[0] & 31 for unit in mine}:
        units = without_filler(compare, where, units)
    order = sorted(units, key=lambda unit: (unit[0] & 31 != 9, unit[0] & 31 not in SETS))
    if idr and order != units:
        compare.meant("places of parameter sets", where)
    compare.same(where, "units", [ours.get("done"), mine], [True, order if idr else units])


def pictures(compare, driver, stream):
    traced = iter([dict(unit) for kind, unit in stream.traced if kind == "Slice Header"])
    for i, picture in enumerate(stream.pictures):
        where = f"{stream.name} packet {i}"
        units = references.units(picture)
        theirs = [next(traced) for unit in units if unit[0] & 31 in (1, 5)]
        ours = driver("look", data=picture)
        key = stream.packets[i]["flags"].startswith("K")
        compare.same(where, "key frame", [ours["slices"], ours["key"]], [True, key])
        compare.same(where, "reference", ours["reference"], any(slice["nal_ref_idc"] for slice in theirs))
        starts = [found.end() for found in references.START_CODE.finditer(picture)]
        compare.same(where, "start codes", ours["starts"], starts)
        compare.same(where, "first set", ours["sps"], next((at for at in starts if picture[at] & 31 == 7), -1))
        compare.same(where, "start", ours["start"], 0 if key else -1)
    told = references.user_data(stream.traced)
    compare.same(stream.name, "user data", driver("look", data=stream.pictures[0], type=USER_DATA)["sei"],
                 told[0].hex() if told else None)
    # Everything behind the first key frame begins at the next one.
    compare.same(stream.name, "start in a stream", driver("look", data=b"".join(stream.pictures[1:]))["start"],
                 next((sum(map(len, stream.pictures[1:i])) for i, packet in enumerate(stream.packets)
                       if i and packet["flags"].startswith("K")), -1))


def messages(compare, driver, stream):
    """A message more in every picture, as trace_headers reads it back; the pictures stay what they were."""
    if stream.name not in WITH_MESSAGES:
        return
    payloads = [bytes(16) + (b"\0\0\1\0" * 150)[:60 * i] for i in range(len(stream.pictures))]
    changed = b""
    for i, (picture, payload) in enumerate(zip(stream.pictures, payloads, strict=True)):
        ours = driver("sei", data=picture, type=USER_DATA, payload=payload)
        compare.same(f"{stream.name} packet {i}", "message put in", ours["done"], True)
        changed += bytes.fromhex(ours["data"])
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "changed.h264"
        path.write_bytes(changed)
        traced = references.traced_units(streams.trace(path))
        compare.same(stream.name, "decoded with messages", streams.decoded(path),
                     streams.decoded(stream.folder / "stream.h264"))
    compare.same(stream.name, "messages read back",
                 sorted(references.user_data(traced)), sorted(references.user_data(stream.traced) + payloads))


def edits(compare, driver, stream):
    """Held against the edits of FFmpeg's h264_metadata, byte for byte."""
    compare.same(stream.name, "written back", driver("edit", data=stream.sets).get("unit"), stream.sps.hex())
    for what, request in (("cropped", {"crop": list(stream.video.crop)}),
                          ("aspect", {"aspect": ratio(stream.video.aspect)})):
        theirs = next(unit for unit in references.units((stream.folder / f"{what}.h264").read_bytes()) if unit[0] & 31 == 7)
        ours = driver("edit", data=stream.sets, **request)
        if what == "cropped" and not any(stream.video.crop) and ours["unit"] != theirs.hex():
            # FFmpeg writes four zeros, where the flag in front can say as much.
            compare.meant("croppings of nothing", stream.name)
            compare.same(stream.name, what, ours["size"], driver("parse", data=LONG + theirs)["size"])
        else:
            compare.same(stream.name, what, ours.get("unit", ours), theirs.hex())
