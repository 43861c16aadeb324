"""Drives the fuzzers of a build with libFuzzer. Usage: run_fuzz.py BUILD [--short | --seconds N] [TARGET...]

Each begins with the inputs in fuzz/corpus and fuzz/found. An input that breaks something is kept in fuzz/found, from
where every test run tries it again."""

import argparse
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
INPUTS = PROJECT / "fuzz"
SECONDS, SHORT_SECONDS = 600, 60
# What one input may take. Inputs longer than the last would only be slower ways to the same places.
SECONDS_OF_ONE, MEGABYTES, BYTES = 1, 512, 16384
# The memory of freed blocks that the sanitizer holds back would count as the fuzzer's.
ENVIRONMENT = {"ASAN_OPTIONS": "quarantine_size_mb=16:detect_leaks=1:allocator_may_return_null=1",
               "UBSAN_OPTIONS": "print_stacktrace=1"}


def targets(build):
    return sorted(path.name.removeprefix("fuzzer_") for path in (build / "fuzz").glob("fuzzer_*"))


def own_time():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


class Fuzzer:
    """One target, with a directory of its own for all that it writes."""

    def __init__(self, build, target, scratch):
        self.target = target
        self.program = build / "fuzz" / f"fuzzer_{target}"
        self.scratch = Path(scratch, target)
        (self.scratch / "new").mkdir(parents=True)
        (self.scratch / "tmp").mkdir()
        self.environment = {**os.environ, **ENVIRONMENT, "TMPDIR": str(self.scratch / "tmp")}

    def run(self, *arguments):
        return subprocess.run(["nice", str(self.program), *map(str, arguments)], env=self.environment, check=False,
                              text=True, errors="replace", stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def fuzz(self, seconds):
        kept = [INPUTS / kind / self.target for kind in ("corpus", "found")]
        dictionary = INPUTS / "dictionaries" / f"{self.target}.dict"
        words = [f"-dict={dictionary}"] if dictionary.exists() else []
        return self.run(f"-max_total_time={seconds}", f"-timeout={SECONDS_OF_ONE}", f"-rss_limit_mb={MEGABYTES}",
                        f"-max_len={BYTES}", "-print_final_stats=1", f"-artifact_prefix={self.scratch}/", *words,
                        self.scratch / "new", *[path for path in kept if path.is_dir()])

    def is_slow(self, artifact):
        """Whether an input that was given up by the clock uses that much of a processor when it is run alone."""
        before = own_time()
        result = self.run(f"-timeout={20 * SECONDS_OF_ONE}", f"-rss_limit_mb={MEGABYTES}", artifact)
        return result.returncode != 0 or own_time() - before > 2 * SECONDS_OF_ONE

    def keep(self, artifact):
        place = INPUTS / "found" / self.target / artifact.name
        place.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(artifact, place)
        return place.relative_to(PROJECT)


def what_broke(words):
    """The report of a failure, without the progress before it."""
    begin = re.search(r"^(broken promise|==\d+==|.*runtime error|ALARM)", words, re.MULTILINE)
    return words[begin.start():][:6000] if begin else words[-6000:]


def statistic(words, name):
    found = re.search(rf"^stat::{name}:\s+(\d+)", words, re.MULTILINE)
    return int(found.group(1)) if found else 0


def fuzz(build, target, seconds, scratch):
    """True when nothing broke; says how it went."""
    fuzzer = Fuzzer(build, target, scratch)
    tried, left, peak = 0, seconds, 0
    while left > 0:
        before = own_time()
        result = fuzzer.fuzz(left)
        tried += statistic(result.stdout, "number_of_executed_units")
        peak = max(peak, statistic(result.stdout, "peak_rss_mb"))
        if result.returncode == 0:
            break
        artifacts = [path for path in fuzzer.scratch.iterdir() if path.is_file()]
        noise = artifacts and all(path.name.startswith("timeout-") and not fuzzer.is_slow(path) for path in artifacts)
        if not noise:
            print(what_broke(result.stdout))
            for path in artifacts:
                print(f"{target}: broken by {fuzzer.keep(path)}", flush=True)
            print(f"{target}: FAILED (exit status {result.returncode})", flush=True)
            return False
        # A busy machine held the clock's hand; go on with what is left of the time.
        for path in artifacts:
            path.unlink()
        left -= max(1, round(own_time() - before))
    print(f"{target}: {tried} inputs in {seconds} s, nothing broke; peak {peak} MB", flush=True)
    return tried > 0


def main():
    options = argparse.ArgumentParser(prog="./dev fuzz")
    options.add_argument("build", type=Path, help=argparse.SUPPRESS)
    options.add_argument("--short", action="store_true", help=f"{SHORT_SECONDS} s for each target")
    options.add_argument("--seconds", type=int, default=SECONDS, help=f"for each target (default: {SECONDS})")
    options.add_argument("target", nargs="*", help="default: all")
    chosen = options.parse_intermixed_args()
    build = chosen.build.resolve()
    known = targets(build)
    unknown = [target for target in chosen.target if target not in known]
    if unknown:
        print(f"dev: there is no target \"{unknown[0]}\"; there are {', '.join(known)}", file=sys.stderr)
        return 64
    seconds = SHORT_SECONDS if chosen.short else chosen.seconds
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="tessard-fuzz-", dir=memory) as scratch:
        whole = [fuzz(build, target, seconds, scratch) for target in chosen.target or known]
    return 0 if all(whole) else 1


sys.exit(main())
