"""Ports that no test running beside this one gets, and that no outgoing connection takes."""

import errno
import fcntl
import os
import random
import socket

# Below the range from which the kernel picks the ports of outgoing connections.
FIRST_PORT, LAST_PORT = 12000, 31999
LOCK_DIRECTORY = "/tmp/tavlo-test-ports"

# A port stays ours as long as its lock file is open: to the end of this process.
_locks = []


def _try_reserve(port):
    lock = os.open(f"{LOCK_DIRECTORY}/{port}", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o666)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        with socket.socket() as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            probe.bind(("127.0.0.1", port))
    except OSError as error:
        os.close(lock)
        if error.errno not in (errno.EWOULDBLOCK, errno.EADDRINUSE):
            raise
        return False
    _locks.append(lock)
    return True


def reserve_port():
    os.makedirs(LOCK_DIRECTORY, exist_ok=True)
    for _ in range(1000):
        port = random.randint(FIRST_PORT, LAST_PORT)
        if _try_reserve(port):
            return port
    raise RuntimeError("no free port found")
