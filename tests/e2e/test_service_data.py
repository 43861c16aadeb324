"""The data and accounts of the notification service after first-time setup, with the real programs."""

import plistlib
import stat

import pytest

SETTINGS = "/Library/Preferences/com.velto.Beaconry.plist"
DATABASES = {"/var/db/idavoll/pubsub.db": "nodes", "/var/db/idavoll/items.db": "items"}
DIRECTORIES = {"/var/db/idavoll": 0o750, "/var/db/korvbridge": 0o750, "/var/log/idavoll": 0o755}
ACCOUNT_FILES = ("/etc/passwd", "/etc/shadow", "/etc/group")


def owner_and_mode(machine, path):
    state = machine.outside(path).lstat()
    return state.st_uid, stat.S_IMODE(state.st_mode)


def identities(machine):
    """What a second setup must not touch: inode and time of every piece of data."""
    paths = [*DATABASES, *DIRECTORIES, SETTINGS, *ACCOUNT_FILES]
    states = {path: machine.outside(path).lstat() for path in paths}
    return {path: (state.st_ino, state.st_mtime_ns) for path, state in states.items()}


def connect_as_client(machine):
    """The settings of a component that logs in as an ordinary user."""
    settings = plistlib.loads(machine.outside(SETTINGS).read_bytes())
    settings["connectAsClient"] = True
    machine.outside(SETTINGS).write_bytes(plistlib.dumps(settings))


def test_setup_makes_the_databases_with_their_tables(service):
    for path, table in DATABASES.items():
        assert owner_and_mode(service.machine, path) == (84, 0o750)
        ask = ("sqlite3", "-batch", path)
        assert service.machine.run(*ask, "PRAGMA integrity_check").stdout == "ok\n"
        assert service.machine.run(*ask, f"SELECT count(*) FROM {table}").stdout == "0\n"


def test_setup_makes_the_directories(service):
    for path, mode in DIRECTORIES.items():
        assert owner_and_mode(service.machine, path) == (84, mode)
        service.machine.run("touch", f"{path}/try", user=84)


def test_a_second_setup_changes_no_data(service):
    before = identities(service.machine)
    service.tool("setup")
    assert identities(service.machine) == before


def test_an_account_for_the_component_is_made_where_it_is_a_client(service):
    connect_as_client(service.machine)
    result = service.tool("setup", check=False)
    # These lines are written each time, whatever came of it.
    assert "Failed to create pubsub user" in result.stderr
    found = service.machine.run("getent", "passwd", "pubsub").stdout
    assert found == "pubsub:x:250:20:PubSub User:99:/usr/bin/false\n"
    assert service.machine.read("/etc/shadow").splitlines()[-1].startswith("pubsub:$y$")
    state = service.machine.outside("/etc/shadow").stat()
    assert (state.st_uid, state.st_gid, stat.S_IMODE(state.st_mode)) == (0, 42, 0o640)
    password = plistlib.loads(service.machine.outside(SETTINGS).read_bytes())["password"]
    assert len(password) == 16
    assert password not in service.log()
    before = identities(service.machine)
    assert "error" not in service.tool("setup").stderr
    assert identities(service.machine) == before


@pytest.mark.parametrize("path", ["/var/db/idavoll", "/var/db/korvbridge", "/var/log/idavoll",
                                  "/var/db/idavoll/pubsub.db", "/var/db/idavoll/items.db"])
def test_a_planted_link_is_refused_and_not_followed(daemon, path):
    machine = daemon.machine
    machine.run("mkdir", "-p", path.rpartition("/")[0])
    machine.run("ln", "-s", "/root/planted", path)
    result = daemon.tool("setup", check=False)
    assert result.returncode == 70
    assert f'"{path}" is a symbolic link and is not used' in result.stderr
    assert not machine.outside("/root/planted").exists()
    machine.run("rm", path)
    assert daemon.tool("setup").returncode == 0
