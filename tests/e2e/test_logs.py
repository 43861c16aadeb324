"""What the real components log, as administrators read it."""

import json
import re

from private_machine import wait_until

COMPONENTS = ["router", "sm", "c2s", "s2s"]


def log(service, *words):
    return service.tool("log", *words).stdout.splitlines()


def test_the_lines_of_every_component_are_shown_and_no_others(service):
    service.tool("start")
    shown = log(service, "JABBER_LOG", "--lines", "1000")
    for component in COMPONENTS:
        assert any(f" jabberd_notification/{component}[" in line for line in shown), component
    assert all("_notification" in line for line in shown)
    everything = service.machine.system_log().splitlines()
    assert [line for line in everything if "_notification" in line][:len(shown)] == shown
    only = log(service, "JABBER_LOG", "--text", "jabberd_notification/c2s[", "--lines", "3")
    assert only and all("jabberd_notification/c2s[" in line for line in only)


def test_a_log_is_followed_through_its_rotation(service):
    machine = service.machine
    service.tool("start")
    machine.system_log()
    answer = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "lines": 0})
    service.tool("stop")
    machine.system_log()
    # Copied and emptied, as the writer goes on writing where it was.
    machine.run("sh", "-c", "cp /var/log/system.log /var/log/system.log.1 && : >/var/log/system.log")
    service.tool("start")
    machine.system_log()
    answer = service.post({"command": "tailFile", "identifier": "JABBER_LOG", "position": answer["position"]})
    assert (answer["complete"], answer["more"]) == (True, False)
    stopped = [index for index, line in enumerate(answer["lines"]) if "The instance has stopped." in line]
    assert len(stopped) == 1
    assert any(re.search(r"jabberd_notification/router\[", line) for line in answer["lines"][stopped[0]:])


def test_errors_of_the_publish_subscribe_service_are_shown_from_its_own_log(service):
    machine = service.machine
    directory = "/var/log/idavoll"
    paths = json.loads(service.tool("--json", "log", "--list").stdout)
    assert paths["PUBSUB_ERROR_LOG"] == f"{directory}/error.log"
    machine.run("sh", "-c", f"mkdir -p {directory} && chown 84 {directory} && "
                            f"setpriv --reuid=84 --clear-groups sh -c 'echo an error >{directory}/error.log'")
    assert log(service, "PUBSUB_ERROR_LOG") == ["an error"]
    # The account may do as it likes there, and is given nothing that way.
    machine.run("setpriv", "--reuid=84", "--clear-groups", "ln", "-sf", "/etc/shadow", f"{directory}/error.log")
    refused = service.tool("log", "PUBSUB_ERROR_LOG", check=False)
    assert (refused.returncode, refused.stdout) == (70, "")
    assert "it is a link in a directory that others than root can change" in refused.stderr


def test_following_shows_what_is_logged_later(service):
    machine = service.machine
    service.tool("start")
    machine.run("sh", "-c", "setsid tessardctl log JABBER_LOG --follow --lines 1 >/tmp/followed 2>&1 </dev/null &")
    followed = machine.outside("/tmp/followed")
    wait_until(lambda: followed.exists() and followed.stat().st_size > 0, "the newest line")
    service.tool("stop")
    wait_until(lambda: "The instance has stopped." in machine.read("/tmp/followed"), "the launcher's last line")


def test_all_parts_are_shown_together_with_the_domains_of_their_session_managers(service):
    service.set("hosts=[a.example.test,b.example.test]")
    service.tool("start")
    service.machine.system_log()
    records = [json.loads(line) for line in service.tool("--json", "log", "--lines", "1000").stdout.splitlines()]
    assert {*COMPONENTS, "sm_b.example.test", "launcher", "tessardd", "pubsub"} <= {each["component"] for each in records}
    assert [each["time"] for each in records] == sorted(each["time"] for each in records)
    assert {each["level"] for each in records} <= {"error", "warning", "notice", "info", "debug"}
    only = service.tool("--json", "log", "--component", "sm_b.example.test").stdout.splitlines()
    assert only and {json.loads(line)["component"] for line in only} == {"sm_b.example.test"}
