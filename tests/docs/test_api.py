"""Holds docs/api.md against a running daemon: its examples, its paths and its answers."""

import os
import re
import subprocess

import pytest

from api_situations import SITUATIONS, open_endpoints, provoke
from markdown import PROJECT, fenced_blocks, table
from support import clients
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT

PAGE = PROJECT / "docs" / "api.md"
AGENT = PROJECT / "src" / "agent"
EXAMPLES = fenced_blocks(PAGE, "console")

# Those of libevent, which answers by itself what is no request for us.
LIBRARY_REASONS = {"Bad Request", "Request Entity Too Large", "Expectation Failed",
                   "Not Implemented"}


@pytest.mark.parametrize("line, example", EXAMPLES, ids=[f"line {line}" for line, _ in EXAMPLES])
def test_an_example_answers_what_the_page_shows(root, daemon, sdk_host, line, example):
    command, *shown = example.splitlines()
    assert command.startswith("$ ") and shown
    environment = {**os.environ, "no_proxy": "*", "KEY": PAIRING_KEY,
                   "CERTIFICATE": str(root.certificate),
                   "PLAIN": f"http://127.0.0.1:{root.http_port}",
                   "TLS": f"https://127.0.0.1:{root.https_port}"}
    result = subprocess.run(["sh", "-c", command[2:]], capture_output=True, text=True, check=True,
                            timeout=DEFAULT_LIMIT, env=environment)
    answer = iter(result.stdout.splitlines())
    # All that is shown, in its order; other lines may stand between.
    for expected in shown:
        assert expected in answer, f"{expected!r} is not where it should be in {result.stdout!r}"


def test_the_examples_work_in_the_session_of_make_run(session):
    [(_, settings)] = fenced_blocks(PAGE, "sh")
    commands = [example.splitlines()[0][2:] for _, example in EXAMPLES]
    of_either = [next(command for command in commands if address in command)
                 for address in ("$PLAIN/api/mac", "$TLS/api/1/profiles?all")]
    result = subprocess.run(["sh", "-euc", "\n".join([settings, *of_either])], cwd=session,
                            capture_output=True, text=True, check=True, timeout=DEFAULT_LIMIT,
                            env={**os.environ, "no_proxy": "*"})
    assert result.stdout.count("HTTP/1.1 200 OK") == len(of_either)


def test_an_expectation_without_a_body_is_left_alone(root, daemon, sdk_host):
    answer = clients.ask(root.http_port, "GET", "/api/version", headers=[("Expect", "the-unexpected")])
    assert answer.status == 200


def test_there_are_examples():
    assert len(EXAMPLES) >= 10


def test_the_page_has_the_open_endpoints_of_the_source():
    rows = [(method, path.strip("`")) for method, path, plain, _, answered_by
            in table(PAGE, "Method") if plain == "open" and answered_by == "the SDK REST host"]
    assert rows == open_endpoints()


def reasons_in_the_source():
    text = "".join(path.read_text(encoding="utf-8")
                   for path in [*sorted(AGENT.glob("*.cc")), *sorted(AGENT.glob("*.h"))])
    found = set()
    for argument in re.findall(r"\bRefuse\(\w+, HTTP_\w+,\s*([^)]+)\)", text):
        literals = re.findall(r'"([^"]+)"', argument)
        if not literals:
            definition = re.search(rf"\b{argument} =([^;]+);", text)
            literals = re.findall(r'"([^"]+)"', definition[1])
        assert literals, argument
        found.update(literals)
    return found


def test_the_page_has_every_reason_of_the_source():
    rows = {reason for _, reason, *_ in table(PAGE, "Status")}
    assert rows == reasons_in_the_source() | LIBRARY_REASONS | {"OK"}


@pytest.mark.parametrize("name", SITUATIONS)
def test_a_situation_gives_the_answer_of_its_row(root, make_daemon, name):
    rows = {(int(status), reason): listener
            for status, reason, listener, *_ in table(PAGE, "Status")}
    expected = SITUATIONS[name].answer
    listeners = {"both": ["plain", "TLS"]}.get(rows[expected], [rows[expected]])
    with provoke(root, make_daemon, name) as ask:
        for listener in listeners:
            answer = ask(listener)
            assert (answer.status, answer.reason) == expected


def test_there_is_a_situation_for_each_row():
    rows = {(int(status), reason) for status, reason, *_ in table(PAGE, "Status")}
    assert rows == {situation.answer for situation in SITUATIONS.values()}


# Reason -> whether the request was done, of the daemon's own answers.
AFTER_A_FAILURE = {(int(status), reason): done for reason, status, done, _
                   in table(PAGE, "Reason") if status.isdigit()}


def test_there_is_advice_for_each_417_and_500():
    rows = {(int(status), reason) for status, reason, *_ in table(PAGE, "Status")}
    assert set(AFTER_A_FAILURE) == {row for row in rows if row[0] in (417, 500)}
    assert set(AFTER_A_FAILURE.values()) == {"no", "perhaps"}


@pytest.mark.parametrize("name", [name for name, situation in SITUATIONS.items()
                                  if situation.destination == "answers"
                                  and AFTER_A_FAILURE.get(situation.answer) == "no"])
def test_what_was_not_done_has_not_come_to_the_sdk_rest_host(root, make_daemon, name):
    with provoke(root, make_daemon, name) as ask:
        answers = [ask(listener) for listener in ("plain", "TLS")]
        refused = [answer for answer in answers if answer.status in (417, 500)]
        assert refused
        assert len(ask.destination.requests) == len(answers) - len(refused)


def test_what_has_timed_out_may_have_come(root, make_daemon):
    with provoke(root, make_daemon, "a destination that hangs up") as ask:
        assert ask("plain").status == 500
        assert ask.destination.accepted > 0
