"""The one process that a service manager sees of the publish-subscribe service. It starts the database server and
the component, ends the other when one of them ends, and runs as root only to do so."""

import contextlib
import fcntl
import os
import selectors
import signal
import socket
import subprocess
import time

import cluster
from account import go_by_name, start_part
from places import BAD_SETTINGS, CLUSTER, DATA, LOCK, LOST_PART, PID_FILE, START_FAILED, STOPPED, SYSTEM_REFUSED
from status import Status

_HERE = os.path.dirname(os.path.abspath(__file__))
_PYTHON = ["/usr/bin/python3", "-I", "-B"]
_SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)
# How a part is asked to end, more and more firmly, and seconds to do so. Service managers give all of it 10 seconds.
_ENDINGS = {
    "component": ((signal.SIGTERM, 2.5), (signal.SIGKILL, 1.0)),
    "PostgreSQL": ((signal.SIGINT, 4.0), (signal.SIGQUIT, 1.0), (signal.SIGKILL, 1.0)),
}
_ANY_OTHER = ((signal.SIGTERM, 2.5), (signal.SIGKILL, 1.0))


class _Over(Exception):
    """The run ends, with this exit status."""

    def __init__(self, status):
        super().__init__(status)
        self.status = status


class Launcher:
    """One run. Call `run` or `prepare` once, as root, on the only thread."""

    def __init__(self, say, notify_descriptor=None):
        self._say = say
        self._notify_descriptor = notify_descriptor
        self._parts = {}
        self._progress = set()
        self._status = None  # published once nobody else can be running
        self._wanted = False  # somebody wants the end
        self._cleanup = contextlib.ExitStack()
        self._watch = self._cleanup.enter_context(contextlib.closing(selectors.DefaultSelector()))

    def run(self):
        """Runs the service until a signal comes or a part ends. Returns an exit status of places.py; no process of
        the service and no pid file is left then."""
        return self._until_over(self._run)

    def prepare(self):
        """Makes what the first run would have to make. Returns an exit status."""
        return self._until_over(lambda: cluster.exists() or self._prepare())

    def _until_over(self, work):
        with self._cleanup:
            os.setgroups([])
            self._watch_signals()
            status = SYSTEM_REFUSED
            try:
                work()
                status = STOPPED
            except _Over as over:
                status = over.status
            except cluster.ClusterProblem as problem:
                self._blame(f"Nothing is started: {problem}.")
                status = START_FAILED
            except OSError as problem:
                self._blame(f"Nothing is started: {problem}.")
            finally:
                self._end_all(status)
            return status

    def _run(self):
        self._prepare()
        # The component reads the settings first, so that without them nothing else is started.
        self._start_component()
        self._wait_for("settings")
        self._start("PostgreSQL", cluster.server(), directory=CLUSTER, stdout=self._lines_of_server())
        self._wait_for("store")
        self._status.part("PostgreSQL", "ready")
        # Whoever starts all services starts jabberd before this one, so the router is there to accept.
        self._wait_for("accepted")
        self._status.part("component", "ready")
        self._write_pid_file()
        self._tell_ready()
        self._wait_for("the end")

    # --- before the start ------------------------------------------------------------------------------------------

    def _prepare(self):
        self._take_lock()
        self._status = Status("PostgreSQL", "component")
        self._status.become("starting")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(PID_FILE)
        cluster.make_directories()
        cluster.end_left_over()
        if cluster.exists():
            return
        self._say.info("The database cluster is made.")
        for line in cluster.making():
            name = os.path.basename(line[0])
            self._start(name, line, directory=DATA, stdout=self._lines_of_server())
            self._wait_for(f"{name} done")
        cluster.take_name()

    def _take_lock(self):
        descriptor = os.open(LOCK, os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        self._cleanup.callback(os.close, descriptor)
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            self._say.error("Nothing is started: the service is running already.")
            raise _Over(START_FAILED) from None

    # --- parts -----------------------------------------------------------------------------------------------------

    def _start(self, name, line, **options):
        output = options.get("stdout")
        try:
            self._parts[name] = start_part(line, stderr=None if output is None else subprocess.STDOUT, **options)
        finally:
            if output is not None:
                os.close(output)
        self._status.part(name, "starting", self._parts[name].pid)

    def _start_component(self):
        reader, writer = os.pipe2(os.O_CLOEXEC)
        self._read_lines(reader, self._progress.add)
        line = [*_PYTHON, f"{_HERE}/component.py", str(writer)]
        try:
            self._start("component", line, pass_fds=(writer,))
        finally:
            os.close(writer)

    def _lines_of_server(self):
        """Where a program of PostgreSQL writes; what matters of its words goes to the logs."""
        reader, writer = os.pipe2(os.O_CLOEXEC)

        def say(line):
            if line.startswith(("ERROR", "FATAL", "PANIC", "initdb: error")):
                self._say.error(f"PostgreSQL: {line}")
            elif line.startswith(("LOG", "WARNING", "HINT", "DETAIL", "sync: ")):
                self._say.detail(f"PostgreSQL: {line}")
        self._read_lines(reader, say)
        return writer

    def _read_lines(self, descriptor, take):
        os.set_blocking(descriptor, False)
        rest = b""

        def read():
            nonlocal rest
            with contextlib.suppress(BlockingIOError):
                piece = os.read(descriptor, 65536)
                *lines, rest = (rest + piece).split(b"\n")
                for line in lines if piece else [rest]:
                    take(line.decode(errors="replace"))
                if not piece:
                    self._watch.unregister(descriptor)
                    os.close(descriptor)
        self._watch.register(descriptor, selectors.EVENT_READ, read)

    # --- waiting ---------------------------------------------------------------------------------------------------

    def _watch_signals(self):
        reader, writer = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        for descriptor in (reader, writer):
            self._cleanup.callback(os.close, descriptor)

        def stop(*_):
            self._wanted = True
        for number in _SIGNALS:
            signal.signal(number, stop)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        signal.set_wakeup_fd(writer, warn_on_full_buffer=False)
        self._cleanup.callback(signal.set_wakeup_fd, -1)
        self._watch.register(reader, selectors.EVENT_READ, lambda: os.read(reader, 4096))

    def _wait_for(self, word):
        """Returns when a part has said the word; raises _Over when that has become pointless."""
        while word not in self._progress:
            if self._wanted:
                self._say.info("The service is asked to stop.")
                raise _Over(STOPPED)
            self._listen(_pause_of_watchdog())
            _tell_systemd("WATCHDOG=1")
            for name, part in list(self._parts.items()):
                if part.poll() is not None:
                    del self._parts[name]
                    self._status.part(name, "ended")
                    self._on_end_of(name, part.returncode)

    def _listen(self, seconds):
        for key, _ in self._watch.select(seconds):
            key.data()

    def _on_end_of(self, name, status):
        if status == 0 and name not in _ENDINGS:
            self._progress.add(f"{name} done")
            return
        self._listen(0)  # its last words
        if name == "component" and status in (BAD_SETTINGS, START_FAILED):
            self._status.blame("The component has said why it cannot be started.")
            raise _Over(status)
        how = f"by signal {-status}" if status < 0 else f"with exit status {status}"
        if "store" in self._progress:
            self._blame(f"The {name} has ended {how}; the service is stopped, so that it can be started again.")
            raise _Over(LOST_PART)
        self._blame(f"The start has failed: the {name} has ended {how}.")
        raise _Over(START_FAILED)

    def _blame(self, sentence):
        self._say.error(sentence)
        if self._status is not None:
            self._status.blame(sentence)

    # --- ready, and the end ----------------------------------------------------------------------------------------

    def _write_pid_file(self):
        """Names this process, which does not outlive any of its parts and which no part outlives."""
        new = f"{PID_FILE}.new"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(new)
        descriptor = os.open(new, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o644)
        with open(descriptor, "w", encoding="ascii") as file:
            file.write(str(os.getpid()))
        os.rename(new, PID_FILE)
        self._cleanup.callback(self._remove_pid_file)

    @staticmethod
    def _remove_pid_file():
        with contextlib.suppress(FileNotFoundError):
            os.unlink(PID_FILE)

    def _tell_ready(self):
        self._say.info("The service is ready.")
        self._status.become("running")
        _tell_systemd("READY=1")
        if self._notify_descriptor is not None:
            os.write(self._notify_descriptor, b"\n")
            os.close(self._notify_descriptor)

    def _end_all(self, status):
        """The component before the server that it works with."""
        if self._status is None:
            return
        if self._parts:
            self._status.become("stopping")
            _tell_systemd("STOPPING=1")
            for name in sorted(self._parts, key=lambda name: name == "PostgreSQL"):
                self._end(name, self._parts[name])
                self._status.part(name, "ended")
            self._say.info("The service has stopped.")
        if status == STOPPED:
            self._status.withdraw()
        else:
            self._status.become("restarting" if status == LOST_PART else "failed")

    def _end(self, name, part):
        for number, seconds in _ENDINGS.get(name, _ANY_OTHER):
            part.send_signal(number)
            end = time.monotonic() + seconds
            while part.poll() is None and time.monotonic() < end:
                self._listen(end - time.monotonic())
            if part.poll() is not None:
                return
            self._say.error(f"The {name} does not end.")
        part.wait()


def _tell_systemd(state):
    address = os.environ.get("NOTIFY_SOCKET", "")
    if not address:
        return
    with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC) as link:
        link.sendto(state.encode(), "\0" + address[1:] if address.startswith("@") else address)


def _pause_of_watchdog():
    """Seconds until a service manager with a watchdog is to be told again that all is looked after: three times while
    it waits for one word. None without one."""
    patience = os.environ.get("WATCHDOG_USEC", "")
    return int(patience) / 3e6 if patience.isascii() and patience.isdigit() else None


def main(say, wish, notify_descriptor):
    # A pid file counts when its process goes by its name.
    go_by_name("Beaconry")
    launcher = Launcher(say, notify_descriptor)
    return launcher.prepare() if wish == "prepare" else launcher.run()
