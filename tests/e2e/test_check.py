"""The check in a private machine: nothing is wrong with what the product makes, and what is broken by hand is named."""

import json

import pytest

from certificates import CA_FILE, KEY_FILE, make_certificate
from private_machine import CONFIGURATION, HOST_NAME
from service import DATABASE

DOMAINS = [HOST_NAME, "b.example.test"]
S2S = f"{CONFIGURATION}/s2s.xml"
LISTENER = "import socket, time; s = socket.create_server(('127.0.0.1', 5268)); print(1, flush=True); time.sleep(600)"


def check(service, *words):
    done = service.tool("--json", "check", *words, check=False)
    return done.returncode, json.loads(done.stdout)


def found(service, *words):
    return {(finding["id"], finding["subject"]) for finding in check(service, *words)[1]["findings"]}


@pytest.fixture
def encrypted(service):
    make_certificate(service.machine, DOMAINS, days=90)
    service.machine.write("/etc/hosts", f"127.0.0.1 localhost\n127.0.1.1 {HOST_NAME} b.example.test\n")
    service.set(f"hosts=[{','.join(DOMAINS)}]", f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}", "authLevel=STANDARD")
    return service


def test_after_setup_nothing_is_wrong_and_one_thing_is_left_to_do(service):
    status, answer = check(service)
    assert status == 0, answer
    assert [finding["id"] for finding in answer["findings"]] == ["certificate-not-set"]
    assert all(area["ended"] for area in answer["areas"]) and len(answer["areas"]) == 11


def test_nothing_is_wrong_with_a_service_that_runs(encrypted):
    encrypted.tool("start")
    status, answer = check(encrypted)
    # Nobody knows the certificate but those who were given it.
    assert {finding["id"] for finding in answer["findings"]} <= {"self-signed", "untrusted-issuer"}, answer
    assert status == 0


def test_each_of_ten_things_that_were_broken_by_hand_is_named(encrypted):
    machine = encrypted.machine
    sm = f"{CONFIGURATION}/sm.xml"
    machine.run("chown", "0:0", sm)
    machine.run("chmod", "0644", f"{CONFIGURATION}/router-users.xml")
    machine.run("sed", "-i", "s|<pass>.*</pass>|<pass>not-the-right-one</pass>|; s|<require_tls>0<|<require_tls>true<|", S2S)
    machine.run("sed", "-i", "s|<max_fds>|<max_files>|; s|</max_fds>|</max_files>|",
                f"{CONFIGURATION}/c2s.xml")
    machine.run("sh", "-c", f"head -c 4096 /dev/zero | dd of={DATABASE} conv=notrunc status=none")
    machine.run("sed", "-i", "/^jabberd:/d", "/etc/passwd")
    machine.run("rmdir", "/var/db/korvbridge")
    machine.run("sh", "-c", "echo another.example.test >/etc/hostname")
    machine.run("rm", "-r", "/run/service/com.velto.Beaconry")
    machine.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-noenc", "-days", "90", "-subj", "/CN=x",
                "-keyout", "/tmp/other.key", "-out", "/tmp/other.pem")
    machine.run("sh", "-c", f"sed -n '/BEGIN PRIVATE/,/END PRIVATE/p' {KEY_FILE} >/tmp/key; "
                            f"cat /tmp/other.pem /tmp/key >{KEY_FILE}")
    occupant = machine.popen("/usr/bin/python3", "-c", LISTENER, stdout=-1)
    try:
        assert occupant.stdout.readline().strip() in (b"1", "1")
        status, answer = check(encrypted)
    finally:
        occupant.kill()
        occupant.wait()
    assert status == 2
    named = {(finding["id"], finding["subject"]) for finding in answer["findings"]}
    expected = {
        ("file-owner", sm),
        ("readable-by-others", f"{CONFIGURATION}/router-users.xml"),
        ("secret-differs", S2S),
        ("flag-misread", S2S),
        ("element-unread", f"{CONFIGURATION}/c2s.xml"),
        ("database-damaged", DATABASE),
        ("service-account-missing", "84"),
        ("directory-missing", "/var/db/korvbridge"),
        ("host-name-unresolved", "another.example.test"),
        ("unit-unknown", "com.velto.Beaconry"),
        ("key-mismatch", KEY_FILE),
        ("port-taken", "5268"),
    }
    assert expected - named == set()
    taken = next(finding for finding in answer["findings"] if finding["id"] == "port-taken")
    assert '"python3" (pid ' in taken["sentence"]
    texts = " ".join(finding[key] for finding in answer["findings"] for key in ("subject", "sentence", "remedy"))
    assert encrypted.router_password() not in texts and "not-the-right-one" not in texts


def test_what_the_remedy_says_puts_it_right(encrypted):
    encrypted.machine.run("chmod", "0640", S2S)
    status, answer = check(encrypted, "--only", "files")
    assert status == 1
    encrypted.machine.run("sh", "-c", answer["findings"][0]["remedy"])
    assert check(encrypted, "--only", "files")[0] == 0
    assert found(encrypted, "--only", "files") == set()
