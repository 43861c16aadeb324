"""System roots that are measured on: the service set up, with copies of Debian's jabberd files for a number of
domains."""

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(PROJECT / "scripts"))

from debian_files import KINDS, adapted  # noqa: E402
from private_machine import CONFIGURATION  # noqa: E402
from daemons import Daemon  # noqa: E402

KEY_FILE = f"{CONFIGURATION}/server.pem"
CA_FILE = f"{CONFIGURATION}/ca.pem"
PREFERENCES = "/Library/Preferences/com.velto.tessard_notification.plist"
DATABASE = "/private/var/jabberd/sqlite/jabberd2_notification.db"

# Every setting that can be written to jabberd's files.
SETTINGS = {
    "sslKeyFile": KEY_FILE, "sslCAFile": CA_FILE, "authLevel": "STANDARD",
    "jabberdClientPortTLS": 5218, "jabberdClientPortSSL": 5219, "jabberdS2SPort": 5270, "enableXMPP": True,
    "requireSecureS2S": True, "s2sRestrictDomains": True, "s2sAllowedDomains": ["friend.example.test"],
    "jabberdDatabasePath": "/private/var/jabberd/sqlite/other.db",
    "enableSavedChats": True, "savedChatsLocation": "/Library/Server/archive", "savedChatsArchiveInterval": 30,
}
READ = {"command": "readSettings"}
STATE = {"command": "getState"}


def domains(count):
    return [f"d{index:05}.example.test" for index in range(count)]


def write_request(count):
    return {"command": "writeSettings",
            "configuration": {"hostsCommaDelimitedString": ",".join(domains(count)), **SETTINGS}}


def _lay_out(root, build):
    """A root as it is after installing."""
    for directory in ["etc", "private", "run", "var/db", "var/log", "var/jabberd", "usr/share/tessardd/bundles"]:
        (root / directory).mkdir(parents=True)
    (root / "private/etc").symlink_to("../etc")
    (root / "private/var").symlink_to("../var")
    (root / "var/run").symlink_to("../run")
    (root / "etc/hostname").write_text("push.example.test\n")
    (root / "etc/hosts").write_text("127.0.0.1 push.example.test push\n")
    shutil.copytree(build / "bundles/tessard_notification.bundle",
                    root / "usr/share/tessardd/bundles/tessard_notification.bundle")
    shutil.copytree(PROJECT / "share/templates", root / "etc/jabberd_notification")
    shutil.copytree(PROJECT / "share/Beaconry", root / "usr/share/Beaconry")
    (root / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
    (root / "etc/shadow").write_text("root:!:20000:0:99999:7:::\n")
    (root / "etc/shadow").chmod(0o640)
    (root / "etc/group").write_text("root:x:0:\nstaff:x:20:\n")
    (root / "var/jabberd/db-setup.sqlite").write_text("CREATE TABLE active (owner TEXT);\n")


def _make_certificate(directory):
    key, certificate = directory / "server.pem", directory / "ca.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                    "/CN=push.example.test", "-days", "30", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    key.write_bytes(certificate.read_bytes() + key.read_bytes())


class Base:
    """A root with first-time setup done, made once; `tree` copies it."""

    def __init__(self, directory, build):
        self.build = build
        self.root = Path(directory, "base")
        self.root.mkdir()
        _lay_out(self.root, build)
        with Daemon(self.root, build) as daemon:
            state = daemon.post({"command": "initialSetup"})
        if state != {"state": "STOPPED"}:
            raise RuntimeError(f"first-time setup failed: {state}")
        _make_certificate(Path(f"{self.root}{CONFIGURATION}"))
        # A write names another database, which need not be made.
        shutil.copy(f"{self.root}{DATABASE}", f"{self.root}{SETTINGS['jabberdDatabasePath']}")
        self.texts = {kind: adapted(kind, "secret") for kind in KINDS}

    def tree(self, directory, count):
        """A new root with the files of so many domains. Each further session manager's is still a plain copy of
        the first one's."""
        root = Path(directory, "r")  # short, for the sake of the socket's path
        shutil.copytree(self.root, root, symlinks=True)
        tree = Tree(root, count)
        for backup in tree.configuration.glob("*.bak"):
            backup.unlink()
        for kind, text in self.texts.items():
            tree.write(f"{kind}.xml", text)
        for name in tree.further:
            tree.write(name, self.texts["sm"])
        listed = [("router", "router.xml"), ("sm", "sm.xml"), *(("sm", name) for name in tree.further),
                  ("c2s", "c2s.xml"), ("s2s", "s2s.xml")]
        tree.write("jabberd.cfg", "\n" + "".join(f"{kind:15}{CONFIGURATION}/{name}\n" for kind, name in listed))
        tree.note()
        return tree


class Tree:
    """One root and what is measured on it. The lists of files beside it are for the floor and the peers."""

    def __init__(self, root, count):
        self.root = root
        self.count = count
        self.domains = domains(count)
        self.configuration = Path(f"{root}{CONFIGURATION}")
        self.further = [f"sm_{domain}.xml" for domain in self.domains[1:]]
        self.beside = root.parent

    def write(self, name, text):
        file = os.open(self.configuration / name, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        os.write(file, text.encode())
        if os.geteuid() == 0:
            os.fchown(file, 84, 0)
        os.close(file)

    @property
    def edited(self):
        """The component files that a write of all settings changes."""
        return ["c2s.xml", "s2s.xml", "sm.xml", *self.further]

    def note(self):
        """Writes the lists of files and the requests."""
        component = [str(self.configuration / name) for name in ("router.xml", *self.edited)]
        others = [f"{self.root}{PREFERENCES}", str(self.configuration / "jabberd.cfg")]
        changed = [str(self.configuration / name) for name in self.edited]
        self.list("read", component + others)
        self.list("write", changed + others)
        first = self.configuration / "sm.xml"
        self.list("copy", [f"{path}\t{first}" if Path(path).name in self.further else path for path in changed] + others)
        for name, request in (("read", READ), ("state", STATE), ("write", write_request(self.count))):
            (self.beside / f"{name}.json").write_text(json.dumps(request))
        (self.beside / "settings.json").write_text(json.dumps(write_request(self.count)["configuration"]))

    def list(self, name, paths):
        (self.beside / f"{name}.list").write_text("".join(f"{path}\n" for path in paths))

    def request(self, name):
        return str(self.beside / f"{name}.json")

    def files(self, name):
        return str(self.beside / f"{name}.list")
