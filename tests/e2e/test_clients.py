"""XMPP clients of the running service, and what is told of it meanwhile."""

import json
import signal
import subprocess

import pytest

from certificates import PUBLIC_CA_FILE, serve_over_tls
from jabberd import add_user
from private_machine import wait_until

DOMAINS = ["a.example.test", "b.example.test"]
SERVICE_DIRECTORY = "/run/service/org.jabber.jabberd_notification"
RUN_DIRECTORY = "/run/jabberd_notification"

# Logs in over TLS, does the one thing that its second argument names, and says what came of it.
_CLIENT = """
import sys
import slixmpp
jid, action, authorities = sys.argv[1:]
class Client(slixmpp.ClientXMPP):
    def __init__(self):
        super().__init__(jid, "secret of " + jid.split("@")[0])
        self.ca_certs = authorities
        self.add_event_handler("session_start", self.begin)
        self.add_event_handler("failed_all_auth", lambda _: self.end("refused"))
    def end(self, text):
        print(text, flush=True)
        self.disconnect()
    async def begin(self, _):
        self.send_presence()
        if action == "befriend":
            await self.update_roster("friend@" + self.boundjid.host, name="A Friend", groups=["Close"])
            self.end("befriended")
        else:
            await self.get_roster()
            items = self.client_roster
            self.end(", ".join(f"{each} {items[each]['name']} {items[each]['groups']}" for each in sorted(items)))
client = Client()
client.connect(("127.0.0.1", 5218))
client.process(forever=False)
"""


def client(machine, jid, action):
    return machine.run("python3", "-c", _CLIENT, jid, action, PUBLIC_CA_FILE, user=65534).stdout.strip()


def details(service):
    return json.loads(service.tool("--json", "state", "--details").stdout)


@pytest.fixture
def running(service):
    serve_over_tls(service, DOMAINS)
    service.tool("start", check=False)
    return service


def test_a_restart_keeps_the_users_of_every_domain_and_their_data(running):
    machine = running.machine
    add_user(machine, "ann")
    for domain in DOMAINS:
        assert client(machine, f"ann@{domain}", "befriend") == "befriended"
    running.tool("restart", check=False)
    for domain in DOMAINS:
        assert client(machine, f"ann@{domain}", "list") == f"friend@{domain} A Friend ['Close']"


def test_an_account_is_another_user_in_every_domain(running):
    add_user(running.machine, "ann")
    assert client(running.machine, f"ann@{DOMAINS[0]}", "befriend") == "befriended"
    assert client(running.machine, f"ann@{DOMAINS[1]}", "list") == ""


def test_the_details_are_told_in_their_order(running):
    assert list(details(running)) == [
        "state", "idavollState", "jabberdState", "startedTime", "hostsCommaDelimitedString", "setStateVersion",
        "readWriteSettingsVersion", "currentConnections", "servicePortsAreRestricted", "servicePortsRestrictionInfo",
        "configuredServices", "pluginVersion",
        "tlsCertificate"]  # the tool's own, as the daemon knows it
    assert details(running)["hostsCommaDelimitedString"] == ",".join(DOMAINS)


def test_what_is_dead_is_never_said_to_run(running):
    machine = running.machine
    assert details(running)["jabberdState"] == "RUNNING"
    machine.run("s6-svc", "-O", SERVICE_DIRECTORY)  # no new run after this one
    launcher = machine.run("s6-svstat", "-o", "pid", SERVICE_DIRECTORY).stdout.strip()
    machine.run("kill", f"-{int(signal.SIGKILL)}", launcher)
    wait_until(lambda: machine.run("pgrep", "-u", "84", "-f", "jabberd2-", check=False).stdout == "", "the end of all")
    assert list(machine.outside(RUN_DIRECTORY).glob("*.pid"))
    assert details(running)["jabberdState"] == "STOPPED"
    assert details(running)["state"] == "STOPPED"
    assert details(running)["currentConnections"] == "0"


def test_a_pid_file_that_names_another_program_does_not_count(service):
    machine = service.machine
    other = machine.popen("sleep", "1000", stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    try:
        pid = wait_until(lambda: machine.run("pgrep", "-x", "sleep", check=False).stdout.strip(), "the other program")
        for name in ("router", "sm", "s2s", "c2s"):
            machine.write(f"{RUN_DIRECTORY}/{name}.pid", pid, owner=(84, 84))
        assert details(service)["jabberdState"] == "STOPPED"
    finally:
        other.kill()
        other.wait()
