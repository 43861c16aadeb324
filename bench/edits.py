"""The work of a write, as edits of single elements that any XML library can make, and what the files then hold."""

import xml.etree.ElementTree as ET
from collections import Counter

from trees import CA_FILE, KEY_FILE, SETTINGS

# Live under level "STANDARD", and not.
_OFFERED = ("mechanisms/sasl/gssapi", "mechanisms/traditional/cram-md5", "mechanisms/sasl/digest-md5",
            "ssl-mechanisms/traditional/plain", "ssl-mechanisms/sasl/plain")
_WITHHELD = ("mechanisms/traditional/plain", "mechanisms/sasl/plain")
_DOMAIN_ATTRIBUTES = {"require-starttls": "true", "pemfile": KEY_FILE, "cachain": CA_FILE}


def edits_of(tree):
    """File name -> edits in their order. An edit is one of
    ("set", PATH, TEXT)       the text of the first element there, made as its parent's last child when there is none
    ("have", PATH)            an element there, made empty when there is none
    ("drop", PATH)            no element there
    ("list", PATH, TEXTS, ATTRIBUTES)
                              one element for each text, with the attributes, in place of all that are there.
    A path is that of element names below the root."""
    tls = [("set", "local/pemfile", KEY_FILE), ("set", "local/cachain", CA_FILE), ("drop", "local/private_key_password")]
    client = [("list", "local/id", tree.domains, _DOMAIN_ATTRIBUTES), *tls,
              *(("have", f"authreg/{path}") for path in _OFFERED), *(("drop", f"authreg/{path}") for path in _WITHHELD),
              ("set", "local/port", str(SETTINGS["jabberdClientPortTLS"])),
              ("set", "local/ssl-port", str(SETTINGS["jabberdClientPortSSL"]))]
    server = [*tls, ("set", "local/port", "5268"), ("set", "security/require_tls", "1"),
              ("set", "security/enable_whitelist", "1"),
              ("list", "security/whitelist_domain", SETTINGS["s2sAllowedDomains"], {})]
    first = [("set", "local/id", tree.domains[0]), ("set", "pidfile", "/var/run/jabberd_notification/sm.pid"),
             ("set", "storage/sqlite/dbname", SETTINGS["jabberdDatabasePath"])]
    edits = {"c2s.xml": client, "s2s.xml": server, "sm.xml": first}
    for name, domain in zip(tree.further, tree.domains[1:]):
        edits[name] = [("set", "id", f"sm_{domain}"), ("set", "local/id", domain),
                       ("set", "pidfile", f"/var/run/jabberd_notification/sm_{domain}.pid")]
    return edits


def _apply(root, edit):
    kind, path = edit[:2]
    above, _, name = path.rpartition("/")
    parent = root.find(above) if above else root
    found = parent.findall(name)
    if kind == "set":
        element = found[0] if found else ET.SubElement(parent, name)
        element.text = edit[2]
    elif kind == "have":
        if not found:
            ET.SubElement(parent, name)
    else:
        for element in found:
            parent.remove(element)
        for text in edit[2] if kind == "list" else ():
            ET.SubElement(parent, name, edit[3]).text = text


def _content(root):
    """How often each element is there, as path, attributes and text; order and layout do not matter."""
    counted = Counter()

    def walk(element, path):
        here = f"{path}/{element.tag}"
        counted[here, tuple(sorted(element.attrib.items())), (element.text or "").strip()] += 1
        for child in element:
            walk(child, here)

    walk(root, "")
    return counted


def expected(tree, texts):
    """What the edits make of the texts that the files have before."""
    result = {}
    for name, edits in edits_of(tree).items():
        root = ET.fromstring(texts["sm" if name.startswith("sm") else name[:3]])
        for edit in edits:
            _apply(root, edit)
        result[name] = _content(root)
    return result


def difference(tree, wanted):
    """A sentence about the first file that does not hold what is wanted, or whose earlier version is not kept; None
    when all do."""
    for name, content in wanted.items():
        file = tree.configuration / name
        if not file.with_name(f"{name}.bak").exists():
            return f"{name} has no backup"
        held = _content(ET.parse(file).getroot())
        if held != content:
            other = next(iter((held - content) + (content - held)))
            return f"{name} differs at {other}"
    return None
