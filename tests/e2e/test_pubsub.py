"""The publish-subscribe service: the real component and a real database server beside the real jabberd2."""

import os
import plistlib
import random
import re
import signal
import stat
import subprocess
import time

import pytest

from certificates import serve_over_tls
from private_machine import PrivateMachine, wait_until
from pubsub import (ADDRESS, DATA, DOMAIN, ERROR_LOG, LAUNCHER, PID_FILE, ROUTER_DIRECTORY, SERVICE_DIRECTORY,
                    SETTINGS, Pubsub)
from service import Service

WRONG_USE, START_FAILED, NO_ROOT, BAD_SETTINGS = 64, 69, 77, 78
STATUS = "/run/tessard-services/com.velto.Beaconry.plist"
MARKER = "/var/db/idavoll/pubsub.db"
KILLS = 5
AUTHENTICATION_TIMEOUT = 60  # seconds, PostgreSQL's own default


def pubsub_beside_jabberd(service):
    """The daemon's own settings and a router that runs; the service was never started."""
    made = Pubsub(service)
    serve_over_tls(service, [DOMAIN])
    assert service.machine.outside(SETTINGS).stat().st_uid == 84
    made.start_router()
    return made


@pytest.fixture
def new(service):
    return pubsub_beside_jabberd(service)


@pytest.fixture(scope="module")
def shared():
    """One machine for the tests that leave it as they find it."""
    with PrivateMachine(os.environ["TESSARD_BUILD_DIR"]) as machine:
        machine.prepare_instance()
        assert machine.run(LAUNCHER, "--prepare").stderr == "pubsub launcher: The database cluster is made.\n"
        machine.run("cp", "-a", f"{DATA}/cluster", "/var/tmp/cluster")
        machine.start_daemon()
        service = Service(machine)
        service.tool("setup")
        yield pubsub_beside_jabberd(service)


@pytest.fixture
def stopped(shared):
    """Prepared, with sound settings, no marker and nothing published, and down."""
    shared.stop()
    shared.start_router()
    shared.machine.run("rm", "-rf", f"{DATA}/cluster", os.path.dirname(MARKER))
    shared.machine.run("cp", "-a", "/var/tmp/cluster", f"{DATA}/cluster")
    shared.write_settings()
    shared.forget()
    return shared


@pytest.fixture
def running(stopped):
    stopped.start()
    return stopped


def kill(pubsub, number, pid):
    pubsub.machine.run("kill", f"-{int(number)}", pid)


def read_process(pubsub, pid, name):
    # As the account: root without all its powers may not look into others' processes.
    return pubsub.machine.run("cat", f"/proc/{pid}/{name}", user=84).stdout


# --- start and stop --------------------------------------------------------------------------------------------------


def test_the_first_start_makes_the_database_and_the_router_has_the_component(new):
    machine = new.machine
    new.start()
    # At once: the start returns when the router has accepted the component.
    assert re.search(rf"router\[\d+\]: \[{re.escape(ADDRESS)}\] online", machine.system_log())
    assert machine.read(PID_FILE) == str(new.pid())
    assert machine.run("cat", f"/proc/{new.pid()}/comm").stdout == "Beaconry\n"
    seen = machine.outside(PID_FILE).stat()
    assert (seen.st_uid, stat.S_IMODE(seen.st_mode)) == (0, 0o644)
    assert {new.pid_of("component"), new.pid_of("PostgreSQL")} <= set(new.parts())
    assert new.says("component") == [f"The router has accepted {ADDRESS}."]
    assert new.errors() == ""
    status = plistlib.loads(machine.outside(STATUS).read_bytes())
    assert (status["state"], [part["state"] for part in status["parts"]]) == ("running", ["ready", "ready"])

    new.stop()
    new.assert_nothing_runs()
    assert new.says("launcher")[-1] == "The service has stopped."
    assert not machine.outside(STATUS).exists()


def test_a_prepared_service_needs_no_new_database(stopped):
    stopped.start()
    assert "The database cluster is made." not in stopped.says("launcher")
    assert stopped.launch("--prepare").returncode == 0
    assert stopped.is_ready()


def test_the_database_server_is_reached_by_nobody_else(running):
    machine = running.machine
    seen = machine.outside(DATA).stat()
    assert (seen.st_uid, seen.st_gid, stat.S_IMODE(seen.st_mode)) == (84, 84, 0o700)
    assert machine.run("ls", f"{DATA}/socket", user=1001, check=False).returncode != 0
    assert running.sql("SHOW listen_addresses") == [""]
    listening = machine.run("cat", "/proc/net/tcp", "/proc/net/tcp6").stdout.splitlines()
    ports = {int(row.split()[1].split(":")[1], 16) for row in listening if row.split()[3:4] == ["0A"]}
    assert ports == {5347, 5218, 5268}


def test_the_parts_have_the_accounts_rights_alone(running):
    for pid in (running.pid_of("component"), running.pid_of("PostgreSQL")):
        status = dict(line.split(":", 1) for line in running.machine.run("cat", f"/proc/{pid}/status").stdout.splitlines())
        assert status["Uid"].split() == status["Gid"].split() == ["84"] * 4
        assert status["Groups"].split() == []
        assert int(status["CapEff"], 16) == int(status["CapPrm"], 16) == 0
        assert status["NoNewPrivs"].strip() == "1"


def test_the_secrets_are_in_no_argument_list_environment_or_log(stopped):
    stopped.write_settings(verbose=True, dbpass="pass word of the database")
    secret = stopped.service.router_password()
    jid = stopped.add_account("ann")
    stopped.start()
    assert stopped.ask(jid, "create", "news") == [["created", "result"]]
    for pid in (stopped.pid(), *stopped.parts()):
        for name in ("cmdline", "environ"):
            shown = stopped.machine.run("cat", f"/proc/{pid}/{name}", user=84 if pid in stopped.parts() else 0,
                                         check=False).stdout
            assert secret not in shown and "pass word" not in shown
    log = stopped.machine.system_log()
    # The traffic is there, with the words that it takes to join left out.
    assert any("RECV" in line and "news" in line for line in stopped.says("component"))
    assert re.search(r"SEND: .*<handshake>\*{8}<", log)
    for text in (log, stopped.errors(), stopped.machine.read("/var/log/tessardd.log")):
        assert secret not in text and "pass word" not in text


def test_a_second_launcher_leaves_the_first_alone(running):
    before = running.parts()
    result = running.launch()
    assert result.returncode == START_FAILED
    assert "Nothing is started: the service is running already." in result.stderr
    assert set(running.parts()) >= {running.pid_of("component"), running.pid_of("PostgreSQL")}
    assert running.pid_of("PostgreSQL") in before
    assert running.machine.read(PID_FILE) == str(running.pid())


@pytest.mark.parametrize("part", ["component", "PostgreSQL"])
def test_a_stopped_process_does_not_hold_up_the_stop(running, part):
    kill(running, signal.SIGSTOP, running.pid_of(part))
    running.stop()
    running.assert_nothing_runs()
    assert f"The {part} does not end." in running.says("launcher")


# --- what it is for --------------------------------------------------------------------------------------------------


def test_what_one_client_publishes_another_is_told_also_after_a_restart(running):
    ann, bob = running.add_account("ann"), running.add_account("bob")
    assert running.ask(ann, "create", "news") == [["created", "result"]]
    with running.listener(bob, "subscribe", "news") as listener:
        assert running.ask(ann, "publish", "news", "first") == [["published", "result"]]
        assert listener.next() == ["event", "news", "first"]
        running.stop()
        running.start()
        assert running.ask(ann, "publish", "news", "second") == [["published", "result"]]
        assert listener.next() == ["event", "news", "second"]
    [said] = running.ask(bob, "items", "news")
    assert sorted(said) == ["first", "items", "second"]
    assert running.ask(bob, "publish", "news", "third") == [["error", "forbidden"]]


def test_a_client_discovers_what_the_component_can_do(running):
    [[word, *features]] = running.ask(running.add_account("ann"), "features")
    assert word == "features"
    assert {"http://jabber.org/protocol/disco#items", "http://jabber.org/protocol/pubsub#create-nodes"} <= set(features)
    assert running.errors() == ""


def test_privileged_users_may_do_everything(stopped):
    ann, bob = stopped.add_account("ann"), stopped.add_account("bob")
    stopped.start()
    assert stopped.ask(ann, "create", "news") == [["created", "result"]]
    assert stopped.ask(bob, "delete", "news") == [["error", "forbidden"]]
    stopped.write_settings(privilegedUsers=["bob"])
    restart(stopped)
    assert stopped.ask(bob, "delete", "news") == [["deleted", "result"]]


# --- the router ------------------------------------------------------------------------------------------------------


def test_the_service_waits_for_a_router_and_follows_it(stopped):
    stopped.control(ROUTER_DIRECTORY, up=False)
    stopped.machine.run("s6-svc", "-u", SERVICE_DIRECTORY)
    wait_until(lambda: any("ready to accept connections" in line for line in stopped.says("launcher")), "the server")
    assert not stopped.is_ready() and not stopped.machine.outside(PID_FILE).exists()
    stopped.start_router()
    wait_until(stopped.is_ready, "readiness")
    parts = {stopped.pid_of("component"), stopped.pid_of("PostgreSQL")}
    stopped.control(ROUTER_DIRECTORY, up=False)
    stopped.start_router()
    accepted = f"The router has accepted {ADDRESS}."
    wait_until(lambda: stopped.says("component").count(accepted) == 2, "the return to the router")
    assert parts == {stopped.pid_of("component"), stopped.pid_of("PostgreSQL")}
    assert stopped.is_ready()


def test_a_secret_that_the_router_refuses_keeps_the_service_down(stopped):
    stopped.write_settings(secret="not the router's")
    result = stopped.start(check=False)
    assert "failed permanently" in result.stderr
    assert 'The router refuses the "secret" of the settings, which must be its "local.secret".' in stopped.errors()
    assert stopped.pid() == -1
    stopped.assert_nothing_runs()
    assert "not the router's" not in stopped.machine.system_log() + stopped.errors()


# --- deaths ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("part", ["component", "PostgreSQL"])
def test_a_part_that_is_killed_makes_all_start_again(running, part):
    ann = running.add_account("ann")
    assert running.ask(ann, "create", "news", "publish", "news", "kept")[-1] == ["published", "result"]
    before, launcher = running.parts(), running.pid()
    kill(running, signal.SIGKILL, running.pid_of(part))
    running.wait_for_next_run(launcher)
    assert not set(running.parts()) & set(before)
    assert f"The {part} has ended by signal 9; the service is stopped, so that it can be started again." in running.errors()
    assert running.ask(ann, "items", "news") == [["items", "kept"]]
    assert running.machine.read(PID_FILE) == str(running.pid())


def test_a_launcher_that_is_killed_leaves_no_process_and_starts_again(running):
    ann = running.add_account("ann")
    assert running.ask(ann, "create", "news", "publish", "news", "kept")[-1] == ["published", "result"]
    before, launcher = running.parts(), running.pid()
    running.machine.run("s6-svc", "-O", SERVICE_DIRECTORY)  # no new run after this one
    kill(running, signal.SIGKILL, launcher)
    wait_until(lambda: not running.parts(), f"the end of {before}")
    running.start()
    assert running.ask(ann, "items", "news") == [["items", "kept"]]


def test_what_a_dead_run_left_does_not_stop_the_next(stopped):
    machine = stopped.machine
    # A process of the account's, which the server would take for another server; the router is one.
    router = machine.read("/var/run/jabberd_notification/router.pid")
    text = f"{router}\n{DATA}/cluster\n1\n5432\n{DATA}/socket\n\n  0 0\nready\n"
    machine.write(f"{DATA}/cluster/postmaster.pid", text, 0o600, (84, 84))
    machine.write(f"{DATA}/socket/.s.PGSQL.5432.lock", text, 0o600, (84, 84))
    machine.write(PID_FILE, "4194303")
    stopped.start()
    assert machine.run("kill", "-0", router).returncode == 0
    stopped.stop()

    # And a server that has outlived its launcher.
    server = re.search(r"/usr/lib/postgresql/\S+/bin/postgres", " ".join(
        machine.run("sh", "-c", "ls /usr/lib/postgresql/*/bin/postgres").stdout.splitlines())).group()
    with machine.popen(server, "-D", f"{DATA}/cluster", "-k", f"{DATA}/socket", "-c", "listen_addresses=", user=84,
                       stderr=subprocess.DEVNULL) as stray:
        wait_until(machine.outside(f"{DATA}/socket/.s.PGSQL.5432").exists, "the other server", still_possible=lambda: stray.poll() is None)
        stopped.start()
        assert stray.wait(30) != 0
    assert stopped.ask(stopped.add_account("ann"), "create", "news") == [["created", "result"]]


def test_a_first_start_that_is_killed_at_any_moment_is_done_again(new):
    seed = random.randrange(2**32)
    print(f"seed {seed}")
    moments = random.Random(seed)
    for _ in range(KILLS):
        with new.machine.popen(LAUNCHER, stderr=subprocess.DEVNULL) as launcher:
            time.sleep(moments.uniform(0, 4))
            new.machine.run("pkill", "-KILL", "-f", f"^/usr/bin/python3 -IB {LAUNCHER}", check=False)
            launcher.wait(30)
        # A server process that has not been told yet who connects waits for that, a minute at most, whatever has ended.
        wait_until(lambda: not new.parts(), "the end of all parts", AUTHENTICATION_TIMEOUT + 60)
    new.start()
    assert new.ask(new.add_account("ann"), "create", "news") == [["created", "result"]]
    assert not new.machine.outside(f"{DATA}/cluster.new").exists()


def test_tables_that_were_half_made_are_made_anew(running):
    # As a run leaves it that is killed between the database and its tables.
    running.sql("DROP SCHEMA public CASCADE; CREATE SCHEMA public AUTHORIZATION jabberd; DROP SCHEMA tessard CASCADE")
    running.stop()
    running.start()
    assert running.ask(running.add_account("ann"), "create", "news") == [["created", "result"]]


# --- settings --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("values, sentence", [
    ({"domain": None}, '"domain" is missing'),
    ({"domain": "a b"}, "the \"domain\" 'a b' is not a domain"),
    ({"secret": None}, '"secret" is missing'),
    ({"rport": "http"}, "the router port 'http' of \"rport\" is not a port"),
    ({"backend": "memory"}, 'the "backend" is "memory", and the component stores in "pgsql" alone'),
])
def test_settings_that_cannot_be_used_start_nothing(stopped, values, sentence):
    stopped.write_settings(**values)
    result = stopped.launch()
    assert result.returncode == BAD_SETTINGS
    assert f"Nothing is started: {sentence}.\n" in result.stderr
    assert f"Nothing is started: {sentence}.\n" in stopped.errors()
    stopped.assert_nothing_runs()
    status = plistlib.loads(stopped.machine.outside(STATUS).read_bytes())
    assert (status["state"], status["reason"]) == ("failed", "The component has said why it cannot be started.")


def test_no_sentence_stands_in_the_journal_twice(stopped):
    stopped.write_settings(domain=None)
    # As systemd starts it: standard error is a file that the variable names by device and inode.
    result = stopped.machine.run("sh", "-c", f"exec 2>/tmp/journal; JOURNAL_STREAM=$(stat -c %d:%i /tmp/journal) {LAUNCHER}",
                                 check=False)
    assert result.returncode == BAD_SETTINGS
    assert stopped.machine.read("/tmp/journal") == ""
    assert 'Nothing is started: "domain" is missing.' in stopped.says("component")


def test_without_a_settings_file_the_service_stays_down(stopped):
    place = stopped.machine.outside(SETTINGS)
    for content, sentence in ((None, f'there is no settings file "{SETTINGS}"'), (b"x", f'"{SETTINGS}" is not a property list'),
                              (b"bplist00" + b"\xff" * 64, f'"{SETTINGS}" is not a property list'),
                              (plistlib.dumps([]), f'"{SETTINGS}" holds no dictionary')):
        place.unlink(missing_ok=True)
        if content is not None:
            place.write_bytes(content)
        assert "failed permanently" in stopped.start(check=False).stderr
        assert stopped.pid() == -1
        assert f"Nothing is started: {sentence}.\n" in stopped.errors()
        stopped.assert_nothing_runs()
    place.unlink()
    stopped.write_settings()
    stopped.start()


def test_a_binary_settings_file_and_other_names_in_the_database_work(stopped):
    stopped.write_settings(dbname='a "name" of spaces', dbuser="another's", connectAsClient=True, rport=5347)
    place = stopped.machine.outside(SETTINGS)
    place.write_bytes(plistlib.dumps(plistlib.loads(place.read_bytes()), fmt=plistlib.FMT_BINARY))
    stopped.start()
    assert stopped.sql("SELECT tableowner FROM pg_tables WHERE tablename = 'nodes'", 'a "name" of spaces') == ["another's"]
    assert '"connectAsClient" has no effect: the component joins the router as a component.' in stopped.errors()
    ann = stopped.add_account("ann")
    assert stopped.ask(ann, "create", "news") == [["created", "result"]]
    # Another user takes over what the first one made.
    stopped.write_settings(dbname='a "name" of spaces', dbuser="a third")
    stopped.stop()
    stopped.start()
    assert stopped.ask(ann, "publish", "news", "text") == [["published", "result"]]


@pytest.mark.parametrize("values", [{"dbname": "template1"}, {"dbuser": "tessard_owner"}, {"dbuser": "pg_me"}])
def test_names_that_the_database_keeps_for_itself_are_refused(stopped, values):
    stopped.write_settings(**values)
    result = stopped.launch()
    assert result.returncode == BAD_SETTINGS
    assert "is PostgreSQL's own." in result.stderr
    stopped.assert_nothing_runs()


# --- a change of host ------------------------------------------------------------------------------------------------


def make_marker(pubsub):
    pubsub.machine.run("install", "-d", "-o", "84", "-m", "0750", "/var/db/idavoll")
    pubsub.machine.write(MARKER, "", 0o750, (84, 0))


def restart(pubsub):
    pubsub.stop()
    pubsub.start()


@pytest.fixture
def published(running):
    """A node with one item, and the owner's address."""
    running.owner = running.add_account("ann")
    assert running.ask(running.owner, "create", "news", "publish", "news", "old")[-1] == ["published", "result"]
    return running


def still_there(pubsub):
    answer = pubsub.ask(pubsub.owner, "items", "news")
    assert answer in ([["items", "old"]], [["error", "item-not-found"]])
    return answer == [["items", "old"]]


def test_without_a_marker_nothing_is_ever_emptied(published):
    restart(published)
    assert still_there(published)


def test_the_store_is_emptied_once_when_its_marker_is_gone(published):
    make_marker(published)
    restart(published)
    assert still_there(published)
    restart(published)
    assert still_there(published)
    published.machine.outside(MARKER).unlink()
    restart(published)
    assert not still_there(published)
    assert published.sql("SELECT count(*) FROM before_the_change_of_host.items") == ["1"]
    assert any(line.startswith(f'The host has changed ("{MARKER}" is gone)') for line in published.says("component"))
    # What is published from now on stays.
    assert published.ask(published.owner, "create", "news", "publish", "news", "old")[-1] == ["published", "result"]
    restart(published)
    make_marker(published)
    restart(published)
    assert still_there(published)


def test_the_store_is_emptied_when_its_marker_was_replaced(published):
    make_marker(published)
    restart(published)
    published.machine.outside(MARKER).rename(published.machine.outside("/var/tmp/first"))  # keeps its inode in use
    make_marker(published)
    restart(published)
    assert not still_there(published)
    assert any(line.startswith(f'The host has changed ("{MARKER}" is another)') for line in published.says("component"))
    restart(published)
    assert published.ask(published.owner, "create", "news") == [["created", "result"]]
    restart(published)
    assert published.ask(published.owner, "create", "news") == [["error", "conflict"]]


def test_a_marker_that_is_written_to_is_the_same(published):
    make_marker(published)
    restart(published)
    published.machine.run("sh", "-c", f"echo x >>{MARKER}; chmod 0640 {MARKER}")
    restart(published)
    assert still_there(published)


# --- the account is not trusted ----------------------------------------------------------------------------------------


def test_the_account_cannot_make_root_write_elsewhere(daemon):
    pubsub, machine = Pubsub(daemon), daemon.machine
    machine.write("/etc/victim", "whole\n")
    machine.run("install", "-d", "-o", "84", "-m", "0750", os.path.dirname(ERROR_LOG))
    machine.run("ln", "-s", "/etc/victim", ERROR_LOG, user=84)
    machine.outside(DATA).symlink_to("/etc")
    result = pubsub.launch()
    assert result.returncode == START_FAILED
    assert f'Nothing is started: "{DATA}" is not a directory of account 84 that is closed to others.' in result.stderr
    assert machine.read("/etc/victim") == "whole\n"
    assert machine.outside("/etc").stat().st_uid == 0
    machine.outside(DATA).unlink()
    machine.run("install", "-d", "-o", "84", "-m", "0700", DATA)
    machine.run("ln", "-s", "/etc", f"{DATA}/cluster.new", user=84)
    before = sorted(machine.outside("/etc").iterdir())
    assert pubsub.launch("--prepare").returncode != 0
    assert sorted(machine.outside("/etc").iterdir()) == before


def test_the_launcher_explains_itself_and_refuses_what_it_does_not_know(machine):
    def launch(*words, **options):
        return machine.run(LAUNCHER, *words, check=False, **options)
    assert "usage: pubsub_launcher" in launch("--help").stdout
    for words in (["--nonsense"], ["--notify-fd"], ["--notify-fd", "x"], ["--notify-fd", "77"]):
        result = launch(*words)
        assert (result.returncode, result.stdout) == (WRONG_USE, "")
        assert result.stderr.startswith("pubsub_launcher: ")
    assert launch(user=1001).returncode == NO_ROOT
