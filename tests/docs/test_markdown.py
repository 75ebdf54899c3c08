"""What the Markdown files name must exist: links, files, make's targets, options. Their shell code
must be some."""

import re
import subprocess

import pytest

from markdown import PROJECT, fenced_blocks, without_code
from support.daemon import run_tavlo

PAGES = sorted(path for path in PROJECT.rglob("*.md")
               if not {"build", "node_modules", ".git"} & set(path.relative_to(PROJECT).parts))
NAMES = [str(page.relative_to(PROJECT)) for page in PAGES]

ROOMS = sorted(path.name for path in PROJECT.iterdir()
               if path.is_dir() and path.name not in ("build", ".git"))

# The daemon's name where a command begins, behind a prompt or a directory perhaps; its arguments.
COMMAND = r"^(?:\$ )?(?:[\w./]*/)?tavlo((?: [\w./\[\]-]+)+)"

pages = pytest.mark.parametrize("page", PAGES, ids=NAMES)


def text(page):
    return page.read_text(encoding="utf-8")


def links(page):
    return re.findall(r"(?<!!)\[[^\]]*\]\(([^)\s]+)\)", without_code(text(page)))


def target_of(page, link):
    path = link.partition("#")[0]
    return (page.parent / path).resolve() if path else page


def anchors(page):
    """Those that a heading gets: lower case, blanks as hyphens, without punctuation."""
    prose = re.sub(r"^```.*?^```$", "", text(page), flags=re.M | re.S)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.+)$", prose, re.M)}


def code(page):
    """Every piece of code: blocks as a whole, indented lines, code in a line."""
    whole = text(page)
    blocks = re.findall(r"^```\w*\n(.*?)^```$", whole, re.M | re.S)
    rest = re.sub(r"^```.*?^```$", "", whole, flags=re.M | re.S)
    return [*blocks, *re.findall(r"^ {4}(.+)$", rest, re.M),
            *(" ".join(piece.split()) for piece in re.findall(r"`([^`]+)`", rest))]


def test_there_are_pages_with_links_and_code():
    assert len(PAGES) > 8
    assert sum(len(links(page)) for page in PAGES) > 30
    assert sum(len(code(page)) for page in PAGES) > 300


@pages
def test_links_lead_somewhere(page):
    for link in links(page):
        assert not re.match(r"\w+:", link), f"{link} leads out of here"
        target = target_of(page, link)
        assert target.exists(), link
        if "#" in link:
            assert link.partition("#")[2] in anchors(target), link


def test_every_page_of_docs_can_be_reached_from_the_readme():
    reached, waiting = set(), [PROJECT / "README.md"]
    while waiting:
        page = waiting.pop()
        if page not in reached:
            reached.add(page)
            waiting += [target for target in (target_of(page, link) for link in links(page))
                        if target.suffix == ".md" and target.exists()]
    assert set((PROJECT / "docs").glob("*.md")) <= reached


@pages
def test_files_that_are_named_exist(page):
    for piece in code(page):
        if re.fullmatch(rf"(?:{'|'.join(map(re.escape, ROOMS))})/[\w./-]*", piece):
            assert (PROJECT / piece).exists(), piece


@pages
def test_targets_of_make_exist(page):
    targets = set(re.findall(r"^([a-z0-9-]+):", text(PROJECT / "Makefile"), re.M))
    for piece in code(page):
        for target in re.findall(r"\bmake ([a-z][a-z0-9-]*)(?![\w/-])", piece):
            assert target in targets, piece


@pages
def test_options_of_the_tools_exist(page):
    for piece in code(page):
        for name, arguments in re.findall(r"\b(tools/[\w-]+)([^\n|]*)", piece):
            for option in re.findall(r"\s(--[a-z-]+)", arguments):
                assert option in text(PROJECT / name), piece


@pages
def test_options_of_the_daemon_exist(page):
    usage = run_tavlo("-h").stdout + "-h"
    for piece in code(page):
        for arguments in re.findall(COMMAND, piece, re.M):
            for option in re.findall(r" \[?(--?[a-z-]+)", arguments):
                assert re.search(rf"(?<![\w-]){option}\b", usage), piece


@pages
def test_shell_code_is_some(page):
    scripts = [block for _, block in fenced_blocks(page, "sh")]
    scripts += re.findall(r"^\$ (.+)$", "\n".join(code(page)), re.M)
    for script in scripts:
        result = subprocess.run(["sh", "-n"], input=script, text=True, capture_output=True,
                                check=False, timeout=60)
        assert (result.returncode, result.stderr) == (0, ""), script
