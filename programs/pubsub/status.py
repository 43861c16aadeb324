"""Tells whoever waits for the service how far its parts are; the administration daemon reads it."""

import contextlib
import os
import plistlib

_DIRECTORY = "/run/tessard-services"
_FILE = f"{_DIRECTORY}/com.velto.Beaconry.plist"


class Status:
    """What cannot be published is let go: the service does not depend on it."""

    def __init__(self, *parts):
        self._status = {"pid": os.getpid(), "state": "starting", "reason": "",
                        "parts": [{"name": name, "state": "waiting", "pid": 0} for name in parts]}

    def become(self, state):
        """ "starting", "running", "stopping", "restarting" or "failed" """
        self._status["state"] = state
        self._publish()

    def part(self, name, state, pid=None):
        """ "starting", "ready" or "ended"; of what was not named at the beginning nothing is told """
        for part in self._status["parts"]:
            if part["name"] == name:
                part["state"] = state
                part["pid"] = part["pid"] if pid is None else pid
                self._publish()

    def blame(self, sentence):
        """Why the service fails or restarts. The first sentence counts; what follows are consequences."""
        self._status["reason"] = self._status["reason"] or sentence

    def withdraw(self):
        with contextlib.suppress(OSError):
            os.unlink(_FILE)

    def _publish(self):
        with contextlib.suppress(OSError):
            os.makedirs(_DIRECTORY, mode=0o755, exist_ok=True)
            new = f"{_FILE}.new"
            with contextlib.suppress(FileNotFoundError):
                os.unlink(new)
            with open(os.open(new, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o644), "wb") as file:
                plistlib.dump(self._status, file)
            os.rename(new, _FILE)
