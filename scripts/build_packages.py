#!/usr/bin/python3
"""Builds the Debian packages of the checkout as it stands: "./dev package"."""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
PACKAGES = ("tessardd", "tessardctl", "tessardd-instance", "tessardd-dev")


class PackageError(Exception):
    """Why there are no packages, for a person."""


def build_packages(output, build=None, version=None):
    """Puts the packages into a directory and returns their files. With `build`, what that finished build made is
    packed, which takes seconds; without, all is compiled as Debian wants it. `version` stands for that of
    debian/changelog."""
    output = Path(output)
    output.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="tessard-package-") as scratch:
        sources = Path(scratch) / "tessardd"
        _copy_sources(sources)
        if version is not None:
            _add_version(sources / "debian/changelog", version)
        _run_build(sources, build)
        for old in output.glob("tessard*"):
            old.unlink()
        for made in sorted(Path(scratch).glob("tessard*_*")):
            shutil.move(made, output / made.name)
    return sorted(output.glob("*.deb"))


def _copy_sources(place):
    """What git knows, and new files that it does not ignore."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=PROJECT,
                            stdout=subprocess.PIPE, check=True).stdout
    for name in map(os.fsdecode, filter(None, listed.split(b"\0"))):
        source = PROJECT / name
        if not source.is_file():
            continue
        (place / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, place / name)
        (place / name).chmod(0o755 if os.access(source, os.X_OK) else 0o644)


def _add_version(changelog, version):
    date = time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime())
    text = changelog.read_text(encoding="utf-8")
    maintainer = next(line for line in text.splitlines() if line.startswith(" -- ")).split("  ")[0]
    entry = f"tessardd ({version}) unstable; urgency=medium\n\n  * A build of its own version.\n\n{maintainer}  {date}\n\n"
    changelog.write_text(entry + text, encoding="utf-8")


def _run_build(sources, build):
    environment = {name: value for name, value in os.environ.items() if not name.startswith(("DEB_", "DH_", "MAKE"))}
    wishes = f"parallel={os.cpu_count()} nocheck"
    # What was compiled in another scratch directory is found again.
    environment.update(CCACHE_BASEDIR=str(sources), CCACHE_NOHASHDIR="1")
    if build is not None:
        environment["TESSARD_BUILD"] = str(Path(build).resolve())
        wishes += " noautodbgsym"
    environment.update(LC_ALL="C.UTF-8", DEB_BUILD_OPTIONS=wishes)
    with tempfile.TemporaryFile() as log:
        status = subprocess.run(["dpkg-buildpackage", "--build=binary", "--unsigned-changes", "--no-pre-clean"],
                                cwd=sources, env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                check=False).returncode
        log.seek(0)
        said = log.read().decode(errors="replace")
    if status != 0:
        raise PackageError(f"dpkg-buildpackage ended with {status}:\n" + "\n".join(said.splitlines()[-30:]))


def check_packages(output):
    """What Debian's checker finds fault with, a line each; empty when it is content."""
    changes = sorted(Path(output).glob("*.changes"))
    found = subprocess.run(["lintian", "--allow-root", "--color=never", *map(str, changes)],
                           stdout=subprocess.PIPE, text=True, check=False)
    return [line for line in found.stdout.splitlines() if line.startswith(("E:", "W:"))]


def main():
    parser = argparse.ArgumentParser(prog="./dev package")
    parser.add_argument("--output", type=Path, default=PROJECT / "build/packages", help="directory; default %(default)s")
    parser.add_argument("--build", type=Path, help="pack this finished build instead of compiling")
    parser.add_argument("--version", help="instead of that of debian/changelog")
    options = parser.parse_args()
    try:
        made = build_packages(options.output, options.build, options.version)
    except PackageError as problem:
        sys.exit(f"dev: {problem}")
    faults = [] if options.build else check_packages(options.output)
    for line in faults:
        print(line, file=sys.stderr)
    for package in made:
        print(package)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
