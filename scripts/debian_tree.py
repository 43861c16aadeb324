"""Debian trees beside the machine's own: made once and kept outside the checkout, and changed by nobody who uses
them."""

import contextlib
import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from private_machine import MachineError

SUITE = "bookworm"
_KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"
_MIRROR = f"deb [signed-by={_KEYRING}] http://deb.debian.org/debian {SUITE} main"
_LONGEST_SECONDS = 1500
_KEEP_SECONDS = 7 * 24 * 3600

# Lines for the hooks of a tree: packages that were fetched before need no network.
DEBS_IN = 'cp -a --reflink=auto "$TESSARD_DEBS/." "$1/var/cache/apt/archives/"'
DEBS_OUT = """find "$TESSARD_DEBS" -name '*.deb' -delete
cp -a --reflink=auto "$1"/var/cache/apt/archives/*.deb "$TESSARD_DEBS/\""""


class Recipe:
    """What a tree is made of: packages, and lines of shell that are run before and after they are installed, where
    "$1" is the tree and "$TESSARD_DEBS" the directory of fetched packages. `debs` names that directory."""

    def __init__(self, packages, before, after, debs="debs"):
        self.packages = packages
        self.before = before
        self.after = after
        self.debs = debs

    @property
    def name(self):
        # Whatever changes the tree changes its name.
        text = "\n".join([SUITE, *self.packages, self.before, self.after])
        return f"debian-{SUITE}-{hashlib.sha256(text.encode()).hexdigest()[:12]}"


def _cache():
    base = os.environ.get("XDG_CACHE_HOME", "")
    return Path(base if base.startswith("/") else Path.home() / ".cache") / "tessardd"


def _sources():
    """The lines of the machine's own mirrors for Debian, or of Debian's when apt knows none."""
    listed = subprocess.run(["apt-get", "indextargets", "--format", "$(ORIGIN) $(REPO_URI) $(RELEASE) $(COMPONENT)",
                             "Created-By: Packages"], capture_output=True, text=True, check=False).stdout
    rows = [line.split() for line in listed.splitlines()]
    lines = [f"deb [signed-by={_KEYRING}] {uri} {release} main" for origin, uri, release, component in
             (row for row in rows if len(row) == 4)
             if origin == "Debian" and component == "main" and release.split("-")[0] == SUITE]
    return sorted(set(lines)) if any(f" {SUITE} main" in line for line in lines) else [_MIRROR]


def _apt_options():
    """How this machine's apt fetches: proxies, and what it checks of mirrors."""
    dump = subprocess.run(["apt-config", "dump"], capture_output=True, text=True, check=False).stdout
    wanted = re.compile(r'Acquire::((https?::|Check-|Retries)\S*) "[^"]+";')
    return [line for line in dump.splitlines() if wanted.fullmatch(line)]


def _remove(directory):
    # Mounts of a run that was killed ended with its mount namespace; nothing else is ever entered.
    subprocess.run(["rm", "-rf", "--one-file-system", "--", str(directory)], check=False)


def _remove_old(cache, kept):
    for directory in cache.glob("debian-*"):
        abandoned = ".new-" in directory.name
        if directory != kept and (abandoned or directory.stat().st_mtime < time.time() - _KEEP_SECONDS):
            _remove(directory)


def _make(place, recipe):
    debs = place.parent / recipe.debs
    debs.mkdir(exist_ok=True)
    work = Path(tempfile.mkdtemp(prefix=f"{place.name}.new-", dir=place.parent))
    tree = work / "tree"
    # In namespaces of its own, so that nothing stays mounted or runs on when this process is killed.
    command = ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
               "mmdebstrap", "--quiet", "--mode=root", "--variant=apt", "--format=directory",
               "--skip=essential/unlink,cleanup/apt/cache", "--dpkgopt=force-unsafe-io", f"--include={','.join(recipe.packages)}",
               f"--setup-hook={recipe.before}", f"--customize-hook={recipe.after}",
               *(f"--aptopt={line}" for line in _apt_options()), SUITE, str(tree), *_sources()]
    try:
        with open(work / "log", "wb") as log:
            status = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, check=False,
                                    timeout=_LONGEST_SECONDS,
                                    env={**os.environ, "TESSARD_DEBS": str(debs)}).returncode
        if status != 0:
            said = [line for line in (work / "log").read_text(errors="replace").splitlines() if re.match("(E|W|Err)[:!]", line)]
            raise MachineError("the Debian tree cannot be made: " +
                               (" | ".join(said[-3:]) or f"mmdebstrap ended with {status}"))
        shutil.rmtree(tree / "var/cache/apt", ignore_errors=True)
        os.sync()
        tree.rename(place)
    finally:
        _remove(work)


def debian_tree(recipe, what, say=lambda sentence: None):
    """The directory of a whole tree, made now when there is none yet; that takes some minutes and the network.
    Raises MachineError with the reason when it cannot be made."""
    cache = _cache()
    try:
        cache.mkdir(parents=True, exist_ok=True)
        place = cache / recipe.name
        with open(cache / "lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)  # one makes it, all others wait
            if not place.is_dir():
                say(f"making a Debian tree with {what} in {place}")
                _make(place, recipe)
            with contextlib.suppress(OSError):
                os.utime(place)
            _remove_old(cache, place)
    except (OSError, subprocess.TimeoutExpired) as problem:
        raise MachineError(f"the Debian tree cannot be made: {problem}") from None
    return place
