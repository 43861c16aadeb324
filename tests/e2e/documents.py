"""Pages of the documentation, as the sessions at a terminal that they show.

A fenced block marked "console" is such a session. A line that begins with "# " is a command of root's, one that begins
with "NAME$ " a command of that user's; a "\\" at a line's end continues it. What follows up to the next command is
what the command says. There "[...]" alone in a line stands for any number of lines, and at a line's end for the rest
of it. What a block marked "python" prints is in the "text" block behind it. The one command in a block marked
"console elsewhere" goes on in a terminal of its own; what it says comes with what the next block does."""

import re
import shlex
from dataclasses import dataclass, field

_FENCE = re.compile(r"^```(\S*)(.*)$")
_PROMPT = re.compile(r"^(?:#|(\w+)\$) (?!EOF)(.+)$")
# What differs from run to run: moments, whole days up to one (one less a second later), serial numbers and fingerprints,
# process numbers.
_VARIABLE = (
    (re.compile(r"\b\d{4}-\d\d-\d\d([T ]\d\d:\d\d(:\d\d)?)?(\.\d+)?(Z| [+-]\d{4})?"), "MOMENT"),
    (re.compile(r"\b[A-Z][a-z]{2} [ \d]\d \d\d:\d\d(:\d\d)?"), "MOMENT"),
    (re.compile(r"\b\d+ days left\b"), "DAYS left"),
    (re.compile(r"\b([0-9A-Fa-f]{2}:){7,}[0-9A-Fa-f]{2}\b|\b[0-9A-Fa-f]{16,}\b"), "HEX"),
    (re.compile(r"\[\d+\]"), "[PID]"),
    (re.compile(r"\bpid \d+|\"pid\": ?\d+"), "PID"),
    (re.compile(r"[ \t]+"), " "),
)


@dataclass
class Command:
    page: str
    line: int
    user: str
    text: str
    says: list = field(default_factory=list)
    goes_on: bool = False
    block: int = 0

    def __str__(self):
        return f"{self.page}:{self.line}: {self.text}"


@dataclass
class Block:
    page: str
    line: int
    kind: str
    goes_on: bool
    lines: list


def blocks(path):
    """The fenced blocks of a page, in their order."""
    found, open_block = [], None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        fence = _FENCE.match(line)
        if open_block is None and fence:
            open_block = Block(path.name, number, fence[1], fence[2].strip() == "elsewhere", [])
        elif fence:
            found.append(open_block)
            open_block = None
        elif open_block is not None:
            open_block.lines.append(line)
    return found


def commands(path):
    """The commands of a page's sessions, and its Python programs, in their order."""
    found = []
    listed = blocks(path)
    for block, following in zip(listed, [*listed[1:], None], strict=True):
        if block.kind == "console":
            found += _session(block)
        if block.kind == "python":
            found.append(Command(block.page, block.line, "root", f"python3 -c {shlex.quote(chr(10).join(block.lines))}", following.lines))
    return found


def _session(block):
    found = []
    lines = iter(enumerate(block.lines, block.line + 1))
    for number, line in lines:
        prompt = _PROMPT.match(line)
        if not prompt:
            found[-1].says.append(line)
            continue
        text = prompt[2]
        while text.endswith("\\"):
            text = text[:-1] + next(lines)[1].strip()
        found.append(Command(block.page, number, prompt[1] or "root", text, goes_on=block.goes_on, block=block.line))
    return found


def _plain(line):
    for pattern, name in _VARIABLE:
        line = pattern.sub(name, line)
    return line.rstrip()


def _line_matches(shown, said):
    shown, said = _plain(shown), _plain(said)
    return said.startswith(shown.removesuffix("[...]").rstrip()) if shown.endswith("[...]") else shown == said


def shown_in_order(shown, said):
    """The first line of those that a page shows which a program did not say behind the ones before it; None when all
    are there."""
    rest = iter(said)
    for line in shown:
        if line != "[...]" and not any(_line_matches(line, each) for each in rest):
            return line
    return None


def says(shown, said):
    """Whether the lines that a page shows stand for those that a program said."""
    if not shown:
        return not said
    if shown[0] == "[...]":
        return any(says(shown[1:], said[skipped:]) for skipped in range(len(said) + 1))
    return bool(said) and _line_matches(shown[0], said[0]) and says(shown[1:], said[1:])
