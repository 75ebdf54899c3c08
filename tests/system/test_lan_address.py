"""The LAN address: found on the interface, served by both listeners. Each test has a network of
its own."""

import json
import sys
from contextlib import contextmanager
from pathlib import Path

import pytest

from support.network_namespace import NetworkNamespace
from support.scratch_root import PAIRING_KEY
from support.waiting import wait_until

SDK_REST_HOST = Path(__file__).with_name("sdk_rest_host.py")

NO_ADDRESS = "Could not find active IPv4 address from interface 'br0'"


@pytest.fixture
def namespace():
    with NetworkNamespace() as made:
        yield made


@contextmanager
def sdk_rest_host(namespace, port):
    with namespace.start(sys.executable, SDK_REST_HOST, "--port", port):
        wait_until(lambda: ("127.0.0.1", port) in namespace.listening(), "the SDK REST host")
        yield


@pytest.fixture
def start(root, make_daemon, namespace):
    """Starts the daemon inside, with br0 as its LAN interface."""

    def start_daemon():
        root.settings["lanInterface"] = "br0"
        return make_daemon(prefix=namespace.prefix).start()

    return start_daemon


def endpoints(root, *addresses):
    return {(address, port) for address in ("127.0.0.1", *addresses)
            for port in (root.http_port, root.https_port)}


def wait_for_binding(daemon, address, since=0):
    """Both listeners have tried to bind it; returns what they said."""
    found = daemon.wait_for_log(
        rf"void tavlo::AgentHost::Invoke: (.*'{address}:\d+'.*)$", since=since, count=2)
    return sorted(match[1] for match in found)


def assert_served(namespace, root, address):
    plain = namespace.curl(f"http://{address}:{root.http_port}/api/version")
    assert json.loads(plain)["path"] == "/api/version"
    tls = namespace.curl("--insecure", "--header", f"PairingKey: {PAIRING_KEY}",
                         f"https://{address}:{root.https_port}/api/x")
    assert json.loads(tls)["path"] == "/api/x"


def assert_only_loopback(namespace, root):
    assert namespace.listening() == endpoints(root)


@pytest.mark.parametrize("lifetime", ["", " valid_lft 3600 preferred_lft 1800"])
def test_the_address_of_the_interface_is_served(namespace, root, start, lifetime):
    namespace.add_interface("br0", "192.0.2.1/24" + lifetime)
    daemon = start()
    said = wait_for_binding(daemon, "192.0.2.1")
    assert said == sorted(f"Listen to endpoint '192.0.2.1:{port}'"
                          for port in (root.http_port, root.https_port))
    assert namespace.listening() == endpoints(root, "192.0.2.1")
    with sdk_rest_host(namespace, root.destination_port):
        assert_served(namespace, root, "192.0.2.1")
        assert_served(namespace, root, "127.0.0.1")
    for function in ("Enter addr=192.0.2.1", "Leave"):
        assert daemon.count_in_log(
            f"DEBUG: void tavlo::AgentHost::BindSrcAddr: {function}$") == 2


def test_an_address_of_another_interface_is_not_taken(namespace, root, start):
    namespace.add_interface("other", "198.51.100.1/24")
    namespace.add_interface("br0", "192.0.2.1/24")
    namespace.add_interface("another", "203.0.113.1/24")
    wait_for_binding(start(), "192.0.2.1")
    assert namespace.listening() == endpoints(root, "192.0.2.1")


def test_of_several_permanent_addresses_the_first_is_served(namespace, root, start):
    namespace.add_interface("br0", "192.0.2.1/24", "198.51.100.1/24", "192.0.2.2/24")
    wait_for_binding(start(), "192.0.2.1")
    assert namespace.listening() == endpoints(root, "192.0.2.1")


def test_a_dynamic_address_goes_before_permanent_ones(namespace, root, start):
    namespace.add_interface("br0", "192.0.2.1/24", "198.51.100.1/24",
                            "203.0.113.1/24 valid_lft 3600 preferred_lft 1800")
    wait_for_binding(start(), "203.0.113.1")
    assert namespace.listening() == endpoints(root, "203.0.113.1")


def test_a_deprecated_address_is_passed_over(namespace, root, start):
    namespace.add_interface("br0", "203.0.113.1/24 valid_lft 3600 preferred_lft 0",
                            "192.0.2.1/24")
    wait_for_binding(start(), "192.0.2.1")
    assert namespace.listening() == endpoints(root, "192.0.2.1")


@pytest.mark.parametrize("scope", ["link", "host"])
def test_an_address_that_is_not_global_is_passed_over(namespace, root, start, scope):
    namespace.add_interface("br0", f"198.51.100.1/24 scope {scope}", "192.0.2.1/24")
    wait_for_binding(start(), "192.0.2.1")
    assert namespace.listening() == endpoints(root, "192.0.2.1")


@pytest.mark.parametrize("addresses", [
    pytest.param([], id="none"),
    pytest.param(["2001:db8::1/64"], id="IPv6"),
    pytest.param(["198.51.100.1/24 scope link"], id="link scope"),
    pytest.param(["198.51.100.1/24 valid_lft 3600 preferred_lft 0"], id="deprecated")])
def test_an_interface_without_a_usable_address_leaves_loopback_alone(namespace, root, start,
                                                                     addresses):
    namespace.add_interface("br0", *addresses)
    daemon = start()
    assert daemon.count_in_log(f"ERROR: void UpdateLanAddress: {NO_ADDRESS}$") == 1
    assert daemon.count_in_log("BindSrcAddr") == 0
    assert_only_loopback(namespace, root)
    with sdk_rest_host(namespace, root.destination_port):
        assert_served(namespace, root, "127.0.0.1")


def test_an_unknown_interface_leaves_loopback_alone(namespace, root, start):
    daemon = start()
    assert daemon.count_in_log(
        "ERROR: void UpdateLanAddress: Failed to get the index of iface 'br0' as "
        "19 No such device$") == 1
    assert_only_loopback(namespace, root)


def test_the_loopback_interface_has_no_lan_address(namespace, root, make_daemon):
    daemon = make_daemon(prefix=namespace.prefix).start()
    assert daemon.count_in_log(
        "ERROR: void UpdateLanAddress: "
        "Could not find active IPv4 address from interface 'lo'$") == 1
    assert_only_loopback(namespace, root)


def test_on_a_point_to_point_interface_the_peers_address_is_reported_and_cannot_be_bound(
        namespace, root, start):
    # That is what the kernel calls the interface's address there.
    namespace.add_interface("br0", "192.0.2.1 peer 192.0.2.2/32")
    daemon = start()
    said = wait_for_binding(daemon, "192.0.2.2")
    assert said == sorted(f"Failed to bind endpoint '192.0.2.2:{port}' as errno 99"
                          for port in (root.http_port, root.https_port))
    assert daemon.count_in_log("ERROR: void tavlo::AgentHost::Invoke: Failed to bind") == 2
    assert_only_loopback(namespace, root)


def test_a_port_taken_on_the_lan_address_is_reported_and_loopback_goes_on(namespace, root, start):
    namespace.add_interface("br0", "192.0.2.1/24")
    taker = ("import socket, threading;"
             f"s = socket.create_server(('192.0.2.1', {root.http_port}));"
             "threading.Event().wait()")
    with namespace.start(sys.executable, "-c", taker):
        wait_until(lambda: ("192.0.2.1", root.http_port) in namespace.listening(), "the taker")
        daemon = start()
        assert wait_for_binding(daemon, "192.0.2.1") == [
            f"Failed to bind endpoint '192.0.2.1:{root.http_port}' as errno 98",
            f"Listen to endpoint '192.0.2.1:{root.https_port}'"]
        with sdk_rest_host(namespace, root.destination_port):
            assert_served(namespace, root, "127.0.0.1")


def test_with_many_addresses_the_first_datagram_counts(namespace, root, start):
    # The kernel's answer comes in several pieces; the interface's addresses are in the first.
    namespace.add_interface("br0", "192.0.2.1/24")
    namespace.add_interface("crowd")
    batch = "".join(f"address add 198.51.{high}.{low}/16 dev crowd\n"
                    for high in range(4) for low in range(1, 251))
    namespace.ip_batch(batch)
    wait_for_binding(start(), "192.0.2.1")
    assert namespace.listening() == endpoints(root, "192.0.2.1")


def test_an_address_beyond_the_first_datagram_is_not_found(namespace, root, start):
    namespace.add_interface("crowd")
    batch = "".join(f"address add 198.51.{high}.{low}/16 dev crowd\n"
                    for high in range(4) for low in range(1, 251))
    namespace.ip_batch(batch)
    namespace.add_interface("br0", "192.0.2.1/24")
    daemon = start()
    assert daemon.count_in_log(f"ERROR: void UpdateLanAddress: {NO_ADDRESS}$") == 1
    assert_only_loopback(namespace, root)
