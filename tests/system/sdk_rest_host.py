#!/usr/bin/env python3
"""A stand-in for the SDK REST host: answers every request with JSON that says what arrived.

The demonstration runs it as a program, the system tests start it in their own process and look at
what it received.

Usage: tests/system/sdk_rest_host.py [--port N]
  --port N  listen on 127.0.0.1:N; 0, the default, takes a free port. The first line printed
            names the port.
"""

import argparse
import json
import socket
import threading
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

BODYLESS_STATUSES = (204, 304)


@dataclass
class Request:
    """What arrived. `headers` are pairs in their order on the wire."""

    method: str
    path: str
    headers: list
    body: bytes


@dataclass
class Answer:
    status: int = 200
    reason: str = "OK"
    headers: list = field(default_factory=list)
    body: bytes = b""


def describe(request):
    """The usual answer: what the request looked like from here."""
    text = json.dumps({"method": request.method, "path": request.path,
                       "bodyLength": len(request.body)})
    return Answer(headers=[("Content-Type", "application/json")], body=text.encode() + b"\n")


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    # One segment an answer: the status line and the headers are not sent ahead of the body.
    wbufsize = -1

    def __getattr__(self, name):
        # The base class looks for do_GET, do_POST and so on: any method will do here.
        if name.startswith("do_"):
            return self.handle_any_method
        raise AttributeError(name)

    def handle_any_method(self):
        length = int(self.headers.get("Content-Length", "0"))
        request = Request(self.command, self.path, self.headers.items(), self.rfile.read(length))
        self.server.note(request)
        answer = self.server.respond(request)
        self.send_response_only(answer.status, answer.reason)
        for name, value in answer.headers:
            self.send_header(name, value)
        if answer.status not in BODYLESS_STATUSES:
            self.send_header("Content-Length", str(len(answer.body)))
        self.end_headers()
        if answer.status not in BODYLESS_STATUSES and self.command != "HEAD":
            self.wfile.write(answer.body)
        self.wfile.flush()

    def log_message(self, format, *args):
        if self.server.verbose:
            super().log_message(format, *args)


class SdkRestHost(ThreadingHTTPServer):
    """Listens on 127.0.0.1 as soon as it is made; a context manager serves on a thread.

    Its end drops the connections that are still open, as the end of a program would.
    `respond` maps a Request to an Answer and may be replaced; `requests` holds what arrived.
    """

    daemon_threads = True
    # Behind the daemon there is one connection a listener.
    request_queue_size = 16

    def __init__(self, port=0, verbose=False):
        super().__init__(("127.0.0.1", port), Handler)
        self.port = self.server_address[1]
        self.verbose = verbose
        self.respond = describe
        self.requests = []
        self._lock = threading.Lock()
        self._connections = set()

    def note(self, request):
        with self._lock:
            self.requests.append(request)

    def process_request(self, request, client_address):
        with self._lock:
            self._connections.add(request)
        super().process_request(request, client_address)

    def shutdown_request(self, request):
        with self._lock:
            self._connections.discard(request)
        super().shutdown_request(request)

    def handle_error(self, request, client_address):
        # A peer that drops its connection is everyday life here.
        pass

    def __enter__(self):
        self._thread = threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *_):
        self.shutdown()
        self._thread.join()
        self.server_close()
        with self._lock:
            for connection in self._connections:
                self._drop(connection)

    @staticmethod
    def _drop(connection):
        try:
            connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the other side was faster


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0)
    host = SdkRestHost(parser.parse_args().port, verbose=True)
    print(f"SDK REST host on 127.0.0.1:{host.port}", flush=True)
    try:
        host.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
