"""Besieges a daemon's socket until standard input ends. Run as the user that attacks.
Usage: flooder.py SOCKET KIND COUNT, where KIND is one of the functions below"""

import json
import resource
import select
import socket
import sys
import time

HEAD = b"POST /v1/plugins/notification HTTP/1.1\r\nHost: x\r\nContent-Type: "
JSON, PLIST = b"application/json\r\n", b"application/x-plist\r\n"
GIBIBYTE = 1 << 30


class Siege:
    """Connections that are made anew whenever they end."""

    def __init__(self, path, count, first=b""):
        self.path, self.count, self.first = path, count, first
        self.poll = select.epoll()
        self.poll.register(sys.stdin, select.EPOLLIN | select.EPOLLHUP)
        self.open = {}
        self.rest = {}  # by descriptor: what is still to be sent
        self.made = 0

    def fill(self):
        """As many connections as wanted, or as the daemon takes at the moment."""
        while len(self.open) < self.count:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
            try:
                connection.connect(self.path)
            except BlockingIOError:
                connection.close()
                return
            self.made += 1
            self.open[connection.fileno()] = connection
            self.rest[connection.fileno()] = memoryview(self.first)
            self.poll.register(connection, select.EPOLLRDHUP | (select.EPOLLOUT if self.first else 0))

    def close(self, descriptor):
        self.poll.unregister(descriptor)
        self.open.pop(descriptor).close()

    def send(self, descriptor, data):
        """How many bytes were taken; nothing of a connection that has ended."""
        try:
            return self.open[descriptor].send(data)
        except BlockingIOError:
            return 0
        except (BrokenPipeError, ConnectionResetError):
            self.close(descriptor)
            return 0

    def run(self, everySecond=None, more=None):
        """`more` gives what comes after what a connection has sent first."""
        second = time.monotonic() + 1
        told = False
        while True:
            self.fill()
            if not told and self.made >= self.count:
                print("all made", flush=True)
                told = True
            for descriptor, events in self.poll.poll(0.1):
                if descriptor == sys.stdin.fileno():
                    print(json.dumps({"made": self.made}), flush=True)
                    return
                if events & (select.EPOLLRDHUP | select.EPOLLHUP | select.EPOLLERR):
                    self.close(descriptor)
                elif events & select.EPOLLOUT:
                    rest = self.rest[descriptor]
                    rest = rest[self.send(descriptor, rest[:65536]):]
                    self.rest[descriptor] = rest if rest or not more else memoryview(more)
                    if not self.rest[descriptor] and descriptor in self.open:
                        self.poll.modify(descriptor, select.EPOLLRDHUP)
            if everySecond and time.monotonic() >= second:
                second += 1
                for descriptor in list(self.open):
                    self.send(descriptor, everySecond)


def idle(path, count):
    Siege(path, count).run()


def slowHeaders(path, count):
    Siege(path, count, HEAD + JSON + b"X-Long: ").run(everySecond=b"x")


def slowBodies(path, count):
    Siege(path, count, HEAD + JSON + b"Content-Length: 1000000\r\n\r\n" + b" " * 900000).run(everySecond=b" ")


def announced(path, count):
    Siege(path, count, HEAD + JSON + b"Content-Length: %d\r\n\r\n" % GIBIBYTE).run(more=b" " * 65536)


def chunked(path, count):
    chunk = b"10000\r\n" + b" " * 65536 + b"\r\n"
    Siege(path, count, HEAD + JSON + b"Transfer-Encoding: chunked\r\n\r\n").run(more=chunk)


def post(kind, body):
    return HEAD + kind + b"Content-Length: %d\r\n\r\n" % len(body) + body


def deepJson(path, count):
    Siege(path, count, post(JSON, b"[" * 1_000_000)).run()


def deepList(path, count):
    Siege(path, count, post(PLIST, (b"<plist>" + b"<array>" * 1_000_000)[:1_000_000])).run()


def manyValues(path, count):
    Siege(path, count, post(JSON, b'{"command": "echo", "list": [' + b"0," * 500_000 + b"0]}")).run()


def untaken(path, count):
    """Answers that nobody takes."""
    body = json.dumps({"command": "echo", "text": "x" * 1_000_000}).encode()
    Siege(path, count, post(JSON, body)).run()


KINDS = {kind.__name__: kind
         for kind in [idle, slowHeaders, slowBodies, announced, chunked, deepJson, deepList, manyValues, untaken]}


def main():
    path, kind, count = sys.argv[1:]
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(int(count) + 64, hard), hard))
    KINDS[kind](path, int(count))


main()
