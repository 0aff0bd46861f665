"""What ffprobe says of a media file's packets."""

import collections
import functools
import json
import os
import subprocess

Packet = collections.namedtuple("Packet", "pts dts key size data")


def _probe(path, *words):
    done = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *words, path], capture_output=True, text=True)
    return json.loads(done.stdout), done.stderr


@functools.cache
def _probed(path, _changed):
    return _probe(path, "-show_packets", "-show_data_hash", "md5", "-show_streams")


def of(*paths, stream=None):
    """The packets of the first video and the first audio stream, or of one of that number, times in seconds; those of
    several files one after the other. What ffprobe complains about is an error."""
    wanted = {"video": [], "audio": []} if stream is None else {stream: []}
    for path in paths:
        found, complaints = _probed(path, os.stat(path).st_mtime_ns)
        if complaints:
            raise AssertionError(f"{path}: {complaints}")
        first = {stream: stream}
        for one in reversed(found["streams"] if stream is None else []):
            first[one["codec_type"]] = one["index"]
        for packet in found["packets"]:
            name = packet["codec_type"] if stream is None else packet["stream_index"]
            if name in wanted and packet["stream_index"] == first[name]:
                dts = float(packet.get("dts_time", packet.get("pts_time", "nan")))
                wanted[name].append(Packet(float(packet.get("pts_time", dts)), dts, "K" in packet["flags"],
                                           int(packet["size"]), packet["data_hash"]))
    return (wanted["video"], wanted["audio"]) if stream is None else wanted[stream]


def start(path):
    return float(_probe(path, "-show_format")[0]["format"]["start_time"])
