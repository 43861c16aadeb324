"""The real jabberd components take every file that the daemon writes, and serve the domains it names."""

import json
import re
import subprocess

import pytest

from certificates import CA_FILE, KEY_FILE, make_certificate, serve_over_tls
from jabberd import Jabberd, add_user, mechanisms
from private_machine import wait_until

ONE = ["push.example.test"]
THREE = ["a.example.test", "b.example.test", "c.example.test"]
NUMBER_OF_FIXED_COMPONENTS = 3  # router, c2s and s2s; there is a session manager for each domain


def assert_serves(jabberd, domains, client_port=5218):
    """Every domain is answered for, and every component has said so in its pid file and its log."""
    features = {domain: jabberd.wait_for_domain(domain, client_port) for domain in domains}
    assert "host-unknown" in jabberd.greet("stranger.example.test", client_port)
    pids = sorted(file.stem for file in jabberd.machine.outside("/run/jabberd_notification").glob("*.pid"))
    assert pids == sorted(["router", "c2s", "s2s", "sm", *(f"sm_{domain}" for domain in domains[1:])])
    for file in jabberd.machine.outside("/run/jabberd_notification").glob("*.pid"):
        assert jabberd.machine.run("kill", "-0", file.read_text(), user=84).returncode == 0
    assert len(jabberd.processes) == NUMBER_OF_FIXED_COMPONENTS + len(domains)
    log = "\n".join(jabberd.log())
    for name in ("sm", *(f"sm_{domain}" for domain in domains[1:])):
        assert f" {name} ready for sessions" in log
    for name in ("c2s", "s2s"):
        assert re.search(rf"jabberd_notification/{name}\[\d+\]: ready for connections", log)
    assert jabberd.running()
    return features


def test_an_instance_fresh_from_its_setup_runs(service):
    with Jabberd(service.machine) as jabberd:
        features = assert_serves(jabberd, ONE)
        assert mechanisms(features[ONE[0]]) == {"GSSAPI"}
        jabberd.wait_for_port(5268)


@pytest.mark.parametrize("domains", [ONE, THREE], ids=["one", "three"])
@pytest.mark.parametrize("level, offered", [
    ("STANDARD", {"GSSAPI"}),
    ("KERBEROS", {"GSSAPI"}),
    ("ANYMETHOD", {"PLAIN", "GSSAPI"}),
])
def test_every_authentication_level_is_offered_as_written(service, domains, level, offered):
    """As far as accounts of the machine go with it: "digest-md5" would need the stored password itself."""
    service.set(f"hostsCommaDelimitedString={','.join(domains)}", f"authLevel={level}")
    with Jabberd(service.machine) as jabberd:
        for features in assert_serves(jabberd, domains).values():
            assert mechanisms(features) == offered


def test_fewer_domains_take_their_session_managers_away(service):
    service.set(f"hostsCommaDelimitedString={','.join(THREE)}")
    service.set("hosts=[c.example.test]")
    with Jabberd(service.machine) as jabberd:
        assert_serves(jabberd, ["c.example.test"])
        assert "host-unknown" in jabberd.greet("a.example.test")


def test_no_port_for_other_servers_is_open_when_they_are_not_wanted(service):
    service.set("enableXMPP=no", "jabberdClientPortTLS=5300")
    with Jabberd(service.machine) as jabberd:
        jabberd.wait_for_domain(ONE[0], 5300)
        assert jabberd.listening_ports() == {5347, 5300}


# A client with TLS: prints its certificate's names, the mechanisms before and those after.
_TLS_CLIENT = """
import json, re, socket, ssl, sys
domain, authorities = sys.argv[1:]
def stream(link):
    link.sendall(("<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
                  "version='1.0' to='%s'>" % domain).encode())
    return until(link, "</stream:features>")
def until(link, end):
    text = ""
    while end not in text:
        piece = link.recv(65536).decode()
        assert piece, text
        text += piece
    return text
link = socket.create_connection(("127.0.0.1", 5218), timeout=10)
before = stream(link)
link.sendall(b"<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
until(link, "<proceed")
context = ssl.create_default_context(cafile=authorities)
link = context.wrap_socket(link, server_hostname=domain)
after = stream(link)
found = lambda text: sorted(re.findall("<mechanism>([^<]+)<", text))
print(json.dumps({"required": "<required" in before, "before": found(before), "after": found(after),
                  "names": [name for _, name in link.getpeercert()["subjectAltName"]],
                  "version": link.version()}))
"""


@pytest.mark.parametrize("passphrase", [None, "of course: \"a'phrase\""], ids=["plain key", "encrypted key"])
def test_every_domain_offers_tls_with_the_certificate(service, passphrase):
    make_certificate(service.machine, THREE, passphrase)
    service.set(f"hostsCommaDelimitedString={','.join(THREE)}", f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}",
                "authLevel=STANDARD")
    with Jabberd(service.machine) as jabberd:
        assert_serves(jabberd, THREE)
        for domain in THREE:
            seen = json.loads(service.machine.run("python3", "-c", _TLS_CLIENT, domain, CA_FILE).stdout)
            assert seen == {"required": True, "before": [], "after": ["GSSAPI", "PLAIN"],
                            "names": THREE, "version": "TLSv1.3"}
    if passphrase:
        assert passphrase not in service.log()


# Two users of different domains log in over TLS; one sends the other a message.
_TALK = """
import asyncio, sys
import slixmpp
authorities, first, second = sys.argv[1:]
class Client(slixmpp.ClientXMPP):
    def __init__(self, jid):
        super().__init__(jid, "secret of " + jid.split("@")[0])
        self.ca_certs = authorities
        self.ready = asyncio.get_event_loop().create_future()
        self.heard = asyncio.get_event_loop().create_future()
        self.add_event_handler("session_start", self.begin)
        self.add_event_handler("failed_all_auth", lambda _: self.ready.set_exception(Exception("refused")))
        self.add_event_handler("message", lambda message: self.heard.set_result(str(message["body"])))
    async def begin(self, _):
        self.send_presence()
        await self.get_roster()
        self.ready.set_result(True)
async def talk():
    clients = [Client(first), Client(second)]
    for client in clients:
        client.connect(("127.0.0.1", 5218))
    for client in clients:
        await asyncio.wait_for(client.ready, 20)
    clients[0].send_message(mto=second, mbody="good morning", mtype="chat")
    print(await asyncio.wait_for(clients[1].heard, 20))
asyncio.get_event_loop().run_until_complete(talk())
"""


def test_users_of_two_domains_log_in_and_talk(service):
    domains = THREE[:2]
    serve_over_tls(service, domains)
    add_user(service.machine, "ann")
    with Jabberd(service.machine) as jabberd:
        assert_serves(jabberd, domains)
        heard = service.machine.run("python3", "-c", _TALK, CA_FILE, *(f"ann@{domain}" for domain in domains))
        assert heard.stdout == "good morning\n"


def details(service):
    return json.loads(service.tool("--json", "state", "--details").stdout)


def state_of_jabberd(service):
    return details(service)["jabberdState"]


def test_a_running_instance_counts_as_a_running_service(service):
    assert state_of_jabberd(service) == "STOPPED"
    with Jabberd(service.machine) as jabberd:
        assert_serves(jabberd, ONE)
        assert state_of_jabberd(service) == "RUNNING"
    wait_until(lambda: state_of_jabberd(service) == "STOPPED",
               "the stopped state")


# Clients that stay connected until standard input ends.
_CLIENTS = """
import socket, sys
links = [socket.create_connection(("127.0.0.1", 5218)) for _ in range(int(sys.argv[1]))]
sys.stdin.read()
"""


def test_connected_clients_are_counted(service):
    with Jabberd(service.machine) as jabberd:
        jabberd.wait_for_domain(ONE[0])
        clients = service.machine.popen("python3", "-c", _CLIENTS, 3, stdin=subprocess.PIPE)
        try:
            wait_until(lambda: details(service)["currentConnections"] == "3", "three connections")
        finally:
            clients.communicate(timeout=30)
        wait_until(lambda: details(service)["currentConnections"] == "0", "no connection")
