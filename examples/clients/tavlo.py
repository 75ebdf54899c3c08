#!/usr/bin/env python3
"""Asks tavlo: prints the body of the answer; when it is an error, its status and reason on standard
error, with exit status 1.

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


def ask(method, path, body=None):
    """Status, reason and body of the answer."""
    url = urlsplit(os.environ["TAVLO_URL"])
    headers = {}
    if url.scheme == "https":
        trust = ssl.create_default_context(cafile=os.environ["TAVLO_CERTIFICATE"])
        connection = http.client.HTTPSConnection(url.hostname, url.port, timeout=TIMEOUT_SECS,
                                                 context=trust)
        headers["PairingKey"] = os.environ["TAVLO_KEY"]
    else:
        connection = http.client.HTTPConnection(url.hostname, url.port, timeout=TIMEOUT_SECS)
    connection.request(method, path, body, headers)
    answer = connection.getresponse()
    return answer.status, answer.reason, answer.read()


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    method, path, *body = sys.argv[1:]
    status, reason, content = ask(method, path, *(text.encode() for text in body))
    if status // 100 != 2:
        sys.exit(f"{status} {reason}")
    sys.stdout.buffer.write(content)


if __name__ == "__main__":
    main()
