"""A LAN address that changes while the daemon runs: it looks once a minute."""

import pytest

from test_lan_address import (NO_ADDRESS, assert_served, endpoints, namespace,  # noqa: F401
                              sdk_rest_host, start, wait_for_binding)

A_LITTLE_MORE_THAN_A_MINUTE = 75


def wait_for_next_look(daemon):
    mark = daemon.mark()
    daemon.wait_for_log("DEBUG: void Run: Update LAN address$", since=mark,
                        limit=A_LITTLE_MORE_THAN_A_MINUTE)
    daemon.wait_for_log("(ERROR: void UpdateLanAddress|BindSrcAddr: Enter)", since=mark)
    return mark


def test_an_interface_that_gets_its_address_later(namespace, root, start):  # noqa: F811
    namespace.add_interface("br0")
    daemon = start()
    assert daemon.count_in_log(f"ERROR: void UpdateLanAddress: {NO_ADDRESS}$") == 1
    with sdk_rest_host(namespace, root.destination_port):
        namespace.add_address("br0", "192.0.2.1/24")
        mark = wait_for_next_look(daemon)
        wait_for_binding(daemon, "192.0.2.1", since=mark)
        assert_served(namespace, root, "192.0.2.1")


def test_addresses_that_change_and_go(namespace, root, start):  # noqa: F811
    namespace.add_interface("br0", "192.0.2.1/24")
    daemon = start()
    with sdk_rest_host(namespace, root.destination_port):
        wait_for_binding(daemon, "192.0.2.1")
        assert_served(namespace, root, "192.0.2.1")

        # A new address is served beside the old one, whose sockets stay.
        namespace.ip("address", "del", "192.0.2.1/24", "dev", "br0")
        namespace.add_address("br0", "198.51.100.1/24")
        namespace.add_address("br0", "192.0.2.1/24")
        mark = wait_for_next_look(daemon)
        wait_for_binding(daemon, "198.51.100.1", since=mark)
        assert_served(namespace, root, "198.51.100.1")
        assert_served(namespace, root, "192.0.2.1")

        # No address at all: an error a minute, and everything goes on being served.
        namespace.ip("address", "flush", "dev", "br0", "scope", "global")
        mark = wait_for_next_look(daemon)
        assert daemon.count_in_log(f"ERROR: void UpdateLanAddress: {NO_ADDRESS}$", since=mark) == 1
        assert namespace.listening() == endpoints(root, "192.0.2.1", "198.51.100.1") | {
            ("127.0.0.1", root.destination_port)}
        assert_served(namespace, root, "127.0.0.1")

        # An address that was bound before is not bound again.
        namespace.add_address("br0", "192.0.2.1/24")
        mark = wait_for_next_look(daemon)
        daemon.wait_for_log("BindSrcAddr: Enter addr=192.0.2.1$", since=mark, count=2)
        assert_served(namespace, root, "192.0.2.1")
        assert daemon.count_in_log("AgentHost::Invoke: ", since=mark) == 0


def test_an_address_that_could_not_be_bound_is_tried_again(namespace, root, start):  # noqa: F811
    namespace.add_interface("br0", "192.0.2.1 peer 192.0.2.2/32")
    daemon = start()
    for line in wait_for_binding(daemon, "192.0.2.2"):
        assert line.startswith("Failed to bind endpoint '192.0.2.2:")
    # Once the address is the router's own, the next look binds it.
    namespace.add_interface("other", "192.0.2.2/32")
    mark = wait_for_next_look(daemon)
    for line in wait_for_binding(daemon, "192.0.2.2", since=mark):
        assert line.startswith("Listen to endpoint '192.0.2.2:")
