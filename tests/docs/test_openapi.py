"""Holds the documents of api/ against the running daemon, both ways: every answer must be one that a
document describes, and every answer that they describe must come. openapi.yaml has what is of use to a
client, refusals.yaml what remains.

The schemas of OpenAPI 3.1 are JSON Schema 2020-12, so that Debian's python3-jsonschema looks at the
bodies. Whether the documents themselves are valid is looked at in test_openapi_schema.py.
"""

import json
import re

import jsonschema
import pytest
import yaml

from api_situations import MAX_BODY, MAX_READ_BODY, open_endpoints, provoke
from markdown import PROJECT
from sdk_rest_host import Answer, SdkRestHost

METHODS = ("get", "post", "put", "delete", "patch", "head", "options", "trace")
LISTENERS = ("plain", "TLS")

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


class Document:
    """One file. `part` is what a parameter of a path may be, as a regular expression."""

    def __init__(self, name, part):
        self.path = PROJECT / "api" / name
        self.tree = yaml.safe_load(self.path.read_text(encoding="utf-8"))
        self.part = part

    def resolve(self, node):
        while "$ref" in node:
            target = self.tree
            for name in node["$ref"].removeprefix("#/").split("/"):
                target = target[name]
            node = target
        return node

    def operations(self):
        """Template, method, operation."""
        return [(template, method, item[method]) for template, item in self.tree["paths"].items()
                for method in METHODS if method in item]

    def find(self, method, path):
        """The operation that a request belongs to; those without parameters come first."""
        for template, each, operation in self.operations():
            pattern = "".join(self.part if piece.startswith("{") else re.escape(piece)
                              for piece in re.split(r"(\{\w+\})", template))
            if each == method and re.fullmatch(pattern, path):
                return template, operation
        return None, None


USABLE = Document("openapi.yaml", "[^/]+")
REFUSALS = Document("refusals.yaml", ".+")
DOCUMENTS = [USABLE, REFUSALS]
documents = pytest.mark.parametrize("document", DOCUMENTS, ids=lambda each: each.path.name)


def example_path(template):
    """The path with the examples of its parameters."""
    for parameter in USABLE.tree["paths"][template].get("parameters", []):
        parameter = USABLE.resolve(parameter)
        if parameter["in"] == "path":
            template = template.replace("{" + parameter["name"] + "}", parameter["example"])
    return template


def requests():
    """Method and path of a request for each operation of both documents."""
    found = {(method, example_path(template)) for template, method, _ in USABLE.operations()}
    for template, method, _ in REFUSALS.operations():
        found.add((method, template.replace("{path}", "some/thing?else").replace("{other}", "outside")))
        if "{" in template:
            found.add((method, template.replace("{path}", "with a blank").replace("{other}", "a blank")))
    return sorted(found)


def patterns(schema):
    return [each["pattern"] for each in schema.get("anyOf", [schema]) if "pattern" in each]


class Coverage:
    """What the documents promise and has been seen."""

    def __init__(self):
        self.seen = set()

    def check(self, method, path, answer):
        assert any([self._fits(document, method, path, answer) for document in DOCUMENTS]), (
            f"{method} {path}: {answer.status} {answer.reason}")

    def _fits(self, document, method, path, answer):
        template, operation = document.find(method, path)
        responses = operation["responses"] if operation else {}
        status = str(answer.status)
        if status not in responses and "default" in responses and b"<TITLE>" not in answer.body:
            status = "default"  # only what is the SDK REST host's may be anything
        if status not in responses:
            return False
        content = document.resolve(responses[status])["content"]
        media = content.get(answer.header("Content-Type"), content.get("*/*"))
        if media is None:
            return False
        schema, text = media.get("schema", {}), answer.body.decode()
        if not jsonschema.Draft202012Validator(schema).is_valid(text):
            return False
        place = (document.path.name, template, method, status)
        self.seen |= {place, *((*place, each) for each in patterns(schema) if re.search(each, text))}
        return True

    def missing(self):
        promised = set()
        for document in DOCUMENTS:
            for template, method, operation in document.operations():
                for status, response in operation["responses"].items():
                    place = (document.path.name, template, method, status)
                    promised.add(place)
                    for media in document.resolve(response)["content"].values():
                        promised |= {(*place, each) for each in patterns(media.get("schema", {}))}
        return promised - self.seen


def ask_all(coverage, ask, variants):
    for method, path in requests():
        for listener in LISTENERS:
            for variant in variants:
                coverage.check(method, path, ask(listener, (method.upper(), path), **variant))


@pytest.fixture(scope="module")
def coverage():
    return Coverage()


@pytest.mark.parametrize("name", SURROUNDINGS)
def test_every_answer_is_in_a_document(root, make_daemon, coverage, name):
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
def test_every_answer_of_the_documents_has_come(coverage):
    assert coverage.missing() == set()


def test_the_examples_are_what_the_stand_in_answers(root, make_daemon):
    body = USABLE.resolve({"$ref": "#/components/requestBodies/Any"})["content"]["application/json"]
    body = json.dumps(body["example"], separators=(",", ":")).encode()
    with provoke(root, make_daemon, "served") as ask:
        for template, method, operation in USABLE.operations():
            request = (method.upper(), example_path(template))
            options = {"body": body} if "requestBody" in operation else {}
            [(media_type, example)] = [
                (name, media["example"]) for name, media
                in operation["responses"]["200"]["content"].items() if "example" in media]
            answer = ask("TLS", request, **options)
            text = answer.body.decode()
            assert answer.header("Content-Type") == media_type
            assert (json.loads(text) if "json" in media_type else text) == example


def test_every_operation_of_the_first_document_is_of_use(root, make_daemon):
    """With what it says itself: its path, its servers, the key where it has one."""
    listeners = {"https": "TLS", "http": "plain"}
    with provoke(root, make_daemon, "served") as ask:
        for template, method, operation in USABLE.operations():
            servers = USABLE.tree["paths"][template].get("servers", USABLE.tree["servers"])
            security = operation.get("security", USABLE.tree["security"])
            for scheme in (server["url"].partition(":")[0] for server in servers):
                has_key = scheme == "https" and {"pairingKey": []} in security
                assert has_key or {} in security, f"the key would go over {scheme}"
                options = {} if has_key else {"key": ""}
                answer = ask(listeners[scheme], (method.upper(), example_path(template)), **options)
                assert answer.status == 200, (method, template, scheme)


def test_the_document_has_the_key_and_the_tls_listener_first():
    scheme = USABLE.tree["components"]["securitySchemes"]["pairingKey"]
    assert (scheme["type"], scheme["in"], scheme["name"]) == ("apiKey", "header", "PairingKey")
    assert [server["url"].split(":")[0] for server in USABLE.tree["servers"]] == ["https", "http"]


def test_the_open_endpoints_are_those_of_the_source():
    assert [(method.upper(), template) for template, method, operation in USABLE.operations()
            if operation.get("security") == [{"pairingKey": []}, {}]] == open_endpoints()
    assert set(open_endpoints()) <= {(method.upper(), template)
                              for template, method, _ in REFUSALS.operations()}


@documents
def test_a_document_has_the_version_of_the_build(document):
    lists = (PROJECT / "CMakeLists.txt").read_text(encoding="utf-8")
    assert re.search(r"project\(tavlo VERSION (\S+)", lists)[1] == document.tree["info"]["version"]


@documents
def test_operations_have_names_of_their_own(document):
    names = [operation["operationId"] for _, _, operation in document.operations()]
    assert len(names) == len(set(names))
