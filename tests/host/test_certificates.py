"""The keychain's certificates over the socket, and with the command-line tool."""

import base64
import contextlib
import json
import plistlib
import subprocess

import pytest

from hosttools import TerminalTool, buildDirectory

PHRASE = "correct horse \u00fc battery"
SUBJECT = "/UID=com.example.topic/CN=push.example.com"


def openssl(*words, **keywords):
    return subprocess.run(["openssl", *map(str, words)], check=True, capture_output=True, **keywords)


@pytest.fixture
def files(tmp_path):
    """A certificate with its key: in PEM, and sealed as PKCS#12."""
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "30", "-subj",
            SUBJECT, "-keyout", tmp_path / "key.pem", "-out", tmp_path / "certificate.pem")
    openssl("pkcs12", "-export", "-inkey", tmp_path / "key.pem", "-in", tmp_path / "certificate.pem", "-out",
            tmp_path / "push.p12", "-passout", "stdin", input=PHRASE.encode())
    return tmp_path


def certificates(daemon):
    answer = daemon.send("GET", "/v1/certificates")
    assert answer.status == 200
    return answer.json["certificates"]


def post(daemon, **request):
    return daemon.post(request, path="/v1/certificates")


def sealed(files):
    return {"$data": base64.b64encode((files / "push.p12").read_bytes()).decode()}


def test_there_are_none_at_first(daemon):
    assert certificates(daemon) == []
    done = daemon.tool("certificate", "list")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_a_certificate_is_imported_once_and_listed(daemon, files):
    answer = post(daemon, file=sealed(files), passPhrase=PHRASE)
    assert answer.status == 200
    assert (answer.json["added"], answer.json["keyAdded"]) == (1, True)
    assert answer.json["certificates"] == certificates(daemon)
    [record] = certificates(daemon)
    digest = openssl("x509", "-in", files / "certificate.pem", "-noout", "-fingerprint", "-sha256").stdout.decode()
    assert record["sha256"] == digest.strip().partition("=")[2].replace(":", "")
    assert record["topic"] == "com.example.topic"
    assert (record["hasKey"], record["expired"], record["preferredFor"]) == (True, False, [])
    assert set(record["notAfter"]) == {"$date"}
    again = post(daemon, file=(files / "certificate.pem").read_text())
    assert (again.json["added"], again.json["keyAdded"]) == (0, False)
    assert len(certificates(daemon)) == 1


@pytest.mark.parametrize(
    "request_, error",
    [
        ({}, "invalid-request"),
        ({"file": 1}, "invalid-request"),
        ({"file": ["x"]}, "invalid-request"),
        ({"file": "x", "passPhrase": 1}, "invalid-request"),
        ({"file": "x"}, "malformed"),
        ({"file": ""}, "malformed"),
    ],
    ids=str,
)
def test_what_is_no_certificate_is_refused_and_nothing_is_made(daemon, request_, error):
    answer = post(daemon, **request_)
    assert answer.status == 400
    assert answer.error in (error, "no-certificate")
    assert certificates(daemon) == []


def test_a_sealed_file_needs_its_pass_phrase(daemon, files):
    answer = post(daemon, file=sealed(files))
    assert (answer.status, answer.error) == (400, "pass-phrase-needed")
    answer = post(daemon, file=sealed(files), passPhrase="wrong " + PHRASE)
    assert (answer.status, answer.error) == (400, "wrong-pass-phrase")
    assert PHRASE not in answer.body.decode()
    assert certificates(daemon) == []


def test_other_methods_and_bodies_are_refused(daemon):
    answer = daemon.send("DELETE", "/v1/certificates")
    assert (answer.status, answer.error, answer.headers["Allow"]) == (405, "method-not-allowed", "GET, HEAD, POST")
    answer = daemon.post(b"[]", path="/v1/certificates")
    assert (answer.status, answer.error) == (400, "not-a-dictionary")


def test_a_keychain_that_cannot_be_used_is_told(daemon, files):
    assert post(daemon, file=sealed(files), passPhrase=PHRASE).status == 200
    for database in daemon.root.rglob("*"):
        if database.is_file() and database.read_bytes().startswith(b"SQLite format 3"):
            database.write_bytes(b"x" * 8192)
    answer = daemon.send("GET", "/v1/certificates")
    assert (answer.status, answer.error) == (500, "damaged-keychain")
    done = daemon.tool("certificate", "list")
    assert (done.returncode, done.stdout) == (70, "")


# --- the tool --------------------------------------------------------------------------------------------------------


def shown(daemon):
    [line] = daemon.tool("certificate", "list").stdout.splitlines()
    return line


@pytest.mark.parametrize("columns", [None, 60, 24])
def test_the_list_is_a_table_that_fits_a_terminal(daemon, files, columns, monkeypatch):
    daemon.tool("certificate", "import", files / "push.p12", input=PHRASE + "\n")
    if columns:
        monkeypatch.setenv("COLUMNS", str(columns))
    lines = daemon.tool("certificate", "list").stdout.splitlines()
    assert all(len(line) <= (columns or 1000) for line in lines)
    assert "".join(certificates(daemon)[0]["subject"].split()) in "".join("".join(lines).split())
    assert (len(lines) == 1) == (columns is None)


def test_the_tool_imports_with_a_pass_phrase_on_standard_input(daemon, files):
    done = daemon.tool("certificate", "import", files / "push.p12", input=PHRASE + "\n")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == shown(daemon) + "\n"
    assert "  with key  UID = com.example.topic, CN = push.example.com" in done.stdout
    assert certificates(daemon)[0]["sha256"][:16] == done.stdout[:16]
    again = daemon.tool("certificate", "import", files / "certificate.pem")
    assert (again.returncode, again.stderr) == (0, "All of it was there already.\n")
    assert json.loads(daemon.tool("certificate", "list", "--json").stdout)["certificates"] == certificates(daemon)


def test_a_pass_phrase_is_typed_unseen(daemon, files):
    tool = TerminalTool(daemon, "certificate", "import", files / "push.p12", whole=True)
    tool.awaitText(b"Pass phrase of ")
    tool.awaitText(b": ")
    tool.type(PHRASE.encode() + b"\n")
    assert tool.finish() == 0
    assert PHRASE.encode() not in tool.shown
    assert b"with key" in tool.shown
    assert len(certificates(daemon)) == 1


def test_the_pass_phrase_is_nowhere_but_in_the_request(daemon, files):
    done = daemon.tool("certificate", "import", files / "push.p12", input=PHRASE + "\n")
    wrong = daemon.tool("certificate", "import", files / "push.p12", input="wrong " + PHRASE + "\n")
    assert wrong.returncode == 65
    assert PHRASE not in done.stdout + done.stderr + wrong.stdout + wrong.stderr
    for name in ("cmdline", "environ"):
        with open(f"/proc/{daemon.process.pid}/{name}", "rb") as content:
            assert PHRASE.encode() not in content.read()
    for file in daemon.root.rglob("*"):
        if file.is_file():
            assert PHRASE.encode() not in file.read_bytes()
    _, said = daemon.end()
    assert PHRASE not in said


def memory_of(pid):
    """All that a process can read, piece by piece."""
    with open(f"/proc/{pid}/maps", encoding="ascii") as maps, open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for line in maps:
            first, last = (int(place, 16) for place in line.split()[0].split("-"))
            # What the kernel shows of itself cannot be read.
            with contextlib.suppress(OSError, OverflowError, ValueError):
                memory.seek(first)
                yield memory.read(last - first)


def test_the_pass_phrase_does_not_stay_in_the_daemons_memory(daemon, files):
    if buildDirectory().name in ("asan", "tsan"):
        pytest.skip("the sanitizers keep what is given back")
    # Long enough for memory of its own; a needle is looked for behind its beginning, which lists of free memory cover.
    mark = b"Zebra crossing 7 of the long pass phrase"
    phrase = "P" * 40 + mark.decode() + "Q" * 40
    key = openssl("ec", "-in", files / "key.pem", "-aes128", "-passout", "stdin", input=phrase.encode()).stdout.decode()
    text = (files / "certificate.pem").read_text() + key
    for wrong, status in (("", 200), ("x", 400)):
        for kind, body in (("application/json", json.dumps({"file": text, "passPhrase": wrong + phrase}).encode()),
                           ("application/xml", plistlib.dumps({"file": text, "passPhrase": wrong + phrase}))):
            assert daemon.send("POST", "/v1/certificates", body, **{"Content-Type": kind}).status == status
    assert sum(len(piece) for piece in memory_of(daemon.process.pid)) > 1_000_000
    assert not [piece for piece in memory_of(daemon.process.pid) if mark in piece]


@pytest.mark.parametrize(
    "content, input_, status, id_",
    [
        (None, None, 66, "unusable-file"),
        (b"no certificate", None, 65, None),
        (b"x" * 800_000, None, 66, "unusable-file"),
        ("sealed", "", 65, "pass-phrase-needed"),
        ("sealed", "wrong\n", 65, "wrong-pass-phrase"),
    ],
    ids=["missing", "malformed", "large", "without", "wrong"],
)
def test_an_import_that_fails_is_told(daemon, files, content, input_, status, id_):
    file = files / ("push.p12" if content == "sealed" else "file")
    if isinstance(content, bytes):
        file.write_bytes(content)
    plain = daemon.tool("certificate", "import", file, input=input_)
    assert (plain.returncode, plain.stdout) == (status, "")
    assert "error: " in plain.stderr
    answer = json.loads(daemon.tool("--json", "certificate", "import", file, input=input_).stdout)
    assert id_ in (None, answer["error"])
    assert certificates(daemon) == []


def test_a_directory_is_no_file(daemon, files):
    assert daemon.tool("certificate", "import", files).returncode == 66


def test_what_is_in_a_subject_is_no_command_to_a_terminal(daemon, tmp_path):
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=a\033[2Jb",
            "-keyout", tmp_path / "key.pem", "-out", tmp_path / "c.pem")
    assert daemon.tool("certificate", "import", tmp_path / "c.pem").returncode == 0
    assert "\033" not in shown(daemon)
