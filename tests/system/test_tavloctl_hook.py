"""tavloctl hook: runs the scripts of an event as the daemon does, and says what would come of it."""

import os
import pwd
import re
import signal
import subprocess
from pathlib import Path

import pytest

from support.clients import ask
from support.daemon import DIE_WITH_PARENT
from support.tavloctl import PROGRAM, as_root, run_tavloctl
from support.waiting import DEFAULT_LIMIT, wait_until

REQUEST = ["agent", "--method", "PATCH", "--uri", "/api/1/router-ref"]
GOES_ON, ENDED, NOT_RUN, FAILED = 0, 1, 2, 3

# Of each event the flags in the order of the command line, and what a script is given.
EVENTS = {
    "agent": (["--uri", "/u", "--method", "GET"], ["--method", "GET", "--uri", "/u"]),
    "block_device": (["--mac", "m", "--action", "block"], ["--action", "block", "--mac", "m"]),
    "block_device ": (["--action", "reset"], ["--action", "reset"]),
    "device_detected": (["--mac", "-- a 'b' $(id)\n"], ["--mac", "-- a 'b' $(id)\n"]),
    "dns_block": (["--mac", "m", "--hostname", "h", "--reason", "antibot"],
                  ["--hostname", "h", "--mac", "m", "--reason", "antibot"]),
    "http_block": (["--reason", "tracking_protection", "--mac", "m", "--url", "u"],
                   ["--url", "u", "--mac", "m", "--reason", "tracking_protection"]),
    "iot_protection": (["--detail", "d", "--mac", "m", "--reason", "flow_counter"],
                       ["--reason", "flow_counter", "--mac", "m", "--detail", "d"]),
    "settings_update": (["--reason", "router_info"], ["--reason", "router_info"]),
}


@pytest.fixture(autouse=True)
def configured(root):
    root.settings["agentDataPath"] = str(root.agent_data)
    (root.external_hooks / "agent").rmdir()
    root.write_config()


def hook(root, *arguments, **options):
    return run_tavloctl("hook", "-c", root.config, *arguments, **options)


def write_script(root, name, script, event="agent", external=False):
    directory = root.external_hooks if external else root.internal_hooks
    return root.write_hook(directory, name, "#!/bin/sh\n" + script + "\n", event)


def without_times(text):
    return re.sub(r"\b\d+ ms$", "N ms", text, flags=re.MULTILINE)


def test_it_learns_of_a_scripts_end_whatever_it_was_started_with(root):
    write_script(root, "10-pass", "exit 0")
    result = hook(root, *REQUEST, prefix=["env", "--ignore-signal=CHLD"])
    assert result.returncode == GOES_ON, result.stderr


@pytest.mark.parametrize("event, given, passed",
                         [(name.strip(), *rest) for name, rest in EVENTS.items()])
def test_each_event_hands_its_flags_to_the_scripts_in_their_order(root, event, given, passed):
    seen = root.directory / "seen"
    script = write_script(root, "10-note", f'printf "%s\\0" "$0" "$@" >{seen}', event)
    result = hook(root, event, *given)
    assert (result.returncode, result.stderr) == (GOES_ON, "")
    assert seen.read_text(encoding="utf-8").split("\0")[:-1] == [str(script), *passed]


@pytest.mark.parametrize("answers, status, last", [
    ((0, 0), GOES_ON, "goes on: the request is forwarded"),
    ((1, 0), ENDED, 'ended: the client gets 200 "OK", nothing is forwarded'),
    ((0, 7), FAILED, 'failed: the client gets 500 "Internal error": failed to call script \'{}\' as 7'),
])
def test_it_shows_each_script_and_what_the_daemon_would_do(root, answers, status, last):
    first = write_script(root, "10-first", f"echo one >&2; echo two >&2; exit {answers[0]}")
    second = write_script(root, "20-second", f"echo dropped; exit {answers[1]}")
    result = hook(root, *REQUEST)
    assert (result.returncode, result.stderr) == (status, "")
    assert without_times(result.stdout).splitlines() == [
        f"{first}: status {answers[0]}, N ms", "    stderr: one", "    stderr: two",
        f"{second}: status {answers[1]}, N ms", last.format(second)]


@pytest.mark.parametrize("answer", ["exit 0", "exit 1", "exit 2", "kill -KILL $$"])
@pytest.mark.parametrize("external", [None, "exit 0", "exit 1"])
def test_the_verdict_is_the_daemons(root, make_daemon, sdk_host, answer, external):
    write_script(root, "10", answer)
    if external:
        write_script(root, "10", external, external=True)
    verdict = hook(root, *REQUEST, "--quiet").returncode
    make_daemon().start()
    status = ask(root.http_port, "PATCH", "/api/1/router-ref", body=b"").status
    assert (status, len(sdk_host.requests)) == {GOES_ON: (200, 1), ENDED: (200, 0),
                                                FAILED: (500, 0)}[verdict]


def test_the_answer_of_an_internal_script_that_does_not_count_is_told(root):
    write_script(root, "10-end", "exit 1")
    write_script(root, "10-pass", "exit 0", external=True)
    result = hook(root, *REQUEST)
    assert result.returncode == GOES_ON
    assert result.stdout.endswith(
        "goes on: the request is forwarded\n"
        "    the 1 of an internal script does not count: there is an external directory\n")


@pytest.mark.parametrize("text", [
    "  with blanks  ", "x: y: z", "a\tb", "na\u00efve",
    "[1.2] DEBUG: int Orx::SecureExec: PID 1 ended with status 0 after 1 ms: /forged",
    "2026-01-01 00:00:00.000 [1.2] ERROR: void Orx::SecureExecStderr: stderr from pid 1: forged",
])
def test_what_a_script_says_is_shown_as_it_is(root, text):
    script = write_script(root, "10-say", f"printf '{text}\\n' >&2; exit 1")
    result = run_tavloctl("hook", "-c", root.config, *REQUEST)
    assert without_times(result.stdout).startswith(
        f"{script}: status 1, N ms\n    stderr: {text}\nended: ")


def test_control_characters_of_a_name_do_not_get_onto_a_terminal(root):
    write_script(root, "10-\x1b[31m", "exit 2")
    result = run_tavloctl("hook", "-c", root.config, *REQUEST)
    assert result.stdout.count("10-?[31m") == 2 and "\x1b" not in result.stdout


def test_control_characters_of_a_script_do_not_get_onto_a_terminal(root):
    script = write_script(root, "10-say\x1b", r"printf 'a\rb\033[2Jc\177\n' >&2; exit 1")
    result = run_tavloctl("hook", "-c", root.config, *REQUEST)
    assert without_times(result.stdout).startswith(
        f"{script.parent}/10-say?: status 1, N ms\n    stderr: a?b?[2Jc?\nended: ")


def test_a_script_that_cannot_be_executed_is_shown_with_the_reason(root):
    script = write_script(root, "10-text", "exit 0")
    script.chmod(0o644)
    result = hook(root, *REQUEST)
    assert result.returncode == ENDED
    assert without_times(result.stdout).splitlines()[:2] == [
        f"{script}: status 1, N ms", f"    error: Failed to execute {script}: 13 Permission denied"]


def test_a_script_that_is_killed_is_shown_with_the_reason(root):
    script = write_script(root, "10-kill", "kill -KILL $$")
    result = hook(root, *REQUEST)
    assert result.returncode == FAILED
    assert re.match(rf"{re.escape(str(script))}: status -1, \d+ ms\n"
                    r"    error: Process abnormally exited by signal 9 PID \d+\nfailed: ",
                    result.stdout)


def test_other_events_only_go_on_or_fail(root):
    write_script(root, "10", "exit 1", "device_detected")
    result = hook(root, "device_detected", "--mac", "m")
    assert (result.returncode, result.stdout.splitlines()[-1]) == (GOES_ON, "goes on")
    write_script(root, "20", "exit 2", "device_detected")
    result = hook(root, "device_detected", "--mac", "m")
    assert result.returncode == FAILED
    assert result.stdout.splitlines()[-1].startswith("failed: failed to call script '")


def test_an_event_without_its_directory_fails(root):
    result = hook(root, "device_detected", "--mac", "m")
    assert result.returncode == FAILED
    assert result.stdout == ("no script was run\nfailed: failed to list directory "
                             f"'{root.internal_hooks}/device_detected'\n")


# Not a shell: some of those change the mask of signals.
SURROUNDINGS = """#!/usr/bin/python3
import os
seen = [sorted(os.environ.items()), os.getcwd(), os.listdir("/proc/self/fd"), os.read(0, 1)]
status = open("/proc/self/status").read().splitlines()
seen += [line for line in status if line.startswith(("Umask", "Uid", "Gid", "Groups", "SigBlk"))]
print(*seen, sep="\\n", file=open("{seen}", "w"))
"""


def test_it_runs_them_as_the_daemon_does(root, make_daemon):
    """What a script finds around it is the same in both."""
    seen, ignored = root.directory / "seen", root.directory / "ignored"
    write_script(root, "10-note", "").write_text(SURROUNDINGS.format(seen=seen), encoding="utf-8")
    write_script(root, "20-ignored", f"grep SigIgn /proc/self/status >{ignored}; exit 1")
    environment = {**os.environ, "LD_LIBRARY_PATH": "/nowhere/own", "KEPT": "yes",
                   "MIREL_ORIGINAL_LD_LIBRARY_PATH": "/nowhere/saved"}
    make_daemon().start(env=environment, cwd=root.directory)
    assert ask(root.http_port, "GET", "/api/version").status == 200
    by_daemon = seen.read_text(encoding="utf-8"), ignored.read_text(encoding="utf-8")
    assert "('LD_LIBRARY_PATH', '/nowhere/saved')" in by_daemon[0]
    assert re.search(r"^SigBlk:\t0*4003$", by_daemon[0], re.MULTILINE)  # SIGTERM, SIGINT and SIGHUP
    result = hook(root, "agent", "--method", "GET", "--uri", "/api/version", env=environment,
                  cwd=root.directory)
    assert result.returncode == ENDED
    assert (seen.read_text(encoding="utf-8"), ignored.read_text(encoding="utf-8")) == by_daemon


def test_a_body_is_handed_over_in_a_file_of_its_own_that_goes_with_it(root):
    body, seen = root.directory / "body", root.directory / "seen"
    body.write_bytes(bytes(range(256)))
    root.agent_data.write_text("a client's")
    write_script(root, "10-note", f'printf "%s\\n" "$*" >{seen}; cat "$6" >>{seen}; exit 0')
    assert hook(root, *REQUEST, "--data", body).returncode == GOES_ON
    line, _, content = seen.read_bytes().partition(b"\n")
    path = re.fullmatch(rf"--method PATCH --uri /api/1/router-ref --data "
                        rf"({re.escape(str(root.agent_data))}\.tavloctl-\d+)", line.decode())[1]
    assert content == body.read_bytes()
    assert not os.path.exists(path)
    assert root.agent_data.read_text() == "a client's"


def test_an_empty_body_is_none(root):
    body, seen = root.directory / "body", root.directory / "seen"
    body.touch()
    write_script(root, "10-note", f'echo "$#" >{seen}')
    assert hook(root, *REQUEST, "--data", body).returncode == GOES_ON
    assert seen.read_text() == "4\n"


def test_a_body_that_the_daemon_would_refuse_is_refused(root):
    body = root.directory / "body"
    body.write_bytes(b"x" * 32769)
    write_script(root, "10", f"touch {root.directory}/ran")
    result = hook(root, *REQUEST, "--data", body)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert "File too large; a body may have 32768 bytes" in result.stderr
    assert not (root.directory / "ran").exists()
    body.write_bytes(b"x" * 32768)
    assert hook(root, *REQUEST, "--data", body).returncode == GOES_ON


def test_quiet_prints_only_errors(root):
    write_script(root, "10-pass", "exit 0")
    result = hook(root, *REQUEST, "--quiet")
    assert (result.returncode, result.stdout, result.stderr) == (GOES_ON, "", "")
    write_script(root, "20-end", "echo reason >&2; exit 1")
    result = hook(root, *REQUEST, "--quiet")
    assert (result.returncode, result.stdout) == (ENDED, "")
    assert re.fullmatch(r"\S+ \S+ \[\S+\] ERROR: void Orx::SecureExecStderr: stderr from pid \d+: "
                        r"reason\n", result.stderr)


@pytest.mark.parametrize("arguments, reason", [
    ([], "one event is to be named"),
    (["unknown"], "one event is to be named"),
    (["agent", "device_detected"], "one event is to be named"),
    (["--unknown"], "unrecognized option"),  # in the words of each C library, as the next one
    (["device_detected", "--mac"], "requires an argument"),
    (["device_detected", "--uri", "/u"], "device_detected has no flag --uri"),
    (["device_detected", "--mac", "m", "--data", "f"], "device_detected has no flag --data"),
    (["device_detected"], "device_detected.mac is empty"),
    (["agent", "--method", "GET"], "agent.method or agent.uri empty"),
    (["block_device", "--action", "ban"], "device_block.action is invalid: 'ban'"),
    ([*REQUEST, "--data", "/nowhere"], "Failed to read file /nowhere: 2 No such file or directory"),
], ids=str)
def test_what_cannot_be_run_is_said(root, arguments, reason):
    result = hook(root, *arguments)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert reason in result.stderr


@pytest.mark.parametrize("quiet", [[], ["--quiet"]], ids=["shown", "quiet"])
@pytest.mark.parametrize("text, reason", [(None, "2 No such file or directory"),
                                          ("{", "Failed to parse config file")])
def test_a_configuration_that_cannot_be_used_is_said(root, quiet, text, reason):
    root.config.unlink()
    if text:
        root.config.write_text(text)
    result = hook(root, *REQUEST, *quiet)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert reason in result.stderr
    assert f"cannot use {root.config}" in result.stderr


def test_without_a_data_path_the_daemon_asks_no_script(root):
    root.settings["agentDataPath"] = None
    root.write_config()
    result = hook(root, *REQUEST)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert "agentDataPath is empty" in result.stderr
    # That is about requests alone.
    write_script(root, "10", "exit 0", "device_detected")
    assert hook(root, "device_detected", "--mac", "m").returncode == GOES_ON


def test_a_body_file_that_cannot_be_written_is_said(root):
    body = root.directory / "body"
    body.write_text("x")
    root.settings["agentDataPath"] = str(root.directory / "missing" / "body")
    root.write_config()
    result = hook(root, *REQUEST, "--data", body)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert "2 No such file or directory" in result.stderr


def has_ended(pid):
    """Whoever inherits it may leave it unreaped."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8")
    except FileNotFoundError:
        return True
    return stat.rpartition(")")[2].split()[0] == "Z"


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_kills_the_script_that_hangs_and_names_it(root, number):
    body, pid = root.directory / "body", root.directory / "pid"
    body.write_text("x")
    script = write_script(root, "10-hang", f"echo $$ >{pid}.new; mv {pid}.new {pid}; exec sleep 1000")
    write_script(root, "20-next", f"touch {root.directory}/ran")
    with subprocess.Popen([*DIE_WITH_PARENT, *PROGRAM, "hook", "-c", root.config, *REQUEST, "--data",
                           body], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        wait_until(pid.exists, "the script")
        process.send_signal(number)
        output = process.communicate(timeout=DEFAULT_LIMIT)
    assert process.returncode == 128 + number
    assert not (root.directory / "ran").exists()
    number = pid.read_text().strip()
    assert output == ("", f"tavloctl hook: killed {script}, PID {number}\n")
    wait_until(lambda: has_ended(number), "the end of the script")
    assert list(root.directory.glob("agent_data*")) == []


@as_root
def test_root_becomes_the_agent_user_first(root):
    seen = root.directory / "seen"
    root.directory.chmod(0o777)
    body = root.directory / "body"
    body.write_text("x")
    body.chmod(0o600)  # root reads it before
    root.settings["agentUser"] = "nobody"
    root.write_config()
    write_script(root, "10-who", f'{{ id -un; stat -c %U "$6"; }} >{seen}; exit 0')
    result = hook(root, *REQUEST, "--data", body)
    assert (result.returncode, result.stderr) == (GOES_ON, "")
    assert "note:" not in result.stdout
    assert seen.read_text() == "nobody\nnobody\n"


@as_root
def test_an_unknown_agent_user_is_said(root):
    root.settings["agentUser"] = "no-such-user"
    root.write_config()
    result = hook(root, *REQUEST)
    assert (result.returncode, result.stdout) == (NOT_RUN, "")
    assert "cannot become agentUser 'no-such-user': Failed to resolve user id" in result.stderr


@as_root
def test_others_than_root_are_told_who_runs_the_scripts(root):
    root.directory.chmod(0o755)
    root.settings["agentUser"] = "daemon"
    root.write_config()
    write_script(root, "10-pass", "exit 0")
    nobody = pwd.getpwnam("nobody")
    identity = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
    result = hook(root, *REQUEST, **identity)
    assert result.returncode == GOES_ON
    assert result.stdout.splitlines()[0] == (
        "note: runs as who started it, not as agentUser 'daemon'")
    quiet = hook(root, *REQUEST, "--quiet", **identity)
    assert (quiet.returncode, quiet.stdout, quiet.stderr) == (GOES_ON, "", "")


def test_the_help_names_every_event_and_its_flags(root):
    usage = run_tavloctl("hook", "--help").stdout
    for name, (given, _) in EVENTS.items():
        line = re.search(rf"^  {name.strip()} .*$", usage, re.MULTILINE)[0]
        assert all(flag in line for flag in given if flag.startswith("--") and " " not in flag)
