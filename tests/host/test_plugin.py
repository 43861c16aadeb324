"""The notification plug-in itself, as an installed host runs it."""

import json
import os
import plistlib
import sqlite3

import pytest

from hosttools import NOBODY, awaitTidy, needsPlugin

pytestmark = needsPlugin


def ask(daemon, command, **entries):
    return daemon.post({"command": command, **entries}).json


def test_it_is_loaded_and_nothing_runs(plugin):
    assert plugin.health()["plugins"] == ["notification"]
    assert ask(plugin, "getState") == {"state": "STOPPED"}


def test_before_setup_details_are_refused_with_a_warning(plugin):
    done = plugin.tool("state", "--details")
    assert (done.returncode, done.stdout) == (0, "state: STOPPED\n")
    assert done.stderr.startswith("warning: detailed service status not available")


@pytest.mark.parametrize(
    "command",
    ["getState", "setState", "readSettings", "writeSettings", "undoSettings", "readFormerSettings", "initialSetup", "tailFile", "getLogPaths",
     "getConfiguredServices", "addService", "removeService", "getServiceUser", "setKorvsCertificate"],
)
def test_its_commands_are_known(plugin, command):
    answer = plugin.post({"command": command})
    assert answer.status == 200
    assert isinstance(answer.json, dict)


def test_operations_that_are_no_commands_are_not_reached(plugin):
    for command in ["doIdleAtCount", "getStateWithRequest", "dealloc", "init", ""]:
        assert plugin.post({"command": command}).error == "unknown-command"


def test_an_unknown_state_is_an_error_of_the_plugin_after_setup(plugin):
    assert plugin.tool("setup").returncode == 0
    done = plugin.tool("request", "setState", '{"state": "start"}')
    assert done.returncode == 65
    assert "INVALID_ARG_ERR" in done.stderr


def test_setup_makes_the_service_data_and_the_hosts_marker(plugin, pluginRoot):
    done = plugin.tool("setup")
    assert done.returncode == 0, done.stderr
    assert (pluginRoot / "var/db/.VeltoSetupDone").exists()
    preferences = pluginRoot / "Library/Preferences/com.velto.tessard_notification.plist"
    assert plistlib.loads(preferences.read_bytes())["initialized"] is True
    file = pluginRoot / "private/var/jabberd/sqlite/jabberd2_notification.db"
    with sqlite3.connect(file) as database:
        assert database.execute("SELECT name FROM sqlite_master").fetchall() == [("active",)]


def test_settings_are_the_same_in_both_forms(plugin):
    plugin.tool("setup")
    asJson = ask(plugin, "readSettings")
    assert asJson["readStatus"] == 0
    assert asJson["configuration"]
    asXml = plugin.post(plistlib.dumps({"command": "readSettings"}), Content_Type="text/xml").plist
    assert asXml == asJson


def test_a_setting_is_written_and_outlives_the_daemon(plugin, makeDaemon):
    plugin.tool("setup")
    before = json.loads(plugin.tool("settings", "get", "--json").stdout)
    key = "jabberdDatabasePath"
    done = plugin.tool("settings", "set", f"{key}={before[key]}x")
    assert done.returncode == 0, done.stderr
    assert plugin.tool("settings", "get", key).stdout == f"{key}={before[key]}x\n"
    assert plugin.end()[0] == 0
    again = makeDaemon("--idle-seconds", "0")
    after = json.loads(again.tool("settings", "get", "--json").stdout)
    assert after == {**before, key: before[key] + "x"}


def test_a_start_without_a_service_manager_tells_that_nothing_runs(plugin):
    plugin.tool("setup")
    done = plugin.tool("stop")
    assert (done.returncode, done.stdout) == (0, "state: STOPPED\n")


def test_client_services_are_listed_added_and_removed(plugin, pluginRoot):
    mail = {"service": "mail", "hostName": "mail.example.com", "port": 993}
    here = {"service": "mail", "hostName": "push.example.com"}
    # Adding needs no setup, listing does.
    assert ask(plugin, "addService", **mail) == {"configuredServices": [mail]}
    assert ask(plugin, "getConfiguredServices") == {}
    assert plugin.tool("setup").returncode == 0
    assert ask(plugin, "addService", **mail) == {"configuredServices": [mail]}
    assert ask(plugin, "addService", **here) == {"configuredServices": [mail, here]}
    assert ask(plugin, "getConfiguredServices") == {"configuredServices": [mail, here]}
    assert ask(plugin, "readSettings")["configuration"]["configuredServices"] == [mail, here]
    assert ask(plugin, "getState", variant="withDetails")["configuredServices"] == [mail, here]
    # "push" is another name of this host.
    assert ask(plugin, "removeService", service="mail", hostName="push") == {"configuredServices": [mail]}
    preferences = pluginRoot / "Library/Preferences/com.velto.tessard_notification.plist"
    kept = plistlib.loads(preferences.read_bytes())
    assert kept["services"] == [mail]
    assert kept["jabberdS2SPort"] == 5268 and kept["initialized"] is True
    assert preferences.stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("command", ["addService", "removeService"])
def test_a_client_service_without_a_host_is_refused_and_nothing_is_made(plugin, pluginRoot, command):
    done = plugin.tool("request", command, '{"service": "mail"}')
    assert done.returncode == 65
    assert 'error: client service refused: "hostName" must be a string that is not empty\n' in done.stderr
    assert not (pluginRoot / "Library/Preferences/com.velto.tessard_notification.plist").exists()


def test_ten_thousand_client_services_are_served(plugin, pluginRoot):
    assert plugin.tool("setup").returncode == 0
    preferences = pluginRoot / "Library/Preferences/com.velto.tessard_notification.plist"
    many = [{"service": "calendar", "hostName": f"10.1.{number // 250}.{number % 250}"} for number in range(10000)]
    preferences.write_bytes(plistlib.dumps({**plistlib.loads(preferences.read_bytes()), "services": many}))
    more = {"service": "calendar", "hostName": "10.2.0.1"}
    assert ask(plugin, "addService", **more)["configuredServices"] == [*many, more]
    assert ask(plugin, "getConfiguredServices")["configuredServices"] == [*many, more]
    assert ask(plugin, "removeService", **more)["configuredServices"] == many
    assert len(ask(plugin, "getState", variant="withDetails")["configuredServices"]) == len(many)
    assert plistlib.loads(preferences.read_bytes())["services"] == many


def test_the_settings_of_the_notification_service_are_kept_in_its_own_file(plugin, pluginRoot):
    plugin.tool("setup")
    settings = ask(plugin, "readSettings")["configuration"]
    file = pluginRoot / "Library/Preferences/com.velto.Beaconry.plist"
    stored = plistlib.loads(file.read_bytes())
    assert stored["domain"] == "push.example.com"
    assert stored["secret"]
    assert {key: settings[key] for key in stored} == stored
    assert file.stat().st_mode & 0o777 == 0o660
    assert plugin.tool("settings", "set", "verbose=true", "rport:=5348").returncode == 0
    assert plistlib.loads(file.read_bytes()) == {**stored, "verbose": True, "rport": 5348}
    done = plugin.tool("settings", "set", "connectAsClient=maybe")
    assert done.returncode != 0
    assert '"connectAsClient" must be true or false' in done.stderr


def test_events_are_taken(plugin):
    plugin.tool("setup")
    assert plugin.post({}, path="/v1/events/idle").json == {"plugins": ["notification"]}
    change = {"hasHostChanged": True, "oldHost": "push.example.com", "newHost": "new.example.com"}
    answer = plugin.post(change, path="/v1/events/network-change")
    assert answer.json == {"plugins": ["notification"]}


def filesOf(root):
    """Every file's content but the daemon's own."""
    awaitTidy(root)
    return {
        file.relative_to(root): file.read_bytes()
        for folder in ("etc", "Library", "var/jabberd")
        for file in (root / folder).rglob("*")
        if file.is_file()
    }


def changeIP(daemon, arguments, **others):
    configuration = {"changeip": arguments, **others}
    return daemon.post(
        {"command": "writeSettings", "configuration": configuration},
        path="/v1/plugins/notification?with=log",
    ).json


@pytest.mark.parametrize(
    "arguments, problem",
    [
        ("new.example.com", "the arguments must be a dictionary of "),
        (["new.example.com"], "the arguments must be a dictionary of "),
        (7, "the arguments must be a dictionary of "),
        ({}, 'neither "newHost" nor "newAddress" is given'),
        ({"oldHost": "push.example.com", "oldAddress": "192.0.2.1"}, 'neither "newHost" nor "newAddress" is given'),
        ({"newHost": ""}, '"newHost" is not a host name: ""'),
        ({"newHost": "new..example"}, '"newHost" is not a host name: "new..example"'),
        ({"newHost": "new.example.com\n"}, '"newHost" is not a host name: '),
        ({"newHost": "x" * 64 + ".example"}, '"newHost" is not a host name: '),
        ({"newHost": ["new.example.com"]}, '"newHost" must be a string'),
        ({"newHost": "new.example.com", "oldHost": False}, '"oldHost" must be a string'),
        ({"newHost": "new.example.com", "oldHost": "bad name"}, '"oldHost" is not a host name: "bad name"'),
        ({"newAddress": "new.example.com"}, '"newAddress" is not an IP address: "new.example.com"'),
        ({"newAddress": "192.0.2.1/24"}, '"newAddress" is not an IP address: "192.0.2.1/24"'),
        ({"newAddress": "192.0.2.1", "oldAddress": {}}, '"oldAddress" must be a string'),
    ],
)
def test_a_malformed_change_of_address_is_refused_with_its_reason(plugin, pluginRoot, arguments, problem):
    plugin.tool("setup")
    before = filesOf(pluginRoot)
    shown = changeIP(plugin, arguments, jabberdS2SPort=1)
    assert shown["answer"] == {"error": "INVALID_ARG_ERR"}
    assert [line["level"] for line in shown["log"]] == ["error"]
    assert shown["log"][0]["message"].startswith("settings refused: " + problem)
    assert filesOf(pluginRoot) == before


def test_a_change_of_address_replaces_the_domain_and_writes_no_other_setting(plugin):
    plugin.tool("setup")
    before = ask(plugin, "readSettings")["configuration"]
    shown = changeIP(plugin, {"oldHost": "push.example.com", "newHost": "new.example.com"}, jabberdS2SPort=1)
    assert shown["log"] == []
    assert (shown["answer"]["writeStatus"], shown["answer"]["needsRecycleOrRestart"]) == (0, True)
    after = shown["answer"]["configuration"]
    assert after["hosts"] == ["new.example.com"]
    assert after["jabberdS2SPort"] == before["jabberdS2SPort"]


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can become another user")
def test_what_an_ordinary_user_may_not_set_up_is_told_and_left_for_root(pluginRoot, makeDaemon):
    for path in [pluginRoot, *pluginRoot.rglob("*")]:
        os.chown(path, NOBODY, NOBODY, follow_symlinks=False)
    daemon = makeDaemon("--idle-seconds", "0", user=NOBODY)
    accounts = {name: (pluginRoot / "etc" / name).read_bytes() for name in ("passwd", "shadow", "group")}
    for _ in range(2):
        done = daemon.tool("setup")
        assert done.returncode == 70
        assert "unable to create the database directory for the service: 'Operation not permitted'" in done.stderr
    assert {name: (pluginRoot / "etc" / name).read_bytes() for name in accounts} == accounts
    assert sorted((pluginRoot / "var/db").iterdir()) == []
    daemon.end()
    again = makeDaemon("--idle-seconds", "0")
    assert again.tool("setup").returncode == 0
    assert sorted(path.name for path in (pluginRoot / "var/db/idavoll").iterdir()) == ["items.db", "pubsub.db"]
