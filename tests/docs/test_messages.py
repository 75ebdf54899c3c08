"""Holds docs/messages.md against the sources: no error line is missing there, and none is stale."""

import re
from collections import Counter

from error_messages import failure_texts, logged_formats, sources
from markdown import PROJECT, tables

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
