"""Whole files of settings: what the tool exports, compares and applies."""

import json
import plistlib
import subprocess

import pytest

from hosttools import buildDirectory, needsPlugin

pytestmark = needsPlugin


@pytest.fixture
def service(pluginRoot, makeDaemon):
    """A daemon with the real plug-in, set up."""
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", "--network-quiet-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    daemon.tool("settings", "set", "hosts=[a.example.com]", "authLevel=ANYMETHOD")
    return daemon


@pytest.fixture
def file(tmp_path):
    return tmp_path / "push.yaml"


def written(service):
    return {path: path.read_bytes() for path in (service.root / "etc/jabberd_notification").rglob("*") if path.is_file()}


def test_what_is_exported_is_what_the_settings_are(service, file):
    for form in ("yaml", "json", "plist"):
        file.write_text(service.tool("settings", "export", "--format", form).stdout)
        for verb in ("diff", "apply"):
            done = service.tool("settings", verb, str(file))
            assert (done.returncode, done.stdout) == (0, ""), (form, done.stderr)


def test_an_export_has_no_secret_unless_it_is_asked_for(service):
    assert "secret" not in service.tool("settings", "export").stdout
    exported = plistlib.loads(service.tool("settings", "export", "--show-secrets", "--format", "plist").stdout.encode())
    assert exported["secret"] == service.tool("settings", "get", "secret").stdout.strip().partition("=")[2]


def test_an_export_is_yaml_for_people_and_json_with_json(service):
    assert "hosts:\n  - a.example.com\nauthLevel: ANYMETHOD\n" in service.tool("settings", "export").stdout
    assert json.loads(service.tool("--json", "settings", "export").stdout)["hosts"] == ["a.example.com"]


def test_every_setting_that_is_read_can_be_exported_or_is_left_out_with_a_reason(service):
    everything = json.loads(service.tool("--json", "settings", "get", "--show-secrets").stdout)
    exported = json.loads(service.tool("--json", "settings", "export", "--show-secrets").stdout)
    # Another form of one that is there, what setup keeps, what other requests change, and what the bridge's choice sets.
    assert set(everything) - set(exported) <= {
        "hostsCommaDelimitedString", "initialized", "services", "configuredServices", "password", "enableHTTPS"}


def test_a_difference_is_told_and_is_the_exit_status(service, file):
    file.write_text("authLevel: STANDARD\nhosts: [a.example.com]\njabberdClientPortTLS: '5218'\n")
    done = service.tool("settings", "diff", str(file))
    assert (done.returncode, done.stdout) == (1, "authLevel: ANYMETHOD -> STANDARD\n")
    done = service.tool("--json", "settings", "diff", str(file))
    assert (done.returncode, json.loads(done.stdout)) == (
        1, {"changed": True, "differences": {"authLevel": {"old": "ANYMETHOD", "new": "STANDARD"}}})


def test_applying_a_file_twice_changes_something_once(service, file):
    file.write_text("authLevel: STANDARD\nhosts: [a.example.com, B.Example.com]\n")
    first = service.tool("settings", "apply", str(file))
    assert (first.returncode, first.stdout.splitlines()) == (
        0, ["authLevel: ANYMETHOD -> STANDARD", 'hosts: ["a.example.com"] -> ["a.example.com","B.Example.com"]'])
    assert "The settings are written." in first.stderr
    before = written(service)
    second = service.tool("settings", "apply", str(file))
    assert (second.returncode, second.stdout, second.stderr) == (0, "", "Unchanged: the settings are as the file wants them.\n")
    assert json.loads(service.tool("--json", "settings", "apply", str(file)).stdout) == {"changed": False, "differences": {}}
    assert written(service) == before
    assert service.tool("settings", "get", "authLevel").stdout == "authLevel=STANDARD\n"


def test_a_check_writes_nothing(service, file):
    file.write_text("authLevel: STANDARD\n")
    before = written(service)
    done = service.tool("settings", "apply", "--check", str(file))
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "authLevel: ANYMETHOD -> STANDARD\n", "Not written, as --check was given.\n")
    assert written(service) == before


def test_an_unknown_key_is_refused_with_a_proposal_and_nothing_is_written(service, file):
    file.write_text("authLevel: STANDARD\nenableXMP: true\n")
    before = written(service)
    for verb in ("diff", "apply"):
        done = service.tool("settings", verb, str(file))
        assert done.returncode == 65
        assert done.stderr == 'error: There is no setting "enableXMP"; "enableXMPP" may be meant.\n'
        assert json.loads(service.tool("--json", "settings", verb, str(file)).stdout)["error"] == "unknown-setting"
    assert written(service) == before


def test_a_value_that_cannot_be_is_refused_by_the_service_and_nothing_is_written(service, file):
    file.write_text("authLevel: STANDARD\njabberdS2SPort: 70000\n")
    before = written(service)
    done = service.tool("settings", "apply", str(file))
    assert done.returncode == 65
    assert '"jabberdS2SPort" must be a port number from 0 to 65535' in done.stderr
    assert done.stdout == ""
    assert written(service) == before


def test_secrets_of_a_file_are_not_shown(service, file):
    file.write_text("secret: canary\n")
    for verb in (("diff",), ("apply", "--check"), ("apply",)):
        for form in ((), ("--json",)):
            done = service.tool(*form, "settings", *verb, str(file))
            assert "canary" not in done.stdout + done.stderr
    assert service.tool("settings", "get", "secret").stdout == "secret=canary\n"


def test_a_file_comes_from_standard_input(service):
    done = service.tool("settings", "apply", "-", input='{"authLevel": "STANDARD"}')
    assert (done.returncode, done.stdout) == (0, "authLevel: ANYMETHOD -> STANDARD\n")


@pytest.mark.parametrize(("content", "says"), [
    ("a: [", "line "), ("- a\n", "it holds no dictionary"), ("", "it must hold one document"), ("{", "")])
def test_a_file_that_cannot_be_read_is_told(service, file, content, says):
    file.write_text(content)
    done = service.tool("settings", "apply", str(file))
    assert done.returncode == 65
    assert f"error: Cannot use {file}: {says}" in done.stderr


def test_a_file_that_is_not_there_is_told(service, tmp_path):
    done = service.tool("settings", "diff", str(tmp_path / "missing"))
    assert (done.returncode, done.stderr) == (66, f"error: Cannot use {tmp_path}/missing: No such file or directory.\n")
    assert service.tool("settings", "diff", str(tmp_path)).returncode == 66


def test_all_settings_are_shown_without_secrets_unless_they_are_asked_for(service):
    shown = service.tool("settings", "get")
    assert "secret=" not in shown.stdout
    assert '"secret" is left out; --show-secrets shows it.' in shown.stderr
    assert "secret" not in json.loads(service.tool("--json", "settings", "get").stdout)
    assert "\nsecret=" in service.tool("settings", "get", "--show-secrets").stdout
    assert service.tool("settings", "get", "secret").stdout.startswith("secret=")


def test_before_the_first_time_setup_there_is_nothing_to_compare_with(pluginRoot, makeDaemon, file):
    daemon = makeDaemon("--service-manager", "none", root=pluginRoot)
    file.write_text("authLevel: STANDARD\n")
    for words in (("diff", str(file)), ("apply", str(file)), ("export",)):
        done = daemon.tool("settings", *words)
        assert done.returncode == 69
        assert "first-time setup is not done" in done.stderr


@pytest.mark.parametrize("words", [
    ("settings", "diff"), ("settings", "apply"), ("settings", "apply", "a", "b"), ("settings", "export", "a"),
    ("settings", "export", "--format", "toml"), ("settings", "get", "--check"), ("settings", "set", "--format", "json"),
    ("state", "--show-secrets")])
def test_wrong_words_are_refused(service, words):
    assert service.tool(*words).returncode == 64


def test_a_key_that_is_no_setting_is_told_after_a_write_with_a_proposal(service):
    done = service.tool("settings", "set", "authlevel=STANDARD")
    assert done.returncode == 65
    assert 'error: There is no setting "authlevel"; "authLevel" may be meant. It has no effect.\n' in done.stderr


def test_a_list_that_is_written_as_a_text_is_refused_with_an_example(service):
    done = service.tool("settings", "set", "hosts=a.example.test")
    assert done.returncode == 65
    assert '"hosts" must be a list of strings, such as [a, b]' in done.stderr


def test_a_file_that_cannot_be_read_is_told_once_and_what_was_not_written_is_named(service):
    with open(service.root / "etc/jabberd_notification/c2s.xml", "a", encoding="ascii") as file:
        file.write("<")
    done = service.tool("settings", "set", "jabberdClientPortSSL=5219", "authLevel=STANDARD")
    assert done.returncode == 70
    lines = done.stderr.splitlines()
    assert len(lines) == len(set(lines))
    assert lines[-1] == "Nothing was written."


def test_what_is_said_first_stands_first_where_all_goes_to_one_place(service, file):
    file.write_text("authLevel: STANDARD\n")
    done = subprocess.run([buildDirectory() / "bin/tessardctl", "--socket", service.socket, "settings", "apply", file],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=True)
    assert done.stdout == ("authLevel: ANYMETHOD -> STANDARD\n"
                           "The settings are written. They take effect with the next restart (tessardctl restart).\n")
