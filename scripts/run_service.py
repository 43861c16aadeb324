"""Runs the service in a private machine, sets it up, writes settings and shows what that changed in the files.
Every command that is shown is run as shown, inside. Usage: run_service.py BUILD [--once]"""

import argparse
import contextlib
import difflib
import json
import re
import secrets
import shlex
import signal
import subprocess
import sys

from private_machine import CONFIGURATION, HOST_NAME, MachineError, PrivateMachine, add_account

DOMAINS = ("a.example.test", "b.example.test")
PREFERENCES = "/Library/Preferences/com.velto.tessard_notification.plist"
KEY_FILE = f"{CONFIGURATION}/server.pem"
CA_FILE = f"{CONFIGURATION}/ca.pem"
PUSH_FILE = "/root/calendar.pem"

SETTINGS = (
    f"hostsCommaDelimitedString={','.join(DOMAINS)}",
    f"sslKeyFile={KEY_FILE}",
    f"sslCAFile={CA_FILE}",
    "authLevel=STANDARD",
)


def mask(text):
    """The text with every password left out."""
    text = re.sub(r"(<(pass|secret|private_key_password)>).*?(</\2>)", r"\1********\3", text, flags=re.DOTALL)
    text = re.sub(r"^(secret|password|dbpass)(=|: ).+$", r"\1\2********", text, flags=re.MULTILINE)
    return re.sub(r"""(private-key-password=)("[^"]*"|'[^']*')""", r"\1********", text)


def snapshot(machine):
    """What the configuration says now: path -> text, passwords left out."""
    directory = machine.outside(CONFIGURATION)
    paths = [f"{CONFIGURATION}/{file.name}" for file in sorted(directory.iterdir())
             if file.suffix in (".xml", ".cfg")]
    return {path: mask(machine.read(path)) for path in [*paths, PREFERENCES] if machine.outside(path).exists()}


def differences(before, after):
    """Unified differences. A file that is new is compared with the primary session manager's when it is one of
    its copies, and with nothing otherwise."""
    for path in sorted({*before, *after}):
        origin = path
        if path not in before:
            origin = f"{CONFIGURATION}/sm.xml" if path.startswith(f"{CONFIGURATION}/sm_") else "/dev/null"
        lines = difflib.unified_diff(before.get(origin, "").splitlines(), after.get(path, "").splitlines(),
                                     origin, path if path in after else "/dev/null", lineterm="", n=1)
        yield from lines


class Show:
    def __init__(self, machine):
        self.machine = machine

    def title(self, text):
        print(f"\n== {text}", flush=True)

    def run(self, *words):
        print(f"# {shlex.join(words)}", flush=True)
        result = self.machine.run(*words, check=False)
        for text in (result.stdout, result.stderr):
            if text.strip():
                print(mask(text).rstrip(), flush=True)
        if result.returncode != 0:
            raise MachineError(f"\"{words[0]}\" ended with exit status {result.returncode}")


def make_certificate(show):
    names = ",".join(f"DNS:{domain}" for domain in DOMAINS)
    show.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-days", "30",
             "-subj", f"/CN={DOMAINS[0]}", "-addext", f"subjectAltName={names}", "-keyout", KEY_FILE, "-out", CA_FILE)
    show.run("sh", "-c", f"cat {CA_FILE} >>{KEY_FILE}; chown 0:84 {KEY_FILE} {CA_FILE}; chmod 0640 {KEY_FILE} {CA_FILE}")


def make_push_certificate(show):
    """One file with a key and its certificate, whose subject holds a topic."""
    show.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-days", "30",
             "-subj", "/UID=com.example.push.calendar/CN=Calendar Push", "-keyout", PUSH_FILE, "-out", "/root/calendar.crt")
    show.run("sh", "-c", f"cat /root/calendar.crt >>{PUSH_FILE}")


def demonstrate(machine):
    show = Show(machine)
    show.title(f"a private machine named {HOST_NAME}, with the templates in place and tessardd running")
    show.run("/usr/libexec/tessardd/prepare-instance")
    show.run("/usr/libexec/tessardd/pubsub_launcher", "--prepare")
    machine.start_daemon()
    show.run("tessardctl", "health")

    show.title("first-time setup: database, directories, router password")
    show.run("tessardctl", "setup")
    show.run("ls", "-l", CONFIGURATION, "/private/var/jabberd/sqlite")

    show.title("a certificate for two domains")
    make_certificate(show)

    show.title("settings: two domains, TLS, no passwords in the clear")
    before = snapshot(machine)
    show.run("tessardctl", "settings", "set", *SETTINGS)
    after = snapshot(machine)

    show.title("what that changed (passwords left out)")
    lines = list(differences(before, after))
    if not lines:
        raise MachineError("the settings changed no file")
    print("\n".join(lines), flush=True)

    show.title("the settings as they read now")
    show.run("tessardctl", "settings", "get")

    show.title("the start: jabberd2 with a session manager for each domain, and the publish-subscribe component")
    show.run("tessardctl", "start")
    show.run("ps", "-u", "84", "-o", "pid,user,args")
    show.run("tessardctl", "state")

    show.title("certificates: one with the push topic of the calendar, and the bridge's own")
    make_push_certificate(show)
    for file in (PUSH_FILE, KEY_FILE):
        show.run("tessardctl", "certificate", "import", file)
    show.run("keywarden", "prefer", "korvs:com.velto.calendar", "Calendar Push")
    show.run("tessardctl", "certificate", "set", DOMAINS[0])
    show.run("tessardctl", "certificate", "list")
    show.run("tessardctl", "settings", "set", "korvbridgeEnabled=true")

    show.title("the account that the calendar service may use, and what it needs to know")
    show.run("tessardctl", "service-user", "calendar")
    answer = json.loads(machine.run("tessardctl", "--json", "service-user", "calendar").stdout)

    show.title("with exactly that it makes a node and publishes; ann, another account of the machine, follows")
    calendar = (answer["JID"], answer["password"])
    ann = (f"ann@{answer['xmppHostName']}", secrets.token_urlsafe())
    add_account(machine, "ann", ann[1])
    port = str(answer["jabberdClientPortTLS"])
    with client(show, port, calendar, "create", "events") as made:
        made.says("logged in as ", "made the node events ")
    with client(show, port, ann, "follow", "events") as follower:
        follower.says("logged in as ", "follows the node events ")
        with client(show, port, calendar, "publish", "events", "Hello") as publisher:
            publisher.says("logged in as ", "published on ")
        follower.says("received from the node events: Hello\n")
        show.run("tessardctl", "state", "--details")
        details = json.loads(machine.run("tessardctl", "--json", "state", "--details").stdout)
    if (details["state"], details["currentConnections"]) != ("RUNNING", "1"):
        raise MachineError("the service does not run with one client")


class Client:
    def __init__(self, process):
        self._process = process

    def says(self, *beginnings):
        """Shows the next lines, which begin like this."""
        for beginning in beginnings:
            line = self._process.stdout.readline()
            if not line.startswith(beginning):
                raise MachineError(line.strip() or self._process.stderr.read().strip() or "the client has ended")
            print(line, end="", flush=True)


@contextlib.contextmanager
def client(show, port, account, *words):
    """A client of the account (address and password) that carries out the words and then ends, or is told to."""
    address, password = account
    words = ("python3", "/run/machine/xmpp_client.py", address, port, CA_FILE, *words)
    print(f"# {shlex.join(words)}", flush=True)
    with show.machine.popen(*words, user=84, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True) as process:
        process.stdin.write(f"{password}\n")
        process.stdin.flush()
        yield Client(process)
        process.stdin.close()
        if process.wait(30) != 0:
            raise MachineError(process.stderr.read().strip() or "the client has not ended well")


def stay_up(machine):
    print(f"""
The machine stays up until Ctrl-C. In another terminal:
    ./dev shell                        a shell inside
    ./dev shell tessardctl state       one command inside
Its files are in {machine.root} meanwhile.""", flush=True)
    machine.wait()
    raise MachineError("the machine ended by itself")


def main():
    options = argparse.ArgumentParser()
    options.add_argument("build")
    options.add_argument("--once", action="store_true")
    chosen = options.parse_args()

    def interrupted(*_):
        raise KeyboardInterrupt
    # SIGINT too: Python leaves it ignored where a shell has started this in the background.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    try:
        with PrivateMachine(chosen.build) as machine:
            demonstrate(machine)
            if not chosen.once:
                stay_up(machine)
    except MachineError as problem:
        print(f"run: {problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nended", file=sys.stderr)
        return 130 if chosen.once else 0
    return 0


sys.exit(main())
