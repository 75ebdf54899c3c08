"""Where the pairing key comes from, and what is logged about it."""

import fcntl
import signal

import pytest

from support.clients import ask
from support.scratch_root import PAIRING_KEY


def try_key(daemon, key):
    return ask(daemon.root.https_port, "GET", "/api/x", headers={"PairingKey": key}, tls=True)


def reread(daemon):
    """SIGHUP makes the daemon read the file; returns the mark from which its lines follow."""
    mark = daemon.mark()
    daemon.send_signal(signal.SIGHUP)
    daemon.wait_for_log("DEBUG: void Run: Update pairing key$", since=mark)
    return mark


def reread_with_result(daemon):
    """The same, when the file holds a key or cannot be read: waits for the line about it too."""
    mark = reread(daemon)
    found = daemon.wait_for_log(
        "(?:ERROR: void UpdatePairingKey|DEBUG: void tavlo::AgentHost::SetPairingKey): (.*)$",
        since=mark)
    return found[0][1]


@pytest.mark.parametrize("key, shown", [("abc", "abc"), ("ab", "ab"), ("wxyz", "wxy..."),
                                        (PAIRING_KEY, PAIRING_KEY[:3] + "...")])
def test_no_more_than_three_characters_of_a_key_are_logged(root, make_daemon, key, shown):
    root.write_pairing_key(key)
    daemon = make_daemon().start()
    daemon.wait_for_log(
        f"DEBUG: void tavlo::AgentHost::SetPairingKey: Updated: '{shown}'$".replace(".", r"\."))
    if len(key) > 3:
        assert key not in daemon.log_text()


def test_a_missing_file_is_not_read_and_the_listener_refuses(root, make_daemon, sdk_host):
    root.router_info.unlink()
    daemon = make_daemon().start()
    assert "Update pairing key" not in daemon.log_text()
    mark = daemon.mark()
    for key in ("", "anything"):
        answer = try_key(daemon, key)
        assert (answer.status, answer.reason) == (500, "Pairing key is not configured")
    assert ("ERROR", "Pairing key is not configured") in daemon.messages(mark)
    assert sdk_host.requests == []


def test_a_missing_file_is_reported_on_hup(root, make_daemon):
    root.router_info.unlink()
    daemon = make_daemon().start()
    assert reread_with_result(daemon) == (
        f"Failed to lock file {root.router_info}: 2 No such file or directory")


def test_a_file_that_appears_is_read_on_hup(root, make_daemon, sdk_host):
    root.router_info.unlink()
    daemon = make_daemon().start()
    root.write_pairing_key("late")
    assert reread_with_result(daemon) == "Updated: 'lat...'"
    assert try_key(daemon, "late").status == 200


def test_the_key_outlives_the_file(root, daemon, sdk_host):
    root.router_info.unlink()
    reread_with_result(daemon)
    assert try_key(daemon, PAIRING_KEY).status == 200


def test_a_file_without_the_key_changes_nothing(root, daemon, sdk_host):
    root.write_router_info("model: x\npairing_keys: other\n pairing_key: other\n")
    mark = reread(daemon)
    # The next pass shows that the file has been dealt with.
    reread(daemon)
    assert daemon.count_in_log("SetPairingKey", since=mark) == 0
    assert try_key(daemon, PAIRING_KEY).status == 200


def test_the_last_line_with_the_key_counts(root, daemon, sdk_host):
    root.write_router_info("pairing_key: first\npairing_key: second\n")
    reread_with_result(daemon)
    assert try_key(daemon, "first").status == 417
    assert try_key(daemon, "second").status == 200


def test_a_blank_key_makes_the_listener_refuse(root, daemon, sdk_host):
    root.write_router_info("pairing_key: \n")
    assert reread_with_result(daemon) == "Updated: ''"
    assert try_key(daemon, "").status == 500
    assert try_key(daemon, PAIRING_KEY).status == 500


def test_blanks_before_the_key_are_dropped_and_colons_in_it_are_kept(root, daemon, sdk_host):
    root.write_router_info("pairing_key  :   a:b c\n")
    reread_with_result(daemon)
    assert try_key(daemon, "a:b c").status == 200


def test_a_carriage_return_at_the_end_belongs_to_the_key(root, daemon, sdk_host):
    # No header can carry it, so that nobody gets in; better than to guess.
    root.write_router_info("pairing_key: key\r\n")
    reread_with_result(daemon)
    assert try_key(daemon, "key").status == 417


def test_a_directory_in_place_of_the_file_is_reported(root, daemon):
    root.router_info.unlink()
    root.router_info.mkdir()
    assert reread_with_result(daemon) == (
        f"Failed to lock file {root.router_info}: 21 Is a directory")


def test_a_file_of_one_mebibyte_is_read_and_a_larger_one_is_not(root, daemon):
    line = b"pairing_key: padded\n"
    root.write_router_info(line + b"#" * (1048576 - len(line)))
    assert reread_with_result(daemon) == "Updated: 'pad...'"
    root.write_router_info(line + b"#" * (1048577 - len(line)))
    assert reread_with_result(daemon) == (
        f"Failed to read file {root.router_info}: 27 File too large")


def test_a_file_that_stays_locked_is_given_up_on(root, daemon, sdk_host):
    with open(root.router_info, "rb+") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        mark = reread(daemon)
        found = daemon.wait_for_log("ERROR: void UpdatePairingKey: (.*)$", since=mark)
        assert found[0][1] == (
            f"Failed to lock file {root.router_info}: 11 Resource temporarily unavailable")
    assert try_key(daemon, PAIRING_KEY).status == 200


def test_requests_are_served_while_the_file_is_locked(root, daemon, sdk_host):
    with open(root.router_info, "rb+") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        mark = reread(daemon)
        assert try_key(daemon, PAIRING_KEY).status == 200
        # The daemon was still waiting for the lock.
        assert daemon.count_in_log("UpdatePairingKey: |SetPairingKey", since=mark) == 0


def test_a_writer_that_lets_go_of_the_lock_is_waited_for(root, daemon):
    with open(root.router_info, "rb+") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        mark = reread(daemon)
        file.write(b"pairing_key: written-under-lock\n")
    daemon.wait_for_log(r"Updated: 'wri\.\.\.'$", since=mark)


def test_the_plain_listener_gets_no_key(daemon):
    assert daemon.count_in_log("SetPairingKey: Updated") == 1


def test_the_file_lock_is_let_go_after_reading(root, daemon):
    with open(root.router_info, "rb+") as file:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
