"""What the pages in docs/ say, held against the programs."""

import json
import pathlib
import re

import pytest

from hosttools import needsPlugin

DOCS = pathlib.Path(__file__).parent.parent.parent / "docs"


def first_cells(page):
    """The names in the first column of a page's tables."""
    cells = [line.split("|")[1] for line in (DOCS / page).read_text().splitlines() if line.startswith("| `")]
    return [name for cell in cells for name in re.findall(r"`([^`]+)`", cell)]


@pytest.fixture
def service(pluginRoot, makeDaemon):
    daemon = makeDaemon("--service-manager", "none", "--idle-seconds", "0", root=pluginRoot)
    daemon.tool("setup")
    return daemon


@needsPlugin
def test_every_setting_in_the_reference_is_one(service):
    names = first_cells("settings.md")
    assert len(names) == len(set(names))
    done = service.tool("settings", "diff", "-", input=json.dumps({name: "?" for name in names}))
    assert done.returncode == 1
    assert done.stderr == ""


@needsPlugin
def test_every_setting_that_is_read_is_in_the_reference(service):
    page = (DOCS / "settings.md").read_text()
    for name in json.loads(service.tool("--json", "settings", "get", "--show-secrets").stdout):
        assert f"`{name}`" in page, name


@needsPlugin
def test_every_setting_that_can_be_applied_is_in_the_reference(service):
    source = (DOCS.parent / "common/SettingKeys.h").read_text()
    assert sorted(re.findall(r'^    "([^"]+)",$', source, re.MULTILINE)) == sorted(first_cells("settings.md"))


@needsPlugin
def test_every_metric_is_in_its_reference_and_the_other_way_round(service):
    service.tool("settings", "set", "authLevel=STANDARD")
    told = re.findall(r"^# TYPE (\S+) ", service.tool("metrics").stdout, re.MULTILINE)
    assert sorted(told) == sorted(first_cells("metrics.md"))
