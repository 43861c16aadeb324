"""The small programs that the daemon runs, by themselves."""

import subprocess

from private_machine import wait_until

NETSTAT = ("/usr/libexec/tessardd/netstat", "-n", "-f", "inet", "-p", "TCP")

# A server and a client of it, both on the loopback; ends with its standard input.
_CONNECTION = """
import socket, sys
server = socket.create_server(("127.0.0.1", 5218))
client = socket.create_connection(("127.0.0.1", 5218), source_address=("127.0.0.9", 40001))
accepted, _ = server.accept()
sys.stdin.read()
"""

# The same over sockets for both IPv4 and IPv6; and two over IPv6, which are not listed.
_MAPPED_CONNECTION = """
import socket, sys
both = socket.create_server(("::", 5218), family=socket.AF_INET6, dualstack_ipv6=True)
client = socket.create_connection(("127.0.0.1", 5218), source_address=("127.0.0.9", 40001))
accepted, _ = both.accept()
six = socket.create_connection(("::1", 5218))
accepted_six, _ = both.accept()
mapped = socket.socket(socket.AF_INET6)
mapped.bind(("::ffff:127.0.0.1", 5268))
mapped.listen()
sys.stdin.read()
"""


def test_connections_are_listed_with_ports_behind_dots(machine):
    talk = machine.popen("python3", "-c", _CONNECTION, stdin=subprocess.PIPE)
    try:
        expected = sorted([
            ["tcp4", "0", "0", "127.0.0.1.5218", "*.*", "LISTEN"],
            ["tcp4", "0", "0", "127.0.0.1.5218", "127.0.0.9.40001", "ESTABLISHED"],
            ["tcp4", "0", "0", "127.0.0.9.40001", "127.0.0.1.5218", "ESTABLISHED"],
        ])
        # A connection that is not accepted yet counts in the listener's queue.
        wait_until(lambda: sorted(line.split() for line in machine.run(*NETSTAT).stdout.splitlines()[2:]) == expected,
                   "the rows of the connection")
    finally:
        talk.communicate(timeout=30)


def test_connections_of_sockets_for_both_families_are_listed_when_they_are_over_ipv4(machine):
    talk = machine.popen("python3", "-c", _MAPPED_CONNECTION, stdin=subprocess.PIPE)
    try:
        expected = sorted([
            ["tcp4", "0", "0", "127.0.0.1.5218", "127.0.0.9.40001", "ESTABLISHED"],
            ["tcp4", "0", "0", "127.0.0.9.40001", "127.0.0.1.5218", "ESTABLISHED"],
            ["tcp4", "0", "0", "127.0.0.1.5268", "*.*", "LISTEN"],
        ])
        wait_until(lambda: sorted(line.split() for line in machine.run(*NETSTAT).stdout.splitlines()[2:]) == expected,
                   "the rows of the connection")
    finally:
        talk.communicate(timeout=30)


def test_netstat_explains_itself_and_takes_its_options_in_any_order(machine):
    assert machine.run(NETSTAT[0], "--help").stdout.startswith("Usage: netstat ")
    for words in ((), ("-p", "tcp"), ("-f", "inet", "-n"), ("-p", "TCP", "-n", "-f", "inet")):
        assert machine.run(NETSTAT[0], *words).stdout == machine.run(*NETSTAT).stdout


def test_no_connections_give_the_head_alone(machine):
    assert machine.run(*NETSTAT).stdout.splitlines()[1].split()[0] == "Proto"
    assert len(machine.run(*NETSTAT).stdout.splitlines()) == 2


def test_other_options_of_netstat_are_refused(machine):
    for words in (("-a",), ("-f", "inet6"), ("-p", "UDP"), ("-f",), ("-n", "inet")):
        result = machine.run(NETSTAT[0], *words, check=False)
        assert (result.returncode, result.stdout) == (64, "")
