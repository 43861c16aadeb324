"""A client of the service in the private machine. Logs in over TLS with the password that is the first line of its
standard input, carries out one word, and says what came of it:
  create NODE        makes a node of the publish-subscribe component
  publish NODE TEXT  publishes a text there
  follow NODE        subscribes, and shows what is published until standard input ends
Usage: xmpp_client.py ADDRESS PORT AUTHORITIES WORD NODE [TEXT]"""

import asyncio
import sys

import slixmpp
from slixmpp.exceptions import IqError, IqTimeout
from slixmpp.xmlstream import ET


class Client(slixmpp.ClientXMPP):
    def __init__(self, address, authorities, password, words):
        super().__init__(address, password)
        self.ca_certs = authorities
        self.register_plugin("xep_0060")
        self._words = words
        self._service = f"pubsub.{self.boundjid.host}"
        self.failure = "the server ended the connection"
        self.add_event_handler("session_start", self._begin)
        self.add_event_handler("pubsub_publish", self._received)
        self.add_event_handler("failed_all_auth", lambda _: self._end("the server refuses the password"))
        self.add_event_handler("connection_failed", lambda reason: self._end(f"no connection: {reason}"))
        self.add_event_handler("ssl_invalid_chain", lambda _: self._end("the certificate is not trusted"))

    async def _begin(self, _):
        try:
            self.send_presence()
            cipher = self.transport.get_extra_info("cipher")
            print(f"logged in as {self.boundjid.bare} over {cipher[1]}", flush=True)
            await getattr(self, f"_{self._words[0]}")(*self._words[1:])
        except (IqError, IqTimeout) as problem:
            self._end(f"a request was answered with {problem.condition}")
            return
        self._end(None)

    async def _create(self, node):
        await self["xep_0060"].create_node(self._service, node)
        print(f"made the node {node} on {self._service}", flush=True)

    async def _publish(self, node, text):
        payload = ET.Element("{urn:example:test}text")
        payload.text = text
        await self["xep_0060"].publish(self._service, node, payload=payload)
        print(f"published on {self._service}, node {node}: {text}", flush=True)

    async def _follow(self, node):
        await self["xep_0060"].subscribe(self._service, node)
        print(f"follows the node {node} on {self._service}", flush=True)
        await asyncio.get_event_loop().run_in_executor(None, sys.stdin.read)

    def _received(self, message):
        items = message["pubsub_event"]["items"]
        print(f"received from the node {items['node']}: {items['item']['payload'].text}", flush=True)

    def _end(self, failure):
        self.failure = failure
        self.abort() if failure else self.disconnect()


def main():
    address, port, authorities, *words = sys.argv[1:]
    if [words[0], len(words)] not in (["create", 2], ["publish", 3], ["follow", 2]):
        print(__doc__, file=sys.stderr)
        return 64
    client = Client(address, authorities, sys.stdin.readline().rstrip("\n"), words)
    client.connect(("127.0.0.1", int(port)))
    client.process(forever=False)
    if client.failure:
        print(f"xmpp_client: {client.failure}", file=sys.stderr)
    return 1 if client.failure else 0


sys.exit(main())
