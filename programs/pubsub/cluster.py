"""The private PostgreSQL cluster: its files, its programs, and what a killed run may have left of it. For root."""

import contextlib
import os
import select
import shutil
import signal
import stat
from pathlib import Path

from account import as_account
from places import ACCOUNT, CLUSTER, CLUSTER_OWNER, DATA, LOG_DIRECTORY, NEW_CLUSTER, SOCKETS

_VERSIONS = Path("/usr/lib/postgresql")

# Small, since it serves one component; quiet, since what clients publish is none of the log's business.
_CONFIGURATION = {
    "listen_addresses": "", "unix_socket_directories": SOCKETS, "unix_socket_permissions": "0700",
    "shared_buffers": "16MB", "max_connections": "30", "max_wal_size": "128MB", "jit": "off",
    "wal_level": "minimal", "max_wal_senders": "0", "max_logical_replication_workers": "0",
    "log_destination": "stderr", "logging_collector": "off",
    "log_line_prefix": "", "log_checkpoints": "off", "log_min_error_statement": "panic",
    "log_error_verbosity": "terse",
}


class ClusterProblem(Exception):
    """Why the cluster cannot be used, for a person."""


def make_directories():
    """The directories of the service, where they are absent. ClusterProblem when one is in somebody else's hands."""
    os.makedirs(os.path.dirname(DATA), mode=0o755, exist_ok=True)
    _make_directory(DATA, 0o700)
    seen = os.lstat(DATA)
    if not stat.S_ISDIR(seen.st_mode) or seen.st_uid != ACCOUNT or stat.S_IMODE(seen.st_mode) & 0o077:
        raise ClusterProblem(f'"{DATA}" is not a directory of account {ACCOUNT} that is closed to others')
    os.makedirs(os.path.dirname(LOG_DIRECTORY), mode=0o755, exist_ok=True)
    _make_directory(LOG_DIRECTORY, 0o750)
    with as_account():
        with contextlib.suppress(FileExistsError):
            os.mkdir(SOCKETS, 0o700)


def _make_directory(path, mode):
    with contextlib.suppress(FileExistsError):
        os.mkdir(path, mode)
    seen = os.lstat(path)
    # Also where an earlier run was cut off before it came to this.
    if stat.S_ISDIR(seen.st_mode) and seen.st_uid == 0:
        os.chown(path, ACCOUNT, ACCOUNT, follow_symlinks=False)


def exists():
    """A cluster takes its name when it is complete and on disk."""
    with as_account():
        return os.path.isdir(CLUSTER)


def programs():
    """The directory of PostgreSQL's programs: of the version that made the cluster, else the newest."""
    versions = {each.name: each / "bin" for each in _VERSIONS.glob("*") if (each / "bin/postgres").exists()}
    if not exists():
        if not versions:
            raise ClusterProblem("PostgreSQL is missing: install the package postgresql")
        return versions[max(versions, key=lambda name: [int(part) for part in name.split(".") if part.isdigit()])]
    with as_account():
        version = Path(CLUSTER, "PG_VERSION").read_text(encoding="ascii").strip()
    if version not in versions:
        raise ClusterProblem(f'"{CLUSTER}" was made by PostgreSQL {version}: install the package postgresql-{version}')
    return versions[version]


def making():
    """The command lines that make a new cluster beside the real one's place, to be run as the account one after
    the other; `take_name` ends the work."""
    with as_account():
        if os.path.lexists(NEW_CLUSTER):
            shutil.rmtree(NEW_CLUSTER)
    return [
        [str(programs() / "initdb"), "-D", NEW_CLUSTER, "-U", CLUSTER_OWNER, "-A", "trust", "-E", "UTF8",
         "--locale=C", "--no-sync", "--no-instructions"],
        # Once over all the files, where initdb would flush a thousand of them one by one.
        ["/usr/bin/sync", "--file-system", NEW_CLUSTER],
    ]


def take_name():
    with as_account():
        os.rename(NEW_CLUSTER, CLUSTER)
        directory = os.open(DATA, os.O_RDONLY | os.O_DIRECTORY)
        try:
            os.fsync(directory)
        finally:
            os.close(directory)


def server():
    """The command line of the server."""
    line = [str(programs() / "postgres"), "-D", CLUSTER]
    for name, value in _CONFIGURATION.items():
        line += ["-c", f"{name}={value}"]
    return line


def end_left_over():
    """Ends what still works on the cluster, which only a run that was killed can have left, and removes the traces
    by which the server would take another process of the account for itself. The caller holds the lock."""
    # As the account: that is who may look into the account's processes, root without all its powers may not.
    with as_account():
        for pid in _left_over():
            _kill(pid)
        for name in (f"{CLUSTER}/postmaster.pid", f"{SOCKETS}/.s.PGSQL.5432.lock", f"{SOCKETS}/.s.PGSQL.5432"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(name)


def _kill(pid):
    with contextlib.suppress(ProcessLookupError):
        handle = os.pidfd_open(pid)
        try:
            if _works_here(pid):  # still the one that was seen
                signal.pidfd_send_signal(handle, signal.SIGKILL)
                select.select([handle], [], [], 5)
        finally:
            os.close(handle)


def _left_over():
    return [int(each) for each in os.listdir("/proc") if each.isdigit() and _works_here(int(each))]


def _works_here(pid):
    """Is it a server or one of its workers, which all have the cluster as their working directory?"""
    with contextlib.suppress(OSError):
        return (os.stat(f"/proc/{pid}").st_uid == ACCOUNT and os.readlink(f"/proc/{pid}/cwd") in (CLUSTER, NEW_CLUSTER)
                and os.path.basename(os.readlink(f"/proc/{pid}/exe")).split(" ")[0] in ("postgres", "initdb"))
    return False
