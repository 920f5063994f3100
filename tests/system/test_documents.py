"""The examples of docs/bus.md, called as printed; the documents' lists against the sources."""

from __future__ import annotations

import re
from collections.abc import Callable

import pytest
from expectations import MANUAL_ADDRESS, start_manual

from camlab import Camera
from camlab.programs import CHECKOUT

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

DOCUMENT = (CHECKOUT / "docs" / "bus.md").read_text()


def examples() -> list[tuple[str, str, str]]:
    """Each example's call, request and answer."""
    found = re.findall(r"^ +(api_get|api_set) ([{\[].*)\n +(\{.*)$", DOCUMENT, re.MULTILINE)
    return [(call, request, answer) for call, request, answer in found]


def test_every_example_is_answered_as_printed(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert MANUAL_ADDRESS in DOCUMENT
    answered = []
    for call, request, _ in examples():
        ask = camera.api_get_text if call == "api_get" else camera.api_set_text
        answered.append((call, request, ask(request)))
    assert len(answered) == len(re.findall(r"^ +api_[gs]et [{\[]", DOCUMENT, re.MULTILINE)) == 10
    assert answered == examples()


def test_every_error_code_has_its_row() -> None:
    header = (CHECKOUT / "src" / "api" / "json_response.h").read_text()
    codes = [int(code) for code in re.findall(r"constexpr int ERROR_\w+ = (\d+);", header)]
    rows = [int(code) for code in re.findall(r"^\| (\d+) \|", DOCUMENT, re.MULTILINE)]
    assert rows == codes


def test_every_signal_has_its_row_and_its_introspection() -> None:
    rows = re.findall(r"^\| `(\w+)` \| (string|int32) \|", DOCUMENT, re.MULTILINE)
    description = (CHECKOUT / "packaging" / "com.vesko.networkingV2.xml").read_text()
    types = {"s": "string", "i": "int32"}
    found = re.findall(r'<signal name="(\w+)">\s*<arg type="(\w)"', description)
    assert rows == [(name, types[kind]) for name, kind in found]


def test_every_key_that_a_document_names_is_a_setting() -> None:
    table = (CHECKOUT / "src" / "settings" / "setting_table.cpp").read_text()
    settings = set(re.findall(r'^    \{"(\[[^"]+)"', table, re.MULTILINE))
    assert len(settings) == 98
    for document in (CHECKOUT / "docs").glob("*.md"):
        named = set(re.findall(r"`(\[[A-Z]\S+?\][A-Z]\S*?)`", document.read_text()))
        assert named - settings == set(), document.name
