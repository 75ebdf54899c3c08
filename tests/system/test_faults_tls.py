"""Connections that misuse TLS, mistake it for the plain port, or break off at any stage: only they
suffer."""

import os
import re
import select
import shutil
import socket
import ssl
import subprocess
import threading
from pathlib import Path

import pytest

from support.clients import ask, connect, exchange, read_to_end, reset, tls_context
from support.destinations import Destination, answer_bytes, answering_after
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT, SANITIZER, wait_until

KEY = {"PairingKey": PAIRING_KEY}
REQUEST = (f"GET /api/x HTTP/1.1\r\nHost: x\r\nPairingKey: {PAIRING_KEY}\r\n"
           "Connection: close\r\n\r\n").encode()


def assert_serving(root):
    assert ask(root.https_port, "GET", "/api/x", headers=KEY, tls=True).status == 200
    assert ask(root.http_port, "GET", "/api/version").status == 200


class ClientProcess:
    """Ended with its context."""

    process: subprocess.Popen

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


class Session(ClientProcess):
    """`openssl s_client`, which takes commands: R renegotiates, K and k change keys."""

    def __init__(self, port, *options):
        self.process = subprocess.Popen(
            ["openssl", "s_client", "-connect", f"127.0.0.1:{port}", *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.text = b""
        os.set_blocking(self.process.stdout.fileno(), False)

    def read(self):
        self.text += self.process.stdout.read() or b""
        return self.text

    def send(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    def wait_for(self, part, count=1):
        wait_until(lambda: self.read().count(part) >= count or self.process.poll() is not None,
                   f"{part!r} from s_client")


def test_a_client_that_renegotiates_is_refused(root, daemon, sdk_host):
    with Session(root.https_port, "-tls1_2") as session:
        session.wait_for(b"Verify return code")
        session.send(b"R\n")
        session.wait_for(b"RENEGOTIATING")
        wait_until(lambda: session.process.poll() is not None, "the end of s_client")
        assert b"no renegotiation" in session.read()
    daemon.wait_for_no_clients()
    assert sdk_host.requests == []
    assert_serving(root)


@pytest.mark.parametrize("command", [b"K\n", b"k\n"], ids=["both", "own"])
def test_a_client_may_change_its_keys(root, daemon, sdk_host, command):
    with Session(root.https_port, "-tls1_3") as session:
        session.wait_for(b"Verify return code")
        for count in range(1, 21):
            session.send(command)
            session.wait_for(b"KEYUPDATE", count)
        session.send(REQUEST)
        session.wait_for(b"HTTP/1.1 200 OK")
        assert b"HTTP/1.1 200 OK" in session.read()
    assert len(sdk_host.requests) == 1
    daemon.wait_for_no_clients()
    assert_serving(root)


needs_cc = pytest.mark.skipif(shutil.which("cc") is None, reason="needs cc, for a client of its own")


def compile_client(name, tmp_path):
    program = tmp_path / name
    source = Path(__file__).with_name(f"{name}.c")
    subprocess.run(["cc", "-O2", "-o", program, source, "-lssl", "-lcrypto"], check=True)
    return program


@needs_cc
def test_a_client_that_sends_records_without_end_does_not_hold_up_others(root, daemon, tmp_path):
    program = compile_client("key_update_flood", tmp_path)
    floods = [subprocess.Popen([program, str(root.https_port)]) for _ in range(2)]
    try:
        wait_until(lambda: len(daemon.client_connections()) >= len(floods), "the clients")
        for _ in range(100):
            assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200
        assert [flood.poll() for flood in floods] == [None, None]
    finally:
        for flood in floods:
            flood.kill()
            flood.wait()
    daemon.wait_for_no_clients()


def descriptor_of(daemon, port):
    """The descriptor of its connection to the client at `port`, whose send buffer is made as small
    as can be."""
    for descriptor in daemon.descriptors():
        connection = daemon.borrow_socket(descriptor)
        if connection is None:
            continue
        with connection:
            try:
                is_it = connection.getpeername()[1] == port
            except (OSError, IndexError):
                continue  # it listens, or is none of TCP's
            if is_it:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)
                return descriptor
    return None


def waits_to_write(daemon, descriptor):
    """Whether an event loop of its own waits until it can write there."""
    for entry in Path(f"/proc/{daemon.pid}/fdinfo").iterdir():
        try:
            text = entry.read_text()
        except FileNotFoundError:
            continue  # closed meanwhile
        watched = re.search(rf"^tfd: +{descriptor} events: +([0-9a-f]+)", text, re.M)
        if watched:
            return int(watched[1], 16) & select.EPOLLOUT != 0
    return False


class Stall(ClientProcess):
    """A client that does not read while it asks for `count` key updates and sends a request."""

    def __init__(self, daemon, program, count):
        self.daemon = daemon
        self.process = subprocess.Popen(
            [program, str(daemon.root.https_port), PAIRING_KEY, str(count)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        port = int(self.process.stdout.readline())
        self.descriptor = wait_until(lambda: descriptor_of(daemon, port), "the connection")

    def send(self):
        """Returns whether the request was taken up before the way back was full."""
        mark = self.daemon.mark()
        self.process.stdin.write(b"\n")
        wait_until(lambda: self.daemon.count_in_log("GET /api/x$", mark) == 1
                   or waits_to_write(self.daemon, self.descriptor), "the request or a full way")
        return self.daemon.count_in_log("GET /api/x$", mark) == 1

    def read(self):
        self.process.stdin.write(b"\n")
        self.process.wait(DEFAULT_LIMIT)


@needs_cc
def test_a_key_update_that_cannot_be_answered_while_a_request_waits(root, daemon, tmp_path):
    """Once the client reads again, OpenSSL may read on by itself, which libevent does not bear then.
    Two things stand against that: OpenSSL returns after each key update, and libevent is not told of
    input while a request waits."""
    program = compile_client("key_update_stall", tmp_path)
    go_on = threading.Event()
    fewest, most = 0, 4096  # key updates that leave room for the request, and that do not
    with Destination(root.destination_port, answering_after(go_on, answer_bytes(b"ok"))):
        # The last ones tried are those that just leave room: the way is full behind the request.
        while most - fewest > 1:
            count = (fewest + most) // 2
            with Stall(daemon, program, count) as stall:
                fewest, most = (count, most) if stall.send() else (fewest, count)
                stall.read()
                assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200
            go_on.set()
            daemon.wait_for_no_clients()
            go_on.clear()
    assert 0 < fewest < 4095


def test_plain_text_on_the_tls_port_gets_nothing(root, daemon, sdk_host):
    assert_serving(root)
    sdk_host.requests.clear()
    for request in (REQUEST, REQUEST[:1], REQUEST * 100, b"\r\n" * 100):
        assert b"HTTP/" not in exchange(root.https_port, request)
    assert sdk_host.requests == []
    daemon.wait_for_no_clients()
    assert_serving(root)


def test_tls_on_the_plain_port_gets_nothing(root, daemon, sdk_host):
    context = tls_context()
    for _ in range(20):
        with pytest.raises((ssl.SSLError, ConnectionError, TimeoutError)), \
                socket.create_connection(("127.0.0.1", root.http_port), DEFAULT_LIMIT) as plain:
            hello = ssl.MemoryBIO(), ssl.MemoryBIO()
            with pytest.raises(ssl.SSLWantReadError):
                context.wrap_bio(*hello).do_handshake()
            # An end of line, for which the daemon waits, need not be in a greeting.
            plain.sendall(hello[1].read() + b"\r\n\r\n")
            answer = read_to_end(plain)
            assert b"HTTP/1.1 200" not in answer
            raise ConnectionError
    assert sdk_host.requests == []
    daemon.wait_for_no_clients()
    assert_serving(root)


def client_hello():
    hello = ssl.MemoryBIO(), ssl.MemoryBIO()
    with pytest.raises(ssl.SSLWantReadError):
        tls_context().wrap_bio(*hello).do_handshake()
    return hello[1].read()


@pytest.mark.parametrize("leave", [reset, socket.socket.close], ids=["reset", "close"])
def test_a_handshake_that_breaks_off_after_any_byte(root, daemon, sdk_host, leave):
    assert_serving(root)
    daemon.wait_for_no_clients()
    before = daemon.descriptors()
    hello = client_hello()
    for length in range(0, len(hello) + 1, 16 if SANITIZER else 4):
        connection = connect(root.https_port)
        connection.sendall(hello[:length])
        if length == len(hello):
            assert connection.recv(1) == b"\x16"
        leave(connection)
    # Connections are taken in their order: with this one all of them have been.
    assert_serving(root)
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == before


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_a_connection_that_is_reset_after_any_flight(root, daemon, sdk_host, version):
    assert_serving(root)
    daemon.wait_for_no_clients()
    before = daemon.descriptors()
    sdk_host.requests.clear()
    for flights in range(6):
        connection = connect(root.https_port)
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        context = tls_context()
        context.minimum_version = context.maximum_version = version
        tls = context.wrap_bio(incoming, outgoing)
        steps = [tls.do_handshake, tls.do_handshake, tls.do_handshake,
                 lambda: tls.write(REQUEST[:-2]), lambda: tls.write(REQUEST[-2:])]
        done = 0
        while done < min(flights, len(steps)):
            try:
                steps[done]()
                done += 1
            except ssl.SSLWantReadError:
                done += 1
                connection.sendall(outgoing.read())
                incoming.write(connection.recv(65536))
                continue
            connection.sendall(outgoing.read())
        reset(connection)
    assert_serving(root)
    daemon.wait_for_no_clients()
    assert daemon.descriptors() == before
    # Those that were whole were forwarded, and nothing else.
    assert {request.path for request in sdk_host.requests} <= {"/api/x", "/api/version"}


def test_records_that_are_damaged_end_their_connection(root, daemon, sdk_host):
    context = tls_context()
    for place in (0, 1, 3, 5, -1):
        with connect(root.https_port) as connection:
            incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
            tls = context.wrap_bio(incoming, outgoing)
            while True:
                try:
                    tls.do_handshake()
                    break
                except ssl.SSLWantReadError:
                    connection.sendall(outgoing.read())
                    incoming.write(connection.recv(65536))
            connection.sendall(outgoing.read())
            tls.write(REQUEST)
            record = bytearray(outgoing.read())
            record[place] ^= 0xff
            try:
                connection.sendall(record)
                # Where the length is the damage, the daemon waits for the rest.
                connection.shutdown(socket.SHUT_WR)
            except OSError:
                pass  # it has hung up already
            read_to_end(connection)
    assert sdk_host.requests == []
    assert_serving(root)
