"""Holds tavlo.schema.json, docs/configuration.md and the example against the settings themselves:
the table in the source, and what the daemon makes of a file."""

import json
import re

import jsonschema
import pytest

from markdown import PROJECT, fenced_blocks, table
from support.clients import ask
from support.daemon import run_tavlo

SCHEMA = json.loads((PROJECT / "tavlo.schema.json").read_text(encoding="utf-8"))
PAGE = PROJECT / "docs" / "configuration.md"
EXAMPLE = PROJECT / "examples" / "tavlo.json"
SOURCE = (PROJECT / "src" / "settings" / "app_settings.cc").read_text(encoding="utf-8")

# Key -> "integer" or "string", in the order of the source.
TYPES = {key: {"Port": "integer", "Text": "string"}[kind]
         for kind, key in re.findall(r"^ {6}(\w+)\(\"(\w+)\", &\w+\),$", SOURCE, re.M)}
PORTS = [key for key, kind in TYPES.items() if kind == "integer"]
TEXTS = [key for key, kind in TYPES.items() if kind == "string"]
PROPERTIES = {key: value for key, value in SCHEMA["properties"].items() if key != "$schema"}

# Both must hold of each: the schema refuses it, and the daemon passes it over.
WRONG_PORTS = [0, -1, 65536, 4294967297, 8080.5, "8080", "", None, True, [8080], {"port": 8080}]
WRONG_TEXTS = [7, 7.5, None, False, ["text"], {"text": "text"}]

UNIT_TEST = (PROJECT / "tests/unit/settings/app_settings_test.cc").read_text(encoding="utf-8")


def constant(name):
    return int(re.search(rf"{name} = (\d+);", SOURCE)[1])


def in_force(key, config=None):
    arguments = [] if config is None else ["-c", config]
    result = run_tavlo(*arguments, "-p", key)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout[:-1]


@pytest.fixture
def read(tmp_path):
    """What the daemon makes of a key's value in a file."""

    def write_and_ask(key, settings):
        path = tmp_path / "tavlo.json"
        path.write_text(json.dumps(settings), encoding="utf-8")
        return in_force(key, path)

    return write_and_ask


def is_valid(settings):
    return jsonschema.Draft202012Validator(SCHEMA).is_valid(settings)


def test_the_schema_is_one():
    jsonschema.Draft202012Validator.check_schema(SCHEMA)


def test_the_source_was_understood():
    assert len(TYPES) == SOURCE.count("_),\n") > 0


def test_the_schema_has_the_keys_of_the_source_and_their_types():
    assert {key: value["type"] for key, value in PROPERTIES.items()} == TYPES
    assert list(PROPERTIES) == list(TYPES)


@pytest.mark.parametrize("key", TYPES)
def test_the_unit_tests_have_a_row_for_each_key(key):
    getter = key[0].upper() + key[1:]
    assert re.search(rf'^    {{"{key}", .*, &AppSettings::{getter}}},$', UNIT_TEST, re.M)


@pytest.mark.parametrize("key", TYPES)
def test_the_schema_has_the_defaults_of_the_daemon(key):
    assert str(PROPERTIES[key]["default"]) == in_force(key)
    assert is_valid({key: PROPERTIES[key]["default"]})


@pytest.mark.parametrize("key", PORTS)
def test_the_schema_has_the_ranges_of_the_source(key):
    limits = constant("kSmallestPort"), constant("kLargestPort")
    assert (PROPERTIES[key]["minimum"], PROPERTIES[key]["maximum"]) == limits


@pytest.mark.parametrize("key", TYPES)
def test_the_schema_says_what_each_key_is_for(key):
    assert PROPERTIES[key]["description"].endswith(".")


def test_the_page_has_a_row_for_each_key_that_says_what_the_schema_says():
    def row(key):
        value = PROPERTIES[key]
        values = "any"
        if value["type"] == "integer":
            values = f"{value['minimum']} to {value['maximum']}"
        return [f"`{key}`", value["type"], f"`{json.dumps(value['default'])}`", values]

    rows = table(PAGE, "Key")
    assert [cells[:4] for cells in rows] == [row(key) for key in TYPES]
    assert all(cells[4] for cells in rows)


@pytest.mark.parametrize("key", PORTS)
@pytest.mark.parametrize("value", [1, 2, 8080, 65535])
def test_a_good_port_is_valid_and_taken(read, key, value):
    assert is_valid({key: value})
    assert read(key, {key: value}) == str(value)


@pytest.mark.parametrize("key", PORTS)
@pytest.mark.parametrize("value", WRONG_PORTS, ids=repr)
def test_a_wrong_port_is_invalid_and_passed_over(read, key, value):
    assert not is_valid({key: value})
    assert read(key, {key: value}) == str(PROPERTIES[key]["default"])


@pytest.mark.parametrize("key", TEXTS)
@pytest.mark.parametrize("value", ["", "x", "a b/\u00e4"])
def test_a_text_is_valid_and_taken(read, key, value):
    assert is_valid({key: value})
    assert read(key, {key: value}) == value


@pytest.mark.parametrize("key", TEXTS)
@pytest.mark.parametrize("value", WRONG_TEXTS, ids=repr)
def test_what_is_no_text_is_invalid_and_passed_over(read, key, value):
    assert not is_valid({key: value})
    assert read(key, {key: value}) == PROPERTIES[key]["default"]


@pytest.mark.parametrize("settings", [{"agentHttpport": 1}, {"AgentHttpPort": 1}, {"": 1}])
def test_a_misspelt_key_is_invalid_and_passed_over(read, settings):
    assert not is_valid(settings)
    assert read("agentHttpPort", settings) == str(PROPERTIES["agentHttpPort"]["default"])


@pytest.mark.parametrize("settings", [[{"agentHttpPort": 1}], 7, "text"], ids=repr)
def test_another_root_is_invalid_and_passed_over(read, settings):
    assert not is_valid(settings)
    assert read("agentHttpPort", settings) == str(PROPERTIES["agentHttpPort"]["default"])


def test_the_two_exceptions_are_as_the_page_says(read, tmp_path):
    assert is_valid({"agentHttpPort": 8080.0})
    default = str(PROPERTIES["agentHttpPort"]["default"])
    assert read("agentHttpPort", {"agentHttpPort": 8080.0}) == default
    path = tmp_path / "twice.json"
    path.write_text('{"lanInterface": "first", "lanInterface": "last"}', encoding="utf-8")
    assert is_valid(json.loads(path.read_text(encoding="utf-8")))
    assert in_force("lanInterface", path) == "last"


@pytest.mark.parametrize("text", ["/* why */ {%s}", "{%s} and more", "{%s,}"])
def test_what_is_no_json_may_be_taken_as_the_page_says(tmp_path, text):
    path = tmp_path / "lax.json"
    path.write_text(text % "'lanInterface': 'eth7'", encoding="utf-8")
    assert in_force("lanInterface", path) == "eth7"


def test_the_example_is_valid_and_sets_every_key():
    example = json.loads(EXAMPLE.read_text(encoding="utf-8"))
    assert is_valid(example)
    assert (EXAMPLE.parent / example.pop("$schema")).resolve() == PROJECT / "tavlo.schema.json"
    assert list(example) == list(TYPES)
    for key, value in example.items():
        assert in_force(key, EXAMPLE) == str(value)


@pytest.mark.parametrize("name", ["tavlo.json.in", "buildroot/package/tavlo/tavlo.json",
                                  "openwrt/tavlo/files/tavlo.json"])
def test_what_ships_is_valid_and_sets_every_key(name):
    text = (PROJECT / "packaging" / name).read_text(encoding="utf-8")
    settings = json.loads(text)
    assert is_valid(settings)
    assert settings.keys() == TYPES.keys()


def test_a_schema_beside_the_keys_is_valid_and_passed_over(read):
    settings = {"$schema": "../tavlo.schema.json", "agentHttpPort": 8080}
    assert is_valid(settings)
    assert read("agentHttpPort", settings) == "8080"


def test_what_other_programs_write_is_read_as_shown(root, daemon_of_examples):
    key, devices = daemon_of_examples(suffix="")
    assert asked_with(root, key) == 200
    answer = ask(root.http_port, "GET", "/api/mac")
    assert (answer.status, answer.body.decode()) == (200, devices["devices"][0]["mac"])


@pytest.mark.parametrize("suffix", [" ", "\r"], ids=["blank", "carriage return"])
def test_what_stands_behind_the_key_belongs_to_it(root, daemon_of_examples, suffix):
    key, _ = daemon_of_examples(suffix)
    assert asked_with(root, key) == 417


def test_of_several_keys_the_last_one_counts(root, daemon_of_examples):
    key, _ = daemon_of_examples(suffix="\npairing_key: last")
    assert asked_with(root, key) == 417
    assert asked_with(root, "last") == 200


def asked_with(root, key):
    return ask(root.https_port, "GET", "/api/version", headers=[("PairingKey", key)],
               tls=True).status


@pytest.fixture
def daemon_of_examples(root, make_daemon, sdk_host):
    """Starts a daemon with the files that the page shows; returns the key and the devices."""

    def start(suffix):
        [(_, lines)] = fenced_blocks(PAGE, "text")
        [(_, devices)] = fenced_blocks(PAGE, "json")
        key = re.search(r"^pairing_key: (.+)$", lines, re.M)[1]
        root.write_router_info(lines.replace(key, key + suffix))
        root.device_list.write_text(devices.replace("192.0.2.8", "127.0.0.1"), encoding="utf-8")
        make_daemon().start()
        return key, json.loads(devices)

    return start
