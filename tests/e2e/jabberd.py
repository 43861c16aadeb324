"""Runs the real jabberd components in a private machine and tells whether they work."""

import re
import subprocess

from private_machine import CONFIGURATION, wait_until

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
        wait_until(lambda: port in self.listening_ports(), f"port {port}", still_possible=self.running)

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
        return wait_until(features, f"stream features of {domain}", still_possible=self.running)


def _routers_first(component):
    return component[0] != "router"


def mechanisms(features):
    """The names of the mechanisms that stream features offer."""
    return set(re.findall(r"<mechanism>([^<]+)</mechanism>", features))
