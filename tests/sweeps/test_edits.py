"""Somebody edits files by hand while settings are written: what was edited is there afterwards, and where it could not
be merged the request says so. OutsideEdits_test.cpp edits between any two operations of a request; here an editor and
the daemon are two processes that know nothing of each other."""

import os
import random
import re
import subprocess
import tempfile
import threading
from collections import Counter

import pytest

from history import SETTINGS_A, SETTINGS_B, isWhole
from hosttools import buildDirectory, needsPlugin
from sweeptools import report, seedOfThisRun, size

pytestmark = needsPlugin

CONFIGURATION = "etc/jabberd_notification"
NOTIFICATION = "Library/Preferences/com.velto.Beaconry.plist"
# Where a mark goes: after what, and in which form. Another mark there gives way.
MARKS = {
    f"{CONFIGURATION}/sm.xml": (rb"<sm>", b"<!--by hand %s-->"),
    f"{CONFIGURATION}/c2s.xml": (rb"<c2s>", b"<!--by hand %s-->"),
    f"{CONFIGURATION}/jabberd.cfg": (rb"^", b"#by hand %s\n"),
    NOTIFICATION: (rb"<dict>", b"<key>byHand</key><string>by hand %s</string>"),
}


def test_edits_before_every_operation_of_a_request_are_merged_or_reported():
    seed = seedOfThisRun()
    # In memory: it is the order that counts here, and thousands of flushes take their time.
    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
        done = subprocess.run([buildDirectory() / "tests/sweeps/outside_edits"], capture_output=True, text=True, check=False,
                              env={**os.environ, "TMPDIR": scratch, "TESSARD_SEED": str(seed),
                                   "TESSARD_SWEEP": size("short", "full")})
    for line in done.stdout.splitlines():
        if " edits: " in line:
            report(line.strip())
    assert done.returncode == 0, done.stdout[-20000:]


class Editor:
    def __init__(self, root, chance):
        self.root = root
        self.chance = chance
        self.number = 100000

    def edit(self, name):
        """Puts a new mark into a file, in a manner of editors; gives the mark, and whether it went into a file that was
        replaced between its opening and the writing, of which nobody can know."""
        self.number += 1
        mark = b"%d%s" % (self.number, b"." * self.chance.choice((0, 0, 1, 40)))
        path = self.root / name
        place, form = MARKS[name]
        # The daemon lays property lists out in its own way.
        older = re.escape(form).replace(b"%s", rb"[0-9]+[.]*").replace(b"</key><", rb"</key>\s*<")
        content = re.sub(older, b"", path.read_bytes())
        content = re.sub(place, lambda found: found[0] + form % mark, content, count=1)
        assert form % mark in content
        if self.chance.random() < 0.5:
            with open(path, "wb", buffering=0) as file:
                file.write(content)
                late = os.fstat(file.fileno()).st_ino != path.stat().st_ino
        else:
            late = False
            fresh = path.with_name(path.name + "~")
            fresh.write_bytes(content)
            fresh.rename(path)
        return b"by hand " + mark, late


class Request(threading.Thread):
    """A write of settings, under way."""

    def __init__(self, daemon, configuration):
        super().__init__()
        self._daemon = daemon
        self._configuration = configuration
        self.answer = None
        self.start()

    def run(self):
        self.answer = self._daemon.post({"command": "writeSettings", "configuration": self._configuration},
                                        path="/v1/plugins/notification?with=log").json

    def errors(self):
        return [line["message"] for line in self.answer["log"] if line["level"] == "error"]


@pytest.fixture
def served(plugin):
    assert plugin.tool("setup").returncode == 0
    return plugin


def test_edits_of_another_process_are_merged_or_reported(served, pluginRoot):
    chance = random.Random(seedOfThisRun())
    editor = Editor(pluginRoot, chance)
    outcomes, lost = Counter(), []
    for number in range(size(60, 2000)):
        name = chance.choice(list(MARKS))
        request = Request(served, {**(SETTINGS_A, SETTINGS_B)[number % 2], "savedChatsArchiveInterval": 10 + number % 80})
        request.join(chance.uniform(0, 0.1))
        mark, late = editor.edit(name)
        outcomes["after the request"] += not request.is_alive()
        request.join()
        content = (pluginRoot / name).read_bytes()
        errors = request.errors()
        outcomes["reported" if errors else "merged"] += 1
        outcomes["into a file just replaced"] += late
        if mark not in content and not late:
            lost.append(f"{name}, edit {number}, {errors}")
        assert isWhole(name, ("file", content))
        if errors:
            again = Request(served, SETTINGS_A)
            again.join()
            assert not again.errors()
    report(f"{sum(outcomes.values()) - outcomes['after the request']} edits by another process: {dict(outcomes)}, "
           f"{len(lost)} lost")
    assert not lost, "\n".join(lost[:40])
