"""Holds docs/messages.md against the sources: no error line is missing there, and none is stale."""

import json
import re
from collections import Counter

from error_messages import SOURCES, failure_texts, logged_formats, sources
from markdown import PROJECT, tables
from support.tavloctl import run_tavloctl

PAGE = PROJECT / "docs" / "messages.md"

# Events that other programs of the firmware may raise through the library, the daemon not.
FOREIGN_EVENTS = ("SettingsUpdate", "BlockDevice", "HttpBlock", "DnsBlock", "DeviceDetected",
                  "IotProtection")
FOREIGN_TEXT = re.compile(r"(?:settings_update|device_block|http_block|dns_block|device_detected|"
                          r"iot_protection)\.|%s is invalid: '%s'$")


def rows():
    return [row for each in tables(PAGE) if each[0] == ["Message", "Cause", "Cure"]
            for row in each[1:]]


def test_every_error_line_of_the_sources_was_found():
    calls = sum(len(re.findall(r"\bkError,", text)) for text in sources().values())
    others = sum(len(re.findall(r"\bLog::Open\([^;]*\bkError,", text))
                 for text in sources().values())
    assert len(logged_formats()) == calls - others > 30


def test_the_daemon_raises_no_foreign_event():
    for path, text in sources().items():
        if path.parent.name not in ("hooks", "ctl"):
            for event in FOREIGN_EVENTS:
                assert not re.search(rf"\b{event}\(", text), path


def test_the_page_has_every_message_and_no_other():
    texts = {text for call in logged_formats() for text in call}
    texts |= {text for text, files in failure_texts().items()
              if not (files == {"hook_invoker.cc"} and FOREIGN_TEXT.match(text))}
    documented = Counter(row[0] for row in rows())
    assert set(documented) == {f"`{text}`" for text in texts}
    assert set(documented.values()) == {1}


def test_every_message_has_a_cause_and_a_cure():
    assert all(len(row) == 3 and all(row) for row in rows())


def test_all_tables_are_looked_at():
    assert len(rows()) == sum(len(each) - 1 for each in tables(PAGE))


# --- tavloctl, which quotes the page ---


def made_by(message):
    return re.sub(r"%[lz]*[a-z]", "7", message)


def distinguishable():
    """The rows without those whose texts look like another one's: the first explains them all."""
    found = {}
    for row in rows():
        found.setdefault(made_by(row[0]), row)
    return found.values()


def shown(cell):
    return re.sub(r"\[([^\]]*)\]\(([^)]*)\)", r"\1 (docs/\2)", cell)


def explained(*texts):
    """What tavloctl says of these error lines, by the message and the one that it ends with."""
    lines = "".join(f"2026-11-21 15:46:20.766 [4d2.1] ERROR: f: {text}\n" for text in texts)
    errors = json.loads(run_tavloctl("log", "--json", input=lines).stdout)["errors"]
    return {(each["message"], each.get("rest")): (each["cause"], each["cure"]) for each in errors}


def test_tavloctl_says_of_each_message_what_the_page_says():
    expected = {(message[1:-1], None): (shown(cause), shown(cure))
                for message, cause, cure in distinguishable()}
    assert len(expected) > len(rows()) - 3
    assert explained(*(made_by(message) for message, _ in expected)) == expected


def test_where_the_page_says_see_there_tavloctl_looks_there():
    outer = [row[0][1:-1] for row in rows() if row[2] == "see there"]
    assert outer and all(message.endswith("%s") for message in outer)
    expected = {(message, rest[1:-1]): (shown(cause), shown(cure))
                for message in outer for rest, cause, cure in distinguishable() if cure != "see there"}
    assert explained(*(made_by(message[:-2]) + made_by(rest) for message, rest in expected)
                     ) == expected


def texts_that_tavloctl_looks_for():
    """The literals of formats, beginnings and ends that it knows lines by."""
    found = []
    for path in (SOURCES / "ctl").glob("log_*.cc"):
        text = re.sub(r'"\s*\n\s*"', "", path.read_text(encoding="utf-8"))
        found += re.findall(r'TextPattern \w+\("([^"]+)"', text)
        found += re.findall(r'\{Orx::Log::k\w+, "([^"]+)"', text)
        found += re.findall(r'(?:kWrongKey = |BeginsWith\(|IsOf\(|text == )"([^"]+)"', text)
        found += [each for sign in re.findall(r'^ +\{("[^{}]+), Role::', text, re.M)
                  for each in re.findall(r'"([^"]+)"', sign)]
    pieces = {piece for each in found for piece in re.split(r"%[lz]*[a-z]|(?<=: )", each)}
    return {piece for piece in pieces if re.search(r"[a-z]{2}", piece)}


def test_tavloctl_knows_lines_of_the_log_by_what_the_daemon_writes():
    written = re.sub(r'"\s*"', "", "\n".join(sources().values()))
    texts = texts_that_tavloctl_looks_for()
    assert len(texts) > 30
    assert [text for text in sorted(texts) if text not in written] == []
