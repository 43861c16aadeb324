"""The keychain's program: what it tells the daemon, and what people do with it."""

import fcntl
import json
import os
import pty
import signal
import subprocess
import termios

import pytest

from certificates import KEY_FILE, KEYWARDEN, make_certificate
from private_machine import CONFIGURATION, wait_until

KEYCHAIN = "/var/lib/tessardd/keychain"
CALENDAR = "korvs:com.velto.calendar"
PHRASE = " \\\"two  words'\t"


def warden(machine, *words, **options):
    return machine.run(KEYWARDEN, *words, check=False, **options)


def ask(machine, path=KEY_FILE, **options):
    return warden(machine, "--get-private-key-passphrase", path, **options)


@pytest.fixture
def encrypted(machine):
    """A machine with an encrypted key whose pass phrase is in the keychain."""
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"], PHRASE)
    return machine


def make_push_certificate(machine, name, topic):
    """NAME.pem with a certificate and its key, and NAME.p12 sealed with "alt"."""
    machine.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-days",
                "30", "-subj", f"/UID={topic}/CN={name}", "-keyout", "/tmp/key.pem", "-out", f"/tmp/{name}.pem")
    machine.run("sh", "-c", f"cat /tmp/key.pem >>/tmp/{name}.pem")
    machine.run("openssl", "pkcs12", "-export", "-legacy", "-in", f"/tmp/{name}.pem", "-out", f"/tmp/{name}.p12",
                "-passout", "stdin", input="alt")


class AtTerminal:
    """keywarden with a person before it."""

    def __init__(self, machine, *words):
        self.master, self.slave = pty.openpty()

        def take_terminal():
            os.setsid()
            fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)

        self.process = machine.popen(KEYWARDEN, *words, stdin=self.slave, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, preexec_fn=take_terminal)
        os.set_blocking(self.master, False)
        self.seen = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()
        os.close(self.master)
        os.close(self.slave)

    def shows(self, text):
        try:
            self.seen += os.read(self.master, 4096)
        except BlockingIOError:
            pass
        return text in self.seen

    def echoes(self):
        return bool(termios.tcgetattr(self.slave)[3] & termios.ECHO)

    def type(self, text):
        os.write(self.master, text.encode())

    def awaits_secret(self):
        wait_until(lambda: self.shows(b"Pass phrase of ") and not self.echoes(), "the question")


def test_a_key_in_the_clear_and_a_missing_file_have_no_pass_phrase(machine):
    machine.run("mkdir", "-p", CONFIGURATION)
    make_certificate(machine, ["a.example.test"])
    machine.write("/tmp/text", "-----BEGIN nothing")
    for path in (KEY_FILE, "/nowhere.pem", "/nowhere/at/all.pem", "/tmp/text"):
        result = ask(machine, path)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert machine.run("sh", "-c", f"test ! -e {KEYCHAIN}").returncode == 0


@pytest.mark.parametrize("traditional", [False, True], ids=["PKCS 8", "traditional"])
def test_the_pass_phrase_that_is_kept_opens_the_key(encrypted, traditional):
    if traditional:
        encrypted.run("openssl", "ec", "-in", KEY_FILE, "-out", "/tmp/key.pem", "-aes256", "-passin", "stdin",
                      "-passout", "stdin", input=f"{PHRASE}\n{PHRASE}\n")
        assert "Proc-Type: 4,ENCRYPTED" in encrypted.read("/tmp/key.pem")
        encrypted.run("cp", "/tmp/key.pem", KEY_FILE)
    told = ask(encrypted)
    assert (told.returncode, told.stdout, told.stderr) == (0, PHRASE + "\n", "")
    encrypted.run("openssl", "pkey", "-in", KEY_FILE, "-noout", "-passin", "stdin", input=told.stdout)


def test_a_key_file_is_known_by_all_ways_to_it(encrypted):
    assert ask(encrypted, KEY_FILE.replace("/private/", "/")).stdout == PHRASE + "\n"
    # A name for the newest of several keys stays known when it leads to another one.
    encrypted.run("ln", "-s", KEY_FILE, "/tmp/current.pem")
    assert ask(encrypted, "/tmp/current.pem").returncode == 66
    warden(encrypted, "passphrase", "set", "/tmp/current.pem", input=PHRASE)
    assert ask(encrypted, "/tmp/current.pem").stdout == PHRASE + "\n"


def test_a_pass_phrase_that_is_not_kept_is_said_to_be_missing(encrypted):
    assert warden(encrypted, "passphrase", "delete", KEY_FILE).returncode == 0
    result = ask(encrypted)
    assert (result.returncode, result.stdout) == (66, "")
    assert "the keychain has no pass phrase for it" in result.stderr
    assert warden(encrypted, "passphrase", "delete", KEY_FILE).returncode == 66


def test_a_pass_phrase_of_an_older_key_is_not_told(encrypted):
    encrypted.run("openssl", "ec", "-in", KEY_FILE, "-out", "/tmp/key.pem", "-aes256", "-passin", "stdin", "-passout",
                  "stdin", input=f"{PHRASE}\nanother\n")
    encrypted.run("cp", "/tmp/key.pem", KEY_FILE)
    result = ask(encrypted)
    assert (result.returncode, result.stdout) == (65, "")
    assert "does not open the key" in result.stderr
    assert "two" not in result.stderr


def test_a_wrong_pass_phrase_is_not_kept(encrypted):
    result = warden(encrypted, "passphrase", "set", KEY_FILE, input="wrong\n")
    assert result.returncode == 65
    assert "does not open the private key" in result.stderr
    assert warden(encrypted, "passphrase", "set", KEY_FILE).returncode == 66
    assert ask(encrypted).stdout == PHRASE + "\n"


def test_only_the_keychains_owner_is_told_anything(encrypted):
    encrypted.run("chmod", "0644", KEY_FILE)
    for words in (("--get-private-key-passphrase", KEY_FILE), ("list",), ("delete", "a"), ("clear", "a"),
                  ("passphrase", "delete", KEY_FILE)):
        result = warden(encrypted, *words, user=1001)
        assert (result.returncode, result.stdout) == (77, ""), words
        assert "two" not in result.stderr
    assert warden(encrypted, "passphrase", "set", KEY_FILE, user=1001, input=PHRASE).returncode == 77


@pytest.mark.parametrize("name, mode", [("", "0755"), ("keychain.db", "0640"), ("keychain.key", "0404")])
def test_a_keychain_that_others_could_read_is_not_used(encrypted, name, mode):
    encrypted.run("chmod", mode, f"{KEYCHAIN}/{name}")
    result = ask(encrypted)
    assert (result.returncode, result.stdout) == (77, "")
    assert "others than its owner may have read or changed it" in result.stderr


@pytest.mark.parametrize("words", [(), ("--get-private-key-passphrase",), ("--other", KEY_FILE), ("import",), ("list", "x"),
                                   ("passphrase", "show", KEY_FILE), ("--get-private-key-passphrase", ""),
                                   ("--root",), ("--root", "relative", "list")])
def test_wrong_usage_is_refused(machine, words):
    result = warden(machine, *words)
    assert (result.returncode, result.stdout) == (64, "")
    assert json.loads(warden(machine, "--json", *words).stdout)["error"] == "usage"


def test_it_explains_itself(machine):
    assert warden(machine, "--help").stdout.startswith("usage: keywarden ")
    assert warden(machine, "--version").stdout.startswith("keywarden ")


def test_certificates_are_imported_listed_preferred_and_deleted(machine):
    make_push_certificate(machine, "calendar", "com.example.calendar")
    make_push_certificate(machine, "mail", "com.example.mail")
    assert warden(machine, "import", "--identity", "/tmp/calendar.p12", input="alt\n").returncode == 0
    imported = warden(machine, "import", "/tmp/mail.pem")
    assert "1 added, with the private key." in imported.stderr
    assert "0 added" in warden(machine, "import", "/tmp/mail.pem").stderr
    assert warden(machine, "prefer", CALENDAR, "calendar").returncode == 0
    listed = json.loads(warden(machine, "list", "--json").stdout)["certificates"]
    assert [(each["topic"], each["hasKey"], each["preferredFor"]) for each in listed] == [
        ("com.example.calendar", True, [CALENDAR]), ("com.example.mail", True, [])]
    table = warden(machine, "list").stdout.splitlines()
    assert table[0].split() == ["SHA-256", "KEY", "EXPIRES", "TOPIC", "PREFERRED", "FOR", "SUBJECT"]
    assert table[1].startswith(listed[0]["sha256"][:16])
    assert "\033" not in "".join(table)
    assert warden(machine, "clear", CALENDAR).returncode == 0
    assert warden(machine, "delete", listed[0]["sha256"][:16]).returncode == 0
    assert warden(machine, "delete", "calendar").returncode == 66
    assert warden(machine, "delete", "example").returncode == 0
    assert json.loads(warden(machine, "list", "--json").stdout)["certificates"] == []


def test_a_file_that_is_not_fit_is_refused_with_its_reason(machine):
    make_push_certificate(machine, "calendar", "com.example.calendar")
    machine.run("sh", "-c", "openssl x509 -in /tmp/calendar.pem -out /tmp/bare.pem; head -c 1048577 /dev/zero >/tmp/long")
    for words, given, status, error in (
            (("/tmp/calendar.p12",), "", 66, "pass-phrase-needed"), (("/tmp/calendar.p12",), "Alt\n", 65, "wrong-pass-phrase"),
            (("--identity", "/tmp/bare.pem"), "", 65, "no-key"), (("/etc/passwd",), "", 65, "malformed"),
            (("/tmp/long",), "", 65, "too-large"), (("/nowhere",), "", 66, "unreadable"), (("/tmp",), "", 66, "unreadable")):
        result = warden(machine, "import", "--json", *words, input=given)
        assert (result.returncode, json.loads(result.stdout)["error"]) == (status, error), words
    assert json.loads(warden(machine, "list", "--json").stdout)["certificates"] == []


def test_the_keychain_of_another_root_is_that_roots_own(encrypted):
    encrypted.run("sh", "-c", f"mkdir -p /tmp/root/etc && cp {KEY_FILE} /tmp/root/etc/key.pem")
    assert ask(encrypted, "/tmp/root/etc/key.pem").returncode == 66
    kept = warden(encrypted, "--root", "/tmp/root", "passphrase", "set", "/tmp/root/etc/key.pem", input=PHRASE)
    assert (kept.returncode, kept.stderr) == (0, "kept: /etc/key.pem\n")
    assert warden(encrypted, "--root=/tmp/root", "--get-private-key-passphrase", "/tmp/root/etc/key.pem").stdout \
        == PHRASE + "\n"
    assert encrypted.run("env", "TESSARD_ROOT=/tmp/root", KEYWARDEN, "--get-private-key-passphrase",
                         "/tmp/root/etc/key.pem").stdout == PHRASE + "\n"
    assert warden(encrypted, "--root", "/tmp/root", "--get-private-key-passphrase", KEY_FILE).returncode == 66


def test_the_terminal_does_not_show_what_is_typed(encrypted):
    with AtTerminal(encrypted, "passphrase", "set", KEY_FILE) as person:
        person.awaits_secret()
        person.type(PHRASE.replace("\t", "\x16\t") + "\n")
        output, errors = person.process.communicate(timeout=60)
        assert (person.process.returncode, output) == (0, ""), errors
        person.shows(b"")
        assert b"two" not in person.seen
        assert person.echoes()


@pytest.mark.parametrize("sent", [None, signal.SIGTERM, signal.SIGHUP], ids=["Ctrl-C", "TERM", "HUP"])
def test_the_terminal_is_as_before_after_a_signal(encrypted, sent):
    with AtTerminal(encrypted, "passphrase", "set", KEY_FILE) as person:
        person.awaits_secret()
        if sent is None:
            person.type("\x03")
        else:
            encrypted.run("sh", "-c", f"kill -{int(sent)} $(pgrep -x keywarden)")
        person.process.communicate(timeout=60)
        assert person.process.returncode != 0
        assert person.echoes()
    assert ask(encrypted).stdout == PHRASE + "\n"


def test_no_secret_stands_in_the_clear_anywhere(encrypted):
    make_push_certificate(encrypted, "calendar", "com.example.calendar")
    encrypted.run(KEYWARDEN, "import", "/tmp/calendar.p12", input="alt\n")
    encrypted.run("sh", "-c", f"rm /tmp/*; chmod 0600 {KEY_FILE}")
    found = encrypted.run("grep", "-rlaF", "--", PHRASE.strip(), "/var", "/etc", "/tmp", "/run", check=False)
    assert found.stdout == ""
    assert encrypted.run("stat", "-c", "%a", KEYCHAIN, f"{KEYCHAIN}/keychain.db", f"{KEYCHAIN}/keychain.key").stdout.split() \
        == ["700", "600", "400"]
