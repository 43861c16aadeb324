"""What the publish-subscribe service takes for its settings, and what it refuses."""

import importlib.util
from pathlib import Path

import pytest

_FILE = Path(__file__).resolve().parents[2] / "programs/pubsub/settings.py"
_SPEC = importlib.util.spec_from_file_location("pubsub_settings", _FILE)
settings = importlib.util.module_from_spec(_SPEC)
_SPEC.loader.exec_module(settings)

LEAST = {"domain": "a.example.test", "secret": "s3cret"}


def test_domain_and_secret_are_enough():
    read = settings.settings_of(LEAST)
    assert read.address == "pubsub.a.example.test"
    assert (read.router_host, read.router_port, read.database, read.user) == ("127.0.0.1", 5347, "pubsub", "jabberd")
    assert (read.password, read.verbose, read.hide_nodes, read.privileged, read.warnings) == (None, False, False, (), ())


def test_no_secret_is_shown_with_the_settings():
    shown = repr(settings.settings_of({**LEAST, "dbpass": "hidden word"}))
    assert "s3cret" not in shown and "hidden word" not in shown


@pytest.mark.parametrize("value, meant", [(True, True), (1, True), (0, False), ("YES", True), ("true", True), ("0", False), ("", False)])
def test_truth_has_many_forms(value, meant):
    read = settings.settings_of({**LEAST, "verbose": value, "hide-nodes": value})
    assert (read.verbose, read.hide_nodes) == (meant, meant)


@pytest.mark.parametrize("value, meant", [(5348, 5348), ("5348", 5348), ("", 5347)])
def test_a_port_is_a_number_or_its_digits(value, meant):
    assert settings.settings_of({**LEAST, "rport": value}).router_port == meant


def test_privileged_users_are_of_the_domain_unless_they_say_otherwise():
    read = settings.settings_of({**LEAST, "privilegedUsers": ["com.velto.notificationuser", "ann@b.example.test"]})
    assert read.privileged == ("com.velto.notificationuser@a.example.test", "ann@b.example.test")


def test_settings_of_others_have_no_effect():
    read = settings.settings_of({**LEAST, "jid": 5, "clusterNodes": "x", "connectToCluster": True, "korvbridgePort": []})
    assert read == settings.settings_of(LEAST)


@pytest.mark.parametrize("key, value", [
    ("domain", ""), ("domain", "a..b"), ("domain", "a@b"), ("domain", "a/b"), ("domain", "x" * 64), ("domain", 5),
    ("domain", "\n"), ("domain", ".".join(["x" * 60] * 20)), ("secret", ""), ("secret", b"data"), ("secret", "a\0b"),
    ("backend", "memory"), ("rport", 0), ("rport", 65536), ("rport", -1), ("rport", 1.5), ("rport", True), ("rport", "٣"),
    ("rhost", "a b"), ("rhost", 5), ("dbname", "x" * 64), ("dbname", "a\nb"), ("dbuser", []), ("dbpass", 5),
    ("verbose", "perhaps"), ("hide-nodes", []), ("privilegedUsers", "ann"), ("privilegedUsers", [5]), ("privilegedUsers", [""]),
])
def test_what_cannot_be_meant_is_refused_by_its_name(key, value):
    with pytest.raises(settings.SettingsProblem) as problem:
        settings.settings_of({**LEAST, key: value})
    assert f'"{key}"' in str(problem.value)


def test_a_file_must_be_one_and_small(tmp_path):
    for place, sentence in ((tmp_path, "is not a file"), (tmp_path / "none", "there is no settings file")):
        with pytest.raises(settings.SettingsProblem, match=sentence):
            settings.read_settings(str(place))
    large = tmp_path / "large"
    large.write_bytes(b" " * (1 << 20) + b"x")
    with pytest.raises(settings.SettingsProblem, match="is larger than"):
        settings.read_settings(str(large))
    deep = tmp_path / "deep"
    deep.write_bytes(b"<plist>" + b"<array>" * 50000)
    with pytest.raises(settings.SettingsProblem, match="is not a property list"):
        settings.read_settings(str(deep))
    link = tmp_path / "link"
    link.symlink_to(large)
    with pytest.raises(settings.SettingsProblem, match="cannot be read"):
        settings.read_settings(str(link))
