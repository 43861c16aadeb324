"""The class for systemd on a real one, with small units that do what is asked of them."""

import pytest

from private_machine import wait_until

UNIT = "toy"
TOOL = "/root/service_manager_tool"

# Ready as soon as there is a file, so that a test says when.
_READY_WHEN_TOLD = """\
[Service]
Type=notify
NotifyAccess=all
TimeoutStartSec=60
ExecStart=/bin/sh -c 'until [ -e /root/go ]; do sleep 0.02; done; systemd-notify --ready; exec sleep 1000'
[Install]
WantedBy=multi-user.target
"""
_FAILING = """\
[Service]
Type=notify
ExecStart=/bin/sh -c 'exit 69'
[Install]
WantedBy=multi-user.target
"""


@pytest.fixture
def manager(machine, build):
    machine.put(build / "tests/systemd/service_manager_tool", TOOL)
    return Manager(machine)


class Manager:
    def __init__(self, machine):
        self.machine = machine

    def define(self, text):
        self.machine.write(f"/etc/systemd/system/{UNIT}.service", text)
        self.machine.run("systemctl", "daemon-reload")

    def call(self, verb, label=UNIT, seconds=60):
        """What was logged, and last the answer."""
        return self.machine.run(TOOL, verb, label, seconds).stdout.splitlines()

    def allow(self):
        self.machine.write("/root/go", "")

    def unit(self):
        seen = self.machine.unit(UNIT)
        return seen["ActiveState"], seen["UnitFileState"]


def test_a_unit_is_started_for_every_boot_until_it_is_stopped(manager):
    manager.define(_READY_WHEN_TOLD)
    manager.allow()
    assert manager.call("state") == ["no"]
    assert manager.call("start") == ["yes"]
    assert manager.unit() == ("active", "enabled")
    assert manager.call("state") == ["yes"]
    assert manager.call("start") == ["yes"]  # again does no harm
    manager.machine.reboot()
    assert manager.call("state") == ["yes"]
    assert manager.call("stop") == ["yes"]
    assert manager.unit() == ("inactive", "disabled")
    assert manager.call("stop") == ["yes"]
    manager.machine.reboot()
    assert manager.call("state") == ["no"]


def test_a_start_that_outlasts_the_patience_is_no_success_and_goes_on(manager):
    manager.define(_READY_WHEN_TOLD)
    assert manager.call("start", seconds=0.5) == [
        'tessard_notification[E]: the unit "toy.service" could not be started: systemctl still waits for it', "no"]
    assert manager.unit() == ("activating", "enabled")
    assert manager.call("state") == ["no"]
    manager.allow()
    wait_until(lambda: manager.call("state") == ["yes"], "the unit's readiness")


def test_a_stop_ends_a_start_that_goes_on(manager):
    manager.define(_READY_WHEN_TOLD)
    assert manager.call("start", seconds=0.5)[-1] == "no"
    assert manager.call("stop") == ["yes"]
    assert manager.unit() == ("inactive", "disabled")


def test_a_start_that_fails_is_explained_in_one_line_that_names_the_cause(manager):
    manager.define(_FAILING)
    assert manager.call("start") == [
        'tessard_notification[E]: the unit "toy.service" could not be started: Job for toy.service failed because the '
        "control process exited with error code.", "no"]
    assert manager.call("state") == ["no"]
    # What failed can be undone, and then nothing is left of it.
    assert manager.call("stop") == ["yes"]
    assert manager.unit()[1] == "disabled"


def test_starts_that_failed_in_a_row_do_not_keep_a_repaired_unit_down(manager):
    manager.define(_FAILING)
    for _ in range(8):  # systemd allows five within ten seconds
        assert manager.call("start")[-1] == "no"
    manager.define(_READY_WHEN_TOLD)
    manager.allow()
    assert manager.call("start") == ["yes"]


def test_a_label_without_a_unit_is_a_plain_failure(manager):
    said = 'systemd has no unit "com.velto.KorvBridge.service": No files found for com.velto.KorvBridge.service.'
    assert manager.call("state", "com.velto.KorvBridge") == ["no"]
    assert manager.call("start", "com.velto.KorvBridge") == [f"tessard_notification[E]: {said}", "no"]
    assert manager.call("stop", "com.velto.KorvBridge") == [f"tessard_notification[I]: {said}", "no"]


def test_a_unit_that_the_administrator_has_masked_stays_down(manager):
    manager.machine.run("systemctl", "mask", f"{UNIT}.service")
    said = manager.call("start")
    assert said == ['tessard_notification[E]: the unit "toy.service" could not be started: Failed to enable unit: Unit '
                    "file /etc/systemd/system/toy.service is masked.", "no"]
    assert manager.call("state") == ["no"]
