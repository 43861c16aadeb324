"""What is there before the daemon is asked for anything: the files of a new instance."""

import gzip
import stat
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from private_machine import CONFIGURATION, PROJECT

TEMPLATES = PROJECT / "share/templates"
TOOL = "/usr/libexec/tessardd/prepare-instance"
SCHEMA = "/private/var/jabberd/db-setup.sqlite"
NAMES = sorted(file.name for file in TEMPLATES.iterdir())


def test_templates_and_database_script_are_put_in_place(machine):
    machine.prepare_instance()
    for name in NAMES:
        place = machine.outside(f"{CONFIGURATION}/{name}")
        assert place.read_bytes() == (TEMPLATES / name).read_bytes()
        state = place.stat()
        assert (state.st_uid, state.st_gid, stat.S_IMODE(state.st_mode)) == (84, 0, 0o600)
    assert sorted(file.name for file in machine.outside(CONFIGURATION).iterdir()) == NAMES
    packaged = gzip.decompress(Path("/usr/share/doc/jabberd2/db-setup.sqlite.gz").read_bytes())
    assert machine.outside(SCHEMA).read_bytes() == packaged


def test_a_second_preparation_changes_nothing_that_is_there(machine):
    machine.prepare_instance()
    machine.write(f"{CONFIGURATION}/c2s.xml", "<c2s>mine</c2s>\n", 0o640, (0, 84))
    machine.write(SCHEMA, "-- mine\n")
    machine.outside(f"{CONFIGURATION}/s2s.xml").unlink()
    machine.prepare_instance()
    own = machine.outside(f"{CONFIGURATION}/c2s.xml")
    assert own.read_text() == "<c2s>mine</c2s>\n"
    assert stat.S_IMODE(own.stat().st_mode) == 0o640
    assert machine.read(SCHEMA) == "-- mine\n"
    assert machine.read(f"{CONFIGURATION}/s2s.xml") == (TEMPLATES / "s2s.xml").read_text()


def test_preparations_at_the_same_time_do_not_get_into_each_others_way(machine):
    with ThreadPoolExecutor(8) as workers:
        results = list(workers.map(lambda _: machine.run(TOOL, check=False), range(8)))
    assert [(result.returncode, result.stderr) for result in results] == [(0, "")] * 8
    assert sorted(file.name for file in machine.outside(CONFIGURATION).iterdir()) == NAMES
    for name in NAMES:
        assert machine.outside(f"{CONFIGURATION}/{name}").read_bytes() == (TEMPLATES / name).read_bytes()


def test_links_to_var_and_etc_are_made_below_another_root(machine):
    machine.run("mkdir", "/tmp/elsewhere")
    machine.run(TOOL, "--root", "/tmp/elsewhere")
    elsewhere = machine.outside("/tmp/elsewhere")
    assert (elsewhere / "private/etc").readlink() == Path("../etc")
    assert (elsewhere / "private/var").readlink() == Path("../var")
    assert (elsewhere / "etc/jabberd_notification/jabberd.cfg").is_file()
    assert not machine.outside(CONFIGURATION).exists()


@pytest.mark.parametrize("words, status, message", [
    (["--schema", "/nowhere.gz"], 66, "jabberd's database script \"/nowhere.gz\" is missing"),
    (["--schema", "/tmp/broken.gz"], 66, "the database script \"/tmp/broken.gz\" cannot be unpacked"),
    (["--templates", "/nowhere"], 66, "the template directory \"/nowhere\" is missing"),
    (["--templates", "/tmp"], 66, "the template \"/tmp/router-users.xml\" is missing"),
    (["--root", "/nowhere"], 66, "the root \"/nowhere\" is not a directory"),
    (["--root"], 64, "--root needs a value"),
    (["--force"], 64, "unknown argument \"--force\""),
])
def test_what_is_missing_is_named(machine, words, status, message):
    machine.outside("/tmp/broken.gz").write_bytes(gzip.compress(b"create table t(a);" * 99)[:40])
    result = machine.run(TOOL, *words, check=False)
    assert result.returncode == status
    assert message in result.stderr
    assert not machine.outside(SCHEMA).exists()


def test_an_ordinary_user_is_refused_and_leaves_nothing(machine):
    result = machine.run(TOOL, user=1001, check=False)
    assert result.returncode == 73
    assert "prepare-instance: cannot make" in result.stderr
    assert not machine.outside(CONFIGURATION).exists()
