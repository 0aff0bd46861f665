"""Comparing: what is equal is counted, what is meant to differ is noted, the rest is a failure."""

import json
import re
import subprocess


class Comparison:
    def __init__(self):
        self.equal, self.failures, self.designed = 0, [], {}

    def same(self, where, what, ours, theirs):
        if ours == theirs:
            self.equal += 1
        else:
            if isinstance(ours, list) and isinstance(theirs, list):
                while ours and theirs and ours[0] == theirs[0]:
                    ours, theirs = ours[1:], theirs[1:]
            self.failures.append(f"{where}: {what}: {shown(ours)} instead of {shown(theirs)}")

    def meant(self, key, where):
        """A difference of the list, seen in a stream."""
        self.designed.setdefault(key, []).append(where)

    def finish(self, document, least):
        """The exit code. The differences found are exactly those that the document lists as `- **key**: why`."""
        listed = set(re.findall(r"^- \*\*(.+?)\*\*", document.read_text(), re.M))
        self.failures += [f"{key}: differs, and is not listed: {where[:3]}" for key, where in self.designed.items()
                          if key not in listed]
        self.failures += [f"{key}: listed, and differs nowhere" for key in sorted(listed - set(self.designed))]
        print("\n".join(self.failures[:100]))
        for key, where in sorted(self.designed.items()):
            print(f"{key}: meant to differ in {len(where)} places")
        print(f"{self.equal} comparisons are equal, {len(self.failures)} failures")
        return 1 if self.failures or self.equal < least else 0


def shown(value):
    text = str([one.hex() if isinstance(one, bytes) else one for one in (value if isinstance(value, list) else [value])])
    return text if len(text) < 200 else text[:200] + f"... ({len(text)})"


class Driver:
    """The program that answers for the library."""

    def __init__(self, program):
        self.process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __call__(self, what, **request):
        plain = {key: value.hex() if isinstance(value, bytes) else
                 [one.hex() if isinstance(one, bytes) else one for one in value] if isinstance(value, list) else value
                 for key, value in request.items()}
        self.process.stdin.write(json.dumps({"do": what, **plain}).encode() + b"\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"the driver ended at {what} {plain}")
        return json.loads(line)

    def end(self):
        self.process.stdin.close()
        return self.process.wait()
