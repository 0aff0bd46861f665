"""A stream of AAC through the library, held against what FFmpeg says of it."""

import references

PROFILES = {"Main": 1, "LC": 2, "SSR": 3, "LTP": 4}
# syncExtensionType, then object type 5 (SBR) with sbrPresentFlag 0: FFmpeg writes it behind every configuration.
NO_SBR = bytes.fromhex("56e500")
# Channels of the configurations 1 to 7.
CONFIGURATIONS = {1: 1, 2: 2, 3: 3, 4: 4, 5: 5, 6: 6, 8: 7}


class Stream:
    """Everything that FFmpeg says of it."""

    def __init__(self, audio, folder):
        self.name, self.folder = audio.name, folder
        self.probe, _ = references.probe(folder)
        self.rate, self.channels = int(self.probe["sample_rate"]), self.probe["channels"]
        self.profile = PROFILES[self.probe["profile"]]
        self.config = references.audio_config(folder / "stream.m4a")
        self.again = references.audio_config(folder / "again.m4a")
        self.samples = references.samples(folder / "stream.m4a")
        self.adts = (folder / "stream.aac").read_bytes()
        # A layout without a number of its own is told by a program config element.
        self.described = not self.config[1] & 0x78


def check(compare, driver, stream):
    for part in (configuration, generated, frames, headers):
        part(compare, driver, stream)


def configuration(compare, driver, stream):
    channels = 0 if stream.described else stream.channels
    if stream.described:
        compare.meant("program config elements", stream.name)
    for offset in (0, 3):
        ours = driver("aac-parse", data=bytes(offset) + stream.config, offset=offset)
        compare.same(stream.name, "configuration", ours, {"done": True, "rate": stream.rate, "channels": channels})
    ours = driver("describe", private=stream.config, audio=True)
    compare.same(stream.name, "codecs", ours["codecs"], references.codecs(stream.folder))
    compare.same(stream.name, "object type", ours["profileLevel"], stream.profile)
    # What is longer than 13 bytes has 12 bytes of a platform's format in front.
    for data in (stream.config, bytes(range(12)) + stream.config):
        ours = driver("aac-convert", private=data)["private"]
        if data == stream.config and ours == data[12:].hex():
            compare.meant("long audio configurations", stream.name)
        else:
            compare.same(stream.name, "normalised", ours, stream.config.hex())


def generated(compare, driver, stream):
    ours = bytes.fromhex(driver("aac-generate", rate=stream.rate, channels=stream.channels,
                                profile=stream.profile)["private"])
    if stream.described:
        # The number is the one of as many channels.
        theirs = bytes([stream.config[0], stream.config[1] | CONFIGURATIONS.get(stream.channels, 0) << 3])
        compare.same(stream.name, "configuration of its numbers", ours, theirs)
        return
    if stream.config != ours and stream.config == ours + NO_SBR:
        compare.meant("SBR signalling", stream.name)
    else:
        compare.same(stream.name, "configuration made", ours, stream.config)
    compare.same(stream.name, "configuration of ADTS", ours, stream.again)


def frames(compare, driver, stream):
    theirs = references.adts_frames(stream.adts)
    ours = [bytes.fromhex(frame) for frame in driver(
        "aac-frames", private=stream.config, rate=stream.rate, channels=stream.channels,
        layout=stream.config[1] >> 3 & 15, frames=stream.samples)["frames"]]
    if stream.described and ours[0] != theirs[0]:
        # FFmpeg puts the element into the first block of a frame.
        compare.meant("program config elements", stream.name)
        return
    compare.same(stream.name, "frames", ours, theirs)


def headers(compare, driver, stream):
    for i, frame in enumerate(references.adts_frames(stream.adts)):
        where = f"{stream.name} frame {i}"
        ours = driver("aac-read", data=frame)
        number = 0 if stream.described else CONFIGURATIONS[stream.channels]
        compare.same(where, "header", [ours[key] for key in ("rate", "channels", "layout", "profileLevel", "sync")],
                     [stream.rate, 0 if stream.described else stream.channels, number, stream.profile, 0])
        if not stream.described:
            compare.same(where, "configuration", ours["private"], stream.again.hex())
        if ours["kept"] == frame.hex():
            compare.meant("ADTS headers", where)
        else:
            compare.same(where, "payload", ours["kept"], frame[7:].hex())
    # From one byte behind a header, the search finds the next frame or an earlier pattern, never nothing.
    found, first = driver("aac-read", data=stream.adts, start=1)["sync"], len(references.adts_frames(stream.adts)[0])
    compare.same(stream.name, "sync", 1 <= found <= first, True)
