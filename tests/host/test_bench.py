"""The measurements of "./dev bench", in their short form. How long anything takes is not asserted."""

import json
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

from hosttools import buildDirectory, needsPlugin

BENCH = Path(__file__).resolve().parents[2] / "bench"
sys.path.insert(0, str(BENCH))

import edits  # noqa: E402
from runs import Tools  # noqa: E402
from trees import Base  # noqa: E402

pytestmark = needsPlugin


def reachable():
    """A scratch directory that the service's account can come to."""
    directory = tempfile.TemporaryDirectory(prefix="tessard-bench-")
    Path(directory.name).chmod(0o755)
    return directory


@pytest.fixture(scope="module")
def run():
    with reachable() as directory:
        yield measured(Path(directory))


def measured(directory):
    result = directory / "rows.json"
    done = subprocess.run(
        [sys.executable, BENCH / "run_bench.py", buildDirectory(), "--short", "--json", result, "--directory", directory],
        capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    return done.stdout, json.loads(result.read_text())


def test_every_work_is_measured_at_every_place(run):
    found = {(row["work"], row["place"], row["domains"]) for row in run[1]["rows"]}
    assert found == {("read", "tmpfs", 1), ("state", "tmpfs", 1), ("write", "ext4", 1), ("write", "tmpfs", 1),
                     ("write", "ext4", 3), ("write", "tmpfs", 3)}


def test_every_row_is_whole_and_stands_in_the_table(run):
    table, result = run
    names = [row["name"] for row in result["rows"]]
    assert len(set(names)) == len(names)
    for row in result["rows"]:
        assert row["median_ns"] > 0 and row["repetitions"] == 1
        assert row["peak_kib"] is None or row["peak_kib"] > 0
        assert row["system_calls"] is None or row["system_calls"] > 0
        assert row["work"] == "state" or row["ratio_to_floor"] > 0
        assert f"  {row['row']} " in table
    assert {row["ratio_to_floor"] for row in result["rows"] if row["row"] == row["floor"]} == {1}


def test_a_program_that_does_other_work_is_noticed():
    with reachable() as scratch, reachable() as place:
        base = Base(scratch, buildDirectory())
        notice_other_work(base, base.tree(place, 2), scratch)


def notice_other_work(base, tree, scratch):
    before = {name: (tree.configuration / name).read_bytes() for name in tree.edited}
    wanted = edits.expected(tree, base.texts)
    assert edits.difference(tree, wanted) == "c2s.xml has no backup"
    # The floor writes what it read.
    Tools(buildDirectory(), scratch).floor("write-flushed", tree.files("write"))
    for name, content in before.items():
        assert (tree.configuration / name).read_bytes() == content
        assert (tree.configuration / f"{name}.bak").read_bytes() == content
        assert not (tree.configuration / f"{name}.tmp").exists()
    assert edits.difference(tree, wanted).startswith("c2s.xml differs at ")


def test_the_floor_makes_a_further_domains_file_a_copy_first_where_it_is_told_to():
    with reachable() as scratch, reachable() as place:
        tree = Base(scratch, buildDirectory()).tree(place, 2)
        first, further = (tree.configuration / name for name in ("sm.xml", tree.further[0]))
        further.write_text("<sm/>")
        Tools(buildDirectory(), scratch).floor("write-flushed", tree.files("copy"))
        for name in (first, further, further.with_name(f"{further.name}.bak")):
            assert name.read_bytes() == first.read_bytes()
        assert not list(tree.configuration.glob("*.tmp"))
