"""The command-line tool."""

import json
import plistlib
import subprocess

import pytest

from hosttools import PATIENCE, RunningRequest, TerminalTool, buildDirectory, waitUntil


def test_state_is_shown(daemon):
    done = daemon.tool("state")
    assert (done.returncode, done.stdout, done.stderr) == (0, "state: STOPPED\n", "")


def test_details_are_shown_without_what_a_terminal_would_obey(daemon):
    done = daemon.tool("state", "--details")
    assert done.stdout == "state: STOPPED\npluginVersion: 1\\x1b[2J\n"


def test_json_is_one_document(daemon):
    done = daemon.tool("--json", "state", "--details")
    assert json.loads(done.stdout) == {"state": "STOPPED", "pluginVersion": "1\x1b[2J"}


@pytest.mark.parametrize("verb, state", [("start", "RUNNING"), ("restart", "RUNNING"), ("stop", "STOPPED")])
def test_the_service_is_started_and_stopped(daemon, verb, state):
    done = daemon.tool(verb)
    assert (done.returncode, done.stdout) == (0, f"state: {state}\n")
    assert daemon.tool("state").stdout == f"state: {state}\n"


def test_a_start_that_fails_is_told_though_the_answer_is_a_mere_state(daemon):
    (daemon.root / "stubborn").touch()
    done = daemon.tool("start")
    assert done.returncode == 69
    assert done.stdout == "state: STOPPED\n"
    assert done.stderr.splitlines()[0] == "error: it would not start"
    assert "was to be RUNNING and is STOPPED" in done.stderr
    told = json.loads(daemon.tool("start", "--json").stdout)
    assert (told["error"], told["answer"]) == ("state-not-reached", {"state": "STOPPED"})


def test_settings_are_written_and_read_back(daemon):
    words = ["port=5218", "name=a b", "requireSSL=yes", "debug=false", "hosts=[a.example, b.example]", "empty=[]"]
    words += ['digits="12"', "list+=x", "list+=1", 'nested:={"a": [1.5]}', "zeros=007", "none="]
    done = daemon.tool("settings", "set", *words)
    assert (done.returncode, done.stdout) == (0, "")
    assert "take effect with the next restart" in done.stderr
    settings = json.loads(daemon.tool("settings", "get", "--json").stdout)
    assert settings == {
        "port": 5218,
        "name": "a b",
        "requireSSL": True,
        "debug": False,
        "hosts": ["a.example", "b.example"],
        "empty": [],
        "digits": "12",
        "list": ["x", 1],
        "nested": {"a": [1.5]},
        "zeros": "007",
        "none": "",
    }
    shown = daemon.tool("settings", "get").stdout
    assert shown.splitlines() == [
        "port=5218",
        "name=a b",
        "requireSSL=true",
        "debug=false",
        "hosts=[a.example, b.example]",
        "empty=[]",
        'digits="12"',
        "list=[x, 1]",
        'nested:={"a":[1.5]}',
        "zeros=007",
        "none=",
    ]
    assert daemon.tool("settings", "get", "port", "name").stdout == "port=5218\nname=a b\n"
    daemon.tool("settings", "set", *shown.splitlines())
    assert json.loads(daemon.tool("settings", "get", "--json").stdout) == settings


def test_a_setting_that_is_not_there_is_told(daemon):
    daemon.tool("settings", "set", "a=1")
    done = daemon.tool("settings", "get", "a", "b")
    assert (done.returncode, done.stdout) == (65, "a=1\n")
    assert 'There is no setting "b".' in done.stderr


def test_settings_before_the_first_time_setup_are_told(daemon):
    done = daemon.tool("settings", "get")
    assert done.returncode == 69
    assert "first-time setup is not done" in done.stderr
    done = daemon.tool("settings", "get", "--json")
    assert (done.returncode, json.loads(done.stdout)["error"], done.stderr) == (69, "not-set-up", "")


@pytest.mark.parametrize(
    "content",
    [
        json.dumps({"a": 1, "b": ["x"]}).encode(),
        plistlib.dumps({"a": 1, "b": ["x"]}),
        plistlib.dumps({"a": 1, "b": ["x"]}, fmt=plistlib.FMT_BINARY),
    ],
    ids=["json", "xml", "binary"],
)
def test_settings_come_from_a_file(daemon, content):
    file = daemon.root / "settings"
    file.write_bytes(content)
    assert daemon.tool("settings", "set", "--file", file).returncode == 0
    assert json.loads(daemon.tool("settings", "get", "--json").stdout) == {"a": 1, "b": ["x"]}


def test_settings_come_from_standard_input(daemon):
    assert daemon.tool("settings", "set", "--file", "-", input='{"a": "b"}').returncode == 0
    assert daemon.tool("settings", "get").stdout == "a=b\n"


@pytest.mark.parametrize(
    "content, status", [("{", 65), ("[]", 65), ("<plist>", 65), ("", 65), (None, 66)]
)
def test_an_unusable_file_is_told(daemon, content, status):
    file = daemon.root / "settings"
    if content is not None:
        file.write_text(content)
    done = daemon.tool("settings", "set", "--file", file)
    assert done.returncode == status
    assert f"Cannot use {file}: " in done.stderr


def test_failed_writes_are_told(daemon):
    daemon.tool("settings", "set", "a=1")
    done = daemon.tool("settings", "set", "status=13")
    assert done.returncode == 73
    assert "directory for saved chats" in done.stderr
    assert daemon.tool("settings", "set", "status=5").returncode == 70
    assert daemon.tool("settings", "set", "status=-1").returncode == 70
    told = json.loads(daemon.tool("settings", "set", "status=13", "--json").stdout)
    assert (told["error"], told["answer"]["writeStatus"]) == ("unusable-directory", 13)


def test_setup_is_done(daemon):
    done = daemon.tool("setup")
    assert (done.returncode, done.stdout) == (0, "state: RUNNING\n")
    assert (daemon.root / "var/db/.VeltoSetupDone").exists()


def test_any_request_can_be_sent(daemon):
    done = daemon.tool("request", "echo", '{"a": [1, null, {"$data": "AA=="}]}')
    assert json.loads(done.stdout) == {"command": "echo", "a": [1, {"$data": "AA=="}]}
    assert json.loads(daemon.tool("request", "echo").stdout) == {"command": "echo"}


def test_health_is_shown(daemon):
    assert "status: ok\n" in daemon.tool("health").stdout
    assert json.loads(daemon.tool("health", "--json").stdout)["plugins"] == ["notification"]


def test_the_log_of_a_request_goes_to_standard_error(daemon):
    done = daemon.tool("request", "log", '{"text": "x"}')
    assert done.returncode == 70
    assert json.loads(done.stdout) == {"logged": True}
    assert done.stderr == "warning: x warning\nerror: x error\n"
    done = daemon.tool("request", "log", '{"text": "x", "warningOnly": true}')
    assert (done.returncode, done.stderr) == (0, "warning: x warning\n")


@pytest.mark.parametrize(
    "words, status, id",
    [
        (["request", "dance"], 64, "unknown-command"),
        (["request", "nothing"], 70, "no-answer"),
        (["request", "throw"], 70, "plugin-failed"),
        (["--plugin", "mail", "state"], 69, "unknown-plugin"),
        (["request", "echo", "{"], 65, "malformed-json"),
        (["request", "echo", "[]"], 65, "malformed-json"),
        (["request", "echo", '{"text": "' + "x" * 100_000 + '"}', "more"], 64, "usage"),
        ([], 64, "usage"),
        (["fly"], 64, "usage"),
        (["state", "more"], 64, "usage"),
        (["start", "--details"], 64, "usage"),
        (["state", "--file", "x"], 64, "usage"),
        (["state", "--speed"], 64, "usage"),
        (["state", "--plugin"], 64, "usage"),
        (["settings"], 64, "usage"),
        (["settings", "burn"], 64, "usage"),
        (["settings", "set"], 64, "usage"),
        (["settings", "set", "a=1", "--file", "x"], 64, "usage"),
        (["settings", "set", "a"], 64, "usage"),
        (["settings", "set", "=1"], 64, "usage"),
        (["settings", "set", "a=1", "a=2"], 64, "usage"),
        (["settings", "set", "a=1", "a+=2"], 64, "usage"),
        (["settings", "set", "a:={"], 64, "usage"),
        (["settings", "set", "a=99999999999999999999"], 64, "usage"),
        (["request"], 64, "usage"),
    ],
    ids=lambda value: " ".join(value)[:40] if isinstance(value, list) else str(value),
)
def test_failures_have_an_exit_code_and_a_stable_id(daemon, words, status, id):
    plain = daemon.tool(*words)
    assert (plain.returncode, plain.stdout) == (status, "")
    assert "error: " in plain.stderr
    asJson = daemon.tool("--json", *words)
    assert asJson.returncode == status
    assert json.loads(asJson.stdout)["error"] == id


def test_error_answers_of_a_plugin_are_told(daemon):
    done = daemon.tool("request", "getState", '{"errno": true}')
    assert done.returncode == 70
    assert "CANNOT_STAT_ERR (2: No such file or directory)" in done.stderr
    done = daemon.tool("request", "setState", '{"state": "SAVE"}', "--json")
    assert (done.returncode, json.loads(done.stdout)) == (65, {
        "error": "invalid-argument", "message": "The plug-in answered INVALID_ARG_ERR.",
        "answer": {"error": "INVALID_ARG_ERR"}})


def test_a_daemon_that_does_not_run_is_told(daemon):
    daemon.end()
    done = daemon.tool("state")
    assert done.returncode == 69
    assert "The daemon is not running: there is no socket" in done.stderr
    done = daemon.tool("state", "--json")
    assert json.loads(done.stdout)["error"] == "not-running"


def test_a_stale_socket_is_told(daemon):
    daemon.process.kill()
    daemon.process.wait()
    done = daemon.tool("state")
    assert done.returncode == 69
    assert "nobody listens on" in done.stderr


def test_a_daemon_that_dies_meanwhile_is_told(daemon):
    tool = subprocess.Popen(
        [buildDirectory() / "bin/tessardctl", "--socket", daemon.socket, "request", "wait",
         '{"begun": "/begun", "until": "/never"}'],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )
    waitUntil((daemon.root / "begun").exists, "the request has begun")
    daemon.process.kill()
    _, text = tool.communicate(timeout=PATIENCE)
    assert tool.returncode == 74
    assert "The connection to the daemon was lost" in text


def test_output_that_cannot_be_written_is_told(daemon):
    with open("/dev/full", "w") as full:
        done = subprocess.run(
            [buildDirectory() / "bin/tessardctl", "--socket", daemon.socket, "state"],
            stdout=full,
            stderr=subprocess.PIPE,
            text=True,
            timeout=PATIENCE,
        )
    assert done.returncode == 74
    assert "standard output cannot be written" in done.stderr


def onTerminal(daemon, *words, **environment):
    """What the tool writes to a terminal on standard error."""
    tool = TerminalTool(daemon, *words, **environment)
    tool.finish()
    return tool.shown


def test_messages_are_coloured_on_a_terminal_alone_and_not_against_the_users_wish(daemon):
    assert b"\033[31merror:\033[0m" in onTerminal(daemon, "fly")
    assert b"error:" in onTerminal(daemon, "fly", NO_COLOR="1")
    assert b"\033[31m" not in onTerminal(daemon, "fly", NO_COLOR="1")


def test_a_long_wait_shows_its_progress_on_a_terminal(daemon):
    running = RunningRequest(daemon)
    tool = TerminalTool(daemon, "state")
    tool.awaitText(b"waiting for the answer, 2 s")
    running.finish()
    assert tool.finish() == 0


def test_help_has_an_example_for_each_verb_and_version_is_told(daemon):
    text = daemon.tool("--help").stdout
    for verb in ["state --details", "restart", "settings get", "settings set", "setup", "request", "health",
                 "services list", "services add", "services remove", "service-user", "certificate list",
                 "certificate import", "certificate set", "certificate clear", "log --level", "log JABBER_LOG", "log --list"]:
        assert f"tessardctl {verb}" in text or f"tessardctl --json {verb}" in text
    assert daemon.tool("--version").stdout.startswith("tessardctl ")
    assert "version" in json.loads(daemon.tool("--version", "--json").stdout)
