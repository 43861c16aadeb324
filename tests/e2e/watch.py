"""What the processes of a machine are given on their way: argument lists and environments."""

import contextlib
import subprocess

# Gathers those of all processes until its standard input ends.
_WATCH = """
import pathlib, select, sys
seen = set()
print("watching", flush=True)
while not select.select([sys.stdin], [], [], 0.02)[0]:
    for place in pathlib.Path("/proc").glob("[0-9]*"):
        for name in ("cmdline", "environ"):
            try:
                seen.add((place / name).read_bytes())
            except OSError:
                pass
sys.stdout.buffer.write(b"\\n".join(seen))
"""


@contextlib.contextmanager
def watching(machine):
    """Gives a function that ends the watch and tells all that was seen since it began."""
    with contextlib.ExitStack() as running:
        # Root has not all its powers in there, so both look.
        watchers = [running.enter_context(machine.popen("python3", "-c", _WATCH, user=user, stdin=subprocess.PIPE,
                                                        stdout=subprocess.PIPE)) for user in (0, 84)]
        for watcher in watchers:
            running.callback(watcher.kill)
            assert watcher.stdout.readline() == b"watching\n"
        yield lambda: b"".join(watcher.communicate(timeout=60)[0] for watcher in watchers)
