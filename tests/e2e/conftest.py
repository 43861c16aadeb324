"""Fixtures: a private machine, the daemon in it, and the service after first-time setup."""

import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))

from private_machine import PrivateMachine  # noqa: E402
from service import Service  # noqa: E402


@pytest.fixture
def machine():
    """A machine with nothing in it but Debian's programs and ours."""
    with PrivateMachine(os.environ["TESSARD_BUILD_DIR"]) as made:
        yield made


@pytest.fixture
def daemon(machine):
    """The daemon of a machine whose templates are in place; nothing was asked of it yet."""
    machine.prepare_instance()
    machine.start_daemon()
    return Service(machine)


@pytest.fixture
def service(daemon):
    """The service after its first-time setup."""
    daemon.tool("setup")
    return daemon
