"""The lines that requests which may change something leave in the log."""

import base64
import json
import os
import subprocess

from hosttools import GAMES, NOBODY, actingAs, needsPlugin


def records(daemon):
    """Of a daemon that is ended for it."""
    _, text = daemon.end()
    lines = [line for line in text.split("\n") if line.startswith("tessardd: audit: ")]
    return [json.loads(line.removeprefix("tessardd: audit: ")) for line in lines]


def test_every_changing_request_is_told_with_who_sent_it(daemon):
    daemon.post({"command": "setState", "state": "START"})
    daemon.post({"command": "setState", "state": "SAVE"})
    first, second = records(daemon)
    assert first == {"user": "root", "uid": 0, "pid": os.getpid(), "plugin": "notification", "command": "setState",
                     "request": {"state": "START"}, "state": "RUNNING", "result": "done"}
    assert (second["request"], second["result"]) == ({"state": "SAVE"}, "INVALID_ARG_ERR")


def test_members_of_the_administrators_group_are_told_apart(root, makeDaemon):
    daemon = makeDaemon("--idle-seconds", "0", "--admin-group", "games")
    with actingAs(NOBODY, GAMES):
        connection = daemon.connection()
        connection.connect()
    daemon.post({"command": "initialSetup"}, connection=connection)
    [record] = records(daemon)
    assert (record["user"], record["uid"]) == ("nobody", NOBODY)


def test_requests_that_change_nothing_leave_no_line(daemon):
    daemon.echo()
    daemon.post({"command": "getState"})
    daemon.post({"command": "readSettings"})
    daemon.post({"command": "never heard"})
    daemon.send("GET", "/v1/metrics")
    daemon.post({"count": 1}, path="/v1/events/idle")
    assert records(daemon) == []


def test_old_and_new_values_of_settings_are_told_and_secrets_are_not(daemon):
    daemon.post({"command": "writeSettings", "configuration": {"level": "one", "secret": "canary"}})
    daemon.post({"command": "writeSettings", "configuration": {"level": "two", "secret": "canary 2"}})
    _, text = daemon.end()
    assert "canary" not in text
    assert '"changed":{"level":{"old":"one","new":"two"},"secret":{"old":"***","new":"***"}}' in text


def test_a_change_of_the_network_is_told(daemon):
    daemon.post({"newHost": "b.example", "oldHost": "a.example"}, path="/v1/events/network-change")
    [record] = records(daemon)
    assert (record["command"], record["request"]["newHost"], record["result"]) == ("network-change", "b.example", "done")


def test_an_import_is_told_by_the_certificate_and_without_its_bytes(daemon, tmp_path):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                    tmp_path / "key", "-out", tmp_path / "certificate", "-subj", "/CN=push.example.com"], check=True,
                   capture_output=True)
    pem = (tmp_path / "certificate").read_text() + (tmp_path / "key").read_text()
    assert daemon.post({"file": pem, "passPhrase": "canary"}, path="/v1/certificates").status == 200
    assert daemon.post({"file": {"$data": base64.b64encode(b"no certificate").decode()}}, path="/v1/certificates").status == 400
    _, text = daemon.end()
    lines = [json.loads(line.partition("audit: ")[2]) for line in text.splitlines() if "audit: " in line]
    assert [line["result"] for line in lines] == ["done", "malformed"]
    assert lines[0]["request"] == {"file": f"{len(pem)} bytes", "passPhrase": "***", "subject": "CN = push.example.com"}
    assert "canary" not in text and "PRIVATE" not in text


def test_a_request_that_hostile_texts_come_with_stays_one_line(daemon):
    daemon.post({"command": "setState", "state": "x\ntessardd: audit: {}\r\u2028\033[2J"})
    assert len(records(daemon)) == 1


def test_a_standard_error_that_nobody_reads_holds_nobody_up(daemon):
    connection = daemon.connection()
    for _ in range(600):
        body = json.dumps({"command": "setState", "state": "x" * 100}).encode()
        assert daemon.send("POST", "/v1/plugins/notification", body, connection=connection,
                           Content_Type="application/json").status == 200
    daemon.assertServes()


@needsPlugin
def test_the_real_plug_ins_settings_are_told(pluginRoot, makeDaemon):
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    daemon.tool("settings", "set", "authLevel=ANYMETHOD", "hosts=[a.example.com]")
    daemon.tool("settings", "set", "authLevel=ANYMETHOD")
    daemon.tool("settings", "set", "jabberdS2SPort=99999")
    _, *writes = records(daemon)
    assert [write["result"] for write in writes] == ["done", "done", "INVALID_ARG_ERR"]
    assert writes[0]["changed"]["hosts"]["new"] == ["a.example.com"]
    assert writes[0]["changed"]["authLevel"]["new"] == "ANYMETHOD"
    assert writes[1]["changed"] == writes[2]["changed"] == {}
