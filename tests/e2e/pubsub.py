"""The publish-subscribe service in a private machine, and clients of it."""

import json
import os
import plistlib
import subprocess

from certificates import PUBLIC_CA_FILE
from jabberd import add_user
from private_machine import wait_until

LABEL = "com.velto.Beaconry"
SERVICE_DIRECTORY = f"/run/service/{LABEL}"
ROUTER_DIRECTORY = "/run/service/org.jabber.jabberd_notification"
LAUNCHER = "/usr/libexec/tessardd/pubsub_launcher"
SETTINGS = f"/Library/Preferences/{LABEL}.plist"
PID_FILE = "/var/run/Beaconry.pid"
DATA = "/var/lib/tessard-pubsub"
ERROR_LOG = "/var/log/idavoll/error.log"
DOMAIN = "push.example.test"
ADDRESS = f"pubsub.{DOMAIN}"

# Takes an address, the component's, a port and the file of authorities, and the password as the first line of standard
# input. Carries out the words after them one by one, "create NODE", "subscribe NODE", "publish NODE TEXT", "delete NODE",
# "items NODE", "features", and says each result as one line of JSON; "listen" says what comes in until the standard input
# ends.
_CLIENT = """
import asyncio, json, sys
import slixmpp
from slixmpp.exceptions import IqError
from slixmpp.xmlstream import ET
def say(*words):
    print(json.dumps(words), flush=True)
class Client(slixmpp.ClientXMPP):
    def __init__(self, jid, service, authorities, words):
        super().__init__(jid, sys.stdin.readline().rstrip("\\n"))
        self.ca_certs = authorities
        self.register_plugin("xep_0030")
        self.register_plugin("xep_0060")
        self.service, self.words = service, words
        self.add_event_handler("session_start", self.begin)
        self.add_event_handler("failed_all_auth", lambda _: self.refused())
        self.add_event_handler("pubsub_publish", lambda message: say(
            "event", message["pubsub_event"]["items"]["node"], message["pubsub_event"]["items"]["item"]["payload"].text))
    def refused(self):
        say("refused")
        self.abort()
    async def begin(self, _):
        self.send_presence()
        try:
            while self.words:
                await self.one(self.words.pop(0))
        except IqError as problem:
            say("error", problem.condition)
        self.disconnect()
    async def one(self, word):
        pubsub = self["xep_0060"]
        if word == "create":
            say("created", (await pubsub.create_node(self.service, self.words.pop(0)))["type"])
        elif word == "subscribe":
            answer = await pubsub.subscribe(self.service, self.words.pop(0))
            say("subscribed", answer["pubsub"]["subscription"]["subscription"])
        elif word == "publish":
            node, payload = self.words.pop(0), ET.Element("{urn:example:test}text")
            payload.text = self.words.pop(0)
            say("published", (await pubsub.publish(self.service, node, payload=payload))["type"])
        elif word == "delete":
            say("deleted", (await pubsub.delete_node(self.service, self.words.pop(0)))["type"])
        elif word == "items":
            answer = await pubsub.get_items(self.service, self.words.pop(0))
            say("items", *[item["payload"].text for item in answer["pubsub"]["items"]])
        elif word == "features":
            answer = await self["xep_0030"].get_info(jid=self.service)
            say("features", *sorted(answer["disco_info"]["features"]))
        elif word == "listen":
            say("listening")
            await asyncio.get_event_loop().run_in_executor(None, sys.stdin.read)
client = Client(sys.argv[1], sys.argv[2], sys.argv[4], sys.argv[5:])
client.connect(("127.0.0.1", int(sys.argv[3])))
client.process(forever=False)
"""


def password_of(jid):
    """Of an account that `add_user` made."""
    return f"secret of {jid.split('@')[0]}"


class Pubsub:
    """The service `com.velto.Beaconry` beside a jabberd that runs."""

    def __init__(self, service):
        self.service = service
        self.machine = service.machine
        self._forgotten = 0

    # --- settings -------------------------------------------------------------------------------------------

    def write_settings(self, **values):
        """What the administration daemon writes, and `values`; None leaves a key out."""
        settings = {"jid": "pubsub", "connectAsClient": False, "domain": DOMAIN,
                    "secret": self.service.router_password(), **values}
        content = plistlib.dumps({key: value for key, value in settings.items() if value is not None})
        place = self.machine.outside(SETTINGS)
        place.write_bytes(content)
        os.chown(place, 84, 0)
        place.chmod(0o660)

    # --- life -----------------------------------------------------------------------------------------------

    def control(self, directory, up, check=True):
        words = ("-wU", "-u") if up else ("-wD", "-d")
        return self.machine.run("s6-svc", words[0], "-T", "10000", words[1], directory, check=check)

    def start_router(self):
        self.control(ROUTER_DIRECTORY, up=True)

    def start(self, **keywords):
        return self.control(SERVICE_DIRECTORY, up=True, **keywords)

    def stop(self):
        self.control(SERVICE_DIRECTORY, up=False)

    def launch(self, *words, **keywords):
        """The launcher by itself, to its end."""
        return self.machine.run(LAUNCHER, *words, check=False, **keywords)

    def is_ready(self):
        return self.machine.run("s6-svstat", "-o", "ready", SERVICE_DIRECTORY).stdout == "true\n"

    def pid(self):
        """The launcher's; -1 when it is down."""
        return int(self.machine.run("s6-svstat", "-o", "pid", SERVICE_DIRECTORY).stdout)

    def parts(self):
        """Pid -> command line of every process of the service but the launcher."""
        rows = self.machine.run("ps", "-u", "84", "-o", "pid=,stat=,args=", check=False).stdout.splitlines()
        words = [row.split(maxsplit=2) for row in rows]
        return {int(pid): args for pid, stat, args in words if "/jabberd" not in args and not stat.startswith("Z")}

    def pid_of(self, part):
        """Of "component" or "PostgreSQL"."""
        sign = {"component": "/component.py ", "PostgreSQL": "/bin/postgres -D "}[part]
        return next(pid for pid, args in self.parts().items() if sign in args)

    def wait_for_next_run(self, old):
        wait_until(lambda: self.pid() not in (-1, old) and self.is_ready(), "the next run")

    def assert_nothing_runs(self):
        assert self.parts() == {}
        assert not self.machine.outside(PID_FILE).exists()

    # --- what it says ---------------------------------------------------------------------------------------

    def says(self, program):
        """Lines of "launcher" or "component" in the system log since `forget`."""
        return [line.split(": ", 1)[1] for line in self.machine.system_log().splitlines()[self._forgotten:]
                if f"pubsub_notification/{program}[" in line]

    def errors(self):
        log = self.machine.outside(ERROR_LOG)
        return log.read_text() if log.exists() else ""

    def forget(self):
        """What was logged until now."""
        self._forgotten = len(self.machine.system_log().splitlines())
        self.machine.outside(ERROR_LOG).unlink(missing_ok=True)

    # --- clients --------------------------------------------------------------------------------------------

    def add_account(self, name):
        """Where it does not exist yet. Its address."""
        add_user(self.machine, name)
        return f"{name}@{DOMAIN}"

    def ask(self, jid, *words, password=None, port=5218):
        """What the client says to each of the words, in order; not what it is told by the way. The password is that of
        `add_account` where none is given."""
        result = self.machine.run("python3", "-c", _CLIENT, jid, ADDRESS, port, PUBLIC_CA_FILE, *words, user=65534,
                                  input=f"{password or password_of(jid)}\n")
        said = [json.loads(line) for line in result.stdout.splitlines()]
        return [words for words in said if words[0] != "event"]

    def listener(self, jid, *words):
        return Listener(self.machine, jid, words)

    def sql(self, command, database="pubsub"):
        return self.machine.run("psql", "-h", f"{DATA}/socket", "-U", "tessard_owner", "-AtX", "-c", command,
                                database).stdout.splitlines()


class Listener:
    """A client that stays and tells what it is told."""

    def __init__(self, machine, jid, words):
        self._client = machine.popen("python3", "-c", _CLIENT, jid, ADDRESS, 5218, PUBLIC_CA_FILE, *words, "listen",
                                     user=65534, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._client.stdin.write(f"{password_of(jid)}\n")
        self._client.stdin.flush()

    def __enter__(self):
        while self.next() != ["listening"]:
            pass
        return self

    def __exit__(self, *_):
        self._client.communicate(timeout=30)

    def next(self):
        line = self._client.stdout.readline()
        assert line, "the client has ended"
        return json.loads(line)
