import sys
from pathlib import Path

_PROJECT = Path(__file__).resolve().parents[2]
for _helpers in ["tests/host", "scripts"]:
    sys.path.insert(0, str(_PROJECT / _helpers))

# The folders of the helpers are known from here on.
from hostfixtures import daemon, makeDaemon, plugin, pluginRoot, root  # noqa: E402
from sweeptools import FULL  # noqa: E402

__all__ = ["daemon", "makeDaemon", "plugin", "pluginRoot", "root"]

# There is no short form of what takes minutes.
collect_ignore = [] if FULL else ["test_valgrind.py"]
