"""Measures this product, the floor and other programs at the same work, and prints one table.
Usage: run_bench.py BUILD [--json FILE] [--short] [--only NAME] [--domains N,...] [--without-peers]
[--directory DIR]"""

import argparse
import contextlib
import datetime
import json
import os
import platform
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import edits  # noqa: E402
import peertree  # noqa: E402
import places  # noqa: E402
import works  # noqa: E402
import xmppservers  # noqa: E402
from peers import PEERS, Peers  # noqa: E402
from private_machine import MachineError  # noqa: E402
from report import Report, reached, target_lines, targets  # noqa: E402
from runs import Sample, Tools  # noqa: E402
from trees import PREFERENCES, Base  # noqa: E402

SECTIONS = ("read", "state", "write", "parts")
# Number of domains -> repetitions of a write.
WRITES = {1: 15, 10: 9, 100: 7, 1000: 5, 10000: 3}
READS = {1: 15, 1000: 3}
ROUNDS = 200  # requests of one repetition over one connection
# What the largest tree takes, with backups, temporary files and room for the file system's own needs.
MEBIBYTES = {1: 64, 10: 64, 100: 96, 1000: 256, 10000: 1600}
SHORT = {"read": {1: 1}, "state": {1: 1}, "write": {1: 1, 3: 1}}
PARTS = {"XML": "floor/XML", "property list": "floor/property list", "request": "floor/request"}
FULL = {"read": READS, "state": {1: 15}, "write": WRITES}


def say(sentence):
    print(sentence, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, options, scratch):
        self.build = options.build.resolve()
        self.short = options.short
        self.only = options.only
        self.domains = options.domains
        self.tools = Tools(self.build, scratch)
        self.base = Base(scratch, self.build)
        self.report = Report()
        self.tree = None if options.short or options.without_peers else self._peer_tree()
        self.peers = self.tree and Peers(self.tools, self.tree, scratch)

    @staticmethod
    def _peer_tree():
        if os.geteuid() != 0:
            say("nothing is compared with other programs, which need root to be installed in a tree of their own")
            return None
        try:
            return peertree.peer_tree(say)
        except MachineError as problem:
            say(f"nothing is compared with other programs: {problem}")
            return None

    def _plan(self):
        for section, counts in (SHORT if self.short else FULL).items():
            for count, repetitions in counts.items():
                if self.only in (None, section) and (not self.domains or count in self.domains):
                    yield section, count, repetitions

    def run(self, file_systems):
        for work, count, repetitions in self._plan():
            rounds = 5 if self.short else ROUNDS
            variants = works.variants(self.tools, work, count, rounds)
            with contextlib.ExitStack() as stack:
                if self.tree and work == "state":
                    variants += stack.enter_context(xmppservers.Servers(self.tools, self.tree)).variants(rounds)
                # With more domains the daemon looks at more files than those programs read.
                elif self.tree and (work == "write" or count == 1):
                    variants += self.peers.variants(work, count, self.base.texts)
                # What only reads is the same everywhere.
                for place in file_systems if work == "write" else file_systems[-1:]:
                    say(f"{work}, {count} domains, {place.name}")
                    self._measure(work, count, place, variants, repetitions)

    def run_parts(self, directory):
        """Each part of a request alone, without a place."""
        if self.short or self.only not in (None, "parts"):
            return
        tree = self.base.tree(directory, 1)
        said = subprocess.run(
            [self.tools.program("bench_parts"), str(tree.configuration / "c2s.xml"), f"{tree.root}{PREFERENCES}",
             tree.request("write"), "--benchmark_format=json", "--benchmark_repetitions=5", "--benchmark_min_time=0.05",
             "--benchmark_enable_random_interleaving=true"], check=True, capture_output=True, text=True).stdout
        for run in sorted(json.loads(said)["benchmarks"], key=lambda each: each["family_index"]):
            if run["run_type"] == "iteration":
                name = run["run_name"]
                floor = name if name.startswith("floor") else PARTS[name.partition(":")[0]]
                self.report.row("parts", "memory", 1, name, floor).samples.append(Sample(run["real_time"]))

    def _measure(self, work, count, place, variants, repetitions):
        for variant in variants:
            for name, floor in variant.rows:
                self.report.row(work, place.name, count, name, floor)
        for repetition in range(repetitions):
            # In turn, each time begun with another one, so that a drift of the machine meets all alike.
            first = repetition % len(variants)
            for variant in variants[first:] + variants[:first]:
                if variant.at_most is not None and repetition >= variant.at_most:
                    continue
                self._sample(work, count, place, variant, check=repetition == 0)
        if count <= 1000:
            for variant in variants:
                self._count(work, count, place, variant)

    def _rows(self, work, place, count, variant):
        return [self.report.row(work, place.name, count, name, floor) for name, floor in variant.rows]

    def _sample(self, work, count, place, variant, check):
        with place.fresh() as directory:
            tree = self.base.tree(directory, count)
            places.touch_memory(256 if count >= 1000 else 16)
            os.sync()
            samples = variant.run(tree)
            if check and work == "write" and not variant.rows[0][0].startswith("floor"):
                problem = edits.difference(tree, edits.expected(tree, self.base.texts))
                if problem:
                    raise RuntimeError(f"{variant.rows[0][0]} wrote something else: {problem}")
        for row, sample in zip(self._rows(work, place, count, variant), samples):
            row.samples.append(sample)

    def _count(self, work, count, place, variant):
        if variant.calls is None:
            return
        with place.fresh() as directory:
            calls = variant.calls(self.base.tree(directory, count))
        for row, number in zip(self._rows(work, place, count, variant), calls):
            row.calls = number


def counts_in(text):
    counts = [int(word) for word in text.split(",")]
    if not set(counts) <= set(MEBIBYTES):
        raise argparse.ArgumentTypeError(f"of {', '.join(map(str, MEBIBYTES))}")
    return counts


def machine():
    model = next((line.partition(":")[2].strip() for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
                  if line.startswith("model name")), platform.machine())
    return f"{os.cpu_count()} x {model}, Linux {platform.release()}"


def in_own_mounts():
    """Once more in a mount namespace of this run's own, so that nothing stays mounted when it is killed."""
    if os.geteuid() == 0 and "TESSARD_BENCH_MOUNTS" not in os.environ and shutil.which("unshare"):
        probe = subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL, check=False)
        if probe.returncode == 0:
            os.environ["TESSARD_BENCH_MOUNTS"] = "1"
            os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", sys.executable, *sys.argv])


def main():
    parser = argparse.ArgumentParser(prog="./dev bench")
    parser.add_argument("build", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--json", type=Path, metavar="FILE", help="write every row and target")
    parser.add_argument("--short", action="store_true", help="one repetition of a few domains, without other programs")
    parser.add_argument("--only", choices=SECTIONS, metavar="NAME", help=f"one of {', '.join(SECTIONS)} alone")
    parser.add_argument("--domains", type=counts_in, metavar="N,...",
                        help="with so many domains alone")
    parser.add_argument("--without-peers", action="store_true", help="without other programs")
    parser.add_argument("--directory", default=str(Path.home() / ".cache/tessardd/bench"),
                        help="a directory on a disk with ext4 (default %(default)s)")
    options = parser.parse_args()
    in_own_mounts()
    # What is told to end leaves nothing behind.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    plan = SHORT if options.short else FULL
    planned = [count for section in plan if options.only in (None, section) for count in plan[section]]
    largest = max(options.domains or planned or [1])
    with (tempfile.TemporaryDirectory(prefix="tessard-bench-") as scratch,
          places.places(options.directory, next(size for count, size in MEBIBYTES.items() if count >= largest)) as file_systems):
        os.chmod(scratch, 0o755)
        bench = Bench(options, scratch)
        # What was measured is shown also when the rest fails, or is told to end.
        try:
            bench.run(file_systems)
            with tempfile.TemporaryDirectory(dir=scratch) as place:
                bench.run_parts(place)
        finally:
            show(bench.report, options)
    return 0


def show(report, options):
    """The table, the targets and the file that were asked for."""
    made = [] if options.short else targets(report, PEERS)
    print(report.table())
    if made:
        print(f"\nTargets\n{target_lines(made)}")
    if options.json:
        options.json.write_text(json.dumps(
            {"machine": machine(), "date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
             "rows": report.as_values(),
             "targets": [{"name": what, "kind": kind, "limit": limit, "value": number,
                          "reached": reached((what, limit, number, kind))} for what, limit, number, kind in made]},
            indent=1) + "\n", encoding="utf-8")


sys.exit(main())
