"""The Debian tree that holds the programs which are compared with: none of them comes onto the machine itself."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "scripts"))

from debian_tree import DEBS_IN, DEBS_OUT, Recipe, debian_tree  # noqa: E402

_PACKAGES = ("xmlstarlet python3-lxml augeas-tools augeas-lenses libxml2-dev libpugixml-dev prosody ejabberd "
             "iproute2 procps").split()
_BEFORE = f"""
mkdir -p "$1/var/cache/apt/archives/partial"
{DEBS_IN}
"""
_AFTER = f"""
{DEBS_OUT}
"""


def peer_tree(say=lambda sentence: None):
    """Its directory, made now when there is none yet; see `debian_tree`."""
    return debian_tree(Recipe(_PACKAGES, _BEFORE, _AFTER, "debs-bench"), "the programs to compare with", say)
