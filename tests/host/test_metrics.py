"""What collectors are told, read by the parsers that they use."""

import json
import math
import os
import subprocess
import time

import pytest
from prometheus_client.openmetrics import parser as openmetrics
from prometheus_client.parser import text_string_to_metric_families

from hosttools import NOBODY, RunningRequest, actingAs, needsPlugin, parseRaw, readAll, waitUntil

OPENMETRICS = "application/openmetrics-text; version=1.0.0; charset=utf-8"
TEXT = "text/plain; version=0.0.4; charset=utf-8"


def scraped(daemon):
    """{(name, ((label, value), ...)): value} of all samples in OpenMetrics."""
    answer = daemon.send("GET", "/v1/metrics", Accept="application/openmetrics-text;version=1.0.0,*/*;q=0.1")
    assert (answer.status, answer.type) == (200, OPENMETRICS)
    families = openmetrics.text_string_to_metric_families(answer.body.decode())
    return {(sample.name, tuple(sorted(sample.labels.items()))): sample.value
            for family in families for sample in family.samples}


def plain(daemon):
    answer = daemon.send("GET", "/v1/metrics")
    assert (answer.status, answer.type) == (200, TEXT)
    return answer.body.decode()


def key(name, **labels):
    return name, tuple(sorted(labels.items()))


def promtool(text):
    return subprocess.run(["promtool", "check", "metrics"], input=text, text=True, capture_output=True, check=False)


def test_promtool_has_nothing_to_say_about_them(daemon):
    daemon.echo()
    daemon.post({"command": "throw"})
    checked = promtool(plain(daemon))
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")


def test_both_forms_hold_the_same_samples(daemon):
    daemon.echo()
    new = set(scraped(daemon))
    old = {(sample.name, tuple(sorted(sample.labels.items())))
           for family in text_string_to_metric_families(plain(daemon)) for sample in family.samples}
    assert old == new


def test_requests_are_counted_by_command_and_result(daemon):
    for _ in range(3):
        daemon.echo()
    daemon.post({"command": "throw"})
    daemon.post({"command": "log"})
    daemon.post({"command": "never heard"})
    daemon.post({"command": "heard never"})
    daemon.send("GET", "/nothing")
    found = scraped(daemon)

    def requests(command, result):
        return found[key("tessard_requests_total", plugin="notification", command=command, result=result)]

    assert requests("echo", "done") == 3
    assert requests("throw", "failed") == 1
    assert requests("log", "errors") == 1
    assert requests("unknown", "unknown-command") == 2
    assert found[key("tessard_http_answers_total", code="404")] == 3
    assert found[key("tessard_request_duration_seconds_count", plugin="notification", command="echo")] == 3
    assert found[key("tessard_request_duration_seconds_bucket", plugin="notification", command="echo", le="+Inf")] == 3


def test_what_collectors_ask_for_is_not_counted_as_requests(daemon):
    scraped(daemon)
    assert not [name for name, _ in scraped(daemon) if name.startswith("tessard_requests_total")]


def test_writes_of_settings_are_counted_on_their_own(daemon):
    daemon.post({"command": "writeSettings", "configuration": {"a": 1}})
    assert scraped(daemon)[key("tessard_configuration_writes_total", plugin="notification", result="done")] == 1


def test_open_connections_are_told(daemon):
    kept = [daemon.connection() for _ in range(3)]
    for connection in kept:
        assert daemon.send("GET", "/v1/health", connection=connection).status == 200
    assert scraped(daemon)[key("tessard_connections")] == 4
    for connection in kept:
        connection.close()
    waitUntil(lambda: scraped(daemon)[key("tessard_connections")] == 1, "they are closed")


def test_the_daemon_tells_of_itself_when_a_request_takes_long(daemon):
    running = RunningRequest(daemon)
    found = scraped(daemon)
    assert found[key("tessard_request_running_seconds")] > 0
    assert found[key("tessard_build_info", version=daemon.health()["version"])] == 1
    assert not [name for name, _ in found if name == "tessard_running"]
    running.finish()
    assert key("tessard_running", plugin="notification") in scraped(daemon)


def test_plug_ins_that_are_not_loaded_are_told(root, makeDaemon):
    (root / "usr/share/tessardd/bundles/tessard_broken.bundle").mkdir()
    found = scraped(makeDaemon("--idle-seconds", "0"))
    assert found[key("tessard_plugin_loaded", plugin="broken")] == 0
    assert found[key("tessard_plugin_loaded", plugin="notification")] == 1


def test_the_daemon_tells_when_it_began(daemon):
    began = scraped(daemon)[key("tessard_start_time_seconds")]
    assert math.fabs(time.time() - began) < 3600
    assert scraped(daemon)[key("tessard_start_time_seconds")] == began


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE"])
def test_metrics_can_only_be_read(daemon, method):
    answer = daemon.send(method, "/v1/metrics", b"")
    assert (answer.status, answer.headers["Allow"], answer.error) == (405, "GET, HEAD", "method-not-allowed")


def test_strangers_get_none(daemon):
    os.chmod(daemon.socket, 0o666)
    with actingAs(NOBODY, NOBODY):
        connection = daemon.connection()
        connection.connect()
    assert parseRaw(readAll(connection.sock))[0] == 403


# --- the tool --------------------------------------------------------------------------------------------------------


def test_the_tool_prints_them(daemon):
    done = daemon.tool("metrics")
    assert (done.returncode, done.stderr) == (0, "")
    assert promtool(done.stdout).returncode == 0


def test_the_tool_prints_them_within_json(daemon):
    done = daemon.tool("--json", "metrics")
    assert promtool(json.loads(done.stdout)["metrics"]).returncode == 0


def test_the_tool_replaces_a_file_that_everyone_may_read(daemon, tmp_path):
    file = tmp_path / "tessard.prom"
    file.write_text("old\n")
    file.chmod(0o600)
    before = os.umask(0o077)
    try:
        done = daemon.tool("metrics", "--output", str(file))
    finally:
        os.umask(before)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert promtool(file.read_text()).returncode == 0
    assert file.stat().st_mode & 0o777 == 0o644
    assert list(tmp_path.iterdir()) == [file]


def test_the_tool_leaves_the_file_as_it_is_when_there_is_no_daemon(daemon, tmp_path):
    file = tmp_path / "tessard.prom"
    file.write_text("old\n")
    daemon.end()
    assert daemon.tool("metrics", "--output", str(file)).returncode == 69
    assert file.read_text() == "old\n"
    assert list(tmp_path.iterdir()) == [file]


def test_the_tool_says_so_when_the_file_cannot_be_made(daemon, tmp_path):
    done = daemon.tool("metrics", "--output", str(tmp_path / "missing/tessard.prom"))
    assert done.returncode == 73
    assert done.stderr == f'error: "{tmp_path}/missing/tessard.prom" cannot be written: No such file or directory.\n'


def test_the_tool_says_so_when_a_directory_has_the_name(daemon, tmp_path):
    (tmp_path / "tessard.prom").mkdir()
    done = daemon.tool("metrics", "--output", str(tmp_path / "tessard.prom"))
    assert done.returncode == 73
    assert [entry.name for entry in tmp_path.iterdir()] == ["tessard.prom"]


def test_the_tool_takes_no_other_words(daemon):
    assert daemon.tool("metrics", "all").returncode == 64
    assert daemon.tool("health", "--output", "x").returncode == 64


# --- of the real plug-in ---------------------------------------------------------------------------------------------


@needsPlugin
def test_the_services_of_the_real_plug_in_are_told(pluginRoot, makeDaemon):
    daemon = makeDaemon("--root", str(pluginRoot), "--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    daemon.tool("settings", "set", "hosts=[a.example.com,b.example.com]")
    found = scraped(daemon)
    assert found[key("tessard_running", plugin="notification")] == 0
    assert found[key("tessard_service_running", plugin="notification", service="jabberd")] == 0
    assert found[key("tessard_service_running", plugin="notification", service="idavoll")] == 0
    assert found[key("tessard_service_connections", plugin="notification")] == 0
    assert found[key("tessard_domains", plugin="notification")] == 2
    assert found[key("tessard_ports_restricted", plugin="notification")] == 0


def certificate(directory, name, days):
    """A key and a certificate in one PEM text, and the end of the certificate."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                    directory / "key", "-out", directory / "certificate", "-subj", f"/CN={name}", "-days", str(days)],
                   check=True, capture_output=True)
    told = subprocess.run(["openssl", "x509", "-noout", "-enddate", "-in", directory / "certificate"],
                          check=True, capture_output=True, text=True).stdout
    end = subprocess.run(["date", "-d", told.strip().partition("=")[2], "+%s"], check=True, capture_output=True, text=True)
    return (directory / "certificate").read_bytes() + (directory / "key").read_bytes(), int(end.stdout)


@needsPlugin
def test_the_ends_of_certificates_are_told(pluginRoot, makeDaemon, tmp_path):
    daemon = makeDaemon("--root", str(pluginRoot), "--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    (tmp_path / "push.pem").write_bytes(certificate(tmp_path, "push \"quoted\"", 20)[0])
    pushEnd = certificate(tmp_path, "push2", 25)
    (tmp_path / "push2.pem").write_bytes(pushEnd[0])
    for name in ("push.pem", "push2.pem"):
        assert daemon.tool("certificate", "import", str(tmp_path / name)).returncode == 0
    server, end = certificate(tmp_path, "a.example.com", 3)
    (pluginRoot / "etc/server.pem").write_bytes(server)
    daemon.tool("settings", "set", "sslKeyFile=/etc/server.pem")
    ends = {labels: value for (name, labels), value in scraped(daemon).items() if name == "tessard_certificate_end_time_seconds"}
    told = {(dict(labels)["place"], dict(labels)["subject"]): value for labels, value in ends.items()}
    assert told[("/etc/server.pem", "CN = a.example.com")] == end
    assert told[("keychain", "CN = push2")] == pushEnd[1]
    assert len(told) == 3
    assert promtool(plain(daemon)).returncode == 0
    assert b"PRIVATE" not in plain(daemon).encode()
