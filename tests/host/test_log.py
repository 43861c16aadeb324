"""Logs, as requests and the command-line tool read them."""

import json
import os
import signal
import stat
import subprocess
import threading

import pytest

from hosttools import PATIENCE, TerminalTool, buildDirectory, needsPlugin

pytestmark = needsPlugin

OURS = "2026-11-21T10:00:00Z jabberd_notification/sm[1]: "


@pytest.fixture
def systemLog(pluginRoot):
    file = pluginRoot / "var/log/system.log"
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("")
    return file


def write(file, *texts):
    with open(file, "a", encoding="utf-8") as log:
        for text in texts:
            log.write(f"{OURS}{text}\n")


def tail(daemon, **entries):
    return daemon.post({"command": "tailFile", "identifier": "JABBER_LOG", **entries}).json


def texts(answer):
    return [line.removeprefix(OURS) for line in answer["lines"]]


def test_the_lines_of_the_instance_are_answered(plugin, systemLog):
    write(systemLog, "a")
    with open(systemLog, "a") as log:
        log.write("kernel: of the machine\n")
    write(systemLog, "b")
    answer = tail(plugin)
    assert texts(answer) == ["a", "b"]
    assert (answer["complete"], answer["more"], "reason" in answer) == (True, False, False)
    answer = tail(plugin, lines=1)
    assert (texts(answer), answer["complete"], answer["reason"]) == (["b"], False, "lines")


def test_a_position_goes_on_through_a_rotation(plugin, systemLog):
    write(systemLog, "a")
    position = tail(plugin, lines=0)["position"]
    write(systemLog, "b")
    systemLog.rename(f"{systemLog}.1")
    systemLog.touch()
    write(systemLog, "c")
    answer = tail(plugin, position=position)
    assert (texts(answer), answer["complete"]) == (["b", "c"], True)


def test_an_answer_is_a_property_list_whatever_the_log_holds(plugin, systemLog):
    systemLog.write_bytes(OURS.encode() + b"\x00\x1b[2J\xff\xfe\n")
    answer = plugin.send("POST", "/v1/plugins/notification",
                         json.dumps({"command": "tailFile", "identifier": "JABBER_LOG"}),
                         Content_Type="application/json", Accept="application/x-plist")
    assert texts(answer.plist) == ["\u2400\u241b[2J\ufffd\ufffd"]


@pytest.mark.parametrize(
    "entries",
    [
        {"identifier": "../../../etc/hostname"},
        {"identifier": "/etc/hostname"},
        {"identifier": ["JABBER_LOG"]},
        {"identifier": None},
        {"lines": -1},
        {"lines": "all"},
        {"lines": [1]},
        {"bytes": 0},
        {"withFilters": [1]},
        {"position": "begin"},
        {"position": {}},
    ],
    ids=str,
)
def test_a_request_that_makes_no_sense_is_refused_with_its_reason(plugin, systemLog, entries):
    done = plugin.post({"command": "tailFile", "identifier": "JABBER_LOG", **entries},
                       path="/v1/plugins/notification?with=log").json
    assert done["answer"] == {"error": "INVALID_ARG_ERR"}
    assert [line["message"].startswith("log request refused: ") for line in done["log"]] == [True]


def test_a_log_that_cannot_be_read_is_told(plugin, systemLog):
    systemLog.unlink()
    assert tail(plugin) == {"error": "CANNOT_STAT_ERR"}
    done = plugin.tool("log")
    assert (done.returncode, done.stdout) == (70, "")
    assert done.stderr.startswith("error: the log /var/log/system.log cannot be read: No such file or directory\n")
    os.mkfifo(systemLog)
    assert "it is no regular file" in plugin.tool("log").stderr


def test_a_link_that_the_service_put_in_the_place_of_its_log_is_refused(plugin, pluginRoot):
    directory = pluginRoot / "var/log/idavoll"
    directory.mkdir(parents=True)
    (pluginRoot / "etc/shadow").write_text("secret")
    (directory / "error.log").symlink_to("/etc/shadow")
    if os.geteuid() == 0:
        os.chown(directory, 84, 0)
    else:
        directory.chmod(stat.S_IRWXU | stat.S_IRWXO)
    done = plugin.tool("log", "PUBSUB_ERROR_LOG")
    assert done.returncode == 70
    assert "it is a link in a directory that others than root can change" in done.stderr
    assert "secret" not in done.stdout + done.stderr


def test_the_paths_are_answered_once_there_is_service_data(plugin):
    paths = {"JABBER_LOG": "/var/log/system.log", "PUBSUB_ERROR_LOG": "/var/log/idavoll/error.log"}
    assert plugin.post({"command": "getLogPaths"}).json == {}
    done = plugin.tool("log", "--list")
    assert (done.returncode, done.stdout) == (69, "")
    assert "first-time setup is not done" in done.stderr
    done = plugin.tool("--json", "log", "--list")
    assert (done.returncode, json.loads(done.stdout)["error"], done.stderr) == (69, "not-set-up", "")
    assert plugin.tool("setup").returncode == 0
    assert plugin.post({"command": "getLogPaths"}).json == paths
    assert plugin.tool("log", "--list").stdout == "".join(f"{name}: {path}\n" for name, path in paths.items())
    assert json.loads(plugin.tool("log", "--list", "--json").stdout) == paths


# --- the tool --------------------------------------------------------------------------------------------------------


def test_the_newest_lines_are_shown(plugin, systemLog):
    write(systemLog, *(f"line {number}" for number in range(200)))
    shown = plugin.tool("log", "JABBER_LOG").stdout.splitlines()
    assert shown == [f"{OURS}line {number}" for number in range(100, 200)]
    assert plugin.tool("log", "JABBER_LOG", "--lines", "2").stdout.splitlines() == shown[-2:]
    assert plugin.tool("log", "JABBER_LOG", "-n", "0").stdout == ""
    assert plugin.tool("log", "JABBER_LOG", "--text", "line 1", "--text=77").stdout == f"{OURS}line 177\n"
    assert plugin.tool("log", "JABBER_LOG", "--text", "nothing of the kind").stderr == ""


def test_json_is_the_answer(plugin, systemLog):
    write(systemLog, "a\u009b2J")
    assert json.loads(plugin.tool("log", "JABBER_LOG", "--json").stdout)["lines"] == [f"{OURS}a\ufffd2J"]


def test_what_is_left_out_unasked_is_told(plugin, systemLog):
    write(systemLog, *(["x" * 5000] * 300))
    done = plugin.tool("log", "JABBER_LOG", "--lines", "300")
    assert done.returncode == 0
    assert done.stderr == "warning: Older lines are left out; the answer would be too large.\n"
    assert len(done.stdout.splitlines()) > 200


@pytest.mark.parametrize(
    "words, problem",
    [
        (["log", "a", "b"], '"log" takes one IDENTIFIER at most.'),
        (["log", "--list", "--follow"], "--list stands alone."),
        (["log", "--list", "JABBER_LOG"], "--list stands alone."),
        (["log", "--list", "-n", "1"], "--list stands alone."),
        (["log", "--list", "--text", "x"], "--list stands alone."),
        (["state", "--lines", "1"], '--lines belongs to "log".'),
        (["state", "--text", "x"], '--text belongs to "log".'),
        (["state", "--level", "error"], '--level belongs to "log".'),
        (["state", "--component", "sm"], '--component belongs to "log".'),
        (["state", "--since", "1h"], '--since belongs to "log".'),
        (["log", "JABBER_LOG", "--level", "error"], "are for all logs together"),
        (["log", "--level", "grave"], "--level must be error, warning"),
        (["log", "--since", "soon"], '--since cannot be "soon".'),
        (["log", "--lines", "many"], "--lines must be a number"),
        (["log", "--lines", "100001"], "--lines must be a number"),
        (["state", "--follow"], '--follow belongs to "log".'),
        (["state", "--list"], '--list belongs to "log" and "check".'),
        (["log", "--lines"], 'The option "--lines" needs a value.'),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "",
)
def test_wrong_usage_is_told(plugin, words, problem):
    done = plugin.tool(*words)
    assert (done.returncode, done.stdout) == (64, "")
    assert problem in done.stderr
    assert json.loads(plugin.tool("--json", *words).stdout)["error"] == "usage"


@pytest.mark.parametrize("words", [["OTHER"], ["JABBER_LOG", "--lines", "many"], ["JABBER_LOG", "--lines=100001"]], ids=str)
def test_what_the_plugin_refuses_is_told(plugin, systemLog, words):
    done = plugin.tool("log", *words)
    assert done.returncode == 65
    assert "error: log request refused: " in done.stderr
    told = json.loads(plugin.tool("log", *words, "--json").stdout)
    assert told["error"] == "invalid-argument" and "log request refused: " in told["message"]
    assert told["answer"] == {"error": "INVALID_ARG_ERR"}


class Follower:
    """`tessardctl log --follow`, read line by line."""

    def __init__(self, daemon, *words):
        self.process = subprocess.Popen(
            [buildDirectory() / "bin/tessardctl", "--socket", daemon.socket, "log", "--follow", *words],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        # So that no test waits for ever for a line that does not come.
        watchdog = threading.Timer(PATIENCE, self.process.kill)
        watchdog.daemon = True
        watchdog.start()

    def line(self):
        return self.process.stdout.readline().removeprefix(OURS).rstrip("\n")

    def problem(self):
        return self.process.stderr.readline()

    def end(self, number=signal.SIGINT):
        """Exit status and what else was written."""
        self.process.send_signal(number)
        rest, problems = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, rest, problems


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_log_is_followed_until_the_person_has_enough(plugin, systemLog, number):
    write(systemLog, "old 1", "old 2", "old 3")
    follower = Follower(plugin, "JABBER_LOG", "--lines", "2")
    assert [follower.line(), follower.line()] == ["old 2", "old 3"]
    write(systemLog, "new 1")
    assert follower.line() == "new 1"
    systemLog.rename(f"{systemLog}.1")
    systemLog.touch()
    write(systemLog, "new 2")
    assert follower.line() == "new 2"
    assert follower.end(number) == (0, "", "")


def test_more_lines_than_an_answer_holds_are_followed_without_loss(plugin, systemLog):
    write(systemLog, "first")
    follower = Follower(plugin, "JABBER_LOG", "--lines", "1")
    assert follower.line() == "first"
    write(systemLog, *(f"{number} {'x' * 4000}" for number in range(1000)))
    assert [int(follower.line().split()[0]) for _ in range(1000)] == list(range(1000))
    assert follower.end()[0] == 0


def test_each_answer_that_has_lines_is_a_line_of_json(plugin, systemLog):
    write(systemLog, "a", "b")
    follower = Follower(plugin, "JABBER_LOG", "--json", "--text", "sm")
    assert texts(json.loads(follower.line())) == ["a", "b"]
    write(systemLog, "c")
    assert texts(json.loads(follower.line())) == ["c"]
    assert follower.end()[0] == 0


def test_lines_that_may_be_missing_are_told(plugin, systemLog):
    write(systemLog, "a")
    follower = Follower(plugin, "JABBER_LOG")
    assert follower.line() == "a"
    another = systemLog.with_name("another")
    write(another, "b")
    another.replace(systemLog)
    assert follower.line() == "b"
    status, _, problems = follower.end()
    assert status == 0
    assert "The log was rotated meanwhile; lines may be missing here." in problems


def test_following_ends_with_its_reader(plugin, systemLog):
    write(systemLog, "a")
    follower = Follower(plugin, "JABBER_LOG")
    assert follower.line() == "a"
    follower.process.stdout.close()
    # Nothing needs to be logged for that.
    assert follower.process.wait(PATIENCE) == 0
    assert follower.process.stderr.read() == ""


def test_following_outlasts_a_restart_of_the_daemon(plugin, pluginRoot, makeDaemon, systemLog):
    write(systemLog, "a")
    for words in (["JABBER_LOG"], ["--component", "sm"]):
        follower = Follower(plugin, *words)
        assert follower.line().endswith("a")
        assert plugin.end()[0] == 0
        assert follower.problem() == "The daemon does not answer; waiting until it does.\n"
        write(systemLog, "b")
        plugin = makeDaemon("--idle-seconds", "0", root=pluginRoot)
        assert follower.line().endswith("b")
        assert follower.end()[0] == 0
        systemLog.write_text("")
        write(systemLog, "a")


def test_following_does_not_begin_without_a_daemon(plugin, systemLog):
    plugin.end()
    for words in (["JABBER_LOG"], []):
        follower = Follower(plugin, *words)
        assert follower.process.wait(PATIENCE) == 69
        assert "The daemon is not running" in follower.process.stderr.read()


def test_following_ends_with_its_reader_while_the_daemon_is_gone(plugin, systemLog):
    write(systemLog, "a")
    follower = Follower(plugin)
    assert follower.line().endswith("a")
    plugin.end()
    follower.problem()
    follower.process.stdout.close()
    assert follower.process.wait(PATIENCE) == 0


# --- all logs together -----------------------------------------------------------------------------------------------

MIXED = [
    "2026-11-21T10:00:00Z host 30 jabberd_notification/router[11]: listening",
    "2026-11-21T10:00:01Z host 28 jabberd_notification/c2s[12]: no certificate",
    "2026-11-21T10:00:02Z host 29 tessardd[1]: Version 0.1.0 serves.",
    "2026-11-21T10:00:02Z host kernel: of the machine",
    "2026-11-21T10:00:03Z host 13 tessardd[1]: tessard_notification[E]: settings refused: x",
    "2026-11-21T10:00:04Z host err pubsub_notification/component[13]: no database",
    "2026-11-21T10:00:05Z host jabberd_notification/sm[14]: without a level",
    "2026-11-21T10:00:05Z host 31 pubsub_notification/launcher[15]: detail",
]


@pytest.fixture
def mixed(systemLog):
    systemLog.write_text("".join(f"{line}\n" for line in MIXED))
    return systemLog


def test_all_parts_are_shown_by_time_with_part_and_level(plugin, mixed):
    assert plugin.tool("log").stdout.splitlines() == [
        "2026-11-21T10:00:00Z router    info    listening",
        "2026-11-21T10:00:01Z c2s       warning no certificate",
        "2026-11-21T10:00:02Z tessardd  notice  Version 0.1.0 serves.",
        "2026-11-21T10:00:03Z plugin    error   settings refused: x",
        "2026-11-21T10:00:04Z pubsub    error   no database",
        "2026-11-21T10:00:05Z sm        -       without a level",
        "2026-11-21T10:00:05Z pubsub-launcher debug   detail",
    ]


def components(done):
    assert done.returncode == 0, done.stderr
    return [line.split()[1] for line in done.stdout.splitlines()]


def test_lines_are_chosen_by_level_part_text_time_and_number(plugin, mixed):
    assert components(plugin.tool("log", "--level", "error")) == ["plugin", "pubsub"]
    assert components(plugin.tool("log", "--level", "warning")) == ["c2s", "plugin", "pubsub"]
    assert "sm" in components(plugin.tool("log", "--level", "notice"))
    assert components(plugin.tool("log", "--component", "c2s", "--component", "tessardd")) == ["c2s", "tessardd"]
    assert components(plugin.tool("log", "--text", "no ", "--text", "cert")) == ["c2s"]
    assert components(plugin.tool("log", "--since", "2026-11-21T10:00:04Z")) == ["pubsub", "sm", "pubsub-launcher"]
    assert components(plugin.tool("log", "--lines", "1")) == ["pubsub-launcher"]
    assert components(plugin.tool("log", "--lines", "1", "--level", "error")) == ["pubsub"]
    assert components(plugin.tool("log", "--since", "0s")) == components(plugin.tool("log", "-n", "0")) == []


def test_a_choice_that_fits_no_line_is_told(plugin, mixed):
    done = plugin.tool("log", "--component", "c2z")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "There is no such line.\n")


def test_as_many_lines_as_are_wanted_are_found_however_rare_they_are(plugin, systemLog):
    systemLog.write_text("".join(
        f"2026-11-21T10:00:00Z host {27 if number % 500 == 0 else 30} jabberd_notification/sm[1]: {number}\n"
        for number in range(5000)))
    shown = plugin.tool("log", "--level", "error", "--lines", "9").stdout.splitlines()
    assert [int(line.split()[-1]) for line in shown] == list(range(500, 5000, 500))


def test_json_is_one_object_a_line(plugin, mixed):
    records = [json.loads(line) for line in plugin.tool("log", "--json").stdout.splitlines()]
    assert records[1] == {"time": "2026-11-21T10:00:01Z", "component": "c2s", "process": 12, "level": "warning",
                          "message": "no certificate"}
    assert records[5] == {"time": "2026-11-21T10:00:05Z", "component": "sm", "process": 14, "message": "without a level"}


def test_what_is_in_a_line_does_nothing_to_a_terminal_and_only_a_terminal_gets_colours(plugin, systemLog):
    systemLog.write_bytes(b"2026-11-21T10:00:00Z host 27 jabberd_notification/sm[1]: \x1b[2J\xc2\x9b2J bell\x07\n")
    shown = plugin.tool("log").stdout
    assert shown == "2026-11-21T10:00:00Z sm        error   \u241b[2J\ufffd2J bell\u2407\n"
    tool = TerminalTool(plugin, "log", whole=True)
    tool.finish()
    assert b"\x1b[31m2026" in tool.shown and b"\x1b[2J" not in tool.shown and b"\x07" not in tool.shown
    tool = TerminalTool(plugin, "log", whole=True, NO_COLOR="1")
    tool.finish()
    assert b"\x1b[31m" not in tool.shown


def test_all_logs_are_followed_through_a_rotation(plugin, systemLog):
    write(systemLog, "a")
    follower = Follower(plugin, "--json", "--component", "sm")
    assert json.loads(follower.line())["message"] == "a"
    write(systemLog, "b")
    assert json.loads(follower.line())["message"] == "b"
    systemLog.rename(f"{systemLog}.1")
    systemLog.touch()
    write(systemLog, "c")
    assert json.loads(follower.line())["message"] == "c"
    assert follower.end() == (0, "", "")
