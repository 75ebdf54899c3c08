"""`tavloctl check`: ports, the LAN interface and the SDK REST host, in a network of the test's own."""

import socket
import threading

import pytest

from conftest import daemons
from support.tavloctl import check_as_nobody, findings
from support.waiting import EMULATOR, wait_until

NOT_STARTED = "the daemon does not start"
NOT_SERVED = "no client in the LAN is served"
HOST_IS_SILENT = "clients are answered with 500"
FIX_DESTINATION = 'start it, or fix "agentDstAddr" and "agentDstPort"'

BELOW_1024 = ("user 'nobody' may not take a port below 1024, which happens after the start: "
              f"{NOT_SERVED}")
BELOW_1024_CURE = 'choose another "agentHttpPort", or give the daemon CAP_NET_BIND_SERVICE'
WITH_CAPABILITY = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                   "--inh-caps=+net_bind_service", "--ambient-caps=+net_bind_service"]

LISTEN = """
import socket, sys, time
both = ":" in sys.argv[1]
family = socket.AF_INET6 if both else socket.AF_INET
with socket.create_server((sys.argv[1], int(sys.argv[2])), family=family,
                          dualstack_ipv6=both and "alone" not in sys.argv):
    time.sleep(600)
"""

GO_OUT = """
import socket, sys, time
with socket.create_server(("127.0.0.1", 0)) as server, \\
        socket.create_connection(server.getsockname(), source_address=("127.0.0.1", int(sys.argv[1]))):
    time.sleep(600)
"""


def test_an_interface_that_there_is_not(root):
    root.settings["lanInterface"] = "lan17"
    assert findings(root) == [
        ("lan17", f"Failed to get the index of iface 'lan17' as 19 No such device: {NOT_SERVED}",
         'give it an IPv4 address, or fix "lanInterface"')]


def test_an_interface_without_an_address(root, lan):
    lan.ip("address", "flush", "dev", "lan0")
    assert findings(root, prefix=lan.prefix) == [
        ("lan0", f"Could not find active IPv4 address from interface 'lan0': {NOT_SERVED}",
         'give it an IPv4 address, or fix "lanInterface"')]


@pytest.mark.parametrize("key", ["agentHttpPort", "agentHttpsPort"])
@pytest.mark.parametrize("address, consequence", [
    ("127.0.0.1", NOT_STARTED), ("192.0.2.1", NOT_SERVED)])
def test_a_port_that_is_taken(root, lan, key, address, consequence):
    port = root.settings[key]
    with lan.start("python3", "-c", LISTEN, address, port) as other:
        wait_until(lambda: (address, port) in lan.listening(), "the other program")
        [(where, what, cure)] = findings(root, prefix=lan.prefix)
    assert where == f"{address}:{port}"
    assert what == f"the port is taken by 'python3', process {other.pid}: {consequence}"
    assert cure == f'end that program, or choose another "{key}"'


@pytest.mark.parametrize("everywhere", ["0.0.0.0", "::", "::ffff:192.0.2.1"])
def test_a_port_that_is_taken_for_more_than_the_lan(root, lan, everywhere):
    with lan.start("python3", "-c", LISTEN, everywhere, root.http_port):
        wait_until(lambda: root.http_port in [port for _, port in lan.listening()],
                   "the other program")
        [(where, what, _)] = findings(root, prefix=lan.prefix)
    assert where.endswith(f":{root.http_port}") and "taken by 'python3', process " in what


def test_a_port_that_a_connection_goes_out_from(root, lan):
    with lan.start("python3", "-c", GO_OUT, root.http_port) as other:
        wait_until(lambda: f"127.0.0.1:{root.http_port} " in lan.run("ss", "--tcp", "--numeric"),
                   "the connection")
        assert findings(root, prefix=lan.prefix) == [
            (f"127.0.0.1:{root.http_port}",
             f"the port is taken by 'python3', process {other.pid}: {NOT_STARTED}",
             'end that program, or choose another "agentHttpPort"')]


def test_whose_port_it_is_only_root_sees(root, lan):
    """It may be the daemon's, which was root at its start."""
    with lan.start("python3", "-c", LISTEN, "127.0.0.1", root.http_port):
        wait_until(lambda: ("127.0.0.1", root.http_port) in lan.listening(), "the other program")
        found, unseen = check_as_nobody(root, prefix=lan.prefix)
    assert (f"127.0.0.1:{root.http_port}",
            "whether it is the daemon that has the port: run this as root to see it") in unseen
    assert not [where for where, _, _ in found if where.endswith(f":{root.http_port}")]


emulated = pytest.mark.skipif(EMULATOR != "", reason="the process has the emulator's name")


@emulated
def test_ports_that_the_daemon_itself_has_are_no_finding(root, lan):
    with daemons(root) as make_daemon:
        daemon = make_daemon(prefix=lan.prefix).start()
        daemon.wait_for_log(f"Listen to endpoint '192.0.2.1:{root.https_port}'")
        assert findings(root, prefix=lan.prefix) == []


@emulated
def test_who_listens_on_the_port_for_ipv6_alone_is_no_finding(root, lan):
    with daemons(root) as make_daemon, \
            lan.start("python3", "-c", LISTEN, "::", root.http_port, "alone"):
        wait_until(lambda: ("[::]", root.http_port) in lan.listening(), "the other program")
        daemon = make_daemon(prefix=lan.prefix).start()
        daemon.wait_for_log(f"Listen to endpoint '192.0.2.1:{root.http_port}'")
        assert findings(root, prefix=lan.prefix) == []


@emulated
def test_a_port_of_the_lan_that_is_taken_is_found_while_the_daemon_is_at_work(root, lan):
    with lan.start("python3", "-c", LISTEN, "192.0.2.1", root.http_port) as other, \
            daemons(root) as make_daemon:
        wait_until(lambda: ("192.0.2.1", root.http_port) in lan.listening(), "the other program")
        daemon = make_daemon(prefix=lan.prefix).start()
        daemon.wait_for_log(f"Listen to endpoint '192.0.2.1:{root.https_port}'")
        assert findings(root, prefix=lan.prefix) == [
            (f"192.0.2.1:{root.http_port}",
             f"the port is taken by 'python3', process {other.pid}: {NOT_SERVED}",
             'end that program, or choose another "agentHttpPort"')]


@emulated
def test_a_port_below_1024_is_found_while_the_daemon_is_at_work(root, lan):
    root.settings["agentHttpPort"] = 1023
    with daemons(root) as make_daemon:
        daemon = make_daemon(prefix=lan.prefix).start()
        daemon.wait_for_log("Listen to endpoint '192.0.2.1:1023'")
        root.directory.chmod(0o755)
        root.settings["agentUser"] = "nobody"
        found = [each for each in findings(root, prefix=lan.prefix) if "1023" in each[0]]
    assert found == [("192.0.2.1:1023", BELOW_1024, BELOW_1024_CURE)]


@emulated
def test_a_port_below_1024_that_the_user_has_is_no_finding(owned, lan):
    """As a service manager gives it a capability."""
    owned.settings["agentHttpPort"] = 1023
    with daemons(owned) as make_daemon:
        daemon = make_daemon(prefix=[*lan.prefix, *WITH_CAPABILITY]).start()
        daemon.wait_for_log("Listen to endpoint '192.0.2.1:1023'")
        assert findings(owned, prefix=lan.prefix) == []


def test_one_port_for_both_listeners(root, lan):
    root.settings["agentHttpsPort"] = root.http_port
    assert findings(root, prefix=lan.prefix) == [
        (f"127.0.0.1:{root.http_port}", f"both listeners want the port: {NOT_STARTED}",
         'choose another "agentHttpsPort"')]


@pytest.mark.parametrize("key", ["agentHttpPort", "agentHttpsPort"])
@pytest.mark.parametrize("address", ["127.0.0.1", "localhost", "192.0.2.1"])
def test_a_destination_that_is_the_daemon_itself(root, lan, key, address):
    root.settings |= {"agentDstAddr": address, "agentDstPort": root.settings[key]}
    assert findings(root, prefix=lan.prefix) == [
        (f"{address}:{root.settings[key]}",
         "requests are forwarded to the daemon's own port: they never get out",
         'set "agentDstPort" to the port of the SDK REST host')]


@pytest.mark.parametrize("port, is_found", [(1023, True), (1024, False)])
def test_a_port_below_1024_for_a_user(root, lan, port, is_found):
    root.directory.chmod(0o777)
    for path in root.directory.rglob("*"):
        path.chmod(0o777)
    root.settings |= {"agentHttpPort": port, "agentUser": "nobody"}
    found = [each for each in findings(root, prefix=lan.prefix) if each[0].endswith(f":{port}")]
    assert found == ([
        ("192.0.2.1:1023", BELOW_1024, BELOW_1024_CURE)] if is_found else [])


def test_a_port_below_1024_for_root(root, lan):
    root.settings["agentHttpPort"] = 1023
    assert findings(root, prefix=lan.prefix) == []


def test_a_port_that_a_start_without_root_cannot_have(root, lan):
    root.settings["agentHttpPort"] = 1023
    found, _ = check_as_nobody(root, prefix=lan.prefix)
    assert ("127.0.0.1:1023", f"the port cannot be taken: 13 Permission denied: {NOT_STARTED}",
            'choose another "agentHttpPort", or start the daemon as root') in found


# --- the SDK REST host ---

def test_the_destination_is_asked_only_with_connect(root, sdk_host):
    assert findings(root) == []
    assert sdk_host.requests == []
    assert findings(root, "--connect") == []
    assert [(each.method, each.path) for each in sdk_host.requests] == [("GET", "/api/version")]


def test_it_is_asked_below_the_prefix(root, sdk_host):
    root.settings["agentPrefix"] = "/rest"
    assert findings(root, "--connect") == []
    assert sdk_host.requests[0].path == "/rest/api/version"


def silent(root, reason):
    return (f"127.0.0.1:{root.destination_port}",
            f"the SDK REST host does not answer ({reason}): {HOST_IS_SILENT}", FIX_DESTINATION)


def test_nobody_at_the_destination(root):
    assert findings(root) == []
    assert findings(root, "--connect") == [silent(root, "111 Connection refused")]


def test_a_destination_that_says_nothing(root):
    with socket.create_server(("127.0.0.1", root.destination_port)):
        assert findings(root, "--connect") == [silent(root, "it takes the request and says nothing")]


def test_a_destination_that_speaks_something_else(root):
    with socket.create_server(("127.0.0.1", root.destination_port)) as server:
        server.settimeout(30)

        def greet():
            connection, _ = server.accept()
            connection.sendall(b"220 ready\r\n")
            connection.close()

        thread = threading.Thread(target=greet)
        thread.start()
        found = findings(root, "--connect")
        thread.join()
    assert found == [silent(root, "what it says is not HTTP/1")]
