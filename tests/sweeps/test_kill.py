"""The daemon is killed before each of its calls that change anything on the disk. The next start puts everything
right, and the request can be made again."""

import http.client
import plistlib

import pytest

from history import Refused, ask, differences, isWhole, treeOf
from hosttools import buildDirectory, needsPlugin
from interruptions import CHANGING, READING, Laboratory, Scenario, Strace, chosenPoints, scenarios
from sweeptools import report
from tlsmaterial import Authority

pytestmark = needsPlugin
SHORT = 6  # points of each request in the short form


def expectMost(killed, points):
    """A few calls are not made each time, such as those of who looks whether something has ended."""
    assert points and killed >= len(points) - max(1, len(points) // 10), "calls were not reached"


@pytest.mark.parametrize("name", ["setup", "settings", "undo", "change of address", "add service", "choose certificate",
                                  "service user", "stop"])
def test_a_daemon_killed_before_any_call_leaves_all_or_nothing_and_carries_on(pluginRoot, tmp_path, name):
    scenario = next(one for one in scenarios(tmp_path) if one.name == name)
    laboratory = Laboratory(pluginRoot, scenario)
    # A stop changes no file: there every call is as good.
    points = chosenPoints(laboratory.calls(tmp_path), READING if name == "stop" else CHANGING, SHORT)
    new = treeOf(laboratory.root)
    old = treeOf(laboratory.pristine)
    killed = 0
    for call, number in points:
        killed += killAndLook(laboratory, call, number, old, new)
    report(f"{name}: {killed} kills at {len(points)} points")
    laboratory.end()
    expectMost(killed, points)


def killAndLook(laboratory, call, number, old, new):
    """Kills a daemon at one point, and looks at what the next one makes of it. Whether it was reached."""
    place = f"{laboratory.scenario} at {call} {number}"
    root = laboratory.fresh()
    with laboratory as daemon:
        strace = Strace(laboratory.workerOf(daemon), "-e", f"trace={call}", "-e",
                        f"inject={call}:signal=SIGKILL:when={number}")
        try:
            laboratory.scenario.request(daemon)
            laboratory.settle(daemon)
            reached = daemon.process.poll() is not None
        except (ConnectionError, http.client.HTTPException):
            daemon.process.wait()
            reached = True
        strace.end()
    torn = [file for file, entry in treeOf(root).items()
            if file in old and file in new and entry[0] == "file" and not isWhole(file, entry)
            and file.endswith((".xml", ".cfg", ".plist"))]
    assert not torn, f"{place}: not whole: {torn}"
    with laboratory as daemon:
        found = treeOf(root)
        assertPutRight(laboratory, place, found, old, new)
        try:
            laboratory.scenario.request(daemon)
        except Refused as refused:
            raise AssertionError(f"{place}: refused afterwards") from refused
        assertReached(laboratory, place, treeOf(root), old if different(found, new) else new, old, new)
    return reached


def assertPutRight(laboratory, place, found, old, new):
    strays = [file for file in found if file.endswith(".tmp")]
    assert not strays, f"{place}: left over: {strays}"
    if laboratory.scenario.allOrNothing:
        against = {state: [file for file in different(found, tree) if file not in laboratory.scenario.apart]
                   for state, tree in (("old", old), ("new", new))}
        assert [] in against.values(), f"{place}: neither old nor new: {against}"


def assertReached(laboratory, place, found, begun, old, new):
    """The request was made again on that state."""
    if laboratory.scenario.allOrNothing:
        # On what is new already it makes copies and backups of that.
        wrong = different(found, new) if begun is old else sorted(set(found) ^ set(new))
        if laboratory.scenario.turnsBack and begun is new:
            wrong = different(found, old)
        assert not wrong, f"{place}: made again: {wrong}"
        return
    # Passwords are drawn anew, and so differ; what there is, and whose, must not.
    others = sorted(set(new) ^ set(found))
    assert not others, f"{place}: there or missing: {others}"
    otherwise = {file: (found[file][:-1], new[file][:-1]) for file in new if found[file][:-1] != new[file][:-1]
                 and new[file][0] != "link"}
    assert not otherwise, f"{place}: other attributes: {otherwise}"
    assertOnePassword(place, found)


def assertOnePassword(place, found):
    """What was drawn for the components is the same in all their files."""
    directory = "etc/jabberd_notification"
    assert not any(b"@ROUTERPASSWORD@" in entry[-1] for file, entry in found.items()
                   if file.startswith(directory) and file.endswith(".xml")), place
    settings = found.get("Library/Preferences/com.velto.Beaconry.plist")
    if settings:
        secret = plistlib.loads(settings[-1])["secret"]
        assert secret.encode().replace(b"&", b"&amp;").replace(b"<", b"&lt;").replace(b">", b"&gt;") in \
            found[f"{directory}/router.xml"][-1] or secret.encode() in found[f"{directory}/router.xml"][-1], place


def different(found, wanted):
    """What differs, but for what each attempt makes anew: a database says nothing of that but its content."""
    return [file for file in differences(found, wanted) if not file.endswith((".lock", "-"))]


CERTIFICATE = "etc/jabberd_notification/tls-certificate.pem"


def test_the_certificate_of_the_service_is_the_old_or_the_new_one_whole(pluginRoot, tmp_path):
    (pluginRoot / "usr/sbin").mkdir(parents=True)
    (pluginRoot / "usr/sbin/keywarden").symlink_to(buildDirectory() / "programs/keywarden")
    authority = Authority(tmp_path / "authority")

    def importing(name):
        pair = authority.issue(name, ["push.example.com"])
        return lambda daemon: ask(daemon, "/v1/tls-certificate", certificate=pair.certificate.read_text(), key=pair.key.read_text())

    def setUp(daemon):
        ask(daemon, command="initialSetup")
    laboratory = Laboratory(pluginRoot, Scenario("certificate", importing("new"), before=[setUp, importing("old")]))
    points = chosenPoints(laboratory.calls(tmp_path), CHANGING, SHORT)
    old, new = treeOf(laboratory.pristine)[CERTIFICATE], treeOf(laboratory.root)[CERTIFICATE]
    assert old[-1] != new[-1] and old[:-1] == new[:-1]
    killed = 0
    for call, number in points:
        root = laboratory.fresh()
        with laboratory as daemon:
            strace = Strace(laboratory.workerOf(daemon), "-e", f"trace={call}", "-e", f"inject={call}:signal=SIGKILL:when={number}")
            try:
                laboratory.scenario.request(daemon)
                laboratory.settle(daemon)
                killed += daemon.process.poll() is not None
            except (ConnectionError, http.client.HTTPException):
                daemon.process.wait()
                killed += 1
            strace.end()
        place = f"{call} {number}"
        assert treeOf(root)[CERTIFICATE] in (old, new), place
        with laboratory as daemon:
            found = treeOf(root)
            assert found[CERTIFICATE] in (old, new) and not [file for file in found if file.endswith(".tmp")], place
            laboratory.scenario.request(daemon)
            assert treeOf(root)[CERTIFICATE] == new, place
    report(f"certificate: {killed} kills at {len(points)} points")
    laboratory.end()
    expectMost(killed, points)
