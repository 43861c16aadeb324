"""Disks that lose power: a file system on a loop device on a file that a program of ours serves and writes down all
changes of (power_recorder.cpp), and what may be left of such a disk at any moment."""

import contextlib
import ctypes
import os
import struct
import subprocess
import tempfile
from pathlib import Path

from hosttools import buildDirectory, waitUntil

RECORDER = buildDirectory() / "tests/sweeps/power_recorder"
SECTOR = 512  # bytes that a disk writes wholly or not at all
# The superblock of a file system, which is written in place and without a journal. Were it torn, the whole disk would be
# a matter for fsck, whatever we do.
WHOLE = 4096  # bytes at the begin of the disk
CLONE_NEWNS = 0x00020000
_HEAD = struct.Struct("<cQI")


class Format:
    """A kind of file system: its smallest size, since every moment needs a copy, how it is made, with nothing left to
    be done while the test watches, and how it is mounted."""

    def __init__(self, mebibytes, command, options=()):
        self.bytes = mebibytes * 1024 * 1024
        self.command = command
        self.options = ",".join(("loop", "noatime", *options))


FORMATS = {
    "ext4": Format(32, ["mkfs.ext4", "-q", "-F", "-b", "4096", "-J", "size=4", "-E",
                        "nodiscard,lazy_itable_init=0,lazy_journal_init=0"]),
    "xfs": Format(300, ["mkfs.xfs", "-q", "-K"], options=["nouuid"]),
}


def run(*words):
    subprocess.run([str(word) for word in words], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def obstacle():
    """Why this machine cannot lose the power of a disk; nothing when it can."""
    if os.geteuid() != 0:
        return "only root can mount disks"
    for device in ("/dev/fuse", "/dev/loop-control"):
        if not Path(device).exists():
            return f"there is no {device}"
    # A user namespace has a root without rights over disks.
    if subprocess.run(["unshare", "--mount", "losetup", "--find"], capture_output=True, check=False).returncode != 0:
        return "loop devices cannot be used"
    if not RECORDER.exists():
        return "power_recorder is not built, as there is no libfuse3"
    return None


def enterOwnMounts():
    """What this process mounts from now on is seen by it and its children alone, and is gone with them."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    run("mount", "--make-rprivate", "/")


@contextlib.contextmanager
def memoryDirectory():
    """A directory in memory, of this process's own mounts."""
    directory = Path(tempfile.mkdtemp(prefix="tessard-power-"))
    run("mount", "-t", "tmpfs", "-o", "size=2g,mode=755", "tmpfs", directory)
    try:
        yield directory
    finally:
        run("umount", "--lazy", directory)
        directory.rmdir()


@contextlib.contextmanager
def mounted(image, kind, directory):
    """What is left of a disk, as a machine mounts it when it starts again."""
    directory.mkdir(exist_ok=True)
    run("mount", "-t", kind, "-o", FORMATS[kind].options, image, directory)
    try:
        yield directory
    finally:
        run("umount", directory)


class Recording:
    """Everything that reached a disk, in order."""

    def __init__(self, blank, log):
        self._blank = blank
        self.writes = {}  # number of the record: offset and length on the disk, place of the bytes in the log
        self.flushes = []  # numbers of records
        self.marks = []  # number of the record and the text
        self.length = 0
        content = log.read_bytes()
        place = 0
        while place < len(content):
            kind, offset, length = _HEAD.unpack_from(content, place)
            place += _HEAD.size
            if kind == b"W":
                self.writes[self.length] = (offset, length, place)
            elif kind == b"F":
                self.flushes.append(self.length)
            else:
                self.marks.append((self.length, content[place:place + length].decode()))
            place += length
            self.length += 1
        self._content = content

    def said(self, moment):
        """The marks that were made before the moment."""
        return [text for number, text in self.marks if number < moment]

    def flushedBefore(self, moment):
        return max((number for number in self.flushes if number < moment), default=-1)

    def leave(self, moment, random, image):
        """Makes the image of a disk whose power failed before the record of that number: with all that was written
        before the last flush, and of what came after it any part that chance leaves."""
        run("cp", "--sparse=always", self._blank, image)
        flushed = self.flushedBefore(moment)
        # Sometimes nearly all has arrived, sometimes nearly nothing.
        share = random.choice((0.0, 0.1, 0.5, 0.9, 1.0))
        with open(image, "r+b", buffering=0) as disk:
            for number, (offset, length, place) in self.writes.items():
                if number >= moment:
                    break
                if number < flushed:
                    os.pwrite(disk.fileno(), self._content[place:place + length], offset)
                    continue
                torn = offset >= WHOLE and random.random() < 0.25
                if not torn and random.random() >= share:
                    continue
                for begin in range(0, length, SECTOR):
                    if not torn or random.random() < 0.5:
                        end = min(begin + SECTOR, length)
                        os.pwrite(disk.fileno(), self._content[place + begin:place + end], offset + begin)


def makeImage(image, kind):
    """A disk with a new file system."""
    with open(image, "wb") as file:
        file.truncate(FORMATS[kind].bytes)
    run(*FORMATS[kind].command, image)


class WatchedDisk:
    """The disk of an image, mounted at `root` and watched meanwhile. What that takes is kept beside the image."""

    def __init__(self, image, kind):
        directory = image.parent
        self.root = directory / "root"
        self._blank = directory / "blank"
        self._log = directory / "log"
        self._served = directory / "served"
        for place in (self.root, self._served):
            place.mkdir(exist_ok=True)
        self._log.unlink(missing_ok=True)
        run("cp", "--sparse=always", image, self._blank)
        self._recorder = subprocess.Popen([RECORDER, image, self._log, self._served], stdin=subprocess.DEVNULL)
        waitUntil((self._served / "disk").exists, "the disk is served")
        # The kernel gives the loop device back when it is unmounted, in whatever way.
        run("mount", "-t", kind, "-o", FORMATS[kind].options, self._served / "disk", self.root)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # Where something went wrong, a process may still be on it.
        for place in (self.root, self._served):
            subprocess.run(["umount", "--lazy", place], stderr=subprocess.DEVNULL, check=False)
        self._recorder.kill()
        self._recorder.wait()

    def mark(self, text):
        """Notes that something has happened between what was written before and what is written later."""
        with open(self._served / "marks", "wb", buffering=0) as marks:
            marks.write(text.encode())

    def end(self):
        """Everything that has reached the disk."""
        run("umount", self.root)
        run("umount", self._served)
        assert self._recorder.wait(60) == 0
        return Recording(self._blank, self._log)
