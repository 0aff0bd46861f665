"""What FFmpeg says of a stream, taken out of the files that it wrote."""

import json
import re

START_CODE = re.compile(b"\0?\0\0\x01")
_LINE = re.compile(r"^(?:(\d+) +(\w+(?:\[\d+\])*) +[01]+ = (-?\d+)|(.*))$")
# Read, and no part of a record of elements.
_FRAME = {"forbidden_zero_bit", "nal_ref_idc", "nal_unit_type", "rbsp_stop_one_bit", "rbsp_alignment_zero_bit"}


def traced_units(text):
    """[(kind, [(element, value)])] of the headers in the packets, kinds and elements as trace_headers names them."""
    units, inside = [], False
    for line in text.splitlines():
        _, name, value, text = _LINE.match(line).groups()
        if text is not None:
            inside = inside or text.startswith("Packet:")
            units.append((text, []))
        elif inside:
            units[-1][1].append((name, int(value)))
    return [(kind, elements) for kind, elements in units if elements]


def user_data(traced):
    """The payloads of the SEI messages of type 5."""
    return [bytes(value for name, value in unit if name.startswith(("uuid_iso", "user_data_payload")))
            for kind, unit in traced if kind == "User Data Unregistered"]


def elements(unit):
    """The elements of a set, under the names of the standard's later editions."""
    return [(name.replace("gaps_in_frame_num_allowed", "gaps_in_frame_num_value_allowed"), value)
            for name, value in unit if name not in _FRAME]


def probe(folder):
    """(stream, packets) as ffprobe tells them."""
    told = json.loads((folder / "probe.json").read_text())
    return told["streams"][0], told["packets"]


def codecs(folder):
    return re.search(r'codecs="([^"]*)"', (folder / "stream.mpd").read_text())[1]


def session(lines):
    """{parameter: value} of the media of a session description, its coding among them."""
    attributes = dict(line[2:].split(":", 1) for line in lines if line.startswith("a="))
    told = dict(one.strip().split("=", 1) for one in attributes["fmtp"].split(" ", 1)[1].split(";"))
    return {"coding": attributes["rtpmap"].split(" ")[1].lower(), **told}


def _box(body, name):
    """The payload of the first box of the name; what FFmpeg writes for one track holds each name once."""
    at = body.index(name) + 4
    return body[at:at - 8 + int.from_bytes(body[at - 8:at - 4], "big")]


def record(path):
    """The AVCDecoderConfigurationRecord of an MP4 file, as it stands there and without zeros behind the units."""
    told = _box(path.read_bytes(), b"avcC")
    sps, rest = prefixed_units(told[6:], 2, told[5] & 31)
    pps, rest = prefixed_units(rest[1:], 2, rest[0])
    return told, told[:6] + prefixed(sps, 2) + bytes([len(pps)]) + prefixed(pps, 2) + rest


def audio_config(path):
    """The AudioSpecificConfig of an MP4 file: descriptors 3, 4 and 5 of the esds box, one in the other."""
    body, at = _box(path.read_bytes(), b"esds"), 4
    for tag, skipped in ((3, 3), (4, 13), (5, 0)):
        assert body[at] == tag
        at, size = at + 1, 0
        while True:
            size, at = size << 7 | body[at] & 127, at + 1
            if not body[at - 1] & 128:
                break
        at += skipped
    return body[at:at + size]


def samples(path):
    """The samples of an MP4 file of one track, which stand one behind the other."""
    body = path.read_bytes()
    sizes = _box(body, b"stsz")
    same, count = int.from_bytes(sizes[4:8], "big"), int.from_bytes(sizes[8:12], "big")
    lengths = [same or int.from_bytes(sizes[12 + 4 * i:16 + 4 * i], "big") for i in range(count)]
    data = _box(body, b"mdat")
    assert sum(lengths) == len(data)
    return list(cut(data, lengths))


def cut(data, lengths):
    at = 0
    for length in lengths:
        yield data[at:at + length]
        at += length


def units(stream):
    """The units of a byte stream, without their start codes and the zeros behind them."""
    parts = START_CODE.split(stream)
    assert not parts[0]
    return [part.rstrip(b"\0") for part in parts[1:]]


def prefixed_units(data, size, count=None):
    """The units behind lengths of so many bytes, without the zeros that FFmpeg leaves behind them; and the rest."""
    found = []
    while data and count != 0:
        end = size + int.from_bytes(data[:size], "big")
        found.append(data[size:end].rstrip(b"\0"))
        data, count = data[end:], count and count - 1
    return found, data


def prefixed(some, size):
    """Units behind lengths of so many bytes."""
    return b"".join(len(unit).to_bytes(size, "big") + unit for unit in some)


def adts_frames(stream):
    frames, at = [], 0
    while at < len(stream):
        size = (stream[at + 3] & 3) << 11 | stream[at + 4] << 3 | stream[at + 5] >> 5
        frames.append(stream[at:at + size])
        at += size
    return frames
