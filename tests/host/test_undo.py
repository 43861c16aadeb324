"""The undo of the last settings write, through the daemon and the command-line tool."""

import json
import os
import pathlib
import stat

import pytest

from hosttools import awaitTidy, needsPlugin

pytestmark = needsPlugin

JABBERD = "etc/jabberd_notification"
WRITTEN = {"hosts": ["push.example.com", "b.example.com"], "authLevel": "ANYMETHOD", "jabberdClientPortTLS": 5300,
           "savedChatsLocation": "/var/chats/deep", "enableSavedChats": True, "secret": "canary-1"}


@pytest.fixture
def service(pluginRoot, makeDaemon):
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    return daemon


def write(daemon, **settings):
    answer = daemon.post({"command": "writeSettings", "configuration": settings}).json
    assert answer["writeStatus"] == 0
    awaitTidy(daemon.root)
    return answer


def undo(daemon):
    answer = daemon.post({"command": "undoSettings"}).json
    awaitTidy(daemon.root)
    return answer


def settings(daemon):
    return daemon.post({"command": "readSettings"}).json["configuration"]


def state(root):
    """All that there is but the journal: names, owners, modes, contents, and the times of files."""
    found = {}
    for directory, subdirectories, files in os.walk(root):
        subdirectories[:] = [name for name in subdirectories if name not in ("run", "usr", "journal")]
        for name in subdirectories + files:
            path = pathlib.Path(directory, name)
            status = path.lstat()
            entry = (status.st_uid, status.st_gid, status.st_mode)
            if stat.S_ISREG(status.st_mode):
                entry += (status.st_mtime_ns, path.read_bytes())
            found[str(path.relative_to(root))] = entry
    return found


def test_all_that_a_write_changed_is_put_back_and_made_again(service):
    before, old = state(service.root), settings(service)
    write(service, **WRITTEN)
    after, new = state(service.root), settings(service)
    assert f"{JABBERD}/sm_b.example.com.xml" in after and "var/chats/deep" in after
    for _ in range(2):
        answer = undo(service)
        assert state(service.root) == before
        assert answer["configuration"] == old == settings(service)
        assert answer["needsRecycleOrRestart"] is True
        assert "/etc/jabberd_notification/sm_b.example.com.xml" in answer["files"]
        assert undo(service)["configuration"] == new
        assert state(service.root) == after


def test_a_domain_that_was_taken_away_comes_back_with_its_file(service):
    write(service, hosts=["push.example.com", "b.example.com"])
    file = service.root / JABBERD / "sm_b.example.com.xml"
    file.write_text(file.read_text().replace("</sm>", "<!-- by hand --></sm>"))
    content = file.read_bytes()
    write(service, hosts=["push.example.com"])
    assert not file.exists()
    undo(service)
    assert file.read_bytes() == content
    assert settings(service)["hosts"] == ["push.example.com", "b.example.com"]


def test_the_last_write_can_be_undone_after_a_restart_of_the_daemon(service, makeDaemon, pluginRoot):
    old = settings(service)
    write(service, **WRITTEN)
    service.end()
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    # Its own look at the files writes some of them once more as they were.
    assert settings(daemon)["authLevel"] == "ANYMETHOD"
    assert undo(daemon)["configuration"] == old


def test_a_write_that_changes_nothing_leaves_the_one_before_it_to_be_undone(service):
    write(service, authLevel="ANYMETHOD")
    write(service, authLevel="ANYMETHOD")
    assert undo(service)["configuration"]["authLevel"] == "STANDARD"


def test_a_refused_write_leaves_the_one_before_it_to_be_undone(service):
    write(service, authLevel="ANYMETHOD")
    assert "error" in service.post({"command": "writeSettings", "configuration": {"jabberdS2SPort": 70000}}).json
    assert undo(service)["configuration"]["authLevel"] == "STANDARD"


def test_what_somebody_has_edited_since_is_named_and_kept(service):
    write(service, authLevel="ANYMETHOD", jabberdClientPortTLS=5300)
    file = service.root / JABBERD / "c2s.xml"
    file.write_text(file.read_text().replace("5300", "5301"))
    before = state(service.root)
    answer = service.post({"command": "undoSettings"}, path="/v1/plugins/notification?with=log").json
    assert answer["answer"] == {"error": "CHANGED_SINCE_ERR", "files": ["/etc/jabberd_notification/c2s.xml"]}
    assert answer["log"] == [{"level": "error", "message": '"/etc/jabberd_notification/c2s.xml" has been changed since the '
                                                           "settings were written"}]
    assert state(service.root) == before
    for words in (("settings", "undo"), ("settings", "undo", "--check")):
        done = service.tool(*words)
        assert (done.returncode, done.stdout) == (65, "")
        assert done.stderr.endswith("error: Nothing is undone, as these files have been changed since: "
                                    "/etc/jabberd_notification/c2s.xml.\n")
        assert json.loads(service.tool("--json", *words).stdout)["error"] == "changed-since"
    assert state(service.root) == before


def test_where_nothing_was_written_there_is_nothing_to_undo(service):
    assert service.post({"command": "undoSettings"}).json == {"error": "NOTHING_TO_UNDO_ERR"}
    for words in (("settings", "undo"), ("settings", "undo", "--check")):
        done = service.tool(*words)
        assert (done.returncode, done.stdout) == (65, "")
        assert "There is no settings write that could be undone." in done.stderr
        assert json.loads(service.tool("--json", *words).stdout)["error"] == "nothing-to-undo"


def test_a_look_at_it_tells_the_settings_and_changes_nothing(service):
    write(service, authLevel="ANYMETHOD", jabberdClientPortTLS=5300, secret="canary-1")
    write(service, authLevel="STANDARD", hosts=["push.example.com", "b.example.com"], secret="canary-2")
    before = state(service.root)
    done = service.tool("settings", "undo", "--check")
    assert done.returncode == 0, done.stderr
    assert sorted(done.stdout.splitlines()) == [
        "authLevel: STANDARD -> ANYMETHOD",
        'hosts: ["push.example.com","b.example.com"] -> ["push.example.com"]',
        "hostsCommaDelimitedString: push.example.com,b.example.com -> push.example.com",
        "secret: *** -> ***"]
    assert done.stderr == "Not undone, as --check was given.\n"
    document = json.loads(service.tool("--json", "settings", "undo", "--check").stdout)
    assert document["differences"]["authLevel"] == {"old": "STANDARD", "new": "ANYMETHOD"}
    assert document["differences"]["secret"] == {"old": "***", "new": "***"}
    assert "/etc/jabberd_notification/c2s.xml" in document["files"]
    awaitTidy(service.root)
    assert state(service.root) == before


def test_the_tool_tells_what_it_has_undone(service):
    write(service, authLevel="ANYMETHOD", secret="canary-1")
    done = service.tool("settings", "undo")
    assert done.returncode == 0, done.stderr
    assert "authLevel: ANYMETHOD -> STANDARD\n" in done.stdout
    assert done.stderr.startswith("The last settings write is undone. That takes effect with the next restart")
    assert "canary" not in done.stdout + done.stderr
    assert service.tool("settings", "get", "authLevel").stdout == "authLevel=STANDARD\n"
    document = json.loads(service.tool("--json", "settings", "undo").stdout)
    assert (document["changed"], document["differences"]["authLevel"]) == (True, {"old": "STANDARD", "new": "ANYMETHOD"})
    assert "canary" not in json.dumps(document)


def test_the_log_tells_who_has_undone_what_without_secrets(service):
    write(service, authLevel="ANYMETHOD", secret="canary-1")
    undo(service)
    service.post({"command": "readFormerSettings"})
    service.post({"command": "undoSettings"})
    _, text = service.end()
    lines = [json.loads(line.partition("audit: ")[2]) for line in text.splitlines() if "audit: " in line]
    undone = [line for line in lines if line["command"] == "undoSettings"]
    assert [line["changed"]["authLevel"] for line in undone] == [
        {"old": "ANYMETHOD", "new": "STANDARD"}, {"old": "STANDARD", "new": "ANYMETHOD"}]
    assert undone[0]["changed"]["secret"] == {"old": "***", "new": "***"}
    assert set(undone[0]["changed"]) <= {"authLevel", "secret"}
    assert undone[0]["uid"] == os.geteuid() and undone[0]["result"] == "done"
    assert "readFormerSettings" not in [line["command"] for line in lines]
    assert "canary" not in text


def test_what_is_kept_for_it_is_open_to_root_alone(service):
    write(service, secret="canary-1")
    home = service.root / "Library/Server/tessardd/journal"
    assert stat.S_IMODE(home.stat().st_mode) == 0o700
    assert sorted(entry.name for entry in home.iterdir()) == ["last"]


def test_wrong_words_are_refused(service):
    for words in (("settings", "undo", "now"), ("settings", "undo", "--format", "json"), ("settings", "get", "--check")):
        assert service.tool(*words).returncode == 64


def test_a_daemon_without_setup_has_nothing_to_undo(pluginRoot, makeDaemon):
    daemon = makeDaemon("--service-manager", "none", root=pluginRoot)
    assert daemon.post({"command": "undoSettings"}).json == {"error": "NOTHING_TO_UNDO_ERR"}
    assert daemon.tool("settings", "undo").returncode == 69


