"""Client services, their account and the bridge's certificate, as the command-line tool handles them."""

import json

import pytest

from hosttools import needsPlugin

pytestmark = needsPlugin


def test_client_services_are_added_listed_and_removed(plugin):
    assert plugin.tool("setup").returncode == 0
    done = plugin.tool("services", "add", "mail", "mail.example.com", "port=993", "note=a b")
    assert (done.returncode, done.stdout, done.stderr) == (0, "mail mail.example.com port=993 note=a b\n", "")
    assert plugin.tool("services", "add", "calendar", "cal.example.com").returncode == 0
    shown = "mail mail.example.com port=993 note=a b\ncalendar cal.example.com\n"
    assert plugin.tool("services", "list").stdout == shown
    services = [{"service": "mail", "hostName": "mail.example.com", "port": 993, "note": "a b"},
                {"service": "calendar", "hostName": "cal.example.com"}]
    assert json.loads(plugin.tool("services", "list", "--json").stdout) == {"configuredServices": services}
    done = plugin.tool("services", "remove", "mail", "mail.example.com")
    assert (done.returncode, done.stdout) == (0, "calendar cal.example.com\n")
    assert json.loads(plugin.tool("--json", "services", "remove", "calendar", "cal.example.com").stdout) == {
        "configuredServices": []}
    assert plugin.tool("services", "list").stdout == ""


@pytest.mark.parametrize("columns", [100, 50, 20])
def test_client_services_are_a_table_that_fits_a_terminal(plugin, columns, monkeypatch):
    plugin.tool("setup")
    plugin.tool("services", "add", "mail", "mail.example.com", "port=993", "note=one two three four five six seven")
    plugin.tool("services", "add", "calendar", "cal.example.com")
    monkeypatch.setenv("COLUMNS", str(columns))
    lines = plugin.tool("services", "list").stdout.splitlines()
    assert all(len(line) <= columns for line in lines)
    shown = "".join("".join(lines).split())
    assert "mailmail.example.comport=993" in shown and "onetwothreefourfivesixseven" in shown
    if columns == 100:
        assert [line.split()[1] for line in lines] == ["mail.example.com", "cal.example.com"]
        assert lines[0].index("mail.example.com") == lines[1].index("cal.example.com")


def assert_json_tells_of_the_setup(plugin, *words):
    done = plugin.tool("--json", *words)
    answer = json.loads(done.stdout)
    assert (done.returncode, done.stderr, answer.pop("error")) == (69, "", "not-set-up")
    assert "first-time setup is not done" in answer.pop("message") and answer == {}


def test_a_list_before_the_first_time_setup_is_told(plugin):
    done = plugin.tool("services", "list")
    assert (done.returncode, done.stdout) == (69, "")
    assert "first-time setup is not done" in done.stderr
    assert_json_tells_of_the_setup(plugin, "services", "list")


@pytest.mark.parametrize(
    "words",
    [
        ["services"],
        ["services", "burn"],
        ["services", "list", "all"],
        ["services", "add", "mail"],
        ["services", "remove", "mail"],
        ["services", "remove", "mail", "host", "port=1"],
        ["services", "add", "mail", "host", "port"],
        ["services", "add", "mail", "host", "service=x"],
        ["services", "add", "mail", "host", "command=x"],
        ["service-user"],
        ["service-user", ""],
        ["service-user", "calendar", "more"],
        ["certificate"],
        ["certificate", "burn"],
        ["certificate", "set"],
        ["certificate", "set", ""],
        ["certificate", "set", "a", "b"],
        ["certificate", "clear", "a"],
        ["certificate", "list", "a"],
        ["certificate", "import"],
        ["certificate", "import", "a", "b"],
    ],
    ids=" ".join,
)
def test_wrong_usage_is_told(plugin, words):
    done = plugin.tool(*words)
    assert (done.returncode, done.stdout) == (64, "")
    assert "See tessardctl --help." in done.stderr
    assert json.loads(plugin.tool("--json", *words).stdout)["error"] == "usage"


@pytest.mark.parametrize(
    "words, reason",
    [
        (["services", "add", "", "host"], 'client service refused: "service" must be a string that is not empty'),
        (["services", "remove", "mail", "a\x1bb"], "client service refused: the request holds characters"),
        (["service-user", "cal\x01"], 'service user refused: "service" must be a string without control characters'),
        (["certificate", "set", "a\x01"], 'certificate refused: "certificateName" must be a string'),
    ],
    ids=lambda value: repr(value) if isinstance(value, list) else "",
)
def test_what_the_plugin_refuses_is_told_with_its_reason(plugin, words, reason):
    done = plugin.tool(*words)
    assert (done.returncode, done.stdout) == (65, "")
    assert f"error: {reason}" in done.stderr
    assert json.loads(plugin.tool("--json", *words).stdout)["error"] == "invalid-argument"


def test_an_account_before_the_first_time_setup_is_told(plugin):
    done = plugin.tool("service-user", "calendar")
    assert (done.returncode, done.stdout) == (69, "")
    assert "first-time setup is not done" in done.stderr
    assert_json_tells_of_the_setup(plugin, "service-user", "calendar")


def test_values_of_other_kinds_are_refused(plugin):
    for value in [1, True, ["calendar"], {}]:
        answer = plugin.post({"command": "getServiceUser", "service": value}).json
        assert answer == {"error": "INVALID_ARG_ERR"}
    for value in [1, True, ["push"], {}]:
        answer = plugin.post({"command": "setKorvsCertificate", "certificateName": value}).json
        assert answer == {"error": "INVALID_ARG_ERR"}


def test_a_start_before_the_first_time_setup_says_that_it_is_missing(plugin):
    done = plugin.tool("start")
    assert done.returncode == 69
    assert "First-time setup is not done (tessardctl setup).\n" in done.stderr
