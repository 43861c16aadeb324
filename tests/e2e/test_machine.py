"""The private machine keeps to itself and leaves nothing behind."""

import os
import re
import signal
import subprocess
import sys
from pathlib import Path

import pytest

import private_machine
from documents import blocks, shown_in_order
from private_machine import PROJECT, MachineError, PrivateMachine, wait_until

BUILD = os.environ["TESSARD_BUILD_DIR"]
RUN = [sys.executable, str(PROJECT / "scripts/run_service.py")]


def traces_of(directory):
    """Files of a machine that still exist, and processes that still have it as their root."""
    left = [path for path in (directory, private_machine._usr_of(directory)) if path.exists()]
    for process in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if str(directory).encode() in process.read_bytes():
                left.append(process)
        except OSError:
            continue
    return left


def test_it_has_its_own_name_network_and_processes(machine):
    assert machine.run("hostname").stdout == "push.example.test\n"
    links = machine.run("cat", "/proc/net/dev").stdout.splitlines()[2:]
    assert [line.split(":")[0].strip() for line in links] == ["lo"]
    assert machine.run("cat", "/proc/1/comm").stdout == "s6-svscan\n"
    assert machine.run("getent", "hosts", "push.example.test").stdout.split()[0] == "127.0.1.1"


def test_it_can_neither_change_debians_files_nor_see_the_computers_own(machine):
    for path in ("/usr/bin/try", "/usr/share/try", "/usr/lib/try", "/host/usr/try", "/etc/ssl/try"):
        assert machine.run("touch", path, check=False).returncode != 0
    machine.run("touch", "/etc/try", "/var/try", "/Library/Preferences/try")
    assert not any(Path(path).exists() for path in ("/etc/try", "/var/try", "/Library/Preferences/try"))
    assert machine.run("ls", "/home", check=False).returncode != 0


@pytest.mark.parametrize("words", [("cat", "/proc/1/status"), ("cat", "/proc/self/status")],
                         ids=["first process", "entered process"])
def test_nobody_in_it_has_powers_over_the_computer(machine, words):
    status = dict(line.split(":\t", 1) for line in machine.run(*words).stdout.splitlines() if ":\t" in line)
    # chown, dac_override, dac_read_search, fowner, fsetid, kill, setgid, setuid, setpcap, net_bind_service, sys_chroot
    assert int(status["CapEff"], 16) == int(status["CapBnd"], 16) == 0x405FF
    assert status["NoNewPrivs"] == "1"


def test_ending_it_leaves_neither_process_nor_file():
    with PrivateMachine(BUILD) as machine:
        machine.prepare_instance()
        machine.start_daemon()
        sleeper = machine.popen("sleep", "1000")
        directory = machine.directory
        assert traces_of(directory)
    assert sleeper.wait(10) != 0
    assert traces_of(directory) == []


def test_it_dies_with_its_owner_and_the_next_one_clears_up():
    script = ("import sys, time; sys.path.insert(0, sys.argv[1])\nfrom private_machine import PrivateMachine\n"
              "machine = PrivateMachine(sys.argv[2]); machine.start()\n"
              "print(machine.pid, machine.directory, flush=True); time.sleep(1000)")
    owner = subprocess.Popen([sys.executable, "-c", script, str(PROJECT / "scripts"), BUILD], text=True,
                             stdout=subprocess.PIPE)
    pid, directory = owner.stdout.readline().split()
    owner.kill()
    owner.wait()
    owner.stdout.close()
    wait_until(lambda: not Path(f"/proc/{pid}").exists(), "the end of the machine")
    with PrivateMachine(BUILD):
        assert traces_of(Path(directory)) == []


def test_a_machine_whose_daemon_was_not_built_says_so(tmp_path):
    with PrivateMachine(tmp_path) as machine, pytest.raises(MachineError, match="there is no tessardd in"):
        machine.start_daemon()


def test_running_once_shows_what_settings_change_and_no_password():
    shown = subprocess.run([*RUN, BUILD, "--once"], capture_output=True, text=True, check=False, timeout=120)
    assert shown.returncode == 0, shown.stderr
    readme = next(block for block in blocks(PROJECT / "README.md") if block.kind == "text")
    assert shown_in_order(readme.lines, shown.stdout.splitlines()) is None
    assert "+    <id>a.example.test</id>" in shown.stdout
    assert "+++ /private/etc/jabberd_notification/sm_b.example.test.xml" in shown.stdout
    assert "hosts=[a.example.test, b.example.test]" in shown.stdout
    assert "\nstate: RUNNING\n" in shown.stdout
    assert "\nJID: com.velto.notificationuser@a.example.test\n" in shown.stdout
    assert "\nkorpsTopic: com.example.push.calendar\n" in shown.stdout
    assert "\nsubscriptionURL: https://a.example.test:5290/subscription\n" in shown.stdout
    assert "made the node events on pubsub.a.example.test\n" in shown.stdout
    assert "received from the node events: Hello\n" in shown.stdout
    assert "\ncurrentConnections: 1\n" in shown.stdout
    assert "\nsecret=" not in shown.stdout
    assert set(re.findall(r"^password: (.*)$", shown.stdout, re.MULTILINE)) == {"********"}
    assert set(re.findall(r"<(?:pass|secret)>(.*)</", shown.stdout)) <= {"********"}


def test_running_fails_plainly_when_something_is_missing(tmp_path):
    shown = subprocess.run([*RUN, str(tmp_path), "--once"], capture_output=True, text=True, check=False, timeout=120)
    assert shown.returncode == 1
    assert "run: there is no tessardd in" in shown.stderr


def test_ctrl_c_ends_a_running_service_in_good_order():
    shown = subprocess.Popen([*RUN, BUILD], text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             start_new_session=True)
    try:
        for line in shown.stdout:
            found = re.search(r"Its files are in (\S+)/root meanwhile", line)
            if found:
                break
        directory = Path(found.group(1))
        assert traces_of(directory)
        entered = subprocess.run([sys.executable, str(PROJECT / "scripts/enter_machine.py"), "tessardctl", "state"],
                                 capture_output=True, text=True, check=False, timeout=60)
        assert (entered.returncode, entered.stdout) == (0, "state: RUNNING\n")
        # As a terminal does it: everything in the foreground gets the signal.
        os.killpg(shown.pid, signal.SIGINT)
        shown.communicate(timeout=30)
    finally:
        shown.kill()
        shown.communicate()
    assert shown.returncode == 0
    assert traces_of(directory) == []
