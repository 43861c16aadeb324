"""Debian's own jabberd files, made to suit the private instance."""

import re
from pathlib import Path

from private_machine import CONFIGURATION

KINDS = ("router", "sm", "c2s", "s2s")

# What ties Debian's files to Debian's own instance.
_ADAPTATIONS = [
    (r"/var/run/jabberd2/", "/var/run/jabberd_notification/"),
    (r"<log type='file'>", "<log type='syslog'>"),
    (r"<ident>jabberd/", "<ident>jabberd_notification/"),
    (r"/etc/jabberd2/router-users.xml", f"{CONFIGURATION}/router-users.xml"),
    (r"/var/lib/jabberd2/sqlite.db", "/private/var/jabberd/sqlite/jabberd2_notification.db"),
    (r"<driver>db</driver>", "<driver>sqlite</driver>"),
    (r"<module>db</module>", "<module>sqlite</module>"),
]


def adapted(kind, password):
    """The text of the file of one component, with the password that its components log in to the router with."""
    text = Path(f"/etc/jabberd2/{kind}.xml").read_text(encoding="utf-8")
    for pattern, replacement in _ADAPTATIONS:
        text = re.sub(pattern, replacement, text)
    return re.sub(r"<(pass|secret)>secret<", lambda found: f"<{found.group(1)}>{password}<", text)
