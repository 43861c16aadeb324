"""Runs clang-tidy over every source of a build directory, two at a time or as many as there are processors. A
source is looked at again only when it, a header of ours that it includes, its compiler options or the rules
changed since it was found clean."""

import hashlib
import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent


def headers_by_object(build):
    """What ninja knows of the files that each object was made from."""
    text = subprocess.run(["ninja", "-C", str(build), "-t", "deps"], capture_output=True, text=True,
                          check=True).stdout
    found, name = {}, None
    for line in text.splitlines():
        if line.startswith("    "):
            found[name].append(line.strip())
        elif ":" in line:
            name = line.split(":")[0]
            found[name] = []
    return found


def object_of(entry):
    words = shlex.split(entry["command"])
    return words[words.index("-o") + 1]


def fingerprint(entry, headers, rules):
    state = hashlib.sha256(rules + entry["command"].encode())
    for name in sorted({entry["file"], *headers}):
        path = Path(entry["directory"], name).resolve()
        if path.is_relative_to(PROJECT) and path.is_file():
            state.update(str(path.relative_to(PROJECT)).encode() + b"\0" + path.read_bytes())
    return state.hexdigest()


def look_at(build, entry, mark):
    result = subprocess.run(["clang-tidy", "-p", str(build), "--quiet", entry["file"]], capture_output=True,
                            text=True, check=False)
    if result.returncode == 0:
        mark.touch()
        return None
    return result.stdout.strip() or result.stderr.strip()


def main():
    build = Path(sys.argv[1]).resolve()
    cache = build / "tidy"
    cache.mkdir(exist_ok=True)
    version = subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout
    rules = version + (PROJECT / ".clang-tidy").read_bytes()
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    headers = headers_by_object(build)
    open_ones, marks = [], set()
    for entry in entries:
        mark = cache / fingerprint(entry, headers.get(object_of(entry), []), rules)
        marks.add(mark)
        if not mark.exists():
            open_ones.append((entry, mark))
    for old in set(cache.iterdir()) - marks:
        old.unlink()
    with ThreadPoolExecutor(os.cpu_count()) as workers:
        found = [text for text in workers.map(lambda one: look_at(build, *one), open_ones) if text]
    for text in found:
        print(text, file=sys.stderr)
    return 1 if found else 0


sys.exit(main())
