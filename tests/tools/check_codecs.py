#!/usr/bin/env python3
"""mivra probe, convert and sps, held against ffmpeg and ffprobe: check_codecs.py MIVRA FOLDER-OF-FILMS

Units, configurations and session descriptions are compared stream by stream in the codec oracles."""

import json
import subprocess

import packets
import program
from program import ffmpeg

FILMS = program.INPUTS


def pictures(path, *words):
    """A digest of each decoded picture or piece of sound."""
    return ffmpeg("-flags", "unaligned", "-i", path, *words, "-vsync", "passthrough", "-f", "framehash", "-hash", "md5", "-").decode().split("\n")


def digests(path, kind, *words):
    return [line.split(",")[-1] for line in pictures(path, "-map", f"0:{kind}", *words) if line and line[0] != "#"]


def ffprobe(path, kind, entries):
    words = ["ffprobe", "-v", "error", "-select_streams", kind, "-show_entries", "stream=" + entries, "-of", "json", path]
    return json.loads(subprocess.run(list(map(str, words)), capture_output=True, check=True, timeout=60).stdout)["streams"][0]


class Codecs(program.Case):
    def setUp(self):
        super().setUp()
        for name, words in {"raw.h264": ["-an"], "raw.aac": ["-vn"]}.items():
            ffmpeg("-i", FILMS / "bframes.mp4", *words, "-c", "copy", "-t", "1", self.folder / name)

    def works(self, *words):
        done = program.mivra(*words)
        self.assertEqual(done.returncode, 0, done)
        return done

    def fails(self, code, hint, *words):
        self.ends(program.mivra(*words), code, hint)


class Probe(Codecs):
    def streams(self, path, *words):
        return json.loads(self.works("probe", "--json", *words, path).stdout)["streams"]

    def test_forms_are_told_from_each_other(self):
        for name, forms in {"bframes.mp4": ["avcc", "asc"], "bframes.ts": ["annexb", "adts"],
                            "bframes.flv": ["avcc", "asc"], "changes.flv": ["avcc", "asc"]}.items():
            found = self.streams(FILMS / name)
            self.assertEqual([stream.get("h264", stream.get("aac"))["form"] for stream in found], forms, name)
        self.assertEqual(self.streams(self.folder / "raw.h264")[0]["h264"]["form"], "annexb")
        sound = self.streams(self.folder / "raw.aac")[0]
        self.assertEqual((sound["aac"]["form"], sound["codecs"]), ("adts", "mp4a.40.2"))
        self.assertTrue(sound["parameters"].endswith("&isAdts=1"))
        self.assertNotIn("h264", self.streams(FILMS / "mpeg2.ts")[0])

    def test_units_are_lines_too(self):
        film = FILMS / "bframes.mp4"
        told = json.loads(self.works("probe", "--json", "--nal", film).stdout)["packets"]
        self.assertEqual([packet["bytes"] for packet in told], [packet.size for packet in packets.of(film)[0]])
        lines = self.works("probe", "--nal", film).stdout
        self.assertEqual(lines.count(b" bytes, ref "), sum(len(packet["units"]) for packet in told))

    def test_what_is_no_media_is_one_line_and_the_others_are_told(self):
        empty, junk = self.folder / "empty.mp4", self.folder / "junk.h264"
        empty.write_bytes(b"")
        junk.write_bytes(bytes(range(256)) * 40)
        for path in [empty, self.folder, self.folder / "none.mp4"]:
            self.fails(3, "cannot open the input", "probe", path)
        done = program.mivra("probe", empty, FILMS / "bframes.mp4")
        self.assertEqual((done.returncode, b"Video H264" in done.stdout), (3, True))
        self.assertIn(program.mivra("probe", "--nal", junk).returncode, (0, 3, 5))

    def test_films_that_are_cut_or_damaged_end_the_program_well(self):
        whole = (FILMS / "bframes.ts").read_bytes()[:60000]
        path = self.folder / "damaged.ts"
        for step in range(12):
            broken = bytearray(whole[:60000 - step * 4999])
            for place in range(400 + step, len(broken), 911):
                broken[place] ^= 0x5A
            path.write_bytes(broken)
            for words in [("probe", "--nal", path), ("convert", path, self.folder / "d.mp4", "--to", "avcc"),
                          ("sps", path, "--aspect", "3:2", "-o", self.folder / "d.ts")]:
                done = program.mivra(*words)
                self.assertIn(done.returncode, (0, 3, 5), (words, done.stderr))
                self.assertLess(done.stderr.count("\n"), 4, done.stderr)


class Convert(Codecs):
    CASES = [("bframes.mp4", "annexb", ".h264", "v"), ("bframes.mp4", "annexb", ".ts", "v"), ("bframes.ts", "avcc", ".mp4", "v"),
             ("bframes.mkv", "avcc", ".flv", "v"), ("bframes.mp4", "adts", ".aac", "a"), ("bframes.mp4", "adts", ".ts", "a"),
             ("bframes.ts", "asc", ".m4a", "a"), ("bframes.ts", "asc", ".mkv", "a"), ("plain.flv", "annexb", ".ts", "v"),
             ("changes.flv", "annexb", ".ts", "v"), ("changes.flv", "annexb", ".h264", "v")]

    def test_what_comes_out_has_the_form_and_the_same_content(self):
        for name, form, extension, kind in self.CASES:
            with self.subTest(name=name, form=form, extension=extension):
                out = self.folder / ("out" + extension)
                self.works("convert", FILMS / name, out, "--to", form)
                told = json.loads(self.works("probe", "--json", out).stdout)["streams"]
                forms = [stream[key]["form"] for stream in told for key in ("h264", "aac") if key in stream]
                self.assertIn(form, forms)
                # Without an edit list a decoder gives the sound's lead-in, too.
                wanted = digests(FILMS / name, kind)
                self.assertEqual(digests(out, kind)[-len(wanted):], wanted)

    def test_what_tells_no_times_is_said(self):
        self.assertIn("tells no times; pictures", self.works("convert", self.folder / "raw.h264", self.folder / "raw.mp4",
                                                             "--to", "avcc").stderr)
        self.assertEqual(self.works("convert", self.folder / "raw.h264", self.folder / "again.h264", "--to", "annexb").stderr, "")
        self.fails(3, "the input tells no times", "convert", self.folder / "raw.h264", self.folder / "raw.mkv", "--to", "avcc")

    def test_layouts_that_have_no_number_are_no_damage(self):
        for layout in ["2.1", "7.1(wide)"]:
            path = self.folder / "layout.m4a"
            ffmpeg("-f", "lavfi", "-i", f"anullsrc=cl={layout}", "-t", "0.2", "-c:a", "aac", path)
            self.fails(3, "numbers no such channel layout", "convert", path, self.folder / "layout.aac", "--to", "adts")

    def test_a_check_word_in_the_header_goes_too(self):
        frames, at = bytearray(), 0
        raw = (self.folder / "raw.aac").read_bytes()
        while at < len(raw):
            size = (raw[at + 3] & 3) << 11 | raw[at + 4] << 3 | raw[at + 5] >> 5
            head = bytearray(raw[at:at + 7])
            longer = size + 2
            head[1] &= 0xFE
            head[3], head[4], head[5] = head[3] & 0xFC | longer >> 11, longer >> 3 & 0xFF, head[5] & 0x1F | (longer & 7) << 5
            frames += head + b"\0\0" + raw[at + 7:at + size]
            at += size
        (self.folder / "crc.aac").write_bytes(frames)
        self.works("convert", self.folder / "crc.aac", self.folder / "crc.m4a", "--to", "asc")
        self.works("convert", self.folder / "crc.m4a", self.folder / "plain.aac", "--to", "adts")
        self.assertEqual((self.folder / "plain.aac").read_bytes(), raw)

    def test_wrong_wishes(self):
        film, out = FILMS / "bframes.mp4", self.folder / "wrong.mp4"
        self.fails(2, "holds no annexb", "convert", film, out, "--to", "annexb")
        self.fails(2, "'mp3' is not annexb", "convert", film, out, "--to", "mp3")
        self.fails(2, "--to is needed", "convert", film, out)
        self.fails(2, "also an input", "convert", film, film, "--to", "avcc")
        self.fails(3, "no H.264 stream", "convert", self.folder / "raw.aac", out, "--to", "avcc")
        self.fails(3, "cannot open the output", "convert", film, self.folder / "none" / "x.mp4", "--to", "avcc")
        self.fails(3, "cannot open the input", "convert", self.folder, out, "--to", "avcc")
        self.assertFalse(out.exists())


class Sps(Codecs):
    def test_probes_and_decoders_see_the_new_picture(self):
        for name, extension in [("bframes.mp4", ".mp4"), ("bframes.ts", ".ts"), ("bframes.mkv", ".mkv"), ("plain.flv", ".mp4"),
                                ("bframes.mp4", ".h264")]:
            with self.subTest(name=name, extension=extension):
                out = self.folder / ("edited" + extension)
                self.works("sps", FILMS / name, "--crop", "2,4,8,10", "--aspect", "16:11", "-o", out)
                seen = ffprobe(out, "v", "width,height,sample_aspect_ratio")
                # 320x180 is coded as 320x192.
                self.assertEqual((seen["width"], seen["height"], seen["sample_aspect_ratio"]), (314, 174, "16:11"))
                whole = self.folder / "whole.ts"
                self.works("sps", FILMS / name, "--crop", "0,0,0,0", "-o", whole)
                self.assertEqual(digests(out, "v"), digests(whole, "v", "-vf", "crop=314:174:2:8"))

    def test_sets_that_come_later_are_changed_too(self):
        for extension in [".ts", ".flv"]:
            out = self.folder / ("changes" + extension)
            self.works("sps", FILMS / "changes.flv", "--aspect", "4:3", "-o", out)
            words = ["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "frame=width,sample_aspect_ratio",
                     "-of", "csv=p=0", out]
            lines = subprocess.run(words, capture_output=True, text=True, check=True, timeout=60).stdout.split()
            seen = {line.strip(",") for line in lines}
            self.assertEqual(seen, {"320,4:3", "480,4:3"}, extension)

    def test_the_ratio_can_be_taken_away(self):
        out = self.folder / "none.mp4"
        self.works("sps", FILMS / "bframes.mp4", "--aspect", "0:0", "-o", out)
        self.assertIn(ffprobe(out, "v", "sample_aspect_ratio").get("sample_aspect_ratio", "0:1"), ("0:1", "N/A"))

    def test_wrong_wishes(self):
        film, out = FILMS / "bframes.mp4", self.folder / "wrong.mp4"
        for words, hint in {("--crop", "1,0,0,0"): "multiples of 2", ("--crop", "320,0,0,0"): "leave nothing",
                            ("--crop", "1,2,3"): "is not LEFT,RIGHT", ("--crop", "a,0,0,0"): "is not LEFT,RIGHT",
                            ("--crop", "-2,0,0,0"): "", ("--aspect", "4/3"): "is not N:D", ("--aspect", "4:0"): "is not N:D",
                            ("--aspect", "70000:1"): "is not N:D", (): "--crop or --aspect"}.items():
            self.fails(2, hint, "sps", film, *words, "-o", out)
        self.fails(2, "an input and an output", "sps", film, "--aspect", "4:3")
        self.fails(3, "no H.264 stream", "sps", self.folder / "raw.aac", "--aspect", "4:3", "-o", out)
        self.assertFalse(out.exists())


program.main()
