"""Starts components of jabberd2, one after the other, until each has loaded its configuration or has ended. Reads a JSON
list of kinds and files from standard input and writes a JSON list with null for each that loaded, or its words and exit
status. Runs in a private machine, where the router's port belongs to nobody else."""

import json
import os
import socket
import subprocess
import sys
import time

ROUTER = ("127.0.0.1", 5347)
PATIENCE = 20


def listens():
    with socket.socket() as probe:
        return probe.connect_ex(ROUTER) == 0


def loaded(component, listener):
    """Whether it has come so far that it speaks to others: the router listens, the others look for the router."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        if listener is None:
            if listens():
                return True
        else:
            try:
                listener.accept()[0].close()
                return True
            except TimeoutError:
                pass
        if component.poll() is not None:
            return False
        time.sleep(0.005)
    raise SystemExit("a component neither loads its configuration nor ends")


def load(kind, path):
    listener = None
    if kind != "router":
        listener = socket.create_server(ROUTER)
        listener.settimeout(0.02)
    component = subprocess.Popen([f"jabberd2-{kind}", "-c", path], user=84, group=84, extra_groups=[],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        fine = loaded(component, listener)
    finally:
        component.kill()
        words = component.communicate()[0].decode(errors="replace")
        if listener:
            listener.close()
    return None if fine else f"{kind} {os.path.basename(path)}: exit status {component.returncode}: {words.strip()}"


print(json.dumps([load(kind, path) for kind, path in json.load(sys.stdin)]))
