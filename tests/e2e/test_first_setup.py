"""First-time setup with the real programs: files, database, directories."""

import json
import re
import sqlite3
import stat

from private_machine import CONFIGURATION
from service import COMPONENT_FILES, DATABASE, Service

ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789`~!#$%^*()-=_+[]\\|;':\",./?{}"


def attributes(machine, path):
    state = machine.outside(path).stat()
    return state.st_uid, state.st_gid, stat.S_IMODE(state.st_mode)


def test_setup_fills_every_template_with_the_host_name_and_one_password(daemon):
    daemon.tool("setup")
    texts = {name: daemon.machine.read(f"{CONFIGURATION}/{name}") for name in COMPONENT_FILES}
    for text in texts.values():
        assert "@HOSTNAME@" not in text and "@ROUTERPASSWORD@" not in text
    password = daemon.router_password()
    assert len(password) == 15 and set(password) <= set(ALPHABET) and "${" not in password
    assert daemon.values("users.user.secret", "router-users.xml") == [password]
    for component in ("sm", "c2s", "s2s"):
        assert daemon.values(f"{component}.router.pass") == [password]
    assert daemon.values("c2s.local.id") == ["push.example.test"]
    assert daemon.values("sm.local.id") == ["push.example.test"]
    assert daemon.values("sm.velto_notification_component_addr") == ["pubsub.push.example.test"]
    for name in COMPONENT_FILES:
        assert attributes(daemon.machine, f"{CONFIGURATION}/{name}") == (84, 0, 0o600)


def test_setup_makes_the_database_with_its_tables(service):
    script = sqlite3.connect(":memory:")
    script.executescript(service.machine.read("/private/var/jabberd/db-setup.sqlite"))
    question = "SELECT name, sql FROM sqlite_master ORDER BY name"
    with sqlite3.connect(f"file:{service.machine.outside(DATABASE)}?mode=ro", uri=True) as made:
        assert made.execute(question).fetchall() == script.execute(question).fetchall()
        assert made.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    assert attributes(service.machine, DATABASE) == (84, 84, 0o640)
    assert attributes(service.machine, "/private/var/jabberd/sqlite") == (84, 84, 0o750)


def test_setup_makes_the_directories_that_jabberd_writes_to(service):
    assert attributes(service.machine, "/private/var/run/jabberd_notification") == (84, 1, 0o755)
    assert attributes(service.machine, "/Library/Server/Parlance/Data/message_archives") == (84, 80, 0o750)
    service.machine.run("touch", "/private/var/run/jabberd_notification/try",
                        "/Library/Server/Parlance/Data/message_archives/try", user=84)


def test_a_second_setup_changes_nothing(service):
    before = service.configuration_files()
    database = service.machine.outside(DATABASE).stat()
    answer = json.loads(service.tool("--json", "setup").stdout)
    assert answer["state"] == "STOPPED"
    assert service.configuration_files() == before
    after = service.machine.outside(DATABASE).stat()
    assert (after.st_ino, after.st_mtime_ns) == (database.st_ino, database.st_mtime_ns)


def test_setup_without_templates_fails_and_says_what_is_missing(machine):
    machine.start_daemon()
    result = Service(machine).tool("setup", check=False)
    assert result.returncode == 70
    assert "/private/var/jabberd/db-setup.sqlite: No such file or directory" in result.stderr
    assert not machine.outside(DATABASE).exists()
    machine.run("rm", "-rf", "/private/var/jabberd")
    machine.prepare_instance()
    machine.outside(f"{CONFIGURATION}/sm.xml").unlink()
    result = Service(machine).tool("setup", check=False)
    assert result.returncode == 70
    assert f"Failed to load {CONFIGURATION}/sm.xml" in result.stderr


def test_settings_are_not_touched_before_the_first_setup(daemon):
    before = daemon.configuration_files()
    daemon.set("authLevel=KERBEROS", check=False)
    assert daemon.configuration_files() == before


def test_the_router_password_never_reaches_a_log(service):
    service.set("hostsCommaDelimitedString=a.example.test,b.example.test", "authLevel=STANDARD")
    service.tool("--json", "settings", "get")
    assert service.router_password() not in service.log()


def test_the_log_holds_lines_of_the_plug_in_with_their_level_letter(machine):
    machine.start_daemon()
    Service(machine).tool("setup", check=False)
    lines = [line for line in machine.system_log().splitlines() if "tessard_notification[" in line]
    assert lines
    assert all(re.search(r" 13 .*tessard_notification\[[INWE]\]: ", line) for line in lines)
