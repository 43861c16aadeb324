"""What a change of the host's name or addresses means to the publish-subscribe service: its settings file follows."""

import plistlib
import stat

import pytest

from private_machine import HOST_NAME
from test_network import ADDRESS, NEW, changeip, ip, rename, said, tell, unwatched, watched  # noqa: F401 (fixtures)

SETTINGS = "/Library/Preferences/com.velto.Beaconry.plist"
DATABASES = ("/var/db/idavoll/pubsub.db", "/var/db/idavoll/items.db")


def settings_file(service):
    return plistlib.loads(service.machine.outside(SETTINGS).read_bytes())


@pytest.fixture(autouse=True)
def filled_in(request):
    """The first reading fills the settings in."""
    service = request.getfixturevalue("watched" if "watched" in request.fixturenames else "unwatched")
    service.settings()
    assert settings_file(service)["domain"] == HOST_NAME


def test_the_settings_follow_a_new_host_name_with_their_attributes(watched):  # noqa: F811
    before = settings_file(watched)
    rename(watched.machine, NEW)
    said(watched, f'the host name is now "{NEW}"')
    assert settings_file(watched) == {**before, "domain": NEW}
    status = watched.machine.outside(SETTINGS).stat()
    assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (84, 0, 0o660)


def test_a_local_name_leaves_the_settings_alone(watched):  # noqa: F811
    rename(watched.machine, "push.local")
    said(watched, f'The services keep the name "{HOST_NAME}"')
    assert settings_file(watched)["domain"] == HOST_NAME


def test_a_self_assigned_address_leaves_the_settings_alone_and_is_logged(watched):  # noqa: F811
    machine = watched.machine
    ip(machine, "addr", "add", "169.254.7.7/16", "dev", "net0")
    ip(machine, "addr", "del", f"{ADDRESS}/24", "dev", "net0")
    said(watched, "the addresses are now 169\\.254\\.7\\.7")
    assert settings_file(watched)["domain"] == HOST_NAME
    assert "Detected self-assigned address. No action taken." in machine.system_log()


def test_a_change_that_is_none_is_logged(unwatched):  # noqa: F811
    tell(unwatched, hasHostChanged=False)
    assert settings_file(unwatched)["domain"] == HOST_NAME
    assert "Network change ignored - no change in host(s) or address(s)." in unwatched.machine.system_log()


def test_a_change_without_a_new_name_is_told_to_whoever_asked(unwatched):  # noqa: F811
    log = tell(unwatched, hasAddrChanged=True, hasHostChanged=False, newHost=None)
    assert {"level": "error", "message": "Beaconry config file modification failed! reason: missing new host argument"} in log
    assert settings_file(unwatched)["domain"] == HOST_NAME


def test_a_changeip_request_with_a_new_name_begins_the_databases_anew_and_renames_the_service(unwatched):  # noqa: F811
    for path in DATABASES:
        unwatched.machine.write(path, "of the old name", 0o640, (84, 84))
    rename(unwatched.machine, NEW)
    assert changeip(unwatched, oldHost=HOST_NAME, newHost=NEW)["writeStatus"] == 0
    # Removed by the change, and made by the reading of the settings that answers the request.
    assert all(unwatched.machine.outside(path).read_bytes().startswith(b"SQLite format 3") for path in DATABASES)
    assert settings_file(unwatched)["domain"] == NEW


def test_a_changeip_request_with_a_new_address_keeps_the_databases(unwatched):  # noqa: F811
    for path in DATABASES:
        unwatched.machine.write(path, "of the same name", 0o640, (84, 84))
    assert changeip(unwatched, oldAddress=ADDRESS, newAddress="192.0.2.9")["writeStatus"] == 0
    assert [unwatched.machine.read(path) for path in DATABASES] == ["of the same name"] * 2
