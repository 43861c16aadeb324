"""What must stay secret in a whole run is found nowhere but where it is kept."""

import base64
import json
import plistlib
import stat

from certificates import CA_FILE, KEY_FILE, make_certificate
from private_machine import add_account
from pubsub import Pubsub
from watch import watching

DOMAIN = "push.example.test"
SETTINGS = "/Library/Preferences/com.velto.Beaconry.plist"
PHRASE = "canary-phrase-of-the-key-7Qx"
BUNDLE_PHRASE = "canary-phrase-of-the-bundle-3Ws"
PASSWORD = "canary-password-of-ann-9Lp"
# All that a run writes to, but for what is Debian's.
PLACES = ("etc", "var", "run", "Library", "tmp", "private")


def make_push_certificate(machine):
    """A PKCS#12 file of a certificate with a topic; gives a line of its private key."""
    machine.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc",
                "-days", "30", "-subj", "/UID=com.example.push.calendar/CN=Push Calendar", "-keyout", "/root/push.key",
                "-out", "/root/push.pem")
    machine.run("openssl", "pkcs12", "-export", "-inkey", "/root/push.key", "-in", "/root/push.pem", "-out",
                "/root/push.p12", "-passout", "stdin", input=BUNDLE_PHRASE + "\n")
    line = machine.read("/root/push.key").splitlines()[1]
    machine.run("rm", "/root/push.key")
    return line


def files_below(machine):
    for place in PLACES:
        for path in sorted(machine.outside("/" + place).rglob("*")):
            if path.is_file() and not path.is_symlink():
                yield path


def run_with_secrets(service):
    """A whole run, and the secrets that it had to do with."""
    machine = service.machine
    service.tool("setup")
    key_line = make_push_certificate(machine)
    machine.run("keywarden", "import", "/root/push.p12", input=BUNDLE_PHRASE + "\n")
    for name in ("korvs:com.velto.calendar", "com.velto.KorvBridge.https"):
        machine.run("keywarden", "prefer", name, "Push Calendar")
    make_certificate(machine, [DOMAIN], PHRASE)
    service.set(f"hostsCommaDelimitedString={DOMAIN}", f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}",
                "authLevel=STANDARD", "korvbridgeEnabled=true")
    # The lines about the component's account are written whether or not it could be made, and count as errors.
    service.set("connectAsClient=true", check=False)
    service.tool("start", check=False)
    answer = json.loads(service.tool("--json", "service-user", "calendar").stdout)
    assert answer["korpsTopic"] == "com.example.push.calendar"
    add_account(machine, "ann", PASSWORD)
    pubsub = Pubsub(service)
    for node, (jid, password) in {"events": (answer["JID"], answer["password"]), "news": (f"ann@{DOMAIN}", PASSWORD)}.items():
        assert pubsub.ask(jid, "create", node, password=password) == [["created", "result"]]
    service.tool("restart", check=False)

    settings = plistlib.loads(machine.outside(SETTINGS).read_bytes())
    return {"pass phrase": PHRASE, "pass phrase of the bundle": BUNDLE_PHRASE, "password of ann": PASSWORD,
            "password of the service user": answer["password"], "password of the component": settings["password"],
            "router secret": service.router_password(), "private key": key_line}


def test_the_secrets_of_a_run_are_nowhere_but_where_they_are_kept(daemon):
    machine = daemon.machine
    with watching(machine) as seen:
        secrets = run_with_secrets(daemon)
        given = seen()
    assert b"jabberd2-c2s" in given and b"keywarden" in given and b"saslauthd" in given
    log = daemon.log() + (machine.directory / "boot.log").read_text()
    kept = {}
    for name, secret in secrets.items():
        forms = [secret.encode(), base64.b64encode(secret.encode())]
        for form in forms:
            assert form not in given, name
            assert form not in log.encode(), name
        kept[name] = {path for path in files_below(machine) if any(form in path.read_bytes() for form in forms)}
        for path in kept[name]:
            status = path.stat()
            assert not stat.S_IMODE(status.st_mode) & 0o007, (name, path)
            assert status.st_uid in (0, 84), (name, path)
    # Those that are sealed or hashed stand in plain in no file at all, and the search would have found them.
    for name in ("pass phrase of the bundle", "password of ann", "password of the service user", "private key"):
        assert kept[name] == set(), name
    assert kept["router secret"] != set()
