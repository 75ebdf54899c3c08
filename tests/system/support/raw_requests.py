"""What reaches a destination, taken apart strictly: anything but requests one after another, each
with one Content-Length and nothing else about its length, is an error."""

import re
import threading
from dataclasses import dataclass

# A carriage return by itself ends no line; the daemon passes it on as it came.
START = re.compile(rb"[A-Z]+ [^\n\0]* HTTP/1\.1")
HEADER = re.compile(rb"([!-9;-~]+): ([^\r\n\0]*)")


@dataclass
class RawRequest:
    start: bytes
    headers: list
    body: bytes


def take_request(data):
    """Returns the first request and the rest, or None when it has not come whole."""
    head, end, rest = data.partition(b"\r\n\r\n")
    if not end:
        return None
    start, *lines = head.split(b"\r\n")
    assert START.fullmatch(start), f"no request begins like this: {start!r}"
    headers = []
    for line in lines:
        parts = HEADER.fullmatch(line)
        assert parts, f"not a header: {line!r}"
        headers.append((parts[1].lower(), parts[2]))
    lengths = [value for name, value in headers if name == b"content-length"]
    assert len(lengths) == 1 and lengths[0].isdigit(), f"no one length: {headers!r}"
    assert b"transfer-encoding" not in dict(headers)
    length = int(lengths[0])
    return (RawRequest(start, headers, rest[:length]), rest[length:]) if len(rest) >= length else None


class RequestRecorder:
    """For a Destination: gives each request the same answer and keeps it for `take`."""

    def __init__(self, answer):
        self._answer = answer
        self._lock = threading.Lock()
        self._requests = []
        self._errors = []

    def __call__(self, connection):
        data = b""
        while part := connection.recv(65536):
            data += part
            while taken := self._take_request(data):
                request, data = taken
                with self._lock:
                    self._requests.append(request)
                connection.sendall(self._answer)

    def _take_request(self, data):
        try:
            return take_request(data)
        except AssertionError as error:
            with self._lock:
                self._errors.append(str(error))
            raise OSError from error

    def take(self):
        """What has come since the last call; fails if something came that was no request."""
        with self._lock:
            errors, self._errors = self._errors, []
            requests, self._requests = self._requests, []
        assert errors == []
        return requests
