"""Holds api/openapi.yaml against the running daemon, both ways: every answer must be one that the
document describes, and every answer that it describes must come.

The schemas of OpenAPI 3.1 are JSON Schema 2020-12, so that Debian's python3-jsonschema looks at the
bodies. The document itself is looked at by a validator that has OpenAPI's own schema; it comes from
npm, in the version of tools/openapi.
"""

import os
import re
import shutil
import subprocess
from pathlib import Path

import jsonschema
import pytest
import yaml

from api_situations import MAX_BODY, MAX_READ_BODY, provoke
from markdown import PROJECT
from sdk_rest_host import Answer, SdkRestHost

PATH = PROJECT / "api" / "openapi.yaml"
DOCUMENT = yaml.safe_load(PATH.read_text(encoding="utf-8"))
LINT = PROJECT / "tools" / "openapi"
METHODS = ("get", "post", "put", "delete", "patch", "head", "options", "trace")
LISTENERS = ("plain", "TLS")

# Any path that fits the template and none of the others.
FILLED = {"{path}": "some/thing?else", "{other}": "elsewhere"}

# What is asked of every operation on each listener.
VARIANTS = [
    {}, {"key": ""}, {"key": "guessed"}, {"body": b"b"}, {"body": b"b" * MAX_BODY},
    {"body": b"b" * (MAX_BODY + 1)}, {"length": MAX_READ_BODY + 1},
    {"headers": [("Expect", "the-unexpected")], "body": b"b"},
    {"headers": [("a", "a" * 65536)]},
]

# Those in which it is the surroundings that change the answer.
SURROUNDINGS = ["served", "too many waiting", "no destination", "a script that fails",
                "an unknown client", "no key configured", "a destination that hangs up",
                "a script that ends the request"]


def resolve(node):
    while "$ref" in node:
        target = DOCUMENT
        for name in node["$ref"].removeprefix("#/").split("/"):
            target = target[name]
        node = target
    return node


def operations():
    for template, item in DOCUMENT["paths"].items():
        for method in METHODS:
            if method in item:
                yield template, method, item[method]


def patterns(schema):
    return [each["pattern"] for each in schema.get("anyOf", [schema]) if "pattern" in each]


class Coverage:
    """What the document promises and has been seen."""

    def __init__(self):
        self.statuses = set()
        self.patterns = set()

    def check(self, template, method, operation, answer):
        responses = operation["responses"]
        status = str(answer.status)
        where = f"{method} {template}: {answer.status} {answer.reason}"
        if status not in responses:
            # Only what is the SDK REST host's may be anything.
            assert "default" in responses and b"<TITLE>" not in answer.body, where
            status = "default"
        self.statuses.add((template, method, status))
        content = resolve(responses[status])["content"]
        media_type = answer.header("Content-Type")
        schema = content.get(media_type, content.get("*/*"))
        assert schema is not None, f"{where} has the type {media_type}"
        schema = schema["schema"]
        jsonschema.validate(answer.body.decode(), schema, jsonschema.Draft202012Validator)
        for pattern in patterns(schema):
            if re.search(pattern, answer.body.decode()):
                self.patterns.add((template, method, status, pattern))

    def missing(self):
        promised_statuses, promised_patterns = set(), set()
        for template, method, operation in operations():
            for status, response in operation["responses"].items():
                promised_statuses.add((template, method, status))
                for media in resolve(response)["content"].values():
                    promised_patterns.update((template, method, status, pattern)
                                             for pattern in patterns(media["schema"]))
        return promised_statuses - self.statuses, promised_patterns - self.patterns


def ask_all(coverage, ask, variants):
    for template, method, operation in operations():
        path = template
        for name, value in FILLED.items():
            path = path.replace(name, value)
        for listener in LISTENERS:
            for variant in variants:
                answer = ask(listener, (method.upper(), path), **variant)
                coverage.check(template, method, operation, answer)
            if "{" in template:
                answer = ask(listener, (method.upper(), path + " and more"))
                coverage.check(template, method, operation, answer)


@pytest.fixture(scope="module")
def coverage():
    return Coverage()


@pytest.mark.parametrize("name", SURROUNDINGS)
def test_every_answer_is_in_the_document(root, make_daemon, coverage, name):
    with provoke(root, make_daemon, name) as ask:
        ask_all(coverage, ask, VARIANTS if name == "served" else [{}])


def test_other_answers_of_the_destination_are_in_the_document(root, make_daemon, coverage,
                                                              monkeypatch):
    refuse = Answer(404, "Not here", [("Content-Type", "text/x-own")], b"no")

    class Refusing(SdkRestHost):
        def __init__(self, port):
            super().__init__(port)
            self.respond = lambda request: refuse

    monkeypatch.setattr("api_situations.SdkRestHost", Refusing)
    with provoke(root, make_daemon, "served") as ask:
        ask_all(coverage, ask, [{}])


# The last of the tests of `coverage`.
def test_every_answer_of_the_document_has_come(coverage):
    statuses, patterns_of_bodies = coverage.missing()
    assert statuses == set()
    assert patterns_of_bodies == set()


def test_the_document_has_the_key_and_both_listeners():
    scheme = DOCUMENT["components"]["securitySchemes"]["pairingKey"]
    assert (scheme["type"], scheme["in"], scheme["name"]) == ("apiKey", "header", "PairingKey")
    assert [server["url"].split(":")[0] for server in DOCUMENT["servers"]] == ["http", "https"]


def test_the_document_has_the_version_of_the_build():
    lists = (PROJECT / "CMakeLists.txt").read_text(encoding="utf-8")
    assert re.search(r"project\(tavlo VERSION (\S+)", lists)[1] == DOCUMENT["info"]["version"]


def test_operations_have_names_of_their_own():
    names = [operation["operationId"] for _, _, operation in operations()]
    assert len(names) == len(set(names))


def test_the_document_is_valid():
    place = Path(os.environ["TAVLO_BUILD"]) / "openapi"
    place.mkdir(exist_ok=True)
    for name in ("package.json", "package-lock.json"):
        shutil.copy(LINT / name, place)
    validator = place / "node_modules" / ".bin" / "validate-api"
    lock = place / "node_modules" / ".package-lock.json"
    if not lock.exists() or lock.stat().st_mtime < (LINT / "package-lock.json").stat().st_mtime:
        subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=place,
                       check=True, timeout=200)
    result = subprocess.run([validator, PATH], capture_output=True, text=True, timeout=60,
                            check=False)
    assert result.returncode == 0, result.stdout + result.stderr
    assert '"valid": true' in result.stdout
