"""Clients that are large, slow, gone, too many or not allowed."""

import json
import os
import subprocess
import sys
import threading
import time

import pytest

from hosttools import (
    NOBODY,
    Answer,
    RunningRequest,
    actingAs,
    buildDirectory,
    openConnections,
    parseRaw,
    readAll,
    shortName,
    targets,
    waitUntil,
)

MEBIBYTE = 1024 * 1024
HEAD = b"POST /v1/plugins/notification HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"


def sendIgnoringEnd(connection, data):
    """Sends what the other side still takes. False when it took not everything."""
    try:
        connection.sendall(data)
        return True
    except (BrokenPipeError, ConnectionResetError):
        return False


def chunk(data):
    return b"%x\r\n%s\r\n" % (len(data), data)


def test_a_body_just_small_enough_is_served(daemon):
    frame = len(json.dumps({"command": "echo", "text": ""}))
    answer = daemon.echo(text="x" * (MEBIBYTE - frame))
    assert answer.status == 200
    assert len(answer.json["text"]) == MEBIBYTE - frame


def test_a_body_that_announces_too_much_is_refused_before_it_is_sent(daemon):
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % (2 * MEBIBYTE))
        status, content = parseRaw(readAll(connection))
    assert (status, content["error"]) == (413, "too-large")
    daemon.assertServes()


@pytest.mark.parametrize("length", [b"99999999999999999999999", b"-1", b"many"])
def test_a_length_that_is_none_is_refused(daemon, length):
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Content-Length: " + length + b"\r\n\r\n")
        status = int(readAll(connection).split()[1])
    assert status in (400, 413)
    daemon.assertServes()


def test_a_body_of_2_mib_that_is_sent_nevertheless_is_refused(daemon):
    with daemon.raw() as connection:
        sendIgnoringEnd(
            connection, HEAD + b"Content-Length: %d\r\n\r\n" % (2 * MEBIBYTE) + b"x" * 2 * MEBIBYTE
        )
        status, content = parseRaw(readAll(connection))
    assert (status, content["error"]) == (413, "too-large")
    daemon.assertServes()


def test_a_chunked_body_of_2_mib_is_refused(daemon):
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Transfer-Encoding: chunked\r\n\r\n")
        for _ in range(32):
            if not sendIgnoringEnd(connection, chunk(b" " * 65536)):
                break
        status, content = parseRaw(readAll(connection))
    assert (status, content["error"]) == (413, "too-large")
    daemon.assertServes()


def test_a_chunked_request_is_served(daemon):
    body = json.dumps({"command": "echo", "a": "b"}).encode()
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n")
        connection.sendall(chunk(body[:7]) + chunk(body[7:]) + b"0\r\n\r\n")
        status, content = parseRaw(readAll(connection))
    assert (status, content["a"]) == (200, "b")


def test_a_chunked_body_without_end_is_refused_as_soon_as_it_is_too_large(daemon):
    taken = 0
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Transfer-Encoding: chunked\r\n\r\n")
        while sendIgnoringEnd(connection, chunk(b" " * 65536)):
            taken += 65536
            assert taken < 64 * MEBIBYTE
        status, content = parseRaw(readAll(connection))
    assert (status, content["error"]) == (413, "too-large")
    daemon.assertServes()


@pytest.mark.parametrize(
    "beginning",
    [
        HEAD + b"Content-Length: 100\r\n\r\n{",
        HEAD + b"Transfer-Encoding: chunked\r\n\r\n5\r\n{    \r\n",
        HEAD + b"Content-Le",
        b"POST /v1/plug",
        b"",
    ],
    ids=["in a body", "in a chunked body", "in a header", "in the first line", "at once"],
)
def test_a_client_that_goes_silent_is_sent_away(makeDaemon, beginning):
    daemon = makeDaemon("--request-seconds", "1")
    with daemon.raw() as connection:
        connection.sendall(beginning)
        daemon.assertServes()  # others are served meanwhile
        status, content = parseRaw(readAll(connection))
    assert (status, content["error"]) == (408, "timed-out")
    daemon.assertServes()


@pytest.mark.parametrize(
    "beginning",
    [HEAD + b"Content-Length: 1000000\r\n\r\n", HEAD + b"X-Long: "],
    ids=["a body", "a header"],
)
def test_a_client_that_sends_byte_by_byte_is_sent_away(makeDaemon, beginning):
    daemon = makeDaemon("--request-seconds", "1")
    with daemon.raw() as connection:
        connection.sendall(beginning)
        connection.settimeout(0.05)
        received = b""
        ended = False
        while not ended:
            sendIgnoringEnd(connection, b"x")
            try:
                part = connection.recv(65536)
                received += part
                ended = not part
            except TimeoutError:
                pass
            except ConnectionResetError:
                ended = True
    status, content = parseRaw(received)
    assert (status, content["error"]) == (408, "timed-out")
    daemon.assertServes()


def test_a_header_without_end_is_refused(daemon):
    with daemon.raw() as connection:
        connection.sendall(HEAD)
        while sendIgnoringEnd(connection, b"X-More: " + b"y" * 1000 + b"\r\n"):
            pass
        status = int(readAll(connection).split()[1])
    assert status == 431
    daemon.assertServes()


def test_what_is_no_http_is_refused(daemon):
    with daemon.raw() as connection:
        connection.sendall(b"hello\r\n\r\n")
        received = readAll(connection)
    assert received == b"" or b" 400 " in received.splitlines()[0]
    daemon.assertServes()


def test_an_idle_connection_is_closed_without_a_word(makeDaemon):
    daemon = makeDaemon("--request-seconds", "1")
    connection = daemon.connection()
    assert daemon.send("GET", "/v1/health", connection=connection).status == 200
    assert readAll(connection.sock) == b""
    daemon.assertServes()


def test_an_answer_that_nobody_takes_ends_with_its_time(makeDaemon):
    daemon = makeDaemon("--request-seconds", "1")
    body = json.dumps({"command": "echo", "text": "x" * 1_000_000}).encode()
    with daemon.raw() as connection:
        connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % len(body) + body)
        waitUntil(lambda: openConnections(daemon) == 0, "the connection is closed")
        assert len(readAll(connection)) < len(body)
    daemon.assertServes()


def test_a_client_that_leaves_in_the_middle_of_its_body_is_no_problem(daemon):
    for _ in range(10):
        with daemon.raw() as connection:
            connection.sendall(HEAD + b"Content-Length: 100\r\n\r\n{")
    waitUntil(lambda: openConnections(daemon) == 0, "the connections are closed")
    daemon.assertServes()


def test_a_client_that_leaves_before_its_answer_is_no_problem(daemon):
    running = RunningRequest(daemon)
    running.leave()
    running.until.touch()
    daemon.assertServes()
    waitUntil(lambda: openConnections(daemon) == 0, "the connections are closed")


def test_a_waiting_request_whose_client_has_left_is_not_begun(daemon):
    running = RunningRequest(daemon)
    waiting = daemon.connection()
    request = json.dumps({"command": "wait", "begun": "/second", "until": "/second"})
    waiting.request("POST", "/v1/plugins/notification", request, {"Content-Type": "application/json"})
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the second request waits")
    waiting.close()
    assert running.finish().status == 200
    daemon.assertServes()
    assert not (daemon.root / "second").exists()


def test_a_second_client_waits_for_the_first_and_health_does_not(daemon):
    running = RunningRequest(daemon)
    second = daemon.connection()
    second.request(
        "POST",
        "/v1/plugins/notification",
        json.dumps({"command": "echo", "second": True}),
        {"Content-Type": "application/json"},
    )
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the second request waits")
    health = daemon.health()
    assert health["running"]["request"] == "wait"
    assert health["running"]["seconds"] >= 0
    assert running.finish().json == {"waited": True}
    assert Answer(second.getresponse()).json["second"] is True


def test_malformed_requests_are_answered_while_another_runs(daemon):
    running = RunningRequest(daemon)
    assert daemon.post(b"{").status == 400
    assert daemon.post({}, path="/nowhere").status == 404
    assert running.finish().status == 200


def test_a_request_that_waited_too_long_is_told_that_the_daemon_is_busy(makeDaemon):
    daemon = makeDaemon("--queue-seconds", "1")
    running = RunningRequest(daemon)
    answer = daemon.echo()
    assert (answer.status, answer.error) == (503, "busy")
    tool = daemon.tool("state")
    assert tool.returncode == 75
    assert running.finish().json == {"waited": True}
    daemon.assertServes()


def test_one_connection_serves_many_requests(daemon):
    connection = daemon.connection()
    for number in range(20):
        body = json.dumps({"command": "echo", "number": number})
        headers = {"Content_Type": "application/json"}
        answer = daemon.send("POST", "/v1/plugins/notification", body, connection, **headers)
        assert answer.json["number"] == number
        assert daemon.send("POST", "/v1/plugins/notification", "{", connection, **headers).status == 400
    assert openConnections(daemon) == 1


def test_requests_that_are_sent_ahead_are_answered_in_their_order(daemon):
    bodies = [json.dumps({"command": "echo", "number": number}).encode() for number in range(5)]
    with daemon.raw() as connection:
        for body in bodies[:-1]:
            connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % len(body) + body)
        connection.sendall(HEAD + b"Connection: close\r\nContent-Length: %d\r\n\r\n" % len(bodies[-1]))
        connection.sendall(bodies[-1])
        received = readAll(connection)
    assert [received.find(b'"number":%d' % number) > 0 for number in range(5)] == [True] * 5
    assert received.count(b"HTTP/1.1 200 OK") == 5


def test_a_hundred_connections_leave_no_descriptor_behind(daemon):
    daemon.assertServes()
    waitUntil(lambda: openConnections(daemon) == 0, "the first connection is closed")
    before = descriptors(daemon)
    for number in range(100):
        if number % 3 == 0:
            daemon.assertServes()
        elif number % 3 == 1:
            assert daemon.post(b"{").status == 400
        else:
            daemon.raw().close()
    waitUntil(lambda: descriptors(daemon) == before, "all descriptors are closed")


def test_clients_at_once_each_get_their_own_answer(daemon):
    failures = []

    def work(number):
        for turn in range(10):
            answer = daemon.echo(number=number, turn=turn, filler="x" * 5000)
            if answer.status != 200 or (answer.json["number"], answer.json["turn"]) != (number, turn):
                failures.append(answer.body)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(12)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def sendEcho(connection, **entries):
    """Sends a request, whose answer is not waited for."""
    content = json.dumps({"command": "echo", **entries})
    connection.request("POST", "/v1/plugins/notification", content, {"Content-Type": "application/json"})
    return connection


def asMember(daemon, user=NOBODY):
    """A connection of a member of the administrators' group."""
    with actingAs(user):
        connection = daemon.connection()
        connection.connect()
    return connection


def refusal(connection):
    """What a client is told that is not served: the id, after all headers are as they should be."""
    received = readAll(connection)
    status, content = parseRaw(received)
    assert status == 503 and b"\r\nRetry-After: 1\r\n" in received
    return content["error"]


def test_too_many_connections_are_refused_until_one_ends(makeDaemon):
    daemon = makeDaemon("--connections", "3")
    running = RunningRequest(daemon)
    waiting = [sendEcho(daemon.connection()) for _ in range(2)]
    with daemon.raw() as connection:
        assert refusal(connection) == "too-many-connections"
    assert running.finish().status == 200
    assert [waiter.getresponse().status for waiter in waiting] == [200, 200]
    waitUntil(lambda: tryEcho(daemon) == 200, "there is room again")


def test_the_connection_that_is_idle_for_the_longest_time_gives_way(makeDaemon):
    daemon = makeDaemon("--connections", "3")
    kept = [daemon.connection() for _ in range(3)]
    for connection in kept:
        assert daemon.send("GET", "/v1/health", connection=connection).status == 200
    # The first one has become the youngest.
    assert daemon.send("GET", "/v1/health", connection=kept[0]).status == 200
    daemon.assertServes()
    assert readAll(kept[1].sock) == b""
    for connection in (kept[0], kept[2]):
        assert daemon.send("GET", "/v1/health", connection=connection).status == 200


def test_a_silent_connection_gives_way_after_a_moment(makeDaemon):
    daemon = makeDaemon("--connections", "2")
    silent = [daemon.raw() for _ in range(2)]
    waitUntil(lambda: tryEcho(daemon) == 200, "the silent ones make room")
    assert parseRaw(readAll(silent[0]))[1]["error"] == "timed-out"


def test_one_user_cannot_take_all_connections(makeDaemon):
    daemon = makeDaemon("--admin-group", "games", "--connections", "8", "--user-connections", "3")
    running = RunningRequest(daemon, connection=asMember(daemon))
    waiting = [sendEcho(asMember(daemon)) for _ in range(2)]
    waitUntil(lambda: daemon.health()["waiting"] == 2, "the others wait")
    assert refusal(asMember(daemon).sock) == "too-many-connections"
    another = sendEcho(asMember(daemon, user=NOBODY - 1))
    assert running.finish().status == 200
    assert [waiter.getresponse().status for waiter in [*waiting, another]] == [200] * 3


def test_a_place_is_kept_for_root(makeDaemon):
    daemon = makeDaemon("--admin-group", "games", "--connections", "5", "--root-connections", "1")
    running = RunningRequest(daemon, connection=asMember(daemon))
    waiting = [sendEcho(asMember(daemon, user)) for user in range(1000, 1003)]
    own = daemon.connection()  # kept, as the place of one that ends is free only a moment later

    def waits():
        return daemon.send("GET", "/v1/health", connection=own).json["waiting"]

    waitUntil(lambda: waits() == 3, "the others wait")
    assert refusal(asMember(daemon, user=1003).sock) == "too-many-connections"
    assert waits() == 3
    assert running.finish().status == 200
    assert [waiter.getresponse().status for waiter in waiting] == [200] * 3


def test_users_whose_requests_wait_take_turns(makeDaemon):
    daemon = makeDaemon("--admin-group", "games")
    running = RunningRequest(daemon)
    held = [RunningRequest(daemon, f"member{number}", asMember(daemon), begins=False) for number in range(4)]
    waitUntil(lambda: daemon.health()["waiting"] == 4, "the members' requests wait")
    own = sendEcho(daemon.connection())
    waitUntil(lambda: daemon.health()["waiting"] == 5, "root's request waits")
    assert running.finish().status == 200
    held[0].finish()
    # Root's is answered before the last two, which came earlier.
    held[1].until.touch()
    assert Answer(own.getresponse()).status == 200
    assert not held[3].begun.exists()
    for request in held[1:]:
        assert request.finish().status == 200


def test_one_users_requests_may_take_only_so_much_memory(makeDaemon):
    daemon = makeDaemon("--admin-group", "games", "--user-mebibytes", "1")
    running = RunningRequest(daemon)
    text = "x" * 800_000
    first = sendEcho(asMember(daemon), text=text)
    waitUntil(lambda: daemon.health()["waiting"] == 1, "the first request waits")
    second = asMember(daemon).sock
    sendIgnoringEnd(second, HEAD + b"Content-Length: 800000\r\n\r\n" + text.encode())
    assert refusal(second) == "too-much-at-once"
    assert daemon.post(text.encode(), path="/v1/nowhere").status == 404  # root may
    assert running.finish().status == 200
    assert len(Answer(first.getresponse()).json["text"]) == len(text)


def test_a_body_of_too_many_values_is_refused(daemon):
    answer = daemon.post(b'{"command": "echo", "list": [' + b"0," * 40_000 + b"0]}")
    assert (answer.status, answer.error) == (400, "malformed-body")
    assert "more than 32768 values" in answer.json["message"]
    assert daemon.post({"command": "echo", "list": [0] * 32_000}).status == 200


def test_a_daemon_with_few_descriptors_takes_fewer_connections_and_goes_on(makeDaemon):
    if buildDirectory().name == "asan":
        pytest.skip("the sanitizer needs a descriptor for each look at memory, and takes its lack for a fault")
    daemon = makeDaemon("--connections", "64", "--idle-seconds", "0", prefix=["prlimit", "--nofile=40:40"])
    held = [daemon.raw() for _ in range(60)]
    waitUntil(lambda: tryEcho(daemon) == 200, "somebody makes room")
    assert descriptors(daemon) <= 32, "requests need some to work with"
    for connection in held:
        connection.close()
    daemon.assertServes()
    _, text = daemon.end()
    assert "Only 40 files may be open: at most 10 connections are taken at a time." in text


def test_without_a_descriptor_left_a_client_is_told_and_the_next_one_served(makeDaemon):
    daemon = makeDaemon("--connections", "64", "--idle-seconds", "0")
    daemon.assertServes()
    limit = descriptors(daemon) + 3
    held = [daemon.raw() for _ in range(2)]
    waitUntil(lambda: openConnections(daemon) == 2, "both are taken")
    subprocess.run(["prlimit", f"--pid={daemon.process.pid}", f"--nofile={limit}:{limit}"], check=True)
    more = [daemon.raw() for _ in range(10)]
    waitUntil(lambda: tryEcho(daemon) == 200, "connections give way")
    for connection in [*held, *more]:
        connection.close()
    daemon.assertServes()


def test_refused_connections_are_logged_once_and_counted(makeDaemon):
    daemon = makeDaemon()
    os.chmod(daemon.socket, 0o666)
    for _ in range(50):
        connection = asMember(daemon)
        assert parseRaw(readAll(connection.sock))[1]["error"] == "refused"
    _, text = daemon.end()
    assert text.count("Refused a connection of user 65534.") == 1


def test_idle_connections_keep_the_daemon_from_no_sleep(makeDaemon):
    daemon = makeDaemon("--idle-seconds", "0", "--network-quiet-seconds", "0")
    held = [daemon.raw() for _ in range(20)]
    waitUntil(lambda: openConnections(daemon) == 20, "all are taken")
    before, begin = wakeups(daemon), time.monotonic()
    waitUntil(lambda: time.monotonic() - begin > 2, "two seconds have passed")
    grown = wakeups(daemon) - before
    # A few times a second for the deadlines, and ThreadSanitizer's own thread; a loop would do it thousands of times.
    assert grown <= 40 * (time.monotonic() - begin)
    for connection in held:
        connection.close()
    waitUntil(lambda: openConnections(daemon) == 0, "all are closed")


def test_a_stranger_is_refused_before_anything_is_read(daemon):
    os.chmod(daemon.socket, 0o666)
    script = """
import os, socket, sys
os.setgroups([]); os.setgid(65534); os.setuid(65534)
connection = socket.socket(socket.AF_UNIX)
connection.connect(sys.argv[1])
sys.stdout.buffer.write(b"".join(iter(lambda: connection.recv(4096), b"")))
"""
    with shortName(daemon.socket) as name:
        descriptor = int(name.split("/")[4])
        done = subprocess.run(
            [sys.executable, "-c", script, name],
            capture_output=True,
            pass_fds=[descriptor],
            check=True,
        )
    status, content = parseRaw(done.stdout)
    assert (status, content["error"]) == (403, "refused")
    daemon.assertServes()


def test_the_tool_tells_a_stranger_whom_the_daemon_refused(daemon):
    os.chmod(daemon.socket, 0o666)
    done = daemon.tool("state", user=NOBODY)
    assert done.returncode == 77
    assert "Only root and members of the administrators' group" in done.stderr
    done = daemon.tool("--json", "state", user=NOBODY)
    assert done.returncode == 77
    assert json.loads(done.stdout)["error"] == "refused"


def test_the_tool_tells_a_stranger_whom_the_socket_refused(makeDaemon):
    daemon = makeDaemon("--admin-group", "games")
    done = daemon.tool("state", user=NOBODY)
    assert done.returncode == 77
    assert 'members of the group "games" only, and you are nobody' in done.stderr
    assert done.stdout == ""


def test_the_tool_tells_when_the_socket_is_for_root_alone(daemon):
    done = daemon.tool("state", user=NOBODY)
    assert done.returncode == 77
    assert "open to root only, and you are nobody" in done.stderr


def test_a_member_of_the_group_is_served(makeDaemon):
    daemon = makeDaemon("--admin-group", "games")
    status = os.stat(daemon.socket)
    assert (status.st_mode & 0o777, status.st_uid, status.st_gid) == (0o660, 0, 60)
    done = daemon.tool("state", user=NOBODY, groups=[60])
    assert (done.returncode, done.stdout) == (0, "state: STOPPED\n")
    # Far more groups than fit into the first question to the kernel.
    done = daemon.tool("state", user=NOBODY, groups=[60, *range(1000, 1100)])
    assert (done.returncode, done.stdout) == (0, "state: STOPPED\n")


def wakeups(daemon):
    """How often the daemon's threads have gone to sleep."""
    total = 0
    for thread in os.listdir(f"/proc/{daemon.process.pid}/task"):
        status = open(f"/proc/{daemon.process.pid}/task/{thread}/status").read()
        total += int(status.split("voluntary_ctxt_switches:")[1].split()[0])
    return total


def descriptors(daemon):
    return len(targets(daemon))


def tryEcho(daemon):
    try:
        return daemon.echo().status
    except (ConnectionError, json.JSONDecodeError):
        return 0
