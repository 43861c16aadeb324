"""A system log for the private machine: writes every message that comes to a datagram socket, with the time and
its priority's number, as one line of a file."""

import os
import re
import socket
import sys
import time


def line_of(message):
    match = re.match(r"<(\d{1,3})>", message)
    priority, text = (match.group(1), message[match.end():]) if match else ("-", message)
    # The time that the sender put there has no year and no zone.
    text = re.sub(r"^[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ", "", text)
    text = "".join(c if c.isprintable() else "?" for c in text.rstrip("\n\0"))
    return f"{time.strftime('%Y-%m-%dT%H:%M:%SZ', time.gmtime())} {priority} {text}\n"


def main():
    _, address, path = sys.argv
    if os.path.lexists(address):
        os.unlink(address)
    with open(path, "a", encoding="utf-8") as log, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as inlet:
        os.chmod(path, 0o640)
        inlet.bind(address)
        os.chmod(address, 0o666)
        while True:
            log.write(line_of(inlet.recv(65536).decode("utf-8", "replace")))
            log.flush()


main()
