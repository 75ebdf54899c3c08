"""The rows of the comparison: which request, how often, over how many connections, and of whom."""

from contextlib import ExitStack
from dataclasses import dataclass, field

import load
from servers import LARGEST_BODY, OWN_CURVES, PAIRING_KEY, SIDE_BY_SIDE, HaproxyOneConnection

ALL = tuple(server.name for server in SIDE_BY_SIDE)
ONE_AT_A_TIME = HaproxyOneConnection.name
WITH_OWN_CURVES = tuple(server.name for server in OWN_CURVES)
KEY = f"PairingKey: {PAIRING_KEY}"


@dataclass
class Row:
    """`requests` is the number in a full run; `paths` has the path of a server that is asked for
    another one than the rest; `noise` are the path and options of h2load of each connection that
    asks for something else meanwhile."""

    key: str
    title: str
    path: str
    connections: int
    requests: int
    tls: bool = False
    method: str = "GET"
    body: bool = False
    anew: bool = False
    expected: int = 200
    handshakes: str = ""
    servers: tuple = ALL
    paths: dict = field(default_factory=dict)
    noise: tuple = ()

    def load(self, server, scratch, requests):
        path = self.paths.get(server.name, self.path)
        if self.handshakes:
            expected = self.expected if server.refusal else 200
            return load.handshakes(server.tls_port, path, expected, requests,
                                   self.handshakes == "reuse")
        scheme, port = ("https", server.tls_port) if self.tls else ("http", server.plain_port)
        headers = ([KEY] if self.tls else []) + (["Connection: close"] if self.anew else [])
        body = None
        if self.body:
            body = scratch / "body"
            body.write_bytes(b"x" * LARGEST_BODY)
        origin = f"{scheme}://127.0.0.1:{port}"
        with ExitStack() as stack:
            for other, options in self.noise:
                stack.enter_context(load.noise(origin + other, options))
            return load.h2load(scratch / "h2load.log", origin + path, requests,
                               min(self.connections, requests), self.expected, self.method, body,
                               headers)


def plain(name, title, path, connections, requests, servers=ALL, **options):
    """The destination stands in the plain rows too."""
    return Row(f"{name}-plain-{connections}", f"{title}, plain, {connections} conn.", path,
               connections, requests, servers=(*servers, "destination"), **options)


def tls(name, title, path, connections, requests, **options):
    return Row(f"{name}-tls-{connections}", f"{title}, TLS, {connections} conn.", path,
               connections, requests, tls=True, **options)


ROWS = [
    *(make("get", "GET", path, connections, requests, servers=(*ALL, ONE_AT_A_TIME))
      for make, path in ((plain, "/api/version"), (tls, "/api/1/profiles"))
      for connections, requests in ((1, 10000), (16, 20000), (64, 20000))),
    plain("body", "PATCH of 32 KiB", "/api/1/router-ref", 16, 8000, method="PATCH", body=True),
    tls("body", "POST of 32 KiB", "/api/1/profiles", 16, 8000, method="POST", body=True),
    plain("answer", "answer of 64 KiB", "/api/2/router-info", 16, 8000),
    tls("answer", "answer of 64 KiB", "/api/2/router-info", 16, 8000),
    plain("anew", "GET, connection each", "/api/version", 16, 10000, anew=True),
    Row("handshake-new", "TLS full handshake each", "/outside", 1, 2000, tls=True, expected=404,
        handshakes="new", servers=(*ALL, *WITH_OWN_CURVES)),
    Row("handshake-reuse", "TLS resumed handshake each", "/outside", 1, 3000, tls=True,
        expected=404, handshakes="reuse", servers=(*ALL, *WITH_OWN_CURVES)),
    Row("mac", "GET /api/mac, 250 devices, 16 conn.", "/api/mac", 16, 10000,
        servers=("tavlo", "floor"), paths={"floor": "/api/version"}),
    Row("hook-1", "GET, one hook script, 1 conn.", "/api/version", 1, 1000,
        servers=("tavlo with one script",)),
    Row("hook-10", "GET, ten hook scripts, 1 conn.", "/api/version", 1, 150,
        servers=("tavlo with ten scripts",)),
    # What a small request waits for behind others, each of which runs the script.
    Row("mixed", "GET, one script, beside 64 KiB answers and pipelines, 1 conn.", "/api/version", 1, 1000,
        servers=("tavlo with one script",),
        noise=(("/api/2/router-info", ()), ("/api/version", ("-m", 16)))),
]
