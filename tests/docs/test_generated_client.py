"""A client that a generator from npm has made of api/openapi.yaml, in the version of tools/openapi, asks
the daemon."""

import json
import os
import subprocess
from pathlib import Path

import pytest

from markdown import PROJECT
from support import npm
from support.scratch_root import PAIRING_KEY

COMPILE = ["--target", "es2022", "--module", "nodenext", "--moduleResolution", "nodenext", "--strict"]

# Calls what the arguments say, a list of names and of their arguments; prints what came back.
PROGRAM = """
import * as api from './api.mjs';
const [server, headers, calls] = JSON.parse(process.argv[2]);
const first = api.defaults.baseUrl;
api.defaults.baseUrl = api.servers[server]({ router: '127.0.0.1', port: process.argv[3] });
const answers = [];
for (const [name, parameters] of calls) {
  const { status, data } = await api[name](...parameters, { headers });
  answers.push([status, data]);
}
console.log(JSON.stringify({ first, answers }));
"""


@pytest.fixture(scope="module")
def client():
    """The program that asks."""
    packages = npm.install(PROJECT / "tools" / "openapi", Path(os.environ["TAVLO_BUILD"]) / "openapi")
    place = packages.parent / "client"
    place.mkdir(exist_ok=True)

    def run(program, *arguments):
        result = subprocess.run([packages / ".bin" / program, *arguments], cwd=place, check=False,
                                capture_output=True, text=True, timeout=120)
        assert result.returncode == 0, result.stdout + result.stderr

    run("oazapfts", PROJECT / "api" / "openapi.yaml", "api.mts")
    run("tsc", *COMPILE, "api.mts")
    (place / "program.mjs").write_text(PROGRAM, encoding="utf-8")
    return place / "program.mjs"


@pytest.fixture
def ask(client, root, daemon, sdk_host):
    def call(*calls, server="theTlsListener", key=PAIRING_KEY):
        port = root.https_port if server == "theTlsListener" else root.http_port
        headers = {"PairingKey": key} if key else {}
        result = subprocess.run(
            ["node", client, json.dumps([server, headers, calls]), str(port)], check=False,
            capture_output=True, text=True, timeout=60,
            env={**os.environ, "NODE_EXTRA_CA_CERTS": str(root.certificate), "no_proxy": "*"})
        assert result.returncode == 0, result.stderr
        return json.loads(result.stdout)

    return call


def test_a_path_with_slashes_arrives_as_it_is(ask, sdk_host):
    answers = ask(["getCollection", ["1", "profiles", {}]],
                  ["deleteItem", ["1", "profiles", "7", {}]],
                  ["putPart", ["1", "profiles", "7", "rules", {"ref": "x"}, {}]])["answers"]
    assert [(each.method, each.path, each.body) for each in sdk_host.requests] == [
        ("GET", "/api/1/profiles", b""), ("DELETE", "/api/1/profiles/7", b""),
        ("PUT", "/api/1/profiles/7/rules", b'{"ref":"x"}')]
    assert answers[0] == [200, {"method": "GET", "path": "/api/1/profiles", "bodyLength": 0}]


# Why the document has a parameter for each part.
def test_a_slash_within_a_parameter_would_be_another_path(ask, sdk_host):
    ask(["getName", ["1/profiles", {}]])
    assert [each.path for each in sdk_host.requests] == ["/api/1%2Fprofiles"]


def test_a_query_arrives_as_it_is(ask, sdk_host):
    ask(["getCollection", ["1", "profiles", {"query": {"all": "", "name": "a"}}]])
    assert [each.path for each in sdk_host.requests] == ["/api/1/profiles?all=&name=a"]


def test_it_asks_the_tls_listener_unless_it_is_told_otherwise(ask):
    assert ask()["first"] == "https://127.0.0.1:60279"


def test_an_open_endpoint_is_asked_without_a_key(ask, sdk_host):
    answers = ask(["getVersion", []], ["patchRouterRef1", [{"ref": "x"}]], ["getMac", []],
                  server="thePlainListener", key="")["answers"]
    assert [status for status, _ in answers] == [200, 200, 200]
    assert answers[2][1] == "02:00:5e:10:00:01"
    assert [each.path for each in sdk_host.requests] == ["/api/version", "/api/1/router-ref"]


def test_a_refusal_is_an_answer_with_its_reason(ask, sdk_host):
    [[status, text]] = ask(["getVersion", []], key="guessed")["answers"]
    assert status == 417
    assert "<TITLE>417 Pairing key not as expected</TITLE>" in text
    assert sdk_host.requests == []
