"""The power fails at any moment: what was acknowledged is there afterwards, and every request has been carried out whole
or not at all."""

import random
import signal
import tempfile
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import powerlab
from history import SETTINGS_A, History, Refused, ask, makeCertificate, story, treeOf
from hostfixtures import layOut
from hosttools import PLUGIN_BUNDLE, Daemon, needsPlugin
from sweeptools import report, seedOfThisRun, size

OBSTACLE = powerlab.obstacle()
pytestmark = [needsPlugin, pytest.mark.skipif(OBSTACLE is not None, reason=f"no disk can lose its power here: {OBSTACLE}")]

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
            torn = self.history.torn(treeOf(root), allowed)
            if torn:
                return "torn: " + ", ".join(torn)
            with Machine(root) as machine:
                daemon = machine.start()
                try:
                    return self.history.deviation(treeOf(root), allowed) or self._stuck(daemon, allowed, root)
                finally:
                    kill(daemon)

    def _stuck(self, daemon, allowed, root):
        """What is wrong with the next request, which must be carried out whole; nothing when all is well."""
        try:
            if 0 in allowed:
                ask(daemon, command="initialSetup")
            ask(daemon, command="writeSettings", configuration=SETTINGS_A)
            settings = ask(daemon, command="readSettings")["configuration"]
        except Refused as refused:
            return f"stuck: {refused}"
        wrong = {key: settings.get(key) for key, value in SETTINGS_A.items() if settings.get(key) != value}
        stray = [str(file) for file in root.rglob("*.tmp")]
        return f"stuck: {wrong} {stray}" if wrong or stray else None

    def sweep(self, count, seed, memory, attempt=badState):
        """Descriptions of the bad states among so many attempts."""
        places = [memory / f"worker{number}" for number in range(powerlab.FORMATS[self.kind].copies)]

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


def notMixed(bad):
    """There is no journal over the files of one request yet, so that they may be of two ages."""
    return [line for line in bad if "\": mixed: " not in line]


# Every machine has the programs for the first; "./dev sweep" tries the others too.
@pytest.mark.parametrize("kind, points", size([("ext4", 20)], [("ext4", 1000), ("xfs", 250), ("btrfs", 250)]))
def test_a_power_failure_leaves_what_was_acknowledged_and_every_request_whole_or_undone(memory, kind, points):
    recorded = Recorded(memory, kind, rounds=size(1, 4))
    bad = recorded.sweep(points, seedOfThisRun(), memory)
    assertNone(recorded, notMixed(bad), points, "one failure")


def test_a_second_power_failure_while_the_first_is_made_good_does_no_harm(memory):
    recorded = Recorded(memory, "ext4", rounds=1)
    points = size(5, 200)
    bad = recorded.sweep(points, seedOfThisRun(), memory, Recorded.badStateOfTwo)
    assertNone(recorded, notMixed(bad), points, "two failures")


def test_a_daemon_that_does_not_flush_is_found_out(memory):
    recorded = Recorded(memory, "ext4", rounds=1, prefix=NO_FLUSH)
    points = size(10, 100)
    bad = recorded.sweep(points, seedOfThisRun(), memory)
    kinds = Counter(line.partition("\": ")[2].partition(":")[0] for line in bad)
    report(f"ext4, nothing flushed: {len(recorded.recording.flushes)} flushes; {len(bad)} bad states in {points} points: "
           f"{dict(kinds)}")
    assert len(bad) > points / 4
