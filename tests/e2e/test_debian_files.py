"""Debian's own jabberd files, edited through the daemon, still suit the real components."""

import re

import pytest
from certificates import CA_FILE, KEY_FILE, make_certificate
from debian_files import KINDS, adapted
from jabberd import Jabberd
from private_machine import CONFIGURATION

# What is written. Where two keys meet in one place the later one wins: "enableXMPP" sets the port for other servers.
SETTINGS = {
    "sslKeyFile": KEY_FILE, "sslCAFile": CA_FILE, "authLevel": "STANDARD",
    "jabberdClientPortTLS": 5218, "jabberdClientPortSSL": 5219, "jabberdS2SPort": 5270, "enableXMPP": True,
    "requireSecureS2S": True, "s2sRestrictDomains": True, "s2sAllowedDomains": ["friend.example.test"],
    "jabberdDatabasePath": "/private/var/jabberd/sqlite/jabberd2_notification.db",
    "enableSavedChats": True, "savedChatsLocation": "/Library/Server/archive", "savedChatsArchiveInterval": 30,
}
# What reads back differently: the port that won, and what Debian's router has no element for directly below its root,
# where none is ever made.
READ_BACK = {**SETTINGS, "jabberdS2SPort": 5268, "savedChatsArchiveInterval": 0}
del READ_BACK["enableSavedChats"], READ_BACK["savedChatsLocation"]


def put_debians_files(service):
    password = service.router_password()
    for kind in KINDS:
        service.machine.write(f"{CONFIGURATION}/{kind}.xml", adapted(kind, password), 0o600, (84, 0))


def without_changed_parts(text):
    """What no setting touches: every line but those with a component's live or switched-off values."""
    keys = ("id|pidfile|pemfile|cachain|private_key_password|port|ssl-port|plain|digest-md5|cram-md5|gssapi|dbname|"
            "require_tls|enable_whitelist|whitelist_domain|message_logging_[a-z_]+|filter_muc_messages_from|"
            "velto_notification_component_addr")
    return [line for line in text.splitlines() if line.strip() and not re.search(rf"<({keys})[ />]", line)]


@pytest.mark.parametrize("domains", [["a.example.test"], ["a.example.test", "b.example.test", "c.example.test"]],
                         ids=["one domain", "three domains"])
def test_debians_files_are_edited_key_by_key_and_then_run(service, domains):
    put_debians_files(service)
    before = {name: text.decode() for name, text in service.configuration_files().items()}
    make_certificate(service.machine, domains)
    answer = service.post({"command": "writeSettings",
                           "configuration": {"hostsCommaDelimitedString": ",".join(domains), **SETTINGS}})
    assert answer["writeStatus"] == 0

    settings = service.post({"command": "readSettings"})["configuration"]
    assert {key: settings[key] for key in READ_BACK} == READ_BACK
    assert settings["hosts"] == domains
    assert settings["hostsCommaDelimitedString"] == ",".join(domains)
    assert "enableSavedChats" not in settings and "savedChatsLocation" not in settings
    assert service.values("c2s.local.id") == domains
    assert service.values("c2s.local.port") == ["5218"]
    assert service.values("c2s.local.ssl-port") == ["5219"]
    assert service.values("c2s.local.pemfile") == service.values("s2s.local.pemfile") == [KEY_FILE]
    assert service.values("c2s.local.cachain") == service.values("s2s.local.cachain") == [CA_FILE]
    assert service.values("s2s.local.port") == ["5268"]
    assert service.values("s2s.security.require_tls") == service.values("s2s.security.enable_whitelist") == ["1"]
    assert service.values("s2s.security.whitelist_domain") == ["friend.example.test"]
    # Directly below the root, an element is changed where there is one, and none is made.
    assert service.values("router.message_logging_enabled") == []
    assert service.values("sm.velto_notification_component_addr") == []
    for name in ("router.xml", "sm.xml", "c2s.xml", "s2s.xml"):
        after = service.machine.read(f"{CONFIGURATION}/{name}")
        assert without_changed_parts(after) == without_changed_parts(before[name])

    with Jabberd(service.machine) as jabberd:
        for domain in domains:
            assert "<starttls" in jabberd.wait_for_domain(domain)
        for port in (5218, 5219, 5268):
            jabberd.wait_for_port(port)
        assert jabberd.running()
