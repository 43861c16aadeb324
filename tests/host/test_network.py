"""The daemon follows the host name below its root, and takes changes of the address from requests."""

import plistlib
import signal

import pytest

from hosttools import PATIENCE, RunningRequest, waitUntil

STATE = "var/lib/tessardd/network.plist"


@pytest.fixture
def rename(root):
    """Gives the root another host name, in one step as hostnamectl does."""
    (root / "etc").mkdir()

    def to(name):
        new = root / "etc/.hostname.new"
        new.write_text(name + "\n")
        new.rename(root / "etc/hostname")

    to("old.example.com")
    return to


def told(root):
    """The new host of the last change that reached the plug-in."""
    return (root / "network").read_text() if (root / "network").exists() else None


def stored(root):
    return plistlib.loads((root / STATE).read_bytes())


def start(makeDaemon, seconds=1):
    return makeDaemon("--idle-seconds", "0", "--network-quiet-seconds", str(seconds))


def test_a_new_host_name_reaches_the_plugin(root, makeDaemon, rename):
    daemon = start(makeDaemon)
    assert stored(root) == {"host": "old.example.com"}
    rename("new.example.com")
    waitUntil(lambda: told(root) == "new.example.com", "the plug-in was told")
    waitUntil(lambda: stored(root) == {"host": "new.example.com"}, "the name is remembered")
    text = daemon.end()[1]
    assert 'the host name is now "new.example.com" and was "old.example.com"' in text


def test_a_new_name_waits_for_the_running_request_and_holds_up_no_other(root, makeDaemon, rename):
    daemon = start(makeDaemon)
    running = RunningRequest(daemon)
    rename("new.example.com")
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the change waits")
    assert told(root) is None
    running.finish()
    waitUntil(lambda: told(root) == "new.example.com", "the plug-in was told")
    daemon.assertServes()


def test_a_name_that_was_changed_while_the_daemon_was_down_is_told(root, makeDaemon, rename):
    start(makeDaemon).end()
    rename("new.example.com")
    start(makeDaemon)
    waitUntil(lambda: told(root) == "new.example.com", "the plug-in was told")


def test_a_change_that_a_killed_daemon_did_not_tell_is_told_by_the_next(root, makeDaemon, rename):
    daemon = start(makeDaemon)
    running = RunningRequest(daemon)
    rename("new.example.com")
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the change waits")
    daemon.process.kill()
    daemon.process.wait()
    running.leave()
    start(makeDaemon)
    waitUntil(lambda: told(root) == "new.example.com", "the plug-in was told")


def test_stopping_does_not_wait_for_a_burst_to_end(root, makeDaemon, rename):
    daemon = start(makeDaemon, seconds=86400)
    rename("new.example.com")
    daemon.process.send_signal(signal.SIGTERM)
    daemon.process.wait(PATIENCE)
    assert daemon.end()[0] == 0
    assert stored(root) == {"host": "old.example.com"}


def test_a_daemon_that_is_not_to_watch_remembers_nothing(root, makeDaemon, rename):
    start(makeDaemon, seconds=0).end()
    assert not (root / "var").exists()
