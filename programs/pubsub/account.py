"""Work as the service's account: file work of our own, and the processes of the service."""

import contextlib
import ctypes
import os
import signal
import subprocess

from places import ACCOUNT

_LIBC = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1
_PR_SET_NAME = 15
_PR_SET_NO_NEW_PRIVS = 38
_ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "LC_ALL": "C.UTF-8"}
_HANDED_DOWN = ("JOURNAL_STREAM",)


def go_by_name(name):
    """The kernel's name for this process from now on, at most 15 bytes."""
    _LIBC.prctl(_PR_SET_NAME, name.encode(), 0, 0, 0)


@contextlib.contextmanager
def as_account():
    """What is done inside has the account's rights to files and no more. For root on its only thread; anybody
    else stays who they are."""
    if os.geteuid() != 0:
        yield
        return
    os.setegid(ACCOUNT)
    os.seteuid(ACCOUNT)
    try:
        yield
    finally:
        os.seteuid(0)
        os.setegid(0)


def start_part(arguments, directory="/", **options):
    """Starts a program as the account, with next to nothing of our environment and no right to gain others. The kernel
    kills it when this process ends, however that happens. OSError when it cannot be started."""
    parent = os.getpid()

    def before_the_program():
        # After the change of the account, which would take this back; a parent that has ended already is noticed.
        if (_LIBC.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0) != 0
                or _LIBC.prctl(_PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or os.getppid() != parent):
            os._exit(126)

    environment = _ENVIRONMENT | {name: os.environ[name] for name in _HANDED_DOWN if name in os.environ}
    return subprocess.Popen(arguments, cwd=directory, env=environment, stdin=subprocess.DEVNULL, umask=0o077,
                            user=ACCOUNT, group=ACCOUNT, extra_groups=[], preexec_fn=before_the_program, **options)
