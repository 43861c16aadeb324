"""What a request comes to: forms of bodies, errors, logs, events."""

import base64
import datetime
import json
import plistlib

import pytest

PLUGIN = "/v1/plugins/notification"


def asPlist(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_XML)


def test_a_request_is_answered_by_the_plugin(daemon):
    answer = daemon.echo(name="grün", list=[1, 2.5, True, {"a": "b"}], nothing=None)
    assert answer.status == 200
    assert answer.type == "application/json"
    assert answer.json == {"command": "echo", "name": "grün", "list": [1, 2.5, True, {"a": "b"}]}


def test_the_same_request_as_json_and_as_property_list_gives_the_same_answer(daemon):
    request = {"command": "echo", "text": "a <b> & c", "list": [1, True, {"x": ["y"]}], "real": 0.25}
    asJson = daemon.post(request)
    asXml = daemon.post(asPlist(request), Content_Type="application/xml")
    assert asXml.status == 200
    assert asXml.plist == asJson.json == request


def test_a_binary_property_list_is_understood(daemon):
    request = {"command": "echo", "data": b"\x00\xff"}
    answer = daemon.post(
        plistlib.dumps(request, fmt=plistlib.FMT_BINARY), Content_Type="application/x-plist"
    )
    assert answer.status == 200
    assert answer.plist == request


@pytest.mark.parametrize("sent", ["application/xml", "text/xml", "application/x-plist"])
def test_a_property_list_is_answered_in_the_type_that_was_sent(daemon, sent):
    answer = daemon.post(asPlist({"command": "echo"}), Content_Type=sent + "; charset=UTF-8")
    assert answer.status == 200
    assert answer.type == sent
    assert answer.plist == {"command": "echo"}


@pytest.mark.parametrize(
    "accept, type",
    [
        ("application/xml", "application/xml"),
        ("text/xml", "text/xml"),
        ("application/x-plist", "application/x-plist"),
        ("application/json;q=0.5, application/xml;q=0.9", "application/xml"),
        ("text/*", "text/xml"),
        ("*/*", "application/json"),
        ("application/*", "application/json"),
        ("text/html", "application/json"),
        ("application/xml;q=0", "application/json"),
    ],
)
def test_the_answer_has_the_form_that_is_accepted(daemon, accept, type):
    answer = daemon.post({"command": "kinds"}, Accept=accept)
    assert answer.status == 200
    assert answer.type == type
    content = answer.json if type == "application/json" else answer.plist
    assert content["text"] == 'grün "<&>" \n'


def test_json_is_accepted_for_a_property_list(daemon):
    answer = daemon.post(
        asPlist({"command": "kinds"}), Content_Type="application/xml", Accept="application/json"
    )
    assert answer.type == "application/json"
    assert answer.json["integer"] == -5


def test_dates_and_data_survive_both_forms(daemon):
    moment = datetime.datetime(2026, 11, 21, 2, 0, 27)
    asJson = daemon.post({"command": "kinds"}).json
    asXml = daemon.post({"command": "kinds"}, Accept="application/xml").plist
    assert asJson["data"] == {"$data": base64.b64encode(b"\x00\xff\x10").decode()}
    assert asJson["date"] == {"$date": "2026-11-21T02:00:27Z"}
    assert asXml["data"] == b"\x00\xff\x10"
    assert asXml["date"] == moment
    sent = {"command": "echo", "data": asJson["data"], "date": asJson["date"]}
    assert daemon.post(sent).json == sent
    assert daemon.post(sent, Accept="text/xml").plist["date"] == moment


@pytest.mark.parametrize(
    "body",
    [
        b"",
        b"{",
        b"nonsense",
        b'{"command": "echo"} x',
        b'{"command": "echo", "a": 1, "a": 2}',
        b'{"command": "echo", "a": null, "a": 2}',
        b'{"command": "echo", "a": "\xff"}',
        b'{"command": "echo", "a": "\\ud800"}',
        b'{"command": "echo", "a": 9223372036854775808}',
        b'{"command": "echo", "a": 123456789012345678901234567890}',
        b'{"command": "echo", "a": 1e999}',
        b'{"command": "echo", "a": {"$data": "%%%"}}',
        b'{"command": "echo", "a": {"$date": "yesterday"}}',
        b"null",
        b"[" * 10_000 + b"]" * 10_000,
        b'{"a":' * 10_000 + b"1" + b"}" * 10_000,
    ],
    ids=lambda body: body[:40].decode("ascii", "replace"),
)
def test_malformed_json_is_refused(daemon, body):
    answer = daemon.post(body)
    assert answer.status == 400
    assert answer.error == "malformed-body"
    daemon.assertServes()


@pytest.mark.parametrize(
    "body",
    [
        b"<plist",
        b"<plist><dict><key>a</key></dict></plist>",
        b"<plist>" + b"<array>" * 10_000 + b"</array>" * 10_000 + b"</plist>",
        b"bplist00" + b"\xff" * 64,
        b'<!DOCTYPE plist [<!ENTITY a "aaaa">]><plist><string>&a;</string></plist>',
    ],
    ids=lambda body: body[:40].decode("ascii", "replace"),
)
def test_malformed_property_lists_are_refused(daemon, body):
    answer = daemon.post(body, Content_Type="application/xml")
    assert answer.status == 400
    assert answer.error == "malformed-body"
    daemon.assertServes()


@pytest.mark.parametrize("body", [b"[]", b'"echo"', b"1", b'{"$data": "AAAA"}'])
def test_a_body_that_is_no_dictionary_is_refused(daemon, body):
    answer = daemon.post(body)
    assert answer.status == 400
    assert answer.error == "not-a-dictionary"


@pytest.mark.parametrize("request_", [{}, {"command": 1}, {"Command": "echo"}])
def test_a_request_without_a_command_is_refused(daemon, request_):
    answer = daemon.post(request_)
    assert (answer.status, answer.error) == (400, "missing-command")


@pytest.mark.parametrize("type", ["text/plain", "application/x-www-form-urlencoded", "application/json; charset=latin1"])
def test_a_body_of_another_type_is_refused(daemon, type):
    answer = daemon.post(b"{}", Content_Type=type)
    assert (answer.status, answer.error) == (415, "unsupported-media-type")


def test_a_body_without_a_type_is_refused(daemon):
    answer = daemon.send("POST", PLUGIN, b"{}")
    assert (answer.status, answer.error) == (415, "unsupported-media-type")


def test_an_unknown_command_is_told(daemon):
    answer = daemon.post({"command": "dance"})
    assert (answer.status, answer.error) == (404, "unknown-command")
    assert '"dance"' in answer.json["message"]


def test_an_unknown_plugin_is_told(daemon):
    answer = daemon.post({"command": "echo"}, path="/v1/plugins/mail")
    assert (answer.status, answer.error) == (404, "unknown-plugin")


@pytest.mark.parametrize("path", ["/", "/v1", "/v1/plugin/notification", "/v1/events/other", "/v1/health/x"])
def test_an_unknown_path_is_told(daemon, path):
    answer = daemon.post({}, path=path)
    assert (answer.status, answer.error) == (404, "not-found")


@pytest.mark.parametrize("path", [PLUGIN, "/v1/events/idle", "/v1/events/network-change"])
@pytest.mark.parametrize("method", ["GET", "PUT", "DELETE"])
def test_only_posting_is_possible_to_plugins_and_events(daemon, path, method):
    answer = daemon.send(method, path)
    assert (answer.status, answer.error) == (405, "method-not-allowed")
    assert answer.headers["Allow"] == "POST"


def test_health_cannot_be_posted(daemon):
    answer = daemon.post({}, path="/v1/health")
    assert (answer.status, answer.error) == (405, "method-not-allowed")
    assert answer.headers["Allow"] == "GET, HEAD"


def test_health_tells_what_is_loaded(daemon):
    health = daemon.health()
    assert health["status"] == "ok"
    assert health["plugins"] == ["notification"]
    assert health["waiting"] == 0
    assert "running" not in health
    assert daemon.send("GET", "/v1/health", Accept="application/xml").plist["status"] == "ok"


def test_a_plugin_without_an_answer_is_an_error(daemon):
    answer = daemon.post({"command": "nothing"})
    assert (answer.status, answer.error) == (500, "no-answer")
    daemon.assertServes()


@pytest.mark.parametrize("extra", [{}, {"number": True}])
def test_a_plugin_that_throws_is_an_error_and_the_next_request_works(daemon, extra):
    answer = daemon.post({"command": "throw", **extra})
    assert (answer.status, answer.error) == (500, "plugin-failed")
    assert "told to throw" not in answer.json["message"]
    daemon.assertServes()


def test_an_answer_that_a_property_list_cannot_hold_is_an_error(daemon):
    answer = daemon.post({"command": "unwritable"}, Accept="application/xml")
    assert (answer.status, answer.error) == (500, "unserializable-answer")
    assert daemon.post({"command": "unwritable"}).json == {"text": "a\0b"}


def test_the_log_of_a_request_comes_with_its_answer(daemon):
    answer = daemon.post({"command": "log", "text": "first"}, path=PLUGIN + "?with=log").json
    assert answer == {
        "answer": {"logged": True},
        "log": [
            {"level": "warning", "message": "first warning"},
            {"level": "error", "message": "first error"},
        ],
    }


def test_the_log_of_a_request_holds_nothing_of_another(daemon):
    daemon.post({"command": "log"})
    assert daemon.post({"command": "echo"}, path=PLUGIN + "?with=log").json["log"] == []


def test_the_log_comes_in_the_accepted_form(daemon):
    answer = daemon.post({"command": "log"}, path=PLUGIN + "?with=log", Accept="text/xml").plist
    assert [line["level"] for line in answer["log"]] == ["warning", "error"]


def test_what_a_plugin_threw_stands_in_the_log(daemon):
    answer = daemon.post({"command": "throw"}, path=PLUGIN + "?with=log")
    assert answer.status == 500
    assert "told to throw" in answer.json["log"][0]["message"]


def test_another_query_is_refused(daemon):
    answer = daemon.post({"command": "echo"}, path=PLUGIN + "?with=sugar")
    assert (answer.status, answer.error) == (400, "bad-query")


def test_the_idle_event_reaches_the_plugin(daemon):
    answer = daemon.send("POST", "/v1/events/idle")
    assert answer.json == {"plugins": ["notification"]}
    assert (daemon.root / "idle").read_text() == "1"
    daemon.post({"count": 7}, path="/v1/events/idle")
    assert (daemon.root / "idle").read_text() == "7"


def test_the_network_change_event_reaches_the_plugin(daemon):
    change = {"hasHostChanged": True, "newHost": "new.example"}
    answer = daemon.post(change, path="/v1/events/network-change?with=log")
    assert answer.json == {"answer": {"plugins": ["notification"]}, "log": []}
    assert (daemon.root / "network").read_text() == "new.example"


def test_an_event_that_makes_the_plugin_throw_is_an_error(daemon):
    answer = daemon.post({"newHost": "throw.example"}, path="/v1/events/network-change")
    assert (answer.status, answer.error) == (500, "plugin-failed")
    daemon.assertServes()


def test_a_network_change_needs_a_dictionary(daemon):
    assert daemon.post(b"[]", path="/v1/events/network-change").error == "not-a-dictionary"
    assert daemon.send("POST", "/v1/events/network-change").status == 415


def test_a_successful_first_time_setup_leaves_the_hosts_marker(daemon):
    marker = daemon.root / "var/db/.VeltoSetupDone"
    assert daemon.post({"command": "initialSetup", "fail": True}).json["error"] == "CANNOT_STAT_ERR"
    assert not marker.exists()
    daemon.post({"command": "initialSetup"})
    assert marker.read_bytes() == b""
    marker.write_text("older")
    daemon.post({"command": "initialSetup"})
    assert marker.read_text() == "older"


def test_a_marker_that_cannot_be_written_is_told(daemon):
    (daemon.root / "var").write_text("in the way")
    answer = daemon.post({"command": "initialSetup"}, path=PLUGIN + "?with=log").json
    assert answer["answer"] == {"state": "RUNNING"}
    assert answer["log"][0]["level"] == "error"
    assert "/var/db" in answer["log"][0]["message"]
