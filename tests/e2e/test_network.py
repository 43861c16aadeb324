"""Changes of the host's name and addresses: found by the daemon, told by hand, and as a "changeip" request. The
machine's network is its own; one cable in it has both its ends there."""

import json
import re

import pytest

from certificates import CA_FILE, KEY_FILE, make_certificate
from jabberd import Jabberd, add_user, logged_in
from private_machine import HOST_NAME, wait_until
from service import JSON, PLIST, Service

NEW = "chat.example.test"
OTHER = "b.example.test"
ADDRESS = "192.0.2.1"
COMPONENT = "sm.velto_notification_component_addr"
ROOMS = "router.filter_muc_messages_from"
INVALID = {"error": "INVALID_ARG_ERR"}


def ip(machine, *words):
    machine.from_outside("ip", *words)


def service_with(machine, quiet_seconds):
    machine.write("/etc/tessardd/tessardd.conf", machine.read("/etc/tessardd/tessardd.conf")
                  + f"network-quiet-seconds = {quiet_seconds}\n")
    ip(machine, "link", "add", "net0", "type", "veth", "peer", "name", "net1")
    for end in ("net0", "net1"):
        ip(machine, "link", "set", end, "up")
    ip(machine, "addr", "add", f"{ADDRESS}/24", "dev", "net0")
    machine.prepare_instance()
    machine.start_daemon()
    service = Service(machine)
    service.tool("setup")
    return service


@pytest.fixture
def watched(machine):
    """A service whose daemon follows its machine."""
    return service_with(machine, 1)


@pytest.fixture
def unwatched(machine):
    """A service that hears of changes only what it is told."""
    return service_with(machine, 0)


def rename(machine, name):
    """As hostnamectl does it: the file in one step, and the running system's name."""
    machine.write("/etc/.hostname.new", name + "\n")
    machine.outside("/etc/.hostname.new").rename(machine.outside("/etc/hostname"))
    machine.from_outside("hostname", name)


def said(service, sentence):
    """Waits for the daemon to say what matches, and until the plug-ins have heard of it."""
    wait_until(lambda: re.search(sentence, service.machine.read("/var/log/tessardd.log")), sentence)
    service.tool("state")  # in turn with what the plug-ins are told


def names(service):
    return {path: service.values(path) for path in ("c2s.local.id", "sm.local.id", COMPONENT, ROOMS)}


UNCHANGED = {"c2s.local.id": [HOST_NAME], "sm.local.id": [HOST_NAME], COMPONENT: [f"pubsub.{HOST_NAME}"],
             ROOMS: [f"rooms.{HOST_NAME}"]}
# The bare name is what the component gets with a change of the network, and "pubsub." before it with a "changeip".
RENAMED = {"c2s.local.id": [NEW], "sm.local.id": [NEW], COMPONENT: [NEW], ROOMS: [f"rooms.{HOST_NAME}"]}


# What a domain has with a certificate and the level "STANDARD".
SECURE = {"pemfile": KEY_FILE, "cachain": CA_FILE, "require-starttls": "true"}


def attributes_of_domains(service):
    local = service.document("c2s.xml").getElementsByTagName("local")[0]
    return [dict(node.attributes.items()) for node in local.getElementsByTagName("id")]


def assert_serves_clients(service, jid, authorities=None):
    """A restart makes jabberd take the new name, and a real client logs in under it."""
    add_user(service.machine, jid.split("@")[0])
    service.tool("restart", check=False)
    assert json.loads(service.tool("--json", "state", "--details").stdout)["jabberdState"] == "RUNNING"
    with logged_in(service.machine, jid, authorities):
        assert "host-unknown" in Jabberd(service.machine).greet(HOST_NAME)


# --- found by the daemon ---------------------------------------------------------------------------------------------


def test_a_new_host_name_is_followed_and_clients_log_in_under_it(watched):
    watched.set("authLevel=ANYMETHOD")
    watched.tool("start", check=False)
    rename(watched.machine, NEW)
    said(watched, f'the host name is now "{NEW}" and was "{HOST_NAME}"')
    assert names(watched) == RENAMED
    assert watched.settings()["hosts"] == [NEW]
    # Nothing is restarted before somebody says so.
    assert "<stream:features" in Jabberd(watched.machine).greet(HOST_NAME)
    assert_serves_clients(watched, f"ann@{NEW}")


def test_a_followed_name_has_no_certificate_until_it_is_set_again(watched):
    make_certificate(watched.machine, [NEW])
    certificate = [f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}"]
    watched.set(*certificate, "authLevel=STANDARD")
    rename(watched.machine, NEW)
    said(watched, f'the host name is now "{NEW}"')
    assert attributes_of_domains(watched) == [{}]
    watched.set(*certificate)
    assert attributes_of_domains(watched) == [SECURE]
    assert_serves_clients(watched, f"ann@{NEW}", CA_FILE)


def test_a_short_name_needs_the_table_to_become_a_domain(watched):
    machine = watched.machine
    machine.write("/etc/hosts", f"127.0.0.1 localhost\n{ADDRESS} {NEW} chat\n")
    rename(machine, "chat")
    said(watched, f'the host name is now "{NEW}"')
    assert names(watched) == RENAMED


def test_the_running_systems_name_counts_where_none_is_configured(watched):
    watched.machine.outside("/etc/hostname").unlink()
    watched.machine.from_outside("hostname", NEW)
    said(watched, f'the host name is now "{NEW}"')
    assert names(watched) == RENAMED


def test_a_domain_that_is_not_the_hosts_name_is_kept_in_the_session_managers(watched):
    watched.set(f"hostsCommaDelimitedString={OTHER},{HOST_NAME}")
    rename(watched.machine, NEW)
    said(watched, f'the host name is now "{NEW}"')
    assert watched.values("sm.local.id") == [OTHER]
    assert watched.values("sm.local.id", f"sm_{NEW}.xml") == [NEW]
    assert f"sm_{HOST_NAME}.xml" not in watched.configuration_files()


def test_a_new_address_is_told_and_changes_no_file_of_jabberd(watched):
    before = watched.configuration_files()
    ip(watched.machine, "addr", "add", "192.0.2.2/24", "dev", "net0")
    said(watched, f"the addresses are now {ADDRESS}, 192.0.2.2 and were {ADDRESS}\\.")
    assert watched.configuration_files() == before


def test_a_local_name_changes_nothing_and_the_next_one_is_followed(watched):
    before = watched.configuration_files()
    rename(watched.machine, "push.local")
    said(watched, f'The services keep the name "{HOST_NAME}"')
    assert watched.configuration_files() == before
    rename(watched.machine, NEW)
    said(watched, f'the host name is now "{NEW}" and was "{HOST_NAME}"')
    assert names(watched) == RENAMED


def test_self_assigned_addresses_change_nothing_until_there_is_another(watched):
    machine, before = watched.machine, watched.configuration_files()
    ip(machine, "addr", "add", "169.254.7.7/16", "dev", "net0")
    ip(machine, "addr", "del", f"{ADDRESS}/24", "dev", "net0")
    said(watched, f"the addresses are now 169\\.254\\.7\\.7(, fe80\\S+)* and were {ADDRESS}\\.")
    rename(machine, NEW)
    said(watched, f'The services keep the name "{HOST_NAME}"')
    assert watched.configuration_files() == before
    ip(machine, "addr", "add", "192.0.2.3/24", "dev", "net0")
    said(watched, f'the host name is now "{NEW}" and was "{HOST_NAME}"; the addresses are now 192\\.0\\.2\\.3 ')
    assert names(watched) == RENAMED


def test_a_name_that_was_changed_while_the_daemon_was_down_is_followed(watched):
    machine = watched.machine
    machine.run("s6-svc", "-wD", "-d", "/run/service/tessardd")
    rename(machine, NEW)
    machine.run("s6-svc", "-u", "/run/service/tessardd")
    machine.wait_for_daemon()
    said(watched, f'the host name is now "{NEW}" and was "{HOST_NAME}"')
    assert names(watched) == RENAMED


# --- told by hand ----------------------------------------------------------------------------------------------------


def tell(service, **fields):
    change = {"hasHostChanged": True, "hasValidNetworkConfiguration": True, "oldHost": HOST_NAME, "newHost": NEW,
              "changeInfo": {"hostName": {}}, **fields}
    answer = service.post(change, path="/v1/events/network-change?with=log")
    assert answer["answer"] == {"plugins": ["notification"]}
    return answer["log"]


def test_a_change_that_is_told_by_hand_is_followed(unwatched):
    unwatched.set("authLevel=ANYMETHOD")
    tell(unwatched)
    assert names(unwatched) == RENAMED
    assert_serves_clients(unwatched, f"ann@{NEW}")


def test_changes_that_are_none_to_follow_change_nothing(unwatched):
    before = unwatched.configuration_files()
    for fields in ({"hasValidNetworkConfiguration": False}, {"hasHostChanged": False}, {"newHost": "no name"},
                   {"hasHostChanged": False, "hasAddrChanged": True},
                   {"hasHostChanged": False, "hasAddrChanged": True, "isNewAddressSelfAssigned": True}):
        tell(unwatched, **fields)
        assert unwatched.configuration_files() == before


def test_a_machine_with_a_local_name_follows_no_change_of_the_network(unwatched):
    before = unwatched.configuration_files()
    rename(unwatched.machine, "push.local")
    tell(unwatched)
    assert unwatched.configuration_files() == before


# --- as a request ----------------------------------------------------------------------------------------------------


def changeip(service, form=JSON, **arguments):
    return service.post({"command": "writeSettings", "configuration": {"changeip": arguments}}, form, form)


def test_a_changeip_request_renames_the_domain_with_its_certificate(unwatched):
    make_certificate(unwatched.machine, [NEW, OTHER])
    unwatched.set(f"hostsCommaDelimitedString={HOST_NAME},{OTHER}", f"sslKeyFile={KEY_FILE}", f"sslCAFile={CA_FILE}",
                  "authLevel=STANDARD")
    # A name of the machine that is none for others is no obstacle here.
    rename(unwatched.machine, "push.local")
    answer = changeip(unwatched, oldHost=HOST_NAME, newHost=NEW)
    assert (answer["writeStatus"], answer["needsRecycleOrRestart"]) == (0, True)
    assert answer["configuration"]["hosts"] == [NEW, OTHER]
    assert names(unwatched) == {"c2s.local.id": [NEW, OTHER], "sm.local.id": [NEW], COMPONENT: [f"pubsub.{NEW}"],
                                ROOMS: [f"rooms.{NEW}"]}
    assert attributes_of_domains(unwatched) == [SECURE, SECURE]
    assert_serves_clients(unwatched, f"ann@{NEW}", CA_FILE)


@pytest.mark.parametrize("form", [JSON, PLIST])
def test_a_changeip_request_for_a_name_that_is_not_served_or_for_an_address_changes_no_domain(unwatched, form):
    before = unwatched.configuration_files()
    assert changeip(unwatched, form, oldHost="stranger.example.test", newHost=NEW)["writeStatus"] == 0
    assert changeip(unwatched, form, oldAddress=ADDRESS, newAddress="2001:db8::1")["writeStatus"] == 0
    assert unwatched.configuration_files() == before


def test_malformed_changeip_requests_are_refused_and_change_nothing(unwatched):
    before = unwatched.configuration_files()
    for arguments, problem in (({"oldHost": HOST_NAME}, 'neither "newHost" nor "newAddress" is given'),
                               ({"oldHost": HOST_NAME, "newHost": "../../etc"}, '"newHost" is not a host name'),
                               ({"oldHost": HOST_NAME, "newHost": 5}, '"newHost" must be a string'),
                               ({"newAddress": "192.0.2.300"}, '"newAddress" is not an IP address')):
        assert changeip(unwatched, **arguments) == INVALID
        shown = unwatched.tool("request", "writeSettings", json.dumps({"configuration": {"changeip": arguments}}),
                               check=False)
        assert shown.returncode != 0
        assert problem in shown.stderr
        assert unwatched.configuration_files() == before
