"""Values that nobody would choose but somebody will send: what is accepted loads in the real jabberd2 and reads back as
it was written, and what jabberd2 cannot bear is refused before anything is written."""

import json
import os
import random
import re
import sys
import time
from pathlib import Path

import pytest
from sweeptools import SANITIZED, report, size

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE.parent / "e2e"))

from certificates import CA_FILE, KEY_FILE, make_certificate  # noqa: E402
from jabberd import components_of  # noqa: E402
from private_machine import CONFIGURATION, MachineError, PrivateMachine  # noqa: E402
from service import Service  # noqa: E402

ROUNDS = size(short=14, full=400)
SEED = int(os.environ.get("TESSARD_SEED", "0")) or random.SystemRandom().randrange(1, 2**32)
LOADER = (HERE / "load_components.py").read_text(encoding="utf-8")
# Parts that texts are made of. Nothing here is beyond a component, or beyond XML.
PIECES = ["a", "B", "7", " ", "  ", "\t", "\n", "\r", "\r\n", "'", '"', "<", ">", "&", "&amp;", "&#10;", "]]>", "<![CDATA[", "--", "-->",
          "-", "<!--", "$", "$$", "$(x)", "}", "{", "{x}", "%", "%@", "%s", "@HOST", "\\", "\\n", "`id`", ";", "|", "*", "?", "~",
          "..", ".", "ü", "e\u0301", "\u202e", "\ufeff", "\u00a0", "\u2028", "\U0001f600", "\U0001d7d8", "\U0010fffd", "0", "1", "#", "="]
SIGNS = ["a", "Z", "9", "-", ".", "ü", "ß", "\u0301", "Σ", "İ", "中", "\U0001d7d8", "_", " ", "!", "/", "$", "{", "<", "&", "\n"]
# What jabberd2 would take for something else, or would not start with.
EXPANDED = ["${", "${x}", "${id}", "a${", "x${id}y", "$${", "${}", "@HOSTNAME@", "@ROUTERPASSWORD@"]
NO_TEXT = ["\x00", "\x01", "\x0b", "\x1f", "\ufffe", "\uffff"]
PATHS = ["sslKeyFile", "sslCAFile", "jabberdDatabasePath", "savedChatsLocation"]
TEXTS = [*PATHS, "authLevel"]


def textOf(chance, pieces=None, most=12):
    text = "".join(chance.choice(pieces or PIECES) for _ in range(chance.randint(1, most)))
    return text.replace("${", "$ {")


def fileName(chance):
    """A name that a file system can hold."""
    return (textOf(chance).replace("/", "") + "x").encode()[:200].decode(errors="ignore")


def bearable(chance):
    """A value for every key, of the strange kinds that the service can bear."""
    # SQLite takes paths of up to 512 bytes, with room for the names of its own files.
    ports = chance.sample(range(1, 65536), 3)
    values = {
        "hosts": [textOf(chance, SIGNS) + f"h{number}" for number in range(chance.randint(1, 3))],
        "s2sAllowedDomains": [textOf(chance, SIGNS) for _ in range(chance.randint(0, 4))],
        "sslKeyFile": chance.choice(["", textOf(chance), "/" + textOf(chance, most=400), "/tmp/" + "k" * 3000]),
        "sslCAFile": chance.choice(["", textOf(chance), "/" + textOf(chance)]),
        "authLevel": chance.choice(["STANDARD", "KERBEROS", "", textOf(chance)]),
        "jabberdDatabasePath": f"/var/lib/values/{fileName(chance)}/{fileName(chance)}",
        "savedChatsLocation": f"/var/lib/values/chats {fileName(chance)}",
        "jabberdClientPortTLS": ports[0], "jabberdClientPortSSL": chance.choice([0, ports[1], f"{ports[1]:07}"]),
        "jabberdS2SPort": chance.choice([0, ports[2], float(ports[2])]),
        "savedChatsArchiveInterval": chance.choice([0, 7, "30", 2**31 - 1]),
    }
    for key in ("enableXMPP", "requireSecureS2S", "s2sRestrictDomains", "enableSavedChats"):
        values[key] = chance.choice([True, False, 1, 0, "yes", "NO"])
    if chance.random() < 0.5:
        values["hostsCommaDelimitedString"] = ",".join(values.pop("hosts"))
    if chance.random() < 0.3:
        del values["enableXMPP"]
    return values


def unbearable(chance):
    """One key and a value that must be refused."""
    key = chance.choice([*TEXTS, "hosts", "hostsCommaDelimitedString", "s2sAllowedDomains", "port", "switch", "days"])
    if key == "port":
        return chance.choice(["jabberdClientPortTLS", "jabberdClientPortSSL", "jabberdS2SPort"]), chance.choice(
            [-1, 65536, 2**40, 1.5, "", " 5218", "5218 ", "0x10", "${x}", [], {}, "５２１８"])
    if key == "switch":
        return chance.choice(["enableXMPP", "requireSecureS2S", "enableSavedChats"]), chance.choice(["", "maybe", "${x}", [1], {}])
    if key == "days":
        return "savedChatsArchiveInterval", chance.choice([-1, 0.5, "", "many", "${x}", []])
    if key in PATHS and chance.random() < 0.6:
        wrong = [textOf(chance) + chance.choice(EXPANDED) + textOf(chance)]
        if key != "savedChatsLocation":
            wrong.append("/" + "x" * 5000)
        if key == "jabberdDatabasePath":
            wrong += ["", " ", "x.db", "./x", "~/x", "/" + "y" * 504, "/var/" + "d/" * 260]
        return key, chance.choice(wrong)
    if key == "hosts" and chance.random() < 0.5:
        return key, chance.choice([[], ["!"], ["a", 1], "a", ["x" * 241]])
    if key == "hostsCommaDelimitedString" and chance.random() < 0.5:
        return key, chance.choice(["a,,b", ",", "a,", ["a"], "x" * 300])
    wrong = textOf(chance) + chance.choice(NO_TEXT)
    return key, [wrong] if key in ("hosts", "s2sAllowedDomains") else wrong


@pytest.fixture
def served():
    with PrivateMachine(os.environ["TESSARD_BUILD_DIR"]) as machine:
        machine.prepare_instance()
        machine.start_daemon()
        service = Service(machine)
        service.tool("setup")
        machine.run("install", "-d", "-o", "84", "-g", "84", "-m", "0755", "/run/jabberd_notification", "/var/lib/values")
        yield service


def assertLoads(service, values):
    """Every component that the master file lists loads the file that it lists."""
    machine = service.machine
    database = values.get("jabberdDatabasePath")
    if database:
        machine.run("install", "-d", "-o", "84", "-m", "0700", database.rpartition("/")[0])
    listed = components_of(machine.read(f"{CONFIGURATION}/jabberd.cfg"))
    answer = machine.run("python3", "-c", LOADER, input=json.dumps(listed))
    assert [words for words in json.loads(answer.stdout) if words] == []
    return len(listed)


def assertReadsBack(service, values):
    settings = service.post({"command": "readSettings"})["configuration"]
    for key in (*PATHS, "jabberdDatabasePath"):
        assert settings[key] == values[key], key
    assert settings["jabberdClientPortTLS"] == values["jabberdClientPortTLS"]
    assert settings["jabberdClientPortSSL"] == int(values["jabberdClientPortSSL"])
    assert settings["hosts"] == service.values("c2s.local.id") and "" not in settings["hosts"]
    assert settings["s2sAllowedDomains"] == service.values("s2s.security.whitelist_domain") or not settings["s2sAllowedDomains"]


def test_what_is_accepted_loads_in_the_real_components_and_reads_back(served):
    report(f"seed {SEED} (TESSARD_SEED={SEED} repeats it)")
    chance, begin, loads = random.Random(SEED), time.monotonic(), assertLoads(served, {})
    for number in range(ROUNDS):
        values = bearable(chance)
        answer = served.post({"command": "writeSettings", "configuration": values}, path="/v1/plugins/notification?with=log")
        told = (SEED, number, values, answer["log"])
        assert answer["answer"].get("writeStatus") == 0 and "error" not in answer["answer"], told
        # A key file that cannot even be looked for is told, and written as any other that is not there.
        errors = [line for line in answer["log"] if line["level"] == "error"]
        assert all(line["message"].startswith("keywarden error: ") for line in errors), told
        loads += assertLoads(served, values)
        assertReadsBack(served, values)
    report(f"{ROUNDS} writes of every key, {loads} loads of components, in {time.monotonic() - begin:.0f} s")


def test_what_jabberd2_cannot_bear_is_refused_before_anything_is_written(served):
    report(f"seed {SEED} (TESSARD_SEED={SEED} repeats it)")
    chance, before, keys = random.Random(SEED), served.configuration_files(), set()
    chances = size(short=120, full=3000)
    for number in range(chances):
        key, value = unbearable(chance)
        values = {**bearable(chance), key: value}
        if key == "hosts":
            values.pop("hostsCommaDelimitedString", None)
        answer = served.post({"command": "writeSettings", "configuration": values}, path="/v1/plugins/notification?with=log")
        told = (SEED, number, key, value, answer)
        assert answer["answer"].get("error") == "INVALID_ARG_ERR", told
        errors = [line["message"] for line in answer["log"] if line["level"] == "error"]
        assert len(errors) == 1 and ("host" in errors[0] if key.startswith("hosts") else f'"{key}"' in errors[0]), told
        assert served.configuration_files() == before, told
        keys.add(key)
    report(f"{chances} writes with a value that cannot be borne, of {len(keys)} keys, all refused")
    assert SANITIZED or len(keys) >= 10


def test_router_passwords_as_they_are_drawn_load(served):
    machine, drawn = served.machine, set()
    for _ in range(size(short=3, full=60)):
        machine.run("sh", "-c", f"rm -rf {CONFIGURATION} && /usr/libexec/tessardd/prepare-instance && "
                                "rm /private/var/jabberd/sqlite/jabberd2_notification.db")
        assert served.tool("setup").returncode == 0
        drawn.add(served.router_password())
        assertLoads(served, {})
    report(f"{len(drawn)} passwords of the router")
    assert len(drawn) == size(short=3, full=60)


def test_pass_phrases_that_are_kept_open_the_key_in_the_real_component(served):
    chance, machine = random.Random(SEED), served.machine
    report(f"seed {SEED} (TESSARD_SEED={SEED} repeats it)")
    pieces = [piece for piece in PIECES if "\n" not in piece and "\r" not in piece]
    for number in range(size(short=3, full=60)):
        phrase = textOf(chance, pieces) + chance.choice(["x", " ", "ü", "'"]) * 4
        make_certificate(machine, ["a.example.test"], phrase)
        before = len(machine.system_log())
        served.post({"command": "writeSettings",
                     "configuration": {"hosts": ["a.example.test"], "sslKeyFile": KEY_FILE, "sslCAFile": CA_FILE}})
        assert served.values("c2s.local.private_key_password") == [phrase], (SEED, number)
        assertLoads(served, {})
        assert "failed to load" not in machine.system_log()[before:], (SEED, number, phrase)
    # Had one of them not opened the key, this is what would have been told.
    wrong, changed = re.subn(r"private-key-password=('[^']*'|\"[^\"]*\")", "private-key-password='wrong'",
                             machine.read(f"{CONFIGURATION}/c2s.xml"))
    assert changed == 1
    machine.write(f"{CONFIGURATION}/c2s.xml", wrong, 0o600, (84, 0))
    before = len(machine.system_log())
    assertLoads(served, {})
    assert "failed to load" in machine.system_log()[before:]
    for phrase in EXPANDED[:7]:
        with pytest.raises(MachineError, match="would be replaced"):
            make_certificate(machine, ["a.example.test"], "of the file " + phrase)
