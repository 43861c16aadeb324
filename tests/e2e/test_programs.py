"""The small programs that the daemon runs, by themselves."""

import subprocess

import pytest

from certificates import KEY_FILE, make_certificate
from private_machine import CONFIGURATION, wait_until

KEYWARDEN = "/usr/libexec/tessardd/keywarden"
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


def ask(machine, path=KEY_FILE):
    return machine.run(KEYWARDEN, "--get-private-key-passphrase", path, check=False)


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


def test_a_key_in_the_clear_and_a_missing_file_have_no_pass_phrase(machine):
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"])
    for path in (KEY_FILE, "/nowhere.pem"):
        result = ask(machine, path)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


@pytest.mark.parametrize("traditional", [False, True], ids=["PKCS 8", "traditional"])
def test_the_pass_phrase_that_is_kept_opens_the_key(machine, traditional):
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"], " \\\"two  words'\t")
    if traditional:
        machine.run("openssl", "ec", "-in", KEY_FILE, "-out", "/tmp/key.pem", "-aes256", "-passin", "stdin",
                    "-passout", f"file:{KEY_FILE}.passphrase", input=" \\\"two  words'\t\n")
        assert "Proc-Type: 4,ENCRYPTED" in machine.read("/tmp/key.pem")
        machine.run("cp", "/tmp/key.pem", KEY_FILE)
    told = ask(machine)
    assert (told.returncode, told.stdout) == (0, " \\\"two  words'\t\n")
    machine.run("openssl", "pkey", "-in", KEY_FILE, "-noout", "-passin", "stdin", input=told.stdout)


@pytest.mark.parametrize("owner, mode", [((1001, 0), 0o600), ((0, 0), 0o640), ((0, 0), 0o644), ((0, 84), 0o660)])
def test_a_pass_phrase_that_others_could_read_or_change_is_not_used(machine, owner, mode):
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"], "secret")
    machine.write(f"{KEY_FILE}.passphrase", "secret\n", mode, owner)
    result = ask(machine)
    assert (result.returncode, result.stdout) == (77, "")
    assert "must belong to root and have mode 0600" in result.stderr


def test_a_pass_phrase_that_is_not_kept_is_said_to_be_missing(machine):
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"], "secret")
    machine.outside(f"{KEY_FILE}.passphrase").unlink()
    result = ask(machine)
    assert (result.returncode, result.stdout) == (66, "")
    assert f"there is no \"{KEY_FILE}.passphrase\"" in result.stderr


def test_wrong_usage_of_keywarden_is_refused(machine):
    for words in ((), ("--get-private-key-passphrase",), ("--other", KEY_FILE)):
        result = machine.run(KEYWARDEN, *words, check=False)
        assert (result.returncode, result.stdout) == (64, "")
