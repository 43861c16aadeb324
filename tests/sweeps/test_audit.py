"""How files come into being, watched system call by system call, and links that are put in their way."""

import contextlib
import os
import re
import stat
import subprocess
import sys
from pathlib import Path

import pytest

from hosttools import needsPlugin
from sweeptools import SANITIZED, report, size

pytestmark = needsPlugin

RACER = Path(__file__).with_name("racer.py")
SERVICE = 84  # the account that the service runs as
CALLS = "open,openat,openat2,creat,mkdir,mkdirat,mknod,mknodat,symlink,symlinkat,bind,chmod,fchmod,fchmodat,execve"

# What libraries and other programs create in their own way, and what makes it safe.
EXCEPTIONS = [
    (r"/etc/\.pwd\.lock", "lckpwdf of the C library: a lock that all take, empty, in root's directory"),
    (r"/run/tessardd/tessardd\.lock", "a lock that a second daemon must be able to open; in root's directory"),
    (r"/etc/(passwd|shadow|group|gshadow)([-+]|\.lock\.\w+)",
     "libuser, through the descriptor of /etc, which only root can change; no program is started meanwhile"),
    (r"/var/lib/tessardd/keychain/keychain\.db(\.new)?-journal", "SQLite: in a directory of root's with mode 0700"),
    (r"/var/db/idavoll/(pubsub|items)\.db(-journal)?",
     "the program sqlite3: in a directory of mode 0750, only where the file was there or a name of its own; no links"),
    (r"/var/jabberd/sqlite/jabberd2_notification\.db(-journal)?", "the same"),
]


def makeCertificate(directory):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "30", "-subj", "/UID=com.example.topic/CN=push.example.com", "-keyout", directory / "key.pem", "-out",
                    directory / "certificate.pem"], check=True, capture_output=True)
    both = directory / "both.pem"
    both.write_text((directory / "certificate.pem").read_text() + (directory / "key.pem").read_text())
    return both


def doEverythingThatWrites(daemon, certificate):
    assert daemon.tool("setup").returncode == 0
    domains = "a.example.com,b.example.com,c.example.com"
    assert daemon.tool("settings", "set", f"hostsCommaDelimitedString={domains}").returncode == 0
    assert daemon.tool("service-user", "calendar").returncode == 0
    assert daemon.tool("certificate", "import", str(certificate)).returncode == 0
    for request in [
        {"command": "setKorvsCertificate", "certificateName": "push"},
        {"command": "addService", "service": "mail", "hostName": "m.example.com"},
        {"command": "setState", "state": "STOP"},
        {"command": "writeSettings",
         "configuration": {"changeip": {"oldHost": "a.example.com", "newHost": "n.example.com"}}},
        {"command": "writeSettings", "configuration": {"hosts": ["n.example.com"]}},
        {"command": "removeService", "service": "mail", "hostName": "m.example.com"},
    ]:
        answer = daemon.post(request)
        assert answer.status == 200 and "error" not in answer.json, answer.json


class Trace:
    """The system calls of the daemon and of its programs that made something."""

    OPENED = re.compile(r"(?:openat2?|open|creat)\((?:[^,]*, )?\"[^\"]*\", (.*)\) = \d+<([^>]*)>")

    def __init__(self, file, root):
        self.root = str(root)
        self.lines = list(self.whole(file.read_text(errors="replace").splitlines()))
        assert len(self.lines) > 100

    @staticmethod
    def whole(lines):
        """Calls that were interrupted by those of other processes put together again."""
        begun = {}
        for line in lines:
            pid, _, call = line.partition(" ")
            call = call.lstrip()
            if call.endswith(" <unfinished ...>"):
                begun[pid] = call.removesuffix(" <unfinished ...>")
            elif found := re.match(r"<\.\.\. \w+ resumed>(.*)", call):
                yield re.sub(r"\s+\)", ")", begun.pop(pid) + found[1])
            else:
                yield call

    def created(self):
        """(path below the root, or of the machine; flags and mode) of each file opened to be made."""
        for line in self.lines:
            if "O_CREAT" not in line and "O_TMPFILE" not in line and not line.startswith("creat("):
                continue
            if found := self.OPENED.match(line):
                path = found[2].removesuffix("(deleted)")
                yield path.removeprefix(self.root), found[1]
            else:
                assert " = -1 " in line, f"not understood: {line}"

    def directories(self):
        for line in self.lines:
            if found := re.match(r"mkdir(?:at)?\((?:\d+<([^>]*)>, )?\"([^\"]*)\", (\d+)\) = 0", line):
                yield f"{found[1] or ''}/{found[2]}".removeprefix(self.root), int(found[3], 8)


def staysOurs(root, path):
    """Whether a directory below the root, or of the machine, still belongs to the account that made it."""
    inside = Path(f"{root}{path}")
    found = (inside if inside.exists() else Path(path)).stat()
    return (found.st_uid, found.st_gid) == (os.geteuid(), os.getegid())


def reasonFor(path):
    for pattern, reason in EXCEPTIONS:
        if re.fullmatch(pattern, path):
            return reason
    return None


def faultsOf(flags):
    faults = []
    if not ("O_EXCL" in flags or "O_TMPFILE" in flags):
        faults.append("not exclusive")
    if "O_CLOEXEC" not in flags:
        faults.append("handed on to programs")
    mode = re.search(r"\b(0[0-7]{3})\b", flags)
    if not mode or int(mode[1], 8) & 0o177:
        faults.append("not 0600 at first")
    return faults


@pytest.mark.skipif(SANITIZED, reason="no program can look for its leaks while strace watches it")
def test_every_file_is_made_exclusively_and_privately(pluginRoot, makeDaemon, tmp_path):
    certificate = makeCertificate(tmp_path)
    file = tmp_path / "trace"
    daemon = makeDaemon("--idle-seconds", "0", prefix=["strace", "-D", "-f", "-y", "-s", "4096", "-e", f"trace={CALLS}", "-o", file])
    doEverythingThatWrites(daemon, certificate)
    assert daemon.end()[0] == 0
    trace = Trace(file, pluginRoot)
    made = list(trace.created())
    faults = [(path, flags, faultsOf(flags)) for path, flags in made if faultsOf(flags)]
    assert [fault for fault in faults if reasonFor(fault[0]) is None] == []
    # What has its reason follows no link in its last name, or has its name from us.
    for path, flags, _ in faults:
        assert "O_NOFOLLOW" in flags or path.startswith("/etc/"), (path, flags)
    ours = [path for path, flags in made if not faultsOf(flags)]
    for expected in ["/etc/jabberd_notification/c2s.xml.tmp", "/etc/jabberd_notification/jabberd.cfg.tmp",
                     "/Library/Preferences/com.velto.Beaconry.plist.tmp", "/var/lib/tessardd/keychain/keychain.key.new",
                     "/var/db/.VeltoSetupDone", "/var/db/idavoll/pubsub.db"]:
        assert expected in ours
    directories = list(trace.directories())
    # Only what stays with the daemon's own account may be open to others from the beginning.
    assert [path for path, mode in directories if mode & 0o077 and not staysOurs(pluginRoot, path)] == []
    assert any(mode & 0o077 == 0 for _, mode in directories)
    assert len(directories) >= 8
    report(f"{len(ours)} files were made as they should be, {len(faults)} by others for {len({p for p, _, _ in faults})} "
           f"names with reasons; {len(directories)} directories")


def test_the_audit_finds_what_is_not_as_it_should_be():
    assert faultsOf("O_WRONLY|O_CREAT|O_EXCL|O_CLOEXEC, 0600") == []
    assert faultsOf("O_WRONLY|O_CLOEXEC|O_TMPFILE, 0600") == []
    assert faultsOf("O_WRONLY|O_CREAT|O_CLOEXEC, 0600") == ["not exclusive"]
    assert faultsOf("O_WRONLY|O_CREAT|O_EXCL, 0600") == ["handed on to programs"]
    assert faultsOf("O_WRONLY|O_CREAT|O_EXCL|O_CLOEXEC, 0644") == ["not 0600 at first"]
    assert faultsOf("{flags=O_WRONLY|O_CREAT|O_EXCL|O_CLOEXEC, mode=0600, resolve=RESOLVE_IN_ROOT}") == []
    assert reasonFor("/etc/cron.d/x") is None


def snapshot(directory):
    """All that can be said of a directory and what is in it."""
    found = {}
    for path in [directory, *sorted(directory.rglob("*"))]:
        status = path.lstat()
        content = path.read_bytes() if stat.S_ISREG(status.st_mode) else b""
        found[str(path)] = (status.st_mode, status.st_uid, status.st_gid, status.st_ino, status.st_mtime_ns, content)
    return found


@pytest.fixture
def vault(pluginRoot):
    """A directory of root's within the system root, with what a link might reach."""
    directory = pluginRoot / "vault"
    directory.mkdir(mode=0o700)
    for name in ["secret", "c2s.xml", "pubsub.db"]:
        (directory / name).write_text(f"nothing for {name}\n")
        (directory / name).chmod(0o600)
    return directory


@contextlib.contextmanager
def racing(*words, user=None):
    """A racer at work. Gives the number of its exchanges at the end."""
    prefix = [] if user is None else ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
    racer = subprocess.Popen([*prefix, sys.executable, RACER, *map(str, words)], stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE, text=True)
    count = []
    try:
        assert racer.stdout.readline() == "begun\n"
        yield count
        racer.stdin.close()
        count.append(int(racer.stdout.readline()))
        racer.wait()
    finally:
        racer.kill()
        racer.wait()
        racer.stdout.close()


def raceWith(daemon, words, requests, user=None):
    """Requests that write, while links come and go. Some fail; the daemon goes on."""
    served = 0
    with racing(*words, user=user) as count:
        for number in range(requests):
            level = ["STANDARD", "ANYMETHOD"][number % 2]
            for request in [
                {"command": "writeSettings", "configuration": {"authLevel": level}},
                {"command": "writeSettings", "configuration": {"hosts": [f"d{number % 3}.example.com", "e.example.com"]}},
                {"command": "addService", "service": "mail", "hostName": f"h{number}.example.com"},
                {"command": "initialSetup"},
                {"command": "getServiceUser", "service": "calendar"},
            ]:
                answer = daemon.post(request)
                assert answer.status == 200
                served += "error" not in answer.json
    report(f"{count[0]} exchanges, {5 * requests} requests, {served} of them without an error")
    assert count[0] >= size(short=500, full=10_000)
    assert daemon.health()["status"] == "ok"


def test_links_out_of_the_root_lead_nowhere(plugin, pluginRoot, tmp_path):
    """Even where whole directories become links, which only root could do."""
    assert plugin.tool("setup").returncode == 0
    outside = tmp_path / "outside"
    outside.mkdir()
    for name in ["c2s.xml", "c2s.xml.tmp", "com.velto.Beaconry.plist"]:
        (outside / name).write_text("outside\n")
    words = []
    for place in ["etc/jabberd_notification", "Library/Preferences"]:
        link = pluginRoot / f"{place}.link"
        link.symlink_to(outside)
        words += [pluginRoot / place, link]
    for name in ["c2s.xml", "sm.xml", "jabberd.cfg", "c2s.xml.bak", "c2s.xml.tmp"]:
        link = pluginRoot / f"etc/jabberd_notification/link.{name}"
        link.symlink_to("../" * 20 + str(outside / "c2s.xml").lstrip("/"))
        words += [pluginRoot / "etc/jabberd_notification" / name, link]
    before = snapshot(outside)
    raceWith(plugin, words, size(short=15, full=1000))
    assert snapshot(outside) == before


def test_links_that_the_services_account_puts_lead_it_no_further(plugin, pluginRoot, vault):
    """In the directories that are its own, to files of root's in the same root."""
    assert plugin.tool("setup").returncode == 0
    words = []
    for place, target in [("var/db/idavoll/pubsub.db", "pubsub.db"), ("var/db/idavoll/items.db", "missing.db"),
                          ("var/jabberd/sqlite/jabberd2_notification.db", "secret")]:
        file = pluginRoot / place
        link = file.with_name(f"link.{file.name}")
        link.symlink_to(f"../../../vault/{target}")
        os.chown(link, SERVICE, SERVICE, follow_symlinks=False)
        words += [file, link]
    before = snapshot(vault)
    raceWith(plugin, ["--remove", words[0], "--remove", words[2], *words], size(short=4, full=150), user=SERVICE)
    assert snapshot(vault) == before
    plugin.post({"command": "initialSetup"})
    assert snapshot(vault) == before
