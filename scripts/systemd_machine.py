"""A machine that systemd runs: a throw-away copy of a Debian tree, with what an installation of ours adds to it,
booted by systemd-nspawn in namespaces of its own.

The copy is an overlay in memory that only those namespaces see, so nothing of it is left on the computer when the
machine ends, however it ends; only its control group is left after a kill, and removed by the next machine.
"""

import contextlib
import fcntl
import os
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from private_machine import HOST_NAME, MachineError, wait_until
from systemd_tree import systemd_tree

_PREFIX = "tessard-systemd-"
_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
# What root of the machine must not have, as it would act on the whole computer.
_BOUNDING = ",".join("-" + each for each in "sys_time sys_module sys_rawio sys_boot wake_alarm syslog bpf perfmon".split())

# Arguments: control group, Debian tree, installation. Machines that start at once must not share a control group, and
# where the computer's hierarchy is an old one, systemd gets the unified one all the same. 133 asks for a reboot.
_LAY_OUT = """
set -eu
mount -t tmpfs -o mode=0755 tessardd /run
mkdir /run/lock /run/tree /run/installation /run/root /run/over
mount --bind "$2" /run/tree
mount --bind "$3" /run/installation
mount -t tmpfs -o mode=0755 tessardd /run/over
mkdir /run/over/upper /run/over/work
mount -t overlay -o lowerdir=/run/installation:/run/tree,upperdir=/run/over/upper,workdir=/run/over/work tessardd /run/root
mount -t cgroup2 tessardd /sys/fs/cgroup
own=/sys/fs/cgroup$(sed -n 's/^0:://p' /proc/self/cgroup)
mkdir "$own/$1"
echo 0 >"$own/$1/cgroup.procs"
"""
_INSTALL = """
chroot /run/root systemd-sysusers
if [ -e /run/root/usr/sbin/tessardd ]; then chroot /run/root systemctl enable --quiet tessardd.socket tessardd.service; fi
"""
_RUN = """
status=133
while [ "$status" = 133 ]; do
  status=0
  setpriv --pdeathsig KILL systemd-nspawn --directory=/run/root --machine=push --boot --private-network \
    --register=no --keep-unit --link-journal=no --resolv-conf=off --timezone=off --console=read-only || status=$?
done
exit "$status"
"""
_REMOVE_GROUP = """
mount -t cgroup2 tessardd /sys/fs/cgroup
group=/sys/fs/cgroup$(sed -n 's/^0:://p' /proc/self/cgroup)/$1
if [ -d "$group" ]; then find "$group" -depth -type d -exec rmdir {} +; fi
"""


def _unshared(script, *arguments):
    return ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--propagation", "private", "--pid", "--fork",
            "--kill-child", "--mount-proc", "sh", "-c", script, "sh", *map(str, arguments)]


class SystemdMachine:
    """One machine, made from a tree of `systemd_tree`. With a build, what that build installs is in it, its daemon
    is enabled and all else is not; without, it is the bare tree. Use it in a with statement, or call `start` and
    `stop`; `stop` may be called at any time."""

    def __init__(self, tree, build=None, host_name=HOST_NAME):
        self.tree = Path(tree)
        self.build = Path(build).resolve() if build else None
        self.host_name = host_name
        self.directory = None
        self._process = None
        self._cleanup = contextlib.ExitStack()

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    # --- life -----------------------------------------------------------------------------------------------

    def start(self):
        remove_abandoned()
        self.directory = Path(tempfile.mkdtemp(prefix=_PREFIX))
        self._cleanup.callback(_remove, self.directory)
        lock = self._cleanup.enter_context(open(self.directory / "lock", "w", encoding="ascii"))
        fcntl.flock(lock, fcntl.LOCK_EX)
        installation = self.directory / "installation"
        installation.mkdir(mode=0o755)
        mask = os.umask(0o022)
        try:
            self._install(installation)
        finally:
            os.umask(mask)
        log = self._cleanup.enter_context(open(self._log, "wb"))
        # A session of its own: Ctrl-C is for us, who then end the machine.
        self._process = subprocess.Popen(
            _unshared(_LAY_OUT + _INSTALL + _RUN, self.directory.name, self.tree, installation),
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
        self._wait_for_boot(None)

    def stop(self):
        process, self._process = self._process, None
        if process is not None:
            # All other processes of the machine end with this one.
            process.kill()
            process.wait()
        self._cleanup.close()

    def reboot(self):
        """Shuts the machine down in good order, and returns when it is up again."""
        before = self.leader()
        self.run("systemctl", "reboot", check=False)
        self._wait_for_boot(before)

    def alive(self):
        return self._process is not None and self._process.poll() is None

    def leader(self):
        """The machine's first process, as the computer numbers it; None while there is none."""
        todo = [self._process.pid]
        while todo:
            pid = todo.pop()
            with contextlib.suppress(OSError):
                if os.path.basename(os.readlink(f"/proc/{pid}/exe")) == "systemd" and _number_inside(pid) == 1:
                    return pid
                for thread in os.listdir(f"/proc/{pid}/task"):
                    todo += map(int, Path(f"/proc/{pid}/task/{thread}/children").read_text().split())
        return None

    def _wait_for_boot(self, before):
        def has_booted():
            leader = self.leader()
            # "starting" is said too while units that were asked for at boot are not up yet.
            return leader not in (None, before) and self.system_state() in ("running", "degraded")
        try:
            wait_until(has_booted, "systemd in the machine", 90, self.alive)
        except (MachineError, subprocess.TimeoutExpired) as problem:
            said = " | ".join(self._log.read_text(errors="replace").strip().splitlines()[-5:])
            raise MachineError(f"{problem}: {said}") from None

    @property
    def _log(self):
        return self.directory / "boot.log"

    # --- what an installation adds --------------------------------------------------------------------------

    def _install(self, root):
        etc = root / "etc"
        etc.mkdir()
        (etc / "hostname").write_text(f"{self.host_name}\n")
        short = self.host_name.split(".", maxsplit=1)[0]
        (etc / "hosts").write_text(f"127.0.0.1 localhost\n127.0.1.1 {self.host_name} {short}\n")
        if self.build is None:
            return
        installed = subprocess.run(["cmake", "--install", str(self.build), "--prefix", "/usr", "--component", "run"], check=False,
                                   env={**os.environ, "DESTDIR": str(root)}, capture_output=True, text=True)
        if installed.returncode != 0:
            raise MachineError(f"the build cannot be installed: {installed.stderr.strip()}")
    # --- files and programs inside --------------------------------------------------------------------------

    def outside(self, path):
        """The place of a file of the machine as long as it does not reboot; links with absolute targets on the way
        would lead out of it."""
        return Path(f"/proc/{self.leader()}/root") / path.lstrip("/")

    def read(self, path):
        return self.outside(path).read_text()

    def write(self, path, text, mode=0o644, owner=(0, 0)):
        place = self.outside(path)
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(text)
        os.chown(place, *owner)
        place.chmod(mode)

    def put(self, source, path):
        """Copies a file of the computer into the machine, with its permissions."""
        shutil.copy(source, self.outside(path))

    def command(self, arguments, user=0, group=None, groups=()):
        group = user if group is None else group
        membership = ["--groups", ",".join(map(str, groups))] if groups else ["--clear-groups"]
        return ["nsenter", "--target", str(self.leader()), "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup",
                "env", "-i", f"PATH={_PATH}", "LANG=C.UTF-8", "HOME=/root",
                "setpriv", "--bounding-set", _BOUNDING, f"--reuid={user}", f"--regid={group}", *membership, "--",
                *map(str, arguments)]

    def run(self, *arguments, user=0, group=None, groups=(), input=None, timeout=120, check=True):
        """Runs a program inside to its end; output is text. With `check`, a failure raises MachineError."""
        result = subprocess.run(self.command(arguments, user, group, groups), input="" if input is None else input,
                                capture_output=True, text=True, timeout=timeout, check=False)
        if check and result.returncode != 0:
            said = result.stderr.strip() or result.stdout.strip()
            raise MachineError(f"{' '.join(map(str, arguments))}: exit status {result.returncode}: {said}")
        return result

    def popen(self, *arguments, user=0, **options):
        return subprocess.Popen(self.command(arguments, user), **options)

    @property
    def network(self):
        """Starts programs of the computer that run there, but see only the machine's network."""
        return _Network(self)

    # --- systemd --------------------------------------------------------------------------------------------

    def system_state(self):
        return self.run("systemctl", "is-system-running", check=False, timeout=30).stdout.strip()

    def unit(self, name):
        """Some properties of a unit, as systemd shows them."""
        shown = self.run("systemctl", "show", "--property", "ActiveState,SubState,UnitFileState,MainPID,NRestarts,Result",
                         "--", f"{name}.service").stdout
        return dict(line.split("=", 1) for line in shown.splitlines())

    def journal(self, *options):
        """The messages of this boot, one a line, oldest first, with all that was logged before the call."""
        self.run("journalctl", "--sync")
        return self.run("journalctl", "--boot", "--output=cat", "--no-pager", *options).stdout.splitlines()


class _Network:
    def __init__(self, machine):
        self.machine = machine

    def popen(self, *arguments, **options):
        return subprocess.Popen(["nsenter", "--target", str(self.machine.leader()), "--net", "--",
                                 "env", f"PATH={_PATH}", *map(str, arguments)], **options)


def _number_inside(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("NSpid:"):
            return int(line.split()[-1])
    return 0


def _remove(directory):
    # The kernel needs a moment to let go of a group whose last process has just died.
    def is_gone():
        return subprocess.run(_unshared(_REMOVE_GROUP, directory.name), capture_output=True, check=False).returncode == 0
    with contextlib.suppress(MachineError):
        wait_until(is_gone, "the end of the control group", 10)
    shutil.rmtree(directory, ignore_errors=True)


def remove_abandoned():
    """Removes what machines left behind whose owner was killed; the kernel ended their processes."""
    for directory in Path(tempfile.gettempdir()).glob(_PREFIX + "*"):
        with contextlib.suppress(OSError), open(directory / "lock", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            if directory.stat().st_uid == os.geteuid():
                _remove(directory)


def obstacle(say=lambda sentence: None):
    """Why this computer cannot run such machines, for a person; None when it can. Makes the tree when there is none
    yet, and boots it once with nothing of ours in it."""
    reason = _missing()
    if reason is not None:
        return reason
    try:
        with SystemdMachine(systemd_tree(say)):
            return None
    except MachineError as problem:
        return str(problem)


def _missing():
    if os.geteuid() != 0 or Path("/proc/self/uid_map").read_text().split() != ["0", "0", "4294967295"]:
        return "they need to be run by the computer's own root"
    for program in ("systemd-nspawn", "mmdebstrap", "unshare", "nsenter", "setpriv"):
        if shutil.which(program) is None:
            return f"they need the program {program}"
    with tempfile.TemporaryDirectory() as scratch:
        for name in ("tree", "installation"):
            Path(scratch, name).mkdir()
        name = f"{_PREFIX}try-{os.getpid()}"
        tried = subprocess.run(_unshared(_LAY_OUT, name, f"{scratch}/tree", f"{scratch}/installation"),
                               stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        _remove(Path(scratch, name))
    if tried.returncode != 0:
        said = tried.stderr.strip().splitlines()
        return f"they need CAP_SYS_ADMIN, overlayfs and cgroup v2 ({said[-1] if said else tried.returncode})"
    return None
