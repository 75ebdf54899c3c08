"""What docs/hooks.md says of scripts, shown by scripts that do as it says."""

import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from http.client import HTTPException

import pytest

from markdown import PROJECT
from support.clients import ask
from support.scratch_root import PAIRING_KEY
from support.waiting import open_fifo_for_its_reader, wait_until

PAGE = (PROJECT / "docs" / "hooks.md").read_text(encoding="utf-8")
SHELLS = ["/bin/dash", "/bin/busybox ash"]


@pytest.fixture
def hooked(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    return make_daemon().start()


def write_hook(root, text, shell="/bin/sh"):
    return root.write_hook(root.external_hooks, "10-hook", f"#!{shell}\n{text}")


def ask_for_version(root):
    return ask(root.http_port, "GET", "/api/version")


def test_a_carriage_return_behind_the_first_line_ends_every_request(root, hooked, sdk_host):
    script = root.write_hook(root.external_hooks, "10-text", "#!/bin/sh\r\nexit 0\n")
    answer = ask_for_version(root)
    assert (answer.status, answer.body) == (200, b"")
    assert sdk_host.requests == []
    script.write_text("#!/bin/sh\nexit 0\n")
    assert ask_for_version(root).body != b""
    assert len(sdk_host.requests) == 1


def test_a_script_that_somebody_is_still_writing_ends_every_request(root, hooked, sdk_host):
    script = write_hook(root, "exit 0\n")
    with script.open("a", encoding="utf-8"):
        try:
            subprocess.run([script], check=True)
            pytest.skip("this kernel executes files that are being written")
        except OSError:
            pass
        assert ask_for_version(root).body == b""
    assert sdk_host.requests == []
    assert ask_for_version(root).body != b""


@pytest.mark.parametrize("shell", SHELLS)
def test_the_loop_reads_all_arguments_as_they_are(root, hooked, sdk_host, shell):
    loop = re.search(r"^    while \[ .*?^    done$", PAGE, re.M | re.S)[0]
    seen = root.directory / "seen"
    write_hook(root, f"{loop}\nprintf '%s|' \"$method\" \"$uri\" \"$data\" >{seen}\nexit 0\n", shell)
    uri = "/api/--data?$(id)'*%20;\"\\"
    answer = ask(root.https_port, "PUT", uri, body=b"x", headers=[("PairingKey", PAIRING_KEY)],
                 tls=True)
    assert answer.status == 200
    assert seen.read_text() == f"PUT|{uri}|{root.agent_data}|"


def test_a_script_is_not_told_who_asks(root, hooked):
    seen = root.directory / "seen"
    write_hook(root, f'{{ printf "%s\\n" "$@"; env; }} >{seen}\nexit 0\n')
    answer = ask(root.http_port, "GET", "/api/version", headers=[("User-Agent", "some-client")],
                 source="127.0.0.9")
    assert answer.status == 200
    told = seen.read_text()
    assert told.startswith("--method\nGET\n--uri\n/api/version\n")
    assert "127.0.0.9" not in told and "some-client" not in told


def test_the_trial_by_hand_is_one(tmp_path):
    lines = re.search(r"^    echo .*> /tmp/body\n    (\./10-my-hook .*)$", PAGE, re.M)
    script = tmp_path / "10-my-hook"
    script.write_text('#!/bin/sh\n[ "$#" = 6 ] && cat "$6" - && exit 1\nexit 2\n')
    script.chmod(0o755)
    trial = re.sub("^    ", "", lines[0], flags=re.M).replace("/tmp/body", str(tmp_path / "body"))
    shown = subprocess.run(["/bin/sh", "-c", trial], cwd=tmp_path, check=True, text=True,
                           capture_output=True)
    assert shown.stdout == '{"name":"x"}\nanswer 1\n'


# The work waits for a word; so does the answer, where the work holds the script's pipes.
@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("work", ["work", "true && work", "cat <{gate} && true", "cat <{gate}"])
def test_long_work_in_the_background_holds_up_nobody(root, hooked, sdk_host, shell, work):
    form = re.search(r"`(\{ long-work; \}.*? &)`", PAGE)[1]
    gate = root.directory / "gate"
    os.mkfifo(gate)
    background = form.replace("long-work", work.format(gate=gate))
    write_hook(root, f"work() {{ cat <{gate}; }}\n{background}\nexit 0\n", shell)
    assert ask_for_version(root).status == 200
    open_fifo_for_its_reader(gate).close()


# Why the page has braces there.
@pytest.mark.parametrize("shell", SHELLS)
def test_a_function_in_the_background_holds_up_the_request_without_the_braces(root, hooked, shell):
    gate, done = root.directory / "gate", root.directory / "done"
    os.mkfifo(gate)
    write_hook(root, f"work() {{ cat <{gate}; touch {done}; }}\nwork </dev/null >/dev/null 2>&1 &\n"
               "exit 0\n", shell)
    with ThreadPoolExecutor(1) as pool:
        request = pool.submit(ask_for_version, root)
        with open_fifo_for_its_reader(gate):
            # The script has ended.
            wait_until(hooked.zombies, "the end of the script")
            assert not request.done()
        assert request.result().status == 200
    assert done.exists()


def test_a_script_that_asks_its_own_listener_waits_for_itself(root, hooked):
    seen = root.directory / "seen"
    write_hook(root, f"curl -s -m 1 http://127.0.0.1:{root.http_port}/api/mac; echo $? >>{seen}\n"
               f"curl -s -k -m 20 https://127.0.0.1:{root.https_port}/api/mac; echo $? >>{seen}\nexit 0\n")
    assert ask_for_version(root).status == 200
    assert seen.read_text() == "28\n0\n"  # 28: no answer in time


def test_kill_0_ends_the_daemon(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    write_hook(root, "kill 0\nexit 0\n")
    daemon = make_daemon().start(start_new_session=True)  # a group without the one who tests
    with suppress(OSError, HTTPException):
        ask_for_version(root)
    assert daemon.wait_for_exit() == 0
