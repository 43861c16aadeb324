"""The power fails at any moment: what was acknowledged is there afterwards, and every request has been carried out whole
or not at all."""

import os
import random
import signal
import tempfile
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import powerlab
from history import CARRIED_ON, SETTINGS_A, History, Refused, ask, differences, hasOpenJournal, makeCertificate, story, treeOf
from hostfixtures import layOut
from hosttools import PLUGIN_BUNDLE, Daemon, needsPlugin
from sweeptools import SANITIZED, report, seedOfThisRun, size

OBSTACLE = powerlab.obstacle()
pytestmark = [needsPlugin, pytest.mark.skipif(OBSTACLE is not None, reason=f"no disk can lose its power here: {OBSTACLE}")]

WORKERS = 2  # machines that lose their power at a time
OPTIONS = ("--idle-seconds", "0", "--network-quiet-seconds", "0")
# Answers every request to flush something with success, and does nothing. The daemon's own process is the one that
# is started, and strace another one.
NO_FLUSH = ["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", "trace=fsync,fdatasync,syncfs,sync,msync",
            "-e", "inject=fsync,fdatasync,syncfs,sync,msync:retval=0"]


@pytest.fixture(scope="module")
def memory():
    powerlab.enterOwnMounts()
    with powerlab.memoryDirectory() as directory:
        yield directory


class Machine:
    """A system root on a disk, with what an installed machine has elsewhere."""

    def __init__(self, root):
        self.root = root

    def __enter__(self):
        bundle = self.root / "usr/share/tessardd/bundles" / PLUGIN_BUNDLE.name
        for directory in (bundle, self.root / "run"):
            directory.mkdir(parents=True, exist_ok=True)
        powerlab.run("mount", "--bind", PLUGIN_BUNDLE, bundle)
        powerlab.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", self.root / "run")
        return self

    def __exit__(self, *_):
        powerlab.run("umount", self.root / "usr/share/tessardd/bundles" / PLUGIN_BUNDLE.name)
        powerlab.run("umount", self.root / "run")

    def start(self, prefix=()):
        daemon = Daemon(self.root, *OPTIONS, prefix=["setpriv", "--pdeathsig", "KILL", "--", *prefix])
        daemon.awaitReady()
        return daemon


def kill(daemon):
    daemon.process.send_signal(signal.SIGKILL)
    daemon.process.communicate()
    daemon.notification.close()


class Recorded:
    """A story as it was told to a daemon whose disk was watched."""

    def __init__(self, memory, kind, rounds, prefix=()):
        self.kind = kind
        self.steps = story(makeCertificate(memory), rounds)
        image = Path(tempfile.mkdtemp(dir=memory)) / "image"
        image.parent.chmod(0o755)  # the service account looks at its own directories
        powerlab.makeImage(image, kind)
        with powerlab.WatchedDisk(image, kind) as disk:
            layOut(disk.root)
            with Machine(disk.root) as machine:
                powerlab.run("sync", "--file-system", disk.root)
                self.history = History()
                self.history.add(disk.root)  # state 0, before any request
                daemon = machine.start(prefix)
                try:
                    self._tell(daemon, disk)
                finally:
                    kill(daemon)
            self.recording = disk.end()

    def _tell(self, daemon, disk):
        for name, request in self.steps:
            disk.mark(f"begin {name}")
            request(daemon)
            disk.mark(f"end {name}")
            self.history.add(disk.root)

    def moment(self, chance):
        """Between the begin of the first request and the end of the last."""
        numbers = [number for number, _ in self.recording.marks]
        return chance.randint(numbers[0], numbers[-1]) + 1

    def allowed(self, moment):
        """Numbers of the states that a failure at that moment may leave."""
        said = self.recording.said(moment)
        done = sum(text.startswith("end ") for text in said)
        return [done, done + 1] if said[-1].startswith("begin ") else [done]

    def badState(self, chance, directory):
        """Lets the power fail once, and the machine start again. What is wrong then; nothing when all is well."""
        moment = self.moment(chance)
        image = directory / "image"
        self.recording.leave(moment, chance, image)
        return self._described(moment, self._judge(image, self.allowed(moment)))

    def badStateOfTwo(self, chance, directory):
        """The same where the power fails again while the machine starts."""
        moment = self.moment(chance)
        image = directory / "image"
        self.recording.leave(moment, chance, image)
        with powerlab.WatchedDisk(image, self.kind) as disk:
            with Machine(disk.root) as machine:
                kill(machine.start())
            start = disk.end()
        start.leave(chance.randint(0, start.length), chance, image)
        return self._described(moment, self._judge(image, self.allowed(moment)))

    def _described(self, moment, wrong):
        return wrong and f"moment {moment}, after \"{self.recording.said(moment)[-1]}\": {wrong}"

    def _judge(self, image, allowed):
        with powerlab.mounted(image, self.kind, image.parent / "root") as root:
            # No machine has started since, which makes locks of the accounts a thing of the past.
            for lock in root.glob("etc/*.lock"):
                os.utime(lock, (1000, 1000))
            torn = self.history.torn(treeOf(root), allowed)
            if torn:
                return "torn: " + ", ".join(torn)
            with Machine(root) as machine:
                daemon = machine.start()
                try:
                    if hasOpenJournal(root):
                        return "stuck: the journal is still there"
                    if self._isCarriedOn(allowed):
                        wrong = self._notCarriedOn(daemon, allowed, root)
                    else:
                        wrong = self.history.deviation(treeOf(root), allowed)
                    return wrong or self._stuck(daemon, allowed, root)
                finally:
                    kill(daemon)

    def _isCarriedOn(self, allowed):
        return len(allowed) == 2 and self.steps[allowed[0]][0] in CARRIED_ON

    def _notCarriedOn(self, daemon, allowed, root):
        """What is wrong after a restart and another attempt of a request that needs several; nothing when all is well."""
        torn = self.history.torn(treeOf(root), allowed)
        if torn:
            return "torn: " + ", ".join(torn)
        try:
            self.steps[allowed[0]][1](daemon)
        except Refused as refused:
            return f"stuck: {refused}"
        found, wanted = treeOf(root), self.history.states[allowed[1]]
        # Passwords are drawn anew.
        unlike = [name for name in differences(found, wanted)
                  if name not in found or name not in wanted or found[name][:-1] != wanted[name][:-1]
                  or name.startswith("var/") and "keychain" not in name]
        return f"unfinished: {self.history.described(found, unlike)}" if unlike else None

    def _stuck(self, daemon, allowed, root):
        """What is wrong with the next request, which must be carried out whole; nothing when all is well."""
        try:
            if allowed == [0]:
                ask(daemon, command="initialSetup")
            ask(daemon, command="writeSettings", configuration=SETTINGS_A)
            settings = ask(daemon, command="readSettings")["configuration"]
        except Refused as refused:
            return f"stuck: {refused}"
        wrong = {key: settings.get(key) for key, value in SETTINGS_A.items() if settings.get(key) != value}
        stray = [name for name in treeOf(root) if name.endswith(".tmp")]
        return f"stuck: {wrong} {stray}" if wrong or stray else None

    def sweep(self, count, seed, memory, attempt=badState):
        """Descriptions of the bad states among so many attempts."""
        places = [memory / f"worker{number}" for number in range(WORKERS)]

        def work(number):
            places[number].mkdir(mode=0o755, exist_ok=True)
            # Each attempt has a seed of its own, so that it does not depend on which worker does it.
            return [attempt(self, random.Random(f"{seed} {index}"), places[number])
                    for index in range(number, count, len(places))]

        with ThreadPoolExecutor(len(places)) as workers:
            return [bad for part in workers.map(work, range(len(places))) for bad in part if bad]


def assertNone(recorded, bad, points, what):
    report(f"{recorded.kind}, {what}: {recorded.recording.length} records with {len(recorded.recording.flushes)} flushes, "
           f"{len(recorded.steps)} requests; {len(bad)} bad states in {points} points")
    assert not bad, "\n".join(bad[:40])


# Every machine has the programs for the first; "./dev sweep" tries the other too.
@pytest.mark.parametrize("kind, points", size([("ext4", 20)], [("ext4", 1000), ("xfs", 250)]))
def test_a_power_failure_leaves_what_was_acknowledged_and_every_request_whole_or_undone(memory, kind, points):
    recorded = Recorded(memory, kind, rounds=size(1, 4))
    bad = recorded.sweep(points, seedOfThisRun(), memory)
    assertNone(recorded, bad, points, "one failure")


def test_a_second_power_failure_while_the_first_is_made_good_does_no_harm(memory):
    recorded = Recorded(memory, "ext4", rounds=1)
    points = size(5, 200)
    bad = recorded.sweep(points, seedOfThisRun(), memory, Recorded.badStateOfTwo)
    assertNone(recorded, bad, points, "two failures")


@pytest.mark.skipif(SANITIZED, reason="no program can look for its leaks while strace watches it")
def test_a_daemon_that_does_not_flush_is_found_out(memory):
    recorded = Recorded(memory, "ext4", rounds=1, prefix=NO_FLUSH)
    points = size(10, 100)
    bad = recorded.sweep(points, seedOfThisRun(), memory)
    kinds = Counter(line.partition("\": ")[2].partition(":")[0] for line in bad)
    report(f"ext4, nothing flushed: {len(recorded.recording.flushes)} flushes; {len(bad)} bad states in {points} points: "
           f"{dict(kinds)}")
    assert len(bad) > points / 4
