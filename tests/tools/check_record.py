#!/usr/bin/env python3
"""Runs `mivra record` as a user would, and compares what it writes with its inputs packet by packet:
check_record.py MIVRA FOLDER-FOR-INPUTS"""

import json
import os
import pathlib
import pty
import signal
import subprocess
import termios
import time

import packets
import program
from program import INPUTS, MIVRA, ffmpeg

FILM = INPUTS / "steps.mkv"  # 6 s, a key frame every 0.4 s
GROUP = 0.4


class Recorder:
    """A recording of what the test feeds it through a named pipe, which comes as fast as it is fed."""

    def __init__(self, case, *words, name="out.mkv", trigger="signal"):
        self.pipe = case.folder / "pipe.mkv"
        os.mkfifo(self.pipe)
        self.child = subprocess.Popen(
            [MIVRA, "record", self.pipe, "-o", case.folder / name, "--trigger", trigger, "--json", "--stats", "0.05",
             *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        case.addCleanup(self.close)
        self.told = []
        while self.child.poll() is None:
            try:
                self.feeder = os.fdopen(os.open(self.pipe, os.O_WRONLY | os.O_NONBLOCK), "wb", buffering=0)
                os.set_blocking(self.feeder.fileno(), True)
                return
            except OSError:
                time.sleep(0.01)  # it does not read yet
        raise AssertionError(self.child.communicate())

    def close(self):
        self.feeder.close()
        self.child.kill()
        self.child.communicate()

    def await_event(self, name):
        for line in self.child.stdout:
            self.told.append(json.loads(line))
            if self.told[-1]["event"] == name:
                return self.told[-1]
        raise AssertionError(f"no {name}: {self.told}, {self.child.stderr.read()}")

    def write(self, body):
        try:
            self.feeder.write(body)
        except BrokenPipeError:
            pass  # it has ended

    def feed(self, body):
        """All that can be read of it has been read when this returns."""
        self.write(body)
        self.await_event("waiting")
        before = -1
        while before != (before := self.await_event("progress")["packets"]) or before == 0:
            pass

    def end(self):
        self.feeder.close()
        out, complaints = self.child.communicate(timeout=60)
        self.told += [json.loads(line) for line in out.splitlines()]
        return self.child.returncode, complaints

    def files(self):
        return [pathlib.Path(output["path"]) for output in self.told[-1]["outputs"]]


class Case(program.Case):
    def is_tail(self, files, reference=FILM):
        """What was recorded is what the input has from one of its key frames on; which one."""
        (video, sound), (all_video, all_sound) = packets.of(*files), packets.of(reference)
        first = len(all_video) - len(video)
        self.assertTrue(all_video[first].key)
        self.assertEqual([p.data for p in video], [p.data for p in all_video[first:]])
        self.assertEqual([p.data for p in sound], [p.data for p in all_sound[len(all_sound) - len(sound):]])
        self.assertLess(abs(all_sound[len(all_sound) - len(sound)].pts - all_video[first].pts), 0.1)
        return all_video[first]


class Preroll(Case):
    def test_preroll_and_what_follows_are_the_input_from_a_key_frame_on(self):
        body = FILM.read_bytes()
        for kind, extension in [("memory", "mkv"), ("disk", "mkv"), ("memory", "mp4")]:
            with self.subTest(kind=kind, extension=extension):
                os.environ["XDG_DATA_HOME"] = str(self.folder)
                recorder = Recorder(self, "--preroll", 2, "--cache", kind, name="out." + extension)
                recorder.feed(body[:len(body) * 2 // 3])
                recorder.child.send_signal(signal.SIGUSR1)
                told = recorder.await_event("recording")
                recorder.write(body[len(body) * 2 // 3:])
                self.assertEqual(recorder.end(), (0, ""))
                entry = self.is_tail(recorder.files())
                position = max(e["position"] for e in recorder.told if e["event"] == "progress" and
                               e["elapsed"] <= recorder.told[recorder.told.index(told) - 1].get("elapsed", 1e9))
                self.assertEqual(told["asked"], 2)
                self.assertLessEqual(told["delivered"], 2.1)
                self.assertGreater(told["delivered"], 2 - GROUP - 0.1)
                self.assertAlmostEqual(told["delivered"], position - entry.pts, delta=0.15)
                begin = packets.of(*recorder.files())[0][0]
                self.assertLess(abs(begin.pts), 0.1)
                os.unlink(recorder.pipe)

    def test_so_long_and_no_longer(self):
        recorder = Recorder(self, "--preroll", 1, "--for", 1.5)
        body = FILM.read_bytes()
        recorder.feed(body[:len(body) // 2])
        recorder.child.send_signal(signal.SIGUSR1)
        told = recorder.await_event("recording")
        recorder.write(body[len(body) // 2:])
        self.assertEqual(recorder.end(), (0, ""))
        for stream in packets.of(*recorder.files()):
            self.assertAlmostEqual(stream[-1].dts - stream[0].dts, told["delivered"] + 1.5, delta=0.15)

    def test_files_come_as_they_play(self):
        begin = time.monotonic()
        done = program.mivra("record", FILM, "-o", self.folder / "a.ts", "--preroll", 1, "--trigger", "after:0.6",
                             "--for", 0.5)
        self.ends(done, 0)
        self.assertGreater(time.monotonic() - begin, 1)
        self.assertIn(b"event=recording asked=1.00 delivered=0.", done.stdout)
        self.assertLess(len(packets.of(self.folder / "a.ts")[0]), 60)


class Rotation(Case):
    def test_nothing_is_lost_or_doubled(self):
        reference = self.folder / "reference.ts"
        ffmpeg("-i", FILM, "-c", "copy", reference)
        for name, whole in [("cam-%Y%m%d.mkv", FILM), ("cam.mp4", FILM), ("cam-%j.ts", reference)]:
            with self.subTest(name=name):
                recorder = Recorder(self, "--rotate", 1, name=name, trigger="after:0")
                recorder.write(FILM.read_bytes())
                self.assertEqual(recorder.end(), (0, ""))
                files = recorder.files()
                self.assertEqual(len(files), 5)  # whole groups: 1.2 s, and the rest
                self.assertEqual(self.is_tail(files, whole).pts, packets.of(whole)[0][0].pts)
                self.assertEqual(sum(o["packets"] for o in recorder.told[-1]["outputs"]), recorder.told[-1]["packets"])
                for path in files:
                    self.assertTrue(packets.of(path)[0][0].key)
                    if path.suffix == ".ts":
                        continue
                    self.assertLess(abs(packets.of(path)[0][0].pts), 0.1)
                if whole == reference:
                    joined = self.folder / "joined.ts"
                    joined.write_bytes(b"".join(path.read_bytes() for path in files))
                    for one, other in zip(packets.of(joined), packets.of(reference)):
                        self.assertEqual([p.data for p in one], [p.data for p in other])
                        times = [(a.dts - one[0].dts) - (b.dts - other[0].dts) for a, b in zip(one, other)]
                        self.assertLess(max(map(abs, times)), 0.002)  # the input's are whole milliseconds
                os.unlink(recorder.pipe)


def record(*words, **options):
    """A recording of files, with its events."""
    done = program.mivra("record", *words, "--json", "--stats", "0", **options)
    return done, [json.loads(line) for line in done.stdout.splitlines()]


class Inputs(Case):
    def test_none_waits_for_the_key_frame_of_another(self):
        """The first has a key frame every 2 s and so nothing to begin with, the second every 0.4 s."""
        out = self.folder / "both.mkv"
        done, told = record(INPUTS / "bframes.mp4", FILM, "-o", out, "--preroll", 1, "--trigger", "after:1.5", "--for", 1)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertGreater(told[1]["delivered"], 0.5)
        recorded = [packets.of(out, stream=stream) for stream in (0, 2)]
        for got, film in zip(recorded, [INPUTS / "bframes.mp4", FILM]):
            wanted = [p.data for p in packets.of(film)[0]]
            first = wanted.index(got[0].data)
            self.assertTrue(got[0].key)
            self.assertEqual([p.data for p in got], wanted[first:first + len(got)])
        self.assertGreater(recorded[0][0].pts - recorded[1][0].pts, 0.5)

    def test_a_cover_is_no_video(self):
        cover, song, out = self.folder / "cover.png", self.folder / "song.m4a", self.folder / "out.mkv"
        ffmpeg("-f", "lavfi", "-i", "testsrc2=s=64x64", "-frames:v", 1, cover)
        ffmpeg("-f", "lavfi", "-i", "sine", "-i", cover, "-t", 3, "-map", 0, "-map", 1, "-c:v", "copy",
               "-disposition:v", "attached_pic", song)
        done, told = record(song, "-o", out, "--preroll", 1, "--trigger", "after:1.5", "--for", 0.2)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertGreater(told[1]["delivered"], 0.9)


class Ends(Case):
    def test_interrupted(self):
        body = FILM.read_bytes()
        for triggered in [True, False]:
            recorder = Recorder(self)
            recorder.feed(body[:len(body) // 2])
            if triggered:
                recorder.child.send_signal(signal.SIGUSR1)
                recorder.await_event("recording")
            recorder.child.send_signal(signal.SIGINT)
            self.assertEqual(self.wait(recorder), (0, ""))
            self.assertEqual(recorder.told[-1]["state"], "interrupted")
            self.assertEqual(len(recorder.files()), int(triggered))
            if triggered:
                self.assertGreater(len(packets.of(*recorder.files())[0]), 60)
                os.unlink(recorder.files()[0])
            self.assertEqual([p for p in self.folder.iterdir() if p != recorder.pipe], [])
            os.unlink(recorder.pipe)

    def test_an_input_that_brings_nothing(self):
        recorder = Recorder(self, "--no-samples", 1, trigger="after:0")
        recorder.write(FILM.read_bytes()[:200000])
        code, complaints = self.wait(recorder)
        self.assertEqual((code, complaints), (4, "mivra: Capture timeout; is the input slow or stuck?\n"))
        self.assertGreater(len(packets.of(*recorder.files())[0]), 40)

    @staticmethod
    def wait(recorder):
        out, complaints = recorder.child.communicate(timeout=60)
        recorder.told += [json.loads(line) for line in out.splitlines()]
        return recorder.child.returncode, complaints

    def test_without_a_key_frame(self):
        done, _ = record(INPUTS / "bframes.mp4", "-o", self.folder / "a.ts", "--preroll", 1, "--trigger", "after:1.3",
                         "--for", 0.1)
        self.assertEqual((done.returncode, done.stderr),
                         (4, "mivra: no key frame came before the end; nothing is recorded\n"))
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_killed(self):
        """The next recording removes what is left, and nothing of one that lives."""
        os.environ["XDG_DATA_HOME"] = str(self.folder)
        buffer = self.folder / "Mivrasoft" / "buffer"
        body = FILM.read_bytes()
        recorders = []
        for name in ["dies", "lives"]:
            recorders.append(Recorder(self, "--cache", "disk", name=name + ".mkv"))
            recorders[-1].feed(body[:len(body) // 2])
            os.unlink(recorders[-1].pipe)
        recorders[0].child.kill()
        recorders[0].child.wait()
        left = set(buffer.iterdir())
        self.assertEqual(len(left), 4)  # of each its lock and a file
        recorders[1].child.send_signal(signal.SIGSTOP)
        self.assertEqual(record(FILM, "-o", self.folder / "next.ts", "--cache", "disk", "--trigger", "after:0", "--for",
                                0.2)[0].returncode, 0)
        recorders[1].child.send_signal(signal.SIGCONT)
        kept = set(buffer.iterdir())
        self.assertEqual(len(kept), 2)
        self.assertLess(kept, left)
        recorders[1].child.send_signal(signal.SIGUSR1)
        recorders[1].await_event("recording")
        recorders[1].write(body[len(body) // 2:])
        self.assertEqual(recorders[1].end(), (0, ""))
        self.is_tail(recorders[1].files())
        self.assertEqual(list(buffer.iterdir()), [])

    def test_before_the_trigger(self):
        recorder = Recorder(self)
        recorder.write(FILM.read_bytes())
        self.assertEqual(recorder.end(), (4, "mivra: the inputs ended before the trigger; nothing is recorded\n"))
        self.assertEqual(list(self.folder.iterdir()), [recorder.pipe])


class Keys(Case):
    def run_at_terminal(self, *answers):
        """Exit code, what was shown, and whether the terminal echoed while it waited and afterwards."""
        child, terminal = pty.fork()
        if child == 0:
            os.environ["TERM"] = "xterm"
            os.execv(MIVRA, ["mivra", "record", str(FILM), "-o", str(self.folder / "a.mkv"), "--for", "0.3"])
        shown, echoes = b"", []
        echo = lambda: bool(termios.tcgetattr(terminal)[3] & (termios.ECHO | termios.ICANON))
        answers = list(answers)
        try:
            while chunk := os.read(terminal, 4096):
                shown += chunk
                if answers and b"begins the recording" in shown:
                    echoes.append(echo())
                    os.write(terminal, answers.pop(0))
        except OSError:
            pass  # the other end is closed
        code = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        echoes.append(echo())
        os.close(terminal)
        return code, shown, echoes

    def test_enter_and_space(self):
        for keys in [b"x\r", b" "]:
            code, shown, echoes = self.run_at_terminal(keys)
            self.assertEqual((code, echoes), (0, [False, True]), shown)
            self.assertRegex(shown, rb"recording: 10 s of pre-roll asked for, \d\.\d\d s delivered")
            self.assertGreater(len(packets.of(self.folder / "a.mkv")[0]), 3)

    def test_ctrl_c_leaves_the_terminal_as_it_was(self):
        code, _, echoes = self.run_at_terminal(b"x", b"\x03")
        self.assertEqual((code, echoes), (0, [False, False, True]))
        self.assertFalse((self.folder / "a.mkv").exists())


class Refusals(Case):
    def test_one_line_and_the_right_code(self):
        broken = self.folder / "broken.mp4"
        broken.write_bytes(bytes(5000))
        (self.folder / "folder.ts").mkdir()
        good = ["-o", "a.ts", "--trigger", "after:0"]
        cases = [((FILM,), 2, "-o with the output's name"), (good, 2, "an input"),
                 ((broken, *good), 3, "broken.mp4"), ((self.folder, *good), 3, "Is a directory"),
                 (("none.mp4", *good), 3, "No such file"),
                 ((FILM, "-o", "none/a.ts", "--trigger", "after:0"), 3, "none/a.ts"),
                 ((FILM, "-o", "folder.ts", "--trigger", "after:0"), 3, "Is a directory"),
                 ((FILM, "-o", "a.avi"), 2, ".ts, .mp4"), ((FILM, "-o", "-"), 2, "standard output"),
                 ((FILM, "-o", "a%Q.ts"), 2, "unknown conversion: %Q"), ((FILM, "-o", FILM), 2, "also an input"),
                 ((INPUTS / "mpeg2.ts", "-o", "a.h264", "--trigger", "after:0"), 3, "none of the streams"),
                 ((FILM, "-o", "a.ts"), 2, "no key can trigger the recording"),
                 ((FILM, "-o", "a.ts", "--trigger", "soon"), 2, "no such trigger: soon"),
                 ((FILM, "-o", "a.ts", "--trigger", "after:-1"), 2, "no such trigger"),
                 ((FILM, *good, "--preroll", "0"), 2, "'0' is not a whole number from 1"),
                 ((FILM, *good, "--cache", "tape"), 2, "'tape' is none of memory, disk"),
                 ((FILM, *good, "--rotate", "0"), 2, "--rotate"), ((FILM, *good, "--for", "-1"), 2, "--for"),
                 ((FILM, *good, "--no-samples", "x"), 2, "--no-samples"),
                 ((FILM, *good, "--log", "none/x.log"), 2, "cannot write the log")]
        for words, code, text in cases:
            with self.subTest(words=words):
                self.ends(program.mivra("record", *words, cwd=self.folder, start_new_session=True), code, text)
        self.assertFalse((self.folder / "a.ts").exists())

    def test_a_pipe_is_opened_once(self):
        out = self.folder / "out.mkv"
        os.mkfifo(out)
        reader = subprocess.Popen(["ffprobe", "-v", "error", "-count_packets", "-show_entries", "stream=nb_read_packets",
                                   "-of", "csv=p=0", out], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(reader.kill)
        recorder = Recorder(self, trigger="after:0")
        recorder.write(FILM.read_bytes())
        self.assertEqual(recorder.end(), (0, ""))
        self.assertEqual(reader.communicate(timeout=60), ("150\n283\n", ""))

    def test_a_full_device(self):
        (self.folder / "full.ts").symlink_to("/dev/full")
        recorder = Recorder(self, name="full.ts", trigger="after:0")
        recorder.write(FILM.read_bytes())
        code, complaints = recorder.end()
        self.assertEqual(code, 6)
        self.assertIn("No space left", complaints)


program.main()
