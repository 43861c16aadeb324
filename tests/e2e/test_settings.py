"""Settings through the daemon: both forms of answers, refusals, and who may ask."""

import plistlib
import re

import pytest

from jabberd import Jabberd
from private_machine import ADMIN_GROUP, CONFIGURATION
from service import JSON, PLIST, PREFERENCES


def test_json_and_property_lists_carry_the_same_answers(service):
    for request in ({"command": "readSettings"}, {"command": "getState", "variant": "withDetails"}):
        answers = [service.post(request, sent, accepted) for sent in (JSON, PLIST) for accepted in (JSON, PLIST)]
        for answer in answers:
            # The moment of the question is part of a state.
            answer.pop("currentTime", None)
        assert answers[0]
        assert answers == [answers[0]] * 4


def test_a_write_sent_as_a_property_list_does_what_one_sent_as_json_does(service):
    wish = {"hosts": ["one.example.test", "two.example.test"], "authLevel": "KERBEROS", "requireSecureS2S": True}
    first = service.post({"command": "writeSettings", "configuration": wish})
    files = service.configuration_files()
    service.post({"command": "writeSettings", "configuration": {"hosts": ["other.example.test"],
                                                                "authLevel": "ANYMETHOD"}})
    assert service.configuration_files() != files
    second = service.post({"command": "writeSettings", "configuration": wish}, PLIST, PLIST)
    assert second == first
    assert first["writeStatus"] == 0
    written = service.settings()
    assert written["hosts"] == wish["hosts"] and written["authLevel"] == "KERBEROS" and written["requireSecureS2S"]


def test_every_setting_reads_back_as_it_was_written(service):
    wish = {
        "hostsCommaDelimitedString": "a.example.test,b.example.test", "sslKeyFile": "", "sslCAFile": "",
        "authLevel": "ANYMETHOD", "jabberdClientPortTLS": 5222, "jabberdClientPortSSL": 5223,
        "enableXMPP": False, "requireSecureS2S": True, "s2sRestrictDomains": True,
        "s2sAllowedDomains": ["friend.example.test", "other.example.test"], "enableSavedChats": True,
        "savedChatsLocation": "/Library/Server/elsewhere", "savedChatsArchiveInterval": 3,
        "jabberdDatabasePath": "/private/var/jabberd/sqlite/other.db",
    }
    answer = service.post({"command": "writeSettings", "configuration": wish})
    assert answer["writeStatus"] == 0
    settings = service.settings()
    assert {key: settings.get(key) for key in wish} == wish
    assert settings["hosts"] == ["a.example.test", "b.example.test"]
    assert settings["jabberdS2SPort"] == 0
    with open(service.machine.outside(PREFERENCES), "rb") as file:
        assert plistlib.load(file)["hosts"] == ["a.example.test", "b.example.test"]


def test_the_last_write_is_undone_while_the_service_runs_with_it(service):
    service.set("hosts=[a.example.test]")
    assert service.tool("start").stdout == "state: RUNNING\n"
    before, settings = service.configuration_files(), service.settings()
    service.set("hosts=[a.example.test,b.example.test]", "jabberdClientPortTLS=5250", "savedChatsLocation=/var/chats",
                "enableSavedChats=true")
    assert service.tool("restart").stdout == "state: RUNNING\n"
    assert "<stream:features" in Jabberd(service.machine).greet("b.example.test", 5250)
    # What the running programs write is none of the change.
    done = service.tool("settings", "undo")
    assert "jabberdClientPortTLS: 5250 -> 5218\n" in done.stdout
    assert (service.configuration_files(), service.settings()) == (before, settings)
    assert not service.machine.outside("/var/chats").exists()
    assert "<stream:features" in Jabberd(service.machine).greet("b.example.test", 5250), "it goes on as it was started"
    assert service.tool("restart").stdout == "state: RUNNING\n"
    assert "<stream:features" in Jabberd(service.machine).greet("a.example.test")
    assert "host-unknown" in Jabberd(service.machine).greet("b.example.test")
    service.tool("settings", "undo")
    assert service.tool("restart").stdout == "state: RUNNING\n"
    assert "<stream:features" in Jabberd(service.machine).greet("b.example.test", 5250)


def test_an_unusable_archive_directory_leaves_every_file_as_it_was(service):
    before = service.configuration_files()
    result = service.set("authLevel=KERBEROS", "hosts=[x.example.test,y.example.test]",
                         "savedChatsLocation=/proc/nowhere", "savedChatsArchiveInterval=3", check=False)
    assert result.returncode == 73
    assert "/proc/nowhere" in result.stderr
    after = service.configuration_files()
    assert {name: after[name] for name in before} == before
    assert service.settings()["authLevel"] == "STANDARD"


@pytest.mark.parametrize("words", [("jabberdClientPortTLS:=1.5",), ("savedChatsLocation=[a]",)])
def test_a_value_of_the_wrong_kind_changes_nothing(service, words):
    before = service.configuration_files()
    assert service.set(*words, check=False).returncode != 0
    assert service.configuration_files() == before


def test_a_setting_that_does_not_exist_is_told_though_the_others_are_written(service):
    result = service.set("authLevl=KERBEROS", "authLevel=KERBEROS", check=False)
    assert result.returncode == 65
    assert 'error: There is no setting "authLevl"; "authLevel" may be meant. It has no effect.\n' in result.stderr
    assert service.settings()["authLevel"] == "KERBEROS"


def test_a_word_that_the_service_takes_for_another_is_told(service):
    result = service.set("authLevel=standard")
    assert result.stderr.endswith('warning: "authLevel" reads "ANYMETHOD" now.\n')
    assert service.set("authLevel=STANDARD").stderr.count("\n") == 1


def test_a_file_that_cannot_be_read_is_told_with_its_line_and_no_success_is_claimed(service):
    path = service.machine.outside(f"{CONFIGURATION}/s2s.xml")
    path.write_text(path.read_text().replace("</s2s>", ""))
    result = service.set("requireSecureS2S=true", check=False)
    assert result.returncode == 70
    assert re.search(r"warning: Reason of the load failure: .*line \d+", result.stderr)
    assert "The settings are written." not in result.stderr


def test_administrators_are_served_and_others_refused(service):
    table = service.machine.read("/etc/group").splitlines()
    admins = next(int(line.split(":")[2]) for line in table if line.startswith(ADMIN_GROUP + ":"))
    assert service.tool("state", user=1000, groups=[admins], check=False).returncode == 0
    refused = service.tool("state", user=1001, check=False)
    assert refused.returncode == 77
    assert refused.stdout == ""
    assert refused.stderr != ""
