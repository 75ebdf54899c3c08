"""Runs the example clients against the daemon."""

import json
import os
import signal
import subprocess

import pytest

from markdown import PROJECT
from support.daemon import DIE_WITH_PARENT
from support.destinations import Destination, hang
from support.ports import reserve_port
from support.scratch_root import PAIRING_KEY
from support.waiting import DEFAULT_LIMIT

CLIENTS = sorted((PROJECT / "examples" / "clients").iterdir())
BODY = '{"name": "\u00e4 b"}\n'


@pytest.fixture(params=CLIENTS, ids=lambda path: path.name)
def ask(request, root, daemon, sdk_host):
    def run(url, *arguments, **environment):
        environment = {**os.environ, "no_proxy": "*", "TAVLO_URL": url, **environment}
        return subprocess.run([request.param, *arguments], capture_output=True, text=True,
                              check=False, timeout=DEFAULT_LIMIT, env=environment)

    run.plain = f"http://127.0.0.1:{root.http_port}"
    run.tls = f"https://127.0.0.1:{root.https_port}"
    run.trust = {"TAVLO_CERTIFICATE": str(root.certificate), "TAVLO_KEY": PAIRING_KEY}
    run.received = sdk_host.requests
    return run


def assert_refused(result, text):
    assert (result.returncode, result.stdout, result.stderr) == (1, "", text + "\n")


def test_there_is_one_for_each_language():
    assert {path.suffix for path in CLIENTS} == {".sh", ".py", ".mjs"}


def test_it_asks_without_a_key(ask):
    result = ask(ask.plain, "GET", "/api/version")
    assert (result.returncode, result.stderr) == (0, "")
    assert json.loads(result.stdout)["path"] == "/api/version"


def test_it_asks_with_the_key_and_a_body(ask):
    result = ask(ask.tls, "PUT", "/api/1/profiles/7?now", BODY, **ask.trust)
    assert (result.returncode, result.stderr) == (0, "")
    assert [(each.method, each.path, each.body.decode()) for each in ask.received] == [
        ("PUT", "/api/1/profiles/7?now", BODY)]


def test_it_sends_body_and_path_as_they_are_given(ask):
    result = ask(ask.tls, "PUT", "/api/1/x?n[1-2]", "@/etc/hostname", **ask.trust)
    assert (result.returncode, result.stderr) == (0, "")
    assert [(each.path, each.body) for each in ask.received] == [("/api/1/x?n[1-2]", b"@/etc/hostname")]


def test_it_names_the_reason_of_a_refusal(ask):
    assert_refused(ask(ask.plain, "DELETE", "/api/1/profiles"),
                   "417 Endpoint is not allowed with insecure connection")
    assert_refused(ask(ask.tls, "GET", "/api/x", **{**ask.trust, "TAVLO_KEY": "guessed"}),
                   "417 Pairing key not as expected")


def test_it_gives_its_key_to_no_stranger(ask, root, tmp_path):
    other = tmp_path / "other.crt"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=other",
                    "-keyout", tmp_path / "other.key", "-out", other],
                   check=True, capture_output=True)
    result = ask(ask.tls, "GET", "/api/x", **{**ask.trust, "TAVLO_CERTIFICATE": str(other)})
    assert result.returncode != 0
    assert result.stdout == ""
    assert ask.received == []


def test_it_says_why_there_is_no_answer(ask):
    for url in ("http://127.0.0.1:1", "nonsense"):
        result = ask(url, "GET", "/api/version")
        assert (result.returncode, result.stdout) == (2, "")
        assert len(result.stderr.splitlines()) == 1


@pytest.mark.parametrize("missing", ["TAVLO_URL", "TAVLO_CERTIFICATE", "TAVLO_KEY"])
def test_it_names_what_is_not_set(ask, missing):
    result = ask(ask.tls, "GET", "/api/x", **{**ask.trust, missing: ""})
    assert (result.returncode, result.stdout) == (2, "")
    assert missing in result.stderr
    assert len(result.stderr.splitlines()) == 1
    assert ask.received == []


def test_it_shows_how_it_is_used(ask):
    for arguments in ([], ["GET"], ["PUT", "/api/x", "body", "more"]):
        result = ask(ask.plain, *arguments)
        assert (result.returncode, result.stdout) == (2, "")
        assert result.stderr.startswith("usage: tavlo.")
    assert ask.received == []


@pytest.mark.parametrize("client", CLIENTS, ids=lambda path: path.name)
def test_it_leaves_no_files_when_it_is_ended(client, tmp_path):
    port = reserve_port()
    with Destination(port, hang) as destination:
        process = subprocess.Popen(
            [*DIE_WITH_PARENT, client, "GET", "/api/version"], start_new_session=True,
            env={**os.environ, "no_proxy": "*", "TMPDIR": str(tmp_path),
                 "TAVLO_URL": f"http://127.0.0.1:{port}"})
        destination.wait_for_connections(1)
        os.killpg(process.pid, signal.SIGTERM)
        assert process.wait(DEFAULT_LIMIT) != 0
    assert list(tmp_path.iterdir()) == []
