"""The check over the socket, and the tool that shows it."""

import json
import pathlib
import re
import subprocess

import pytest

from hosttools import RunningRequest, needsPlugin

HERE = pathlib.Path(__file__).parent
CONFIG = "etc/jabberd_notification"


def check(daemon, query=""):
    answer = daemon.send("GET", f"/v1/check{query}")
    assert answer.status == 200, answer.body
    return answer.json


def ids(answer):
    return [finding["id"] for finding in answer["findings"]]


@pytest.fixture
def service(pluginRoot, makeDaemon):
    """After first-time setup, the files as prepare-instance would have made them."""
    subprocess.run(["chown", "-R", "84:0", pluginRoot / CONFIG], check=True)
    for file in (pluginRoot / CONFIG).iterdir():
        file.chmod(0o600)
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    assert daemon.tool("setup").returncode == 0
    return daemon


@needsPlugin
def test_nothing_is_wrong_after_setup(service):
    answer = check(service, "?only=files,xml,secrets,plugin")
    assert answer["findings"] == []
    assert answer["worst"] == "none"
    assert [area["name"] for area in answer["areas"]] == ["files", "xml", "secrets", "plugin"]
    assert all(area["ended"] and area["seconds"] < 10 for area in answer["areas"])


@needsPlugin
def test_a_check_changes_nothing(service):
    def state():
        return {str(path): (path.lstat().st_mtime_ns, path.lstat().st_ctime_ns, path.lstat().st_mode)
                for path in sorted(service.root.rglob("*")) if "tessardd.sock" not in path.name}

    service.tool("stop")
    before = state()
    check(service)
    assert state() == before


@needsPlugin
def test_findings_name_what_is_wrong_and_hold_no_secret(service):
    secret = re.search("<secret>(.*)</secret>", (service.root / CONFIG / "router-users.xml").read_text())[1]
    s2s = service.root / CONFIG / "s2s.xml"
    s2s.write_text(re.sub("<pass>.*</pass>", "<pass>other words</pass>", s2s.read_text()))
    answer = check(service, "?only=secrets")
    assert ids(answer) == ["secret-differs"]
    finding = answer["findings"][0]
    assert set(finding) == {"area", "id", "severity", "subject", "sentence", "remedy"}
    assert (finding["area"], finding["severity"]) == ("secrets", "error")
    assert finding["subject"] == f"/private/{CONFIG}/s2s.xml"
    assert secret not in json.dumps(answer) and "other words" not in json.dumps(answer)
    assert answer["worst"] == "error"


def test_a_running_request_holds_the_check_up_for_nobody(daemon):
    running = RunningRequest(daemon)
    assert check(daemon)["areas"]
    assert daemon.health()["running"]["request"] == "wait"
    running.finish()


def test_an_unknown_area_is_refused_with_the_one_that_may_be_meant(daemon):
    answer = daemon.send("GET", "/v1/check?only=xnl")
    assert (answer.status, answer.error) == (400, "unknown-area")
    assert '"xml" may be meant' in answer.json["message"]


@pytest.mark.parametrize("query", ["?timeout=0", "?timeout=61", "?timeout=x", "?with=nothing"])
def test_an_argument_that_is_none_is_refused(daemon, query):
    answer = daemon.send("GET", f"/v1/check{query}")
    assert (answer.status, answer.error) == (400, "bad-query")


@pytest.mark.parametrize("path", ["/v1/check", "/v1/check/areas"])
def test_only_reading_is_possible(daemon, path):
    answer = daemon.post({}, path=path)
    assert (answer.status, answer.error) == (405, "method-not-allowed")


def test_the_check_can_be_had_as_a_property_list(daemon):
    answer = daemon.send("GET", "/v1/check?only=plugin", Accept="application/x-plist")
    assert answer.plist["areas"][0]["name"] == "plugin"


# --- the tool --------------------------------------------------------------------------------------------------------


@needsPlugin
def test_the_exit_status_is_that_of_the_worst_finding(service):
    only = ["check", "--only", "files,xml,secrets,plugin"]
    done = service.tool(*only)
    assert (done.returncode, done.stdout) == (0, "Nothing is wrong in 4 areas.\n")
    (service.root / CONFIG / "sm_old.xml").touch()
    done = service.tool(*only)
    assert done.returncode == 0
    assert done.stdout.endswith("\n0 errors, 0 warnings, 1 notice in 4 areas.\n")
    (service.root / CONFIG / "sm.xml").chmod(0o640)
    assert service.tool(*only).returncode == 1
    (service.root / CONFIG / "sm.xml").chmod(0o644)
    assert service.tool(*only).returncode == 2


@needsPlugin
def test_a_finding_stands_in_one_line_and_its_remedy_in_the_next(service):
    (service.root / CONFIG / "sm.xml").chmod(0o640)
    lines = service.tool("check", "--only", "files").stdout.splitlines()
    assert lines == [
        f'files  warning  "/private/{CONFIG}/sm.xml" has the mode 640 and not 600.',
        f"                -> chmod 600 /private/{CONFIG}/sm.xml",
        "0 errors, 1 warning, 0 notices in 1 area.",
    ]


@needsPlugin
@pytest.mark.parametrize("columns", [200, 80, 60, 36, 20])
def test_the_table_fits_the_terminal(service, columns, monkeypatch):
    for name in ("sm.xml", "c2s.xml"):
        (service.root / CONFIG / name).chmod(0o644)
    cfg = service.root / CONFIG / "jabberd.cfg"
    cfg.write_text(cfg.read_text() + "été \033[2J\n")
    monkeypatch.setenv("COLUMNS", str(columns))
    done = service.tool("check", "--only", "files,xml")
    assert all(len(line) <= columns for line in done.stdout.splitlines()[:-1])
    shown = "".join(done.stdout.split())
    assert "whichholdssecrets" in shown
    assert "\033" not in done.stdout
    assert "été" in shown


@needsPlugin
def test_a_program_gets_the_daemons_answer(service):
    (service.root / CONFIG / "sm.xml").chmod(0o640)
    done = service.tool("--json", "check", "--only", "files")
    answer = json.loads(done.stdout)
    assert done.returncode == 1
    assert ids(answer) == ["file-mode"]


def test_the_areas_are_listed(daemon):
    names = [line.split()[0] for line in daemon.tool("check", "--list").stdout.splitlines()]
    areas = json.loads(daemon.tool("--json", "check", "--list").stdout)["areas"]
    assert names == [area["name"] for area in areas if area["name"] != "any"]
    assert all(area["findings"] and area["examines"] for area in areas)


def test_a_wrong_area_is_wrong_usage_and_proposes_the_right_one(daemon):
    done = daemon.tool("check", "--only", "secrts")
    assert (done.returncode, done.stdout) == (64, "")
    assert done.stderr == 'error: There is no area "secrts"; "secrets" may be meant.\n'
    done = daemon.tool("--json", "check", "--only", "a b&timeout=1")
    assert json.loads(done.stdout)["error"] == "unknown-area"
    assert "a b&timeout=1" in json.loads(done.stdout)["message"]


@pytest.mark.parametrize("words", [("check", "now"), ("check", "--list", "--only", "xml"), ("state", "--only", "xml"),
                                   ("state", "--timeout", "3"), ("state", "--list"), ("check", "--lines", "3")])
def test_options_belong_to_their_verbs(daemon, words):
    done = daemon.tool(*words)
    assert done.returncode == 64


def test_the_time_of_an_area_can_be_given(daemon):
    assert daemon.tool("check", "--timeout", "30").returncode in (0, 1, 2)
    assert daemon.tool("check", "--timeout", "0").returncode == 65


# --- what is written about it ----------------------------------------------------------------------------------------


def known(daemon):
    return json.loads(daemon.tool("--json", "check", "--list").stdout)["areas"]


def test_the_page_lists_every_finding_with_its_severity_and_no_other(daemon):
    page = (HERE.parent.parent / "docs/check.md").read_text()
    told = {}
    for part in page.split("\n## ")[1:]:
        told[part.splitlines()[0]] = re.findall(r"^\| `([a-z0-9-]+)` \| (\w+) \|", part, re.MULTILINE)
    assert told == {area["name"]: [(kind["id"], kind["severity"]) for kind in area["findings"]]
                    for area in sorted(known(daemon), key=lambda area: area["name"] != "any")}


def test_every_finding_is_made_by_some_test(daemon):
    made = [*HERE.glob("Check*_test.cpp"), *(HERE.parent / "certificates").glob("*_test.cpp")]
    tests = "".join(path.read_text() for path in made)
    for area in known(daemon):
        for kind in area["findings"]:
            assert f'"{kind["id"]}"' in tests, kind["id"]
