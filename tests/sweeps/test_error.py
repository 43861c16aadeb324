"""Each call of a request that looks at or changes a file fails, once and from then on, with each error that disks and
limits have. What cannot be done is said, and then all is as it was. Signals and short writes do no harm."""

import errno
import http.client
import mmap
import os
import re
import struct
import subprocess
import tempfile
from pathlib import Path

import pytest

from history import Refused, hasOpenJournal, treeOf, warned
from hosttools import needsPlugin
from interruptions import Laboratory, scenarios
from sweeptools import SANITIZED, report, size
from test_kill import assertReached, different

pytestmark = [needsPlugin, pytest.mark.skipif(SANITIZED, reason="a sanitizer's library must be the first of all")]
FAILING_CALLS = Path(__file__).with_name("failing_calls.c")
# What a call does, as failing_calls.c tells it, and which calls an error goes on to concern.
OPENS, CHANGES, GROWS, READS = 1, 2, 4, 8
ERRORS = {"ENOSPC": GROWS, "EIO": OPENS | CHANGES | GROWS | READS, "EMFILE": OPENS, "EDQUOT": GROWS, "EROFS": CHANGES}
SHORT = 5  # calls of each request in the short form
SHOWN = 60  # problems
# Calls that change something and that a request can do without, by name and path, and why: their failure need not be
# told.
IGNORED = [
    ("unlinkat", "/journal/(kept|undone)", "what is left of a journal that is no longer needed is removed later"),
    ("unlinkat|renameat|openat|write", "/journal/(kept|undoable|last)",
     "what is kept to be undone is put into its place later, or cannot be undone"),
    ("fchown|fchownat", ".", "a file that cannot be given away is complete all the same"),
    ("fchmod|chmod", ".", "a file keeps the permissions that it was made with, which are narrow"),
    ("open64", r"/etc/\.pwd\.lock$", "libuser locks each file of the accounts besides"),
    ("open64", r"/keychain\.db$", "SQLite opens a file for reading alone where that is enough"),
    ("fdatasync", "/keychain$", "SQLite goes on where it cannot flush the directory of its journal"),
    ("linkat", "/Library$", "directories are not noted, and no link of one is made"),
    ("unlink", r"/(passwd|shadow|group|gshadow)(\+|\.lock(\.\w+)?)$", "the next change of the accounts removes it"),
    ("renameat|mkdirat|linkat", r"/var/db/idavoll/\w+\.db(\.tmp|\.bak)?$|/journal/open/present(/\+var(/\+db(/\+idavoll)?)?)?$",
     "that the databases of the former host cannot be removed is ignored"),
]
# How libraries that keep their errors' numbers to themselves say what is wrong.
WORDS = ["unable to open database file", "disk I/O error", "database or disk is full", "The disk is too full",
         "on a disk that cannot be written", "keychain.db is damaged", "attempt to write a readonly database",
         "database disk image is malformed",
         # The host's name, which is asked for through an interface without reasons.
         "Couldn't get preferences for setting hostname"]


class Failures:
    """The page that failing_calls.c looks at."""

    LAYOUT = struct.Struct("=6i3I")
    SIZE = 1 << 22

    def __init__(self, directory):
        self._file = tempfile.NamedTemporaryFile(dir="/dev/shm", prefix="tessard-failures-")
        self._file.truncate(self.SIZE)
        self._page = mmap.mmap(self._file.fileno(), self.SIZE)
        library = directory / "failing_calls.so"
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, FAILING_CALLS], check=True)
        self.prefix = ["env", f"LD_PRELOAD={library}", f"TESSARD_FAILURES={self._file.name}"]

    def include(self, program):
        """The calls of that program of the daemon's fail, too. Its place is given."""
        real = program.resolve()
        program.unlink()
        program.write_text(f"#!/bin/sh\n{' '.join(self.prefix)} TESSARD_FAILS_WITH_DAEMON=1 {real}\n")
        program.chmod(0o755)

    def _set(self, process=0, number=0, onwards=0, error=0, lists=0):
        self.LAYOUT.pack_into(self._page, 0, process, 0, number, onwards, error, lists, 0, 0, 0)

    def arm(self, daemon, number, error=0, onwards=0):
        """From now on; the thread is the one that opens a file first."""
        self._set(daemon.process.pid, number, onwards, error)

    def disarm(self):
        """The first call that has failed, as `watched` gives it; nothing when none has."""
        return next(iter(self.watched()), None)

    def watch(self, daemon):
        self._set(daemon.process.pid, lists=1)

    def watched(self):
        """Every call since `watch`: its name, what it does, and the path."""
        # The daemon may go on, and begin a list anew once the page is cleared.
        length = self.LAYOUT.unpack_from(self._page)[8]
        text = self._page[self.LAYOUT.size:self.LAYOUT.size + length].decode(errors="replace")
        self._set()
        return [(call, int(does), path) for call, does, path in (line.split(" ", 2) for line in text.splitlines())]


class Bench:
    """One kind of request, and the calls that it makes."""

    def __init__(self, pluginRoot, directory, name):
        self.scenario = next(one for one in scenarios(directory) if one.name == name)
        self.laboratory = Laboratory(pluginRoot, self.scenario)
        self.failures = Failures(directory)
        self.laboratory.prefix = self.failures.prefix
        self.failures.include(self.laboratory.pristine / "usr/libexec/tessardd/change_accounts")
        self.old = treeOf(self.laboratory.pristine)
        root = self.laboratory.fresh()
        with self.laboratory as daemon:
            self.failures.watch(daemon)
            self.answer = self.scenario.request(daemon)
            self.laboratory.settle(daemon)
            self.calls = [(call, does, path.replace(str(root), "") or "/") for call, does, path in self.failures.watched()]
        self.new = treeOf(root)
        self.told = self.silent = 0
        ends = [number for number, (call, _, path) in enumerate(self.calls, 1)
                if call == "renameat" and path.endswith("/journal/open")]
        # From here on what was asked for is done for good; the answer is still to be made.
        self.done = ends[-1] if ends else len(self.calls) + 1

    @staticmethod
    def mayBeIgnored(call, does, path):
        return not does & CHANGES or any(re.fullmatch(names, call) and re.search(place, path)
                                         for names, place, _ in IGNORED)

    def request(self, daemon):
        """The answer, and what went wrong as text; nothing when all went well."""
        try:
            return self.scenario.request(daemon), None
        except Refused as refused:
            return None, str(refused)

    def attempt(self, number, name, onwards):
        """What is wrong with what becomes of the request when that call fails; nothing when all is as promised."""
        root = self.laboratory.fresh()
        text = os.strerror(getattr(errno, name))
        with self.laboratory as daemon:
            self.failures.arm(daemon, number, getattr(errno, name), ERRORS[name] if onwards else 0)
            try:
                answer, told = self.request(daemon)
            except (ConnectionError, http.client.HTTPException) as problem:
                return f"{self.failures.disarm()}: no answer: {problem}"
            failed = self.failures.disarm()
            if not failed:
                return None
            isTold = any(text in warning for warning in warned)
            found = treeOf(root)
            unfinished = hasOpenJournal(root)
            again = self.request(daemon)[1] if told and not unfinished else None
        if unfinished:
            # What could not be put back then is by the next start.
            with self.laboratory as daemon:
                found = treeOf(root)
                again = self.request(daemon)[1]
        strays = [file for file in found if file.endswith((".tmp", ".tessardd-undo"))]
        if again:
            problem = f"not again: {again}"
        elif strays:
            problem = f"left over: {strays}"
        elif told is None:
            problem = self.judgeSilence(failed, answer, found, onwards or isTold)
        else:
            problem = self.judgeFailure(number, failed, told, found, text) or self.judgeEnd(found, treeOf(root))
        return problem and f"{failed[0]} {failed[2]}: {problem}; told: {told}"

    def disturbed(self, number, error):
        """What is wrong after a request that must not notice."""
        root = self.laboratory.fresh()
        with self.laboratory as daemon:
            self.failures.arm(daemon, number, error)
            _, told = self.request(daemon)
            failed = self.failures.disarm()
        wrong = self.unlike(treeOf(root), self.new) if self.scenario.allOrNothing else []
        return [f"{failed}: {told} {wrong}"] if told or wrong else []

    def judgeSilence(self, failed, answer, found, mayBeSilent):
        self.silent += 1
        if self.scenario.allOrNothing:
            # Owners and permissions may be others.
            wrong = [file for file in self.unlike(found, self.new)
                     if file not in found or file not in self.new or found[file][-1] != self.new[file][-1]]
            if wrong:
                return f"nobody was told, and not done: {wrong}"
            if answer != self.answer:
                return f"nobody was told, but the answer is {answer}"
        return None if mayBeSilent or self.mayBeIgnored(*failed) else "nobody was told"

    def judgeFailure(self, number, failed, told, found, text):
        self.told += 1
        if not any(word in told for word in [text, *WORDS]) and self.scenario.name != ACCOUNTS:
            return "not told why"
        if not self.scenario.allOrNothing or not self.unlike(found, self.old):
            return None
        # What follows after the end of a change, or stands apart from it, is for the next attempt. What could not be
        # read may have been read once more.
        isLater = number > self.done or self.scenario.apart or not failed[1] & CHANGES
        if isLater and not self.unlike(found, self.new):
            return None
        return f"not as it was: {self.unlike(found, self.old)}"

    def judgeEnd(self, found, final):
        """Of the request that was made again."""
        try:
            assertReached(self.laboratory, "again", final, self.old if different(found, self.new) else self.new, self.old,
                          self.new)
        except AssertionError as problem:
            return str(problem)
        return None

    def unlike(self, found, wanted):
        return [file for file in different(found, wanted) if file not in self.scenario.apart]


# libuser, which changes the accounts, keeps many reasons to itself.
ACCOUNTS = "service user"


def attempts(count):
    """Number of a call, error, and whether it goes on. In the short form a few calls meet two of the errors each, in the full
    one every call meets all. TESSARD_SWEEP_CALLS, such as "100-199", and TESSARD_SWEEP_ERRORS, such as "EIO,EROFS", keep a
    full one to some of them."""
    names = os.environ.get("TESSARD_SWEEP_ERRORS", ",".join(ERRORS)).split(",")
    if not size(short=False, full=True):
        chosen = range(1, count + 1, max(1, count // SHORT))
        return [(number, names[(index + 2 * onwards) % len(names)], onwards)
                for index, number in enumerate(chosen) for onwards in (False, True)]
    first, last = map(int, os.environ.get("TESSARD_SWEEP_CALLS", f"1-{count}").split("-"))
    return [(number, error, onwards) for number in range(first, min(last, count) + 1)
            for error in names for onwards in (False, True)]


# A change of address does much that follows no fixed order, too much for few calls to tell anything.
@pytest.mark.parametrize("name", ["setup", "settings", "add service", "choose certificate", "service user", "stop",
                                  *size([], ["change of address"])])
def test_a_call_that_fails_is_told_and_changes_nothing(pluginRoot, tmp_path, name):
    bench = Bench(pluginRoot, tmp_path, name)
    wrong = []
    for number, error, onwards in attempts(len(bench.calls)):
        if problem := bench.attempt(number, error, onwards):
            wrong.append(f"{error}{' from then on' if onwards else ''} at {number}, {problem}")
            report(wrong[-1])
    report(f"{name}: {bench.told} failures told, {bench.silent} without consequence, at {len(bench.calls)} calls")
    assert not wrong, f"{len(wrong)} failures are not handled as promised:\n" + "\n".join(wrong[:SHOWN])
    assert bench.told > 0


@pytest.mark.parametrize("name", ["settings", "change of address", "add service"])
def test_signals_in_the_midst_of_calls_do_no_harm(pluginRoot, tmp_path, name):
    bench = Bench(pluginRoot, tmp_path, name)
    wrong = []
    for number in range(1, len(bench.calls) + 1, size(max(1, len(bench.calls) // SHORT), 1)):
        wrong += bench.disturbed(number, errno.EINTR)
    assert not wrong, "\n".join(wrong[:SHOWN])


@pytest.mark.parametrize("name", ["setup", "settings", "change of address", "add service", "choose certificate"])
def test_short_reads_and_writes_do_no_harm(pluginRoot, tmp_path, name):
    bench = Bench(pluginRoot, tmp_path, name)
    assert not bench.disturbed(1, 0)
