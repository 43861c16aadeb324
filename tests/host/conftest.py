import pathlib
import shutil
import tempfile

import pytest

from hosttools import Daemon, buildDirectory


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
