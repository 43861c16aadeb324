"""What the tool's errors are called, what it proposes, and what its help says."""

import json
import os
import pathlib
import re
import subprocess

import pytest

from hosttools import buildDirectory, needsPlugin

PROJECT = pathlib.Path(__file__).parent.parent.parent
TOOL = buildDirectory() / "bin/tessardctl"
# What sysexits.h calls them in the sources.
CODES = dict(re.findall(r"#define (EX_[A-Z]+)\s+(\d+)", pathlib.Path("/usr/include/sysexits.h").read_text()))


def run(*words, **environment):
    return subprocess.run([TOOL, *words], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          env={**os.environ, **environment})


def manual():
    """Id -> exit codes, as the manual page tells them."""
    text = (PROJECT / "share/man/man1/tessardctl.1").read_text()
    section = text.partition(".Sh ERRORS\n")[2].partition(".Sh ")[0]
    rows = re.findall(r"^\.It Li ([a-z0-9 ,-]+) Pq ([0-9, ]+)$", section, re.MULTILINE)
    return {name: codes.replace(" ", "").split(",") for names, codes in rows for name in names.replace(" ,", "").split()}


def test_every_error_of_the_tool_itself_is_in_the_manual_with_its_exit_code():
    told, documented = {}, manual()
    for source in (PROJECT / "host/ctl").glob("*.cpp"):
        text = source.read_text()
        for name, rest in re.findall(r"(?:[fF]ailure\(|return (?:ClientFailure)?\{)\s*\"([a-z]+(?:-[a-z]+)*)\"([^;]*);", text):
            told.setdefault(name, set()).update(CODES[code] for code in re.findall(r"EX_[A-Z]+", rest) if code in CODES)
    assert len(told) > 15
    assert sorted(set(told) - set(documented)) == []
    wrong = {name: (codes, documented[name]) for name, codes in told.items() if not codes <= set(documented[name])}
    assert not wrong


def test_every_error_of_the_daemon_is_in_the_manual():
    requests = (PROJECT / "docs/requests.md").read_text().partition("## Errors")[2]
    cells = [line.split("|")[2] for line in requests.splitlines() if re.match(r"\| [\d, ]+ \|", line)]
    ids = {name for cell in cells for name in re.findall(r"`([^`]+)`", cell)}
    assert len(ids) > 20
    assert sorted(ids - set(manual())) == []


@pytest.mark.parametrize("words, code, name", [
    (["fly"], 64, "usage"), (["state", "--fly"], 64, "usage"), (["--lines"], 64, "usage"), ([], 64, "usage"),
    (["request", "getState", "{"], 65, "malformed-json"), (["settings", "apply", "/nowhere"], 66, "unusable-file"),
    (["state"], 69, "not-running"), (["settings", "undo"], 69, "not-running"), (["log"], 69, "not-running")])
def test_an_error_is_one_json_document_on_standard_output_with_its_id(tmp_path, words, code, name):
    done = run("--json", "--socket", str(tmp_path / "none"), *words)
    document = json.loads(done.stdout)
    assert (done.returncode, document["error"], done.stderr) == (code, name, "")
    assert document["message"] and str(code) in manual()[name]


@needsPlugin
def test_an_answer_with_an_error_is_one_document_too(plugin):
    plugin.tool("setup")
    done = plugin.tool("--json", "settings", "get", "authLevel", "nothing", "none")
    assert (done.returncode, json.loads(done.stdout)) == (65, {
        "error": "unknown-setting", "message": 'There is no setting "nothing". There is no setting "none".',
        "answer": {"authLevel": "STANDARD"}})
    done = plugin.tool("--json", "settings", "set", "authLevel=ANYMETHOD", "nothing=1")
    document = json.loads(done.stdout)
    assert (done.returncode, document["error"]) == (65, "unknown-setting")
    assert document["answer"]["configuration"]["authLevel"] == "ANYMETHOD"


@pytest.mark.parametrize("words, proposal", [
    (["stat"], "state"), (["setings", "get"], "settings"), (["settings", "udno"], "settings undo"),
    (["services", "lst"], "services list"), (["certificate", "improt"], "certificate import"),
    (["state", "--detials"], "--details"), (["log", "--folow"], "--follow"), (["log", "--lvel=error"], "--level")])
def test_what_may_be_meant_is_proposed(words, proposal):
    done = run(*words)
    assert done.returncode == 64
    assert f'; "{proposal}" may be meant. See tessardctl --help.' in done.stderr


def test_nothing_is_proposed_for_what_is_like_nothing():
    assert run("flying-carpet").stderr == 'error: There is no verb "flying-carpet". See tessardctl --help.\n'


def entries():
    """Verb -> the lines of the help that are about it."""
    found, entry = {}, None
    for line in run("--help").stdout.splitlines():
        if re.match("  [a-z]", line):
            # Several forms of a verb have one description.
            if not entry or not re.match("  [a-z-]+ [a-z-]+ --", entry[-1]):
                entry = found.setdefault(line, [])
        elif not line.startswith("      "):
            entry = None
        if entry is not None:
            entry.append(line)
    return list(found.values())


def test_the_help_of_every_verb_ends_with_an_example():
    for entry in entries():
        first = entry[0].split("   ")[0].strip()
        for verb in first.split(", "):
            words = [word for word in re.match(r"[a-z -]*", verb)[0].split() if not word.startswith("-")]
            shown = run(*words, "--help").stdout.splitlines()
            assert set(entry) <= set(shown)
            assert shown[-1].strip().startswith("tessardctl "), words
            assert run("--help", *words[:1]).stdout.splitlines()[-1].strip().startswith("tessardctl ")


def test_every_example_is_a_command_line_that_the_tool_takes(tmp_path):
    tool = tmp_path / "tessardctl"
    tool.write_text(f'#!/bin/sh\nexec {TOOL.absolute()} --socket {tmp_path}/none "$@"\n')
    tool.chmod(0o755)
    for entry in entries():
        for name in ("push.yaml", "push.p12"):
            (tmp_path / name).write_text("authLevel: STANDARD\n")
        example = entry[-1].strip()
        assert example.startswith("tessardctl "), entry
        done = subprocess.run(["sh", "-c", example], capture_output=True, text=True, cwd=tmp_path, stdin=subprocess.DEVNULL,
                              env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"})
        # There is no daemon to go on with, or no such file.
        assert done.returncode in (66, 69), (example, done.stderr)


def test_the_help_of_what_is_no_verb_is_all_of_it():
    assert run("fly", "--help").stdout == run("--help").stdout
