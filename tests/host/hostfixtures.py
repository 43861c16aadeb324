"""Scratch roots, and daemons on them, as fixtures."""

import pathlib
import shutil
import tempfile

import pytest

from hosttools import PLUGIN_BUNDLE, Daemon, buildDirectory

SOURCE = __file__.rpartition("/tests/")[0]


@pytest.fixture
def root():
    """A scratch system root that holds the test bundle as the plug-in "notification". Other users can come as
    far as its socket."""
    with tempfile.TemporaryDirectory(prefix="tessard-host-") as name:
        directory = pathlib.Path(name)
        directory.chmod(0o755)
        bundles = directory / "usr/share/tessardd/bundles"
        bundles.mkdir(parents=True)
        shutil.copytree(
            buildDirectory() / "host_bundles/working.bundle",
            bundles / "tessard_notification.bundle",
        )
        yield directory


@pytest.fixture
def makeDaemon(root):
    """Starts daemons; ends at the test's end what is still running."""
    started = []

    def make(*options, **keywords):
        daemon = Daemon(keywords.pop("root", root), *options, **keywords)
        started.append(daemon)
        daemon.awaitReady()
        return daemon

    yield make
    for daemon in started:
        daemon.end()


@pytest.fixture
def daemon(makeDaemon):
    return makeDaemon("--idle-seconds", "0")


def layOut(root):
    """Fills a directory with what a system root has after installing, all but the plug-in's bundle, before first-time
    setup."""
    (root / "etc").mkdir()
    (root / "etc/hostname").write_text("push.example.com\n")
    (root / "etc/hosts").write_text("127.0.0.1 push.example.com push\n")
    for directory in ["private", "run", "var/db", "var/log", "var/jabberd"]:
        (root / directory).mkdir(parents=True)
    (root / "private/etc").symlink_to("../etc")
    (root / "private/var").symlink_to("../var")
    (root / "var/run").symlink_to("../run")
    shutil.copytree(f"{SOURCE}/share/templates", root / "etc/jabberd_notification")
    shutil.copytree(f"{SOURCE}/share/Beaconry", root / "usr/share/Beaconry")
    (root / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
    (root / "etc/shadow").write_text("root:!:20000:0:99999:7:::\n")
    (root / "etc/shadow").chmod(0o640)
    (root / "etc/group").write_text("root:x:0:\nstaff:x:20:\n")
    programs = root / "usr/libexec/tessardd"
    programs.mkdir(parents=True)
    (programs / "change_accounts").symlink_to(buildDirectory() / "programs/change_accounts")
    database = root / "var/jabberd"
    (database / "db-setup.sqlite").write_text("CREATE TABLE active (owner TEXT);\n")


@pytest.fixture
def pluginRoot(root):
    """A scratch root as it is after installing, before first-time setup."""
    target = root / "usr/share/tessardd/bundles/tessard_notification.bundle"
    shutil.rmtree(target)
    shutil.copytree(PLUGIN_BUNDLE, target)
    layOut(root)
    return root


@pytest.fixture
def plugin(pluginRoot, makeDaemon):
    return makeDaemon("--idle-seconds", "0")
