#!/usr/bin/env python3
"""Makes the seeds of the H.264 targets: make_h264_seeds.py (needs ffmpeg with libx264; needed only for new seeds)

Real parameter sets are taken from what libx264 writes at many settings; sets that it never writes are put together
below, bit by bit. Each goes into fuzz/corpus/h264_parse in one of the three forms of input, and into
fuzz/corpus/h264_edit behind the bytes that choose the edit.
"""

import pathlib
import subprocess

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"

# Name, frame size, rate, pixel format, profile, options of libx264.
ENCODINGS = [
    ("baseline", "176x144", "25", "yuv420p", "baseline", ""),
    ("main", "352x288", "25", "yuv420p", "main", ""),
    ("high", "1280x720", "50", "yuv420p", "high", ""),
    ("high_1080", "1920x1080", "30000/1001", "yuv420p", "high", ""),
    ("high_2160", "3840x2160", "60000/1001", "yuv420p", "high", "level=52"),
    ("high_4320", "7680x4320", "24", "yuv420p", "high", "level=60:ref=1"),
    ("high10", "640x360", "24", "yuv420p10le", "high10", ""),
    ("high422", "640x360", "24", "yuv422p", "high422", ""),
    ("high422_10", "720x576", "25", "yuv422p10le", "high422", "interlaced=1"),
    ("high444", "640x360", "24", "yuv444p", "high444", ""),
    ("high444_10", "640x362", "24", "yuv444p10le", "high444", ""),
    ("high444_jvt", "320x240", "24", "yuv444p", "high444", "cqm=jvt"),
    ("lossless", "320x240", "24", "yuv444p", "high444", "qp=0"),
    ("monochrome", "320x240", "24", "gray", "high", ""),
    ("monochrome10", "320x240", "24", "gray10le", "high10", ""),
    ("intra", "720x576", "25", "yuv422p10le", "high422", "keyint=1"),
    ("intra_high10", "320x240", "25", "yuv420p10le", "high10", "keyint=1"),
    ("mbaff", "720x576", "25", "yuv420p", "main", "interlaced=1:tff=1"),
    ("bff", "720x480", "30000/1001", "yuv420p", "main", "bff=1:pic-struct=1"),
    ("fake_interlaced", "1440x1080", "25", "yuv420p", "high", "fake-interlaced=1:sar=4/3"),
    ("nal_hrd", "640x480", "25", "yuv420p", "main", "nal-hrd=vbr:vbv-maxrate=1500:vbv-bufsize=3000:bitrate=1000"),
    ("nal_hrd_cbr", "640x480", "25", "yuv420p", "main", "nal-hrd=cbr:vbv-maxrate=900:vbv-bufsize=900:bitrate=900"),
    ("pulldown", "720x480", "24000/1001", "yuv420p", "main", "pulldown=32:force-cfr=1"),
    ("sar_extended", "704x576", "25", "yuv420p", "main", "sar=255/256"),
    ("cqm_jvt", "640x480", "25", "yuv420p", "high", "cqm=jvt"),
    ("cqm_list", "640x480", "25", "yuv420p", "high", "cqm4=" + ",".join(str(8 + i * 3) for i in range(16))),
    ("cqm_8x8", "640x480", "25", "yuv420p", "high", "cqm8=" + ",".join(str(6 + i // 4) for i in range(64))),
    ("no_8x8", "640x480", "25", "yuv420p", "high", "8x8dct=0"),
    ("chroma_qp", "640x480", "25", "yuv420p", "high", "chroma-qp-offset=-7"),
    ("weight", "640x480", "25", "yuv420p", "high", "weightp=2:weightb=1"),
    ("no_weight", "640x480", "25", "yuv420p", "main", "weightp=0:weightb=0"),
    ("no_cabac", "640x480", "25", "yuv420p", "main", "no-cabac=1"),
    ("constrained_intra", "640x480", "25", "yuv420p", "main", "constrained-intra=1"),
    ("no_deblock", "640x480", "25", "yuv420p", "main", "no-deblock=1"),
    ("ref16", "176x144", "25", "yuv420p", "main", "ref=16:bframes=8:b-pyramid=normal"),
    ("no_bframes", "640x480", "25", "yuv420p", "main", "bframes=0:ref=1"),
    ("strict_pyramid", "640x480", "25", "yuv420p", "main", "bframes=5:b-pyramid=strict"),
    ("sps_id", "640x480", "25", "yuv420p", "main", "sps-id=31"),
    ("full_range", "640x480", "25", "yuvj420p", "main", "fullrange=on"),
    ("bt709", "640x480", "25", "yuv420p", "main", "colorprim=bt709:transfer=bt709:colormatrix=bt709"),
    ("bt2020", "640x480", "25", "yuv420p10le", "high10", "colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc"),
    ("videoformat", "640x480", "25", "yuv420p", "main", "videoformat=pal:overscan=show"),
    ("overscan_crop", "640x480", "25", "yuv420p", "main", "overscan=crop:chromaloc=1"),
    ("chromaloc", "640x480", "25", "yuv420p", "main", "chromaloc=5"),
    ("crop_odd", "638x358", "25", "yuv420p", "main", "crop-rect=2,4,6,8"),
    ("tiny", "16x16", "1", "yuv420p", "baseline", ""),
    ("level_1b", "176x144", "15", "yuv420p", "baseline", "level=1b"),
    ("level_10", "128x96", "30", "yuv420p", "baseline", "level=1.0"),
    ("level_13", "352x288", "25", "yuv420p", "main", "level=1.3"),
    ("level_21", "352x288", "50", "yuv420p", "main", "level=2.1"),
    ("level_31", "1280x720", "25", "yuv420p", "main", "level=3.1"),
    ("level_42", "1920x1080", "60", "yuv420p", "high", "level=4.2"),
    ("level_51", "3840x2160", "30", "yuv420p", "high", "level=5.1"),
    ("vfr", "640x480", "1000", "yuv420p", "main", "force-cfr=0"),
    ("rate_fine", "640x480", "1000000/33367", "yuv420p", "main", ""),
    ("stitchable", "640x480", "25", "yuv420p", "high", "stitchable=1"),
    ("open_gop", "640x480", "25", "yuv420p", "high", "open-gop=1:bluray-compat=1:keyint=25:slices=4:level=41:"
     "vbv-maxrate=15000:vbv-bufsize=15000:nal-hrd=vbr:aud=1"),
]


class Bits:
    """A parameter set, element by element. Values are what the standard's descriptors carry."""

    def __init__(self, header):
        self.text = ""
        self.header = header

    def u(self, count, *values):
        for value in values:
            self.text += f"{value:0{count}b}"
        return self

    def ue(self, *values):
        for value in values:
            code = f"{value + 1:b}"
            self.text += "0" * (len(code) - 1) + code
        return self

    def se(self, *values):
        return self.ue(*(2 * value - 1 if value > 0 else -2 * value for value in values))

    def unit(self):
        """With trailing bits and emulation prevention."""
        text = self.text + "1"
        text += "0" * (-len(text) % 8)
        payload = bytes(int(text[i : i + 8], 2) for i in range(0, len(text), 8))
        unit, zeros = bytearray([self.header]), 0
        for byte in payload:
            if zeros >= 2 and byte <= 3:
                unit.append(3)
                zeros = 0
            zeros = zeros + 1 if byte == 0 else 0
            unit.append(byte)
        return bytes(unit)


def sps(profile=66, level=30, constraints=0, chroma=None, depth=(0, 0), lists=None, planes=0, poc=None, size=(44, 35),
        frames=1, crop=None, vui=None, ident=0, refs=1):
    bits = Bits(0x67).u(8, profile, constraints, level).ue(ident)
    if chroma is not None:
        bits.ue(chroma)
        if chroma == 3:
            bits.u(1, planes)
        bits.ue(*depth).u(1, 0)
        matrix(bits, lists)
    bits.ue(0)
    (poc or (lambda b: b.ue(0, 2)))(bits)
    bits.ue(refs).u(1, 0).ue(size[0] - 1, size[1] - 1).u(1, frames)
    if not frames:
        bits.u(1, 1)
    bits.u(1, 1)
    bits.u(1, 1).ue(*crop) if crop else bits.u(1, 0)
    if vui:
        bits.u(1, 1)
        vui(bits)
    else:
        bits.u(1, 0)
    return bits.unit()


def matrix(bits, lists):
    """None, or a list of delta lists, None for one that is not there."""
    bits.u(1, 0 if lists is None else 1)
    for deltas in lists or []:
        bits.u(1, 0 if deltas is None else 1).se(*(deltas or []))


def hrd(bits, schedules, scale=0):
    bits.ue(len(schedules) - 1).u(4, scale, scale)
    for rate, size, cbr in schedules:
        bits.ue(rate - 1, size - 1).u(1, cbr)
    bits.u(5, 23, 15, 5, 24)


def vui(ratio=None, overscan=None, signal=None, chroma_location=None, timing=None, nal=None, vcl=None,
        restriction=None):
    def write(bits):
        bits.u(1, ratio is not None)
        if ratio is not None:
            bits.u(8, ratio if isinstance(ratio, int) else 255)
            if not isinstance(ratio, int):
                bits.u(16, *ratio)
        bits.u(1, overscan is not None).u(1, *([overscan] if overscan is not None else []))
        bits.u(1, signal is not None)
        if signal:
            bits.u(3, signal[0]).u(1, signal[1], len(signal) > 2).u(8, *signal[2:])
        bits.u(1, chroma_location is not None).ue(*(chroma_location or []))
        bits.u(1, timing is not None)
        if timing:
            bits.u(32, *timing[:2]).u(1, timing[2])
        for parameters in (nal, vcl):
            bits.u(1, parameters is not None)
            if parameters:
                hrd(bits, *parameters)
        if nal or vcl:
            bits.u(1, 0)
        bits.u(1, 1)
        bits.u(1, restriction is not None)
        if restriction:
            bits.u(1, 1).ue(*restriction)

    return write


def poc1(offsets):
    return lambda bits: bits.ue(1).u(1, 0).se(-3, 5).ue(len(offsets)).se(*offsets)


def pps(groups=None, extension=None, ident=0, header=0x68):
    bits = Bits(header).ue(ident, 0).u(1, 0, 1)
    groups(bits) if groups else bits.ue(0)
    bits.ue(1, 0).u(1, 1).u(2, 2).se(-3, 4, -2).u(1, 1, 0, 1)
    if extension:
        extension(bits)
    return bits.unit()


def extension(transform, lists, offset):
    def write(bits):
        bits.u(1, transform)
        matrix(bits, lists)
        bits.se(offset)

    return write


RAMP4 = [2, 1, -1] + [3] * 13
RAMP8 = [4] + [1] * 63
STOP = [1, 2, -11]  # the third makes nextScale 0
DEFAULT = [-8]  # the default list
LISTS8 = [RAMP4, None, STOP, DEFAULT, None, RAMP4, RAMP8, None]
LISTS12 = [RAMP4, RAMP4, STOP, DEFAULT, None, RAMP4, RAMP8, DEFAULT, RAMP8, None, STOP, RAMP8]

# Name, sequence parameter set, picture parameter set.
HAND_MADE = [
    ("paff", sps(77, 40, frames=0, size=(120, 34), crop=(0, 0, 0, 2)), pps()),
    ("groups_interleaved", sps(88), pps(lambda b: b.ue(2, 0).ue(3, 4, 5))),
    ("groups_dispersed", sps(88), pps(lambda b: b.ue(7, 1))),
    ("groups_foreground", sps(88), pps(lambda b: b.ue(2, 2).ue(3, 60, 100, 200))),
    ("groups_box_out", sps(88), pps(lambda b: b.ue(1, 3).u(1, 1).ue(9))),
    ("groups_raster", sps(88), pps(lambda b: b.ue(1, 4).u(1, 0).ue(98))),
    ("groups_wipe", sps(88), pps(lambda b: b.ue(1, 5).u(1, 1).ue(0))),
    ("groups_explicit", sps(88, size=(4, 3)), pps(lambda b: b.ue(4, 6).ue(11).u(3, *[i % 5 for i in range(12)]))),
    ("groups_explicit_2", sps(88, size=(4, 3)), pps(lambda b: b.ue(1, 6).ue(11).u(1, *[i % 2 for i in range(12)]))),
    ("poc_1", sps(66, 30, poc=poc1([1, -1, 2147483647, -2147483647])), pps()),
    ("poc_1_longest", sps(66, 30, poc=poc1(list(range(-127, 128)))), pps()),
    ("poc_2", sps(66, 30, poc=lambda b: b.ue(2)), pps()),
    ("high_lists", sps(100, 31, chroma=1, lists=LISTS8), pps(extension=extension(1, LISTS8, 5))),
    ("lists_without_8x8", sps(100, 31, chroma=1), pps(extension=extension(0, LISTS8[:6], -12))),
    ("high444_lists", sps(244, 31, chroma=3, depth=(6, 5), lists=LISTS12), pps(extension=extension(1, LISTS12, 12))),
    ("separate_planes", sps(244, 31, chroma=3, planes=1, crop=(1, 2, 3, 4)), pps()),
    ("monochrome_crop", sps(100, 31, chroma=0, crop=(1, 2, 3, 4)), pps()),
    ("crop_422", sps(122, 31, chroma=2, crop=(1, 2, 3, 4), frames=0), pps()),
    ("intra_constraint", sps(110, 31, 0x10, chroma=1, depth=(2, 2)), pps()),
    ("cavlc444", sps(44, 31, 0x10, chroma=3), pps()),
    ("multiview_profile", sps(118, 31, chroma=1), pps()),
    ("constraints", sps(66, 11, 0xFC, size=(11, 9)), pps()),
    ("ids", sps(77, ident=31), pps(ident=255)),
    ("hrd_32", sps(100, 40, chroma=1, vui=vui(nal=([(1000 * (i + 1), 2000, i % 2) for i in range(32)], 3),
                                             vcl=([(4294967295, 4294967295, 1)], 15))), pps()),
    ("hrd_vcl", sps(77, 40, vui=vui(timing=(1, 50, 1), vcl=([(500, 600, 0), (700, 600, 1)], 1))), pps()),
    ("vui_all", sps(100, 40, chroma=1, vui=vui((64, 45), 1, (1, 1, 9, 16, 9), (2, 3), (1001, 120000, 0),
                                              restriction=(2, 1, 16, 16, 3, 4))), pps()),
    ("vui_none", sps(100, 40, chroma=1, vui=vui()), pps()),
    ("timing_largest", sps(77, 40, vui=vui(14, timing=(4294967295, 4294967295, 0))), pps()),
    ("timing_too_fine", sps(77, 40, vui=vui(timing=(4294967291, 4294967279, 0))), pps()),
]


def annex_b(*units):
    return b"".join(b"\0\0\0\1" + unit for unit in units)


def record(sps_unit, pps_unit):
    def entry(unit):
        return bytes([1]) + len(unit).to_bytes(2, "big") + unit

    return bytes([1, *sps_unit[1:4], 0xFF]) + bytes([0xE0 | entry(sps_unit)[0]]) + entry(sps_unit)[1:] + entry(pps_unit)


def prefixed(*units):
    lengths = [len(unit) - unit.count(b"\0\0\3") for unit in units]  # without emulation prevention
    return b"".join(bytes([9, 9, length if length < 256 else 0]) + unit for unit, length in zip(units, lengths))


def encoded():
    for name, size, rate, pixels, profile, options in ENCODINGS:
        command = ["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", f"testsrc2=s={size}:r={rate}"]
        command += ["-frames:v", "1", "-pix_fmt", pixels, "-c:v", "libx264", "-preset", "veryfast"]
        command += ["-profile:v", profile, "-x264-params", options or "ref=3", "-f", "h264", "-"]
        stream = subprocess.run(command, check=True, capture_output=True).stdout
        units = [unit.rstrip(b"\0") for unit in stream.split(b"\0\0\1")]
        sets = [next(unit for unit in units if unit and unit[0] & 31 == kind) for kind in (7, 8)]
        yield name, *sets


def main():
    folders = {name: CORPUS / name for name in ("h264_parse", "h264_edit")}
    for folder in folders.values():
        folder.mkdir(parents=True, exist_ok=True)
    edits = [bytes([0, 0, 0, 0, 0, 0]), bytes([1, 1, 0, 1, 4, 3]), bytes([0, 2, 2, 0, 7, 5]), bytes([3, 0, 0, 9, 0, 0])]
    for number, (name, *sets) in enumerate([*encoded(), *HAND_MADE]):
        forms = {"annexb": annex_b(*sets), "record": record(*sets), "units": prefixed(*sets)}
        form = list(forms)[number % 3]
        (folders["h264_parse"] / f"{name}_{form}").write_bytes(forms[form])
        (folders["h264_edit"] / name).write_bytes(edits[number % 4] + forms["annexb"])


if __name__ == "__main__":
    main()
