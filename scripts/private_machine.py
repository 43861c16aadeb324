"""A private machine: a directory tree with its own processes, network, host name and accounts, made with
bubblewrap, in which the whole service runs without touching the computer that it runs on.

The tree lies in one file system, so renames work as on a real installation. Debian's own /usr is shown
read-only; its bin, sbin, libexec and share are shown entry by entry, with the programs that were built here
among them as if they were installed.
"""

import contextlib
import fcntl
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
HOST_NAME = "push.example.test"
ADMIN_GROUP = "tessard-admin"
SOCKET = "/run/tessardd/tessardd.sock"
CONFIGURATION = "/private/etc/jabberd_notification"
_PREFIX = "tessard-machine-"
_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"

# What a service manager, an administration daemon and jabberd need; nothing that reaches outside the machine,
# such as setting the clock or making device nodes.
_CAPABILITIES = (
    "chown dac_override dac_read_search fowner fsetid kill setgid setuid setpcap net_bind_service sys_chroot"
).split()
_BOUNDING = "-all," + ",".join("+" + each for each in _CAPABILITIES)

_PASSWD = """\
root:x:0:0:root:/root:/bin/sh
jabberd:x:84:84:jabberd service:/var/jabberd:/usr/sbin/nologin
admin:x:1000:1000:an administrator:/:/bin/sh
visitor:x:1001:1001:somebody else:/:/bin/sh
nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin
"""
_GROUP = """\
root:x:0:
daemon:x:1:
shadow:x:42:
utmp:x:43:
admins:x:80:
jabberd:x:84:
tessard-admin:x:999:admin
admin:x:1000:
visitor:x:1001:
nogroup:x:65534:
"""
_PAM_KINDS = ("auth", "account", "password", "session")
_NSSWITCH = "passwd: files\ngroup: files\nshadow: files\nhosts: files\n"

# Its services start when they are told to.
_DAEMON_CONFIGURATION = "service-manager = s6\ns6-scan-directory = /run/service\n"
_DAEMON_RUN = """\
#!/bin/sh
exec tessardd >>/var/log/tessardd.log 2>&1
"""
# Services that the administration daemon neither starts nor stops.
_ALWAYS_UP = ("tessard-saslauthd",)
_SYSLOG_RUN = """\
#!/bin/sh
exec python3 /run/machine/syslog_to_file.py /dev/log /var/log/system.log
"""


class MachineError(Exception):
    """Something that the machine needs is missing or did not work; the text is for a person."""


def wait_until(condition, what, seconds=60.0, still_possible=lambda: True):
    """Returns the first true answer of `condition`. Raises MachineError, naming `what`, when `seconds` have
    passed or `still_possible` says that waiting has become pointless."""
    end = time.monotonic() + seconds
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end or not still_possible():
            raise MachineError(f"waited in vain for {what}")
        time.sleep(0.02)


class PrivateMachine:
    """One machine. Use it in a with statement, or call `start` and `stop`; `stop` may be called at any time and
    leaves neither a process nor a file."""

    def __init__(self, build, host_name=HOST_NAME, extra_hosts=()):
        self.build = Path(build).resolve()
        self.host_name = host_name
        self.extra_hosts = list(extra_hosts)
        self.pid = None
        self._bwrap = None
        self._cleanup = contextlib.ExitStack()
        self.directory = None

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    # --- files, seen from outside ---------------------------------------------------------------------------

    @property
    def root(self):
        return self.directory / "root"

    def outside(self, path):
        """The place of one of the machine's own files in the surrounding system."""
        return self.root / path.lstrip("/")

    def read(self, path):
        return self.outside(path).read_text()

    def write(self, path, text, mode=0o644, owner=(0, 0)):
        place = self.outside(path)
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(text)
        os.chown(place, *owner)
        place.chmod(mode)

    # --- life -----------------------------------------------------------------------------------------------

    def start(self):
        mask = os.umask(0o022)
        try:
            self._start()
        finally:
            os.umask(mask)

    def _start(self):
        remove_abandoned()
        self.directory = Path(tempfile.mkdtemp(prefix=_PREFIX))
        self._cleanup.callback(_remove, self.directory)
        lock = self._cleanup.enter_context(open(self.directory / "lock", "w", encoding="ascii"))
        fcntl.flock(lock, fcntl.LOCK_EX)
        self._lay_out_root()
        self._lay_out_usr()
        self._write_accounts_and_names()
        self.write("/etc/tessardd/tessardd.conf", _DAEMON_CONFIGURATION)
        self._lay_out_services()
        self.define_service("syslog", _SYSLOG_RUN)
        self._boot()

    def stop(self):
        process, self._bwrap, pid, self.pid = self._bwrap, None, self.pid, None
        if process is not None:
            # The first process brings its services down; when it dies, the kernel ends all the others.
            for number, patience in ((signal.SIGTERM, 5), (signal.SIGKILL, 5)):
                with contextlib.suppress(ProcessLookupError):
                    if pid is not None:
                        os.kill(pid, number)
                with contextlib.suppress(subprocess.TimeoutExpired):
                    process.wait(patience)
                    break
            else:
                process.kill()
                process.wait()
        self._cleanup.close()

    def wait(self):
        """Returns when the machine has ended by itself."""
        self._bwrap.wait()

    def alive(self):
        return self._bwrap is not None and self._bwrap.poll() is None

    def _lay_out_root(self):
        root = self.root
        for name in ("dev", "proc", "host/usr", "usr", "etc/alternatives", "etc/ssl", "etc/security", "etc/default",
                     "run/service", "run/machine", "var/log", "var/db", "var/lib", "var/tmp", "tmp", "root", "Library/Preferences",
                     "Library/Logs/Migration", "Library/Server", "private"):
            (root / name).mkdir(parents=True, exist_ok=True)
        for path in (root, *root.iterdir()):
            path.chmod(0o755)
        for name in ("tmp", "var/tmp"):
            (root / name).chmod(0o1777)
        (root / "root").chmod(0o700)
        for name in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
            if Path("/usr", name).exists():
                (root / name).symlink_to(f"usr/{name}")
        (root / "var/run").symlink_to("../run")
        (root / "private/etc").symlink_to("../etc")
        (root / "private/var").symlink_to("../var")
        for name in ("syslog_to_file.py", "xmpp_client.py"):
            shutil.copy(PROJECT / "scripts" / name, root / "run/machine")

    def _lay_out_usr(self):
        """Fills the directories that hold entries of our own beside Debian's."""
        usr = _usr_of(self.directory)
        usr.mkdir(mode=0o755)
        self._binds = []
        for entry in sorted(Path("/usr").iterdir()):
            place = usr / entry.name
            if entry.is_symlink():
                place.symlink_to(os.readlink(entry))
                continue
            place.mkdir(parents=True)
            if entry.name not in ("bin", "sbin", "libexec", "share"):
                self._binds.append((entry, f"/usr/{entry.name}"))
                continue
            for child in entry.iterdir():
                (place / child.name).symlink_to(f"/host/usr/{entry.name}/{child.name}")
        self._show(self.build / "bin/tessardctl", "bin/tessardctl")
        self._show(self.build / "bin/tessardd", "sbin/tessardd")
        self._show(self.build / "programs/keywarden", "sbin/keywarden")
        self._show(self.build / "bundles", "share/tessardd/bundles")
        self._show(PROJECT / "share/templates", "share/tessardd/templates")
        self._show(PROJECT / "share/Beaconry", "share/Beaconry")
        self._show(PROJECT / "programs/pubsub", "libexec/tessardd/pubsub")
        for directory in (PROJECT / "programs", self.build / "programs", self.build / "libexec"):
            for program in sorted(directory.iterdir()) if directory.is_dir() else ():
                if program.is_file() and os.access(program, os.X_OK):
                    self._show(program, f"libexec/tessardd/{program.name}")

    def _show(self, source, name):
        if not source.exists():
            return
        place = _usr_of(self.directory) / name
        if place.is_symlink():
            place.unlink()
        if source.is_dir():
            place.mkdir(parents=True, exist_ok=True)
        else:
            place.parent.mkdir(parents=True, exist_ok=True)
            place.touch()
        self._binds.append((source, f"/usr/{name}"))

    def _lay_out_services(self):
        """The services of an installation with s6, most of them disabled as they are at first."""
        for source in sorted((PROJECT / "share/s6").iterdir()):
            place = self.outside(f"/run/service/{source.name}")
            shutil.copytree(source, place)
            if source.name not in _ALWAYS_UP:
                (place / "down").touch()
            for path in (place, *place.iterdir()):
                os.chown(path, 0, 0)

    def _write_accounts_and_names(self):
        short = self.host_name.split(".", maxsplit=1)[0]
        hosts = "127.0.0.1 localhost\n127.0.1.1 " + f"{self.host_name} {short}\n"
        hosts += "".join(f"127.0.2.{number} {name}\n" for number, name in enumerate(self.extra_hosts, 1))
        for name, text in (("passwd", _PASSWD), ("group", _GROUP), ("nsswitch.conf", _NSSWITCH), ("hosts", hosts),
                           ("hostname", self.host_name + "\n"), ("resolv.conf", "")):
            self.write(f"/etc/{name}", text)
        shadow = "".join(line.split(":")[0] + ":!:20000:0:99999:7:::\n" for line in _PASSWD.splitlines())
        self.write("/etc/shadow", shadow, 0o640, (0, 42))
        shutil.copytree(PROJECT / "share/pam.d", self.root / "etc/pam.d")
        self.write("/etc/pam.d/other", "".join(f"{kind} required pam_deny.so\n" for kind in _PAM_KINDS))
        for name in ("useradd", "locale"):
            if Path("/etc/default", name).is_file():
                shutil.copy(Path("/etc/default", name), self.root / "etc/default")
        if Path("/etc/ld.so.cache").is_file():
            shutil.copy("/etc/ld.so.cache", self.root / "etc")

    def _boot(self):
        reader, writer = os.pipe()
        command = ["bwrap", "--unshare-pid", "--as-pid-1", "--unshare-net", "--unshare-uts", "--unshare-ipc",
                   "--die-with-parent", "--hostname", self.host_name, "--cap-drop", "ALL"]
        for capability in _CAPABILITIES:
            command += ["--cap-add", "CAP_" + capability.upper()]
        command += ["--bind", str(self.root), "/", "--ro-bind", str(_usr_of(self.directory)), "/usr",
                    "--ro-bind", "/usr", "/host/usr"]
        for source, place in self._binds:
            command += ["--ro-bind", str(source), place]
        for name in ("alternatives", "ssl", "security"):
            command += ["--ro-bind-try", f"/etc/{name}", f"/etc/{name}"]
        command += ["--proc", "/proc", "--dev", "/dev", "--chdir", "/", "--clearenv", "--setenv", "PATH", _PATH,
                    "--setenv", "LANG", "C.UTF-8", "--json-status-fd", str(writer), "--",
                    # bwrap leaves the set that a program could gain powers from as it was.
                    "setpriv", "--bounding-set", _BOUNDING, "s6-svscan", "/run/service"]
        log = self._cleanup.enter_context(open(self.directory / "boot.log", "wb"))
        # A session of its own: Ctrl-C is for us, who then end the machine in good order.
        self._bwrap = subprocess.Popen(command, pass_fds=(writer,), stdin=subprocess.DEVNULL, stdout=log,
                                       stderr=log, start_new_session=True)
        os.close(writer)
        with open(reader, encoding="utf-8") as status:
            for line in iter(status.readline, ""):
                self.pid = json.loads(line).get("child-pid")
                if self.pid is not None:
                    break
        if self.pid is None:
            raise MachineError(f"the private machine does not start: {self._boot_log()}")
        (self.directory / "pid").write_text(str(self.pid))
        device = Path(f"/proc/{self.pid}/root/dev/log")
        try:
            wait_until(device.exists, "the machine's system log", still_possible=self.alive)
        except MachineError as problem:
            raise MachineError(f"{problem}: {self._boot_log()}") from None

    def _boot_log(self):
        return (self.directory / "boot.log").read_text(errors="replace").strip()

    # --- programs inside ------------------------------------------------------------------------------------

    def command(self, arguments, user=0, group=None, groups=()):
        return command_inside(self.pid, arguments, user, group, groups)

    def run(self, *arguments, user=0, group=None, groups=(), input=None, timeout=120, check=True):
        """Runs a program inside to its end; output is text. With `check`, a failure raises MachineError."""
        result = subprocess.run(self.command([str(each) for each in arguments], user, group, groups),
                                input="" if input is None else input, capture_output=True, text=True,
                                timeout=timeout, check=False)
        if check and result.returncode != 0:
            said = (result.stderr.strip() or result.stdout.strip())
            raise MachineError(f"{' '.join(map(str, arguments))}: exit status {result.returncode}: {said}")
        return result

    def popen(self, *arguments, user=0, **options):
        return subprocess.Popen(self.command([str(each) for each in arguments], user), **options)

    def from_outside(self, *arguments):
        """Runs a program of the surrounding system, with all its powers, on the machine's network and host name:
        what a person at the machine could do and nobody in it can."""
        subprocess.run(["nsenter", "--target", str(self.pid), "--net", "--uts", *map(str, arguments)], check=True,
                       capture_output=True, text=True, timeout=60)

    def system_log(self):
        """The system log, with everything in it that was logged before the call."""
        mark = f"mark {time.monotonic_ns()}"
        self.run("logger", "--", mark)
        wait_until(lambda: mark in self.read("/var/log/system.log"), "the system log", still_possible=self.alive)
        return self.read("/var/log/system.log")

    # --- services -------------------------------------------------------------------------------------------

    def define_service(self, name, run_script):
        """Lays down a service of s6; it starts with the machine, or at the next `rescan`."""
        self.write(f"/run/service/{name}/run", run_script, 0o755)

    def rescan(self):
        self.run("s6-svscanctl", "-a", "/run/service")

    def start_daemon(self):
        if not (self.build / "bin/tessardd").exists():
            raise MachineError(f"there is no tessardd in {self.build}/bin; build it first")
        self.define_service("tessardd", _DAEMON_RUN)
        self.rescan()
        self.wait_for_daemon()

    def daemon_pid(self):
        """The daemon's process, by its number inside; 0 when it is down."""
        status = self.run("s6-svstat", "-o", "pid", "/run/service/tessardd", check=False).stdout.strip()
        return int(status) if status.isdigit() else 0

    def daemon_answers(self):
        return self.run("tessardctl", "health", check=False).returncode == 0

    def wait_for_daemon(self):
        try:
            wait_until(self.daemon_answers, "the daemon's answer", still_possible=self.alive)
        except MachineError as problem:
            log = self.outside("/var/log/tessardd.log")
            raise MachineError(f"{problem}: {log.read_text().strip() if log.exists() else 'it wrote no log'}") from None

    def prepare_instance(self):
        self.run("/usr/libexec/tessardd/prepare-instance")


def add_account(machine, name, password, *options):
    """Makes an account of the machine's own, or gives one that is there another password. Its password is a secret to
    argument lists, its kind of hash one that is quick to check, as many logins are made."""
    if machine.run("getent", "passwd", name, check=False).returncode != 0:
        machine.run("useradd", "--no-create-home", "--shell", "/usr/bin/false", *options, "--", name)
    set_password(machine, name, password)


def set_password(machine, name, password):
    machine.run("chpasswd", "--crypt-method", "SHA512", input=f"{name}:{password}\n")


def command_inside(pid, arguments, user=0, group=None, groups=()):
    """The command line that runs a program in the machine whose first process is `pid`."""
    group = user if group is None else group
    membership = ["--groups", ",".join(map(str, groups))] if groups else ["--clear-groups"]
    return ["nsenter", "--target", str(pid), "--mount", "--uts", "--ipc", "--net", "--pid",
            "env", "-i", f"PATH={_PATH}", "LANG=C.UTF-8", "HOME=/root",
            "setpriv", "--no-new-privs", "--bounding-set", _BOUNDING, f"--reuid={user}", f"--regid={group}",
            *membership, "--", *arguments]


def _usr_of(directory):
    """Where a machine's /usr is laid out: some thousand links, so in memory where that can be."""
    memory = Path("/dev/shm")
    return memory / directory.name if os.access(memory, os.W_OK) else directory / "usr"


def _remove(directory):
    shutil.rmtree(_usr_of(directory), ignore_errors=True)
    shutil.rmtree(directory, ignore_errors=True)


def _machines():
    return sorted(Path(tempfile.gettempdir()).glob(_PREFIX + "*"))


def _is_abandoned(directory):
    try:
        with open(directory / "lock", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return True
    except OSError:
        return False


def remove_abandoned():
    """Removes what machines left behind whose owner was killed; the kernel ended their processes."""
    for directory in _machines():
        if directory.stat().st_uid == os.geteuid() and _is_abandoned(directory):
            _remove(directory)


def running_machines():
    """First process and directory of every machine that runs now, the youngest last."""
    found = []
    for directory in _machines():
        pid_file = directory / "pid"
        if pid_file.exists() and not _is_abandoned(directory):
            found.append((int(pid_file.read_text()), directory))
    return sorted(found, key=lambda machine: (machine[1] / "pid").stat().st_mtime)
