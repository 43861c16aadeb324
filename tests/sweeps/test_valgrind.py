"""The daemon's memory, watched by valgrind: nothing is used that is not there, and nothing is lost. Whole only, as it
takes minutes."""

import subprocess
from pathlib import Path

import pytest

from hosttools import buildDirectory, needsPlugin
from sweeptools import report
from test_audit import doEverythingThatWrites, makeCertificate
from test_soak import Traffic

STAND_IN = Path(__file__).with_name("calls_for_valgrind.c")
VALGRIND = ["valgrind", "-q", "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
            "--error-exitcode=97", "--num-callers=30", "--child-silent-after-fork=yes"]


def found(log):
    """What valgrind had to say."""
    return [line for line in log.read_text(errors="replace").splitlines() if line.startswith("==")]


@pytest.fixture
def standIn(tmp_path):
    """What a program is given so that it finds calls that valgrind lacks."""
    library = tmp_path / "calls.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, STAND_IN], check=True)
    return f"LD_PRELOAD={library}"


def test_the_unit_tests_of_the_host_lose_no_memory(standIn, tmp_path):
    log = tmp_path / "valgrind"
    done = subprocess.run(["env", standIn, *VALGRIND, f"--log-file={log}", buildDirectory() / "tests/test_host",
                           "--gtest_brief=1"], capture_output=True, text=True, timeout=1800, check=False)
    assert found(log) == []
    assert done.returncode == 0, done.stdout[-3000:]


@needsPlugin
def test_a_session_of_the_daemon_loses_no_memory(pluginRoot, makeDaemon, standIn, tmp_path):
    log = tmp_path / "valgrind"
    daemon = makeDaemon("--idle-seconds", "0", "--request-seconds", "20", prefix=["env", standIn, *VALGRIND, f"--log-file={log}"])
    certificate = makeCertificate(tmp_path)
    doEverythingThatWrites(daemon, certificate)
    traffic = Traffic(daemon, certificate.read_text())
    traffic.everything()
    for _ in range(300):
        traffic.one()
    traffic.connection.close()
    for held in [daemon.raw() for _ in range(80)]:
        held.close()
    assert daemon.end()[0] == 0
    assert found(log) == []
    report(f"{traffic.sent} requests without an error or a definite leak")
