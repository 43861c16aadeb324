"""Starting and stopping the real jabberd2 through the service manager and its launcher."""

import json
import re
import signal
import subprocess

import pytest

from certificates import PUBLIC_CA_FILE, serve_over_tls
from jabberd import Jabberd, add_user, logged_in
from private_machine import CONFIGURATION, wait_until

LABEL = "org.jabber.jabberd_notification"
SERVICE_DIRECTORY = f"/run/service/{LABEL}"
LAUNCHER = "/usr/libexec/tessardd/jabberd_launcher"
DOMAINS = ["a.example.test", "b.example.test"]
# Exit statuses: of tessardctl when the state is not the one asked for, and of the launcher.
NOT_AS_WANTED = 69
WRONG_USE, START_FAILED, NO_ROOT, BAD_FILES = 64, 69, 77, 78


@pytest.fixture
def two_domains(service):
    service.set(f"hostsCommaDelimitedString={','.join(DOMAINS)}")
    return service


def start(service):
    assert service.tool("start").stdout == "state: RUNNING\n"


def details(service):
    return json.loads(service.tool("--json", "state", "--details").stdout)


def state_of_jabberd(service):
    return details(service)["jabberdState"]


def components(machine):
    """Pid -> command line of every component that runs."""
    rows = machine.run("ps", "-u", "84", "-o", "pid=,stat=,args=", check=False).stdout.splitlines()
    words = [row.split(maxsplit=2) for row in rows]
    return {int(pid): args for pid, stat, args in words if "jabberd2-" in args and not stat.startswith("Z")}


def pid_of(machine, kind):
    return next(pid for pid, args in components(machine).items() if args.startswith(f"/usr/sbin/jabberd2-{kind} "))


def pid_files(machine):
    return sorted(file.name for file in machine.outside("/run/jabberd_notification").glob("*.pid"))


def service_pid(machine):
    return int(machine.run("s6-svstat", "-o", "pid", SERVICE_DIRECTORY).stdout)


def kill(machine, number, pid):
    machine.run("kill", f"-{int(number)}", pid)


def launcher_says(machine):
    return [line.split(": ", 1)[1] for line in machine.system_log().splitlines()
            if "jabberd_notification/launcher[" in line]


def assert_serves(machine, domains):
    for domain in domains:
        assert "<stream:features" in Jabberd(machine).greet(domain)


def assert_nothing_runs(machine):
    assert components(machine) == {}
    assert pid_files(machine) == []


def test_a_start_makes_every_component_listen_and_a_stop_ends_them_all(two_domains):
    machine = two_domains.machine
    start(two_domains)
    # At once: the start returns when clients can log in.
    assert_serves(machine, DOMAINS)
    assert Jabberd(machine).listening_ports() == {5347, 5218, 5268}
    assert sorted(components(machine).values()) == sorted(
        f"/usr/sbin/jabberd2-{kind} -c {CONFIGURATION}/{file}.xml"
        for kind, file in (("router", "router"), ("sm", "sm"), ("sm", "sm_b.example.test"), ("s2s", "s2s"), ("c2s", "c2s")))
    assert pid_files(machine) == ["c2s.pid", "router.pid", "s2s.pid", "sm.pid", "sm_b.example.test.pid"]
    seen = details(two_domains)
    assert (seen["jabberdState"], seen["state"]) == ("RUNNING", "RUNNING")
    assert not machine.outside(f"{SERVICE_DIRECTORY}/down").exists()
    assert launcher_says(machine) == ["The instance is ready: 5 components."]
    shown = two_domains.tool("state", "--details").stdout
    for part in ("router", "sm (sm.xml)", "sm (sm_b.example.test.xml)", "s2s", "c2s"):
        assert f"jabberd_notification/{part}: ready\n" in shown

    stopped = two_domains.tool("stop")
    assert_nothing_runs(machine)
    assert stopped.stdout == "state: STOPPED\n"
    assert "jabberd_notification/" not in two_domains.tool("state", "--details").stdout
    assert state_of_jabberd(two_domains) == "STOPPED"
    assert machine.outside(f"{SERVICE_DIRECTORY}/down").exists()


def test_the_components_have_the_accounts_rights_and_die_with_the_launcher(service):
    machine = service.machine
    start(service)
    for pid in components(machine):
        status = dict(line.split(":", 1) for line in machine.run("cat", f"/proc/{pid}/status").stdout.splitlines())
        assert status["Uid"].split() == status["Gid"].split() == ["84"] * 4
        assert status["Groups"].split() == []
        assert int(status["CapEff"], 16) == int(status["CapPrm"], 16) == 0
        assert int(status["SigBlk"], 16) == 0
        environment = machine.run("cat", f"/proc/{pid}/environ", user=84).stdout.strip("\0").split("\0")
        assert environment == ["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8"]
    before = components(machine)
    machine.run("s6-svc", "-O", SERVICE_DIRECTORY)  # no new run after this one
    kill(machine, signal.SIGKILL, service_pid(machine))
    wait_until(lambda: not components(machine), f"the end of {before}")


def test_a_restart_takes_new_domains(service):
    start(service)
    assert "host-unknown" in Jabberd(service.machine).greet(DOMAINS[0])
    service.set(f"hostsCommaDelimitedString={','.join(DOMAINS)}")
    service.tool("restart", check=False)
    assert_serves(service.machine, DOMAINS)


def test_a_restart_after_fewer_domains_leaves_no_pid_file_of_the_others(two_domains):
    start(two_domains)
    two_domains.set(f"hostsCommaDelimitedString={DOMAINS[0]}")
    two_domains.tool("restart", check=False)
    assert pid_files(two_domains.machine) == ["c2s.pid", "router.pid", "s2s.pid", "sm.pid"]


@pytest.mark.parametrize("kind", ["router", "sm", "s2s", "c2s"])
def test_a_component_that_is_killed_makes_all_start_again(two_domains, kind):
    machine = two_domains.machine
    start(two_domains)
    before, launcher = components(machine), service_pid(machine)
    kill(machine, signal.SIGKILL, pid_of(machine, kind))
    wait_until(lambda: machine.run("s6-svstat", "-o", "ready,pid", SERVICE_DIRECTORY).stdout.split()
               not in (["true", str(launcher)], ["false", str(launcher)], ["false", "-1"])
               and machine.run("s6-svstat", "-o", "ready", SERVICE_DIRECTORY).stdout == "true\n", "the next run")
    after = components(machine)
    assert sorted(after.values()) == sorted(before.values())
    assert not set(after) & set(before)
    assert_serves(machine, DOMAINS)
    assert state_of_jabberd(two_domains) == "RUNNING"
    said = "\n".join(launcher_says(machine))
    assert re.search(rf"The component {kind}( \(sm[^)]*\))? has ended by signal 9\.\n"
                     r"The other components are stopped, so that all can be started again\.", said)


def test_a_launcher_that_is_killed_starts_again_without_what_it_left(service):
    machine = service.machine
    start(service)
    before, launcher = components(machine), service_pid(machine)
    kill(machine, signal.SIGKILL, launcher)
    wait_until(lambda: service_pid(machine) not in (-1, launcher), "the next launcher")
    wait_until(lambda: machine.run("s6-svstat", "-o", "ready", SERVICE_DIRECTORY).stdout == "true\n", "its readiness")
    assert not set(components(machine)) & set(before)
    assert len(components(machine)) == len(before)
    assert_serves(machine, ["push.example.test"])


def test_a_stopped_process_does_not_hold_up_the_stop(service):
    machine = service.machine
    start(service)
    kill(machine, signal.SIGSTOP, pid_of(machine, "router"))
    assert service.tool("stop").returncode == 0
    assert_nothing_runs(machine)
    assert "The component router does not end and is killed." in launcher_says(machine)


def break_file(service, name, text):
    service.machine.write(f"{CONFIGURATION}/{name}", text, 0o600, (84, 0))


def test_a_session_manager_that_cannot_run_makes_the_whole_start_fail(service):
    """The one test that lives through the minute which a start is given."""
    machine = service.machine
    sound = machine.read(f"{CONFIGURATION}/sm.xml")
    break_file(service, "sm.xml", sound.replace("<driver>sqlite</driver>", "<driver>nonesuch</driver>"))
    failed = service.tool("start", check=False, timeout=200)
    assert failed.returncode == NOT_AS_WANTED
    assert f'"{LABEL}" could not be started: it failed and stays down' in failed.stderr
    assert "some jabberd processes failed to start" in failed.stderr
    told = failed.stderr[failed.stderr.index("jabberd_notification (failed): "):].splitlines()
    assert re.match(r"jabberd_notification \(failed\): The component sm \(sm\.xml\) has ended with exit status \d+\.", told[0])
    assert "  sm (sm.xml): ended" in told
    # What it said last itself.
    assert any(line.startswith("    ") and "jabberd_notification/sm[" in line for line in told)
    assert_nothing_runs(machine)
    assert state_of_jabberd(service) == "STOPPED"
    said = launcher_says(machine)
    assert re.match(r"The component sm \(sm\.xml\) has ended with exit status \d+\.", said[0])
    assert said[1:] == ["The start has failed: the other components are stopped.", "The instance has stopped."]

    break_file(service, "sm.xml", sound)
    start(service)
    assert_serves(machine, ["push.example.test"])


# --- the launcher by itself ------------------------------------------------------------------------------------------


def launch(machine, *words, **options):
    return machine.run(LAUNCHER, *words, check=False, **options)


@pytest.mark.parametrize("name, text, sentence", [
    ("sm.xml", "<sm><local></sm>", f'"{CONFIGURATION}/sm.xml" is not well-formed: '),
    ("jabberd.cfg", f"sm {CONFIGURATION}/sm.xml\n", f'"{CONFIGURATION}/jabberd.cfg" lists 0 routers and must list one'),
    ("jabberd.cfg", f"router {CONFIGURATION}/none.xml\n", f'"{CONFIGURATION}/none.xml" cannot be read: '),
])
def test_files_that_cannot_be_used_start_nothing(service, name, text, sentence):
    break_file(service, name, text)
    result = launch(service.machine)
    assert result.returncode == BAD_FILES
    assert result.stderr.startswith(f"jabberd_launcher: Nothing is started: {sentence}")
    assert len(result.stderr.splitlines()) == 1
    assert_nothing_runs(service.machine)


@pytest.mark.parametrize("name, old, new, sentence", [
    ("router.xml", "<ip>127.0.0.1</ip>\n    <port>5347", "<ip>192.0.2.1</ip>\n    <port>5347", "The component router has ended"),
    ("c2s.xml", "<module>pipe</module>", "<module>nonesuch</module>", "The component c2s has ended"),
    # The router turns it away and it tries again and again.
    ("s2s.xml", "<user>jabberd</user>", "<user>stranger</user>", "The component s2s has ended"),
])
def test_a_component_that_does_not_come_up_ends_the_others(service, name, old, new, sentence):
    text = service.machine.read(f"{CONFIGURATION}/{name}")
    assert old in text
    break_file(service, name, text.replace(old, new, 1))
    result = launch(service.machine)
    assert result.returncode == START_FAILED
    assert sentence in result.stderr
    assert "The start has failed: the other components are stopped." in result.stderr
    assert_nothing_runs(service.machine)


# Takes a port of this machine and holds it until its standard input ends.
_HOLDER = """
import socket, sys
holder = socket.create_server(("0.0.0.0", int(sys.argv[1])))
print("held", flush=True)
sys.stdin.read()
"""


@pytest.mark.parametrize("port, kind", [(5347, "router"), (5218, "c2s"), (5268, "s2s")])
def test_a_port_that_is_taken_makes_the_start_fail(service, port, kind):
    with service.machine.popen("python3", "-c", _HOLDER, port, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               text=True) as holder:
        assert holder.stdout.readline() == "held\n"
        result = launch(service.machine)
        holder.stdin.close()
    assert result.returncode == START_FAILED
    assert f"The component {kind} has ended with exit status" in result.stderr
    assert_nothing_runs(service.machine)


def test_a_start_that_takes_too_long_is_given_up(service):
    # Nobody may talk to c2s, so it cannot be seen to serve its domain.
    text = service.machine.read(f"{CONFIGURATION}/c2s.xml")
    break_file(service, "c2s.xml", text.replace("<order>allow,deny</order>", "<order>deny,allow</order>"))
    result = launch(service.machine, "--start-seconds", "2")
    assert result.returncode == START_FAILED
    assert "The start has failed: the instance is not ready after 2 seconds." in result.stderr
    assert_nothing_runs(service.machine)


def test_a_domain_that_c2s_does_not_know_is_named_and_holds_nothing_up(service):
    text = service.machine.read(f"{CONFIGURATION}/c2s.xml")
    break_file(service, "c2s.xml", text.replace("<id>push.example.test</id>", "<id>other.example.test</id>"))
    with service.machine.popen(LAUNCHER, stderr=subprocess.PIPE, text=True) as launcher:
        assert 'Clients of "push.example.test" cannot log in: c2s does not know this domain.' in launcher.stderr.readline()
        assert "The instance is ready: 4 components." in launcher.stderr.readline()
        service.machine.run("pkill", "-TERM", "-x", "jabberd_launche")
        assert launcher.wait(30) == 0
    assert_nothing_runs(service.machine)


def test_traces_of_dead_runs_are_cleared_and_the_run_directory_made_again(service):
    machine = service.machine
    machine.run("rm", "-rf", "/run/jabberd_notification")
    start(service)
    status = machine.outside("/run/jabberd_notification").stat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (84, 1, 0o755)
    service.tool("stop")
    # Numbers of no process, of a process of another kind, and no number at all.
    for name, text in (("sm_gone.example.test", "4194303"), ("router", "1"), ("c2s", "x")):
        machine.write(f"/run/jabberd_notification/{name}.pid", text, owner=(84, 84))
    start(service)
    assert pid_files(machine) == ["c2s.pid", "router.pid", "s2s.pid", "sm.pid"]
    said = launcher_says(machine)
    assert '"/var/run/jabberd_notification/sm_gone.example.test.pid" was left by a dead run and is removed.' in said


def test_an_instance_that_somebody_else_runs_is_left_alone(service):
    with Jabberd(service.machine) as other:
        other.wait_for_domain("push.example.test")
        before = components(service.machine)
        result = launch(service.machine)
        assert result.returncode == START_FAILED
        assert re.search(r'Nothing is started: the process that "[^"]+" names still runs\.', result.stderr)
        assert components(service.machine) == before
        assert len(pid_files(service.machine)) == 4


def test_the_launcher_explains_itself_and_refuses_what_it_does_not_know(machine):
    assert "usage: jabberd_launcher" in launch(machine, "--help").stdout
    assert re.fullmatch(r"jabberd_launcher \d+\.\d+\.\d+\n", launch(machine, "--version").stdout)
    for words in (["--nonsense"], ["--config"], ["--notify-fd", "77"]):
        result = launch(machine, *words)
        assert (result.returncode, result.stdout) == (WRONG_USE, "")
        assert result.stderr.startswith("jabberd_launcher: ")
    assert launch(machine, user=1001).returncode == NO_ROOT
    assert launch(machine, "--config", "/etc/none.cfg").returncode == BAD_FILES


def test_a_client_logs_in_and_is_counted(two_domains):
    machine = two_domains.machine
    serve_over_tls(two_domains, DOMAINS)
    add_user(machine, "ann")
    start(two_domains)
    wait_until(lambda: details(two_domains)["currentConnections"] == "0", "the end of the probes")
    with logged_in(machine, f"ann@{DOMAINS[1]}", PUBLIC_CA_FILE):
        assert details(two_domains)["currentConnections"] == "1"
    wait_until(lambda: details(two_domains)["currentConnections"] == "0", "no connection")
