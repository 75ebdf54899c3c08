"""The table of cross builds in docs/porting.md, and what fills it."""

import importlib.machinery
import importlib.util
import sys
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
PAGE = """# A page

| | `one` | `two` |
|---|---|---|
| tests passed | 5 | 1,000 |
| tests skipped | 1 | 2 |
| skipped: not there | 1 | 1 |
| skipped: too slow |  | 1 |
| at commit | abc | def |

More | text.
"""


@pytest.fixture(name="target", scope="module")
def tools_target():
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(PROJECT / "tools"))
    loader = importlib.machinery.SourceFileLoader("target", str(PROJECT / "tools/target"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("target", loader))
    loader.exec_module(module)
    return module


@pytest.fixture(name="note")
def note_into_a_page(target, tmp_path, monkeypatch):
    page = tmp_path / "page.md"
    page.write_text(PAGE)
    monkeypatch.setattr(target, "PROJECT", tmp_path)
    monkeypatch.setattr(target, "PAGE", page)

    def run(preset, cells):
        monkeypatch.setattr(target, "column", lambda _: cells)
        target.note(preset)
        return page.read_text()
    return run


def test_a_column_is_written_and_the_others_stay(note):
    text = note("two", {"tests passed": "1,001", "tests skipped": "1", "skipped: not there": "1",
                        "at commit": "123"})
    assert text == """# A page

| | `one` | `two` |
|---|---|---|
| tests passed | 5 | 1,001 |
| tests skipped | 1 | 1 |
| skipped: not there | 1 | 1 |
| at commit | abc | 123 |

More | text.
"""


def test_a_new_reason_stands_below_the_number_of_skipped_tests(note):
    text = note("one", {"tests passed": "5", "tests skipped": "1", "skipped: a new one": "1",
                        "at commit": "123"})
    names = [line.split("|")[1].strip() for line in text.splitlines() if line.startswith("|")]
    assert names == ["", "---", "tests passed", "tests skipped", "skipped: not there",
                     "skipped: too slow", "skipped: a new one", "at commit"]
    assert "| skipped: a new one | 1 |  |\n" in text
    assert "| skipped: not there |  | 1 |\n" in text


def test_a_build_that_the_table_has_not_got_is_refused(note):
    with pytest.raises(SystemExit, match="no column for three"):
        note("three", {})


def test_lines_are_counted_until_the_writer_closes(target, tmp_path):
    count = target.LineCount(tmp_path / "fifo")
    with open(tmp_path / "fifo", "w", encoding="ascii") as writer:
        for _ in range(100000):
            writer.write("a line\n")
    assert count.wait() == 100000


def test_the_reasons_of_skipped_tests_are_counted(target, tmp_path, monkeypatch):
    monkeypatch.setattr(target.running, "PROJECT", tmp_path)
    report = tmp_path / "build/any/tests.xml"
    report.parent.mkdir(parents=True)
    report.write_text("""<testsuite>
<testcase name="unit/a" status="run"><skipped/><system-out>a.cc:7: Skipped
only root can
</system-out></testcase>
<testcase name="system/b" status="run"><system-out>
SKIPPED [2] test_b.py:5: only root can
SKIPPED [1] test_b.py:9: not here
</system-out></testcase>
</testsuite>""")
    tally = target.results_of_tests("any")
    assert (tally.passed, tally.skipped) == (1, 4)
    assert tally.skipped_for == {"only root can": 3, "not here": 1}


def test_the_page_has_a_column_for_each_cross_build(target):
    presets, rows = target.read_table((PROJECT / "docs/porting.md").read_text(encoding="utf-8"))
    assert presets == ["aarch64", "armhf", "musl", "uclibc"]
    assert "last run" in rows
