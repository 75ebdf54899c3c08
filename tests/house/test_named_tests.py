"""Every row of a table that promises something names the test that shows it, and the test exists."""

import re
from dataclasses import dataclass
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
TESTS = ROOT / "tests"

NAMED = re.compile(r"`([a-z0-9_/]+\.(?:py|cc))::([A-Za-z0-9_.]+)`")
GOOGLE_TEST = re.compile(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)")
PYTHON_TEST = re.compile(r"^def (test_\w+)\(", re.MULTILINE)


@dataclass
class Table:
    """That of a page whose head begins with `first`."""

    page: str
    first: str
    columns: int
    fewest_rows: int

    def rows(self):
        text = (ROOT / self.page).read_text(encoding="utf-8")
        found = re.findall(rf"^\| {self.first} \|.*\n\|[-|]+\|\n((?:\|.*\n)+)", text, re.M)
        return [[cell.strip() for cell in line.strip("|").split(" | ")]
                for rows in found for line in rows.splitlines()]


TABLES = [Table("docs/faults.md", "Fault", columns=5, fewest_rows=25),
          Table("docs/operations.md", "What users expect", columns=3, fewest_rows=12)]
ROWS = [pytest.param(table, row, id=f"{table.page}: {row[0]}") for table in TABLES
        for row in table.rows()]


def names_in(path):
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".py":
        return set(PYTHON_TEST.findall(text))
    return {f"{suite}.{name}" for suite, name in GOOGLE_TEST.findall(text)}


@pytest.mark.parametrize("table", TABLES, ids=lambda table: table.page)
def test_the_table_has_its_rows(table):
    assert len(table.rows()) >= table.fewest_rows


@pytest.mark.parametrize("table, row", ROWS)
def test_each_row_is_whole_and_names_a_test(table, row):
    assert len(row) == table.columns
    assert all(row)
    assert NAMED.search(row[-1])


@pytest.mark.parametrize("table, row", ROWS)
def test_each_test_that_is_named_exists(table, row):
    for file, name in NAMED.findall(" ".join(row)):
        assert name in names_in(TESTS / file)
