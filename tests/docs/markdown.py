"""What the tests take out of the Markdown files."""

import re
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]

# The row of dashes under a table's head.
_RULE = re.compile(r"^\|(?:\s*:?-+:?\s*\|)+$")


def tables(path):
    """Each table of the file as a list of rows, its head first; a row is a list of cells."""
    found = []
    lines = path.read_text(encoding="utf-8").splitlines()
    for number, line in enumerate(lines):
        if not _RULE.match(line):
            continue
        end = number + 1
        while end < len(lines) and lines[end].startswith("|"):
            end += 1
        found.append([_cells(row) for row in [lines[number - 1], *lines[number + 1:end]]])
    return found


def _cells(row):
    return [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", row)[1:-1]]


def table(path, first_cell):
    """The rows, without the head, of the one table whose head begins with `first_cell`."""
    matching = [rows[1:] for rows in tables(path) if rows[0][0] == first_cell]
    assert len(matching) == 1, f"{path.name} has {len(matching)} tables of {first_cell!r}"
    return matching[0]


def fenced_blocks(path, language):
    """The fenced blocks of code in `language`, as pairs of the line's number and text."""
    text = path.read_text(encoding="utf-8")
    return [(text.count("\n", 0, block.start()) + 1, block[1])
            for block in re.finditer(rf"^```{language}\n(.*?)^```$", text, re.M | re.S)]


def without_code(text):
    """The prose alone: no fenced or indented blocks, no code in a line."""
    text = re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)
    text = re.sub(r"(?:(?<=\n\n)|\A)(?:(?: {4}.*)?\n)+", "\n", text)
    return re.sub(r"`[^`\n]*`", "", text)
