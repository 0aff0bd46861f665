"""The streams that the oracle tests read, and what FFmpeg says of each: made once, kept in the build folder.

A folder a stream. H.264: stream.h264, stream.mp4, again.h264 (the MP4 taken back to a byte stream), bare.mp4
(without parameter sets in the samples), filled.h264 (that taken back), trace.txt (trace_headers), cropped.h264 and
aspect.h264 (edits by h264_metadata). AAC: stream.m4a, stream.aac (ADTS), again.m4a (the ADTS taken back). Both:
stream.mpd, stream.sdp, probe.json. MIVRA_SOAK=1 makes a wider matrix."""

import hashlib
import itertools
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
from dataclasses import dataclass, field

SOAK = os.environ.get("MIVRA_SOAK") == "1"


@dataclass
class Video:
    name: str
    pixels: str = "yuv420p"
    size: str = "96x64"
    rate: str = "25"
    x264: str = ""
    words: list = field(default_factory=list)
    crop: tuple = (2, 4, 8, 4)  # the edit that FFmpeg makes too: left, right, top, bottom
    aspect: str = "40/33"  # the same


@dataclass
class Audio:
    name: str
    rate: int = 48000
    layout: str = "stereo"
    words: list = field(default_factory=list)


LEVELS = ["1", "1b", "1.1", "1.2", "1.3", "2", "2.1", "2.2", "3", "3.1", "3.2", "4", "4.1", "4.2", "5", "5.1", "5.2",
          "6", "6.1", "6.2"]
RATES = ["5", "15/2", "10", "12", "25/2", "15", "24000/1001", "24", "25", "30000/1001", "30", "48", "50", "60000/1001",
         "60", "90", "100", "120000/1001", "120", "15000/1001", "2397/100"]
ASPECTS = ["1/1", "12/11", "10/11", "16/11", "40/33", "24/11", "20/11", "32/11", "80/33", "18/11", "15/11",
           "64/33", "160/99", "4/3", "3/2", "2/1", "7/5", "65535/65534", "1/90", "1001/1000", "8/4", "0/1"]
FOUR_LIST = ",".join(str(10 + i) for i in range(16))
EIGHT_LIST = ",".join(str(8 + i // 2) for i in range(64))


def _profiles():
    yield Video("baseline", words=["-profile:v", "baseline"])
    yield Video("main", words=["-profile:v", "main"])
    yield Video("main-1b", words=["-profile:v", "main"], x264="level=1b")
    yield Video("baseline-1b", words=["-profile:v", "baseline"], x264="level=1b")
    yield Video("main-cavlc", words=["-profile:v", "main"], x264="cabac=0:weightp=0:ref=4")
    yield Video("high-plain", x264="8x8dct=0:bframes=0:cabac=0")
    yield Video("high-weight", x264="weightp=2:weightb=1:bframes=3:b-pyramid=strict:ref=5:chroma-qp-offset=-5")
    yield Video("no-deblock", x264="no-deblock=1:constrained-intra=1:direct=spatial")
    for depth, pixels in [("8", "yuv422p"), ("8", "yuv444p"), ("8", "gray"), ("10", "yuv420p10le"),
                          ("10", "yuv422p10le"), ("10", "yuv444p10le"), ("10", "gray10le")]:
        yield Video(f"{pixels}-{depth}", pixels)
        yield Video(f"{pixels}-{depth}-intra", pixels, x264="keyint=1")
    yield Video("intra-high", x264="keyint=1")
    yield Video("lossless", "yuv444p", words=["-qp", "0"])
    yield Video("avc-intra", "yuv422p10le", "1920x1080", x264="avcintra-class=100:interlaced=1")
    yield Video("lists", x264=f"cqm=jvt:cqm4i={FOUR_LIST}:cqm8p={EIGHT_LIST}")
    yield Video("lists-444", "yuv444p", x264=f"cqm=jvt:cqm4p={FOUR_LIST}:cqm8i={EIGHT_LIST}")
    yield Video("lists-standard", x264="cqm=jvt")
    yield Video("set-id", x264="sps-id=7:aud=1:slices=3")
    yield Video("large-id", x264="sps-id=31:repeat-headers=1:keyint=2")
    yield Video("stitchable", x264="stitchable=1:ref=3")
    yield Video("bluray", size="720x480", rate="30000/1001", x264="bluray-compat=1:nal-hrd=vbr:vbv-maxrate=9000:"
                "vbv-bufsize=9000:bitrate=500:level=4.1:open-gop=1:slices=4:pic-struct=1")
    yield Video("large", size="1920x1080", rate="60", x264="level=4.2")
    yield Video("larger", size="4096x2304", rate="24", x264="level=5.1:ref=1:bframes=1")


def _interlaced():
    for name, words in [("tff", "tff=1"), ("bff", "bff=1"), ("fake", "fake-interlaced=1"), ("pulldown", "pulldown=32")]:
        yield Video(name, size="98x68", x264=words + ":weightp=0")
        yield Video(name + "-422", "yuv422p", "98x68", x264=words + ":weightp=0:cabac=0")
    yield Video("tff-444", "yuv444p", "97x66", x264="tff=1:weightp=0")
    yield Video("tff-gray", "gray", "97x66", x264="tff=1:weightp=0", crop=(1, 0, 2, 0))
    yield Video("tff-large", size="1920x1080", x264="tff=1:weightp=0:nal-hrd=vbr:vbv-maxrate=20000:vbv-bufsize=20000")


def _sizes():
    steps = {"yuv420p": (2, 2), "yuv422p": (2, 1), "yuv444p": (1, 1), "gray": (1, 1)}
    for pixels, (x, y) in steps.items():
        for i in range(16 if SOAK else 3):
            width, height = 96 + (2 * i + 1 if SOAK else 15 - 7 * i) // x * x, 64 + (i if SOAK else 1 + 7 * i) // y * y
            yield Video(f"size-{pixels}-{width}x{height}", pixels, f"{width}x{height}",
                        crop=(2 * i, 0, 0, 2) if i else (0, 0, 0, 0))
    yield Video("crop-rect", x264="crop-rect=2,4,6,8", crop=(0, 6, 0, 0))


def _display():
    yield Video("vbr", x264="nal-hrd=vbr:vbv-maxrate=800:vbv-bufsize=1600:bitrate=500")
    yield Video("cbr", x264="nal-hrd=cbr:vbv-maxrate=300:vbv-bufsize=300:bitrate=300:filler=1")
    yield Video("cbr-fast", rate="120000/1001", x264="nal-hrd=cbr:vbv-maxrate=240000:vbv-bufsize=240000:"
                "bitrate=240000:level=6.2:filler=0", size="64x64")
    yield Video("overscan", x264="overscan=show:videoformat=pal:fullrange=on:chromaloc=3")
    yield Video("overscan-crop", x264="overscan=crop:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc:chromaloc=5")
    yield Video("colour", x264="colorprim=bt470bg:transfer=log316:colormatrix=YCgCo:videoformat=secam")
    yield Video("fixed-rate", x264="force-cfr=1:pic-struct=1")
    yield Video("frame-packing", x264="frame-packing=3")


def videos():
    yield from itertools.chain(_profiles(), _interlaced(), _sizes(), _display())
    if not SOAK:
        for i, (rate, aspect) in enumerate(itertools.zip_longest(RATES, ASPECTS[:-1], fillvalue="25")):
            level = LEVELS[i % len(LEVELS)]
            yield Video(f"level-{level}-{i}", rate=rate, x264=f"level={level}", aspect=aspect,
                        words=["-vf", f"setsar={ASPECTS[-i - 1]}:max=65535"])
        return
    for (i, rate), aspect in itertools.product(enumerate(RATES), ASPECTS):
        level = LEVELS[(i + ASPECTS.index(aspect)) % len(LEVELS)]
        yield Video(f"level-{level}-{rate}-{aspect}".replace("/", "_"), rate=rate, x264=f"level={level}",
                    words=["-vf", f"setsar={aspect}:max=65535"])
    for pixels, interlaced, entropy, hrd, profile in itertools.product(
            ["yuv420p", "yuv422p", "yuv444p", "yuv420p10le", "yuv422p10le", "yuv444p10le"], ["0", "tff=1", "bff=1"],
            ["0", "1"], ["none", "vbr", "cbr"], ["keyint=1", "bframes=0", "bframes=4:b-pyramid=normal:ref=8"]):
        yield Video(f"mix-{pixels}-{interlaced}-{entropy}-{hrd}-{profile}".replace(":", "-"), pixels, "90x68",
                    x264=f"{interlaced if interlaced != '0' else 'interlaced=0'}:cabac={entropy}:nal-hrd={hrd}:"
                    f"vbv-maxrate=500:vbv-bufsize=500:bitrate=500:{profile}:weightp=0")


def audios():
    rates = [96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350]
    layouts = ["mono", "stereo", "3.0", "4.0", "5.0", "5.1", "7.1", "6.1", "7.0", "2.1", "quad", "5.1(side)"]
    for rate, layout in itertools.product(rates, layouts) if SOAK else [
            *((rate, ["mono", "stereo"][i % 2]) for i, rate in enumerate(rates)), *((48000, name) for name in layouts[2:]),
            (44100, "5.1"), (7350, "7.1")]:
        yield Audio(f"{rate}-{layout}", rate, layout)
    for profile in ["aac_main", "aac_ltp", "mpeg2_aac_low"]:
        yield Audio(profile, words=["-profile:a", profile, "-strict", "-2"])
    yield Audio("silence", words=["-af", "volume=0"])
    yield Audio("loud", 24000, words=["-b:a", "160k", "-af", "volume=20"])


def ffmpeg(*words, level="error"):
    return subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", "-v", level, "-y", *map(str, words)], check=True,
                          capture_output=True, text=True, timeout=300).stderr


def _traces(told):
    """What each filter said, in the order of their outputs; each has a name of its own in its lines."""
    traces = {}
    for line in told.splitlines():
        if line.startswith("[trace_headers @ "):
            name, text = line[1:].split("] ", 1)
            traces.setdefault(name, []).append(text)
    return ["\n".join(lines) for lines in traces.values()]


def trace(path):
    return _traces(ffmpeg("-i", path, "-c", "copy", "-bsf:v", "trace_headers", "-f", "null", "-", level="info"))[0]


def decoded(path, *words):
    """A digest of every picture, in the order of output; croppings exact to the sample."""
    done = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-flags", "unaligned", "-i", path, *words, "-vsync",
                           "passthrough", "-f", "framemd5", "-"], capture_output=True, text=True, check=True, timeout=300)
    return [line.split(",")[-1].strip() for line in done.stdout.splitlines() if not line.startswith("#")]


def _probe(stream):
    done = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-show_packets", "-of", "json", stream],
                          capture_output=True, check=True)
    (stream.parent / "probe.json").write_bytes(done.stdout)


def _copies(made, source, outputs):
    """For each of the folders, one copy by each of the outputs' words; what was said meanwhile."""
    inputs = [word for _, folder in made for word in ("-i", folder / source)]
    words = [word for i, (stream, folder) in enumerate(made) for output in outputs(stream, folder)
             for word in ("-map", i, "-c", "copy", *output)]
    return ffmpeg(*inputs, *words, level="info")


def _describe_sessions(made, source):
    """What the RTP muxer would tell receivers; its packets go to a socket of ours."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("127.0.0.1", 0))
        port = receiver.getsockname()[1]
        description = made[0][1] / "sessions.sdp"
        _copies(made, source, lambda _, folder: [
            ("-f", "rtp", "-sdp_file", description, f"rtp://127.0.0.1:{port}?rtcpport={port}")])
    for (_, folder), media in zip(made, description.read_text().split("\nm=")[1:], strict=True):
        (folder / "stream.sdp").write_text("m=" + media)


def _make_videos(made):
    inputs = [word for video, _ in made for word in
              ("-f", "lavfi", "-i", f"testsrc=s={video.size}:r={video.rate},trim=end_frame=5")]
    outputs = [word for i, (video, folder) in enumerate(made) for word in (
        "-map", i, "-c:v", "libx264", "-pix_fmt", video.pixels, "-preset", "veryfast", *video.words,
        "-x264-params", ":".join(filter(None, ["threads=1:lookahead-threads=1", video.x264])), "-f", "h264",
        folder / "stream.h264")]
    ffmpeg(*inputs, *outputs, level="fatal")
    told = _copies(made, "stream.h264", lambda video, folder: [
        (folder / "stream.mp4",), ("-f", "dash", folder / "stream.mpd"),
        ("-bsf:v", "filter_units=remove_types=7|8", folder / "bare.mp4"),
        ("-bsf:v", "h264_metadata=crop_left={}:crop_right={}:crop_top={}:crop_bottom={}".format(*video.crop),
         "-f", "h264", folder / "cropped.h264"),
        ("-bsf:v", "h264_metadata=sample_aspect_ratio=" + video.aspect, "-f", "h264", folder / "aspect.h264"),
        ("-bsf:v", "trace_headers", "-f", "null", "-")])
    for (_, folder), text in zip(made, _traces(told), strict=True):
        (folder / "trace.txt").write_text(text)
    for source, target in (("stream", "again"), ("bare", "filled")):
        _copies(made, source + ".mp4", lambda _, folder: [
            ("-bsf:v", "h264_mp4toannexb", "-f", "h264", folder / (target + ".h264"))])
    _describe_sessions(made, "stream.h264")
    for _, folder in made:
        _probe(folder / "stream.h264")


def _make_audios(made):
    inputs = [word for audio, _ in made for word in
              ("-f", "lavfi", "-t", 8 * 1024 / audio.rate, "-i", f"aevalsrc=0.4*sin(t*2500)+0.1*random(0):s={audio.rate}")]
    outputs = [word for i, (audio, folder) in enumerate(made) for word in (
        "-map", i, *audio.words, "-c:a", "aac", "-channel_layout", audio.layout, folder / "stream.m4a")]
    ffmpeg(*inputs, *outputs)
    _copies(made, "stream.m4a", lambda _, folder: [
        ("-f", "adts", folder / "stream.aac"), ("-f", "dash", folder / "stream.mpd")])
    _copies(made, "stream.aac", lambda _, folder: [("-bsf:a", "aac_adtstoasc", folder / "again.m4a")])
    _describe_sessions(made, "stream.m4a")
    for _, folder in made:
        _probe(folder / "stream.m4a")


def make(folder):
    """[(stream, its folder)] of all streams. What another process makes at the same time does no harm."""
    recipe = pathlib.Path(__file__).read_bytes() + ffmpeg("-version", level="info").encode() + bytes([SOAK])
    folder = pathlib.Path(folder) / hashlib.sha256(recipe).hexdigest()[:12]
    every = [*videos(), *audios()]
    assert len({stream.name for stream in every}) == len(every)
    if not folder.exists():
        folder.parent.mkdir(parents=True, exist_ok=True)
        made = pathlib.Path(tempfile.mkdtemp(dir=folder.parent))
        for stream in every:
            (made / stream.name).mkdir()
        for kind, maker in ((Video, _make_videos), (Audio, _make_audios)):
            some = [(stream, made / stream.name) for stream in every if isinstance(stream, kind)]
            for i in range(0, len(some), 10):  # a process costs more than a stream
                maker(some[i:i + 10])
        try:
            made.rename(folder)
        except OSError:
            shutil.rmtree(made)
    return [(stream, folder / stream.name) for stream in every]


if __name__ == "__main__":
    import sys
    print(len(make(sys.argv[1])), "streams")
