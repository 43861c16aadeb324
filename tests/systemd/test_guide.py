"""Every command that the documentation shows, carried out in its order on a fresh Debian, and what it says held against
what the page shows."""

import contextlib
import re
import subprocess
import tempfile

import pytest

from build_packages import build_packages
from documents import blocks, commands, says
from private_machine import PROJECT, MachineError, wait_until
from systemd_machine import SystemdMachine
from systemd_tree import fresh_tree
from test_packages import apt, offer

PAGES = [PROJECT / "docs" / name for name in ("guide.md", "certificates.md", "check.md", "requests.md", "metrics.md")]
ALL_PAGES = sorted([*PROJECT.glob("*.md"), *PROJECT.glob("docs/*.md")])
# What people type where a program asks.
TYPED = {"passwd ann": "meadow-otter\nmeadow-otter\n", "passwd bob": "harbour-lamp\nharbour-lamp\n"}
TRIED_ELSEWHERE = (
    "sudo apt install ./tessardd_*.deb ./tessardd-instance_[0-9]*.deb ./tessardctl_*.deb",  # test_packages
    "sudo tessardctl setup",  # the guide, as root
)
PROGRAMS = "tessardctl tessardd keywarden curl apt apt-get openssl systemctl journalctl useradd python3 go-sendxmpp".split()


# What an authority and certbot have given, before the page about certificates is read.
CERTIFICATES = """
set -e
umask 077
cd /root
names=subjectAltName=DNS:push.example.test,DNS:chat.example.test,DNS:pubsub.push.example.test
key="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -days 90"
authority="-addext basicConstraints=critical,CA:true -addext keyUsage=critical,keyCertSign,cRLSign"
openssl req -x509 $key $authority -subj "/CN=Example Root" -keyout root-key.pem -out root.pem
openssl req -x509 $key $authority -subj "/CN=Example Intermediate" -CA root.pem -CAkey root-key.pem \
  -keyout intermediate-key.pem -out chain.pem
openssl req -x509 $key -subj /CN=push.example.test -addext $names -addext basicConstraints=critical,CA:false \
  -CA chain.pem -CAkey intermediate-key.pem -keyout key.pem -out cert.pem
install -m 0644 root.pem /usr/local/share/ca-certificates/example-root.crt
update-ca-certificates
echo 'a long pass phrase' >passphrase
openssl pkcs12 -export -inkey key.pem -in cert.pem -certfile chain.pem -passout file:passphrase -out push.p12
live=/etc/letsencrypt/live/push.example.test
mkdir -p $live /etc/letsencrypt/renewal-hooks/deploy
cat cert.pem chain.pem >$live/fullchain.pem
cp key.pem $live/privkey.pem
"""


def user_id(machine, name):
    entry = machine.run("getent", "passwd", name).stdout.split(":")
    return int(entry[2]), entry[5]


def words_of(machine, command):
    user, home = user_id(machine, command.user)
    return user, ["bash", "-c", f"exec 2>&1; cd {home}; export HOME={home}; {command.text}"]


def carry_out(machine, command):
    """Fails unless the command says what is shown, and succeeds unless that is an error."""
    user, words = words_of(machine, command)
    done = machine.run(*words, user=user, input=TYPED.get(command.text), timeout=400, check=False)
    said = done.stdout.splitlines()
    shown = "\n".join(command.says)
    assert says(command.says, said), f"{command}\nshown:\n{shown}\nsaid ({done.returncode}):\n{done.stdout}"
    fails = any(line.startswith("error: ") for line in command.says)
    assert (done.returncode != 0) == fails, f"{command}: exit status {done.returncode}"


def carry_out_beside(machine, going_on, others):
    """Carries the others out, once more where they come too early, until the first says what is shown."""
    user, words = words_of(machine, going_on)
    with tempfile.TemporaryFile("w+") as terminal, machine.popen(*words, user=user, stdout=terminal, stdin=subprocess.DEVNULL) as process:
        def has_said():
            terminal.seek(0)
            return says(going_on.says, terminal.read().splitlines())

        def done():
            with contextlib.suppress(AssertionError):
                for command in others:
                    carry_out(machine, command)
            with contextlib.suppress(MachineError):
                wait_until(has_said, str(going_on), 5)
            return has_said()

        try:
            wait_until(done, f"what {going_on} shows", 90)
        finally:
            machine.run("pkill", "-f", going_on.text, check=False)
            process.wait(60)


@pytest.fixture(scope="module")
def machine(build, tmp_path_factory):
    made = tmp_path_factory.mktemp("packages")
    build_packages(made, build)
    with SystemdMachine(fresh_tree()) as booted:
        offer(booted, made)
        yield booted


def test_what_the_pages_show_is_what_happens(machine):
    todo = [each for page in PAGES for each in commands(page)]
    while todo:
        command = todo.pop(0)
        if command == next(iter(commands(PROJECT / "docs/certificates.md"))):
            machine.run("sh", "-c", CERTIFICATES)
        if not command.goes_on:
            carry_out(machine, command)
            continue
        block = [each for each in todo if (each.page, each.block) == (todo[0].page, todo[0].block)]
        carry_out_beside(machine, command, block)
        todo = todo[len(block):]


def test_no_page_shows_a_command_that_nobody_tries():
    """Outside of the sessions: what "./dev run --once" shows, which another test compares, and what installs from a
    directory, which others do in their own."""
    verbs = re.findall(r"^  ([a-z]+)", subprocess.run([PROJECT / "dev", "help"], capture_output=True, text=True, check=True).stdout, re.MULTILINE)
    sessions = {(block.page, line) for page in ALL_PAGES for block in blocks(page) if block.kind in ("console", "python")
                for line in range(block.line, block.line + len(block.lines) + 1)}
    assert {page for page, _ in sessions} == {page.name for page in PAGES}
    untried = []
    for page in ALL_PAGES:
        for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
            command = re.match(rf" +(?:sudo )?(\./dev|{'|'.join(PROGRAMS)}) +([^\s-]\S*)", line)
            if command is None or (page.name, number) in sessions or line.strip() in TRIED_ELSEWHERE:
                continue
            if command[1] != "./dev" or command[2] not in verbs:
                untried.append(f"{page.name}:{number}: {line.strip()}")
    assert untried == []
