"""The bounds of a request's way, as the page on security tells them."""

import re

import pytest

from markdown import PROJECT, table

SECURITY = PROJECT / "docs" / "security.md"
CONSTANT = re.compile(r"^constexpr \S+ (k\w+)(?: = |\()(.+?)\)?;$", re.MULTILINE)

# Where the page has the value: its row's first cell, and the words in its second.
TOLD = {
    "kMaxHead": ("a request's first line and headers", "{} KiB"),
    "kMaxReceivedBody": ("a request's body, as it comes in", "{} MiB"),
    "kMaxRequestBody": ("a request's body, to be forwarded", "{} bytes"),
    "kHeaderOverhead": ("all unfinished requests together", "with {} bytes"),
    "kMaxPlainUnfinished": ("all unfinished requests together", "{} MiB plain"),
    "kMaxTlsUnfinished": ("all unfinished requests together", "{} MiB TLS"),
    "kTlsConnectionSize": ("all unfinished requests together", "{} KiB besides"),
    "kPlainBlock": ("all unfinished requests together", "by itself with {} KiB"),
    "kTlsBlock": ("all unfinished requests together", "such a piece counts {} KiB"),
    "kMaxHeadLines": ("their lines", "{}"),
    "kMaxChunkLine": ("the line with the length of a chunk", "{} KiB"),
    "kMaxPlainClients": ("connections", "{} plain"),
    "kMaxTlsClients": ("connections", "{} TLS"),
    "kListenBacklog": ("connections that wait to be accepted", "{} an address"),
    "kMaxAcceptsPerTurn": ("connections that are accepted in a turn of the loop", "{}"),
    "kHttpTimeoutSecs": ("silence of a client or of the SDK REST host", "{} s"),
    "kMaxWaiting": ("requests that wait for the SDK REST host", "{}"),
    "kMaxReplyHead": ("a reply's head, with the interim answers before it", "{} KiB"),
    "kMaxReplyBody": ("a reply's body", "{} MiB"),
    "kMaxUntaken": ("what clients have not taken of their answers", "{} MiB beside"),
}
# What nobody who runs the daemon needs to know, or what stands in the text below the table.
UNTOLD = {"kAcceptPause", "kMaxJoined", "kMaxTlsBlock", "kMaxWrite", "kReportPeriod",
          "kReservedBytes", "kReservedClients", "kStalled", "kWorthDropping"}


def constants():
    text = (PROJECT / "src" / "agent" / "limits.h").read_text(encoding="utf-8")
    return dict(CONSTANT.findall(text))


def value_of(expression, unit):
    value = 1
    for factor in re.findall(r"\d+", expression):
        value *= int(factor)
    return f"{value / {'KiB': 1 << 10, 'MiB': 1 << 20}.get(unit, 1):g}"


def test_each_bound_is_told_or_need_not_be():
    assert set(constants()) == set(TOLD) | UNTOLD


@pytest.mark.parametrize("name", TOLD)
def test_the_page_tells_the_bound_that_is_in_force(name):
    what, words = TOLD[name]
    unit = next((unit for unit in ("KiB", "MiB") if unit in words), "")
    expected = words.format(value_of(constants()[name], unit))
    limits = dict(row[:2] for row in table(SECURITY, "What"))
    assert re.search(rf"(^|\b){re.escape(expected)}\b", limits[what])
