"""Every test that docs/faults.md names exists, and every row names one."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TABLE = ROOT / "docs" / "faults.md"
TESTS = ROOT / "tests"
COLUMNS = 5
FEWEST_ROWS = 25

NAMED = re.compile(r"`([a-z0-9_/]+\.(?:py|cc))::([A-Za-z0-9_.]+)`")
GOOGLE_TEST = re.compile(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)")
PYTHON_TEST = re.compile(r"^def (test_\w+)\(", re.MULTILINE)


def rows():
    lines = [line for line in TABLE.read_text(encoding="utf-8").splitlines()
             if line.startswith("|")]
    cells = [[cell.strip() for cell in line.strip("|").split(" | ")] for line in lines]
    return [row for row in cells if row[0] != "Fault" and not set(row[0]) <= set("-|")]


def names_in(path):
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".py":
        return set(PYTHON_TEST.findall(text))
    return {f"{suite}.{name}" for suite, name in GOOGLE_TEST.findall(text)}


def named_tests():
    return NAMED.findall(TABLE.read_text(encoding="utf-8"))


def test_the_table_has_its_rows():
    assert len(rows()) >= FEWEST_ROWS


@pytest.mark.parametrize("row", rows(), ids=lambda row: row[0])
def test_each_row_is_whole_and_names_a_test(row):
    assert len(row) == COLUMNS
    assert all(row)
    assert NAMED.search(row[-1])


@pytest.mark.parametrize("file, name", named_tests())
def test_each_test_that_is_named_exists(file, name):
    assert name in names_in(TESTS / file)
