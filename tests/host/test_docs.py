"""What the pages in docs/ say, held against the programs."""

import json
import pathlib
import re
import subprocess

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


MANUALS = sorted((DOCS.parent / "share/man").glob("man?/*"))


@pytest.mark.parametrize("page", MANUALS, ids=lambda page: page.name)
def test_every_manual_page_can_be_set_and_is_in_a_package_and_leads_to_pages_that_there_are(page):
    done = subprocess.run(["groff", "-mandoc", "-ww", "-Tutf8", page], capture_output=True, text=True, check=True)
    assert done.stderr == ""
    section, text = page.parent.name, page.read_text()
    assert f".Dt {page.stem.upper()} {section[-1]}\n" in text and page.suffix == f".{section[-1]}"
    packaged = "\n".join(file.read_text() for file in (DOCS.parent / "debian").glob("*.install")).splitlines()
    assert f"usr/share/man/{section}" in packaged or f"usr/share/man/{section}/{page.name}" in packaged
    ours = {f"{each.stem} {each.suffix[1:]}" for each in MANUALS}
    assert set(re.findall(r"^\.(?:It )?Xr (\S+ \d)", text, re.MULTILINE)) <= ours


def test_the_overview_names_every_unit_that_is_shipped():
    text = (DOCS.parent / "share/man/man7/tessard.7").read_text()
    units = {file.stem for file in (DOCS.parent / "share/systemd").glob("*.service")}
    assert [name for name in units if name not in text] == []
