"""The settings file of the notification service, as far as the publish-subscribe component is concerned.

Not used here: "jid", "password" and "connectAsClient", because the component joins the router as a component and
never logs in; the keys of the push bridge; and "clusterNodes", "clusterHostname" and "connectToCluster", because
the component runs alone.
"""

import contextlib
import os
import plistlib
import re
import stat
from dataclasses import dataclass, field

_LARGEST = 1 << 20
_LONGEST_NAME = 63  # of a role or a database, in bytes
_LABEL = re.compile(r"[^\s\x00-\x20\x7f.@/:\"'&<>\\]{1,63}")
_TRUE, _FALSE = {"yes", "true", "1"}, {"no", "false", "0", ""}


class SettingsProblem(Exception):
    """Why the settings cannot be used, for a person, without any value that is secret."""


@dataclass(frozen=True)
class Settings:
    domain: str
    secret: str = field(repr=False)
    router_host: str
    router_port: int
    database: str
    user: str
    password: str | None = field(repr=False)
    verbose: bool
    hide_nodes: bool
    # Bare addresses of those who may do everything with every node.
    privileged: tuple
    # What a person should know although the service runs.
    warnings: tuple

    @property
    def address(self):
        return f"pubsub.{self.domain}"


def read_settings(path):
    content = _content(path)
    try:
        values = plistlib.loads(content)
    except Exception:  # the parsers underneath have no common class for what they raise
        raise SettingsProblem(f'"{path}" is not a property list') from None
    if not isinstance(values, dict):
        raise SettingsProblem(f'"{path}" holds no dictionary')
    return settings_of(values)


def settings_of(values):
    backend = _text(values, "backend", "pgsql")
    if backend != "pgsql":
        raise SettingsProblem(f'the "backend" is "{backend}", and the component stores in "pgsql" alone')
    domain = _domain(values)
    warnings = []
    if _truth(values, "connectAsClient"):
        warnings.append('"connectAsClient" has no effect: the component joins the router as a component.')
    return Settings(
        domain=domain, secret=_required(values, "secret"), router_host=_host(values), router_port=_port(values),
        database=_name(values, "dbname", "pubsub"), user=_name(values, "dbuser", "jabberd"),
        password=_text(values, "dbpass", None), verbose=_truth(values, "verbose"),
        hide_nodes=_truth(values, "hide-nodes"), privileged=_privileged(values, domain), warnings=tuple(warnings))


def _content(path):
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError:
        raise SettingsProblem(f'there is no settings file "{path}"') from None
    except OSError as problem:
        raise SettingsProblem(f'"{path}" cannot be read: {problem.strerror}') from None
    with contextlib.ExitStack() as cleanup:
        cleanup.callback(os.close, descriptor)
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise SettingsProblem(f'"{path}" is not a file')
        with open(descriptor, "rb", closefd=False) as file:
            content = file.read(_LARGEST + 1)
    if len(content) > _LARGEST:
        raise SettingsProblem(f'"{path}" is larger than {_LARGEST} bytes')
    return content


def _text(values, key, default):
    """An empty text is none."""
    value = values.get(key, "")
    if not isinstance(value, str) or "\0" in value:
        raise SettingsProblem(f'the value of "{key}" is not a text')
    return value or default


def _required(values, key):
    value = _text(values, key, None)
    if value is None:
        raise SettingsProblem(f'"{key}" is missing')
    return value


def _domain(values):
    domain = _required(values, "domain")
    # With "pubsub." before it, it has to fit into an address.
    if len(domain.encode()) > 1000 or not all(_LABEL.fullmatch(label) for label in domain.split(".")):
        raise SettingsProblem(f'the "domain" {domain!r} is not a domain')
    return domain


def _host(values):
    host = _text(values, "rhost", "127.0.0.1")
    if not re.fullmatch(r"[A-Za-z0-9_.:%-]{1,255}", host):
        raise SettingsProblem(f'the router host {host!r} of "rhost" is not a host')
    return host


def _port(values):
    value = values.get("rport", "")
    if value == "" and isinstance(value, str):
        return 5347
    digits = value if isinstance(value, str) else str(value) if type(value) is int else ""
    if not re.fullmatch("[0-9]{1,5}", digits) or not 0 < int(digits) < 65536:
        raise SettingsProblem(f'the router port {value!r} of "rport" is not a port')
    return int(digits)


def _name(values, key, default):
    name = _text(values, key, default)
    if len(name.encode()) > _LONGEST_NAME or not name.isprintable():
        raise SettingsProblem(f'the value of "{key}" cannot name a part of the database')
    return name


def _truth(values, key):
    value = values.get(key, False)
    if isinstance(value, (bool, int, float)):
        return bool(value)
    word = value.lower() if isinstance(value, str) else None
    if word not in _TRUE | _FALSE:
        raise SettingsProblem(f'the value of "{key}" is neither true nor false')
    return word in _TRUE


def _privileged(values, domain):
    users = values.get("privilegedUsers", [])
    if not isinstance(users, list) or not all(isinstance(user, str) and user for user in users):
        raise SettingsProblem('"privilegedUsers" is not a list of names')
    return tuple(user if "@" in user else f"{user}@{domain}" for user in users)
