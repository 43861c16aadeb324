"""Runs sweeps whole, which "./dev test" runs in short forms, and shows their figures.
Usage: run_sweeps.py BUILD KIND... [-k EXPRESSION], where tests/sweeps/test_KIND.py is what is run"""

import argparse
import os
import subprocess
import sys
import tempfile
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
SWEEPS = PROJECT / "tests/sweeps"


def kinds():
    return sorted(file.stem.removeprefix("test_") for file in SWEEPS.glob("test_*.py"))


def main():
    options = argparse.ArgumentParser()
    options.add_argument("build", type=Path)
    options.add_argument("kinds", nargs="+", choices=kinds(), metavar="KIND", help=", ".join(kinds()))
    options.add_argument("-k", dest="expression")
    chosen = options.parse_args()
    with tempfile.TemporaryDirectory() as scratch:
        command = [sys.executable, "-m", "pytest", "-v", "-s", "--tb=short", "-p", "no:cacheprovider",
                   f"--basetemp={scratch}/sweep", *(str(SWEEPS / f"test_{kind}.py") for kind in chosen.kinds)]
        if chosen.expression:
            command += ["-k", chosen.expression]
        environment = {**os.environ, "TESSARD_BUILD_DIR": str(chosen.build.resolve()), "TESSARD_SWEEP": "full"}
        return subprocess.run(command, cwd=PROJECT, check=False, env=environment).returncode


sys.exit(main())
