"""`tavloctl check`: the scripts of all events and their directories."""

import os
import shutil

import pytest

from conftest import USER
from support.tavloctl import as_root, findings

COUNTS_AS_ONE = "it counts as a script that answers 1, which ends a request with an empty 200"
NOT_LISTED = "its events fail, and each request is answered with 500"
THEY_DECIDE = "they decide what the router does"
SCRIPT = "#!/bin/sh\nexit 0\n"


def write(root, text=SCRIPT, name="10-script", mode=0o755):
    return root.write_hook(root.internal_hooks, name, text, mode=mode)


def test_scripts_that_work_are_no_finding(asked):
    write(asked)
    write(asked, "#!/usr/bin/env sh\n", "20-env")
    write(asked, "exit 0\n", "30-without-a-first-line")
    write(asked, "#! /bin/sh -e\n", "40-with-an-option")
    shutil.copy("/bin/true", asked.internal_hooks / "agent/50-program")
    assert findings(asked) == []


@pytest.mark.parametrize("event", ["agent", "settings_update", "block_device", "http_block",
                                   "dns_block", "device_detected", "iot_protection"])
@pytest.mark.parametrize("kind", ["internal_hooks", "external_hooks"])
def test_the_scripts_of_each_event_are_looked_at(asked, kind, event):
    path = asked.write_hook(getattr(asked, kind), "10-script", SCRIPT, event, mode=0o644)
    [(where, what, cure)] = findings(asked)
    assert where == str(path)
    assert what.endswith(f"may not execute it: {COUNTS_AS_ONE}")
    assert cure == f"chmod 755 {where}, or keep it elsewhere"


def test_a_name_that_is_no_utf_8_is_shown_by_its_bytes(asked):
    write(asked, name=os.fsdecode(b"10-\xff\\"), mode=0o644)
    write(asked, name="20-na\u00efve\\", mode=0o644)
    directory = asked.internal_hooks / "agent"
    assert [where for where, _, _ in findings(asked)] == [
        f"{directory}/10-\\xff\\\\", f"{directory}/20-na\u00efve\\"]


@as_root
def test_a_script_that_is_executable_for_root_alone(owned):
    path = write(owned, mode=0o744)
    assert findings(owned) == [
        (str(path), f"user '{USER}' may not execute it: {COUNTS_AS_ONE}",
         f"chmod 755 {path}, or keep it elsewhere")]


@as_root
def test_a_script_that_its_interpreter_may_not_read(owned):
    path = write(owned, mode=0o711)
    assert findings(owned) == [
        (str(path), f"user '{USER}' may not read it, which its interpreter must: it fails, and a "
         "request is answered with 500", f"chmod 755 {path}")]


@pytest.mark.parametrize("text", ["#!/bin/sh\r\nexit 0\r\n", "#!/bin/sh\nexit 0\r\n"])
def test_a_script_with_carriage_returns(asked, text):
    path = write(asked, text)
    assert findings(asked) == [
        (str(path), "its lines end in a carriage return and a line feed: it cannot be executed, or "
         "does something else", f"sed -i 's/\\r$//' {path}")]


@pytest.mark.parametrize("line", ["#!/no/such/shell", "#! \t/no/such/shell -e", "#!/no/such/shell"])
def test_a_script_whose_interpreter_is_not_there(asked, line):
    path = write(asked, line + "\nexit 0\n")
    assert findings(asked) == [
        (str(path), f"its interpreter /no/such/shell is not there: {COUNTS_AS_ONE}",
         "install it, or name another one in the first line")]


def test_a_script_whose_interpreter_is_no_program(asked):
    path = write(asked, "#!/etc/passwd\n")
    [(where, what, _)] = findings(asked)
    assert where == str(path)
    assert what.startswith("its interpreter /etc/passwd may not be executed by user '")


def test_a_script_whose_interpreter_env_does_not_find(asked):
    path = write(asked, "#!/usr/bin/env no-such-shell\n")
    assert findings(asked) == [
        (str(path), "env does not find its interpreter no-such-shell in PATH: it fails, and a "
         "request is answered with 500", "install it, or name its whole path in the first line")]


@pytest.mark.parametrize("name", ["10-script~", "10-script.bak", "10-script.orig", ".10-script.swp",
                                  ".#10-script", "#10-script#", "10-script.dpkg-old"])
def test_an_editors_backup(asked, name):
    path = write(asked, name=name)
    assert findings(asked) == [
        (str(path), "has the name of a backup, and is run like all that lies there",
         "keep it elsewhere")]


@pytest.mark.parametrize("make", [lambda path: path.mkdir(), os.mkfifo,
                                  lambda path: path.symlink_to("/no/such/script")],
                         ids=["directory", "fifo", "dangling link"])
def test_an_entry_that_is_no_file(asked, make):
    path = asked.internal_hooks / "agent/10-script"
    make(path)
    assert findings(asked) == [(str(path), f"is no file that can be executed: {COUNTS_AS_ONE}",
                                "keep it elsewhere")]


@as_root
@pytest.mark.parametrize("owner, group, mode, who", [
    ("root", "root", 0o757, "everybody"), ("root", "mail", 0o775, "group 'mail'"),
    ("mail", "root", 0o755, "user 'mail'")])
@pytest.mark.parametrize("is_script", [True, False], ids=["script", "directory"])
def test_what_others_may_write(asked, is_script, owner, group, mode, who):
    path = write(asked)
    path = path if is_script else path.parent
    shutil.chown(path, owner, group)
    path.chmod(mode)
    assert findings(asked) == [
        (str(path), f"{who} may write there: {THEY_DECIDE}",
         f"chmod go-w {path}, and chown it to root")]


def test_a_directory_that_must_be_there(asked):
    directory = asked.internal_hooks / "agent"
    directory.rmdir()
    (asked.external_hooks / "agent").rmdir()
    assert findings(asked) == [(str(directory), f"is missing: {NOT_LISTED}",
                                f"mkdir -p -m 755 {directory}")]
    del asked.settings["agentDataPath"]
    assert findings(asked) == []


@as_root
@pytest.mark.parametrize("mode", [0o700, 0o711, 0o744])
@pytest.mark.parametrize("kind", ["internal_hooks", "external_hooks"])
def test_a_directory_that_the_user_may_not_list(owned, kind, mode):
    directory = getattr(owned, kind) / "agent"
    directory.chmod(mode)
    assert findings(owned) == [
        (str(directory), f"user '{USER}' may not list it: {NOT_LISTED}",
         f"chown {USER} {directory}, or widen its mode")]


def test_scripts_that_see_no_request(root):
    write(root)
    [(where, what, cure)] = findings(root)
    assert where == str(root.internal_hooks / "agent")
    assert what == 'its scripts see no request, as "agentDataPath" is empty'
    assert cure.startswith("set it to a path in a directory of user '")
