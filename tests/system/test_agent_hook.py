"""Agent hooks, as the person who writes the scripts sees them."""

import os
import subprocess
import threading
from concurrent.futures import ThreadPoolExecutor, wait

import pytest

from support.clients import Client, ask
from support.scratch_root import PAIRING_KEY
from support.waiting import EMULATOR, SANITIZER, open_fifo_for_its_reader, wait_until

KEY = {"PairingKey": PAIRING_KEY}


@pytest.fixture
def hooked(root, make_daemon, sdk_host):
    """A daemon that offers its requests to the hooks; without an external directory."""
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    return make_daemon().start()


def change(root, body=b"x", uri="/api/1/router-ref"):
    return ask(root.http_port, "PATCH", uri, body=body)


def change_over_tls(root, body=b"x", uri="/api/1/router-ref", method="PATCH"):
    return ask(root.https_port, method, uri, body=body, headers=KEY, tls=True)


def hook(root, name, script, external=False):
    directory = root.external_hooks if external else root.internal_hooks
    (directory / "agent").mkdir(exist_ok=True)
    return root.write_hook(directory, name, "#!/bin/sh\n" + script)


def test_it_learns_of_a_scripts_end_whatever_it_was_started_with(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    hook(root, "10-pass", "exit 0\n")
    daemon = make_daemon(prefix=["env", "--ignore-signal=CHLD"]).start()
    assert change(root).status == 200
    assert daemon.count_in_log("ERROR: ") == 1  # the interface without an address


def test_a_request_that_a_hook_lets_pass_is_forwarded_whole(root, hooked, sdk_host):
    seen = root.directory / "seen"
    hook(root, "10-pass", f'for a; do printf "%s\\n" "$a"; done >{seen}; cat "$6" >>{seen}; exit 0')
    body = bytes(range(256))
    answer = change_over_tls(root, body, "/api/any?q=$(id)")
    assert answer.status == 200
    assert sdk_host.requests[0].body == body
    assert seen.read_bytes() == (
        f"--method\nPATCH\n--uri\n/api/any?q=$(id)\n--data\n{root.agent_data}\n".encode() + body)
    assert not root.agent_data.exists()
    assert ("DEBUG", "Calling agent hook") in hooked.messages()


def test_a_hook_that_changes_the_body_file_changes_nothing_for_the_destination(root, hooked,
                                                                                sdk_host):
    hook(root, "10-change", 'echo other >"$6"; exit 0')
    assert change(root, b"mine").status == 200
    assert sdk_host.requests[0].body == b"mine"
    assert not root.agent_data.exists()


def test_a_request_without_a_body_comes_without_data_and_file(root, hooked, sdk_host):
    seen = root.directory / "seen"
    hook(root, "10-pass", f'echo "$#: $*" >{seen}; ls {root.agent_data} >>{seen}')
    assert ask(root.http_port, "GET", "/api/version").status == 500
    assert seen.read_text() == "4: --method GET --uri /api/version\n"
    assert ("ERROR", f"Failed to invoke agent hook: failed to call script "
            f"'{root.internal_hooks}/agent/10-pass' as 2") in hooked.messages()
    assert sdk_host.requests == []


def test_a_hook_ends_a_request_with_an_empty_200(root, hooked, sdk_host):
    hook(root, "10-end", "exit 1")
    for answer in (change(root), change_over_tls(root)):
        assert (answer.status, answer.reason, answer.body) == (200, "OK", b"")
    assert sdk_host.requests == []
    assert ("DEBUG", "Call terminated by hook") in hooked.messages()


def test_a_hook_that_fails_is_an_internal_error_and_later_ones_do_not_run(root, hooked, sdk_host):
    mark_file = root.directory / "mark"
    hook(root, "10-fail", "echo reason >&2; exit 3")
    hook(root, "20-later", f"touch {mark_file}")
    answer = change(root)
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert not mark_file.exists()
    assert sdk_host.requests == []
    assert not root.agent_data.exists()
    messages = hooked.messages()
    assert any(level == "ERROR" and text.startswith("stderr from pid ") and text.endswith(": reason")
               for level, text in messages)
    assert ("ERROR", "Failed to invoke agent hook: failed to call script "
            f"'{root.internal_hooks}/agent/10-fail' as 3") in messages


def test_all_that_a_script_writes_on_standard_error_is_logged(root, hooked, sdk_host):
    hook(root, "10-talk", "seq 30000 >&2; exit 0")
    before = hooked.peak_resident_kib()
    assert change(root).status == 200
    lines = [text.rpartition(": ")[2] for level, text in hooked.messages()
             if level == "ERROR" and text.startswith("stderr from pid ")]
    assert lines == [str(number) for number in range(1, 30001)]
    if not (SANITIZER or EMULATOR):  # theirs says nothing
        assert hooked.peak_resident_kib() - before < 1024


def test_the_last_directory_that_was_run_has_the_say(root, hooked, sdk_host):
    hook(root, "10-end", "exit 1")
    (root.external_hooks / "agent").mkdir()
    assert change(root).body != b""
    assert len(sdk_host.requests) == 1
    hook(root, "10-end", "exit 1", external=True)
    assert change(root).body == b""
    assert len(sdk_host.requests) == 1


def test_without_the_internal_directory_requests_are_refused(root, hooked, sdk_host):
    (root.internal_hooks / "agent").rmdir()
    answer = change(root)
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert ("ERROR", "Failed to invoke agent hook: failed to list directory "
            f"'{root.internal_hooks}/agent'") in hooked.messages()
    assert sdk_host.requests == []


def test_hooks_see_only_requests_that_were_accepted(root, hooked):
    seen = root.directory / "seen"
    hook(root, "10-note", f'echo "$4" >>{seen}')
    assert ask(root.http_port, "GET", "/elsewhere").status == 404
    assert ask(root.http_port, "GET", "/api/other").status == 417
    assert ask(root.http_port, "GET", "/api/mac").status == 200
    assert change(root, b"x" * 32769).status == 400
    assert ask(root.https_port, "GET", "/api/x", tls=True).status == 417
    assert not seen.exists()


def test_the_environment_is_cleaned_and_the_saved_loader_variables_come_back(root, make_daemon,
                                                                             sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    seen = root.directory / "seen"
    hook(root, "10-env", f"env >{seen}")
    environment = {**os.environ, "LD_LIBRARY_PATH": "/tmp/daemons-own",
                   "MIREL_ORIGINAL_LD_LIBRARY_PATH": "/tmp/saved", "MIREL_ORIGINAL_OTHER": "x",
                   "KEPT": "yes"}
    make_daemon().start(env=environment)
    change(root)
    lines = seen.read_text().splitlines()
    assert "LD_LIBRARY_PATH=/tmp/saved" in lines
    assert "KEPT=yes" in lines
    assert not [line for line in lines if line.startswith(("MIREL_ORIGINAL_", "LD_PRELOAD="))]


def test_no_descriptor_of_the_daemon_reaches_a_hook_under_load(root, hooked, sdk_host):
    seen = root.directory / "seen"
    seen.mkdir()
    hook(root, "10-list", f"ls -l /proc/self/fd >{seen}/$$")
    # Both listeners at once, with the key file, the log and the device list being opened beside.
    with ThreadPoolExecutor(6) as pool:
        jobs = []
        for i in range(60):
            jobs.append(pool.submit(change, root))
            jobs.append(pool.submit(change_over_tls, root))
            jobs.append(pool.submit(ask, root.http_port, "GET", "/api/mac"))
            if i % 5 == 0:
                hooked.send_signal(1)
        assert {job.result().status for job in jobs} == {200}
    listings = list(seen.iterdir())
    assert len(listings) == 120
    own = ("socket:", "anon_inode:", str(root.directory / "log"), str(root.router_info),
           str(root.device_list), str(root.agent_data))
    for listing in listings:
        targets = [line.split(" -> ")[1] for line in listing.read_text().splitlines() if "->" in line]
        assert len(targets) >= 3
        assert not [target for target in targets if target.startswith(own)], targets


def test_hooks_leave_nothing_behind(root, hooked, sdk_host):
    hook(root, "10-pass", "exit 0")
    threads = hooked.threads()
    change(root)
    change_over_tls(root)
    hooked.wait_for_no_clients()
    descriptors = hooked.descriptors()
    with ThreadPoolExecutor(4) as pool:
        answers = list(pool.map(lambda i: change(root) if i % 2 else change_over_tls(root),
                                range(200)))
    assert {answer.status for answer in answers} == {200}
    hooked.wait_for_no_clients()
    wait_until(lambda: hooked.threads() == threads, "the end of the watchdog threads")
    assert len(hooked.descriptors()) == len(descriptors)
    assert hooked.zombies() == []


def test_one_script_blocks_its_own_listener_only(root, hooked, sdk_host):
    go_on = root.directory / "go-on"
    os.mkfifo(go_on)
    hook(root, "10-wait", f'[ "$4" != /api/1/router-ref ] || read line <{go_on}; exit 0')
    with ThreadPoolExecutor(2) as pool:
        blocked = pool.submit(change, root)
        hooked.wait_for_log("DEBUG: void Orx::SubprocessTimeout::Run: Running")
        other = pool.submit(ask, root.http_port, "GET", "/api/mac")
        assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200
        assert not blocked.done() and not other.done()
        go_on.write_text("now\n")
        assert blocked.result().status == 200
        assert other.result().status == 200


def test_a_body_waits_until_the_scripts_are_done_with_that_of_the_other_listener(root, hooked,
                                                                                 sdk_host):
    go_on, seen = root.directory / "go-on", root.directory / "seen"
    os.mkfifo(go_on)
    hook(root, "10-wait", '[ "$4" != /api/1/router-ref ] || '
         f'{{ cat "$6"; read line <{go_on}; cat "$6"; }} >{seen} 2>&1; exit 0')
    with ThreadPoolExecutor(2) as pool:
        plain = pool.submit(change, root, b"from the LAN ")
        with open_fifo_for_its_reader(go_on) as gate:
            mark = hooked.mark()
            # One without a body needs no file, and so does not wait.
            assert ask(root.https_port, "GET", "/api/any", headers=KEY, tls=True).status == 200
            with_key = pool.submit(change_over_tls, root, b"with a key", "/api/any")
            hooked.wait_for_log("DEBUG: bool tavlo::AgentHost::CallHook: Calling agent hook",
                                since=mark, count=2)
            assert root.agent_data.read_bytes() == b"from the LAN "
            assert not plain.done() and not with_key.done()
            gate.write("now\n")
        assert plain.result().status == 200
        assert with_key.result().status == 200
    assert seen.read_bytes() == b"from the LAN from the LAN "
    assert not root.agent_data.exists()
    assert sorted(request.body for request in sdk_host.requests) == [
        b"", b"from the LAN ", b"with a key"]


def test_a_script_sees_the_body_that_is_forwarded_whatever_the_other_listener_gets(root, hooked,
                                                                                   sdk_host):
    seen = root.directory / "seen"
    hook(root, "10-note", f'[ "$4" = /api/1/router-ref ] || {{ cat "$6"; echo; }} >>{seen}; exit 0')
    bodies = [f"with the key, {number}".encode() for number in range(300)]
    done = threading.Event()

    def disturb():
        with Client(root.http_port) as client:
            while not done.is_set():
                assert client.ask("PATCH", "/api/1/router-ref", body=b"EVIL").status == 200

    with ThreadPoolExecutor(2) as pool, Client(root.https_port, tls=True) as client:
        disturbers = [pool.submit(disturb) for _ in range(2)]
        try:
            for body in bodies:
                assert client.ask("PUT", "/api/any", headers=KEY, body=body).status == 200
        finally:
            done.set()
        for disturber in disturbers:
            disturber.result()
    assert seen.read_bytes().splitlines() == bodies
    forwarded = [request.body for request in sdk_host.requests]
    assert [body for body in forwarded if body != b"EVIL"] == bodies
    assert forwarded.count(b"EVIL") > 10


def test_the_daemons_end_is_not_delayed_by_a_script(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    go_on = root.directory / "go-on"
    os.mkfifo(go_on)
    hook(root, "10-wait", f"read line <{go_on}")
    daemon = make_daemon().start()
    with ThreadPoolExecutor(1) as pool:
        blocked = pool.submit(change, root)
        daemon.wait_for_log("DEBUG: void Orx::SubprocessTimeout::Run: Running")
        daemon.stop()
        go_on.write_text("now\n")
        with pytest.raises(Exception):
            blocked.result()


@pytest.mark.skipif("qemu-arm" in EMULATOR, reason="it has reserved all of the program's address space")
def test_a_watchdog_thread_that_cannot_be_started_costs_one_request(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    hook(root, "10-pass", "exit 0")
    daemon = make_daemon().start()
    # No room for another thread's stack, of which musl's are the smallest, with 128 KiB: more address
    # space is refused from here on.
    used = next(int(line.split()[1]) for line in open(f"/proc/{daemon.pid}/status", encoding="ascii")
                if line.startswith("VmSize:"))
    subprocess.run(["prlimit", "--pid", str(daemon.pid), f"--as={(used + 100) * 1024}:"], check=True)
    answer = change(root)
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert any("Unexpected failure: Resource temporarily unavailable" in text
               for _, text in daemon.messages())
    subprocess.run(["prlimit", "--pid", str(daemon.pid), "--as=unlimited:"], check=True)
    assert change(root).status == 200

    # A later call reaps it, the first one that finds it ended.
    def reaped():
        assert change(root).status == 200
        return daemon.zombies() == []
    wait_until(reaped, "the end of the abandoned child")


def test_signals_are_blocked_in_hooks(root, hooked):
    seen = root.directory / "seen"
    # Not a shell: some of those change the mask.
    root.write_hook(root.internal_hooks, "10-status",
                    "#!/usr/bin/python3\nprint(open('/proc/self/status').read(), "
                    f"file=open('{seen}', 'w'))")
    change(root)
    masks = {name: int(value, 16) for name, value in
             (line.split(":") for line in seen.read_text().splitlines() if line.startswith("Sig"))
             if name != "SigQ"}
    for number in (1, 2, 15):
        assert masks["SigBlk"] & 1 << number - 1, number
    assert masks["SigIgn"] & 1 << 13 - 1


def test_a_script_that_starts_while_the_key_is_read_does_not_get_it(root, hooked, sdk_host):
    key = root.key.read_text()
    root.key.unlink()
    os.mkfifo(root.key)
    seen = root.directory / "seen"
    hook(root, "10-list", f"ls -l /proc/self/fd >>{seen}")
    with ThreadPoolExecutor(2) as pool:
        secure = pool.submit(change_over_tls, root)
        with open_fifo_for_its_reader(root.key) as writer:
            plain = pool.submit(change, root)
            wait([plain], 0.5)  # for the script that must not run yet
            writer.write(key)
        assert (plain.result().status, secure.result().status) == (200, 200)
    assert "pipe:" in seen.read_text()
    assert root.key.name not in seen.read_text()
