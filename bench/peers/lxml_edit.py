"""Carries out an order with lxml. Usage: lxml_edit.py ORDER"""

import os
import sys

from lxml import etree


def split(path):
    above, _, name = path.rpartition("/")
    return above, name


def edit(root, kind, path, *words):
    above, name = split(path)
    parent = root.find(above) if above else root
    found = parent.findall(name)
    if kind == "R":
        print(f"{words[0]}={''.join(found[0].itertext()) if found else ''}")
    elif kind == "S":
        element = found[0] if found else etree.SubElement(parent, name)
        for child in list(element):
            element.remove(child)
        element.text = words[0]
    elif kind == "H":
        if not found:
            etree.SubElement(parent, name)
    else:
        for element in found:
            parent.remove(element)
        for text in words[0].split("|") if kind == "L" else ():
            attributes = dict(pair.split("=", 1) for pair in words[1].split("|") if pair)
            etree.SubElement(parent, name, attributes).text = text


def main():
    written = []
    tree = path = None
    changed = False

    def finish():
        if not changed:
            return
        tree.write(path + ".tmp", encoding="UTF-8")
        if os.geteuid() == 0:
            os.chown(path + ".tmp", 84, 0)
        os.chmod(path + ".tmp", 0o600)
        written.append(path)

    with open(sys.argv[1], encoding="utf-8") as lines:
        for line in lines:
            kind, *words = line.rstrip("\n").split("\t")
            if kind == "F":
                finish()
                path, changed = words[0], False
                tree = etree.parse(path)
            else:
                edit(tree.getroot(), kind, *words)
                changed = kind != "R"
    finish()
    if written:
        # The library of the language has no flush of one file system.
        os.system(f"exec sync -f {written[0]}")
    for path in written:
        os.rename(path, path + ".bak")
        os.rename(path + ".tmp", path)


main()
