"""What is measured: each work as a list of variants, which are run in turn, each on a fresh tree."""

import os

import daemons
from report import COPIES, FLUSHED, FLUSHED_INSIDE, INSIDE, KEPT, READING, READING_INSIDE, SOCKET, STARTED, TOOL
from runs import Sample
from trees import READ

PLUGIN = "/v1/plugins/notification"
ANEW = "over the socket, a connection each"
UNTIL_ANSWER = "daemon started for it, until the answer"


class Variant:
    """`run` measures on a fresh tree and gives a sample for each of its rows, in the order of `rows`; `calls` counts
    the system calls of the same, for each row or None. What takes very long is run `at_most` so often."""

    def __init__(self, rows, run, calls=None, at_most=None):
        self.rows = rows
        self.run = run
        self.calls = calls
        self.at_most = at_most


def _server(tree):
    return f"unix:{tree.root}/run/tessardd/tessardd.sock"


class Product:
    def __init__(self, tools):
        self.tools = tools

    def _tool(self, tree, *words):
        return [str(self.tools.build / "bin/tessardctl"), "--socket", f"{tree.root}/run/tessardd/tessardd.sock", *words]

    def _words(self, tree, work):
        if work == "write":
            return self._tool(tree, "settings", "set", "--file", str(tree.beside / "settings.json"))
        return self._tool(tree, *{"read": ("settings", "get"), "state": ("state",)}[work])

    # --- a warm daemon --------------------------------------------------------------------------------------

    def socket(self, work, rounds):
        """Both ways of connecting, for work that changes nothing."""
        def run(tree):
            with daemons.Daemon(tree.root, self.tools.build) as daemon:
                times = [self.tools.requests(_server(tree), PLUGIN, tree.request(work), "--warm", "5", "--requests",
                                             str(rounds), *options) for options in ([], ["--reconnect"])]
                return [Sample(time, *daemon.memory()) for time in times]

        def calls(tree):
            with daemons.Daemon(tree.root, self.tools.build) as daemon:
                self.tools.requests(_server(tree), PLUGIN, tree.request(work), "--warm", "5")
                many, one = (self.tools.calls_during(
                    daemon.process, lambda: self.tools.requests(_server(tree), PLUGIN, tree.request(work), "--requests", str(n)))
                    for n in (11, 1))
                return [(many - one) / 10 if many and one else None, one]

        return Variant([(KEPT, READING), (ANEW, READING)], run, calls)

    def write_over_socket(self):
        def run(tree):
            with daemons.Daemon(tree.root, self.tools.build) as daemon:
                daemon.post(READ)
                time = self.tools.requests(_server(tree), PLUGIN, tree.request("write"))
                return [Sample(time, *daemon.memory())]

        def calls(tree):
            with daemons.Daemon(tree.root, self.tools.build) as daemon:
                daemon.post(READ)
                return [self.tools.calls_during(
                    daemon.process, lambda: self.tools.requests(_server(tree), PLUGIN, tree.request("write")))]

        return Variant([(SOCKET, FLUSHED)], run, calls)

    def tool(self, work, floor):
        def run(tree):
            with daemons.Daemon(tree.root, self.tools.build) as daemon:
                daemon.post(READ)
                return [self.tools.whole(*self._words(tree, work), statuses=(0, os.EX_DATAERR))]

        return Variant([(TOOL, floor)], run)

    # --- without one ----------------------------------------------------------------------------------------

    def started(self, work, floor):
        words = daemons.command

        def run(tree):
            return list(self.tools.started(words(tree.root, self.tools.build), _server(tree), PLUGIN, tree.request(work)))

        return Variant([(UNTIL_ANSWER, floor), (STARTED, floor)], run)

    def inside(self, work, floor, rounds=1):
        def arguments(tree):
            measured = f"{rounds}:{tree.request(work)}" if rounds > 1 else tree.request(work)
            return [f"2:{tree.request('read')}", measured]

        def run(tree):
            return [self.tools.inside(tree, *arguments(tree))]

        return Variant([(INSIDE, floor)], run)


class Floor:
    def __init__(self, tools):
        self.tools = tools

    def variant(self, work, files, rows):
        def run(tree):
            return list(self.tools.floor(work, tree.files(files)))

        def calls(tree):
            return [self.tools.calls_of(self.tools.program("bench_floor"), work, tree.files(files)), None]

        return Variant(rows, run, calls)


def variants(tools, work, count, rounds):
    """The variants of the product and of the floor."""
    floor, product = Floor(tools), Product(tools)
    if work == "write":
        return [floor.variant("write", "write",
                              [("floor, no flush", FLUSHED), ("floor, no flush, in process", FLUSHED_INSIDE)]),
                floor.variant("write-flushed", "write", [(FLUSHED, FLUSHED), (FLUSHED_INSIDE, FLUSHED_INSIDE)]),
                floor.variant("write-flushed", "copy",
                              [(FLUSHED + COPIES, FLUSHED), (FLUSHED + COPIES + ", in process", FLUSHED_INSIDE)]),
                product.write_over_socket(), product.tool(work, FLUSHED), product.started(work, FLUSHED),
                product.inside(work, FLUSHED_INSIDE)]
    reading = [floor.variant("read", "read", [(READING, READING), (READING_INSIDE, READING_INSIDE)])] if work == "read" else []
    inside = READING_INSIDE if work == "read" else READING
    return [*reading, product.socket(work, rounds), product.tool(work, READING), product.started(work, READING),
            product.inside(work, inside, rounds)]
