"""What bash proposes for a command line of the tool."""

import os
import pathlib
import re
import subprocess

import pytest

from hosttools import buildDirectory, needsPlugin

COMPLETION = pathlib.Path(__file__).parent.parent.parent / "share/bash-completion/completions/tessardctl"

_ASK = """
. /usr/share/bash-completion/bash_completion
. "$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
compopt() { :; }
_tessardctl
printf '%s\\n' "${COMPREPLY[@]}"
"""


def proposed(*words, path=None, cwd=None):
    """For the last of the words."""
    programs = f"{path}:{os.environ['PATH']}" if path else os.environ["PATH"]
    done = subprocess.run(["bash", "-c", _ASK, "bash", COMPLETION, "tessardctl", *words], capture_output=True, text=True,
                          check=True, cwd=cwd, env={**os.environ, "PATH": programs})
    assert done.stderr == ""
    return [line for line in done.stdout.splitlines() if line]


@pytest.fixture
def help_text():
    return subprocess.run([buildDirectory() / "bin/tessardctl", "--help"], capture_output=True, text=True, check=True).stdout


def test_every_verb_of_the_help_is_proposed(help_text):
    lines = re.findall(r"^  ([a-z][a-z-]*(?:, [a-z-]+)*)", help_text, re.MULTILINE)
    verbs = {word for line in lines for word in line.split(", ")}
    assert set(proposed("")) == verbs


@pytest.mark.parametrize("verb", ["settings", "services", "certificate", "tls-certificate"])
def test_every_second_word_of_the_help_is_proposed(help_text, verb):
    seconds = {match[1] for match in re.finditer(rf"^  {verb} ([a-z]+)", help_text, re.MULTILINE)}
    assert set(proposed(verb, "")) == seconds


def test_every_option_of_the_help_is_proposed_somewhere(help_text):
    options = set(re.findall(r"--[a-z0-9-]+", help_text))
    lines = [["-"], ["state", "-"], ["settings", "get", "-"], ["settings", "set", "-"], ["settings", "export", "-"],
             ["settings", "apply", "-"], ["tls-certificate", "import", "-"], ["log", "-"], ["metrics", "-"], ["check", "-"]]
    assert {option for line in lines for option in proposed(*line) if option.startswith("--")} == options


def test_what_was_begun_is_completed():
    assert proposed("sta") == ["state", "start"]
    assert proposed("settings", "d") == ["diff"]
    assert proposed("--json", "--socket", "/x", "set") == ["settings", "setup"]
    assert proposed("settings", "export", "--format", "p") == ["plist"]


def test_files_are_proposed_where_files_belong(tmp_path):
    (tmp_path / "push.yaml").touch()
    assert proposed("settings", "apply", "pu", cwd=tmp_path) == ["push.yaml"]
    assert proposed("certificate", "import", "pu", cwd=tmp_path) == ["push.yaml"]
    assert proposed("metrics", "--output", "pu", cwd=tmp_path) == ["push.yaml"]
    assert proposed("services", "add", "pu", cwd=tmp_path) == []


@needsPlugin
def test_the_daemons_settings_and_logs_are_proposed(pluginRoot, makeDaemon, tmp_path):
    daemon = makeDaemon("--service-manager", "none", root=pluginRoot)
    daemon.tool("setup")
    tool = tmp_path / "tessardctl"
    tool.write_text(f'#!/bin/sh\nexec {buildDirectory()}/bin/tessardctl --socket {daemon.socket} "$@"\n')
    tool.chmod(0o755)
    assert "authLevel" in proposed("settings", "get", "", path=tmp_path)
    assert proposed("settings", "set", "auth", path=tmp_path) == ["authLevel="]
    assert "JABBER_LOG" in proposed("log", "", path=tmp_path)
    assert proposed("check", "--only", "xml,fi", path=tmp_path) == ["xml,files"]


def test_without_a_daemon_nothing_is_proposed_and_nothing_said():
    assert proposed("settings", "get", "") == []
