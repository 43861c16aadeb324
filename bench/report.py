"""The rows of a bench, the table that they make, and the targets."""

import math
from statistics import median


class Row:
    """One thing measured at one place for one number of domains."""

    def __init__(self, work, place, count, name, floor):
        self.work = work
        self.place = place
        self.count = count
        self.name = name
        self.floor = floor  # the name of the row that it is compared with
        self.samples = []
        self.calls = None

    @property
    def full_name(self):
        return f"{self.work} {self.count} {self.place}: {self.name}"

    @property
    def nanoseconds(self):
        return median(sample.nanoseconds for sample in self.samples)

    def memory(self, kind):
        known = [value for value in (getattr(sample, kind) for sample in self.samples) if value is not None]
        return max(known) if known else None


class Report:
    def __init__(self):
        self.rows = {}

    def row(self, work, place, count, name, floor):
        return self.rows.setdefault((work, place, count, name), Row(work, place, count, name, floor))

    def find(self, *key):
        row = self.rows.get(key)
        return row if row and row.samples else None

    def ratio(self, row):
        base = self.find(row.work, row.place, row.count, row.floor)
        return row.nanoseconds / base.nanoseconds if base else None

    def between(self, first, second):
        """The ratio of two rows by their keys; None unless both were measured."""
        one, other = self.find(*first), self.find(*second)
        return one.nanoseconds / other.nanoseconds if one and other else None

    def as_values(self):
        return [{"name": row.full_name, "work": row.work, "place": row.place, "domains": row.count, "row": row.name,
                 "repetitions": len(row.samples), "median_ns": row.nanoseconds, "ratio_to_floor": self.ratio(row),
                 "floor": row.floor, "peak_kib": row.memory("peak"), "anonymous_kib": row.memory("anonymous"),
                 "system_calls": row.calls} for row in self.rows.values() if row.samples]

    def table(self):
        lines = [f"{'':58} {'median':>10} {'x floor':>8} {'peak':>9} {'anon.':>9} {'calls':>8}"]
        previous = None
        for row in self.rows.values():
            if not row.samples:
                continue
            group = (row.work, row.place, row.count)
            if group != previous:
                lines.append(f"{row.work}, {row.count} domain{'s' if row.count > 1 else ''}, {row.place}")
                previous = group
            ratio, peak, anonymous = self.ratio(row), row.memory("peak"), row.memory("anonymous")
            lines.append(f"  {row.name:56} {_time(row.nanoseconds):>10} {_or_blank(ratio, '.2f'):>8} {_kib(peak):>9} "
                         f"{_kib(anonymous):>9} {_or_blank(row.calls, '.0f'):>8}")
        return "\n".join(lines)


def _time(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.2f} {unit}"
    return f"{nanoseconds:.0f} ns"


def _kib(size):
    return "" if size is None else f"{size / 1024:.1f} MiB"


def _or_blank(value, form):
    return "" if value is None else format(value, form)


FLUSHED, FLUSHED_INSIDE = "floor, one flush", "floor, one flush, in process"
# Behind the names of rows of a write that first makes each further domain's file a copy of the first one's, as the daemon
# does: the copy becomes the backup.
COPIES = ", with copies"
READING, READING_INSIDE = "floor", "floor, in process"
SOCKET, KEPT, INSIDE = "over the socket", "over the socket, kept connection", "in process"
STARTED, TOOL = "daemon started for it, until its end", "tessardctl, daemon running"


def _growth(report, place, name):
    """The exponent that the time grows with from 100 to 10,000 domains."""
    ratio = report.between(("write", place, 10000, name), ("write", place, 100, name))
    return math.log(ratio, 100) if ratio else None


def _fastest(report, work, place, count, names):
    rows = [row for row in (report.find(work, place, count, name) for name in names) if row]
    return min(rows, key=lambda row: row.nanoseconds) if rows else None


def targets(report, peers):
    """(what, limit, number or None, whether it must be at most or at least the limit) for every target. `peers` are
    the names of the rows of other programs."""
    made = []

    def most(what, limit, number):
        made.append((what, limit, number, "at most"))

    def least(what, limit, number):
        made.append((what, limit, number, "at least"))

    places = dict.fromkeys(key[1] for key in report.rows if key[0] == "write")
    for place in places:
        for count, limit in ((1000, 2.5 if place == "tmpfs" else 1.5), (1, 3)):
            for name, base in ((SOCKET, FLUSHED), (INSIDE, FLUSHED_INSIDE), (STARTED, FLUSHED)):
                most(f"write {count}, {place}, {name} / {base}", limit,
                     report.between(("write", place, count, name), ("write", place, count, base)))
            if count > 1:
                most(f"write {count}, {place}, {SOCKET} / {FLUSHED}{COPIES}", limit,
                     report.between(("write", place, count, SOCKET), ("write", place, count, FLUSHED + COPIES)))
        for name in (SOCKET, INSIDE):
            most(f"write, growth from 100 to 10,000 domains, {place}, {name}", 1.05, _growth(report, place, name))
    for key in [key for key in report.rows if key[0] == "read" and key[3] == KEPT]:
        most(f"read {key[2]}, {KEPT} / the floor's whole process", 1, report.between(key, (*key[:3], READING)))
        least(f"read {key[2]}, xmlstarlet / {KEPT}", 20, report.between((*key[:3], "xmlstarlet"), key))
        for peer in ("lxml", "augtool"):
            least(f"read {key[2]}, {peer} / {KEPT}", 100, report.between((*key[:3], peer), key))
    for key in [key for key in report.rows if key[0] == "state" and key[3] == KEPT]:
        most(f"state, {KEPT} / ejabberd's", 1, report.between(key, (*key[:3], "ejabberd, kept connection")))
    for work, place, count in dict.fromkeys(key[:3] for key in report.rows if key[0] == "write"):
        for names in (peers, [name + COPIES for name in peers]):
            best = _fastest(report, work, place, count, names)
            if not best:
                continue
            most(f"write {count}, {place}, {SOCKET} / {best.name}, the fastest peer", 1,
                 report.between((work, place, count, SOCKET), (work, place, count, best.name)))
    for count, limit in ((1, 16), (1000, 64)):
        sizes = [row.memory("anonymous") for row in report.rows.values()
                 if row.count == count and row.name in (SOCKET, KEPT) and row.memory("anonymous")]
        most(f"anonymous memory of the daemon with {count} domain{'s' if count > 1 else ''}, MiB", limit,
             max(sizes) / 1024 if sizes else None)
    return made


def reached(target):
    """True or False; None when it was not measured."""
    _, limit, number, kind = target
    if number is None:
        return None
    return number <= limit if kind == "at most" else number >= limit


def target_lines(made):
    words = {True: "reached", False: "MISSED", None: "not measured"}
    return "\n".join(f"  {what:88} {kind} {limit:<5} {_or_blank(number, '.3f'):>9}  {words[reached((what, limit, number, kind))]}"
                     for what, limit, number, kind in made)
