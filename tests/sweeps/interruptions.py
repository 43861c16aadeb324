"""Requests whose system calls on files are counted, cut off or made to fail, one at a time, by strace."""

import collections
import os
import re
import select
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from history import SETTINGS_A, SETTINGS_B, ask, makeCertificate
from hosttools import PATIENCE, Daemon, awaitTidy, waitUntil
from sweeptools import size

# Everything that changes a file, a name or an attribute, or makes a change last. Between two of these nothing on the
# disk differs.
CHANGING = ["openat", "write", "fchmod", "fchmodat", "fchown", "fchownat", "chmod", "renameat", "renameat2", "linkat", "symlinkat",
            "unlinkat", "mkdirat", "ftruncate", "pwrite64", "fsync", "fdatasync", "syncfs"]
# And what else can fail.
READING = ["openat2", "read", "close", "newfstatat", "getdents64"]


def threadsOf(pid):
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/task"))


class Strace:
    """strace on one thread, from when this is made until `end`. Programs that the thread starts are not followed: they
    are other people's, and their death is none of the daemon's."""

    def __init__(self, thread, *words):
        output = [] if "-o" in words else ["-o", "/dev/null"]
        self.process = subprocess.Popen(["strace", "-p", str(thread), *output, *map(str, words)], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        readable, _, _ = select.select([self.process.stderr], [], [], PATIENCE)
        line = self.process.stderr.readline() if readable else "nothing"
        assert "attached" in line, line

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=PATIENCE)


class Scenario:
    """A request, the root that it begins with, and whether a second one takes it further."""

    def __init__(self, name, request, allOrNothing=True, before=(), apart=(), turnsBack=False):
        self.name = name
        self.request = request
        self.allOrNothing = allOrNothing
        self.before = before
        self.turnsBack = turnsBack  # whether a second request takes back what the first has done
        # What is no part of the change: content of the service that the same request makes anew when it is done, as
        # first-time setup does, and the keychain, which is a database of its own.
        self.apart = apart

    def __repr__(self):
        return self.name


def _write(configuration):
    return lambda daemon: ask(daemon, command="writeSettings", configuration=configuration)


def _undo(daemon):
    return ask(daemon, command="undoSettings")


def _setup(daemon):
    ask(daemon, command="initialSetup")


def _choose(daemon):
    return ask(daemon, command="setKorvsCertificate", certificateName="push.example.com")


def scenarios(directory):
    certificate = makeCertificate(directory)

    def imported(daemon):
        ask(daemon, "/v1/certificates", file=certificate)

    service = {"service": "calendar", "hostName": "host.example.com"}
    return [
        Scenario("setup", _setup, allOrNothing=False),
        Scenario("settings", _write(SETTINGS_A), before=[_setup, _write(SETTINGS_B)]),
        Scenario("undo", _undo, before=[_setup, _write(SETTINGS_B), _write(SETTINGS_A)], turnsBack=True),
        Scenario("change of address", _write({"changeip": {"oldHost": "push.example.com", "newHost": "new.example.com"}}),
                 before=[_setup, _write(SETTINGS_B)],
                 apart=["var/db/idavoll/pubsub.db", "var/db/idavoll/items.db",
                        "Library/Preferences/com.velto.Beaconry.plist"]),
        Scenario("add service", lambda daemon: ask(daemon, command="addService", **service), before=[_setup]),
        Scenario("choose certificate", _choose, before=[_setup, imported],
                 apart=["var/lib/tessardd/keychain/keychain.db", "var/lib/tessardd/keychain/keychain.db-journal"]),
        Scenario("service user", lambda daemon: ask(daemon, command="getServiceUser", service="calendar"),
                 allOrNothing=False, before=[_setup]),
        Scenario("stop", lambda daemon: ask(daemon, command="setState", state="STOP"), before=[_setup]),
    ]


class Laboratory:
    """Copies of one root, as it is before a request, and daemons on them."""

    def __init__(self, origin, scenario):
        # In memory where that is possible: what is counted is the same. Accounts without rights must come as far.
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK | os.X_OK) else None
        self.place = tempfile.TemporaryDirectory(prefix="tessard-sweep-", dir=memory)
        directory = Path(self.place.name)
        directory.chmod(0o755)
        self.pristine = directory / "pristine"
        self.root = directory / "root"
        self.scenario = scenario
        self.prefix = ()  # words before the daemon's command
        self.daemon = None
        shutil.copytree(origin, self.root, symlinks=True)
        self.root.chmod(0o755)
        if scenario.before:
            with self as daemon:
                for step in scenario.before:
                    step(daemon)
        self.root.rename(self.pristine)
        self.worker = None

    def fresh(self):
        """A root as before the request."""
        if self.root.exists():
            shutil.rmtree(self.root)
        subprocess.run(["cp", "-a", self.pristine, self.root], check=True)
        return self.root

    def __enter__(self):
        self.daemon = Daemon(self.root, "--idle-seconds", "0", prefix=self.prefix)
        self.daemon.awaitReady()
        return self.daemon

    def __exit__(self, *_):
        self.daemon.end()

    def end(self):
        self.place.cleanup()

    def settle(self, daemon):
        """Waits until the daemon has removed what the journal held for a request that was answered, or has died."""
        awaitTidy(self.root, daemon)

    def workerOf(self, daemon):
        """The thread that carries the requests."""
        return threadsOf(daemon.process.pid)[self.worker]

    def calls(self, directory):
        """The numbers of each of the request's calls that are about files, and none of them about anything else, in one
        go that is watched; finds the thread that makes them."""
        self.fresh()
        with self as daemon:
            threads = threadsOf(daemon.process.pid)
            names = ",".join(CHANGING + READING)
            watches = [Strace(thread, "-y", "-o", directory / f"calls.{index}", "-e", f"trace={names}")
                       for index, thread in enumerate(threads)]
            self.scenario.request(daemon)
            self.settle(daemon)
            for watch in watches:
                watch.end()
        logs = [(directory / f"calls.{index}").read_text().splitlines() for index in range(len(threads))]
        self.worker = max(range(len(threads)), key=lambda index: len(logs[index]))
        counts, points = collections.Counter(), collections.defaultdict(list)
        for line in logs[self.worker]:
            if match := re.match(r"(\w+)\((?:\d+<([^>]*))?", line):
                call, path = match.groups()
                counts[call] += 1
                # A wake-up of another thread, a socket or a program's pipe is no file.
                if path is None or path.startswith("/"):
                    points[call].append(counts[call])
        return points


def chosenPoints(calls, names, wanted):
    """Pairs of a call and its number: all of them, or about as many as wanted, evenly spread."""
    points = [(name, number) for name in names for number in calls[name]]
    step = size(short=max(1, len(points) // wanted), full=1)
    return points[::step]


__all__ = ["CHANGING", "READING", "Laboratory", "Path", "Scenario", "Strace", "chosenPoints", "scenarios", "waitUntil"]
