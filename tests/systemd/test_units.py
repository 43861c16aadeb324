"""The shipped units on a machine that systemd runs: what an installation starts, stops, restarts and boots with."""

import json
import re
import subprocess

import pytest

from certificates import PUBLIC_CA_FILE, serve_over_tls
from jabberd import Jabberd, add_user, logged_in
from private_machine import CONFIGURATION, HOST_NAME, PROJECT, wait_until
from tlsmaterial import Authority

JABBERD = "org.jabber.jabberd_notification"
PUBSUB = "com.velto.Beaconry"
SASLAUTHD = "tessard-saslauthd"
UNITS = ["tessardd.service", "tessardd.socket", f"{JABBERD}.service", f"{PUBSUB}.service", f"{SASLAUTHD}.service"]
SOCKET = "/run/tessardd/tessardd.sock"
RUN_DIRECTORY = "/run/jabberd_notification"
# Exit status of tessardctl when the state is not the one asked for.
NOT_AS_WANTED = 69


def start(service):
    # The state as a whole may need more than jabberd.
    service.tool("start", check=False)
    assert state_of_jabberd(service) == "RUNNING"


def state_of_jabberd(service):
    return json.loads(service.tool("--json", "state", "--details").stdout)["jabberdState"]


def unit(machine, name=JABBERD):
    seen = machine.unit(name)
    return seen["ActiveState"], seen["UnitFileState"]


def components(machine):
    """Kind -> pid of every component that runs, by its number inside."""
    rows = machine.run("ps", "-u", "84", "-o", "pid=,stat=,comm=", check=False).stdout.splitlines()
    words = [row.split() for row in rows]
    return {name.removeprefix("jabberd2-"): int(pid) for pid, stat, name in words
            if name.startswith("jabberd2-") and not stat.startswith("Z")}


def pid_files(machine):
    return sorted(file.name for file in machine.outside(RUN_DIRECTORY).glob("*.pid"))


def assert_serves(machine):
    assert sorted(components(machine)) == ["c2s", "router", "s2s", "sm"]
    assert "<stream:features" in Jabberd(machine).greet(HOST_NAME)


def assert_nothing_runs(machine):
    assert components(machine) == {}
    assert pid_files(machine) == []


def wait_for_next_run(machine, before):
    """Until the unit has become ready with another main process than in `before`."""
    def is_ready():
        seen = machine.unit(JABBERD)
        return seen["ActiveState"] == "active" and seen["MainPID"] != before["MainPID"]
    wait_until(is_ready, "the next run of jabberd")


def status_of(machine, pid):
    return dict(line.split(":", 1) for line in machine.read(f"/proc/{pid}/status").splitlines())


def open_files(machine, pid):
    """The soft and the hard limit of a process."""
    found = re.search(r"^Max open files +(\d+) +(\d+) ", machine.read(f"/proc/{pid}/limits"), re.MULTILINE)
    return int(found[1]), int(found[2])


def test_systemd_finds_no_fault_in_the_units(machine):
    checked = machine.run("systemd-analyze", "verify", "--man=no", *UNITS)
    assert (checked.stdout, checked.stderr) == ("", "")


def test_a_fresh_installation_runs_the_daemon_and_nothing_else(machine):
    assert machine.system_state() == "running"
    assert unit(machine, "tessardd") == ("active", "enabled")
    assert unit(machine) == ("inactive", "disabled")
    assert machine.run("id", "-u", "jabberd").stdout == "84\n"
    assert machine.run("tessardctl", "health").returncode == 0
    # The socket is for root and the administrators' group alone.
    administrators = machine.run("getent", "group", "tessard-admin").stdout.split(":")[2]
    assert machine.run("tessardctl", "state", user=65534, groups=[administrators]).stdout == "state: STOPPED\n"
    assert machine.run("tessardctl", "state", user=65534, check=False).returncode != 0


def test_a_start_serves_clients_and_a_stop_leaves_nothing_behind(service):
    machine = service.machine
    serve_over_tls(service, [HOST_NAME])
    add_user(machine, "ann")
    start(service)
    assert_serves(machine)
    assert pid_files(machine) == ["c2s.pid", "router.pid", "s2s.pid", "sm.pid"]
    assert unit(machine) == ("active", "enabled")
    with logged_in(machine.network, f"ann@{HOST_NAME}", str(machine.outside(PUBLIC_CA_FILE))):
        pass

    assert service.tool("stop").stdout == "state: STOPPED\n"
    assert_nothing_runs(machine)
    assert unit(machine) == ("inactive", "disabled")
    assert machine.unit(JABBERD)["Result"] == "success"
    assert machine.system_state() == "running"


def test_the_components_have_no_more_rights_than_they_need(service):
    machine = service.machine
    start(service)
    for pid in components(machine).values():
        status = status_of(machine, pid)
        assert status["Uid"].split() == status["Gid"].split() == ["84"] * 4
        assert (int(status["CapEff"], 16), int(status["CapPrm"], 16)) == (0, 0)
        assert status["NoNewPrivs"].strip() == "1"
        # The machine itself may be allowed less.
        assert open_files(machine, pid) == (min(65536, open_files(machine, 1)[1]),) * 2
    launcher = machine.unit(JABBERD)["MainPID"]
    # chown, dac_override, fowner, fsetid, kill, setgid, setuid
    assert int(status_of(machine, launcher)["CapBnd"], 16) == 0b11111011
    # A /tmp of their own, and nobody's home.
    machine.write("/tmp/of-the-machine", "")
    machine.write("/home/of-somebody", "")
    seen = machine.run("nsenter", "--target", launcher, "--mount", "ls", "-A", "/tmp", "/home")
    assert "of-" not in seen.stdout


@pytest.mark.parametrize("victim", ["router", "sm", "s2s", "c2s", "launcher"])
def test_what_is_killed_comes_back_with_all_others(service, victim):
    machine = service.machine
    start(service)
    before, pids = machine.unit(JABBERD), components(machine)
    machine.run("kill", "-KILL", before["MainPID"] if victim == "launcher" else pids[victim])
    wait_for_next_run(machine, before)
    assert machine.unit(JABBERD)["NRestarts"] == "1"
    assert not set(components(machine).values()) & set(pids.values())
    assert_serves(machine)
    assert pid_files(machine) == ["c2s.pid", "router.pid", "s2s.pid", "sm.pid"]
    assert state_of_jabberd(service) == "RUNNING"


def test_a_broken_file_makes_the_start_fail_and_leaves_the_unit_off(service):
    """Lives through the minute which a start is given."""
    machine = service.machine
    place = f"{CONFIGURATION}/sm.xml"
    sound = machine.read(place)
    machine.write(place, sound.replace("<driver>sqlite</driver>", "<driver>nonesuch</driver>"), 0o600, (84, 0))
    failed = service.tool("start", check=False, timeout=200)
    assert failed.returncode == NOT_AS_WANTED
    assert (f'error: the unit "{JABBERD}.service" could not be started: Job for {JABBERD}.service failed because the '
            "control process exited with error code.\n") in failed.stderr
    assert "warning: some jabberd processes failed to start\n" in failed.stderr
    assert re.search(r"^  sm \(sm\.xml\): ended\n    \S+ \S+ \w+ jabberd_notification/sm\[\d+\]: ", failed.stderr, re.MULTILINE)
    assert_nothing_runs(machine)
    assert state_of_jabberd(service) == "STOPPED"
    assert unit(machine) == ("failed", "disabled")
    assert machine.unit(JABBERD)["NRestarts"] == "0"
    said = machine.journal("--identifier=jabberd_notification/launcher")
    assert re.fullmatch(r"The component sm \(sm\.xml\) has ended with exit status \d+\.", said[0])
    assert said[1:] == ["The start has failed: the other components are stopped.", "The instance has stopped."]
    # Each line stands there once, although the launcher also speaks to people at a terminal.
    assert machine.journal(f"--unit={JABBERD}").count(said[-1]) == 1
    assert not [line for line in machine.journal(f"--unit={JABBERD}") if line.startswith("jabberd_launcher: ")]

    machine.write(place, sound, 0o600, (84, 0))
    start(service)
    assert_serves(machine)
    assert machine.system_state() == "running"


def test_a_machine_boots_with_what_was_started_and_without_what_was_stopped(service):
    machine = service.machine
    start(service)
    machine.run("touch", f"{RUN_DIRECTORY}/of-the-last-boot")
    machine.reboot()
    assert unit(machine) == ("active", "enabled")
    assert not machine.outside(f"{RUN_DIRECTORY}/of-the-last-boot").exists()  # it was made again
    status = machine.outside(RUN_DIRECTORY).stat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (84, 1, 0o755)
    assert_serves(machine)
    assert state_of_jabberd(service) == "RUNNING"
    service.tool("stop")

    machine.reboot()
    assert unit(machine) == ("inactive", "disabled")
    assert components(machine) == {}
    assert service.tool("state").stdout == "state: STOPPED\n"


def test_a_request_starts_a_daemon_that_is_stopped(machine):
    machine.run("systemctl", "stop", "tessardd.service")
    assert unit(machine, "tessardd")[0] == "inactive"
    assert machine.run("tessardctl", "health").returncode == 0
    assert unit(machine, "tessardd")[0] == "active"
    assert machine.run("stat", "-c", "%U:%G %a", SOCKET).stdout == "root:tessard-admin 660\n"


def test_requests_wait_for_the_daemon_that_comes_after_one_that_died(machine):
    for _ in range(3):
        machine.run("kill", "-KILL", machine.unit("tessardd")["MainPID"])
        assert machine.run("tessardctl", "health").returncode == 0


def test_without_the_socket_unit_the_daemon_makes_a_socket_of_its_own(machine):
    machine.run("systemctl", "disable", "--now", "tessardd.socket")
    machine.run("systemctl", "restart", "tessardd.service")
    assert machine.run("tessardctl", "health").returncode == 0
    assert machine.run("stat", "-c", "%U:%G %a", SOCKET).stdout == "root:tessard-admin 660\n"
    assert machine.run("systemctl", "is-active", "tessardd.socket", check=False).stdout == "inactive\n"


def test_a_daemon_that_hangs_is_started_anew(machine):
    machine.write("/etc/systemd/system/tessardd.service.d/soon.conf", "[Service]\nWatchdogSec=1\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "restart", "tessardd.service")
    before = machine.unit("tessardd")
    machine.run("kill", "-STOP", before["MainPID"])
    wait_until(lambda: machine.unit("tessardd")["NRestarts"] != before["NRestarts"]
               and machine.unit("tessardd")["ActiveState"] == "active", "the next daemon")
    assert machine.run("tessardctl", "health").returncode == 0
    assert any("Watchdog timeout" in line for line in machine.journal("--unit=tessardd.service"))


@pytest.mark.parametrize("name", [JABBERD, PUBSUB])
def test_a_service_whose_launcher_hangs_is_started_anew(service, name):
    machine = service.machine
    service.set("authLevel=ANYMETHOD")  # writes the settings of both
    machine.write(f"/etc/systemd/system/{name}.service.d/soon.conf", "[Service]\nWatchdogSec=1\n")
    machine.run("systemctl", "daemon-reload")
    start(service)
    before = machine.unit(name)
    # It is left alone for as long as it speaks: three times its patience.
    wait_until(lambda: float(machine.run("ps", "-o", "etimes=", "-p", before["MainPID"]).stdout) > 3, "three seconds")
    assert machine.unit(name) == before
    machine.run("kill", "-STOP", before["MainPID"])
    wait_until(lambda: machine.unit(name)["MainPID"] not in ("0", before["MainPID"])
               and machine.unit(name)["ActiveState"] == "active", "the next run")
    assert machine.unit(name)["NRestarts"] == "1"
    assert any("Watchdog timeout" in line for line in machine.journal(f"--unit={name}.service"))


@pytest.mark.parametrize("name, most", [("tessardd", 2.5), (JABBERD, 4), (PUBSUB, 4), (SASLAUTHD, 4)])
def test_the_units_allow_little_more_than_is_needed(name, most):
    judged = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager",
                             PROJECT / f"share/systemd/{name}.service"], capture_output=True, text=True, check=True)
    assert float(re.search(r"exposure level for \S+: ([0-9.]+)", judged.stdout)[1]) <= most


def test_jabberd_runs_on_without_the_daemon(service):
    machine = service.machine
    start(service)
    before = components(machine)
    machine.run("systemctl", "stop", "tessardd.socket", "tessardd.service")
    assert machine.unit("tessardd")["Result"] == "success"
    assert not machine.outside(SOCKET).exists()
    assert components(machine) == before
    assert_serves(machine)
    machine.run("systemctl", "start", "tessardd.service")
    assert state_of_jabberd(service) == "RUNNING"
    assert components(machine) == before


def test_a_daemon_that_is_killed_comes_back_and_leaves_jabberd_alone(service):
    machine = service.machine
    start(service)
    before, jabberd = machine.unit("tessardd")["MainPID"], components(machine)
    machine.run("kill", "-KILL", before)
    wait_until(lambda: machine.unit("tessardd")["MainPID"] not in ("0", before)
               and machine.unit("tessardd")["ActiveState"] == "active", "the next daemon")
    assert state_of_jabberd(service) == "RUNNING"
    assert components(machine) == jabberd


def test_what_keeps_the_daemon_in_its_place_lets_it_change_the_certificate_and_look_at_it(service):
    machine = service.machine
    authority = Authority(machine.outside("/root/authority"))
    first = authority.issue("first", [HOST_NAME])
    # Sealed by an older program: OpenSSL has to load a part of it that is a file.
    first.pkcs12("alt", "-legacy")
    imported = ("--json", "tls-certificate", "import")
    answer = json.loads(service.tool(*imported, "--pkcs12", "/root/authority/first.p12", input="alt\n").stdout)
    assert (answer["certificate"]["sha256"], answer["running"]) == (first.sha256, False)
    start(service)
    second = authority.issue("second", [HOST_NAME])
    answer = json.loads(service.tool(*imported, "--certificate", "/root/authority/second.pem", "--chain", "/root/authority/chain.pem",
                                     "--key", "/root/authority/second.key").stdout)
    assert {(each["entrance"], each["sha256"]) for each in answer["served"]} == {
        ("clients", second.sha256), ("servers", second.sha256)}
    assert machine.run("stat", "-c", "%u:%g %a", f"{CONFIGURATION}/tls-certificate.pem").stdout == "0:84 640\n"


def test_the_publish_subscribe_service_runs_beside_jabberd_and_comes_back(service):
    machine = service.machine
    service.set("authLevel=ANYMETHOD")  # writes the settings of that service too
    start(service)
    if machine.unit(PUBSUB)["ActiveState"] != "active":
        machine.run("systemctl", "enable", "--now", f"{PUBSUB}.service")
    assert unit(machine, PUBSUB) == ("active", "enabled")
    assert service.tool("state").stdout == "state: RUNNING\n"

    before = machine.unit(PUBSUB)["MainPID"]
    machine.run("pkill", "-KILL", "-u", "84", "-f", "/component.py ")
    wait_until(lambda: machine.unit(PUBSUB)["MainPID"] not in ("0", before)
               and unit(machine, PUBSUB)[0] == "active", "the next run")
    assert service.tool("state").stdout == "state: RUNNING\n"

    machine.reboot()
    assert unit(machine, PUBSUB) == ("active", "enabled")
    assert service.tool("state").stdout == "state: RUNNING\n"

    machine.run("systemctl", "disable", "--now", f"{PUBSUB}.service")
    assert machine.unit(PUBSUB)["Result"] == "success"
    assert machine.run("pgrep", "-u", "84", "postgres", check=False).stdout == ""
    assert state_of_jabberd(service) == "RUNNING"


def test_saslauthd_runs_as_long_as_jabberd_and_comes_back_by_itself(service):
    machine = service.machine
    assert unit(machine, SASLAUTHD) == ("inactive", "static")
    serve_over_tls(service, [HOST_NAME])
    add_user(machine, "ann")
    start(service)
    assert unit(machine, SASLAUTHD) == ("active", "static")
    before, jabberd = machine.unit(SASLAUTHD)["MainPID"], components(machine)
    status = status_of(machine, before)
    # dac_read_search, audit_write
    assert int(status["CapBnd"], 16) == 1 << 2 | 1 << 29
    assert (status["Gid"].split(), status["NoNewPrivs"].strip()) == (["84"] * 4, "1")
    directory = machine.outside("/run/tessard-saslauthd").stat()
    assert (directory.st_uid, directory.st_gid, directory.st_mode & 0o7777) == (0, 84, 0o710)

    for how in (("kill", "-KILL", before), ("systemctl", "restart", f"{SASLAUTHD}.service")):
        machine.run(*how)
        wait_until(lambda: unit(machine, SASLAUTHD)[0] == "active" and machine.unit(SASLAUTHD)["MainPID"] not in ("0", before),
                   "the next saslauthd")
        with logged_in(machine.network, f"ann@{HOST_NAME}", str(machine.outside(PUBLIC_CA_FILE))):
            assert components(machine) == jabberd
    service.tool("stop")
    wait_until(lambda: unit(machine, SASLAUTHD)[0] == "inactive", "the end of saslauthd")
    assert machine.system_state() == "running"


def test_the_log_of_a_machine_without_a_log_file_is_its_journal(service):
    machine = service.machine
    assert not machine.outside("/var/log/system.log").exists()
    begin = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "lines": 0})["position"]
    start(service)
    shown = service.tool("log", "JABBER_LOG", "--lines", "1000").stdout.splitlines()
    for component in ("router", "sm", "c2s", "s2s", "launcher"):
        assert any(re.fullmatch(rf"\d{{4}}-\d\d-\d\dT\d\d:\d\d:\d\dZ \S+ [a-z]+ jabberd_notification/{component}\[\d+\]: .+", line)
                   for line in shown), component
    assert all("_notification" in line for line in shown)
    # Everything since then once, in pieces.
    lines, position, more = [], begin, True
    while more:
        answer = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "lines": 3, "position": position})
        assert answer["complete"] and len(answer["lines"]) <= 3
        lines, position, more = lines + answer["lines"], answer["position"], answer["more"]
    assert lines and lines == shown[-len(lines):]
    newest = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "lines": 2})
    assert (newest["lines"], newest["complete"], newest["reason"]) == (shown[-2:], False, "lines")
    refused = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "position": "journal:nonsense"})
    assert refused == {"error": "INVALID_ARG_ERR"}
    # A file takes the journal's place, and what lies between is not known.
    machine.write("/var/log/system.log", "x jabberd_notification/sm[1]: of the file\n")
    answer = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "position": position})
    assert (answer["lines"], answer["reason"]) == (["x jabberd_notification/sm[1]: of the file"], "lost")
