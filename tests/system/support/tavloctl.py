"""The program that stands beside the daemon, as a process."""

import json
import os
import shlex
import shutil
import subprocess

import pytest

from support.daemon import DIE_WITH_PARENT, assert_no_sanitizer_report
from support.waiting import DEFAULT_LIMIT, EMULATOR

BINARY = os.environ["TAVLOCTL_BINARY"]
PROGRAM = [*shlex.split(EMULATOR), BINARY]

as_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can look as somebody else")

LOOPBACK_IS_NO_LAN = (
    "lo",
    "Could not find active IPv4 address from interface 'lo': no client in the LAN is served",
    'give it an IPv4 address, or fix "lanInterface"')


def run_tavloctl(*arguments, prefix=(), binary=BINARY, **options):
    """Runs it to its end; `prefix` is a command that starts it."""
    program = [*shlex.split(EMULATOR), binary]
    result = subprocess.run([*DIE_WITH_PARENT, *prefix, *program, *map(str, arguments)],
                            capture_output=True, text=True, timeout=DEFAULT_LIMIT, check=False,
                            **options)
    assert_no_sanitizer_report(result.stderr.encode())
    return result


def check_as_nobody(root, *arguments, prefix=()):
    """`check`, by somebody who may not get into the directory of the build."""
    copy = shutil.copy(BINARY, root.directory)
    root.directory.chmod(0o755)
    as_nobody = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
    return check(root, *arguments, prefix=[*prefix, *as_nobody], binary=copy)


def check(root, *arguments, prefix=(), **options):
    """What `tavloctl check` says of a set-up: findings as tuples of place, what and cure, and what it
    could not look at as pairs. The one that `lo` has no address for the LAN, as all set-ups without a
    network of their own have, is left out."""
    root.write_config()
    result = run_tavloctl("check", "-c", root.config, "--json", *arguments, prefix=prefix, **options)
    assert result.stderr == ""
    report = json.loads(result.stdout)
    assert set(report) == {"findings", "unseen"}
    findings = [(each["where"], each["what"], each["cure"]) for each in report["findings"]]
    unseen = [(each["where"], each["what"]) for each in report["unseen"]]
    assert result.returncode == (1 if findings else 2 if unseen else 0)
    if root.settings["lanInterface"] == "lo":
        findings.remove(LOOPBACK_IS_NO_LAN)
    return findings, unseen


def findings(root, *arguments, **options):
    """The findings of a set-up in which everything could be looked at."""
    found, unseen = check(root, *arguments, **options)
    assert unseen == []
    return found
