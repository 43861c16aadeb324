"""What a client service is told of its account is all that a real XMPP client needs to publish."""

import pytest

from certificates import PUBLIC_CA_FILE, serve_over_tls
from private_machine import HOST_NAME, set_password
from pubsub import Pubsub

NAME = "com.velto.notificationuser"
LOGIN_KEYS = ["userName", "password", "xmppHostName", "JID", "jabberdClientPortTLS", "jabberdS2SPort"]


@pytest.fixture
def running(service):
    serve_over_tls(service, [HOST_NAME])
    assert service.tool("start").stdout == "state: RUNNING\n"
    return Pubsub(service)


def service_user(pubsub):
    """The answer, as a program gets it."""
    return pubsub.service.post({"command": "getServiceUser", "service": "calendar"})


def as_service(pubsub, answer, *words):
    return pubsub.ask(answer["JID"], *words, password=answer["password"], port=answer["jabberdClientPortTLS"])


def test_with_exactly_the_answer_a_client_publishes_and_another_is_told(running):
    answer = service_user(running)
    assert list(answer)[:len(LOGIN_KEYS)] == LOGIN_KEYS
    assert (answer["userName"], answer["xmppHostName"], answer["JID"]) == (NAME, HOST_NAME, f"{NAME}@{HOST_NAME}")
    assert as_service(running, answer, "create", "calendar") == [["created", "result"]]
    with running.listener(running.add_account("bob"), "subscribe", "calendar") as listener:
        assert as_service(running, answer, "publish", "calendar", "a new event") == [["published", "result"]]
        assert listener.next() == ["event", "calendar", "a new event"]
    # Asking again changes nothing.
    assert service_user(running) == answer
    assert as_service(running, answer, "items", "calendar") == [["items", "a new event"]]


def test_the_service_user_is_privileged_from_the_next_start_of_the_component(running):
    answer = service_user(running)
    ann, bob = running.add_account("ann"), running.add_account("bob")
    assert running.ask(ann, "create", "news") == [["created", "result"]]
    running.stop()
    running.start()
    assert running.ask(bob, "delete", "news") == [["error", "forbidden"]]
    assert as_service(running, answer, "delete", "news") == [["deleted", "result"]]


def test_a_changed_password_of_the_account_shuts_the_service_out_at_once(running):
    answer = service_user(running)
    assert as_service(running, answer, "create", "calendar") == [["created", "result"]]
    set_password(running.machine, NAME, "another")
    assert as_service(running, answer, "items", "calendar") == [["refused"]]


def test_the_password_is_in_no_log_and_no_file_that_others_can_read(running):
    answer = service_user(running)
    assert as_service(running, answer, "create", "calendar") == [["created", "result"]]
    password = answer["password"]
    assert password not in running.service.log()
    for user in (84, 65534):
        found = running.machine.run("grep", "-rlaF", "-e", password, "/etc", "/var", "/run", "/Library", "/tmp", user=user,
                                    check=False, timeout=60)
        assert found.stdout == ""
