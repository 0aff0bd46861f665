"""The small films that tests of the relay read: made once with ffmpeg, kept in the build folder."""

import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile


def _ffmpeg(*words):
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *map(str, words)], check=True)


def _film(path, rate="25", sample_rate=48000, video=(), length="5"):
    _ffmpeg("-f", "lavfi", "-i", f"testsrc2=s=320x180:r={rate}", "-f", "lavfi", "-i", f"sine=r={sample_rate}:f=440",
            "-t", length, "-c:v", "libx264", "-preset", "veryfast", "-g", "50", "-pix_fmt", "yuv420p", *video,
            "-c:a", "aac", "-b:a", "64k", path)


def _copy(source, path, *words, before=()):
    _ffmpeg(*before, "-i", source, "-c", "copy", *words, path)


def _flv_tags(path):
    """The tags of an FLV file, each with the size that follows it; first what stands before them."""
    body = path.read_bytes()
    yield body[:13]
    at = 13
    while at < len(body):
        size = 11 + int.from_bytes(body[at + 1:at + 4], "big") + 4
        yield body[at:at + size]
        at += size


def _make(folder):
    base, plain = folder / "bframes.mp4", folder / "plain.mp4"
    _film(base, video=["-bf", "2"])
    _film(plain, rate="30000/1001", sample_rate=44100, video=["-bf", "0"])
    # For recordings: a key frame every 0.4 s.
    _film(folder / "steps.mkv", length="6", video=["-bf", "2", "-g", "10", "-sc_threshold", "0"])
    _copy(base, folder / "edits.mp4", before=["-ss", "2.3"])
    _copy(base, folder / "fragments.mp4", "-movflags", "+frag_keyframe+empty_moov+default_base_moof")
    _ffmpeg("-i", base, "-itsoffset", "0.7", "-i", base, "-map", "0:v", "-map", "1:a", "-c", "copy", folder / "late-audio.mp4")
    _copy(base, folder / "bframes.ts")
    _copy(plain, folder / "plain.ts")
    # The 33-bit counter of 90 kHz wraps 0.4 s into it.
    _copy(base, folder / "wrap.ts", "-muxdelay", "0", "-output_ts_offset", "95443.3")
    packets = (folder / "bframes.ts").read_bytes()
    (folder / "no-key-frame-first.ts").write_bytes(packets[188 * 400:])
    (folder / "jump.ts").write_bytes((folder / "plain.ts").read_bytes() + packets)
    _copy(base, folder / "bframes.mkv")
    _ffmpeg("-i", base, "-vf", "select='not(eq(mod(n,7),3))'", "-vsync", "vfr", "-c:v", "libx264", "-preset",
            "veryfast", "-c:a", "copy", folder / "uneven.mp4")
    _copy(folder / "uneven.mp4", folder / "uneven.mkv")
    _copy(base, folder / "bframes.flv")
    _copy(plain, folder / "plain.flv")
    # The pictures of the whole film, then its sound.
    head, *tags = _flv_tags(folder / "bframes.flv")
    (folder / "apart.flv").write_bytes(head + b"".join(sorted(tags, key=lambda tag: tag[0] == 8)))
    # Another picture size, and so another configuration record, half-way.
    _film(folder / "larger.flv", video=["-bf", "0", "-vf", "scale=480:270", "-output_ts_offset", "5"])
    _, *more = _flv_tags(folder / "larger.flv")
    (folder / "larger.flv").write_bytes((folder / "plain.flv").read_bytes() + b"".join(more))
    (folder / "larger.flv").rename(folder / "changes.flv")
    _ffmpeg("-i", base, "-i", plain, "-map", "0", "-map", "1", "-c", "copy", folder / "two-of-each.ts")
    _ffmpeg("-i", base, "-c:v", "mpeg2video", "-bf", "2", "-b:v", "400k", "-c:a", "mp2", folder / "mpeg2.ts")


def make(folder):
    """The folder of the films, complete. Another process that makes them at the same time does no harm."""
    folder = pathlib.Path(folder)
    complete = "complete-" + hashlib.md5(pathlib.Path(__file__).read_bytes()).hexdigest()
    if not (folder / complete).exists():
        shutil.rmtree(folder, ignore_errors=True)  # those of another version
        folder.parent.mkdir(parents=True, exist_ok=True)
        made = pathlib.Path(tempfile.mkdtemp(dir=folder.parent))
        _make(made)
        (made / complete).touch()
        try:
            os.rename(made, folder)
        except OSError:
            shutil.rmtree(made)
    return folder


if __name__ == "__main__":
    make(sys.argv[1])
