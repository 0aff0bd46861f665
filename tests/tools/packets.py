"""What ffprobe says of a media file's packets."""

import collections
import json
import subprocess

Packet = collections.namedtuple("Packet", "pts dts key size data")


def _probe(path, *words):
    done = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *words, path], capture_output=True, text=True)
    return json.loads(done.stdout), done.stderr


def of(*paths):
    """The packets of the first video and the first audio stream, times in seconds; those of several files one after
    the other. What ffprobe complains about is an error."""
    kinds = {"video": [], "audio": []}
    for path in paths:
        found, complaints = _probe(path, "-show_packets", "-show_data_hash", "md5", "-show_streams")
        if complaints:
            raise AssertionError(f"{path}: {complaints}")
        first = {}
        for stream in reversed(found["streams"]):
            first[stream["codec_type"]] = stream["index"]
        for packet in found["packets"]:
            if packet["codec_type"] in kinds and packet["stream_index"] == first[packet["codec_type"]]:
                dts = float(packet.get("dts_time", packet.get("pts_time", "nan")))
                kinds[packet["codec_type"]].append(
                    Packet(float(packet.get("pts_time", dts)), dts, "K" in packet["flags"], int(packet["size"]),
                           packet["data_hash"]))
    return kinds["video"], kinds["audio"]


def start(path):
    return float(_probe(path, "-show_format")[0]["format"]["start_time"])
