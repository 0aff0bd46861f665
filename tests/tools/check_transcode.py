#!/usr/bin/env python3
"""Runs `mivra transcode` and `mivra snapshot` as a user would, and asks ffprobe and ffmpeg what they have made:
check_transcode.py MIVRA FOLDER-FOR-INPUTS"""

import contextlib
import json
import os
import pathlib
import pty
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import relay_inputs

MIVRA = pathlib.Path(sys.argv[1]).resolve()
INPUTS = relay_inputs.make(sys.argv[2]).resolve()
FILM = INPUTS / "bframes.mp4"  # 5 s, 320x180, 25 pictures a second, a key frame every 2 s, audio of 48 kHz


def run(*words):
    return subprocess.run([MIVRA, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True, text=True)


def ffmpeg(*words):
    return subprocess.run(["ffmpeg", "-nostdin", "-v", "warning", *map(str, words)], stdin=subprocess.DEVNULL,
                          capture_output=True, check=True)


def streams(path):
    text = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_streams", "-show_format", "-of", "json",
                           str(path)], capture_output=True, text=True, check=True)
    assert text.stderr == "", text.stderr
    report = json.loads(text.stdout)
    return {one["codec_type"]: one for one in report["streams"]}, float(report["format"].get("duration", 0))


def times(path, stream="v"):
    text = subprocess.run(["ffprobe", "-v", "error", "-select_streams", stream, "-show_entries", "frame=pts_time", "-of",
                           "csv=p=0", str(path)], capture_output=True, text=True, check=True).stdout
    return [float(word.strip(",")) for word in text.split()]


def gray(path, *words):
    """The pictures, each as its bytes, small and without color."""
    body = ffmpeg("-i", path, *words, "-vsync", "0", "-f", "rawvideo", "-vf", "scale=64:36,format=gray", "-").stdout
    return [body[at:at + 64 * 36] for at in range(0, len(body), 64 * 36)]


def nearest(picture, pictures):
    """The one that looks most like it, and how much they differ on average."""
    costs = [sum(abs(a - b) for a, b in zip(picture, other)) / len(picture) for other in pictures]
    return min(enumerate(costs), key=lambda pair: pair[1])


class Case(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)

    def make(self, name, *words, source=FILM, code=0, command="transcode"):
        output = self.folder / name
        done = run(command, source, *(["-o", output] if command == "snapshot" else [output]), *words)
        self.assertEqual(done.returncode, code, done.stderr)
        self.told = done.stderr
        return output

    def refused(self, code, part, *words):
        done = run(*words)
        self.assertEqual((done.returncode, done.stderr.count("\n")), (code, 1), done.stderr)
        self.assertIn(part, done.stderr)


class Transcode(Case):
    def test_formats(self):
        for name, words, video, audio in [
                ("a.mp4", [], "h264", "aac"), ("a.mkv", ["--video", "mpeg4", "--audio", "mp3"], "mpeg4", "mp3"),
                ("a.ts", ["--preset", "ultrafast"], "h264", "aac"), ("a.flv", ["--audio", "copy"], "h264", "aac"),
                ("b.ts", ["--video", "mpeg2", "--audio", "mp2"], "mpeg2video", "mp2"),
                ("b.mp4", ["--video", "h265", "--preset", "ultrafast", "--threads", "1"], "hevc", "aac"),
                ("c.mkv", ["--video", "mjpeg", "--audio", "flac", "--no-hardware"], "mjpeg", "flac"),
                ("a.m4a", [], None, "aac"), ("a.h264", [], "h264", None)]:
            with self.subTest(name=name, words=words):
                output = self.make(name, *words)
                self.assertEqual(ffmpeg("-i", output, "-f", "null", "-").stderr, b"")
                if video is None or audio is None:
                    self.assertIn("leaves out stream", self.told)
                if name == "a.h264":
                    continue  # no times to compare
                found, duration = streams(output)
                self.assertEqual((found.get("video", {}).get("codec_name"), found.get("audio", {}).get("codec_name")),
                                 (video, audio))
                self.assertAlmostEqual(duration, 5, delta=0.12)  # to a few packets
                if video:
                    self.assertEqual(int(found["video"]["nb_read_frames"]), 125)

        output = self.make("c.mp4", "--preset", "ultrafast", source=INPUTS / "changes.flv")
        found, duration = streams(output)  # of another size and rate half-way
        self.assertAlmostEqual(duration, 10, delta=0.1)
        self.assertAlmostEqual(int(found["audio"]["nb_read_frames"]) * 1024 / 44100, 10, delta=0.2)

    def test_times_are_kept(self):
        for source in [FILM, INPUTS / "uneven.mp4", INPUTS / "plain.mp4"]:
            with self.subTest(source=source.name):
                before, after = times(source), times(self.make("out.mp4", "--preset", "ultrafast", source=source))
                self.assertEqual(len(before), len(after))
                self.assertLess(max(abs(a - b) for a, b in zip(before, after)), 0.0001)

    def test_size_rate_and_bitrate(self):
        for rate, count in [("10", 50), ("50", 250), ("30000/1001", 150)]:
            output = self.make("out.mp4", "--fps", rate, "--size", "160x120", "--bitrate", "90k", "--preset", "veryfast")
            video = streams(output)[0]["video"]
            self.assertEqual((video["width"], video["height"], int(video["nb_read_frames"])), (160, 120, count))
            self.assertEqual(video["display_aspect_ratio"], "16:9")
            found = times(output)
            top, _, bottom = rate.partition("/")
            step = int(bottom or 1) / int(top)
            self.assertLess(max(abs(time - index * step) for index, time in enumerate(found)), 0.0001)
            self.assertLess(int(video["bit_rate"]), 150000)

    def test_an_exact_part(self):
        whole = gray(FILM)
        for start, length, first in [(1.0, 2.0, 25), (2.5, 1.6, 63), (3.96, 5, 99)]:
            with self.subTest(start=start):
                output = self.make("part.mp4", "--start", start, "--for", length, "--preset", "veryfast")
                pictures = gray(output)
                self.assertEqual(len(pictures), min(125 - first, round(length * 25)))
                self.assertEqual([nearest(pictures[at], whole)[0] for at in (0, -1)], [first, first + len(pictures) - 1])
                self.assertAlmostEqual(times(output)[0], first / 25 - start, delta=0.0001)
                audio = ffmpeg("-i", output, "-f", "s16le", "-").stdout  # one channel
                self.assertAlmostEqual(len(audio) / 2 / 48000, min(length, 5 - start), delta=0.03)

    def test_audio_begins_at_the_sample(self):
        sound = memoryview(ffmpeg("-i", FILM, "-f", "s16le", "-").stdout).cast("h")
        output = self.make("part.mkv", "--audio", "pcm", "--start", 2.01, "--for", 2, "--preset", "ultrafast")
        part = memoryview(ffmpeg("-i", output, "-f", "s16le", "-").stdout).cast("h")
        self.assertEqual(len(part), 2 * 48000)
        first = round(2.01 * 48000)
        self.assertLessEqual(max(abs(a - b) for a, b in zip(part, sound[first:])), 1)
        copied = self.make("copied.mkv", "--audio", "copy", "--start", 2, "--preset", "ultrafast")
        self.assertAlmostEqual(times(copied, "a")[0], 0, delta=0.03)

    def test_damage_and_interruption(self):
        cut = self.folder / "cut.ts"
        cut.write_bytes((INPUTS / "bframes.ts").read_bytes()[:-30000 - 100])
        output = self.make("cut.mp4", source=cut, code=5)
        self.assertIn("damaged input", self.told)
        self.assertGreater(streams(output)[1], 2)
        broken = bytearray(FILM.read_bytes())  # its index stands at the end
        for place in range(30000, len(broken) // 2, 5003):
            broken[place] ^= 0x55
        (self.folder / "broken.mp4").write_bytes(broken)
        self.make("whole.mp4", source=self.folder / "broken.mp4", code=5)
        self.assertRegex(self.told, r"damaged input: \d+ of the frames of video h264 .* could not be decoded whole")
        output = self.folder / "stopped.mp4"
        child = subprocess.Popen([MIVRA, "transcode", FILM, output, "--preset", "placebo", "--size", "1920x1080",
                                  "--threads", "1", "--json", "--stats", "0.05"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        for line in child.stdout:
            if json.loads(line).get("packets", 0) > 20:
                break
        time.sleep(0.3)
        child.send_signal(signal.SIGINT)
        told, wrong = child.communicate(timeout=50)
        self.assertEqual((child.returncode, wrong), (0, ""))
        self.assertIn("interrupted", told)
        self.assertEqual(ffmpeg("-i", output, "-f", "null", "-").stderr, b"")

    def test_what_is_refused(self):
        film, out = FILM, self.folder / "out.mp4"
        for code, part, *words in [
                (2, "none of h264", film, out, "--video", "h266"), (2, "--audio", film, out, "--audio", "h264"),
                (2, "such as 640x360", film, out, "--size", "640"), (2, "--bitrate", film, out, "--bitrate", "fast"),
                (2, "--fps", film, out, "--fps", "0"), (2, "exact", film, out, "--video", "copy", "--start", "1"),
                (2, "relay", film, out, "--video", "copy", "--audio", "copy"), (2, "an input and an output", film),
                (2, "does not tell a format", film, self.folder / "out.xyz"), (2, "also an input", film, film),
                (2, "it lasts from 0", film, out, "--start", "60"), (3, "cannot open the input", "/nowhere.mp4", out),
                (3, "rawvideo 161x121 as h264: libx264", film, out, "--size", "161x121"),
                (3, "does not hold", film, self.folder / "out.flv", "--video", "vp9"),
                (3, "cannot open the output", film, "/nowhere/out.mp4"),
                (3, "cannot open the input", pathlib.Path(__file__), out)]:
            with self.subTest(words=words):
                self.refused(code, part, "transcode", *words)
                self.assertFalse(out.exists())

    def test_memory_is_bounded(self):
        child = subprocess.Popen([MIVRA, "transcode", FILM, self.folder / "big.mp4", "--preset", "ultrafast", "--size",
                                  "640x360", "--fps", "240", "--threads", "2", "--stats", "0"], stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        child.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(child.returncode, 0)
        # 1,200 pictures of 345,600 bytes would be 400 MB; the sanitizers need some of it for themselves.
        self.assertLess(usage.ru_maxrss, 250 * 1024)


class Snapshot(Case):
    def test_the_picture_shown(self):
        whole, shown = gray(FILM), times(FILM)
        for at in [0, 0.039, 0.04, 1.99, 2.0, 2.5, 3.333, 4.97]:
            for name in ["one.png", "one.jpg"] if at == 2.5 else ["one.png"]:
                with self.subTest(at=at, name=name):
                    found, difference = nearest(gray(self.make(name, "--at", at, command="snapshot"))[0], whole)
                    self.assertEqual(found, max(i for i, time in enumerate(shown) if time <= at + 1e-6))
                    self.assertLess(difference, 1.5)

    def test_size_and_sheet(self):
        for name, words, size in [("s.png", ["--at", 1, "--size", "100x50"], (100, 50)),
                                  ("g.png", ["--grid", "4x3"], (1280, 540)),
                                  ("g.jpg", ["--grid", "2x1", "--size", "64x36"], (128, 36))]:
            video = streams(self.make(name, *words, command="snapshot"))
            self.assertEqual((video[0]["video"]["width"], video[0]["video"]["height"]), size)

    def test_turned_pictures_stand_upright(self):
        whole = FILM.read_bytes()
        at = whole.index(struct.pack(">9i", 65536, 0, 0, 0, 65536, 0, 0, 0, 1 << 30), whole.index(b"tkhd"))
        source = self.folder / "turned.mp4"
        for turn in [(0, -1, 1, 0), (0, 1, 1, 0), (-1, 0, 0, 1)]:  # the last two are mirrored
            matrix = struct.pack(">9i", turn[0] << 16, turn[1] << 16, 0, turn[2] << 16, turn[3] << 16, 0, 0, 0, 1 << 30)
            source.write_bytes(whole[:at] + matrix + whole[at + 36:])
            expected = gray(source, "-frames:v", "1")[0]
            for output in [self.make("a.png", "--at", "0", source=source, command="snapshot"),
                           self.make("a.mp4", "--preset", "ultrafast", "--for", "0.2", source=source)]:
                self.assertLess(nearest(gray(output)[0], [expected])[1], 4, (turn, output))
        self.make("a.mkv", "--preset", "ultrafast", "--for", "0.2", source=source)
        self.assertIn("cannot tell that its pictures are to be turned", self.told)

    def test_a_terminal_sees_how_far_it_is(self):
        leader, follower = pty.openpty()
        with subprocess.Popen([MIVRA, "snapshot", FILM, "--grid", "12x12", "--size", "16x16", "-o", self.folder / "g.png"],
                              stderr=follower, env=os.environ | {"TERM": "xterm"}) as child:
            os.close(follower)
            with open(leader, "rb", buffering=0) as terminal:
                self.assertRegex(terminal.read(200), rb"\d+%.*")
                with contextlib.suppress(OSError):  # how a terminal ends
                    while terminal.read(1000):
                        pass
        self.assertEqual(child.returncode, 0)

    def test_tiles_are_spread_evenly(self):
        sheet, whole = self.make("g.png", "--grid", "5x1", "--size", "320x180", command="snapshot"), gray(FILM)
        for tile in range(5):
            body = ffmpeg("-i", sheet, "-f", "rawvideo", "-vf", f"crop=320:180:{320 * tile}:0,scale=64:36,format=gray",
                          "-").stdout
            upper = 64 * 28  # the time stands below
            found, _ = nearest(body[:upper], [picture[:upper] for picture in whole])
            self.assertEqual(found, int((tile + 0.5) * 25))

    def test_what_is_refused(self):
        out = self.folder / "out.png"
        for code, part, *words in [
                (2, "ends at 5.000 s", FILM, "--at", "5.001", "-o", out), (2, "one of --at", FILM, "-o", out),
                (2, "one of --at", FILM, "-o", out, "--at", "1", "--grid", "2x2"), (2, "4x3", FILM, "-o", out, "--grid", "4"),
                (2, "too large: 32000x18000", FILM, "-o", out, "--grid", "100x100"),
                (2, ".png", FILM, "--at", "1", "-o", "a.gif"), (3, "cannot open the input", "/nowhere.mp4", "--at", "1", "-o", out),
                (3, "cannot open the output", FILM, "--at", "1", "-o", "/nowhere/a.png")]:
            with self.subTest(words=words):
                self.refused(code, part, "snapshot", *words)
                self.assertFalse(out.exists())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
