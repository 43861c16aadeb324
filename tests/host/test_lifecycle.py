"""Starting, stopping, configuration and bundles."""

import json
import os
import pathlib
import re
import shutil
import signal
import socket
import stat
import subprocess
import sys

import pytest

from hosttools import (
    NOBODY,
    PATIENCE,
    Answer,
    Connection,
    Daemon,
    RunningRequest,
    buildDirectory,
    shortName,
    waitUntil,
)


def program(*words):
    return subprocess.run(
        [buildDirectory() / "bin/tessardd", *map(str, words)],
        capture_output=True,
        text=True,
        timeout=PATIENCE,
    )


def addBundle(root, kind, name, edit=None):
    """A further bundle with an identifier of its own."""
    target = root / f"usr/share/tessardd/bundles/{name}.bundle"
    shutil.copytree(buildDirectory() / f"host_bundles/{kind}.bundle", target)
    information = target / "Contents/Info.plist"
    text = information.read_text().replace("com.velto.hosttest", f"com.velto.{name}")
    information.write_text(edit(text) if edit else text)
    return target


def configure(root, text):
    directory = root / "etc/tessardd"
    directory.mkdir(parents=True)
    (directory / "tessardd.conf").write_text(text)


def test_stopping_finishes_the_running_request_and_refuses_the_others(daemon):
    running = RunningRequest(daemon)
    waiting = daemon.connection()
    body = json.dumps({"command": "echo"})
    waiting.request("POST", "/v1/plugins/notification", body, {"Content-Type": "application/json"})
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the second request waits")
    idle = daemon.connection()
    daemon.send("GET", "/v1/health", connection=idle)
    daemon.process.send_signal(signal.SIGTERM)
    refused = Answer(waiting.getresponse())
    assert (refused.status, refused.error) == (503, "stopping")
    late = daemon.send("POST", "/v1/plugins/notification", body, idle, Content_Type="application/json")
    assert (late.status, late.error) == (503, "stopping")
    assert not daemon.socket.exists()
    assert daemon.process.poll() is None
    answer = running.finish()
    assert (answer.status, answer.json) == (200, {"waited": True})
    status, text = daemon.end()
    assert status == 0
    assert text.splitlines()[-1] == "tessardd: Stopped."


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_an_idle_daemon_with_status_0(daemon, number):
    daemon.process.send_signal(number)
    assert daemon.end()[0] == 0


def test_a_hangup_is_ignored(daemon):
    daemon.process.send_signal(signal.SIGHUP)
    daemon.assertServes()


def test_start_and_stop_are_told_in_one_sentence_each(daemon):
    status, text = daemon.end()
    lines = text.splitlines()
    assert any(line.startswith("tessardd: Version ") and line.endswith(".") for line in lines)
    assert all(line.startswith("tessardd: ") for line in lines)


def test_the_service_manager_is_told(daemon):
    daemon.process.send_signal(signal.SIGTERM)
    assert daemon.notification.recv(4096) == b"STOPPING=1"


def test_a_stale_socket_is_replaced(makeDaemon):
    first = makeDaemon()
    first.process.kill()
    first.process.wait()
    assert first.socket.exists()
    makeDaemon().assertServes()


def test_a_socket_that_is_served_is_left_alone(root, makeDaemon):
    directory = root / "run/tessardd"
    directory.mkdir(parents=True)
    with socket.socket(socket.AF_UNIX) as other, shortName(directory / "tessardd.sock") as name:
        other.bind(name)
        other.listen()
        status, text = Daemon(root).failure()
        assert status == 75
        assert "another process is serving the socket /run/tessardd/tessardd.sock" in text
        assert stat.S_ISSOCK(os.stat(directory / "tessardd.sock").st_mode)


def test_a_file_in_the_place_of_the_socket_is_left_alone(root):
    directory = root / "run/tessardd"
    directory.mkdir(parents=True)
    (directory / "tessardd.sock").write_text("precious")
    status, text = Daemon(root).failure()
    assert status == 71
    assert "exists and is no socket" in text
    assert (directory / "tessardd.sock").read_text() == "precious"


def test_a_second_daemon_for_the_same_root_is_refused(daemon):
    for options in ([], ["--socket", "/run/other.sock"]):
        status, text = Daemon(daemon.root, *options).failure()
        assert status == 75
        assert f"another tessardd (process {daemon.process.pid}) is serving the root" in text
    daemon.assertServes()


def test_the_socket_of_its_successor_is_not_removed(daemon):
    moved = daemon.socket.with_name("moved")
    daemon.socket.rename(moved)
    with socket.socket(socket.AF_UNIX) as other, shortName(daemon.socket) as name:
        other.bind(name)
        daemon.end()
        assert daemon.socket.exists()


def test_the_configuration_file_that_is_installed_shows_every_setting_and_so_does_its_manual(root):
    settings = set(re.findall(r"^  --([a-z0-9-]+) [A-Z]", program("--help").stdout, re.MULTILINE))
    settings |= set(re.findall(r"^  --([a-z0-9-]+)$", program("--help").stdout, re.MULTILINE))
    settings -= {"root", "config"}
    share = pathlib.Path(__file__).parent.parent.parent / "share"
    lines = [re.sub(r"^#(?=[a-z0-9-]+ = )", "", line) for line in (share / "tessardd.conf").read_text().splitlines()]
    assert {line.split(" = ")[0] for line in lines if line and not line.startswith("#")} == settings
    manual = (share / "man/man5/tessardd.conf.5").read_text()
    assert set(re.findall(r"^\.It Cm (\S+)$", manual, re.MULTILINE)) == settings
    # Every line is taken when it is no comment: the first fault is the one that is added.
    configure(root, "\n".join([*lines, "nonsense = 1\n"]))
    refused = program("--root", root)
    assert refused.returncode == 78
    assert f'line {len(lines) + 1}: there is no setting "nonsense"' in refused.stderr


def test_the_socket_is_for_root_alone_without_the_group(makeDaemon):
    daemon = makeDaemon("--admin-group", "no-such-group")
    assert os.stat(daemon.socket).st_mode & 0o777 == 0o600
    assert os.stat(daemon.socket.parent).st_mode & 0o777 == 0o755
    _, text = daemon.end()
    assert 'There is no group "no-such-group"; only root may send requests.' in text


def startedWith(root, handed, announced):
    """A daemon that finds a socket where a service manager leaves it, and the number of sockets announced."""
    script = f"""
import os, sys
os.dup2({handed.fileno()}, 3)
os.environ.update(LISTEN_FDS="{announced}", LISTEN_PID=str(os.getpid()))
os.execv(sys.argv[1], sys.argv[1:])
"""
    return subprocess.Popen(
        [sys.executable, "-c", script, buildDirectory() / "bin/tessardd", "--root", root],
        pass_fds=[handed.fileno()],
        stderr=subprocess.PIPE,
        text=True,
    )


def test_a_socket_that_the_service_manager_hands_over_is_used(root):
    directory = root / "elsewhere"
    directory.mkdir()
    path = directory / "handed.sock"
    with socket.socket(socket.AF_UNIX) as listener:
        with shortName(path) as name:
            listener.bind(name)
        listener.listen()
        process = startedWith(root, listener, 1)
    try:
        connection = Connection(path)
        connection.request("GET", "/v1/health")
        assert Answer(connection.getresponse()).json["status"] == "ok"
    finally:
        process.terminate()
        _, text = process.communicate(timeout=PATIENCE)
    assert process.returncode == 0
    assert "serves the socket of the service manager" in text
    assert path.exists()
    assert not (root / "run/tessardd/tessardd.sock").exists()


@pytest.mark.parametrize(
    "kind, announced, problem",
    [
        (socket.SOCK_DGRAM, 1, "something else than a listening Unix stream socket"),
        (socket.SOCK_STREAM, 1, "something else than a listening Unix stream socket"),
        (socket.SOCK_STREAM, 2, "more than one socket"),
    ],
)
def test_what_the_service_manager_hands_over_must_be_one_listening_socket(root, kind, announced, problem):
    with socket.socket(socket.AF_UNIX, kind) as handed:
        process = startedWith(root, handed, announced)
    _, text = process.communicate(timeout=PATIENCE)
    assert process.returncode == 71
    assert problem in text


def test_a_service_manager_with_a_watchdog_is_told_again_and_again_that_the_daemon_is_well(makeDaemon):
    daemon = makeDaemon(prefix=["env", "WATCHDOG_USEC=900000"])
    for _ in range(3):
        assert daemon.notification.recv(4096) == b"WATCHDOG=1"
    # Also while a request runs, which the others wait for.
    running = RunningRequest(daemon)
    for _ in range(2):
        assert daemon.notification.recv(4096) == b"WATCHDOG=1"
    assert running.finish().status == 200


def test_a_service_manager_without_a_watchdog_is_not_bothered(makeDaemon):
    daemon = makeDaemon()
    daemon.assertServes()
    daemon.process.send_signal(signal.SIGTERM)
    assert daemon.notification.recv(4096) == b"STOPPING=1"


def test_idle_work_is_done_when_nothing_happens(makeDaemon):
    daemon = makeDaemon("--idle-seconds", "1")
    file = daemon.root / "idle"

    def count():
        try:
            return int(file.read_text() or 0)
        except FileNotFoundError:  # while it is replaced, too
            return 0

    waitUntil(lambda: count() >= 5, "idle five times")
    daemon.assertServes()
    waitUntil(lambda: 0 < count() < 5, "the count begins anew")


def test_options_win_over_the_file_and_the_file_over_the_defaults(root, makeDaemon):
    configure(root, "# a comment\n\n  socket = /run/from-file.sock  \r\nconnections=5\n")
    daemon = makeDaemon()
    daemon.socket = root / "run/from-file.sock"
    daemon.assertServes()
    daemon.end()
    daemon = makeDaemon("--socket=/run/from-option.sock")
    daemon.socket = root / "run/from-option.sock"
    daemon.assertServes()


@pytest.mark.parametrize(
    "text, problem",
    [
        ("sockets = /x\n", 'line 1: there is no setting "sockets"'),
        ("\n# x\nidle-seconds\n", 'line 3: a line must have the form "key = value"'),
        ("idle-seconds = soon\n", 'line 1: "idle-seconds" must be a whole number from 0 to 86400, not "soon"'),
        ("idle-seconds = -1\n", "line 1:"),
        ("idle-seconds = 99999999999999999999\n", "line 1:"),
        ("request-seconds = 0\n", "line 1:"),
        ("socket = run/x\n", 'line 1: "socket" must be an absolute path, not "run/x"'),
        ("socket =\n", 'line 1: "socket" needs a value'),
        ("connections = 2\nconnections = 3\n", 'line 2: the setting "connections" is doubled'),
        ("root = /\n", 'line 1: there is no setting "root"'),
        (" = 1\n", 'line 1: there is no setting ""'),
    ],
)
def test_a_wrong_configuration_is_told_with_its_line(root, text, problem):
    configure(root, text)
    done = program("--root", root)
    assert done.returncode == 78
    assert "tessardd.conf, " + problem in done.stderr
    assert not (root / "run").exists()


@pytest.mark.parametrize(
    "words, problem",
    [
        (["--sock", "/x"], 'there is no option "--sock"'),
        (["extra"], 'there is no option "extra"'),
        (["--socket"], 'the option "--socket" needs a value'),
        (["--root", "here"], '"root" must be an absolute path, not "here"'),
        (["--idle-seconds=x"], '"idle-seconds" must be a whole number'),
    ],
)
def test_wrong_options_are_told(words, problem):
    done = program(*words)
    assert done.returncode == 64
    assert problem in done.stderr


def test_a_named_configuration_file_must_exist(root):
    done = program("--root", root, "--config", root / "missing.conf")
    assert done.returncode == 78
    assert "missing.conf" in done.stderr


def test_a_root_that_is_not_there_is_told(root):
    done = program("--root", root / "missing")
    assert done.returncode == 71
    assert "Not started: " in done.stderr


def test_help_and_version():
    assert program("--help").stdout.startswith("usage: tessardd")
    assert program("--version").stdout.startswith("tessardd ")


def test_a_host_without_plugins_says_so(root, makeDaemon):
    shutil.rmtree(root / "usr/share/tessardd/bundles")
    daemon = makeDaemon()
    assert (daemon.health()["plugins"], daemon.echo().error) == ([], "unknown-plugin")
    assert "There are no plug-ins in /usr/share/tessardd/bundles." in daemon.end()[1]


def breakExecutable(bundle):
    (bundle / "Contents/Linux/hosttest").write_text("no library")


def openExecutable(bundle):
    (bundle / "Contents/Linux/hosttest").chmod(0o757)


def removeExecutable(bundle):
    (bundle / "Contents/Linux/hosttest").unlink()


def makeExecutableADirectory(bundle):
    removeExecutable(bundle)
    (bundle / "Contents/Linux/hosttest").mkdir()


def leadExecutableOut(bundle):
    removeExecutable(bundle)
    (bundle / "Contents/Linux/hosttest").symlink_to(buildDirectory() / "host_bundles/working.bundle/Contents/Linux/hosttest")


def removeInformation(bundle):
    (bundle / "Contents/Info.plist").unlink()


def breakInformation(bundle):
    (bundle / "Contents/Info.plist").write_text("<plist>")


def replaceInInformation(old, new):
    def edit(bundle):
        file = bundle / "Contents/Info.plist"
        text = file.read_text()
        assert old in text
        file.write_text(text.replace(old, new))

    return edit


@pytest.mark.parametrize(
    "kind, damage, problem",
    [
        ("working", removeExecutable, "hosttest cannot be opened: No such file or directory"),
        ("working", leadExecutableOut, "hosttest cannot be opened: No such file or directory"),
        ("working", makeExecutableADirectory, "is no regular file"),
        ("working", breakExecutable, "its executable cannot be loaded"),
        ("working", openExecutable, "may be changed by everyone"),
        ("working", removeInformation, "its Info.plist cannot be used: No such file or directory"),
        ("working", breakInformation, "its Info.plist cannot be used: line 1"),
        ("working", replaceInInformation("HostTestHandler", "OtherHandler"), 'it has no class "OtherHandler"'),
        ("working", replaceInInformation("NSPrincipalClass", "Other"), 'no "NSPrincipalClass"'),
        ("working", replaceInInformation("com.velto.broken", "com.velto.hosttest"), "its Info.plist cannot be used"),
        ("nosymbols", None, "lacks the symbol tessardPluginInterfaceVersion"),
        ("nocreate", None, "lacks the symbol tessardPluginCreate"),
        ("otherversion", None, "it was built for interface version 4711, and this is version"),
    ],
)
def test_a_bundle_that_cannot_be_used_is_told_and_the_others_work(root, makeDaemon, kind, damage, problem):
    bundle = addBundle(root, kind, "broken")
    if damage:
        damage(bundle)
    daemon = makeDaemon()
    health = daemon.health()
    # One of two bundles with the same identifier is left out, whichever comes second.
    name = next(iter(health["notLoaded"]))
    assert problem in health["notLoaded"][name]
    answer = daemon.post({"command": "echo"}, path=f"/v1/plugins/{name}")
    assert (answer.status, answer.error) == (500, "plugin-not-loaded")
    assert problem in answer.json["message"]
    other = health["plugins"][0]
    assert daemon.post({"command": "echo"}, path=f"/v1/plugins/{other}").status == 200
    assert f'The plug-in "{name}" is not loaded' in daemon.end()[1]


def test_a_second_plugin_is_reached_by_its_own_name(root, makeDaemon):
    addBundle(root, "working", "second")
    daemon = makeDaemon()
    assert daemon.health()["plugins"] == ["notification", "second"]
    assert daemon.post({"command": "echo", "a": 1}, path="/v1/plugins/second").json["a"] == 1
    assert daemon.post({}, path="/v1/events/idle").json == {"plugins": ["notification", "second"]}


def test_started_programs_would_inherit_no_descriptor(daemon):
    daemon.assertServes()
    for name in os.listdir(f"/proc/{daemon.process.pid}/fd"):
        try:
            flags = pathlib.Path(f"/proc/{daemon.process.pid}/fdinfo/{name}").read_text()
        except FileNotFoundError:  # closed meanwhile
            continue
        assert int(name) <= 2 or int(flags.split("flags:")[1].split()[0], 8) & os.O_CLOEXEC, name


def test_an_ordinary_user_can_serve_a_root_of_its_own(root):
    for part in [root, *root.rglob("*")]:
        os.chown(part, NOBODY, NOBODY)
    daemon = Daemon(root, "--admin-group", "games", user=NOBODY)
    try:
        daemon.awaitReady()
        status = os.stat(daemon.socket)
        assert (status.st_mode & 0o777, status.st_uid) == (0o600, NOBODY)
        assert daemon.tool("setup", user=NOBODY).returncode == 0
        assert daemon.tool("state", user=1).returncode == 77
        daemon.assertServes()
    finally:
        status, text = daemon.end()
    assert status == 0
    assert f"only root and user {NOBODY} may send requests" in text
