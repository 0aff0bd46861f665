#!/usr/bin/env python3
"""Makes the seeds of the decoder's target: make_decoder_seeds.py (needs ffmpeg; needed only for new seeds)

Two or three packets of each codec, small, behind the bytes that describe the stream as fuzz/Decoder.cpp reads them.
"""

import json
import pathlib
import re
import subprocess
import tempfile

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus" / "decoder"
CODECS = [int(number) for number in re.findall(r"\d+", re.search(
    r"kCodecs\[\] = \{(.*?)\}", (pathlib.Path(__file__).parent / "Decoder.cpp").read_text(), re.DOTALL)[1])]
PICTURES = "-f lavfi -i testsrc2=size=48x32:rate=25:duration=0.12"
TONES = "-f lavfi -i sine=duration=0.08:sample_rate=48000"
SMALL = "-ar 8000 -ac 1"

# Name, codec, extension, arguments.
STREAMS = [
    ("h264", 27, "mp4", "-c:v libx264 -bf 1 -bsf:v filter_units=remove_types=6"),
    ("h265", 173, "mp4", "-c:v libx265 -x265-params log-level=error -bsf:v filter_units=remove_types=39"),
    ("mpeg1", 1, "mpg", "-c:v mpeg1video"),
    ("mpeg2", 2, "ts", "-c:v mpeg2video -bf 1"),
    ("mpeg4", 12, "mp4", "-c:v mpeg4 -bf 1"),
    ("h263", 4, "3gp", "-vf scale=128:96 -c:v h263"),
    ("mjpeg", 7, "avi", "-c:v mjpeg"),
    ("wmv2", 18, "asf", "-c:v wmv2"),
    ("vp8", 139, "mkv", "-c:v libvpx"),
    ("vp9", 167, "mkv", "-c:v libvpx-vp9"),
    ("aac", 86018, "mp4", "-c:a aac"),
    ("adts", 86018, "aac", "-c:a aac"),
    ("mp2", 86016, "mp2", "-c:a mp2"),
    ("mp3", 86017, "mp3", "-c:a libmp3lame"),
    ("ac3", 86019, "ac3", "-c:a ac3"),
    ("eac3", 86056, "mkv", "-c:a eac3"),
    ("dts", 86020, "mkv", "-strict -2 -c:a dca"),
    ("vorbis", 86021, "mkv", "-c:a libvorbis"),
    ("flac", 86028, "flac", "-c:a flac"),
    ("alac", 86032, "mp4", "-c:a alac"),
    ("wavpack", 86041, "mkv", "-c:a wavpack"),
    ("tta", 86038, "mkv", "-c:a tta"),
    ("wma", 86024, "asf", "-c:a wmav2"),
    ("g726", 69643, "wav", SMALL + " -c:a g726"),
    ("g722", 69660, "wav", "-ar 16000 -c:a g722"),
    ("gsm", 86034, "gsm", SMALL + " -c:a libgsm"),
    ("ulaw", 65542, "wav", SMALL + " -c:a pcm_mulaw"),
]


def from_dump(dump):
    """The bytes of ffprobe's hexadecimal dump."""
    lines = [re.match(r"[0-9a-f]+: ((?:[0-9a-f]{2,4} )+)", line) for line in (dump or "").splitlines()]
    return b"".join(bytes.fromhex(line[1].replace(" ", "")) for line in lines if line)


def seed(codec, path):
    command = ["ffprobe", "-v", "error", "-show_data", "-show_streams", "-show_packets", "-of", "json", path]
    found = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)
    stream = found["streams"][0]
    data = from_dump(stream.get("extradata"))[:255]
    rate = int(stream.get("sample_rate", 0)) // 1000
    head = [CODECS.index(codec), stream.get("width", 0), stream.get("height", 0), 0, rate, stream.get("channels", 0), 0,
            stream.get("bits_per_sample", 0), min(int(stream.get("bit_rate", 0)) // 1000, 255), len(data)]
    seed = bytes(head) + data + bytes([0, 0])
    for packet in found["packets"][:3]:
        payload = from_dump(packet["data"])[:0x1FFF]
        seed += bytes([len(payload) >> 8, len(payload) & 255]) + payload
    return seed


def main():
    CORPUS.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        for name, codec, extension, arguments in STREAMS:
            path = f"{folder}/{name}.{extension}"
            source = PICTURES if codec < 65536 else TONES
            subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *source.split(), *arguments.split(), path],
                           check=True)
            (CORPUS / name).write_bytes(seed(codec, path))


if __name__ == "__main__":
    main()
