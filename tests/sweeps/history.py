"""What a row of requests makes of a system root, and whether a crash has left one of its states."""

import os
import plistlib
import re
import shutil
import sqlite3
import stat
import subprocess
import tempfile
import xml.dom.minidom
import xml.parsers.expat
from pathlib import Path

SETTINGS_A = {"hosts": ["a.example.com", "b.example.com", "c.example.com"], "authLevel": "STANDARD",
              "jabberdClientPortTLS": 5300, "enableXMPP": False, "savedChatsArchiveInterval": 1, "verbose": True}
SETTINGS_B = {"hosts": ["push.example.com", "c.example.com", "d.example.com"], "authLevel": "ANYMETHOD",
              "jabberdClientPortTLS": 5301, "enableXMPP": True, "savedChatsArchiveInterval": 2, "verbose": False}
# So many that their files are made by two threads.
SETTINGS_MANY = {**SETTINGS_A, "hosts": [f"host{number}.example.com" for number in range(40)]}
# What is on no disk of a machine, or comes with the installation.
_ELSEWHERE = ("usr", "run", "lost+found")
# The journal, and what the last undo has replaced.
_JOURNAL = "Library/Server/tessardd/journal"
# Requests that, when they are cut off, are done with the next attempt in place of being undone.
CARRIED_ON = ("setup", "import", "setKorvsCertificate", "getServiceUser", "changeip")
_DATABASE = b"SQLite format 3"


class Refused(AssertionError):
    """An answer that is an error, or says that something went wrong."""


warned = []  # what the last request logged as warnings


def ask(daemon, path="/v1/plugins/notification", **request):
    """The answer to a request that went well."""
    warned.clear()
    answer = daemon.post(request, path=f"{path}?with=log")
    content = answer.json
    errors = [line for line in content.get("log", []) if line["level"] == "error"]
    warned.extend(line["message"] for line in content.get("log", []) if line["level"] == "warning")
    if answer.status != 200 or errors or "error" in content["answer"]:
        raise Refused(f"{request}: {answer.status} {content}")
    return content["answer"]


def makeCertificate(directory):
    """A certificate of the name that the story's settings serve first, with its key, as text."""
    key, certificate = directory / "key.pem", directory / "certificate.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "30", "-subj", "/UID=com.example.topic/CN=push.example.com", "-keyout", key, "-out", certificate],
                   check=True, capture_output=True)
    return certificate.read_text() + key.read_text()


def story(certificate, rounds):
    """Requests, each of which changes something: a name, and what is to be done with a daemon. Those of CARRIED_ON do
    part of their work with programs and databases."""
    steps = [
        ("setup", lambda daemon: ask(daemon, command="initialSetup")),
        ("import", lambda daemon: ask(daemon, "/v1/certificates", file=certificate)),
    ]

    def write(configuration, name="settings"):
        steps.append((name, lambda daemon: ask(daemon, command="writeSettings", configuration=configuration)))

    def command(name, **entries):
        steps.append((name, lambda daemon: ask(daemon, command=name, **entries)))

    for number in range(rounds):
        service = {"service": "calendar", "hostName": f"host{number}.example.com"}
        write({**SETTINGS_A, "savedChatsArchiveInterval": 10 + number})
        if number == 0:
            write(SETTINGS_MANY)
        command("addService", **service)
        write({**SETTINGS_B, "savedChatsArchiveInterval": 20 + number})
        if number == 0:
            command("setKorvsCertificate", certificateName="push.example.com")
            command("getServiceUser", service="calendar")
        write({"changeip": {"oldHost": "push.example.com", "newHost": f"new{number}.example.com"}}, "changeip")
        command("removeService", **service)
    return steps


def _databaseText(path):
    """What is in a database, as it reads after what was begun in it was undone."""
    with tempfile.TemporaryDirectory() as scratch:
        copy = Path(scratch, path.name)
        for suffix in ("", "-journal", "-wal"):
            file = path.with_name(path.name + suffix)
            if file.exists():
                shutil.copyfile(file, copy.with_name(copy.name + suffix))
        try:
            database = sqlite3.connect(copy)
            try:
                version = database.execute("PRAGMA user_version").fetchone()[0]
                return "\n".join([f"version {version}", *database.iterdump()]).encode()
            finally:
                database.close()
        except sqlite3.Error as error:
            return f"a damaged database: {error}".encode()


def _entry(path):
    attributes = path.lstat()
    owner = (attributes.st_uid, attributes.st_gid, stat.S_IMODE(attributes.st_mode))
    if stat.S_ISLNK(attributes.st_mode):
        return ("link", os.readlink(path))
    if stat.S_ISDIR(attributes.st_mode):
        return ("directory", *owner)
    content = path.read_bytes()
    return ("file", *owner, _databaseText(path) if content.startswith(_DATABASE) else content)


def treeOf(root):
    """All that there is below a system root: name, and kind, owner, group, mode and content."""
    tree = {}
    for directory, subdirectories, files in os.walk(root):
        if directory == str(root):
            subdirectories[:] = [name for name in subdirectories if name not in _ELSEWHERE]
        subdirectories[:] = [name for name in subdirectories
                             if str(Path(directory, name).relative_to(root)) != _JOURNAL]
        for name in subdirectories + files:
            path = Path(directory, name)
            tree[str(path.relative_to(root))] = _entry(path)
    return tree


def hasOpenJournal(root):
    """Whether a request is not at its end, or was cut off and not yet undone."""
    return (root / _JOURNAL / "open").exists()


def _isAccounts(content):
    """Whether a file of accounts or groups ends with a whole line, and each line is one."""
    lines = content.decode().split("\n")
    return lines.pop() == "" and all(line.count(":") in (3, 6, 8) for line in lines)


def _isMasterFile(content):
    words = [line.split() for line in content.decode().splitlines() if line and not line.startswith("#")]
    return content.endswith(b"\n") and {"router", "sm", "c2s", "s2s"} == {kind for kind, _ in words}


def isWhole(name, entry):
    """Whether a file, whatever its version, is all that a file of its name must be."""
    base, content = name.rpartition("/")[2].removesuffix(".bak"), entry[-1]
    try:
        if base.endswith(".xml"):
            root = xml.dom.minidom.parseString(content).documentElement.tagName
            return root == ("users" if base == "router-users.xml" else base.split(".")[0].split("_")[0])
        if base.endswith(".plist"):
            return plistlib.loads(content) != {}
        if base == "jabberd.cfg":
            return _isMasterFile(content)
        if name.startswith("etc/") and base.rstrip("-") in ("passwd", "shadow", "group", "gshadow"):
            return _isAccounts(content)
    except (ValueError, xml.parsers.expat.ExpatError, plistlib.InvalidFileException):
        return False
    # An empty database is one that was not filled yet, which the next setup does.
    return base.endswith(".db") and (content == b"" or content.startswith(b"version"))


def _isMadeAnew(name):
    """Whether a request takes away files of that name and makes others, whose content is flushed with all the rest:
    further session managers, and the contents of the service that belong to the former host."""
    return re.search(r"/sm_[^/]*\.xml(\.bak)?$|^var/db/idavoll/\w+\.db$", name) is not None


def differences(found, wanted):
    """Names under which two trees do not hold the same. An empty directory more is none."""
    def alike(name):
        if name in found and name in wanted and name.endswith("/jabberd.cfg.bak"):
            # A daemon that was started since has written the master file once more as it was.
            return isWhole(name, found[name])
        return found.get(name) == wanted.get(name) or name not in wanted and found[name][0] == "directory"

    return [name for name in sorted(set(found) | set(wanted)) if not alike(name)]


class History:
    """The states of a system root in their order."""

    def __init__(self):
        self.states = []

    def add(self, root):
        self.states.append(treeOf(root))

    def torn(self, found, allowed):
        """What is wrong with single names right after a crash, in the midst of the request that makes the last of the
        allowed states from the first: what is under each must be old, new or another whole version, and what is there
        before and after must not be missing. What the request makes anew is judged after the restart alone."""
        wrong = []
        for name in set().union(*(self.states[number] for number in allowed)):
            versions, entry = [self.states[number].get(name) for number in allowed], found.get(name)
            if entry in versions:
                continue
            # A backup may be an older one until the next start.
            if name.endswith(".bak") and (entry is None or isWhole(name, entry)):
                continue
            if len(allowed) == 2 and (_isMadeAnew(name) or entry is not None and isWhole(name, entry)):
                continue
            wrong.append(f"{name} {self._nature(name, entry)}")
        return wrong

    def deviation(self, found, allowed):
        """What is wrong with a state after a restart, which must be one of the allowed ones; nothing when it is."""
        if any(not differences(found, self.states[number]) for number in allowed):
            return None
        equal = [number for number, state in enumerate(self.states) if not differences(found, state)]
        if equal:
            return f"lost: the state of {equal} in place of {allowed}"
        return "mixed: " + "; ".join(
            f"against {number}: {self.described(found, differences(found, self.states[number]))}" for number in allowed)

    def described(self, found, names):
        return ", ".join(f"{name} {self._nature(name, found.get(name))}" for name in names)

    def _nature(self, name, entry):
        if entry is None:
            return "is missing"
        as_in = [number for number, state in enumerate(self.states) if state.get(name) == entry]
        if as_in:
            return f"is as in {as_in}"
        if name not in set().union(*self.states):
            return "is there"
        length = f", {len(entry[-1])} bytes" if entry[0] == "file" else ""
        same = [number for number, state in enumerate(self.states) if name in state and state[name][-1] == entry[-1]]
        return f"has other attributes {entry[:-1]}, as in {same} else" if same else f"is in no state{length}"


__all__ = ["History", "isWhole", "Refused", "SETTINGS_A", "SETTINGS_B", "ask", "differences", "makeCertificate", "story", "treeOf"]
