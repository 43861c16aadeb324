"""Who may log in to the private jabberd: accounts of the machine, over TLS, as the machine knows them at the moment."""

import base64
import concurrent.futures
import contextlib
import json
import os
import signal
import stat
import subprocess
import time

import pytest

from certificates import CA_FILE, PUBLIC_CA_FILE, make_certificate, serve_over_tls
from jabberd import Jabberd, mechanisms
from private_machine import CONFIGURATION, PrivateMachine, add_account, set_password, wait_until
from service import Service
from watch import watching

DOMAINS = ["a.example.test", "b.example.test"]
SERVICE_USER = "com.velto.notificationuser"
PROGRAM = "/usr/libexec/tessardd/jabberd_authenticator"
SASLAUTHD = "/run/service/tessard-saslauthd"
SOCKET = "/run/tessard-saslauthd/mux"
PASSWORD = "correct horse: battery \\ 'staple' \"ä\""
# The longest that passes through c2s and saslauthd.
LONGEST = 255
WRONG_USE = 64

# Logs in with slixmpp, password on standard input, and says as whom, or what is in the way.
_LOGIN = """
import sys
import slixmpp
jid, authorities = sys.argv[1:]
class Client(slixmpp.ClientXMPP):
    def __init__(self):
        super().__init__(jid, sys.stdin.read())
        self.ca_certs = authorities
        for event, word in (("failed_all_auth", "refused"), ("no_auth", "refused"), ("ssl_invalid_chain", "not trusted"),
                            ("connection_failed", "no connection")):
            self.add_event_handler(event, lambda _, word=word: self.end(word))
        self.add_event_handler("session_start", self.begin)
        self.said = False
        self.add_event_handler("disconnected", lambda reason: self.said or self.end(f"disconnected: {reason}"))
    async def begin(self, _):
        self.send_presence()
        await self.get_roster()
        self.end("here as " + self.boundjid.bare)
    def end(self, word):
        self.said = True
        print(word, flush=True)
        self.abort()
client = Client()
client.connect(("127.0.0.1", 5218))
client.process(forever=False)
"""

# Sends each of the messages of standard input over a connection of its own, with TLS when a file of authorities is
# given, and says what came back: the name of the element.
_RAW = """
import json, re, socket, ssl, sys
domain, *authorities = sys.argv[1:]
def until(link, *ends):
    text = ""
    while not any(end in text for end in ends):
        try:
            piece = link.recv(65536).decode()
        except TimeoutError:
            return "<silence/>"
        if not piece:
            return text + "<gone/>"
        text += piece
    return text
def answer(message):
    with socket.create_connection(("127.0.0.1", 5218), timeout=60 if authorities else 3) as link:
        header = ("<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
                  "version='1.0' to='%s'>" % domain).encode()
        link.sendall(header)
        until(link, "</stream:features>")
        if authorities:
            link.sendall(b"<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>")
            until(link, "<proceed")
            link = ssl.create_default_context(cafile=authorities[0]).wrap_socket(link, server_hostname=domain)
            link.sendall(header)
            until(link, "</stream:features>")
        link.sendall(message.encode())
        said = re.search("<([a-z]+)", until(link, "/>", "</")).group(1)
        link.close()
        return said
def answer_or_end(message):
    try:
        return answer(message)
    except ConnectionRefusedError:
        return "closed"
    except (ConnectionError, ssl.SSLEOFError):
        return "gone"
for message in json.load(sys.stdin):
    said = [answer_or_end(message)]
    while said[-1] == "gone" and len(said) < 5:
        said.append(answer_or_end(message))
    print(said[-1], flush=True)
"""


def login(machine, name, password=PASSWORD, domain=DOMAINS[0], authorities=PUBLIC_CA_FILE, script=_LOGIN):
    """What a client is told that logs in. jabberd2's c2s sometimes ends the session of a client that has left on the
    connection of the next one that got its descriptor: that one comes again, as people's clients do."""
    for _ in range(5):
        said = machine.run("python3", "-c", script, f"{name}@{domain}", authorities, user=65534,
                           input=password, timeout=60).stdout.splitlines()
        if said[:1] != ["disconnected: End of stream"]:
            break
    return said[0] if said else "nothing"


def here(name, domain=DOMAINS[0]):
    return f"here as {name}@{domain}"


def plain(authorization, name, password):
    """The SASL message of a client that says what it likes."""
    parts = [each if isinstance(each, bytes) else each.encode() for each in (authorization, name, password)]
    content = base64.b64encode(b"\0".join(parts)).decode()
    return f"<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>{content}</auth>"


def send(machine, *messages, tls=True):
    """The name of the element that answers each of the messages; "closed" where nobody listens (c2s starts its
    authenticator a moment before it does), "gone" where the connection ends, again and again (see `login`)."""
    authorities = [PUBLIC_CA_FILE] if tls else []
    return machine.run("python3", "-c", _RAW, DOMAINS[0], *authorities, user=65534, input=json.dumps(messages),
                       timeout=120).stdout.split()


def attempt(machine, name, password=PASSWORD, authorization=""):
    [answer] = send(machine, plain(authorization, name, password))
    return answer


def says(machine):
    return [line.split(": ", 1)[1] for line in machine.system_log().splitlines()
            if "jabberd_notification/authenticator[" in line]


def pid_of(machine, *words):
    found = machine.run("pgrep", *words, check=False).stdout.split()
    return int(found[0]) if found else None


def authenticator(machine):
    return pid_of(machine, "-u", "84", "-f", f"^{PROGRAM}$")


def c2s(machine):
    return pid_of(machine, "-u", "84", "-x", "jabberd2-c2s")


@pytest.fixture(scope="module")
def shared():
    """One machine for the tests that leave it as they find it: two domains, and ann, who may log in."""
    with PrivateMachine(os.environ["TESSARD_BUILD_DIR"]) as machine:
        machine.prepare_instance()
        machine.start_daemon()
        service = Service(machine)
        service.tool("setup")
        serve_over_tls(service, DOMAINS)
        service.tool("start", check=False)
        yield service


@pytest.fixture
def running(shared):
    machine = shared.machine
    add_account(machine, "ann", PASSWORD)
    before = c2s(machine), authenticator(machine)
    yield machine
    # Whatever clients did: the processes are the same and still let ann in.
    assert (c2s(machine), authenticator(machine)) == before
    assert attempt(machine, "ann") == "success"


# --- who may ---------------------------------------------------------------------------------------------------------


def test_an_account_of_the_machine_logs_in_to_every_domain(running):
    for domain in DOMAINS:
        assert login(running, "ann", domain=domain) == here("ann", domain)


def test_the_service_user_logs_in_with_its_odd_home_and_shell(running):
    # As it is made: its number is below those of people.
    running.write("/etc/passwd", running.read("/etc/passwd")
                  + f"{SERVICE_USER}:x:250:20:Notification User:99:/usr/bin/false\n")
    running.write("/etc/shadow", running.read("/etc/shadow") + f"{SERVICE_USER}:!:20000:0:99999:7:::\n", 0o640, (0, 42))
    set_password(running, SERVICE_USER, "aZ09")
    assert login(running, SERVICE_USER, "aZ09") == here(SERVICE_USER)
    assert login(running, SERVICE_USER, "aZ08") == "refused"


def test_names_with_dots_dashes_and_digits_log_in(running):
    for name in ("first.last", "_agent-7", "x1.y-2_z"):
        add_account(running, name, PASSWORD, "--badname")
        assert login(running, name) == here(name)


def test_the_longest_password_and_one_of_all_kinds_of_bytes_are_taken_exactly(running):
    for password in ("p" * LONGEST, "".join(map(chr, range(0x21, 0x7F))), "  spaces  ", "日本語 ключ"):
        add_account(running, "carol", password)
        assert attempt(running, "carol", password) == "success"
        assert attempt(running, "carol", password + "x") == "failure"
        assert attempt(running, "carol", password[:-1]) == "failure"


def test_a_wrong_password_and_an_unknown_name_are_refused_alike(running):
    add_account(running, "dave", PASSWORD)
    wrong = login(running, "dave", "wrong"), login(running, "nosuchuser"), login(running, "dave", " " + PASSWORD)
    assert wrong == ("refused", "refused", "refused")


def test_root_and_accounts_of_the_system_are_refused_whatever_their_password(running):
    before = running.read("/etc/shadow")
    for name in ("root", "jabberd", "nobody"):
        set_password(running, name, PASSWORD)
        assert login(running, name) == "refused"
        # saslauthd knows the password; it refuses root by itself.
        asked = running.run("testsaslauthd", "-f", SOCKET, "-s", "jabberd", "-u", name, "-p", PASSWORD, check=False)
        assert (asked.returncode == 0) == (name != "root")
    running.write("/etc/shadow", before, 0o640, (0, 42))
    assert says(running)[-3:] == ['A login of the account "root" is refused: it is root.',
                                  'A login of the account "jabberd" is refused: it is an account of the system.',
                                  'A login of the account "nobody" is refused: it is an account of the system.']


def test_an_access_group_lets_its_members_in_and_nobody_else(running):
    before = running.read("/etc/group")
    add_account(running, "erin", PASSWORD)
    add_account(running, "frank", PASSWORD)
    try:
        running.run("groupadd", "com.velto.access_chat")
        running.run("usermod", "-a", "-G", "com.velto.access_chat", "erin")
        assert [attempt(running, name) for name in ("erin", "frank", "ann")] == ["success", "failure", "failure"]
        # The group for all services comes first.
        running.run("groupadd", "com.velto.access_all_services")
        running.run("usermod", "-g", "com.velto.access_all_services", "frank")
        assert [attempt(running, name) for name in ("erin", "frank", "ann")] == ["failure", "success", "failure"]
    finally:
        running.write("/etc/group", before)


# --- what changes counts at once -------------------------------------------------------------------------------------


def test_a_changed_password_counts_at_once(running):
    add_account(running, "grace", "first")
    assert attempt(running, "grace", "first") == "success"
    set_password(running, "grace", "second")
    assert attempt(running, "grace", "first") == "failure"
    assert attempt(running, "grace", "second") == "success"


def test_locked_expired_and_deleted_accounts_are_refused_at_once(running):
    add_account(running, "heidi", PASSWORD)
    for close, reopen in ((("usermod", "--lock", "heidi"), ("usermod", "--unlock", "heidi")),
                          (("usermod", "--expiredate", "2020-01-01", "heidi"), ("usermod", "--expiredate", "", "heidi")),
                          (("chage", "--lastday", "0", "heidi"), ("chage", "--lastday", "20000", "heidi"))):
        assert attempt(running, "heidi") == "success"
        running.run(*close)
        assert attempt(running, "heidi") == "failure", close
        running.run(*reopen)
    assert attempt(running, "heidi") == "success"
    running.run("userdel", "heidi")
    assert attempt(running, "heidi") == "failure"


def test_an_account_without_a_password_is_refused(running):
    running.run("useradd", "--no-create-home", "ivan")
    for word in ("!", "*", ""):
        lines = [line if not line.startswith("ivan:") else ":".join(["ivan", word, *line.split(":")[2:]])
                 for line in running.read("/etc/shadow").splitlines()]
        running.write("/etc/shadow", "\n".join(lines) + "\n", 0o640, (0, 42))
        for password in ("", "!", "*", "x"):
            assert attempt(running, "ivan", password) == "failure"


# --- how -------------------------------------------------------------------------------------------------------------


def test_nobody_logs_in_without_tls(running):
    assert mechanisms(Jabberd(running).greet(DOMAINS[0])) == set()
    query = ("<iq type='set' id='1'><query xmlns='jabber:iq:auth'><username>ann</username><password>%s</password>"
             "<resource>r</resource></query></iq>")
    asked = running.system_log().count("[user=ann]")
    answers = send(running, plain("", "ann", PASSWORD), query % "p", tls=False)
    assert len(answers) == 2 and "success" not in answers
    assert running.system_log().count("[user=ann]") == asked


def test_nobody_registers(running):
    register = ("<iq type='set' id='r'><query xmlns='jabber:iq:register'><username>judy</username>"
                "<password>p</password></query></iq>")
    assert send(running, register) == ["iq"]
    assert running.run("getent", "passwd", "judy", check=False).returncode == 2
    assert attempt(running, "judy", "p") == "failure"


@pytest.mark.parametrize("authorization", ["root", "bob@a.example.test", "bob", "ann@b.example.test"])
def test_a_user_is_nobody_else_whatever_address_it_asks_for(running, authorization):
    """The client gets its own address, or none."""
    add_account(running, "bob", PASSWORD + "!")
    script = f"""
import slixmpp.util.sasl.mechanisms
slixmpp.util.sasl.mechanisms.PLAIN.process = (
    lambda self, challenge=b"": {authorization.encode()!r} + b"\\0ann\\0" + self.credentials["password"])
""" + _LOGIN
    assert login(running, "ann", script=script) in (here("ann"), "refused")


def test_hostile_names_and_passwords_are_refused_and_get_one_answer_each(running):
    hostile = ["a b", "ann ", " ann", "ann:x", "ann@a.example.test", "ann/r", "../ann", "Ann", "ANN", "änn", "ann$", "-ann",
               "", "n" * 200, "n" * 990, "n" * 1100, "n" * 5000, b"ann\x00", b"\xff\xfe", "ann\nFREE", "ann\r",
               "x\nCHECK-PASSWORD ann " + base64.b64encode(PASSWORD.encode()).decode() + " d", "ann\t", "\x7f", "％00"]
    answers = send(running, *(plain("", name, PASSWORD) for name in hostile))
    assert answers == ["failure"] * len(hostile)
    # Had one of them had two answers, this one would get the second.
    assert attempt(running, "ann", "wrong") == "failure"
    assert send(running, *(plain("", "ann", password) for password in
                           ("", "p" * 256, "p" * 700, "p" * 5000, b"\xff", PASSWORD + "\n", PASSWORD + "\0"))) == ["failure"] * 7


def test_hostile_names_are_refused_in_the_old_way_of_logging_in_too(running):
    for name in ("a b", "ann\nFREE", "Ann ", "../ann", "n" * 1100, "root"):
        name = name.replace("\n", "&#10;")
        query = (f"<iq type='set' id='1'><query xmlns='jabber:iq:auth'><username>{name}</username>"
                 f"<password>x</password><resource>r</resource></query></iq>")
        assert send(running, query) == ["iq"]


def test_many_clients_log_in_at_once(running):
    names = [f"user{number}" for number in range(8)]
    for name in names:
        add_account(running, name, PASSWORD)
    with concurrent.futures.ThreadPoolExecutor(len(names)) as pool:
        wrong = pool.submit(attempt, running, "ann", "wrong")
        assert list(pool.map(lambda name: login(running, name), names)) == [here(name) for name in names]
        assert wrong.result() == "failure"


# --- rights and secrets ----------------------------------------------------------------------------------------------


def test_the_program_has_the_rights_of_the_components_and_reads_no_stored_password(running):
    pid = authenticator(running)
    status = dict(line.split(":", 1) for line in running.run("cat", f"/proc/{pid}/status").stdout.splitlines())
    assert status["Uid"].split() == status["Gid"].split() == ["84"] * 4
    assert (status["Groups"].split(), int(status["CapEff"], 16), int(status["CapPrm"], 16)) == ([], 0, 0)
    for path in ("/etc/shadow", "/etc/gshadow"):
        if running.outside(path).exists():
            assert running.run("cat", path, user=84, check=False).returncode != 0
    # None of what c2s has open, and no image of it on disk or for others of its account.
    root = running.run("sh", "-c", f"ls -l /proc/{pid}/fd", check=False)
    assert root.returncode != 0 or len(root.stdout.splitlines()) == 1 + 3
    assert running.run("cat", f"/proc/{pid}/environ", user=84, check=False).returncode != 0
    limits = running.run("cat", f"/proc/{pid}/limits").stdout
    assert next(line.split()[4:6] for line in limits.splitlines() if line.startswith("Max core")) == ["0", "0"]


def test_the_components_alone_reach_saslauthd(running):
    directory = running.outside(os.path.dirname(SOCKET)).stat()
    assert (directory.st_uid, directory.st_gid, stat.S_IMODE(directory.st_mode)) == (0, 84, 0o710)
    ask = ("testsaslauthd", "-f", SOCKET, "-s", "jabberd", "-u", "ann", "-p", PASSWORD)
    assert running.run(*ask, user=84).stdout == '0: OK "Success."\n'
    refused = running.run(*ask, user=1001, check=False)
    assert refused.returncode != 0 and "Permission denied" in refused.stderr


def test_a_password_is_in_no_argument_list_environment_log_or_file(running):
    canary = "canary-zq7-of-the-login"
    add_account(running, "kate", canary)
    with watching(running) as seen_so_far:
        assert login(running, "kate", canary) == here("kate")
        assert login(running, "kate", canary + "!") == "refused"
        assert attempt(running, canary, canary) == "failure"  # in the wrong field
        assert attempt(running, "kate " + canary, canary) == "failure"
        seen = seen_so_far()
    assert b"jabberd2-c2s" in seen and b"saslauthd" in seen and PROGRAM.encode() in seen
    encoded = base64.b64encode(canary.encode())
    log = running.system_log()
    assert 'auth success: [user=kate] [service=jabberd]' in log
    found = running.run("grep", "-rlaF", "-e", canary, "-e", encoded.decode(), "/etc", "/var", "/run/jabberd_notification",
                        "/run/service", "/Library", "/tmp", check=False).stdout
    for secret in (canary.encode(), encoded):
        assert secret not in seen
        assert secret not in log.encode()
    assert found == ""
    assert canary not in (running.directory / "boot.log").read_text()


# --- saslauthd comes and goes ----------------------------------------------------------------------------------------


def control_saslauthd(machine, up):
    wait, order = ("-wu", "-u") if up else ("-wd", "-d")
    machine.run("s6-svc", wait, "-T", "10000", order, SASLAUTHD)
    if up:
        wait_until(lambda: machine.run("testsaslauthd", "-f", SOCKET, "-u", "x", "-p", "x", check=False).stdout,
                   "saslauthd")


def test_without_saslauthd_logins_are_refused_with_a_line_each_until_it_is_back(running):
    control_saslauthd(running, up=False)
    before = len(says(running))
    try:
        assert attempt(running, "ann") == "failure"
        assert login(running, "ann") == "refused"
    finally:
        control_saslauthd(running, up=True)
    lines = says(running)[before:]
    assert set(lines) == {'A login of the account "ann" is refused, as saslauthd cannot be asked: No such file or directory'}
    assert login(running, "ann") == here("ann")
    assert says(running)[-1] == "saslauthd answers again."


def test_a_saslauthd_that_is_killed_comes_back(running):
    old = pid_of(running, "-o", "-x", "saslauthd")
    running.run("kill", "-KILL", old)
    wait_until(lambda: attempt(running, "ann") == "success", "the next saslauthd")
    assert pid_of(running, "-o", "-x", "saslauthd") != old


def test_a_saslauthd_that_does_not_answer_is_given_up(running):
    pid = pid_of(running, "-o", "-x", "saslauthd")
    running.run("kill", f"-{int(signal.SIGSTOP)}", pid)
    try:
        begin = time.monotonic()
        assert attempt(running, "ann") == "failure"
        assert time.monotonic() - begin < 60
        assert says(running)[-1] == 'A login of the account "ann" is refused, as saslauthd cannot be asked: Connection timed out'
    finally:
        running.run("kill", f"-{int(signal.SIGCONT)}", pid)
    wait_until(lambda: attempt(running, "ann") == "success", "saslauthd's answers")


# --- certificates ----------------------------------------------------------------------------------------------------


def test_a_client_that_does_not_trust_the_certificate_says_no_password(running):
    running.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-days", "2",
                "-subj", "/CN=another", "-keyout", "/dev/null", "-out", "/etc/another-authority.pem")
    asked = running.system_log().count("auth success: [user=ann]")
    assert login(running, "ann", authorities="/etc/another-authority.pem") == "not trusted"
    assert running.system_log().count("auth success: [user=ann]") == asked


# --- life ------------------------------------------------------------------------------------------------------------


def test_the_program_ends_with_c2s_however_that_ends(service):
    machine = service.machine
    serve_over_tls(service, DOMAINS[:1])
    service.tool("start", check=False)
    add_account(machine, "ann", PASSWORD)
    first = authenticator(machine)
    machine.run("kill", "-KILL", c2s(machine))
    wait_until(lambda: authenticator(machine) not in (None, first), "the next program")
    wait_until(lambda: machine.run("pgrep", "-c", "-f", f"^{PROGRAM}$", check=False).stdout == "1\n", "the end of the first")
    wait_until(lambda: attempt(machine, "ann") == "success", "the next c2s")
    service.tool("stop")
    wait_until(lambda: authenticator(machine) is None, "the end of the program")


def test_the_second_domain_has_a_certificate_of_its_own(service):
    machine = service.machine
    make_certificate(machine, DOMAINS[1:])
    for name in ("server.pem", "ca.pem"):
        machine.run("mv", f"{CONFIGURATION}/{name}", f"{CONFIGURATION}/second-{name}")
    machine.run("mv", PUBLIC_CA_FILE, "/etc/second-authorities.pem")
    serve_over_tls(service, DOMAINS[:1])
    service.set(f"hostsCommaDelimitedString={','.join(DOMAINS)}", f"sslKeyFile={CONFIGURATION}/server.pem", f"sslCAFile={CA_FILE}")
    text = machine.read(f"{CONFIGURATION}/c2s.xml")
    first, second = text.rsplit("<id ", 1)
    machine.write(f"{CONFIGURATION}/c2s.xml", first + "<id " + second.replace(f"{CONFIGURATION}/server.pem", f"{CONFIGURATION}/second-server.pem", 1)
                  .replace(CA_FILE, f"{CONFIGURATION}/second-ca.pem", 1), 0o600, (84, 0))
    service.tool("start", check=False)
    add_account(machine, "ann", PASSWORD)
    both = {domain: file for domain, file in zip(DOMAINS, (PUBLIC_CA_FILE, "/etc/second-authorities.pem"), strict=True)}
    for domain, file in both.items():
        assert login(machine, "ann", domain=domain, authorities=file) == here("ann", domain)
        assert all(login(machine, "ann", domain=domain, authorities=other) == "not trusted"
                   for other in both.values() if other != file)


# --- the program by itself -------------------------------------------------------------------------------------------


@contextlib.contextmanager
def started(machine, *words, user=84):
    with machine.popen(PROGRAM, *words, user=user, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        assert program.stdout.readline() == b"OK USER-EXISTS CHECK-PASSWORD FREE\n"
        yield program
        program.stdin.close()
        assert program.stdout.read() == b""


def ask(program, question):
    program.stdin.write(question)
    program.stdin.flush()
    return program.stdout.readline()


def check(name, password):
    return f"CHECK-PASSWORD {name} {base64.b64encode(password.encode()).decode()} push.example.test\n".encode()


def test_the_program_asks_the_real_saslauthd(machine):
    add_account(machine, "ann", PASSWORD)
    with started(machine) as program:
        assert ask(program, check("ann", PASSWORD)) == b"OK\n"
        assert ask(program, check("ann", "wrong")) == b"NO\n"
        assert ask(program, b"USER-EXISTS ann push.example.test\n") == b"OK\n"
        assert ask(program, b"USER-EXISTS nosuchuser push.example.test\n") == b"NO\n"
    with started(machine, "--socket", "/run/nowhere") as program:
        assert ask(program, check("ann", PASSWORD)) == b"NO\n"
    assert says(machine)[-1].endswith("No such file or directory")


def test_the_program_explains_itself_and_refuses_what_it_does_not_know(machine):
    shown = machine.run(PROGRAM, "--help").stdout
    assert shown.startswith("usage: jabberd_authenticator") and "com.velto.access_chat" in shown
    assert machine.run(PROGRAM, "--version").stdout.startswith("jabberd_authenticator ")
    for words in (["--nonsense"], ["--socket"], ["--socket", "relative"], ["--socket", "/x", "more"]):
        result = machine.run(PROGRAM, *words, check=False)
        assert (result.returncode, result.stdout) == (WRONG_USE, "")
