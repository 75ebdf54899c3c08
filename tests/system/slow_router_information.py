"""What the main thread does once a minute: it looks at the router information file."""

import os
import signal

from support.clients import ask

A_LITTLE_MORE_THAN_A_MINUTE = 75


def try_key(root, key):
    return ask(root.https_port, "GET", "/api/x", headers={"PairingKey": key}, tls=True).status


def wait_for_key(daemon, shown, since):
    daemon.wait_for_log("DEBUG: void Run: Update pairing key$", since=since,
                        limit=A_LITTLE_MORE_THAN_A_MINUTE)
    daemon.wait_for_log(rf"SetPairingKey: Updated: '{shown}\.\.\.'$", since=since)


def test_a_router_information_file_that_appears_and_changes_is_noticed(root, make_daemon,
                                                                       sdk_host):
    root.router_info.unlink()
    daemon = make_daemon().start()
    mark = daemon.mark()
    root.write_pairing_key("appeared", mtime=2300000000)  # in 2042, beyond what 32 bits can tell
    wait_for_key(daemon, "app", mark)
    assert try_key(root, "appeared") == 200

    # Also a time that goes backwards is a change.
    mark = daemon.mark()
    root.write_pairing_key("changed", mtime=1000000000)
    wait_for_key(daemon, "cha", mark)
    assert try_key(root, "appeared") == 417
    assert try_key(root, "changed") == 200

    # A passed minute repeats the values of the last signal: there was none yet.
    assert daemon.count_in_log("Got signal 0, from pid 0$", since=mark) >= 1

    # An unchanged time is no change, and neither is one that differs in less than a second.
    mark = daemon.mark()
    root.write_pairing_key("unnoticed", mtime=1000000000)
    os.utime(root.router_info, ns=(1000000000900000000, 1000000000900000000))
    daemon.wait_for_log("Got signal 0, from pid 0$", since=mark,
                        limit=A_LITTLE_MORE_THAN_A_MINUTE)
    daemon.wait_for_log("Update LAN address$", since=mark)
    assert daemon.count_in_log("Update pairing key", since=mark) == 0
    assert try_key(root, "changed") == 200

    # The file's disappearance is a change as well: its time is 0 then.
    mark = daemon.mark()
    root.router_info.unlink()
    daemon.wait_for_log("ERROR: void UpdatePairingKey: Failed to lock file "
                        f"{root.router_info}: 2 No such file or directory$", since=mark,
                        limit=A_LITTLE_MORE_THAN_A_MINUTE)
    assert try_key(root, "changed") == 200


def test_a_minute_that_passed_repeats_the_last_signal(daemon):
    mark = daemon.mark()
    daemon.send_signal(signal.SIGHUP)
    line = rf"DEBUG: void Run: Got signal 1, from pid {os.getpid()}$"
    daemon.wait_for_log(line, since=mark)
    daemon.wait_for_log(line, since=mark, count=2, limit=A_LITTLE_MORE_THAN_A_MINUTE)
    # It is not taken for another hang-up.
    daemon.wait_for_log("Update LAN address$", since=mark)
    assert daemon.count_in_log("void Run: HUP$", since=mark) == 1
