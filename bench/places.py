"""Where trees are measured: a fresh file system for each of them where root can mount one, else a fresh
directory."""

import contextlib
import mmap
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

_MIB = 1024 * 1024


def touch_memory(mebibytes):
    """Has the machine give memory now that would otherwise be given to what is measured, page by page."""
    with mmap.mmap(-1, mebibytes * _MIB) as block:
        for offset in range(0, len(block), mmap.PAGESIZE):
            block[offset] = 1


def _run(*words):
    done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{words[0]}: {done.stderr.strip()}")


class Mounted:
    """A file system of one kind, made anew for each tree: nothing is deleted before a run. For ext4 it is made in
    an image whose blocks were all written beforehand."""

    def __init__(self, kind, point, directory, mebibytes):
        self.name = kind
        self.point = Path(point, kind)
        self.point.mkdir()
        self._mebibytes = mebibytes
        self._image = None
        if kind == "ext4":
            self._image = Path(directory, "image")
            with open(self._image, "wb", buffering=0) as image:
                for _ in range(mebibytes):
                    image.write(bytes(_MIB))
                os.fsync(image.fileno())

    @contextlib.contextmanager
    def fresh(self):
        if self._image:
            _run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0,nodiscard",
                 "-i", "16384", str(self._image))
            _run("mount", "-o", "loop", str(self._image), str(self.point))
        else:
            _run("mount", "-t", "tmpfs", "-o", f"size={self._mebibytes}m", "tmpfs", str(self.point))
        try:
            yield self.point
        finally:
            _run("umount", str(self.point))


class Plain:
    """Fresh directories in one that was given. They are deleted at the end alone, as deleting slows the next run."""

    def __init__(self, name, directory):
        self.name = name
        self._directory = directory

    @contextlib.contextmanager
    def fresh(self):
        directory = Path(tempfile.mkdtemp(dir=self._directory))
        directory.chmod(0o755)
        yield directory


def _can_mount(kind, scratch):
    point = Path(scratch, f"try-{kind}")
    point.mkdir()
    try:
        with Mounted(kind, point, point, 16).fresh():
            return True
    except (RuntimeError, OSError):
        return False
    finally:
        shutil.rmtree(point)


@contextlib.contextmanager
def places(directory, mebibytes):
    """The file systems to measure on: ext4 and tmpfs of our own, or, where there is no mounting any, fresh
    directories below `directory` and in shared memory. `mebibytes` is what the largest tree takes."""
    with contextlib.ExitStack() as stack:
        def scratch(where):
            made = stack.enter_context(tempfile.TemporaryDirectory(prefix="tessard-bench-", dir=where))
            os.chmod(made, 0o755)  # the service's account must come as far as the trees
            return made

        Path(directory).mkdir(parents=True, exist_ok=True)
        made = []
        points = scratch(None)
        # The image is on a disk, so that a flush is one.
        for kind, where in (("ext4", directory), ("tmpfs", "/dev/shm")):
            if os.geteuid() == 0 and _can_mount(kind, points):
                made.append(Mounted(kind, points, scratch(where), mebibytes))
            else:
                made.append(Plain(kind, scratch(where)))
        yield made
