"""A daemon that is killed in the middle of a write leaves whole files and comes back."""

import random
import subprocess
import time
import xml.dom.minidom

from jabberd import components_of
from private_machine import CONFIGURATION, wait_until

KILLS = 20
FIRST = ("hosts=[a.example.test,b.example.test,c.example.test]", "authLevel=KERBEROS", "jabberdClientPortTLS=5300",
         "enableXMPP=no", "savedChatsArchiveInterval=1")
SECOND = ("hosts=[d.example.test,e.example.test]", "authLevel=ANYMETHOD", "jabberdClientPortTLS=5301",
          "enableXMPP=yes", "savedChatsArchiveInterval=2")


def assert_whole(service):
    """Every component file is one document with its own root and its own end, and the master file lists what a
    master file must."""
    kinds = {"users" if name == "router-users.xml" else name.split(".")[0].split("_")[0]: name
             for name in service.configuration_files()}
    for name, text in service.configuration_files().items():
        if name.endswith(".xml"):
            root = xml.dom.minidom.parseString(text).documentElement.tagName
            assert root in kinds and text.rstrip().endswith(f"</{root}>".encode()), name
    master = service.machine.read(f"{CONFIGURATION}/jabberd.cfg")
    assert master.endswith("\n")
    assert {"router", "sm", "c2s", "s2s"} == {kind for kind, _ in components_of(master)}


def test_twenty_kills_at_random_moments_leave_whole_files_and_a_daemon_that_works(service):
    # Both directions once, which also tells how long a write takes.
    begin = time.monotonic()
    service.set(*FIRST)
    duration = time.monotonic() - begin
    wanted_first = service.settings()
    service.set(*SECOND)
    wanted_second = service.settings()
    seed = random.randrange(2**32)
    print(f"seed {seed}, a write takes {duration:.3f} s")
    moments = random.Random(seed)

    for number in range(KILLS):
        words, wanted = ((FIRST, wanted_first), (SECOND, wanted_second))[number % 2]
        pid = service.machine.daemon_pid()
        client = service.machine.popen("tessardctl", "settings", "set", *words, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(moments.uniform(0, duration))
        service.machine.run("kill", "-KILL", pid)
        client.wait(30)
        assert_whole(service)
        wait_until(lambda old=pid: service.machine.daemon_pid() not in (0, old), "the daemon's return")
        service.machine.wait_for_daemon()
        service.set(*words)
        assert service.settings() == wanted
        assert_whole(service)
