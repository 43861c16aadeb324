"""Runs the real jabberd components in a private machine and tells whether they work."""

import contextlib
import re
import subprocess

from private_machine import CONFIGURATION, MachineError, add_account, wait_until

_STREAM = ("<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
           "version='1.0' to='%s'>")

# A client that opens a stream inside the machine and prints what comes back, up to the end of the features or of
# the stream. Domain names go in as arguments.
_CLIENT = f"""
import socket, sys
link = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=10)
link.sendall(({_STREAM!r} % sys.argv[2]).encode())
answer = b""
while b"</stream:features>" not in answer and b"</stream:stream>" not in answer:
    piece = link.recv(65536)
    if not piece:
        break
    answer += piece
print(answer.decode())
"""


# A client that logs in, says so, and stays until its standard input ends. It is given its address and, to log in
# over TLS, the file of its authorities.
_LOGIN_CLIENT = """
import asyncio, sys
import slixmpp
jid, *authorities = sys.argv[1:]
class Client(slixmpp.ClientXMPP):
    def __init__(self):
        super().__init__(jid, "secret of " + jid.split("@")[0], sasl_mech="PLAIN")
        if authorities:
            self.ca_certs = authorities[0]
        else:
            self["feature_mechanisms"].unencrypted_plain = True
        self.add_event_handler("session_start", self.begin)
        self.add_event_handler("failed_all_auth", lambda _: print("refused", flush=True))
    async def begin(self, _):
        self.send_presence()
        await self.get_roster()
        print("here as", self.boundjid.bare, flush=True)
        await asyncio.get_event_loop().run_in_executor(None, sys.stdin.read)
        self.disconnect()
client = Client()
client.connect(("127.0.0.1", 5218), disable_starttls=not authorities)
client.process(forever=False)
"""


def add_user(machine, name):
    """Gives the machine an account whose password is "secret of " and its name."""
    add_account(machine, name, f"secret of {name}")


@contextlib.contextmanager
def logged_in(machine, jid, authorities=None):
    """A real client that has logged in, until the end of the with statement."""
    client = machine.popen("python3", "-c", _LOGIN_CLIENT, jid, *([authorities] if authorities else []),
                           stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert client.stdout.readline() == f"here as {jid}\n"
        yield client
    finally:
        client.communicate(timeout=30)


def components_of(master):
    """Kind and file of every component that a master file lists, in order."""
    lines = [line.split() for line in master.splitlines() if line.strip() and not line.startswith("#")]
    return [(words[0], words[1]) for words in lines]


class Jabberd:
    """The instance that a master file lists, run as its service account. Use it in a with statement."""

    def __init__(self, machine, master=f"{CONFIGURATION}/jabberd.cfg"):
        self.machine = machine
        self.master = master
        self.processes = {}

    def __enter__(self):
        self.machine.run("install", "-d", "-o", "84", "-g", "1", "-m", "0755", "/run/jabberd_notification")
        try:
            for kind, path in sorted(components_of(self.machine.read(self.master)), key=_routers_first):
                self._start(kind, path)
                if kind == "router":
                    self.wait_for_port(5347)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        # A signal to the entrance would not reach what runs inside.
        self.machine.run("pkill", "-TERM", "-u", "84", "-x", "jabberd2-.*", check=False)
        for process in self.processes.values():
            try:
                process.wait(15)
            except subprocess.TimeoutExpired:
                self.machine.run("pkill", "-KILL", "-u", "84", "-x", "jabberd2-.*", check=False)
                process.wait(15)

    def _start(self, kind, path):
        self.processes[path] = self.machine.popen(
            f"jabberd2-{kind}", "-c", path, user=84, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.STDOUT)

    def running(self):
        return all(process.poll() is None for process in self.processes.values())

    def log(self):
        return [line for line in self.machine.system_log().splitlines() if "jabberd_notification/" in line]

    def wait_for_port(self, port):
        self._wait(lambda: port in self.listening_ports(), f"port {port}")

    def _wait(self, condition, what):
        try:
            return wait_until(condition, what, still_possible=self.running)
        except MachineError as error:
            ended = [f"{path} ended with {process.returncode}" for path, process in self.processes.items()
                     if process.poll() is not None]
            raise MachineError("\n".join([str(error), *ended, *self.log()[-40:]])) from error

    def listening_ports(self):
        table = self.machine.run("cat", "/proc/net/tcp").stdout.splitlines()[1:]
        rows = (line.split() for line in table)
        return {int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A"}

    def greet(self, domain, port=5218):
        """What the server says to a client that opens a stream to the domain."""
        return self.machine.run("python3", "-c", _CLIENT, port, domain, user=65534).stdout

    def wait_for_domain(self, domain, port=5218):
        """The stream features of a domain, as soon as its session manager is there."""
        self.wait_for_port(port)

        def features():
            answer = self.greet(domain, port)
            return answer if "<stream:features" in answer else None
        return self._wait(features, f"stream features of {domain}")


def _routers_first(component):
    return component[0] != "router"


def mechanisms(features):
    """The names of the mechanisms that stream features offer."""
    return set(re.findall(r"<mechanism>([^<]+)</mechanism>", features))
