"""However fast clients connect, the daemon has no more descriptors open than it has room for
clients, and a few."""

import threading

import pytest

from support.clients import ask
from support.programs import connect_flood, needs_cc
from support.room import CONNECTIONS, TOO_MANY_CONNECTIONS, ended_clients, wait_for_ended_clients
from support.scratch_root import PAIRING_KEY

pytestmark = [needs_cc, pytest.mark.usefixtures("enough_descriptors")]

KEY = {"PairingKey": PAIRING_KEY}
ACCEPTED_AT_A_TIME = 16  # by each listener, before those that must go have gone
OTHERS = 8  # to the destination, and what a request opens for a moment


class MostDescriptors:
    """Looks all the time."""

    def __init__(self, daemon):
        self._daemon = daemon
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._look)
        self.most = self.looks = 0

    def _look(self):
        while not self._done.is_set():
            self.most = max(self.most, len(self._daemon.descriptors()))
            self.looks += 1

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()


@pytest.mark.parametrize("rate", [5000, 0], ids=["5000 a second", "as fast as it can"])
def test_descriptors_stay_within_the_room(root, make_daemon, sdk_host, tmp_path, rate):
    daemon = make_daemon(prefix=["prlimit", "--nofile=1024:1024"]).start()
    at_rest = len(daemon.descriptors())
    # Kept open by twice as many as there is room for, of two devices.
    with MostDescriptors(daemon) as seen, \
            connect_flood(tmp_path, root.http_port, "127.0.0.2", rate=rate), \
            connect_flood(tmp_path, root.https_port, "127.0.0.3", rate=rate):
        wait_for_ended_clients(daemon, 5000, TOO_MANY_CONNECTIONS)
        for tls in (False, True):
            port = root.https_port if tls else root.http_port
            assert ask(port, "GET", "/api/version", headers=KEY, tls=tls).status == 200
    room = sum(CONNECTIONS.values())
    print(f"at most {seen.most} descriptors, {at_rest} at rest, in {seen.looks} looks")
    assert seen.looks > 20
    assert room < seen.most <= at_rest + room + 2 * ACCEPTED_AT_A_TIME + OTHERS
    assert daemon.count_in_log("ERROR: .*: Failed to accept a connection: ") == 0
    daemon.wait_for_no_clients()
    assert len(daemon.descriptors()) <= at_rest + 2
    assert ended_clients(daemon) >= 5000
