"""What the service says: to standard error, to the system log, and its errors to a log of their own."""

import contextlib
import os
import stat
import sys
import syslog
import time

from account import as_account
from places import ERROR_LOG

# An error log that has grown to this makes room for a new one and is kept as the one before.
_ENOUGH = 8 << 20


class Say:
    """Says sentences as one program. What `hide` was told never leaves it. Standard error is left out where it leads
    to the journal, which has the lines of the system log too."""

    def __init__(self, program):
        self._program = program
        self._hidden = []
        self._alone = _standard_error_is_journal()
        # The word that administrators filter the system log by is in the identity.
        syslog.openlog(f"pubsub_notification/{program}", syslog.LOG_PID, syslog.LOG_LOCAL3)

    def hide(self, secret):
        # A very short one would be found in every other word.
        if secret and len(secret) >= 4:
            self._hidden.append(secret)

    def info(self, text):
        self._say(syslog.LOG_NOTICE, text)

    def detail(self, text):
        """For the system log alone."""
        self._say(syslog.LOG_INFO, text, aloud=False)

    def error(self, text):
        _append_to_error_log(self._say(syslog.LOG_ERR, text))

    def _say(self, level, text, aloud=True):
        for secret in self._hidden:
            text = text.replace(secret, "********")
        for line in text.splitlines():
            # Clients have a say in some of what is logged.
            line = "".join(each if each.isprintable() else "?" for each in line)
            syslog.syslog(level, line)
            if aloud and not self._alone:
                with contextlib.suppress(OSError):
                    print(f"pubsub {self._program}: {line}", file=sys.stderr, flush=True)
        return text


def _standard_error_is_journal():
    # The variable is handed down to programs whose standard error is another too: so the file itself counts.
    with contextlib.suppress(OSError):
        seen = os.fstat(sys.stderr.fileno())
        return os.environ.get("JOURNAL_STREAM") == f"{seen.st_dev}:{seen.st_ino}"
    return False


def _append_to_error_log(text):
    moment = time.strftime("%Y-%m-%d %H:%M:%S +0000", time.gmtime())
    # The account may do as it likes in the log's directory, so nobody mightier than it writes there.
    with contextlib.suppress(OSError), as_account():
        flags = os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC
        descriptor = os.open(ERROR_LOG, flags, 0o640)
        try:
            seen = os.fstat(descriptor)
            if not stat.S_ISREG(seen.st_mode):
                return
            os.write(descriptor, f"{moment} {text.rstrip()}\n".encode(errors="replace"))
            if seen.st_size > _ENOUGH:
                os.replace(ERROR_LOG, f"{ERROR_LOG}.1")
        finally:
            os.close(descriptor)
