"""Checks the arrows between the source folders: what each may include, and that the inner ones use nothing but
the standard library and libc."""

import re
import sys
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent

# Folder -> the folders whose headers it may include besides its own.
ALLOWED = {
    "common": set(),
    "config": {"common"},
    "atoms": {"config", "common"},
    "coordinator": {"atoms", "config", "common"},
    "handler": {"coordinator", "atoms", "config", "common"},
    "platform": {"common"},
    "bundle": {"handler", "coordinator", "atoms", "config", "common", "platform"},
    "host": {"platform", "config", "common"},
    "programs": {"platform", "config", "common"},
    "bench": {"host", "platform", "config", "common"},
}
INNER = ("common", "config", "atoms", "coordinator", "handler")
# Headers of libc that the inner folders use; the standard library's have no dot in their names.
LIBC = re.compile(r"((sys|arpa|net|netinet)/[a-z_]+|errno|fcntl|grp|limits|pwd|signal|stdlib|string|syslog|time|unistd)\.h")


def problems_of(folder, path):
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        quoted = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
        angled = re.match(r"\s*#\s*include\s+<([^>]+)>", line)
        place = f"{path.relative_to(PROJECT)}:{number}"
        if quoted:
            target = quoted.group(1).split("/")[0]
            if "/" not in quoted.group(1):
                yield f"{place}: include headers by their path from the top, \"{folder}/...\""
            elif target != folder and target not in ALLOWED[folder]:
                yield f"{place}: {folder}/ may not include {target}/"
        elif angled and folder in INNER:
            header = angled.group(1)
            if "." in header and not LIBC.fullmatch(header):
                yield f"{place}: {folder}/ uses the standard library and libc alone, not <{header}>"


def main():
    problems = []
    for folder in ALLOWED:
        for path in sorted((PROJECT / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                problems += problems_of(folder, path)
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


sys.exit(main())
