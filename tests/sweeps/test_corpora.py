"""Documents that others made to try parsers with: what is not XML is refused, the rest is refused or accepted as a list
says, nothing beside a document is ever opened, and what is accepted is written as it was read."""

import re
import subprocess
from pathlib import Path
from xml.parsers import expat

import pytest
from hosttools import buildDirectory
from sweeptools import FULL, SANITIZED, report
from xmlsuite import SuiteMissing, documents, unpack

HERE = Path(__file__).parent
OWN = HERE / "documents"
LIST = HERE / "xml_verdicts.txt"
# Error codes of XmlDocument, and what the list calls them.
CLASSES = {"accepted": "accepted", "refused 1001": "refused: has a document type", "refused 1003": "refused: UTF-16",
           "refused 18": "refused: an encoding that is not known", "refused 30": "refused: a malformed XML declaration",
           "refused 4": "refused: a name that only the fifth edition or XML 1.1 allows"}


def verdicts(paths, trace=None):
    """What the product says about each file."""
    program = [str(buildDirectory() / "tests/sweeps/xml_verdicts")]
    if trace:
        program = ["strace", "-f", "-qq", "-s", "4096", "-o", str(trace), "-e",
                   "trace=open,openat,openat2,creat,execve,socket,connect", *program]
    result = subprocess.run(program, input="\n".join(map(str, paths)), capture_output=True, text=True, check=True, timeout=300)
    found = {}
    for line in result.stdout.splitlines():
        verdict, path = re.fullmatch(r"(accepted|changed|unreadable|refused \d+) (.*)", line).groups()
        found[path] = verdict
    assert list(found) == [str(path) for path in paths]
    return list(found.values())


def opened(trace):
    """What the program has done to files and the network, in order: system call and its words."""
    calls = []
    for line in trace.read_text(encoding="utf-8", errors="surrogateescape").splitlines():
        call, words = re.match(r"\d+ +(\w+)\((.*)\) += ", line).groups()
        path = re.search(r'"((?:[^"\\]|\\.)*)"', words)
        calls.append((call, path.group(1) if path else words))
    return calls


def assertNothingElseOpened(paths, trace):
    """From the first document on, the documents are opened one after the other, and nothing else is done."""
    calls = opened(trace)
    first = next(index for index, (_, path) in enumerate(calls) if path == str(paths[0]))
    assert [path for _, path in calls[first:]] == [str(path) for path in paths]
    assert {call for call, _ in calls[first:]} == {"openat"}


def pinned():
    """The class that the list gives each name."""
    found, of = {}, None
    for line in LIST.read_text(encoding="utf-8").splitlines():
        if line.startswith("== "):
            of = line[3:]
        elif line and not line.startswith("#"):
            found[line] = of
    return found


def withoutDocumentType(text):
    """A document without its document type declaration, the internal subset included."""
    begin = text.find(b"<!DOCTYPE")
    if begin < 0:
        return text
    piece = re.compile(rb"<!--.*?-->|<\?.*?\?>|\"[^\"]*\"|'[^']*'|[\[\]>]|.", re.DOTALL)
    depth = 0
    for found in piece.finditer(text, begin):
        depth += {b"[": 1, b"]": -1}.get(found.group(), 0)
        if found.group() == b">" and depth == 0:
            return text[:begin] + text[found.end():]
    return text


def isWellFormed(text):
    parser = expat.ParserCreate()
    try:
        parser.Parse(text, True)
    except expat.ExpatError:
        return False
    return True


@pytest.fixture(scope="module")
def suite(tmp_path_factory):
    try:
        return unpack(tmp_path_factory.mktemp("suite"))
    except SuiteMissing as reason:
        if FULL:
            pytest.fail(str(reason))
        pytest.skip(str(reason))


def test_our_own_documents_are_judged_by_their_names_and_nothing_beside_them_is_opened(tmp_path):
    paths = sorted(OWN.glob("*.xml"))
    found = verdicts(paths, None if SANITIZED else tmp_path / "trace")
    wanted = [path.name.split("-")[0] for path in paths]
    assert set(wanted) == {"accepted", "refused"} and len(paths) >= 20
    assert [verdict.split()[0] for verdict in found] == wanted
    if not SANITIZED:
        assertNothingElseOpened(paths, tmp_path / "trace")


def test_every_document_of_the_suite_is_judged_as_listed_and_nothing_beside_it_is_opened(suite, tmp_path):
    names = documents(suite)
    found = verdicts([suite / "xmlconf" / name for name in names], None if SANITIZED else tmp_path / "trace")
    wanted, accepted = pinned(), 0
    wrong = []
    for (name, types), verdict in zip(names.items(), found):
        accepted += verdict == "accepted"
        if types == {"not-wf"} and name not in wanted:
            right = verdict.startswith("refused")
        else:
            right = CLASSES.get(verdict) == wanted.get(name, "").split(",")[0]
        if not right:
            wrong.append((name, sorted(types), verdict, wanted.get(name)))
    report(f"{len(names)} documents, {accepted} accepted")
    assert wrong == []
    assert set(wanted) <= set(names)
    if not SANITIZED:
        assertNothingElseOpened([suite / "xmlconf" / name for name in names], tmp_path / "trace")


def test_the_suites_documents_without_their_types_are_accepted_when_they_are_xml_and_then_keep_every_byte(suite, tmp_path):
    paths, expected = [], []
    for number, name in enumerate(documents(suite)):
        text = withoutDocumentType((suite / "xmlconf" / name).read_bytes())
        # Python's parser is taught more encodings than jabberd2's.
        encoding = re.match(rb"(?:\xef\xbb\xbf)?<\?xml[^>]*?encoding\s*=\s*[\"']([^\"']*)", text)
        unlike = encoding and encoding.group(1).upper() not in (b"UTF-8", b"US-ASCII", b"ISO-8859-1")
        if unlike or text.startswith((b"\xff\xfe", b"\xfe\xff")) or b"\0" in text[:2]:
            continue
        paths.append(tmp_path / f"{number}.xml")
        paths[-1].write_bytes(text)
        # Python's parser goes by the declaration alone where a mark says otherwise.
        contradicted = encoding and text.startswith(b"\xef\xbb\xbf") and encoding.group(1).upper() != b"UTF-8"
        expected.append(isWellFormed(text) and not contradicted)
    found = [verdict == "accepted" for verdict in verdicts(paths)]
    report(f"{len(paths)} documents without document types, {sum(found)} accepted")
    assert [path.name for path, one, other in zip(paths, found, expected) if one != other] == []
    assert sum(found) > 500
