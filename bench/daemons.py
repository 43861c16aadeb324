"""A daemon on a scratch root, as the bench needs it."""

import http.client
import json
import os
import re
import select
import socket
import subprocess
from pathlib import Path

_PATIENCE = 120


class _Connection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=_PATIENCE)
        self.path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(_PATIENCE)
        self.sock.connect(self.path)


def command(root, build):
    """The words that start a daemon on a root."""
    return [str(build / "bin/tessardd"), "--root", str(root), "--programs", str(build / "programs"), "--idle-seconds", "0"]


class Daemon:
    """Started on entry, ready then; ended and waited for on exit."""

    def __init__(self, root, build):
        self.socket = Path(root, "run/tessardd/tessardd.sock")
        self._command = command(root, build)

    def __enter__(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notices:
            notices.bind("")  # an abstract name that the kernel chooses
            self.process = subprocess.Popen(
                self._command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                env={**os.environ, "NOTIFY_SOCKET": "@" + notices.getsockname()[1:].decode()})
            while b"READY=1" not in self._notice(notices):
                if self.process.poll() is not None:
                    raise RuntimeError(f"the daemon ended with {self.process.returncode}")
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(_PATIENCE)

    @staticmethod
    def _notice(notices):
        readable, _, _ = select.select([notices], [], [], 0.05)
        return notices.recv(4096) if readable else b""

    def post(self, request):
        connection = _Connection(self.socket)
        connection.request("POST", "/v1/plugins/notification", json.dumps(request), {"Content-Type": "application/json"})
        answer = connection.getresponse().read()
        connection.close()
        return json.loads(answer)

    def memory(self):
        """Peak of all memory and peak of anonymous memory so far, in KiB."""
        status = Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        size = {key: int(number) for key, number in re.findall(r"^(\w+):\s+(\d+) kB$", status, re.M)}
        return size["VmHWM"], size["VmHWM"] - size["RssFile"] - size["RssShmem"]
