"""What the checks of the program share: the program, the films, and cases with a folder of their own."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import relay_inputs

MIVRA = pathlib.Path(sys.argv[1]).resolve()
INPUTS = relay_inputs.make(sys.argv[2]).resolve()


def mivra(*words, program=MIVRA, **options):
    """One run to its end, without input unless one is given; its complaints are text, its output is bytes."""
    if "input" not in options:
        options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("stdout", subprocess.PIPE)
    done = subprocess.run([program, *map(str, words)], stderr=subprocess.PIPE, timeout=120, **options)
    done.stderr = done.stderr.decode()
    return done


def ffmpeg(*words):
    return subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *map(str, words)], stdout=subprocess.PIPE,
                          check=True).stdout


class Case(unittest.TestCase):
    BEFORE = ()  # words in front of the program's own, for another place to run it in

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def out(self, name):
        return self.folder / name

    def beside(self, *words, **options):
        """A program that runs beside the test, which it does not outlive."""
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        child = self.enterContext(subprocess.Popen(list(map(str, words)), **options))
        self.addCleanup(child.kill)
        return child

    def start(self, *words, **options):
        return self.beside(*self.BEFORE, MIVRA, *words, **options)

    def ends(self, done, code, *texts):
        """The exit code; one line of text a problem, with these in it."""
        if isinstance(done, subprocess.Popen):
            out, complaints = done.communicate(timeout=120)
            done = subprocess.CompletedProcess(done.args, done.returncode, out, complaints.decode())
        self.assertEqual(done.returncode, code, done.stderr)
        self.assertEqual(len(done.stderr.splitlines()), 1 if code else 0, done.stderr)
        for text in texts:
            self.assertIn(text, done.stderr)
        if code:
            self.assertRegex(done.stderr, r"\Amivra: .+; .+\n\Z")
        return done


def main():
    unittest.main("__main__", argv=sys.argv[:1] + sys.argv[3:], verbosity=2)
