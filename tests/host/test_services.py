"""What the launchers say of their services, as the daemon and the tool show it."""

import os
import plistlib
import subprocess

import pytest

from hosttools import RunningRequest, TerminalTool

LABEL = "org.jabber.jabberd_notification"


def publish(daemon, state, parts, reason="", pid=None, label=LABEL):
    directory = daemon.root / "run/tessard-services"
    directory.mkdir(parents=True, exist_ok=True)
    content = {
        "pid": os.getpid() if pid is None else pid,
        "state": state,
        "reason": reason,
        "parts": [{"name": name, "state": how, "pid": number} for name, how, number in parts],
    }
    fresh = directory / "fresh"
    fresh.write_bytes(plistlib.dumps(content))
    fresh.rename(directory / f"{label}.plist")


def services(daemon):
    answer = daemon.send("GET", "/v1/services")
    assert answer.status == 200
    return answer.json["services"]


def failed(daemon):
    (daemon.root / "var/log").mkdir(parents=True)
    (daemon.root / "var/log/system.log").write_text("x sm[77]: no \033[2J driver\nx router[76]: fine\n")
    parts = [("router", "ready", 76), ("sm (sm.xml)", "ended", 77), ("c2s", "waiting", 0)]
    publish(daemon, "failed", parts, "The component sm has ended with exit status 1.")


def nobody():
    """The number of a process that has ended."""
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


def test_there_are_none_before_a_launcher_has_said_anything(daemon):
    assert services(daemon) == {}


def test_the_parts_of_a_service_are_told(daemon):
    publish(daemon, "starting", [("router", "ready", 76), ("sm (sm.xml)", "waiting", 0)])
    assert services(daemon) == {
        LABEL: {
            "state": "starting",
            "parts": [{"name": "router", "state": "ready", "pid": 76}, {"name": "sm (sm.xml)", "state": "waiting"}],
        }
    }


def test_a_part_that_has_ended_is_told_with_its_last_lines(daemon):
    failed(daemon)
    service = services(daemon)[LABEL]
    assert (service["state"], service["reason"]) == ("failed", "The component sm has ended with exit status 1.")
    assert [part.get("log") for part in service["parts"]] == [None, ["x sm[77]: no \u241b[2J driver"], None]


@pytest.mark.parametrize("state", ["starting", "running", "stopping"])
def test_a_launcher_that_is_gone_without_a_word_is_noticed(daemon, state):
    publish(daemon, state, [], pid=nobody())
    assert services(daemon)[LABEL]["state"] == "lost"


@pytest.mark.parametrize("state", ["restarting", "failed"])
def test_a_launcher_may_be_gone_after_its_last_word(daemon, state):
    publish(daemon, state, [], pid=nobody())
    assert services(daemon)[LABEL]["state"] == state


def test_a_request_that_runs_holds_the_reports_up_for_nobody(daemon):
    publish(daemon, "starting", [("router", "starting", 76)])
    running = RunningRequest(daemon)
    assert services(daemon)[LABEL]["parts"][0]["state"] == "starting"
    running.finish()


def test_only_reading_is_possible(daemon):
    answer = daemon.post({}, path="/v1/services")
    assert (answer.status, answer.error) == (405, "method-not-allowed")


# --- the tool --------------------------------------------------------------------------------------------------------


def test_a_failed_start_says_which_part_is_missing_and_its_last_lines(daemon):
    (daemon.root / "stubborn").touch()
    failed(daemon)
    done = daemon.tool("start")
    assert done.returncode == 69
    assert done.stderr.splitlines()[-4:] == [
        "jabberd_notification (failed): The component sm has ended with exit status 1.",
        "  sm (sm.xml): ended",
        "    x sm[77]: no \u241b[2J driver",
        "  c2s: waiting",
    ]


def test_a_stop_that_fails_says_nothing_of_the_parts(daemon):
    daemon.tool("start")
    (daemon.root / "stubborn").touch()
    failed(daemon)
    assert "jabberd_notification" not in daemon.tool("stop").stderr


def test_the_details_show_the_parts_to_people_and_the_answer_alone_to_programs(daemon):
    publish(daemon, "running", [("router", "ready", 76), ("c2s", "ready", 77)])
    lines = daemon.tool("state", "--details").stdout.splitlines()
    assert lines[-2:] == ["jabberd_notification/router: ready", "jabberd_notification/c2s: ready"]
    assert "router" not in daemon.tool("state").stdout
    assert "router" not in daemon.tool("--json", "state", "--details").stdout


def test_a_start_that_is_waited_for_shows_each_part_once_for_each_of_its_states(daemon):
    publish(daemon, "starting", [("router", "starting", 76), ("c2s", "waiting", 0)])
    running = RunningRequest(daemon)
    tool = TerminalTool(daemon, "start")
    tool.awaitText(b"  jabberd_notification/c2s: waiting\r\n")
    publish(daemon, "starting", [("router", "ready", 76), ("c2s", "waiting", 0)])
    tool.awaitText(b"  jabberd_notification/router: ready\r\n")
    running.finish()
    assert tool.finish() == 0
    for line in (b"router: starting", b"router: ready", b"c2s: waiting"):
        assert tool.shown.count(line) == 1


def test_without_a_terminal_a_start_shows_no_progress(daemon):
    publish(daemon, "running", [("router", "ready", 76)])
    assert daemon.tool("start").stderr == ""
