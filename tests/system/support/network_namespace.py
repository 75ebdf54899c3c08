"""A network of the test's own: interfaces and addresses that nobody else sees."""

import itertools
import os
import subprocess
import uuid
from contextlib import contextmanager

import pytest

from support.daemon import DIE_WITH_PARENT

_numbers = itertools.count()


def _run(*command):
    result = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=False)
    assert result.returncode == 0, f"{command}: {result.stderr}"
    return result.stdout


class NetworkNamespace:
    """A context manager; at its end the namespace and all its interfaces are gone."""

    def __init__(self):
        self.name = f"tavlo-{os.getpid()}-{next(_numbers)}-{uuid.uuid4().hex[:8]}"
        self.prefix = ["ip", "netns", "exec", self.name]

    def __enter__(self):
        if os.geteuid() != 0:
            pytest.skip("only root can make a network namespace")
        _run("ip", "netns", "add", self.name)
        self.ip("link", "set", "lo", "up")
        return self

    def __exit__(self, *_):
        _run("ip", "netns", "delete", self.name)

    def run(self, *command):
        return _run(*self.prefix, *command)

    def ip(self, *arguments):
        return _run("ip", "-netns", self.name, *arguments)

    def ip_batch(self, commands):
        subprocess.run(["ip", "-netns", self.name, "-batch", "-"], input=commands, text=True,
                       check=True)

    @contextmanager
    def start(self, *command):
        """A process inside; it is killed at the end unless it has ended by itself."""
        with subprocess.Popen([*DIE_WITH_PARENT, *self.prefix, *map(str, command)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) as process:
            try:
                yield process
            finally:
                process.kill()

    def add_interface(self, name, *addresses):
        """A pair of virtual Ethernet interfaces, both up, so that the first one has a carrier."""
        peer = f"peer{next(_numbers)}"
        self.ip("link", "add", name, "type", "veth", "peer", "name", peer)
        for interface in (name, peer):
            self.ip("link", "set", interface, "up")
        for address in addresses:
            self.add_address(name, *address.split())

    def add_address(self, interface, address, *more):
        # Without duplicate address detection an IPv6 address is usable at once.
        no_detection = ["nodad"] if ":" in address else []
        self.ip("address", "add", address, *more, "dev", interface, *no_detection)

    def listening(self):
        """Pairs of address and port."""
        lines = self.run("ss", "--no-header", "--listening", "--tcp", "--numeric").splitlines()
        endpoints = (line.split()[3].rpartition(":") for line in lines)
        return {(address, int(port)) for address, _, port in endpoints}

    def curl(self, *arguments):
        return self.run("curl", "--silent", "--show-error", "--noproxy", "*", "--max-time", "30",
                        *arguments)
