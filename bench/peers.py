"""Other programs at the same work: each gets it in its own words, and what it read or wrote is compared like ours."""

import os
import shlex
import subprocess
import xml.etree.ElementTree as ET
from pathlib import Path

from edits import edits_of
from report import COPIES, FLUSHED, READING
from works import Variant

PEERS = ("xmlstarlet", "lxml", "augtool", "libxml2", "pugixml")
# Above so many domains one run takes minutes.
_MOST = {"xmlstarlet": 1000, "lxml": 1000, "augtool": 10, "libxml2": 10000, "pugixml": 10000}
_SLOW = ("xmlstarlet", "lxml")
# The fastest, which also do a write with copies.
_COPYING = ("libxml2", "pugixml")
_LIBRARIES = "usr/lib/x86_64-linux-gnu"
_SOURCES = Path(__file__).resolve().parent / "peers"

# About as many settings as the daemon reads, by file.
READ_PATHS = {
    "c2s": ["local/id", "local/pemfile", "local/cachain", "local/port", "local/ssl-port",
            "authreg/mechanisms/traditional/plain", "authreg/mechanisms/traditional/cram-md5",
            "authreg/mechanisms/sasl/gssapi", "authreg/mechanisms/sasl/plain", "authreg/mechanisms/sasl/digest-md5",
            "authreg/ssl-mechanisms/sasl/plain", "authreg/ssl-mechanisms/traditional/plain"],
    "s2s": ["local/port", "security/require_tls", "security/enable_whitelist", "security/whitelist_domain"],
    "sm": ["local/id", "pidfile", "storage/sqlite/dbname"],
    "router": ["local/port", "local/secret"],
}


def _root_of(file):
    return "sm" if file.startswith("sm") else file.partition(".")[0]


class Peers:
    def __init__(self, tools, tree, scratch):
        self.tools = tools
        self.tree = tree
        self._environment = {"PATH": f"/usr/bin:/bin:{tree}/usr/bin", "LC_ALL": "C.UTF-8",
                             "LD_LIBRARY_PATH": f"{tree}/{_LIBRARIES}", "PYTHONPATH": f"{tree}/usr/lib/python3/dist-packages",
                             "AUGEAS_LENS_LIB": f"{tree}/usr/share/augeas/lenses/dist"}
        self._programs = {name: self._compiled(name, Path(scratch)) for name in ("libxml2", "pugixml")}

    def _compiled(self, name, scratch):
        program = scratch / f"{name}_edit"
        subprocess.run(["g++", "-std=c++20", "-O2", f"-I{_SOURCES.parents[1]}", f"-I{self.tree}/usr/include",
                        f"-I{self.tree}/usr/include/libxml2", str(_SOURCES / f"{name}_edit.cpp"), "-o", str(program),
                        f"-L{self.tree}/{_LIBRARIES}", f"-Wl,-rpath-link,{self.tree}/{_LIBRARIES}",
                        "-lxml2" if name == "libxml2" else "-lpugixml"], check=True)
        return program

    # --- orders ---------------------------------------------------------------------------------------------

    @staticmethod
    def _order(tree, work, copies):
        lines = []
        if work == "read":
            for kind, paths in READ_PATHS.items():
                lines += [f"F\t{tree.configuration}/{kind}.xml", *(f"R\t{path}\t{kind}/{path}" for path in paths)]
        else:
            for name, edits in edits_of(tree).items():
                file = f"{tree.configuration}/{name}"
                copied = copies and name in tree.further
                lines.append(f"C\t{file}\t{tree.configuration}/sm.xml" if copied else f"F\t{file}")
                for kind, path, *words in edits:
                    if kind == "list":
                        words = ["|".join(words[0]), "|".join(f"{key}={value}" for key, value in words[1].items())]
                    lines.append("\t".join([kind[0].upper(), path, *words]))
        order = tree.beside / f"{work}.order"
        order.write_text("".join(f"{line}\n" for line in lines))
        return str(order)

    def _xmlstarlet_read(self, tree):
        words = ["xmlstarlet", "sel", "-t"]
        for kind, paths in READ_PATHS.items():
            for path in paths:
                words += ["-i", f"/{kind}", "-v", f"concat('{kind}/{path}=', /{kind}/{path})", "-n", "-b"]
        return [*words, *(f"{tree.configuration}/{kind}.xml" for kind in READ_PATHS)]

    def _xmlstarlet_write(self, tree, texts):
        """A script with one call for each file, and one for all of everything else."""
        lines = ["set -e", f"cd {tree.configuration}", "mkdir new"]
        for name, edits in edits_of(tree).items():
            kind = _root_of(name)
            words = ["xmlstarlet", "ed", "-P"]
            root = ET.fromstring(texts[kind])
            for edit in edits:
                words += _xmlstarlet_edit(kind, root, *edit)
            lines.append(f"{shlex.join([*words, name])} >new/{name}")
        lines += [*(["chown 84:0 new/*"] if os.geteuid() == 0 else []), "chmod 600 new/*", "sync -f new",
                  "mv --backup=simple --suffix=.bak new/* .", "rmdir new"]
        script = tree.beside / "xmlstarlet.sh"
        script.write_text("\n".join(lines) + "\n")
        return ["/bin/sh", str(script)]

    def _augtool(self, tree, work):
        names = [f"{kind}.xml" for kind in READ_PATHS] if work == "read" else list(edits_of(tree))
        lines = ["set /augeas/load/Xml/lens Xml.lns"]
        lines += [f"set /augeas/load/Xml/incl[{index}] {tree.configuration}/{name}" for index, name in enumerate(names, 1)]
        lines.append("load")
        if work == "read":
            lines += [f"print /files{tree.configuration}/{kind}.xml/{kind}/{path}/#text"
                      for kind, paths in READ_PATHS.items() for path in paths]
        else:
            for name, edits in edits_of(tree).items():
                for edit in edits:
                    lines += _augeas_edit(f"/files{tree.configuration}/{name}/{_root_of(name)}", *edit)
            lines.append("save")
        script = tree.beside / f"{work}.aug"
        script.write_text("\n".join(lines) + "\n")
        return ["augtool", "--noautoload", "--backup", "--file", str(script)]

    def words(self, name, work, tree, texts):
        if name == "xmlstarlet":
            return self._xmlstarlet_read(tree) if work == "read" else self._xmlstarlet_write(tree, texts)
        if name == "augtool":
            return self._augtool(tree, work)
        order = self._order(tree, work, name.endswith(COPIES))
        if name == "lxml":
            return ["/usr/bin/python3", str(_SOURCES / "lxml_edit.py"), order]
        return [str(self._programs[name.removesuffix(COPIES)]), order]

    # --- runs -----------------------------------------------------------------------------------------------

    def variants(self, work, count, texts):
        copying = [name + COPIES for name in _COPYING] if work == "write" and count > 1 else []
        return [self._variant(name, work, texts, 2 if name in _SLOW and count > 10 else None)
                for name in (*PEERS, *copying) if count <= _MOST[name.removesuffix(COPIES)]]

    def _variant(self, name, work, texts, at_most):
        def command(tree):
            words = self.words(name, work, tree, texts)
            return [str(self.tree / "usr/bin" / words[0]) if "/" not in words[0] else words[0], *words[1:]]

        def run(tree):
            sample = self.tools.whole(*command(tree), environment=self._environment)
            if work == "read":
                _check_read(name, self.tools.said, texts)
            elif name == "augtool":
                for saved in tree.configuration.glob("*.augsave"):
                    saved.rename(saved.with_suffix(".bak"))
            return [sample]

        def calls(tree):
            return [self.tools.calls_of(*command(tree), environment=self._environment)]

        return Variant([(name, READING if work == "read" else FLUSHED)], run, calls, at_most)


def _xmlstarlet_edit(kind, root, what, path, *words):
    above, _, name = path.rpartition("/")
    parent, place = f"/{kind}/{above}" if above else f"/{kind}", f"/{kind}/{path}"
    there = root.find(path) is not None
    if what == "set":
        return ["-u", f"({place})[1]", "-v", words[0]] if there else ["-s", parent, "-t", "elem", "-n", name, "-v", words[0]]
    if what == "have":
        return [] if there else ["-s", parent, "-t", "elem", "-n", name]
    made = ["-d", place]
    for text in words[0] if what == "list" else ():
        made += ["-s", parent, "-t", "elem", "-n", name, "-v", text]
    for key, value in words[1].items() if what == "list" else ():
        made += ["-i", place, "-t", "attr", "-n", key, "-v", value]
    return made


def _augeas_edit(root, what, path, *words):
    place = f"{root}/{path}"
    if what == "set":
        return [f"set {place}[1]/#text {words[0]}"]
    if what == "have":
        return [f"set {place} #empty"]
    made = [f"rm {place}"]
    for index, text in enumerate(words[0] if what == "list" else (), 1):
        made += [f"set {place}[{index}]/#attribute/{key} {value}" for key, value in words[1].items()]
        made.append(f"set {place}[{index}]/#text {text}")
    return made


def _check_read(name, said, texts):
    """Refuses a program that read something else."""
    for kind, paths in READ_PATHS.items():
        root = ET.fromstring(texts[kind])
        for path in paths:
            value = (root.findtext(path) or "").strip()
            if value and value not in said:
                raise RuntimeError(f"{name} did not read {kind}/{path}: {said[:300]}")
