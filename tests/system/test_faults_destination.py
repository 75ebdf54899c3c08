"""Destinations at their worst: nobody gets an answer that was meant for somebody else, the daemon
stays small, and the next request is on its own again."""

import threading

import pytest

from support.clients import ask, reset
from support.destinations import Destination, answer_bytes, read_request
from support.room import assert_peak_below
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
GIBIBYTE = 1 << 30
LARGEST_MEMORY_KIB = 32 * 1024
BLOCK = b"b" * 65536
NO_REPLY = (500, "Timeout in forwarding request")
FAILED = (500, "Destination request failed")

HEADS = {
    "announced": b"HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n",
    "to the end of the connection": b"HTTP/1.1 200 OK\r\n\r\n",
    "in one chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n40000000\r\n",
    "the length of a chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
    "the extension of a chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1;",
    "a header": b"HTTP/1.1 200 OK\r\nX: ",
    "the status line": b"HTTP/1.1 200 ",
}


def ask_by(root, tls, number=0):
    uri = f"/api/x?{number}" if tls else "/api/version"
    return ask(root.https_port if tls else root.http_port, "GET", uri, headers=KEY, tls=tls)


def outcome(answer):
    return answer.status, answer.reason


def flooding(sent, head, block, most):
    """Answers with `head`, and then with `block` until that are `most` bytes, which it counts for each
    connection."""
    def flood(connection):
        if not read_request(connection):
            return
        sent.append(0)
        connection.sendall(head)
        while sent[-1] < most:
            connection.sendall(block)
            sent[-1] += len(block)

    return flood


@pytest.mark.parametrize("head", HEADS.values(), ids=HEADS)
@pytest.mark.parametrize("tls", [False, True])
def test_a_reply_of_a_gibibyte_is_cut_off(root, daemon, tls, head):
    sent = []
    with Destination(root.destination_port, flooding(sent, head, BLOCK, GIBIBYTE)):
        assert outcome(ask_by(root, tls)) == NO_REPLY
    # What the kernel's buffers take up comes on top of what the daemon reads.
    assert len(sent) == 1 and sent[0] < GIBIBYTE // 16
    if SANITIZER:
        print("the memory of a sanitizer's build says nothing: not looked at")
    else:
        assert daemon.peak_resident_kib() <= LARGEST_MEMORY_KIB
    assert daemon.count_in_log("ERROR: .*: Timeout in forwarding request$") == 1
    wait_until(lambda: not daemon.has_connection_to(root.destination_port), "the connection's end")


INTERIM = b"HTTP/1.1 100 Continue\r\n"
INTERIM_ANSWERS = {
    "without headers": INTERIM + b"\r\n",
    "with a large header": INTERIM + b"X: " + b"x" * 60000 + b"\r\n\r\n",
    "with many headers": INTERIM + b"X:\r\n" * 10000 + b"\r\n",
}


@pytest.mark.parametrize("answer", INTERIM_ANSWERS.values(), ids=INTERIM_ANSWERS)
@pytest.mark.parametrize("tls", [False, True])
def test_interim_answers_without_end_are_cut_off(root, daemon, tls, answer):
    sent = []
    block = answer * (1 + len(BLOCK) // len(answer))
    with Destination(root.destination_port, flooding(sent, b"", block, GIBIBYTE // 8)):
        assert outcome(ask_by(root, tls)) == NO_REPLY
    assert len(sent) == 1 and sent[0] < GIBIBYTE // 16
    assert_peak_below(daemon, LARGEST_MEMORY_KIB // 1024)
    assert daemon.count_in_log("ERROR: .*: The head of a reply is larger than 65536 bytes$") == 1
    wait_until(lambda: not daemon.has_connection_to(root.destination_port), "the connection's end")


STAGES = {
    "before the request": lambda connection: None,
    "after the request": read_request,
    "after half the head": lambda connection: read_request(connection) and connection.sendall(
        b"HTTP/1.1 200 OK\r\nConte"),
    "after half the body": lambda connection: read_request(connection) and connection.sendall(
        b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"),
}


@pytest.mark.parametrize("stage", STAGES.values(), ids=STAGES)
@pytest.mark.parametrize("tls", [False, True])
def test_a_reset_is_answered_and_leaves_nothing(root, daemon, tls, stage):
    def behave(connection):
        stage(connection)
        reset(connection)

    before = daemon.descriptors()
    with Destination(root.destination_port, behave):
        for _ in range(5):
            assert outcome(ask_by(root, tls)) in (NO_REPLY, FAILED)
    daemon.wait_for_no_clients()
    wait_until(lambda: daemon.descriptors() == before, "as many descriptors as before")
    with Destination(root.destination_port, lambda connection: [
            connection.sendall(answer_bytes(b"ok")) for _ in iter(
                lambda: read_request(connection), b"")]):
        assert ask_by(root, tls).body == b"ok"


def test_a_reset_after_the_answer_costs_the_next_request_nothing(root, daemon):
    def behave(connection):
        request = read_request(connection)
        connection.sendall(answer_bytes(request.split()[1]))
        # It reads nothing before the daemon has taken the answer.
        gone.wait(DEFAULT_LIMIT)
        reset(connection)

    gone = threading.Event()
    with Destination(root.destination_port, behave):
        assert ask_by(root, True, 1).body == b"/api/x?1"
        gone.set()
        wait_until(lambda: not daemon.has_connection_to(root.destination_port), "the reset")
        for number in range(2, 5):
            assert ask_by(root, True, number).body == f"/api/x?{number}".encode()
            wait_until(lambda: not daemon.has_connection_to(root.destination_port), "the reset")


def echo_and(more):
    """Answers each request with its URI, and sends something else as well, all in one piece."""

    def behave(connection):
        while request := read_request(connection):
            connection.sendall(answer_bytes(request.split()[1]) + more)

    return behave


UNASKED = {
    "another answer": answer_bytes(b"for nobody"),
    "garbage": b"garbage\r\n\r\n",
    "half an answer": b"HTTP/1.1 200 OK\r\nContent-Le",
    "a hundred answers": answer_bytes(b"for nobody") * 100,
    "a megabyte": BLOCK * 16,
}


@pytest.mark.parametrize("more", UNASKED.values(), ids=UNASKED)
@pytest.mark.parametrize("tls", [False, True])
def test_nobody_gets_what_was_sent_after_the_answer(root, daemon, tls, more):
    with Destination(root.destination_port, echo_and(more)):
        for number in range(10):
            answer = ask_by(root, tls, number)
            assert outcome(answer) == NO_REPLY or answer.body == (
                f"/api/x?{number}" if tls else "/api/version").encode()
        daemon.wait_for_log("ERROR: .*: The SDK REST host sent more than its reply: ")


@pytest.mark.parametrize("more", UNASKED.values(), ids=UNASKED)
@pytest.mark.parametrize("tls", [False, True])
def test_nobody_gets_what_was_sent_before_the_next_request(root, daemon, tls, more):
    """In a write of its own, when the answer has already gone to its client."""
    taken, sent = threading.Event(), threading.Event()

    def add_later(connection):
        while request := read_request(connection):
            connection.sendall(answer_bytes(request.split()[1]))
            taken.wait(DEFAULT_LIMIT)
            taken.clear()
            connection.setblocking(False)
            try:
                connection.send(more)
            except OSError:
                pass
            connection.setblocking(True)
            sent.set()

    with Destination(root.destination_port, add_later):
        for number in range(10):
            answer = ask_by(root, tls, number)
            assert answer.body == (f"/api/x?{number}" if tls else "/api/version").encode()
            sent.clear()
            taken.set()
            assert sent.wait(DEFAULT_LIMIT)


def test_what_was_sent_after_the_next_request_is_taken_for_its_answer_once(root, daemon):
    """Nothing tells it from that, and the docs say so. What follows behind it is noticed, and from
    then on each request has a connection of its own."""

    def repeat_late(connection):
        before = b""
        while request := read_request(connection):
            uri = request.split()[1]
            connection.sendall(before + answer_bytes(uri))
            before = answer_bytes(b"late " + uri)

    with Destination(root.destination_port, repeat_late):
        bodies = [ask_by(root, True, number).body for number in range(4)]
    assert bodies == [b"/api/x?0", b"late /api/x?0", b"/api/x?2", b"/api/x?3"]


def test_an_answer_before_the_request_is_taken_for_the_first_one_of_its_connection(root, daemon):
    answered = set()

    def early(connection):
        connection.sendall(answer_bytes(b"early"))
        while request := read_request(connection):
            connection.sendall(answer_bytes(request.split()[1]))
            answered.add(request.split()[1])

    answers = []
    with Destination(root.destination_port, early) as destination:
        for number in range(20):
            answers.append(ask_by(root, True, number))
            if answers[-1].body == b"early":
                # What comes after the next request was sent would be that one's answer to anybody.
                wait_until(lambda uri=b"/api/x?%d" % number: uri in answered, "the second answer")
        taken = sum(answer.body == b"early" for answer in answers)
        assert taken <= destination.accepted
    # Nobody gets the answer to another's request.
    for number, answer in enumerate(answers):
        assert outcome(answer) == NO_REPLY or answer.body in (b"early", b"/api/x?%d" % number)


def test_an_answer_that_trickles_in_holds_up_its_own_listener_only(root, daemon):
    first, go_on = threading.Event(), threading.Event()

    def trickle(connection):
        request = read_request(connection)
        if b"/api/version" not in request:
            connection.sendall(answer_bytes(b"at once"))
            return
        for byte in answer_bytes(b"piece by piece"):
            connection.sendall(bytes([byte]))
            first.set()
            go_on.wait(DEFAULT_LIMIT)

    answers = []
    with Destination(root.destination_port, trickle):
        asking = threading.Thread(target=lambda: answers.append(ask_by(root, False)))
        asking.start()
        assert first.wait(DEFAULT_LIMIT)
        assert ask_by(root, True).body == b"at once"
        assert ask(root.http_port, "GET", "/api/mac").status == 200
        assert answers == []
        go_on.set()
        asking.join(DEFAULT_LIMIT)
    assert answers[0].body == b"piece by piece"
