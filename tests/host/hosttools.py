"""The daemon, its clients and the command-line tool, as the tests drive them."""

import contextlib
import http.client
import json
import os
import pathlib
import plistlib
import pty
import select
import signal
import socket
import struct
import subprocess
import time

import pytest

PATIENCE = 60  # seconds after which a test is stuck; nothing waits for it to pass
NOBODY = 65534
GAMES = 60  # a group that every Debian has, as the administrators'


def buildDirectory():
    return pathlib.Path(os.environ["TESSARD_BUILD_DIR"]).resolve()


PLUGIN_BUNDLE = buildDirectory() / "bundles/tessard_notification.bundle"
needsPlugin = pytest.mark.skipif(
    not (PLUGIN_BUNDLE / "Contents/Linux/tessard_notification.so").exists(), reason="the plug-in's bundle is not built")


def waitUntil(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"gave up waiting until {what}"
        time.sleep(0.01)


def awaitTidy(root, daemon=None):
    """Until what the journal held for an answered request is removed, or the daemon has died."""
    home = root / "Library/Server/tessardd/journal"
    left = [home / "undoable", home / "kept"]
    waitUntil(lambda: (daemon and daemon.process.poll() is not None) or not any(one.exists() for one in left),
              "the journal is empty")


def asUser(user, groups=()):
    """The words before a command that is to run as another user."""
    chosen = f"--groups={','.join(map(str, groups))}" if groups else "--clear-groups"
    return ["setpriv", f"--reuid={user}", f"--regid={user}", chosen]


@contextlib.contextmanager
def actingAs(user, group=GAMES):
    """Connections that are made meanwhile are this user's, as a member of the group."""
    before = os.getgroups()
    os.setgroups([group])
    os.setegid(group)
    os.seteuid(user)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups(before)


class Connection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=PATIENCE)
        self.path = str(path)

    def connect(self):
        self.sock = rawConnection(self.path)


def rawConnection(path):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    # Waits for its turn like other programs, where Python's own time limit would give up at once.
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", PATIENCE, 0))
    with shortName(path) as name:
        connection.connect(name)
    connection.settimeout(PATIENCE)
    return connection


@contextlib.contextmanager
def shortName(path):
    """A name for a socket that fits into a socket address however long the path is."""
    path = pathlib.Path(path)
    directory = os.open(path.parent, os.O_PATH | os.O_DIRECTORY)
    try:
        yield f"/proc/self/fd/{directory}/{path.name}"
    finally:
        os.close(directory)


def readAll(connection):
    """Everything until the other side closes."""
    received = b""
    while True:
        try:
            part = connection.recv(65536)
        except ConnectionResetError:
            return received
        if not part:
            return received
        received += part


def parseRaw(received):
    """Status and JSON body of a whole answer."""
    head, _, body = received.partition(b"\r\n\r\n")
    return int(head.split()[1]), json.loads(body)


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.type = response.getheader("Content-Type")
        self.body = response.read()

    @property
    def json(self):
        return json.loads(self.body)

    @property
    def plist(self):
        return plistlib.loads(self.body)

    @property
    def error(self):
        """The id of an error answer that has the form of all error answers."""
        assert self.type == "application/json"
        content = self.json
        assert content["message"].endswith(".") and "\n" not in content["message"]
        return content["error"]


class Daemon:
    def __init__(self, root, *options, user=None, prefix=()):
        self.root = pathlib.Path(root)
        self.socket = self.root / "run/tessardd/tessardd.sock"
        self.notification = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notification.bind("")  # an abstract name that the kernel chooses
        self.notification.settimeout(PATIENCE)
        name = "@" + self.notification.getsockname()[1:].decode()
        prefix = [*prefix, *([] if user is None else asUser(user))]
        self.process = subprocess.Popen(
            [*prefix, buildDirectory() / "bin/tessardd", "--root", str(root), *options],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env={**os.environ, "NOTIFY_SOCKET": name},
        )

    def awaitReady(self):
        while True:
            readable, _, _ = select.select([self.notification], [], [], 0.05)
            if readable and b"READY=1" in self.notification.recv(4096):
                return
            assert self.process.poll() is None, self.process.stderr.read()

    def failure(self):
        """Exit status and standard error of a daemon that does not start."""
        _, text = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, text

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        _, text = self.process.communicate(timeout=PATIENCE)
        self.notification.close()
        assert "ThreadSanitizer" not in text and "AddressSanitizer" not in text, text
        return self.process.returncode, text

    def connection(self):
        return Connection(self.socket)

    def raw(self):
        return rawConnection(self.socket)

    def send(self, method, path, body=None, connection=None, **headers):
        connection = connection or self.connection()
        named = {name.replace("_", "-"): value for name, value in headers.items()}
        connection.request(method, path, body, named)
        return Answer(connection.getresponse())

    def post(self, content, path="/v1/plugins/notification", **headers):
        """Posts a value as JSON, or bytes as they are."""
        body = content if isinstance(content, bytes) else json.dumps(content).encode()
        return self.send("POST", path, body, **{"Content_Type": "application/json", **headers})

    def echo(self, **entries):
        return self.post({"command": "echo", **entries})

    def assertServes(self):
        answer = self.echo(still="here")
        assert answer.status == 200 and answer.json["still"] == "here"

    def health(self):
        return self.send("GET", "/v1/health").json

    def tool(self, *words, input=None, user=None, groups=()):
        prefix = [] if user is None else asUser(user, groups)
        return subprocess.run(
            [*prefix, buildDirectory() / "bin/tessardctl", "--socket", self.socket, *words],
            input=input,
            stdin=subprocess.DEVNULL if input is None else None,
            capture_output=True,
            text=True,
            timeout=PATIENCE,
        )


class TerminalTool:
    """The command-line tool on a terminal of its own, which is its standard error, and with `whole` its standard
    input and output too, and controls it."""

    def __init__(self, daemon, *words, whole=False, **environment):
        self._ours, its = pty.openpty()
        self.process = subprocess.Popen(
            [buildDirectory() / "bin/tessardctl", "--socket", daemon.socket, *words],
            stdin=its if whole else subprocess.DEVNULL,
            stdout=its if whole else subprocess.DEVNULL,
            stderr=its,
            preexec_fn=(lambda: os.login_tty(its)) if whole else None,
            env={**{k: v for k, v in os.environ.items() if k != "NO_COLOR"}, **environment},
        )
        os.close(its)
        self.shown = b""

    def awaitText(self, text):
        while text not in self.shown:
            assert self._read(), f"the tool has ended and showed {self.shown}"

    def type(self, text):
        os.write(self._ours, text)

    def finish(self):
        """The exit status, once the tool has ended by itself."""
        while self._read():
            pass
        os.close(self._ours)
        return self.process.wait(PATIENCE)

    def _read(self):
        """Whether anything came before the tool ended."""
        readable, _, _ = select.select([self._ours], [], [], PATIENCE)
        assert readable, f"the tool shows no more than {self.shown}"
        try:
            part = os.read(self._ours, 4096)
        except OSError:
            part = b""
        self.shown += part
        return part != b""


class RunningRequest:
    """A request that holds the work slot until it is told to end."""

    def __init__(self, daemon, name="hold", connection=None, begins=True):
        self.daemon = daemon
        self.begun = daemon.root / f"{name}.begun"
        self.until = daemon.root / f"{name}.until"
        self.connection = connection or daemon.connection()
        request = {"command": "wait", "begun": f"/{name}.begun", "until": f"/{name}.until"}
        self.connection.request(
            "POST",
            "/v1/plugins/notification",
            json.dumps(request),
            {"Content-Type": "application/json"},
        )
        if begins:
            waitUntil(self.begun.exists, "the request has begun")

    def finish(self):
        self.until.touch()
        return Answer(self.connection.getresponse())

    def leave(self):
        self.connection.close()


def openConnections(daemon):
    """How many clients the daemon has. Listening and datagram sockets are none."""
    kinds = {}
    for line in open("/proc/net/unix").read().splitlines()[1:]:
        fields = line.split()
        listening = int(fields[3], 16) & 0x10000 != 0
        kinds[fields[6]] = fields[4] == "0001" and not listening
    return sum(1 for target in targets(daemon) if target.startswith("socket:[") and kinds.get(target[8:-1]))


def targets(daemon):
    directory = f"/proc/{daemon.process.pid}/fd"
    found = []
    for name in os.listdir(directory):
        try:
            found.append(os.readlink(f"{directory}/{name}"))
        except FileNotFoundError:
            pass
    return found
