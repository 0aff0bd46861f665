#!/usr/bin/env python3
"""Where `mivra relay` begins, how often and how fast it plays, held against what ffprobe says of the inputs:
check_steering.py MIVRA FOLDER-FOR-INPUTS"""

import functools
import os
import shutil
import time

import packets
import program
from program import INPUTS


def relay(*words, **options):
    return program.mivra("relay", *words, **options)


@functools.cache
def inputs_packets(name):
    return *packets.of(INPUTS / name), packets.start(INPUTS / name)


class Case(program.Case):
    def setUp(self):
        super().setUp()
        self.output = self.folder / "out.mkv"


class Seek(Case):
    def check(self, name, second):
        video, sound, begin = inputs_packets(name)
        keys = [p for p in video if p.key]
        entry = next((p for p in reversed(keys) if p.pts - begin <= second + 1e-6), keys[0])
        output = self.folder / name  # the same format: the same payload
        self.ends(relay("--seek", second, INPUTS / name, output), 0)
        got_video, got_sound = packets.of(output)
        self.assertEqual([p.data for p in got_video], [p.data for p in video[video.index(entry):]])
        wanted = [p.data for p in sound if p.pts >= entry.pts - 1e-3]
        self.assertIn([p.data for p in got_sound], [wanted, wanted[1:]])  # one more or less by rounding
        # Pictures begin at 0, moved by what is decoded before and by the format's own delay.
        self.assertLess(got_video[0].pts, 1.6 if name.endswith(".ts") else 0.15)
        self.assertLess(abs((got_sound[0].pts - got_video[0].pts) - (sound[-len(got_sound)].pts - entry.pts)), 2e-3)

    def test_begins_at_the_key_frame_at_or_before(self):
        for name in ["bframes.mp4", "fragments.mp4", "bframes.mkv", "bframes.flv", "bframes.ts", "mpeg2.ts"]:
            for second in [0.5, 2, 4.9]:
                with self.subTest(name=name, second=second):
                    self.check(name, second)

    def test_where_it_cannot(self):
        self.ends(relay("--seek", 5.5, INPUTS / "bframes.mp4", self.output), 2, "it lasts from 0 to 5.0", "bframes.mp4")
        film = (INPUTS / "bframes.ts").read_bytes()
        self.ends(relay("--seek", 1, "-", self.output, input=film), 3, "cannot seek")
        for word in ["-1", "soon", "nan"]:
            self.ends(relay("--seek", word, INPUTS / "bframes.mp4", self.output), 2, "--seek")
        self.assertFalse(self.output.exists())


class Loop(Case):
    def test_times_go_on_without_a_jump(self):
        for name, extension in [("bframes.mp4", "mp4"), ("bframes.ts", "ts"), ("plain.flv", "mkv")]:
            output = self.folder / ("out." + extension)
            self.ends(relay("--loop", 2, INPUTS / name, output), 0)
            once = self.folder / ("once." + extension)
            self.ends(relay(INPUTS / name, once), 0)
            for one, all_of_it in zip(packets.of(once), packets.of(output)):
                self.assertEqual([p.data for p in all_of_it], [p.data for p in one] * 3)
                steps = [b.dts - a.dts for a, b in zip(all_of_it, all_of_it[1:])]
                usual = max(b.dts - a.dts for a, b in zip(one, one[1:]))
                self.assertGreater(min(steps), 0)
                self.assertLess(max(steps), usual + 0.1, (name, extension))

    def test_rounds_begin_where_the_first_began(self):
        self.ends(relay("--seek", 4.5, "--loop", 1, INPUTS / "bframes.mp4", self.output), 0)
        video, _ = packets.of(self.output)
        self.assertEqual(len(video), 50)
        self.assertEqual([p.key for p in video], ([True] + [False] * 24) * 2)

    def test_without_end(self):
        self.ends(relay("--loop", -1, "--for", 12, INPUTS / "bframes.mp4", self.output), 0)
        for stream in packets.of(self.output):
            self.assertAlmostEqual(stream[-1].dts, 12, delta=0.15)

    def test_where_it_cannot(self):
        with open(INPUTS / "bframes.ts", "rb") as film:
            self.ends(relay("--loop", 1, "-", self.output, stdin=film), 3, "only a file can loop")
        for word in ["-2", "1.5", "often"]:
            self.ends(relay("--loop", word, INPUTS / "bframes.mp4", self.output), 2, "not a whole number from -1")

    def test_a_file_that_is_replaced_meanwhile(self):
        for other, code in [("wrap.ts", 0), ("mpeg2.ts", 1)]:
            film = self.folder / "film.ts"
            shutil.copy(INPUTS / "bframes.ts", film)
            child = self.start("relay", "--loop", "1", "--rate", "8", "--stats", "0.01", film, self.output, text=True)
            while " packets=0 " in child.stdout.readline():
                pass  # it has not opened the film yet
            shutil.copy(INPUTS / other, self.folder / "new.ts")
            os.rename(self.folder / "new.ts", film)
            complaints = child.communicate(timeout=60)[1]
            self.assertEqual(child.returncode, code, complaints)
            if code:
                self.assertIn("replaced by one with other streams", complaints)
            else:
                self.assertEqual(len(packets.of(self.output)[0]), 250)


class Rate(Case):
    def test_paces_and_leaves_times_alone(self):
        begin = time.monotonic()
        self.ends(relay("--rate", 8, "--for", 4, INPUTS / "bframes.mp4", self.output), 0)
        passed = time.monotonic() - begin
        self.assertGreater(passed, 0.4)
        self.assertLess(passed, 4)
        self.assertAlmostEqual(packets.of(self.output)[0][-1].dts, 4, delta=0.2)

    def test_values(self):
        for word in ["0", "-1", "1001", "inf", "fast"]:
            self.ends(relay("--rate", word, INPUTS / "bframes.mp4", self.output), 2, "--rate")


program.main()
