"""What the sweeps share: their two sizes, and what they measure of a process."""

import os
import random
from pathlib import Path

from hosttools import buildDirectory

# "./dev sweep" runs the whole of each, "./dev test" a short form.
FULL = os.environ.get("TESSARD_SWEEP") == "full"
MEBIBYTE = 1024 * 1024
# Whose memory is mostly not that of the program itself.
SANITIZED = buildDirectory().name in ("asan", "tsan")


def size(short, full):
    return full if FULL else short


def report(sentence):
    """Tells a figure. Shown by "./dev sweep"."""
    print(f"\n  {sentence}", flush=True)


def seedOfThisRun():
    """What chance begins with: TESSARD_SEED where that is set, otherwise something new. Shown in either case."""
    seed = int(os.environ.get("TESSARD_SEED", random.randrange(2**32)))
    report(f"seed {seed}; TESSARD_SEED={seed} repeats it")
    return seed


def anonymousMemory(pid):
    """Bytes of memory that no file stands behind."""
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("RssAnon:"):
            return int(line.split()[1]) * 1024
    raise AssertionError(f"the kernel tells no memory of process {pid}")


def openFiles(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


class Usage:
    """What a process holds, to be compared with what it holds later."""

    def __init__(self, pid):
        self.pid = pid
        self.memory = anonymousMemory(pid)
        self.files = openFiles(pid)
        self.peak = self.memory

    def look(self):
        """Notes the memory of now. Its highest value is the peak."""
        self.peak = max(self.peak, anonymousMemory(self.pid))

    def growth(self):
        return anonymousMemory(self.pid) - self.memory

    def assertGrowth(self, limit):
        """Neither now nor whenever it was looked at has the memory grown by more than the limit, in bytes."""
        self.look()
        grown = self.peak - self.memory
        report(f"anonymous memory: {self.memory / MEBIBYTE:.1f} MiB, grew by at most {grown / MEBIBYTE:.2f} MiB")
        assert SANITIZED or grown <= limit
