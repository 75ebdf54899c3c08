"""The LAN interface goes away and comes back while the daemon runs: it looks once a minute."""

from slow_lan_address import wait_for_next_look
from test_lan_address import (assert_served, endpoints, namespace, sdk_rest_host,  # noqa: F401
                              start, wait_for_binding)


def test_an_interface_that_goes_and_comes_back(namespace, root, start):  # noqa: F811
    namespace.add_interface("br0", "192.0.2.1/24")
    daemon = start()
    with sdk_rest_host(namespace, root.destination_port):
        wait_for_binding(daemon, "192.0.2.1")
        descriptors = daemon.descriptors()
        namespace.ip("link", "delete", "br0")
        assert_served(namespace, root, "127.0.0.1")
        mark = wait_for_next_look(daemon)
        assert daemon.count_in_log("ERROR: void UpdateLanAddress: Failed to get the index of iface "
                                   "'br0' as 19 No such device$", since=mark) == 1
        assert_served(namespace, root, "127.0.0.1")
        # The sockets have outlived it: nothing has to be done when it is there again.
        namespace.add_interface("br0", "192.0.2.1/24")
        assert_served(namespace, root, "192.0.2.1")
        mark = wait_for_next_look(daemon)
        daemon.wait_for_log("BindSrcAddr: Enter addr=192.0.2.1$", since=mark, count=2)
        assert daemon.count_in_log("AgentHost::Invoke: ", since=mark) == 0
        assert namespace.listening() >= endpoints(root, "192.0.2.1")
        daemon.wait_for_no_clients()
        assert len(daemon.descriptors()) <= len(descriptors) + 2  # those to the destination
