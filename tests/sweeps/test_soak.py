"""Very many requests of all kinds, one after the other: the daemon must not grow."""

import base64
import json
import plistlib
import random
import subprocess
import time

import pytest

from hosttools import needsPlugin, openConnections, waitUntil
from sweeptools import MEBIBYTE, Usage, openFiles, report, size

pytestmark = needsPlugin

JSON = "application/json"
PLIST = "application/x-plist"
PLUGIN = "/v1/plugins/notification"


@pytest.fixture
def served(plugin, pluginRoot):
    """A daemon after first-time setup, with a log to read."""
    assert plugin.tool("setup").returncode == 0
    with open(pluginRoot / "var/log/system.log", "w", encoding="utf-8") as log:
        for number in range(300):
            log.write(f"2026-11-21T10:00:00Z jabberd_notification/sm[1]: line {number}\n")
    return plugin


@pytest.fixture
def certificateFile(tmp_path):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days",
                    "30", "-subj", "/UID=com.example.topic/CN=push.example.com", "-keyout", tmp_path / "key.pem", "-out",
                    tmp_path / "certificate.pem"], check=True, capture_output=True)
    return (tmp_path / "certificate.pem").read_text() + (tmp_path / "key.pem").read_text()


def common(number):
    """Requests that change nothing."""
    host = f"host{number % 50}.example.com"
    return [
        {"command": "getState"},
        {"command": "getState", "variant": "withDetails"},
        {"command": "readSettings"},
        {"command": "readSettings", "optionalArguments": {"parameters": ["hosts", "authLevel", f"none{number}"]}},
        {"command": "getLogPaths"},
        {"command": "getConfiguredServices"},
        {"command": "tailFile", "identifier": "JABBER_LOG", "lines": number % 50},
        {"command": "tailFile", "identifier": "JABBER_LOG", "withFilters": [f"line {number % 300}"]},
        {"command": "tailFile", "identifier": f"NONE_{number}"},
        {"command": "setState", "state": f"bad {number}"},
        {"command": "removeService", "service": "calendar", "hostName": host},
        {"command": "setKorvsCertificate", "certificateName": f"nobody {number}"},
        {"command": f"unknown{number}"},
        {"nothing": number},
        {"command": "writeSettings", "configuration": {"jabberdClientPortTLS": f"no port {number}"}},
        {"command": "writeSettings", "configuration": {"changeip": {"newAddress": f"no address {number}"}}},
    ]


def changing(number):
    """Requests that write files or run programs."""
    host = f"host{number % 50}.example.com"
    level = ["STANDARD", "ANYMETHOD"][number % 2]
    domains = [f"d{index}.example.com" for index in range(1 + number % 4)]
    return [
        {"command": "writeSettings", "configuration": {"authLevel": level}},
        {"command": "writeSettings", "configuration": {"hosts": domains}},
        {"command": "writeSettings",
         "configuration": {"changeip": {"oldHost": domains[0], "newHost": f"n{number % 9}.example.com"}}},
        {"command": "addService", "service": "calendar", "hostName": host},
        {"command": "removeService", "service": "calendar", "hostName": host},
        {"command": "getServiceUser", "service": "calendar"},
        {"command": "setState", "state": "STOP"},
        {"command": "initialSetup"},
    ]


class Traffic:
    """A client of one connection, which makes a new one now and then."""

    def __init__(self, daemon, certificateFile):
        self.daemon = daemon
        self.certificateFile = certificateFile
        self.random = random.Random(20261121)
        self.connection = daemon.connection()
        self.sent = 0
        self.statuses = {}

    def send(self, method, path, body=None, kind=JSON):
        headers = {"Content-Type": kind} if body is not None else {}
        self.connection.request(method, path, body, headers)
        response = self.connection.getresponse()
        content = response.read()
        self.sent += 1
        self.statuses[response.status] = self.statuses.get(response.status, 0) + 1
        if response.getheader("Connection", "").lower() == "close":
            self.connection.close()
        assert content and response.status < 500, (response.status, content)

    def post(self, request):
        query = self.random.choice(["", "?with=log"])
        if self.random.random() < 0.5:
            self.send("POST", PLUGIN + query, json.dumps(request))
        else:
            form = self.random.choice([plistlib.FMT_XML, plistlib.FMT_BINARY])
            self.send("POST", PLUGIN + query, plistlib.dumps(request, fmt=form), PLIST)

    def malformed(self):
        number = self.random.randrange(1000)
        body, kind = self.random.choice([
            ("{" * (number + 1), JSON),
            ('{"command": "getState", "command": "x"}', JSON),
            ("[" * 63 + "]" * 63, JSON),
            ("<plist>" * number, PLIST),
            (b"bplist00" + self.random.randbytes(number), PLIST),
            ("[1, 2]", JSON),
            ("{}", "text/html"),
        ])
        self.send("POST", PLUGIN, body, kind)

    def other(self):
        number = self.random.randrange(6)
        if number == 0:
            self.send("POST", "/v1/events/idle", json.dumps({"count": self.sent}))
        elif number == 1:
            self.send("POST", "/v1/events/network-change", json.dumps({"changeInfo": {"a": self.sent}}))
        elif number == 2:
            self.send("POST", "/v1/certificates", json.dumps(
                {"file": {"$data": base64.b64encode(self.random.randbytes(200)).decode()}}))
        else:
            self.send("GET", ["/v1/health", "/v1/services", f"/v1/nothing/{self.sent}"][number - 3])

    def one(self):
        number = self.random.randrange(100000)
        kind = self.random.random()
        if kind < 0.85:
            self.post(self.random.choice(common(number)))
        elif kind < 0.93:
            self.malformed()
        elif kind < 0.97:
            self.other()
        elif kind < 0.98:
            self.send("GET", "/v1/certificates")
        elif kind < 0.999:
            self.post(self.random.choice(changing(number)))
        else:
            self.send("POST", "/v1/certificates", json.dumps({"file": self.certificateFile}))
        if self.random.random() < 0.02:
            self.connection.close()

    def everything(self):
        """Each kind of request once and more."""
        for number in range(8):
            for request in [*common(number), *changing(number)]:
                self.post(request)
            self.malformed()
            self.other()
        self.send("GET", "/v1/certificates")
        self.send("POST", "/v1/certificates", json.dumps({"file": self.certificateFile}))


def test_memory_and_open_files_do_not_grow_with_the_number_of_requests(served, certificateFile):
    total = size(short=2_500, full=100_000)
    pid = served.process.pid
    traffic = Traffic(served, certificateFile)
    traffic.everything()
    while traffic.sent < 1000:
        traffic.one()
    traffic.connection.close()
    waitUntil(lambda: openConnections(served) == 0, "the connection is closed")
    used = Usage(pid)
    begin = time.monotonic()
    while traffic.sent < total:
        traffic.one()
        if traffic.sent % 1000 == 0:
            used.look()
    seconds = time.monotonic() - begin
    traffic.connection.close()
    waitUntil(lambda: openFiles(pid) <= used.files, "as few files are open as before")
    counts = ", ".join(f"{status}: {count}" for status, count in sorted(traffic.statuses.items()))
    report(f"{total} requests ({counts}), {(total - 1000) / seconds:.0f} a second; {used.files} files open")
    used.assertGrowth(4 * MEBIBYTE)
    assert set(traffic.statuses) == {200, 400, 404, 415}
