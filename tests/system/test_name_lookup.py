"""A destination that is configured by its name: a look-up that takes long holds up nobody but the
listener that needs it."""

import contextlib
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.clients import Client, ask
from support.destinations import Destination, answer_bytes, answering
from support.programs import compile_preload, needs_cc
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER, wait_until

pytestmark = [needs_cc, pytest.mark.skipif(
    SANITIZER != "" or EMULATOR != "",
    reason="needs a daemon into which something can be preloaded")]

KEY = {"PairingKey": PAIRING_KEY}


class Gate:
    """Look-ups wait as long as it is closed."""

    def __init__(self, directory):
        self._file = directory / "gate"
        self._waits = directory / "gate.waits"
        self._pass = directory / "gate.pass"
        library = compile_preload("gated_getaddrinfo", directory)
        self.prefix = ["env", f"LD_PRELOAD={library}", f"GATE={self._file}"]

    def close(self):
        self._waits.unlink(missing_ok=True)
        self._file.touch()

    def open(self):
        self._file.unlink(missing_ok=True)

    def wait_for_a_look_up(self):
        wait_until(self._waits.exists, "a look-up that waits")

    def let_one_pass(self):
        self._pass.touch()
        wait_until(lambda: not self._pass.exists(), "a look-up that passes")


@pytest.fixture
def gate(root):
    made = Gate(root.directory)
    yield made
    made.open()


@pytest.fixture
def named(root, make_daemon, gate):
    """Its hook passes everything, after a note."""
    root.settings["agentDstAddr"] = "destination.invalid"
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    root.write_hook(root.internal_hooks, "10-note",
                    f"#!/bin/sh\necho \"$2\" >>{root.directory}/notes\n")
    return make_daemon(prefix=gate.prefix).start()


@pytest.fixture
def unanswered(root, make_daemon, gate):
    """Nobody answers its look-ups."""
    root.settings["agentDstAddr"] = "destination.invalid"
    return make_daemon(prefix=[*gate.prefix, "GATE_FAILS=1"]).start()


def ask_by(root, tls):
    uri = "/api/2/router-info"
    return ask(root.https_port if tls else root.http_port, "GET", uri, headers=KEY, tls=tls)


@pytest.mark.parametrize("tls", [False, True])
def test_a_slow_look_up_of_one_listener_does_not_hold_up_the_other(root, named, gate, tls):
    """`tls` tells which one looks up; the other one has its connection already, and runs a script
    for each request."""
    with Destination(root.destination_port, answering(answer_bytes(b"ok"))), \
            ThreadPoolExecutor(1) as pool:
        assert ask_by(root, not tls).body == b"ok"
        gate.close()
        slow = pool.submit(ask_by, root, tls)
        gate.wait_for_a_look_up()
        for _ in range(5):
            assert ask_by(root, not tls).body == b"ok"
        assert not slow.done()
        gate.open()
        assert slow.result().body == b"ok"
    assert (root.directory / "notes").read_text().count("\n") == 7


def test_both_may_look_up_at_the_same_time(root, named, gate):
    with Destination(root.destination_port, answering(answer_bytes(b"ok"))), \
            ThreadPoolExecutor(2) as pool:
        gate.close()
        answers = [pool.submit(ask_by, root, tls) for tls in (False, True)]
        gate.wait_for_a_look_up()
        # Both have been judged by the script, whoever of them waits.
        wait_until(lambda: (root.directory / "notes").exists() and
                   (root.directory / "notes").read_text().count("\n") == 2, "both scripts")
        gate.open()
        assert [answer.result().body for answer in answers] == [b"ok"] * 2


def test_a_connection_made_by_name_is_kept_from_scripts(root, named, gate):
    """Opened, it is looked for in the next script's descriptors."""
    listing = root.directory / "descriptors"
    root.write_hook(root.internal_hooks, "20-list", f"#!/bin/sh\nls -l /proc/$$/fd >>{listing}\n")
    with Destination(root.destination_port, answering(answer_bytes(b"ok"))):
        for _ in range(3):
            for tls in (False, True):
                assert ask_by(root, tls).body == b"ok"
    assert "pipe:" in listing.read_text()
    assert "socket:" not in listing.read_text()


def test_look_ups_that_fail_one_after_the_other_do_not_hold_up_the_loop(root, unanswered, gate):
    """All that wait for one at the same time: between any two of them others have their turn, and
    the heartbeat and the clients' time-outs as well."""
    many = 10
    with contextlib.ExitStack() as stack:
        waiting = [stack.enter_context(Client(root.http_port)) for _ in range(many)]
        other = stack.enter_context(Client(root.http_port))
        for client in [*waiting, other]:
            assert client.ask("GET", "/api/mac").status == 200  # they are connected
        gate.close()
        waiting[0].connection.request("GET", "/api/version")
        gate.wait_for_a_look_up()
        for client in waiting[1:]:
            client.connection.request("GET", "/api/version")
        mark = unanswered.mark()
        gate.let_one_pass()
        unanswered.wait_for_log("GET /api/version$", since=mark, count=many - 1)

        other.connection.request("GET", "/api/mac")
        for _ in range(many - 2):
            gate.let_one_pass()
        assert unanswered.count_in_log("GET /api/mac$", mark) == 1
        gate.open()
        assert [client.connection.getresponse().status for client in waiting] == [500] * many
    assert unanswered.count_in_log("Failed to look up destination.invalid: ") == many
