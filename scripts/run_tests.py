"""Runs the test programs of a build, then the Python tests against that build, and ends with one line that sums
them up. Usage: run_tests.py BUILD [--only KIND] [--without KIND] [-k EXPRESSION]"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as tree
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import systemd_machine

PROJECT = Path(__file__).resolve().parent.parent
NAMES = {"unit": "unit", "host": "host", "sweeps": "sweeps", "e2e": "end to end", "systemd": "systemd"}


class Count:
    """Tests run and the names of those that failed."""

    def __init__(self):
        self.run = 0
        self.skipped = []
        self.failed = []

    def add(self, other):
        self.run += other.run
        self.skipped += other.skipped
        self.failed += other.failed


def unit_programs(build):
    listing = subprocess.run(["ctest", "--test-dir", str(build), "--show-only=json-v1"], capture_output=True,
                             check=True).stdout
    return [(test["name"], test["command"]) for test in json.loads(listing)["tests"]]


def run_unit_program(name, command, scratch, limit=900):
    """Runs one GoogleTest program; its words are shown only when something failed."""
    report = Path(scratch, f"{name}.json")
    count = Count()
    try:
        result = subprocess.run([*command, "--gtest_brief=1", f"--gtest_output=json:{report}"], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=limit, check=False,
                                errors="replace")
        words, status = result.stdout, result.returncode
    except subprocess.TimeoutExpired as late:
        words, status = (late.stdout or b"").decode(errors="replace"), f"none within {limit} s"
    if report.exists():
        for suite in json.loads(report.read_text(encoding="utf-8"))["testsuites"]:
            for test in suite["testsuite"]:
                full = f"{suite['name']}.{test['name']}"
                count.run += 1
                if test.get("failures"):
                    count.failed.append(full)
                elif test["result"] != "COMPLETED":
                    count.skipped.append(full)
    if status != 0 and not count.failed:
        count.failed.append(f"{name} (exit status {status})")
    if not count.run:
        count.failed.append(f"{name} (ran no test)")
    if count.failed:
        print(words, flush=True)
    print(f"  {name}: {count.run} tests, {len(count.failed)} failed", flush=True)
    return count


def run_unit(build, scratch):
    total = Count()
    with ThreadPoolExecutor(os.cpu_count()) as workers:
        for count in workers.map(lambda one: run_unit_program(*one, scratch), unit_programs(build)):
            total.add(count)
    return total


def run_python(kind, build, scratch, expression):
    report = Path(scratch, f"{kind}.xml")
    command = [sys.executable, "-m", "pytest", "-q", "-rs", "--tb=short", "-p", "no:cacheprovider",
               f"--junitxml={report}", f"--basetemp={scratch}/{kind}", "-o", "junit_family=xunit2", str(PROJECT / "tests" / kind)]
    if expression:
        command += ["-k", expression]
    status = subprocess.run(command, cwd=PROJECT, check=False,
                            env={**os.environ, "TESSARD_BUILD_DIR": str(build)}).returncode
    count = Count()
    if report.exists():
        for case in tree.parse(report).iter("testcase"):
            full = f"{case.get('classname')}.{case.get('name')}"
            count.run += 1
            if case.find("failure") is not None or case.find("error") is not None:
                count.failed.append(full)
            elif case.find("skipped") is not None:
                count.skipped.append(full)
    # 5: no test was found; with an expression that is no fault.
    if status != 0 and not count.failed and not (status == 5 and expression):
        count.failed.append(f"{kind} (pytest's exit status {status})")
    return count


def main():
    options = argparse.ArgumentParser()
    options.add_argument("build", type=Path)
    options.add_argument("--only", choices=NAMES)
    options.add_argument("--without", choices=NAMES, action="append", default=[])
    options.add_argument("-k", dest="expression")
    chosen = options.parse_args()
    build = chosen.build.resolve()
    kinds = [kind for kind in NAMES if kind not in chosen.without and chosen.only in (None, kind)]
    begin = time.monotonic()
    counts, left_out = {}, []
    with tempfile.TemporaryDirectory() as scratch:
        for kind in kinds:
            print(f"{NAMES[kind]} tests", flush=True)
            if kind == "systemd":
                reason = systemd_machine.obstacle(lambda sentence: print(f"  {sentence}", flush=True))
                if reason is not None:
                    left_out.append(f"systemd tests are left out: {reason}")
                    continue
            counts[kind] = (run_unit(build, scratch) if kind == "unit"
                            else run_python(kind, build, scratch, chosen.expression))
    total = Count()
    for count in counts.values():
        total.add(count)
    if not total.run and not total.failed:
        total.failed.append("no test was run")
    parts = ", ".join(f"{NAMES[kind]} {count.run}" for kind, count in counts.items())
    if total.skipped:
        parts += f"; {len(total.skipped)} skipped: {', '.join(total.skipped)}"
    parts = "; ".join(filter(None, [parts, *left_out]))
    seconds = round(time.monotonic() - begin)
    if total.failed:
        print(f"FAILED: {len(total.failed)} of {total.run} tests ({parts}) in {seconds} s: {', '.join(total.failed)}")
        return 1
    print(f"passed: {total.run} tests ({parts}) in {seconds} s")
    return 0


sys.exit(main())
