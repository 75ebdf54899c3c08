#!/usr/bin/env python3
"""Asks tavlo: prints the body of the answer; when it is an error, its status and reason on standard
error, with exit status 1. Without an answer it says why, with exit status 2.

Usage: tavlo.py METHOD PATH [BODY]
In the environment:
  TAVLO_URL          http://ROUTER:60278 or https://ROUTER:60279
  TAVLO_KEY          the pairing key; only for https
  TAVLO_CERTIFICATE  the file with the router's certificate; only for https
"""

import http.client
import os
import ssl
import sys
from urllib.parse import urlsplit

# The daemon itself gives up after 61 seconds.
TIMEOUT_SECS = 70


def setting(name):
    value = os.environ.get(name)
    if not value:
        raise ValueError(f"{name} is not set")
    return value


def ask(method, path, body=None):
    """Status, reason and body of the answer."""
    url = urlsplit(setting("TAVLO_URL"))
    if not url.hostname:
        raise ValueError("TAVLO_URL is no URL")
    headers = {}
    if url.scheme == "https":
        with open(setting("TAVLO_CERTIFICATE"), encoding="ascii") as certificate:
            trust = ssl.create_default_context(cadata=certificate.read())
        connection = http.client.HTTPSConnection(url.hostname, url.port, timeout=TIMEOUT_SECS,
                                                 context=trust)
        headers["PairingKey"] = setting("TAVLO_KEY")
    else:
        connection = http.client.HTTPConnection(url.hostname, url.port, timeout=TIMEOUT_SECS)
    connection.request(method, path, body, headers)
    answer = connection.getresponse()
    return answer.status, answer.reason, answer.read()


def fail(text):
    print(text, file=sys.stderr)
    sys.exit(2)


def main():
    if len(sys.argv) not in (3, 4):
        fail("usage: tavlo.py METHOD PATH [BODY]")
    method, path, *body = sys.argv[1:]
    try:
        status, reason, content = ask(method, path, *(text.encode() for text in body))
    except (OSError, ValueError, http.client.HTTPException) as error:
        fail(error)
    if status // 100 != 2:
        sys.exit(f"{status} {reason}")
    sys.stdout.buffer.write(content)


if __name__ == "__main__":
    main()
