"""Members of the administrators' group, and strangers, who take all that they can get. Root's requests are answered
meanwhile, and the daemon's memory stays as it is."""

import contextlib
import json
import os
import subprocess
import sys
import threading
import time
from pathlib import Path

import pytest

from hosttools import GAMES, NOBODY, openConnections, waitUntil
from sweeptools import MEBIBYTE, SANITIZED, Usage, openFiles, report, size

FLOODER = Path(__file__).with_name("flooder.py")
SECONDS = size(short=0.8, full=15)
IDLE = size(short=1_000, full=10_000)
SLOW = size(short=200, full=1_000)
LARGE = size(short=20, full=50)

# What is done to the daemon, and by how many connections at a time.
ATTACKS = {
    "idle": IDLE,
    "slowHeaders": SLOW,
    "slowBodies": LARGE,
    "announced": LARGE,
    "chunked": LARGE,
    "deepJson": LARGE,
    "deepList": LARGE,
    "manyValues": LARGE,
    "untaken": LARGE,
}


@contextlib.contextmanager
def flood(daemon, kind, count, user=NOBODY, group=GAMES):
    """An attack of another user, which has begun with all its connections. Gives how many were made in all."""
    made = []
    flooder = subprocess.Popen(
        ["setpriv", f"--reuid={user}", f"--regid={group}", "--clear-groups", sys.executable, FLOODER, daemon.socket,
         kind, str(count)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert flooder.stdout.readline() == "all made\n"
        yield made
        flooder.stdin.close()
        made.append(json.loads(flooder.stdout.readline())["made"])
    finally:
        flooder.kill()
        flooder.wait()
        flooder.stdout.close()


def roundTrip(daemon):
    """Seconds that a request of root takes, on a connection of its own."""
    begin = time.monotonic()
    answer = daemon.echo(still="here")
    assert answer.status == 200 and answer.json["still"] == "here"
    return time.monotonic() - begin


class Times:
    """How long root's requests took."""

    def __init__(self):
        self.seconds = []
        self.pace = threading.Event()

    def measure(self, daemon, used, duration):
        end = time.monotonic() + duration
        while time.monotonic() < end or len(self.seconds) < 20:
            self.seconds.append(roundTrip(daemon))
            used.look()
            self.pace.wait(0.005)  # so that root is no flood itself

    def of(self, part):
        return sorted(self.seconds)[min(int(part * len(self.seconds)), len(self.seconds) - 1)] * 1000

    def __str__(self):
        return (f"{len(self.seconds)} requests, median {self.of(0.5):.1f} ms, p99 {self.of(0.99):.1f} ms, "
                f"slowest {self.of(1):.1f} ms")


@pytest.fixture
def target(makeDaemon):
    """A daemon as it is by default, which members of a group may use, after some requests."""
    daemon = makeDaemon("--idle-seconds", "0", "--admin-group", "games")
    for _ in range(200):
        roundTrip(daemon)
    daemon.post({"command": "echo", "text": "x" * 1_000_000})
    waitUntil(lambda: openConnections(daemon) == 0, "the connections are closed")
    return daemon


def withstand(daemon, attacks):
    """Root is served during the attacks, the memory does not grow, and nothing is left of them."""
    used = Usage(daemon.process.pid)
    calm, times = Times(), Times()
    calm.measure(daemon, used, 0.5)
    with contextlib.ExitStack() as stack:
        made = [(kind, stack.enter_context(flood(daemon, kind, count, **who))) for kind, count, who in attacks]
        times.measure(daemon, used, SECONDS)
    report(f"undisturbed: {calm}")
    report(f"{', '.join(f'{kind} ({sum(number)} connections)' for kind, number in made)}: {times}")
    waitUntil(lambda: openConnections(daemon) == 0, "the connections are closed")
    waitUntil(lambda: openFiles(daemon.process.pid) <= used.files, "as few files are open as before")
    left = used.growth()
    report(f"afterwards {left / MEBIBYTE:.1f} MiB more than before")
    used.assertGrowth(16 * MEBIBYTE)
    assert SANITIZED or left <= 8 * MEBIBYTE
    assert times.of(1) < 10_000
    roundTrip(daemon)


@pytest.mark.parametrize("kind", ATTACKS)
def test_root_is_served_while_a_member_floods_the_daemon(target, kind):
    withstand(target, [(kind, ATTACKS[kind], {})])


def test_root_is_served_while_several_members_do_all_of_it_at_once(target):
    withstand(target, [(kind, count, {"user": 2000 + number}) for number, (kind, count) in enumerate(ATTACKS.items())])


def test_root_is_served_while_strangers_connect(target):
    os.chmod(target.socket, 0o666)
    withstand(target, [("idle", IDLE, {"group": NOBODY})])
