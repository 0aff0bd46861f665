#!/usr/bin/env python3
"""Runs the program as a user would: check_program.py MIVRA SOURCE-FOLDER"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

MIVRA = pathlib.Path(sys.argv[1])
SOURCE = pathlib.Path(sys.argv[2])
TOOL = SOURCE / "tools/mivra"
COMMANDS = ["relay", "record", "transcode", "snapshot", "probe", "convert", "sps", "doctor"]
FFMPEG = ["avutil", "avformat", "avcodec", "swscale", "swresample", "avfilter"]


def run(*words, program=MIVRA, **options):
    return subprocess.run([program, *words], capture_output=True, text=True, timeout=60, **options)


class Usage(unittest.TestCase):
    def test_version(self):
        done = run("--version")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "2.3.0.0208\n", ""))

    def test_wrong_arguments_are_2_and_one_line_with_a_hint(self):
        cases = {
            (): "see 'mivra --help'",
            ("--nonsense",): "see 'mivra --help'",
            ("relai", "a", "b"): "no such command: relai; 'mivra --help' lists",
            ("doctor", "--nonsense"): "doctor: unexpected argument: --nonsense; see 'mivra doctor --help'",
            ("doctor", "extra"): "unexpected argument: extra",
            ("doctor", "--log"): "--log needs a value",
            ("relay", "a.mp4"): "an input and an output are needed",
            ("relay", "a.mp4", "b.ts", "--for", "soon"): "--for: 'soon' is not a number",
            ("relay", "a.mp4", "b.ts", "--for", "2", "--for", "3"): "--for is given more than once",
            ("relay", "a.mp4", "b.ts", "--log-level", "6"): "'6' is not a whole number from 0 to 5",
            ("relay", "a.mp4", "b.ts", "--log-level", "2.5"): "'2.5' is not a whole number from 0 to 5",
        }
        for words, hint in cases.items():
            with self.subTest(words=words):
                done = run(*words)
                self.assertEqual((done.returncode, done.stdout), (2, ""))
                self.assertRegex(done.stderr, r"\Amivra: [^\n]+\n\Z")
                self.assertIn(hint, done.stderr)

    def test_help_goes_to_standard_output(self):
        for words in [("--help",), ("relay", "--help"), ("doctor", "-h")]:
            done = run(*words)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertIn("Usage: mivra", done.stdout)


class Doctor(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def diagnosis(self, *words, ready, **options):
        done = run("doctor", "--json", *words, **options)
        found = json.loads(done.stdout)
        self.assertEqual((done.returncode, found["ready"]), (0 if ready else 1, ready), done)
        if ready:
            self.assertEqual((done.stderr, [p for p in found["problems"] if p["needed"]]), ("", []))
        else:
            self.assertRegex(done.stderr, r"\Amivra: a relay would not work: [^\n]+; try: [^\n]+\n\Z")
        return found

    def test_all_is_there(self):
        log = self.folder / "new.log"
        found = self.diagnosis("--log", log, ready=True)
        self.assertEqual((found["ffmpeg"]["functionsFound"], found["ffmpeg"]["firstMissing"]), (86, ""))
        for library in found["ffmpeg"]["libraries"]:
            self.assertTrue(pathlib.Path(library["path"]).is_file())
            self.assertIn(library["version"].split(".")[0], library["file"].split(".so.")[1])
        pools = [(pool["bufferSize"], pool["bufferCount"]) for pool in found["pools"]]
        self.assertEqual(pools, [(5120, 1000), (51200, 100), (1048576, 20)])
        self.assertTrue(found["log"]["writable"])
        self.assertFalse(log.exists())
        text = run("doctor").stdout
        self.assertTrue(text.endswith("A relay would work.\n"))
        self.assertNotIn("\x1b", text)

    def test_each_library_broken_in_turn(self):
        program = self.folder / "mivra"
        shutil.copy(MIVRA, program)
        environment = {**os.environ, "LD_LIBRARY_PATH": str(MIVRA.parent.parent / "lib")}
        names = [library["file"] for library in self.diagnosis(ready=True)["ffmpeg"]["libraries"]]
        self.assertEqual([re.sub(r"lib|\.so.*", "", name) for name in names], FFMPEG)
        for name in names:
            with self.subTest(name=name):
                (self.folder / name).write_text("no library")
                found = self.diagnosis(ready=False, program=program, env=environment)
                broken = [library for library in found["ffmpeg"]["libraries"] if not library["usable"]]
                self.assertEqual([library["file"] for library in broken], [name])
                self.assertIn(str(self.folder / name), broken[0]["error"])
                self.assertEqual(found["ffmpeg"]["firstMissing"], f"{broken[0]['missing'][0]} of {name}")
                (self.folder / name).unlink()

    def test_log_that_cannot_be_written(self):
        for path in [self.folder, self.folder / "missing" / "x.log"]:
            found = self.diagnosis("--log", path, ready=False)
            self.assertFalse(found["log"]["writable"])

    def test_too_few_descriptors(self):
        command = 'ulimit -n 40; exec "$0" doctor'
        done = subprocess.run(["bash", "-c", command, MIVRA], capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 1)
        self.assertIn("descriptors: 40", done.stderr)


class Documents(unittest.TestCase):
    """Completion and man page know exactly the options that the program has."""

    def options(self, command):
        return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", self.listing(command)))

    @staticmethod
    def listing(command):
        lines = run(command, "--help").stdout.splitlines()
        return "\n".join(line[:28] for line in lines if line.startswith("  -"))

    def test_bash(self):
        script = """
            source "$1"; COMP_WORDS=(mivra "$2" "--"); [[ $2 ]] || COMP_WORDS=(mivra "--")
            COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _mivra; printf '%s\\n' "${COMPREPLY[@]}" """
        for command in [*COMMANDS, ""]:
            done = subprocess.run(["bash", "-c", script, "bash", TOOL / "completion/mivra.bash", command],
                                  capture_output=True, text=True, check=True)
            wanted = self.options(command) if command else {"--help", "--version"}
            self.assertEqual((set(done.stdout.split()), done.stderr), (wanted, ""))

    def test_zsh(self):
        text = (TOOL / "completion/_mivra").read_text()
        for command in COMMANDS:
            section = re.search(rf"^ +{command}\)(.*?);;", text, re.M | re.S).group(1)
            self.assertEqual(set(re.findall(r"(?<=['{,])--[a-z-]+", section)), self.options(command))

    def test_fish(self):
        text = (TOOL / "completion/mivra.fish").read_text()
        for command in COMMANDS:
            found = re.findall(rf"__fish_seen_subcommand_from {command}'.* -l ([a-z-]+)", text)
            self.assertEqual({"--" + name for name in found} | {"--help"}, self.options(command))

    def test_man_page(self):
        text = (TOOL / "mivra.1").read_text().replace("\\-", "-")
        for command in COMMANDS:
            section = re.search(rf"\.SH OPTIONS OF {command.upper()}\n(.*?)\.SH", text, re.S).group(1)
            tags = "\n".join(re.findall(r"\.TP\n(.*)", section))
            self.assertEqual(set(re.findall(r"--[a-z-]+", tags)), self.options(command))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
