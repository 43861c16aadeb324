"""The certificate of the service, from an authority's files to what clients of the real jabberd are shown."""

import json
import os
import sys
from pathlib import Path

import pytest

from private_machine import CONFIGURATION, PrivateMachine
from service import Service

sys.path.append(str(Path(__file__).resolve().parents[1] / "host"))

from tlsmaterial import Authority  # noqa: E402

DOMAINS = ["a.example.test", "b.example.test"]
FILE = f"{CONFIGURATION}/tls-certificate.pem"
CLIENTS, SERVERS = 5218, 5268
PLACE = "/tmp/authority"


@pytest.fixture(scope="module")
def running():
    """One machine with the service running, for two domains and without a certificate at first."""
    with PrivateMachine(os.environ["TESSARD_BUILD_DIR"]) as machine:
        machine.prepare_instance()
        machine.start_daemon()
        service = Service(machine)
        service.tool("setup")
        service.set(f"hosts=[{','.join(DOMAINS)}]", "authLevel=STANDARD")
        service.tool("start")
        yield service


@pytest.fixture(scope="module")
def authority(running):
    return Authority(running.machine.outside(PLACE))


def inside(path):
    return f"{PLACE}/{Path(path).name}"


def pair_words(pair):
    return "--certificate", inside(pair.certificate), "--key", inside(pair.key), "--chain", inside(pair.authority.chain)


def imported(service, *words, **keywords):
    return service.tool("--json", "tls-certificate", "import", *words, check=False, **keywords)


def shown(service, port, domain):
    """The digest of the certificate that openssl is shown, or what it says instead. Its chain must lead to the root."""
    starting = {CLIENTS: "xmpp", SERVERS: "xmpp-server"}[port]
    for _ in range(5):  # c2s sometimes ends the connection of a client that comes right after another one
        said = service.machine.run(
            "sh", "-c", f"echo | timeout 20 openssl s_client -connect 127.0.0.1:{port} -starttls {starting} -xmpphost {domain} "
            f"-servername {domain} -CAfile {PLACE}/root.pem -verify_return_error -verify_hostname {domain} 2>&1 "
            "| openssl x509 -noout -fingerprint -sha256", check=False)
        if said.returncode == 0:
            return said.stdout.strip().partition("=")[2].replace(":", "")
    return said.stderr


def everywhere(service):
    return {shown(service, port, domain) for port in (CLIENTS, SERVERS) for domain in DOMAINS}


def files(service):
    return {path.name: path.read_bytes() for path in service.machine.outside(CONFIGURATION).iterdir()
            if not path.name.endswith(".bak")}


def pids(service):
    return service.machine.run("pgrep", "-u", "84", "-x", "jabberd2-.*").stdout


def test_a_running_service_shows_the_certificate_that_is_imported(running, authority):
    pair = authority.issue("first", DOMAINS)
    done = imported(running, *pair_words(pair))
    answer = json.loads(done.stdout)
    assert done.returncode == 0, done.stderr
    assert (answer["changed"], answer["running"], answer["restarted"], answer["unseen"]) == (True, True, True, 0)
    assert {(each["port"], each["domain"], each["sha256"]) for each in answer["served"]} == {
        (port, domain, pair.sha256) for port in (CLIENTS, SERVERS) for domain in DOMAINS}
    assert everywhere(running) == {pair.sha256}
    assert running.machine.run("stat", "-c", "%u:%g %a", FILE).stdout == "0:84 640\n"
    assert "audit:" in running.log() and pair.sha256 in running.log()


def test_every_way_of_bringing_one_ends_with_clients_that_get_it(running, authority):
    sealed = authority.issue("sealed", DOMAINS, algorithm=("RSA", "rsa_keygen_bits:2048"))
    done = imported(running, "--certificate", inside(sealed.certificate), "--chain", inside(authority.chain), "--key",
                    inside(sealed.sealed("alt")), input="alt\n")
    assert (done.returncode, everywhere(running)) == (0, {sealed.sha256}), done.stdout
    packed = authority.issue("packed", DOMAINS, algorithm=("EC", "ec_paramgen_curve:P-384"))
    done = imported(running, "--pkcs12", inside(packed.pkcs12("neu")), input="neu\n")
    assert (done.returncode, everywhere(running)) == (0, {packed.sha256}), done.stdout
    # As certbot leaves them, by the name of the domain; then its renewal.
    issued = authority.issue("issued", DOMAINS)
    live = running.machine.outside("/etc/letsencrypt/live/chat.example.test")
    authority.certbot(issued, live)
    done = imported(running, "--from-certbot", "chat.example.test")
    assert (done.returncode, everywhere(running)) == (0, {issued.sha256}), done.stdout
    renewed = authority.issue("renewed", DOMAINS)
    authority.certbot(renewed, live, version=2)
    done = imported(running, "--from-certbot", "/etc/letsencrypt/live/chat.example.test")
    assert (done.returncode, everywhere(running)) == (0, {renewed.sha256}), done.stdout
    told = running.tool("tls-certificate", "show")
    assert f"served at port {CLIENTS} (clients): this certificate\n" in told.stdout
    assert f"served at port {SERVERS} (servers): this certificate\n" in told.stdout


def test_the_same_again_restarts_nothing(running, authority):
    pair = authority.issue("again", DOMAINS)
    assert imported(running, *pair_words(pair)).returncode == 0
    before = pids(running)
    answer = json.loads(imported(running, *pair_words(pair)).stdout)
    assert (answer["changed"], answer["restarted"], pids(running)) == (False, False, before)
    # A file that was put there by hand is shown by nobody yet; the import of it restarts what shows another one.
    other = authority.issue("by-hand", DOMAINS)
    running.machine.write(FILE, other.certificate.read_text() + authority.chain.read_text() + other.key.read_text(), 0o640, (0, 84))
    told = running.tool("tls-certificate", "show")
    assert f"served at port {CLIENTS} (clients): another one, CN = a.example.test, until" in told.stdout
    answer = json.loads(imported(running, *pair_words(other)).stdout)
    assert answer["restarted"] is True
    assert everywhere(running) == {other.sha256}


def test_what_is_refused_leaves_the_service_as_it_is(running, authority):
    good = authority.issue("good", DOMAINS)
    assert imported(running, *pair_words(good)).returncode == 0
    before, kept = pids(running), files(running)
    wrong_domain = authority.issue("wrong-domain", ["c.example.test"])
    expired = authority.issue("expired", DOMAINS, days=-1)
    other = authority.issue("other", DOMAINS)
    for words, error in ((pair_words(wrong_domain), "name-missing"), (pair_words(expired), "expired"),
                         (("--certificate", inside(good.certificate), "--key", inside(other.key)), "key-mismatch")):
        done = imported(running, *words)
        assert (done.returncode, json.loads(done.stdout)["error"]) == (65, error)
    assert (pids(running), files(running)) == (before, kept)
    assert everywhere(running) == {good.sha256}


def test_a_certificate_that_clients_then_do_not_get_is_taken_back(running, authority):
    good = authority.issue("kept", DOMAINS)
    assert imported(running, *pair_words(good)).returncode == 0
    kept = files(running)
    # OpenSSL takes a key on this curve, and finds no signature for it that a client wants.
    rare = authority.issue("rare", DOMAINS, algorithm=("EC", "ec_paramgen_curve:secp256k1"))
    done = imported(running, *pair_words(rare))
    answer = json.loads(done.stdout)
    assert (done.returncode, answer["error"]) == (70, "not-served")
    assert answer["message"] == (f"At port {CLIENTS} a client of \"a.example.test\" gets no certificate: the server breaks TLS off. "
                                 "The former certificate and settings are back.")
    assert (answer["changed"], answer["running"], answer["served"]) == (False, True, [])
    assert files(running) == kept
    assert everywhere(running) == {good.sha256}


def test_where_the_service_had_none_it_has_none_again(running, authority):
    running.set("sslKeyFile=")
    running.machine.run("rm", FILE)
    running.tool("restart")
    rare = authority.issue("rare-first", DOMAINS, algorithm=("EC", "ec_paramgen_curve:secp256k1"))
    assert json.loads(imported(running, *pair_words(rare)).stdout)["error"] == "not-served"
    assert running.settings()["sslKeyFile"] == ""
    assert running.machine.run("ls", FILE, check=False).returncode != 0
    assert b"pemfile='" not in files(running)["c2s.xml"]
    # What could be undone named the file that is gone.
    undo = running.tool("--json", "settings", "undo", check=False)
    assert json.loads(undo.stdout)["error"] == "nothing-to-undo"
    pair = authority.issue("back", DOMAINS)
    assert imported(running, *pair_words(pair)).returncode == 0
    assert everywhere(running) == {pair.sha256}
