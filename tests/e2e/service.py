"""The administration daemon in a private machine, as its administrators use it."""

import http.client
import json
import plistlib
import socket
import xml.dom.minidom

from private_machine import CONFIGURATION, SOCKET

JSON = "application/json"
PLIST = "application/x-plist"
COMPONENT_FILES = ("router.xml", "router-users.xml", "sm.xml", "c2s.xml", "s2s.xml")
DATABASE = "/private/var/jabberd/sqlite/jabberd2_notification.db"
PREFERENCES = "/Library/Preferences/com.velto.tessard_notification.plist"


class _Connection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=120)
        self.path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


class Service:
    def __init__(self, machine):
        self.machine = machine

    def tool(self, *words, **keywords):
        """Runs tessardctl inside; a failure raises unless `check` says otherwise."""
        return self.machine.run("tessardctl", *words, **keywords)

    def set(self, *words, **keywords):
        return self.tool("settings", "set", *words, **keywords)

    def settings(self):
        return json.loads(self.tool("--json", "settings", "get").stdout)

    def post(self, request, sent=JSON, accepted=JSON, path="/v1/plugins/notification"):
        """Sends a request dictionary in one form and returns the answer, read from the other."""
        body = json.dumps(request).encode() if sent == JSON else plistlib.dumps(request)
        connection = _Connection(self.machine.outside(SOCKET))
        try:
            connection.request("POST", path, body,
                               {"Content-Type": sent, "Accept": accepted})
            answer = connection.getresponse()
            text = answer.read()
            assert answer.status == 200, text
            assert answer.getheader("Content-Type").split(";")[0] == accepted
            return json.loads(text) if accepted == JSON else plistlib.loads(text)
        finally:
            connection.close()

    # --- what stands in the files ---------------------------------------------------------------------------

    def configuration_files(self):
        """Name -> bytes of everything in the configuration directory but backups and temporary files."""
        return {file.name: file.read_bytes()
                for file in sorted(self.machine.outside(CONFIGURATION).iterdir())
                if file.suffix in (".xml", ".cfg")}

    def document(self, name):
        """A component file, parsed."""
        return xml.dom.minidom.parseString(self.machine.outside(f"{CONFIGURATION}/{name}").read_bytes())

    def values(self, path, name=None):
        """Texts of the live elements at a dotted path, in the order of the file."""
        first, *rest = path.split(".")
        nodes = [self.document(name or f"{first}.xml").documentElement]
        for tag in rest:
            nodes = [child for node in nodes for child in node.childNodes if child.nodeName == tag]
        return ["".join(each.data for each in node.childNodes) for node in nodes]

    def router_password(self):
        return self.values("router.local.secret")[0]

    def log(self):
        """All that the machine logged so far."""
        return self.machine.system_log() + self.machine.read("/var/log/tessardd.log")
