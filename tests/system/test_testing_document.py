"""docs/testing.md against the tests that there are."""

from __future__ import annotations

import re

from camlab.programs import CHECKOUT

TESTS = CHECKOUT / "tests"


def test_the_document_names_every_test_file_and_no_other() -> None:
    document = (CHECKOUT / "docs" / "testing.md").read_text()
    named = set(re.findall(r"`((?:test|fuzz)_\w+\.(?:py|cpp))`", document))
    patterns = ("unit/test_*.cpp", "system/test_*.py", "package/test_*.py", "fuzz/fuzz_*.cpp")
    assert named == {path.name for pattern in patterns for path in TESTS.glob(pattern)}


def test_each_side_names_only_its_own_files() -> None:
    document = (CHECKOUT / "docs" / "testing.md").read_text()
    rows = re.findall(
        r"^\| (?!Side|Subject|---)([^|]+) \|([^|]*)\|([^|]*)\|([^|]*)\|$", document, re.MULTILINE
    )
    assert len(rows) > 20
    for subject, unit, system, lan in rows:
        for cell, kind in ((unit, "cpp"), (system, "py"), (lan, "py")):
            assert set(re.findall(r"`test_\w+\.(\w+)`", cell)) <= {kind}, subject
