"""Fixtures: a machine that systemd runs, and the service in it after its first-time setup."""

import os
import sys
from pathlib import Path

import pytest

_PROJECT = Path(__file__).resolve().parents[2]
sys.path += [str(_PROJECT / "scripts"), str(_PROJECT / "tests/e2e"), str(_PROJECT / "tests/host")]

from service import Service  # noqa: E402
from systemd_machine import SystemdMachine  # noqa: E402
from systemd_tree import systemd_tree  # noqa: E402


@pytest.fixture(scope="session")
def build():
    return Path(os.environ["TESSARD_BUILD_DIR"])


@pytest.fixture
def machine(build):
    """A machine on which everything of ours was just installed; the daemon runs, nothing was asked of it yet."""
    with SystemdMachine(systemd_tree(), build) as made:
        yield made


@pytest.fixture
def service(machine):
    made = Service(machine)
    made.tool("setup")
    return made
