#!/usr/bin/env python3
"""Runs `mivra relay` as a user would, and with everything that can go wrong around it: check_relay.py MIVRA
FOLDER-FOR-INPUTS"""

import fcntl
import json
import os
import pathlib
import pty
import random
import resource
import shutil
import signal
import struct
import subprocess
import termios
import time
import unittest

import program
from program import INPUTS, MIVRA, ffmpeg

FILM = INPUTS / "bframes.mp4"


def relay(*words, **options):
    return program.mivra("relay", *words, **options)


def probe(path, *words):
    return subprocess.run(["ffprobe", "-v", "error", "-of", "json", *words, path], capture_output=True, text=True)


def streams(path):
    """Codec and packet count of each stream, and what ffprobe had to complain about."""
    done = probe(path, "-count_packets", "-show_entries", "stream=codec_name,nb_read_packets")
    found = [(s["codec_name"], int(s["nb_read_packets"])) for s in json.loads(done.stdout)["streams"]]
    return found, done.stderr


def summary(done):
    return json.loads(done.stdout.splitlines()[-1])


class Case(program.Case):
    def plays(self, path):
        found, complaints = streams(path)
        self.assertEqual(complaints, "", path)
        self.assertTrue(all(count > 0 for _, count in found), found)
        return found


class Use(Case):
    def test_several_outputs_get_the_same(self):
        outputs = [self.out(name) for name in ("a.ts", "b.mkv", "c.MP4")]
        done = relay(FILM, outputs[0], "-o", outputs[1], "--output", outputs[2], "--json")
        self.ends(done, 0)
        self.assertEqual([self.plays(path) for path in outputs], [[("h264", 125), ("aac", 236)]] * 3)
        told = summary(done)
        self.assertEqual(told["state"], "done")
        self.assertEqual([(o["format"], o["packets"]) for o in told["outputs"]],
                         [("mpegts", 361), ("matroska", 361), ("mp4", 361)])

    def test_several_inputs_are_numbered_in_their_order(self):
        output = self.out("all.mkv")
        names = ["plain.mp4", "bframes.flv", "bframes.ts", "plain.flv"]
        self.ends(relay(*(INPUTS / name for name in names), output), 0)
        rates = [s.get("sample_rate") for s in json.loads(probe(output, "-show_streams").stdout)["streams"]]
        self.assertEqual(rates, [None, "44100", None, "48000", None, "48000", None, "44100"])
        reference = self.out("reference.mkv")
        ffmpeg(*(word for name in names for word in ("-i", INPUTS / name)),
               *(word for i in range(len(names)) for word in ("-map", i)), "-c", "copy", reference)
        what = ["-show_packets", "-show_entries", "packet=stream_index,pts,dts,size,flags"]
        self.assertEqual(probe(output, *what).stdout, probe(reference, *what).stdout)

    def test_standard_streams(self):
        with open(FILM, "rb") as film:
            done = relay("-", "-", stdin=film)
        self.assertEqual(done.returncode, 0)
        self.assertIn("event=summary", done.stderr)
        self.ends(relay(FILM, self.out("file.ts")), 0)
        self.assertEqual(done.stdout, self.out("file.ts").read_bytes())
        piped = subprocess.run(f"cat '{INPUTS / 'bframes.ts'}' | '{MIVRA}' relay - '{self.out('piped.mkv')}'", shell=True,
                               capture_output=True, text=True)
        self.ends(piped, 0)
        self.assertEqual(self.plays(self.out("piped.mkv")), [("h264", 125), ("aac", 236)])

    def test_only_so_much(self):
        self.ends(relay(FILM, self.out("part.ts"), "--for", "2"), 0)
        ffmpeg("-i", FILM, "-t", 2, "-c", "copy", self.out("reference.ts"))
        self.assertEqual(self.plays(self.out("part.ts")), streams(self.out("reference.ts"))[0])

    def test_no_faster_than_it_plays(self):
        begin = time.monotonic()
        self.ends(relay(FILM, self.out("slow.ts"), "--realtime", "--for", "0.5"), 0)
        self.assertGreater(time.monotonic() - begin, 0.4)

    def test_what_an_output_cannot_hold_is_left_out_in_one_line(self):
        for name, codec, other in [("picture.h264", "h264", "aac"), ("sound.aac", "aac", "h264")]:
            done = relay(FILM, self.out(name))
            self.assertEqual(done.returncode, 0)
            self.assertRegex(done.stderr, rf"\Amivra: \S+{name} leaves out stream \d \((audio|video) {other} [^\n]+\n\Z")
            self.assertEqual([found[0] for found in self.plays(self.out(name))], [codec])
        self.ends(relay(INPUTS / "mpeg2.ts", self.out("none.h264")), 3, "none of the streams")
        self.assertFalse(self.out("none.h264").exists())

    def test_live_line_on_a_terminal(self):
        leader, follower = pty.openpty()
        child = self.start("relay", FILM, self.out("a.ts"), "--realtime", "--for", "0.6", stdin=follower, stdout=follower,
                           stderr=follower, env={**os.environ, "TERM": "xterm"})
        os.close(follower)
        shown = b""
        try:
            while chunk := os.read(leader, 4096):
                shown += chunk
        except OSError:
            pass  # the other end is closed
        os.close(leader)
        self.assertEqual(child.wait(), 0)
        self.assertGreater(shown.count(b"\r\x1b[K"), 2)

    def test_a_pipe_is_left_as_it_was(self):
        reader, writer = os.pipe()
        with open(reader, "rb") as end:
            child = self.start("relay", FILM, "-", stdout=writer, stderr=subprocess.DEVNULL)
            self.assertNotEqual(end.read(1000), b"")
            self.assertTrue(os.get_blocking(writer))
            os.close(writer)
            end.read()
        self.assertEqual(child.wait(), 0)

    def test_log(self):
        log = self.out("relay.log")
        self.ends(relay(FILM, self.out("a.ts"), "--log", log, "--log-level", "4"), 0)
        self.assertIn("MediaSession::mainThread: State changed to 4", log.read_text("utf-8-sig"))


class Refusals(Case):
    def test_an_output_that_is_also_an_input(self):
        film = self.out("film.ts")
        shutil.copy(INPUTS / "bframes.ts", film)
        os.link(film, self.out("hard.ts"))
        os.symlink(film, self.out("soft.ts"))
        before = film.read_bytes()
        for name in [film, self.out("hard.ts"), self.out("soft.ts"), f"{self.folder}/./film.ts"]:
            self.ends(relay(film, name), 2, "also an input")
            self.ends(relay(FILM, film, self.out("other.ts"), "-o", name), 2, "also an input")
        with open(film, "ab") as output:
            done = subprocess.run([MIVRA, "relay", film, "-"], stdout=output, stderr=subprocess.PIPE)
        self.assertEqual(done.returncode, 2)
        self.assertEqual(film.read_bytes(), before)
        self.assertFalse(self.out("other.ts").exists())

    def test_names(self):
        os.symlink("hop.ts", self.out("link.ts"))  # to a file that is not there yet
        os.symlink(self.out("a.ts"), self.out("hop.ts"))
        os.symlink(FILM, self.out("film.log"))
        for words, text in [((FILM, self.out("a.avi")), ".ts, .mp4"), ((FILM, self.out("noextension")), ".ts, .mp4"),
                            ((FILM, self.out("a.ts"), "-o", f"{self.folder}/./a.ts"), "the same file"),
                            ((FILM, "-", "-o", "-"), "the same file"), (("-", "-", self.out("a.ts")), "twice"),
                            ((FILM, self.out("link.ts"), "-o", self.out("a.ts")), "the same file"),
                            ((FILM, self.out("link.ts"), "--log", self.out("a.ts")), "the log is also an output"),
                            ((FILM, self.out("a.ts"), "--log", self.out("film.log")), "the log is also an input")]:
            self.ends(relay(*words), 2, text)
            self.assertFalse(self.out("a.ts").exists())

    def test_a_log_that_cannot_be_written(self):
        begin = time.monotonic()
        for log, why in [(self.folder, "Is a directory"), (self.out("none/a.log"), "No such file")]:
            self.ends(relay(FILM, self.out("a.ts"), "--log", log), 2, "cannot write the log", why)
        self.assertLess(time.monotonic() - begin, 8)
        self.assertFalse(self.out("a.ts").exists())

    def test_names_that_begin_like_an_option(self):
        self.ends(relay("--", FILM, "-a.ts", cwd=self.folder), 0)
        self.ends(relay("-o", "b.ts", "--", "-a.ts", "--for", cwd=self.folder), 2, "./--for")
        self.assertEqual(len(streams(self.out("-a.ts"))[0]), 2)

    def test_closed_standard_streams(self):
        """Their numbers are not taken by files of ours, which would be read and written in their place."""
        def closed(how, *words):
            return subprocess.run(["bash", "-c", f'exec "$0" relay "$@" {how}', MIVRA, *words], timeout=60,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.ends(closed("<&-", "-", self.out("a.ts")), 3, "Bad file descriptor")
        done = closed(">&-", FILM, "-")  # with its figures in front of the error
        self.assertEqual(done.returncode, 6)
        self.assertIn("Bad file descriptor", done.stderr.splitlines()[-1])
        self.ends(closed("<&- >&-", FILM, self.out("a.ts")), 0)
        self.assertEqual(closed("2>&-", self.out("none.mp4"), self.out("a.ts")).returncode, 3)

    def test_places(self):
        self.ends(relay(self.out("missing.mp4"), self.out("a.ts")), 3, "No such file", "missing.mp4")
        self.ends(relay(self.folder, self.out("a.ts")), 3, "Is a directory")
        self.ends(relay(FILM, self.out("missing/a.ts")), 3, "No such file", "missing/a.ts")
        self.out("folder.ts").mkdir()
        self.ends(relay(FILM, self.out("folder.ts")), 3, "Is a directory")
        # One output that cannot be opened: the other one is left as it was.
        self.out("old.ts").write_text("old")
        self.ends(relay(FILM, self.out("old.ts"), "-o", self.out("new.ts"), "-o", "/proc/none.ts"), 3, "/proc/none.ts")
        self.assertEqual(self.out("old.ts").read_text(), "old")
        self.assertFalse(self.out("new.ts").exists())
        self.assertFalse(self.out("a.ts").exists())

    @unittest.skipIf(os.geteuid() == 0, "root may write anywhere")
    def test_read_only_folder(self):
        self.folder.chmod(0o500)
        self.ends(relay(FILM, self.out("a.ts")), 3, "Permission denied")


class Damage(Case):
    def test_not_a_film(self):
        bodies = {"empty": b"", "zeros": bytes(1 << 20), "text": b"no film\n" * 5000,
                  "random": random.Random(1).randbytes(1 << 18)}
        for name, body in bodies.items():
            for extension in ["mp4", "ts"]:
                source = self.out(f"{name}.{extension}")
                source.write_bytes(body)
                done = relay(source, self.out("a.ts"))
                self.assertIn(done.returncode, (3, 5), (name, extension, done.stderr))
                self.ends(done, done.returncode, source.name)

    def test_what_can_be_read_of_a_cut_file_is_written(self):
        for name in ["bframes.ts", "bframes.mkv", "bframes.flv", "fragments.mp4"]:
            cut = self.out("cut" + pathlib.Path(name).suffix)
            body = (INPUTS / name).read_bytes()
            cut.write_bytes(body[:len(body) * 2 // 3 + 5])
            self.ends(relay(cut, self.out("rest.mkv")), 5, "damaged input", cut.name, "what could be read is written")
            counts = [count for _, count in streams(self.out("rest.mkv"))[0]]
            self.assertGreater(counts[0], 60, name)
            self.assertLess(counts[0], 125, name)
        # The table of an MP4 that was not finished is missing: nothing can be read.
        cut = self.out("cut.mp4")
        cut.write_bytes(FILM.read_bytes()[:100000])
        self.ends(relay(cut, self.out("rest2.mkv")), 3, "cut.mp4")

    def test_a_damaged_input_does_not_end_the_others(self):
        cut = self.out("cut.ts")
        cut.write_bytes((INPUTS / "bframes.ts").read_bytes()[:100005])
        self.ends(relay(cut, FILM, self.out("both.mkv")), 5, "cut.ts")
        found = self.plays(self.out("both.mkv"))
        self.assertEqual(found[2:], [("h264", 125), ("aac", 236)])
        self.assertLess(found[0][1], 125)

    def test_a_hole_is_told_even_where_the_input_is_first_looked_at(self):
        for name in ["bframes.ts", "bframes.mkv", "bframes.flv"]:
            body = bytearray((INPUTS / name).read_bytes())
            middle = len(body) // 2
            body[middle:middle + 30000] = random.Random(2).randbytes(30000)
            source = self.out(name)
            source.write_bytes(body)
            self.ends(relay(source, self.out("rest.mkv")), 5, "damaged input", name)

    def test_bits_that_have_changed(self):
        for name in ["bframes.ts", "bframes.mkv", "bframes.flv", "bframes.mp4"]:
            body = bytearray((INPUTS / name).read_bytes())
            for at in range(20000, len(body) - 20000, 7919):
                body[at] ^= 0x5A
            source = self.out(name)
            source.write_bytes(body)
            for extension in ["ts", "mp4"]:
                done = relay(source, self.out("a." + extension))
                self.assertIn(done.returncode, (0, 5), (name, done.stderr))


class FailingOutputs(Case):
    def test_a_full_device(self):
        for extension in ["ts", "mkv", "flv", "h264", "aac"]:
            full = self.out("full." + extension)
            full.symlink_to("/dev/full")
            done = relay(FILM, full)
            self.assertEqual(done.returncode, 6, (extension, done.stderr))
            self.assertIn("cannot write the output: No space left", done.stderr)

    def test_a_limit_on_the_size_of_files(self):
        for size in [20, 2000, 50000, 150000]:
            for extension in ["ts", "mp4", "mkv"]:
                limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))
                done = relay(FILM, self.out("cut." + extension), "--json", preexec_fn=limit)
                self.ends(done, 6, "File too large")
                told = summary(done)
                self.assertEqual([told["packets"], told["bytes"]], [told["outputs"][0][k] for k in ("packets", "bytes")])
                self.assertLess(told["packets"], 361)
                self.assertLessEqual(told["bytes"], size)  # what was read is not what was written

    def test_the_other_outputs_are_finished(self):
        full = self.out("full.ts")
        full.symlink_to("/dev/full")
        self.ends(relay(FILM, self.out("good.mp4"), "-o", full, "-o", self.out("good.mkv"), "--realtime"), 6, "full.ts")
        self.plays(self.out("good.mp4"))
        self.plays(self.out("good.mkv"))

    @unittest.skipUnless(os.geteuid() == 0, "only root may mount")
    def test_a_small_file_system(self):
        mount = self.out("small")
        mount.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "none", mount], capture_output=True).returncode != 0:
            self.skipTest("no tmpfs to be had")
        try:
            for extension in ["ts", "mp4", "mkv", "flv"]:
                self.ends(relay(FILM, mount / ("a." + extension)), 6, "No space left")
                (mount / ("a." + extension)).unlink()
        finally:
            subprocess.run(["umount", mount], check=True)

    def test_a_reader_that_goes_away(self):
        child = self.start("relay", FILM, "-")
        child.stdout.read(1000)
        child.stdout.close()
        complaints = child.stderr.read().decode().splitlines()
        self.assertEqual(child.wait(), 6)
        self.assertEqual([line for line in complaints if not line.startswith("event=")],
                         ["mivra: the reader of the output went away: -; did it end too soon?"])


class Interruption(Case):
    def relay_beside(self, *words):
        return self.start("relay", *words, "--stats", "0.1", stdin=subprocess.PIPE)

    def test_finishes_the_outputs(self):
        outputs = [self.out("a." + extension) for extension in ["ts", "mp4", "mkv", "flv"]]
        child = self.relay_beside(FILM, outputs[0], "-o", outputs[1], "-o", outputs[2], "-o", outputs[3], "--realtime")
        while b"position=0.0" in (line := child.stdout.readline()):
            pass
        self.assertIn(b"event=progress", line)
        child.send_signal(signal.SIGINT)
        told = child.stdout.read()
        self.assertEqual((child.wait(timeout=60), child.stderr.read()), (0, b""))
        self.assertIn(b"state=interrupted", told)
        for path in outputs:
            self.assertLess(self.plays(path)[0][1], 125)

    def test_while_an_input_waits_for_data(self):
        for words in [("-", self.out("a.ts")), (FILM, "-", self.out("b.ts"))]:
            child = self.relay_beside(*words)
            child.stdout.readline()
            child.send_signal(signal.SIGTERM)
            self.assertEqual(child.wait(timeout=60), 0)

    def wait_for_full_pipe(self, reader):
        waiting = -1
        while (now := struct.unpack("i", fcntl.ioctl(reader, termios.FIONREAD, bytes(4)))[0]) != waiting or now == 0:
            waiting = now
            time.sleep(0.05)

    def test_while_an_output_has_no_reader(self):
        os.mkfifo(self.out("a.ts"))
        child = self.relay_beside(FILM, self.out("a.ts"), "-o", self.out("b.mp4"))
        child.stdout.readline()
        child.send_signal(signal.SIGINT)
        self.assertEqual((child.wait(timeout=60), child.stderr.read()), (0, b""))

    def test_while_a_reader_takes_nothing_or_little(self):
        os.mkfifo(self.out("a.ts"))
        for reads in [False, True]:
            reader = os.open(self.out("a.ts"), os.O_RDONLY | os.O_NONBLOCK)
            child = self.relay_beside(INPUTS / "two-of-each.ts", self.out("a.ts"), "-o", self.out("b.mp4"))
            self.wait_for_full_pipe(reader)
            child.send_signal(signal.SIGINT)
            if reads:
                os.set_blocking(reader, True)
                with open(reader, "rb") as end:
                    self.out("c.ts").write_bytes(end.read())
                self.assertEqual((child.wait(timeout=60), child.stderr.read()), (0, b""))
                self.plays(self.out("c.ts"))
            else:
                self.assertEqual(child.wait(timeout=60), 6)
                self.assertIn(b"the reader of the output takes nothing", child.stderr.read())
                os.close(reader)
            self.plays(self.out("b.mp4"))


class WithoutFfmpeg(Case):
    def test_it_says_so(self):
        copy = self.out("mivra")
        shutil.copy(MIVRA, copy)
        self.ends(relay(FILM, self.out("a.ts"), program=copy), 0)
        # The folder of the program comes first; what is there is no library.
        doctor = json.loads(program.mivra("doctor", "--json").stdout)
        self.out(doctor["ffmpeg"]["libraries"][0]["file"]).write_text("no library")
        self.ends(relay(FILM, self.out("b.ts"), program=copy), 3, "FFmpeg", "mivra doctor")
        self.assertFalse(self.out("b.ts").exists())


program.main()
