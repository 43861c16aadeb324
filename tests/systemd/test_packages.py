"""The packages on a fresh Debian that systemd has booted, from their installation to their removal.

The tests follow each other on one machine, as its days would; each stage is a fixture that goes on from the one
before, so that any of them can also be run alone."""

import re
import shutil
import subprocess

import pytest

from build_packages import build_packages, check_packages
from certificates import PUBLIC_CA_FILE, serve_over_tls
from jabberd import Jabberd, add_user, logged_in
from private_machine import CONFIGURATION, HOST_NAME, PROJECT
from service import Service
from systemd_machine import SystemdMachine
from systemd_tree import fresh_tree

DAEMON, SOCKET = "tessardd.service", "tessardd.socket"
JABBERD, PUBSUB = "org.jabber.jabberd_notification.service", "com.velto.Beaconry.service"
OURS = ("tessardd", "tessardctl", "tessardd-instance")
FOREIGN = ("jabberd", "jabberd-router", "jabberd-sm", "jabberd-c2s", "jabberd-s2s", "prosody", "libervia-pubsub")
CONFIGURATION_FILE = "/etc/tessardd/tessardd.conf"
ADMINISTRATORS_CHAT = "/srv/chats"
# What only we would call a file.
OUR_NAMES = re.compile("tessard|velto|beaconry|idavoll|korvbridge|keywarden|jabberd_notification|org\\.jabber"
                       "|^/Library|^/private|^/var/db|^/var/jabberd", re.IGNORECASE)


def apt(machine, *words):
    machine.run("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-q", "-y", "-o", "DPkg::Options::=--force-unsafe-io",
                *words, timeout=400)


def offer(machine, packages):
    """Makes packages known to the machine's apt."""
    listed = subprocess.run(["dpkg-scanpackages", "."], cwd=packages, capture_output=True, check=True).stdout
    (packages / "Packages").write_bytes(listed)
    place = machine.outside("/srv/ours")
    shutil.rmtree(place, ignore_errors=True)
    shutil.copytree(packages, place)
    machine.write("/etc/apt/sources.list.d/ours.list", "deb [trusted=yes] file:/srv/ours ./\n")
    apt(machine, "update")


def unit(machine, name):
    shown = machine.run("systemctl", "show", "--property=ActiveState,UnitFileState", "--value", "--", name).stdout
    return tuple(shown.split())


def version(machine):
    return machine.run("dpkg-query", "-W", "-f", "${Version}", "tessardd").stdout


def configuration(machine):
    """Name -> what is in it, whose it is, for all that setup and settings have written."""
    seen = {}
    for file in sorted(machine.outside(CONFIGURATION).iterdir()):
        status = file.stat()
        seen[file.name] = (file.read_bytes(), status.st_uid, status.st_gid, status.st_mode, status.st_mtime_ns)
    return seen


def assert_can_log_in(machine):
    with logged_in(machine.network, f"ann@{HOST_NAME}", str(machine.outside(PUBLIC_CA_FILE))):
        pass


def complaints(machine):
    """What the daemon and the services have logged as errors."""
    return machine.journal("--priority=err", *(f"--unit={name}" for name in (DAEMON, JABBERD, PUBSUB)))


@pytest.fixture(scope="module")
def packages(build, tmp_path_factory):
    made = tmp_path_factory.mktemp("packages")
    build_packages(made, build)
    return made


@pytest.fixture(scope="module")
def later_packages(build, tmp_path_factory):
    made = tmp_path_factory.mktemp("later")
    build_packages(made, build, "0.1.0+later")
    return made


@pytest.fixture(scope="module")
def installed(packages):
    with SystemdMachine(fresh_tree()) as machine:
        offer(machine, packages)
        apt(machine, "install", "tessardd")
        yield machine


@pytest.fixture(scope="module")
def served(installed):
    service = Service(installed)
    service.tool("setup")
    serve_over_tls(service, [HOST_NAME])
    add_user(installed, "ann")
    service.tool("start")
    return service


@pytest.fixture(scope="module")
def upgraded(served, later_packages):
    """After an upgrade, before which the administrator changed a file and wanted two units no more."""
    machine = served.machine
    text = machine.read(CONFIGURATION_FILE)
    machine.write(CONFIGURATION_FILE, text.replace("#idle-seconds = 60", "idle-seconds = 61"))
    machine.run("systemctl", "disable", "--now", SOCKET, PUBSUB)
    before = configuration(machine)
    offer(machine, later_packages)
    apt(machine, "upgrade")
    return machine, before


@pytest.fixture(scope="module")
def removed(upgraded):
    machine, _ = upgraded
    before = configuration(machine)
    apt(machine, "remove", *OURS)
    return machine, before


@pytest.fixture(scope="module")
def purged(removed):
    machine, _ = removed
    apt(machine, "purge", *OURS)
    return machine


def test_a_build_of_the_packages_asks_for_every_library_that_a_build_needs():
    listed = (PROJECT / "dev").read_text().split("# libraries\n")[1].split("# what the service is made of")[0]
    of_tests = {"libgtest-dev", "libgmock-dev"}
    wanted = (PROJECT / "debian/control").read_text().split("Package:")[0]
    missing = {name for name in listed.split() if f" {name},\n" not in wanted} - of_tests
    assert missing == set()


def test_debians_checker_finds_no_fault(packages):
    assert check_packages(packages) == []


def test_a_fresh_debian_runs_the_daemon_after_the_installation_and_nothing_else_of_it(installed):
    assert installed.system_state() == "running"
    assert [unit(installed, name) for name in (DAEMON, SOCKET)] == [("active", "enabled")] * 2
    assert [unit(installed, name) for name in (JABBERD, PUBSUB)] == [("inactive", "disabled")] * 2
    assert installed.run("tessardctl", "health").returncode == 0
    assert installed.run("getent", "passwd", "jabberd").stdout.split(":")[2:4] == ["84", "84"]
    administrators = installed.run("getent", "group", "tessard-admin").stdout.split(":")[2]
    assert installed.run("tessardctl", "state", user=65534, groups=[administrators]).stdout == "state: STOPPED\n"
    assert installed.run("readlink", "/private/etc", "/private/var").stdout == "../etc\n../var\n"
    assert installed.run("stat", "-c", "%U:%G %a", "/etc/jabberd_notification").stdout == "root:jabberd 750\n"


def test_debians_own_services_stay_down(installed):
    for name in FOREIGN[:-1]:
        installed.run("systemctl", "start", f"{name}.service")
    installed.reboot()
    for name in FOREIGN:
        assert unit(installed, f"{name}.service")[0] == "inactive", name
    listening = installed.run("ss", "--no-header", "--listening", "--tcp", "--numeric").stdout
    # PostgreSQL's, which other programs may use.
    assert [line.split()[3] for line in listening.splitlines()] == ["127.0.0.1:5432"]
    assert installed.system_state() == "running"


def test_the_service_is_set_up_started_and_logged_into(served):
    assert served.tool("state").stdout == "state: RUNNING\n"
    assert [unit(served.machine, name) for name in (JABBERD, PUBSUB)] == [("active", "enabled")] * 2
    assert_can_log_in(served.machine)


def test_what_keeps_the_daemon_in_its_place_keeps_it_from_none_of_its_work(served):
    machine = served.machine
    served.set(f"savedChatsLocation={ADMINISTRATORS_CHAT}", "korvbridgeEnabled=false")
    assert machine.run("stat", "-c", "%u %a", ADMINISTRATORS_CHAT).stdout == "84 750\n"
    user = served.tool("service-user", "calendar").stdout
    assert "userName: com.velto.notificationuser\n" in user
    assert machine.run("getent", "passwd", "com.velto.notificationuser").returncode == 0
    served.tool("services", "add", "mail", "mail.example.test", "port=993")
    served.tool("restart")
    details = served.tool("state", "--details").stdout
    assert "state: RUNNING\n" in details
    assert_can_log_in(machine)
    # The packet filter's rules are listed by a program with more rights than the daemon has.
    lines = machine.journal()
    assert any("/usr/sbin/nft -j -t list ruleset" in line for line in lines)
    assert not any("It is not known which ports the packet filter restricts" in line for line in lines)
    assert complaints(machine) == []


def test_a_plug_in_made_with_the_development_package_is_taken(installed, packages, tmp_path):
    subprocess.run(["dpkg-deb", "-x", next(packages.glob("tessardd-dev_*.deb")), tmp_path], check=True)
    prefix = tmp_path / "usr"
    example = prefix / "share/doc/tessardd-dev/examples/hello-plugin"
    subprocess.run(["make", "-C", example, f"PKG_CONFIG=pkg-config --define-variable=prefix={prefix}"], check=True,
                   stdout=subprocess.DEVNULL,
                   env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_PATH": next(prefix.glob("lib/*/pkgconfig"))})
    place = installed.outside("/usr/lib/tessardd/bundles/tessard_hello.bundle")
    shutil.copytree(example / "tessard_hello.bundle", place)
    installed.run("systemctl", "restart", DAEMON)
    answer = installed.run("tessardctl", "--plugin", "hello", "request", "greet", '{"name": "Ann"}').stdout
    assert '"Hello Ann."' in answer
    refused = installed.run("tessardctl", "--plugin", "hello", "request", "greet", check=False)
    assert refused.returncode != 0
    installed.run("rm", "-r", "/usr/lib/tessardd/bundles/tessard_hello.bundle")
    installed.run("systemctl", "restart", DAEMON)


def test_an_upgrade_keeps_the_configuration_and_the_service_up(upgraded):
    machine, before = upgraded
    assert version(machine) == "0.1.0+later"
    assert "\nidle-seconds = 61\n" in machine.read(CONFIGURATION_FILE)
    assert configuration(machine) == before
    assert unit(machine, DAEMON) == ("active", "enabled")
    assert unit(machine, JABBERD) == ("active", "enabled")
    assert machine.run("tessardctl", "health").returncode == 0
    assert_can_log_in(machine)


def test_a_unit_that_the_administrator_has_disabled_stays_disabled(upgraded):
    machine, _ = upgraded
    for name in (SOCKET, PUBSUB):
        assert unit(machine, name) == ("inactive", "disabled"), name
    machine.run("systemctl", "disable", "--now", DAEMON)
    apt(machine, "install", "--reinstall", *OURS)
    assert unit(machine, DAEMON) == ("inactive", "disabled")
    assert unit(machine, SOCKET) == ("inactive", "disabled")
    assert unit(machine, JABBERD) == ("active", "enabled")


def test_removed_packages_leave_nothing_running_and_all_that_was_configured(removed):
    machine, before = removed
    # The component that was disabled may not run either.
    assert machine.run("ps", "-u", "84", "-o", "comm=", check=False).stdout == ""
    assert machine.run("pgrep", "tessardd", check=False).stdout == ""
    assert not machine.outside("/run/tessardd/tessardd.sock").exists()
    assert configuration(machine) == before
    assert machine.outside("/var/lib/tessardd").is_dir()
    assert machine.run("getent", "passwd", "com.velto.notificationuser").returncode == 0
    assert machine.run("systemctl", "list-units", "--failed", "--no-legend").stdout == ""


def test_packages_that_come_back_find_everything_as_it_was(removed):
    machine, before = removed
    apt(machine, "install", *OURS)
    assert configuration(machine) == before
    machine.run("systemctl", "start", DAEMON)
    Service(machine).tool("start")
    assert_can_log_in(machine)


def test_a_purge_leaves_what_the_administrator_made_and_nothing_else(purged):
    found = purged.run("find", "/", "-xdev", "-not", "-path", "/srv/*", "-not", "-path", "/proc/*").stdout.splitlines()
    kept = {f"{CONFIGURATION.removeprefix('/private')}/{name}" for name in ("server.pem", "ca.pem")}
    not_ours = re.compile("^/var/(log|cache|lib/apt|lib/dpkg)/|^/etc/apt/|^/usr/share/libervia/|^/usr/share/doc/libervia")
    ours = {path for path in found if OUR_NAMES.search(path) and not not_ours.search(path)}
    assert ours == kept | {"/etc/jabberd_notification"}
    owned = purged.run("find", "/", "-xdev", "(", "-uid", "84", "-o", "-gid", "84", ")").stdout.splitlines()
    assert set(owned) <= kept | {"/etc/jabberd_notification", ADMINISTRATORS_CHAT}
    for kind, name in (("passwd", "jabberd"), ("group", "jabberd"), ("group", "tessard-admin"),
                       ("passwd", "com.velto.notificationuser")):
        assert purged.run("getent", kind, name, check=False).returncode == 2, name
    assert purged.run("getent", "passwd", "ann").returncode == 0
    assert purged.run("dpkg-query", "-W", "-f", "${Package}\n", "tessard*", check=False).stdout == ""
    assert purged.system_state() == "running"
