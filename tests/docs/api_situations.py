"""The situations behind the daemon's answers, and how to bring each of them about."""

import re
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, field

from markdown import PROJECT
from sdk_rest_host import SdkRestHost
from support.clients import Answer, connect, exchange
from support.destinations import Destination, hang, read_request
from support.scratch_root import PAIRING_KEY

OPEN_ENDPOINT = ("GET", "/api/version")
ELSEWHERE = ("GET", "/api/1/profiles")
MAX_BODY = 32768
MAX_READ_BODY = 4 * 1024 * 1024
MAX_WAITING = 100


def open_endpoints():
    """Those of the sources, as pairs of method and path."""
    source = (PROJECT / "src" / "agent" / "access.cc").read_text(encoding="utf-8")
    endpoints = re.findall(r"\{EVHTTP_REQ_(\w+), \"([^\"]+)\"\}", source)
    assert endpoints
    return endpoints


def raw_request(method, path, headers=(), body=b"", length=None):
    """With `length`, the request claims a body that does not come."""
    claimed = len(body) if length is None else length
    lines = [f"{method} {path} HTTP/1.1", "Host: x", "Connection: close",
             f"Content-Length: {claimed}", *(f"{name}: {value}" for name, value in headers)]
    return "\r\n".join([*lines, "", ""]).encode() + body


def parse(data):
    """An answer whose end is that of its connection."""
    head, _, body = data.partition(b"\r\n\r\n")
    first, *lines = head.decode().split("\r\n")
    version, status, reason = first.split(" ", 2)
    assert version == "HTTP/1.1"
    return Answer(int(status), reason, [tuple(line.split(": ", 1)) for line in lines], body)


def send(root, listener, request):
    port = root.https_port if listener == "TLS" else root.http_port
    return parse(exchange(port, request, tls=listener == "TLS"))


@dataclass
class Situation:
    """What is asked, and what stands around the daemon meanwhile."""

    answer: tuple
    request: tuple = OPEN_ENDPOINT
    options: dict = field(default_factory=dict)
    key: str = PAIRING_KEY
    destination: str = "answers"
    hook: str = ""
    missing: str = ""  # the file that is not there


SITUATIONS = {
    "served": Situation((200, "OK")),
    "a malformed header": Situation((400, "Bad Request"), options={"headers": [("a\r\nb", "c")]}),
    "a large head": Situation((400, "Bad Request"), options={"headers": [("a", "a" * 65536)]}),
    "a long body": Situation((400, "Request data too long"),
                             options={"body": b"b" * (MAX_BODY + 1)}),
    "a blank in the path": Situation((400, "Invalid character in the URI"), ("GET", "/api/x y")),
    "outside": Situation((404, "Invalid endpoint is called"), ("GET", "/")),
    "another method on the MAC address": Situation((405, "Method not allowed"),
                                                   ("PUT", "/api/mac")),
    "a huge body": Situation((413, "Request Entity Too Large"),
                             options={"length": MAX_READ_BODY + 1}),
    "no open endpoint": Situation((417, "Endpoint is not allowed with insecure connection"),
                                  ELSEWHERE),
    "an expectation": Situation((417, "Expectation Failed"),
                                options={"headers": [("Expect", "the-unexpected")], "body": b"b"}),
    "a wrong key": Situation((417, "Pairing key not as expected"), key="guessed"),
    "a missing key": Situation((417, "Pairing key not as expected"), key=""),
    "too many waiting": Situation((500, "Cannot forward the http request to the server"),
                                  destination="hangs"),
    "no destination": Situation((500, "Destination request failed"), destination="is not there"),
    "a script that fails": Situation((500, "Internal error"), hook="exit 2"),
    "an unknown client": Situation((500, "Internal error"), ("GET", "/api/mac"),
                                   missing="device_list"),
    "no key configured": Situation((500, "Pairing key is not configured"),
                                   missing="router_info"),
    "a destination that hangs up": Situation((500, "Timeout in forwarding request"),
                                             destination="hangs up"),
    "another method": Situation((501, "Not Implemented"), ("OPTIONS", "/api/version")),
    "a script that ends the request": Situation((200, "OK"), hook="exit 1"),
    "the client's MAC address": Situation((200, "OK"), ("GET", "/api/mac")),
}


def _make_destination(kind, port):
    if kind == "answers":
        return SdkRestHost(port)
    if kind == "hangs":
        return Destination(port, hang)
    if kind == "hangs up":
        return Destination(port, read_request)
    return ExitStack()  # nobody


def _fill_queue(daemon, listener, stack):
    """As many requests as may wait for a destination that hangs."""
    root = daemon.root
    tls = listener == "TLS"
    headers = [("PairingKey", PAIRING_KEY)]
    mark = daemon.mark()
    for _ in range(MAX_WAITING):
        client = stack.enter_context(connect(root.https_port if tls else root.http_port, tls))
        client.sendall(raw_request(*OPEN_ENDPOINT, headers))
    daemon.wait_for_log("INFO: .*: GET /api/version$", since=mark, count=MAX_WAITING)


@contextmanager
def provoke(root, make_daemon, name):
    """A function that asks a listener in the situation of that name: for what the situation asks,
    unless another request is given. Its `destination` is what stands behind the daemon."""
    situation = SITUATIONS[name]
    if situation.missing:
        getattr(root, situation.missing).unlink()
    if situation.hook:
        root.settings["agentDataPath"] = str(root.agent_data)
        # The last directory's answer is the one that counts.
        root.write_hook(root.external_hooks, "10-answer", f"#!/bin/sh\n{situation.hook}\n")
    with ExitStack() as stack:
        destination = _make_destination(situation.destination, root.destination_port)
        stack.enter_context(destination)
        daemon = make_daemon().start()
        filled = set()

        def ask(listener, request=None, key=situation.key, **options):
            if situation.destination == "hangs" and listener not in filled:
                _fill_queue(daemon, listener, stack)
                filled.add(listener)
            options = {**situation.options, **options}
            headers = [*options.pop("headers", ()), *([("PairingKey", key)] if key else [])]
            return send(root, listener,
                        raw_request(*(request or situation.request), headers, **options))

        ask.destination = destination
        yield ask
