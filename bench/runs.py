"""Single runs: of a program as a whole, of requests over a socket; and the count of their system calls."""

import contextlib
import shutil
import signal
import subprocess
import time
from pathlib import Path
from statistics import median


class Sample:
    """What one run took: nanoseconds, and KiB of all and of anonymous memory at the peak where they are known."""

    def __init__(self, nanoseconds, peak=None, anonymous=None):
        self.nanoseconds = nanoseconds
        self.peak = peak
        self.anonymous = anonymous


class Tools:
    def __init__(self, build, scratch):
        self.build = build
        self.output = str(Path(scratch, "output"))
        self.answer = str(Path(scratch, "answer"))
        self._counts = str(Path(scratch, "counts"))
        self._can_count = shutil.which("strace") is not None

    def program(self, name):
        return str(self.build / "bench" / name)

    def _checked(self, words, environment=None):
        done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, env=environment)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(words[:4])}: status {done.returncode}: {done.stderr[-500:]}")
        return done.stdout

    def whole(self, *words, environment=None, statuses=(0,), inside=()):
        """A program from its start to its end. What it prints is `said`. `inside` are words that enter namespaces."""
        said = self._checked([*inside, self.program("bench_timer"), self.output, *words], environment).split()
        nanoseconds, peak, status = map(int, said)
        if status not in statuses:
            raise RuntimeError(f"{words[0]} ended with {status}")
        return Sample(nanoseconds, peak)

    @property
    def said(self):
        return Path(self.output).read_text(encoding="utf-8")

    def floor(self, work, files):
        """The floor as a whole, and without its start and end."""
        whole = self.whole(self.program("bench_floor"), work, files)
        return whole, Sample(int(self.said.split()[0]), whole.peak)

    def requests(self, server, path, body="-", *options, method="POST", inside=()):
        """The median time of one answer, in nanoseconds."""
        said = self._checked([*inside, self.program("bench_client"), *options, server, method, path, body, self.answer])
        return median(int(line) for line in said.splitlines() if line.isdigit())

    def started(self, words, server, path, body):
        """A daemon started for one request: until the answer, and until the daemon's end."""
        said = self._checked([self.program("bench_client"), "--start", ",".join(words), server, "POST", path, body, self.answer])
        first, ended = said.splitlines()
        passed, peak = map(int, ended.split()[1:])
        return Sample(int(first), peak), Sample(passed, peak)

    def inside(self, tree, *calls):
        """The last request of several, carried out in one process without the daemon. With a count before the last
        one, the median of its times."""
        said = self._checked([self.program("bench_product"), str(tree.root), str(self.build / "programs"), self.answer, *calls])
        times = [int(line) for line in said.splitlines() if line.isdigit()]
        peak, anonymous = map(int, said.splitlines()[-1].split()[1:])
        last = int(calls[-1].partition(":")[0]) if calls[-1].partition(":")[0].isdigit() else 1
        return Sample(median(times[-last:]), peak, anonymous)

    # --- system calls ---------------------------------------------------------------------------------------

    def _counted(self):
        # "100.00 SECONDS USECS/CALL CALLS [ERRORS] total"
        lines = [line.split() for line in Path(self._counts).read_text(encoding="utf-8").splitlines()]
        return next((int(words[3]) for words in lines if words[-1:] == ["total"]), None)

    def calls_of(self, *words, environment=None):
        """System calls of a program and all that it starts; None where they cannot be counted."""
        if not self._can_count:
            return None
        subprocess.run(["strace", "-f", "-c", "-qq", "-o", self._counts, *words], stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False, env=environment)
        return self._counted()

    def calls_during(self, process, work):
        """System calls of a running process and all that it starts, while `work` is called."""
        if not self._can_count:
            return None
        Path(self._counts).unlink(missing_ok=True)
        with subprocess.Popen(["strace", "-f", "-c", "-qq", "-o", self._counts, "-p", str(process.pid)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as tracer:
            _await(lambda: _is_traced(process.pid) or tracer.poll() is not None)
            if tracer.poll() is not None:
                return None
            work()
            tracer.send_signal(signal.SIGINT)
        return self._counted()


def _is_traced(pid):
    tasks = list(Path(f"/proc/{pid}/task").iterdir())
    with contextlib.suppress(FileNotFoundError):
        return all("TracerPid:\t0\n" not in Path(task, "status").read_text(encoding="ascii") for task in tasks)
    return False


def _await(condition):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError("the tracer does not start")
        time.sleep(0.01)
