"""What docs/tavloctl.md shows, and the manual page beside it, held against the program."""

import json
import re

from markdown import PROJECT, fenced_blocks, table
from support.tavloctl import run_tavloctl

PAGE = PROJECT / "docs" / "tavloctl.md"
MANUAL = PROJECT / "docs" / "man" / "tavloctl.8"


def commands():
    return re.findall(r"^  (\w+) ", run_tavloctl("--help").stdout, re.M)


def test_the_page_has_each_command():
    shown = [re.match(r"`tavloctl (\w+)", row[1])[1] for row in table(PAGE, "To")]
    assert shown == commands()


def test_the_manual_has_each_command_with_its_options():
    text = MANUAL.read_text(encoding="utf-8")
    assert re.findall(r"^\.Ss tavloctl (\w+)$", text, re.M) == commands()
    for command in commands():
        usage = run_tavloctl(command, "--help").stdout.partition("\n")[0]
        section = re.split(r"^\.S[sh] ", text.split(f".Ss tavloctl {command}\n")[1], flags=re.M)[0]
        for option in re.findall(r"(?<![\w-])--?([a-z]+)", usage):
            assert re.search(rf"^\.It .*\bFl {option}\b", section, re.M), option


def test_a_finding_for_programs_is_as_shown(tmp_path):
    [(_, shown)] = fenced_blocks(PAGE, "json")
    expected = json.loads(shown)
    path = tmp_path / "tavlo.json"
    path.write_text('{\n  "lanInterface": "br0",\n  "agentHttpPort": "8080"\n}\n')
    found = json.loads(run_tavloctl("check", "-c", path, "--json").stdout)
    for each in expected["findings"]:
        each["where"] = each["where"].replace("/etc/tavlo/tavlo.json", str(path))
    assert found["findings"][:1] == expected["findings"]
    assert found.keys() == expected.keys()
