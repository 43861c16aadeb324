"""A client of the service in the private machine: logs in over TLS, publishes a text, reads it back, and stays until
its standard input ends. The first line of that is the password.
Usage: xmpp_client.py ADDRESS AUTHORITIES NODE TEXT"""

import asyncio
import sys

import slixmpp
from slixmpp.exceptions import IqError, IqTimeout
from slixmpp.xmlstream import ET


class Client(slixmpp.ClientXMPP):
    def __init__(self, address, authorities, password, node, text):
        super().__init__(address, password)
        self.ca_certs = authorities
        self.register_plugin("xep_0060")
        self._node, self._text = node, text
        self.failure = "the server ended the connection"
        self.add_event_handler("session_start", self._begin)
        self.add_event_handler("failed_all_auth", lambda _: self._end("the server refuses the password"))
        self.add_event_handler("connection_failed", lambda reason: self._end(f"no connection: {reason}"))
        self.add_event_handler("ssl_invalid_chain", lambda _: self._end("the certificate is not trusted"))

    async def _begin(self, _):
        try:
            self.send_presence()
            cipher = self.transport.get_extra_info("cipher")
            print(f"logged in as {self.boundjid.bare} over {cipher[1]}", flush=True)
            await self._publish()
        except (IqError, IqTimeout) as problem:
            self._end(f"a request was answered with {problem.condition}")
            return
        await asyncio.get_event_loop().run_in_executor(None, sys.stdin.read)
        self._end(None)

    async def _publish(self):
        pubsub, service = self["xep_0060"], f"pubsub.{self.boundjid.host}"
        await pubsub.create_node(service, self._node)
        payload = ET.Element("{urn:example:test}text")
        payload.text = self._text
        await pubsub.publish(service, self._node, payload=payload)
        answer = await pubsub.get_items(service, self._node)
        texts = [item["payload"].text for item in answer["pubsub"]["items"]]
        print(f"published on {service}, node {self._node}: {', '.join(texts)}", flush=True)

    def _end(self, failure):
        self.failure = failure
        self.abort() if failure else self.disconnect()


def main():
    address, authorities, node, text = sys.argv[1:]
    client = Client(address, authorities, sys.stdin.readline().rstrip("\n"), node, text)
    client.connect(("127.0.0.1", 5218))
    client.process(forever=False)
    if client.failure:
        print(f"xmpp_client: {client.failure}", file=sys.stderr)
    return 1 if client.failure else 0


sys.exit(main())
