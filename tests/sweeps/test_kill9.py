"""The daemon is killed at any moment, again and again: what it acknowledged is there after its restart, and every request
has been carried out whole or not at all."""

import contextlib
import http.client
import random
import signal
import subprocess
import threading
import time
from collections import Counter

import pytest

from history import SETTINGS_A, SETTINGS_B, SETTINGS_MANY, History, ask, differences, hasOpenJournal, treeOf
from hosttools import Daemon, needsPlugin
from sweeptools import report, seedOfThisRun, size

pytestmark = needsPlugin

ROUNDS = size(15, 1000)
OPTIONS = ("--idle-seconds", "0", "--network-quiet-seconds", "0")
SERVICE = {"service": "calendar", "hostName": "calendar.example.com"}


def writing(**configuration):
    return {"command": "writeSettings", "configuration": configuration}


# Carried out over and over, each makes a state that none of the others makes.
CYCLE = [
    writing(**{**SETTINGS_A, "savedChatsArchiveInterval": 10}),
    {"command": "addService", **SERVICE},
    writing(**{**SETTINGS_B, "savedChatsArchiveInterval": 11}),
    writing(jabberdClientPortTLS=5302, authLevel="KERBEROS", savedChatsArchiveInterval=12),
    {"command": "removeService", **SERVICE},
    writing(**{**SETTINGS_MANY, "savedChatsArchiveInterval": 14}),
    writing(**{**SETTINGS_A, "hosts": ["one.example.com"], "savedChatsArchiveInterval": 13}),
]


class Client(threading.Thread):
    """Sends the requests of the cycle, in order and without end, until the daemon is gone."""

    def __init__(self, daemon, done):
        super().__init__()
        self.done = done  # requests that were acknowledged
        self.failure = None
        self._daemon = daemon
        self.start()

    def run(self):
        try:
            while True:
                ask(self._daemon, **CYCLE[self.done % len(CYCLE)])
                self.done += 1
        except (OSError, http.client.HTTPException):
            pass  # killed
        except Exception as failure:  # pylint: disable=broad-except # a thread's failure is nobody's otherwise
            self.failure = failure


class Killing:
    def __init__(self, root, chance):
        self.root = root
        self.chance = chance
        self.history = History()  # of one lap of the cycle
        self.daemon = None
        self.duration = 0.0  # seconds that a request takes
        self.starting = 0.0  # seconds that a start takes
        self.counts = Counter()

    def start(self):
        begin = time.monotonic()
        self.daemon = Daemon(self.root, *OPTIONS)
        self.daemon.awaitReady()
        self.starting = time.monotonic() - begin

    def kill(self):
        self.daemon.process.send_signal(signal.SIGKILL)
        self.daemon.process.communicate()
        self.daemon.notification.close()

    def killStarts(self):
        """Some starts are cut off too, some of them again and again."""
        while self.chance.random() < 0.2:
            self.daemon = Daemon(self.root, *OPTIONS)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.daemon.process.wait(self.chance.uniform(0, self.starting))
            self.kill()
            self.counts["starts that were cut off"] += 1

    def prepare(self):
        """Learns the state after each request of the cycle, and how long a request takes."""
        ask(self.daemon, command="initialSetup")
        for lap in range(3):
            begin = time.monotonic()
            for number, request in enumerate(CYCLE):
                ask(self.daemon, **request)
                if lap == 1:
                    self.history.add(self.root)
                elif lap == 2:
                    # What a restart leaves can be compared only if a request always makes the same.
                    assert not differences(treeOf(self.root), self.history.states[number])
            self.duration = (time.monotonic() - begin) / len(CYCLE)

    def round(self, done):
        """Kills the daemon at some moment while requests are carried out, of which so many are done. How many then are."""
        client = Client(self.daemon, done)
        # The client ends by itself only when something is wrong.
        client.join(self.chance.uniform(0, 3 * self.duration))
        self.kill()
        client.join()
        assert client.failure is None, client.failure
        acknowledged, further = (client.done - 1) % len(CYCLE), client.done % len(CYCLE)
        assert not self.history.torn(treeOf(self.root), [acknowledged, further])
        self.killStarts()
        self.start()
        assert not hasOpenJournal(self.root)
        found = treeOf(self.root)
        wrong = self.history.deviation(found, [acknowledged, further])
        assert wrong is None, f"after {client.done} requests: {wrong}"
        finished = bool(differences(found, self.history.states[acknowledged]))
        self.counts["with the request finished" if finished else "with the request undone or not begun"] += 1
        return client.done + finished


@pytest.fixture
def killing(pluginRoot):
    killing = Killing(pluginRoot, random.Random(seedOfThisRun()))
    killing.start()
    yield killing
    killing.kill()


def test_what_was_acknowledged_outlives_the_daemon_and_every_request_is_whole_or_undone(killing):
    killing.prepare()
    done = len(CYCLE)
    for _ in range(ROUNDS):
        done = killing.round(done)
    report(f"{ROUNDS} kills in {done} requests of {killing.duration * 1000:.0f} ms: {dict(killing.counts)}")
