"""`tavloctl check`: how it ends and what its output looks like, and what it finds in a configuration."""

import fcntl
import json

import pytest

from support.tavloctl import LOOPBACK_IS_NO_LAN, as_root, check, check_as_nobody, run_tavloctl
from support.waiting import EMULATOR, SANITIZER

NOT_STARTED = ": the daemon does not start"
MEND = "mend it there or just before: a comma, a quote or a bracket, mostly"
A_PORT = "write a number from 1 to 65535, without quotes"
A_TEXT = "write a text in quotes"


def config_of(root, text):
    """What is found in a configuration with this text, beside what the built-in settings bring."""
    path = root.directory / "of-its-own.json"
    path.write_text(text)
    result = run_tavloctl("check", "-c", path, "--json")
    found = [(each["where"].replace(str(path), "FILE"), each["what"], each["cure"])
             for each in json.loads(result.stdout)["findings"]]
    return result.returncode, [each for each in found if each[0].startswith("FILE")]


# --- how it ends ---

def test_a_set_up_that_works_has_no_finding(root, lan):
    assert check(root, prefix=lan.prefix) == ([], [])
    result = run_tavloctl("check", "-c", root.config, prefix=lan.prefix)
    assert (result.returncode, result.stdout, result.stderr) == (0, "0 findings\n", "")


@pytest.mark.skipif(SANITIZER != "" or EMULATOR != "", reason="they are slower")
def test_it_takes_less_than_a_second_of_the_processor(root):
    assert check(root, prefix=["prlimit", "--cpu=1:1"]) == ([], [])


def test_it_waits_for_no_lock(root):
    """The daemon would, for four seconds, and then fail."""
    with open(root.router_info, "rb") as information, open(root.device_list, "rb") as devices:
        fcntl.flock(information, fcntl.LOCK_EX)
        fcntl.flock(devices, fcntl.LOCK_EX)
        assert check(root) == ([], [])


def test_people_get_a_place_a_reason_and_a_cure(root):
    root.settings |= {"agentHttpport": 8080}
    root.write_config()
    result = run_tavloctl("check", "-c", root.config)
    line = 1 + next(number for number, text in enumerate(root.config.read_text().splitlines())
                    if "agentHttpport" in text)
    assert (result.returncode, result.stderr) == (1, "")
    where, what, cure = LOOPBACK_IS_NO_LAN
    assert result.stdout == (
        f'{root.config}:{line}:3: "agentHttpport" is not known, and ignored\n'
        '    cure: did you mean "agentHttpPort"?\n'
        f"{where}: {what}\n    cure: {cure}\n"
        "2 findings\n")


def test_it_starts_nothing_and_leaves_all_as_it_was(root):
    def state():
        return {path: (path.stat().st_mtime_ns, path.stat().st_ino)
                for path in root.directory.rglob("*")}

    root.write_config()
    before = state()
    assert run_tavloctl("check", "-c", root.config, "-f", root.directory / "log").returncode == 1
    assert state() == before


@pytest.mark.parametrize("arguments", [["--unheard-of"], ["-c"], ["extra"], ["--connect=1"]])
def test_a_wrong_command_line_is_none_of_the_findings(arguments):
    result = run_tavloctl("check", *arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith("tavloctl check: ")


def test_a_configuration_that_is_not_there_cannot_be_looked_at(tmp_path):
    path = tmp_path / "none"
    result = run_tavloctl("check", "-c", path)
    assert (result.returncode, result.stderr) == (2, "")
    assert result.stdout == (f"{path}: not looked at: Failed to read file {path}: "
                             "2 No such file or directory\n0 findings\n")
    result = run_tavloctl("check", "-c", path, "--json")
    assert result.returncode == 2
    assert json.loads(result.stdout) == {"findings": [], "unseen": [
        {"where": str(path), "what": f"Failed to read file {path}: 2 No such file or directory"}]}


def test_without_a_configuration_the_built_in_settings_are_looked_at():
    found = json.loads(run_tavloctl("check", "--json").stdout)["findings"]
    assert "/tmp/qvd/data/agent/mirel.crt" in [each["where"] for each in found]


def test_control_characters_do_not_get_onto_a_terminal(root):
    root.settings["agentDirectory"] = f"{root.directory}/\x1b[2J"
    root.write_config()
    output = run_tavloctl("check", "-c", root.config).stdout
    assert f"{root.directory}/?[2J/mirel.crt: is missing" in output and "\x1b" not in output
    assert (f"{root.directory}/\x1b[2J/mirel.crt" in
            [where for where, _, _ in check(root)[0]])


# --- what it finds ---

@pytest.mark.parametrize("text, place, reason", [
    ('{\n  "agentHttpPort": 80,\n  "agentUser" "tavlo"\n}', "3:15",
     "no JSON: object property name separator ':' expected"),
    ('{\n  "agentHttpPort": 8x,\n}', "2:21", "no JSON: number expected"),
    ('{\n  "agentHttpPort": 80', "2:22", "no JSON: unexpected end of data"),
    ('{"a": nul}', "1:10", "no JSON: null expected"),
    ("", "1:1", "no JSON: unexpected end of data"),
    ("null", "1:5", "it holds nothing but null"),
], ids=["colon", "number", "end", "word", "nothing", "null"])
def test_what_is_no_json_is_shown_with_line_and_column(root, text, place, reason):
    assert config_of(root, text) == (1, [(f"FILE:{place}", reason + NOT_STARTED, MEND)])


@pytest.mark.parametrize("key, meant", [
    ("agentHttpport", "agentHttpPort"), ("AGENTUSER", "agentUser"),
    ("laninterface", "lanInterface"), ("internalHookDirectory", "internalHooksDirectory"),
    ("agentDataPaths", "agentDataPath")])
def test_a_key_that_is_misspelt_is_named_with_the_one_that_was_meant(root, key, meant):
    assert config_of(root, f'{{"{key}": 1}}') == (1, [
        ("FILE:1:2", f'"{key}" is not known, and ignored', f'did you mean "{meant}"?')])


def test_a_key_that_is_like_none_is_to_be_taken_out(root):
    assert config_of(root, '{"comment": "why"}') == (1, [
        ("FILE:1:2", '"comment" is not known, and ignored', "take it out")])


def test_an_editors_schema_is_no_finding(root):
    assert config_of(root, '{"$schema": "tavlo.schema.json"}') == (1, [])


@pytest.mark.parametrize("value, reason", [
    ('"8080"', "it is a text in quotes"), ('"60278"', "it is a text in quotes"),
    ("0", "0 is out of range"), ("65536", "65536 is out of range"), ("-1", "-1 is out of range"),
    ("4294967297", "4294967297 is out of range"), ("8080.0", "it is a number with a fraction"),
    ("true", "it is true or false"), ("null", "it is null"), ("[8080]", "it is a list"),
    ('{"port": 8080}', "it is an object")])
def test_a_port_that_is_ignored_is_shown_with_the_one_in_force(root, value, reason):
    assert config_of(root, f'{{\n"agentHttpPort": {value}}}') == (1, [
        ("FILE:2:1", f'"agentHttpPort" is ignored, as {reason}: 60278 is in force', A_PORT)])


@pytest.mark.parametrize("value, reason", [
    ("7", "it is a number"), ("7.5", "it is a number with a fraction"), ("null", "it is null"),
    ("false", "it is true or false"), ('["br1"]', "it is a list"), ("{}", "it is an object")])
def test_a_text_that_is_ignored_is_shown_with_the_one_in_force(root, value, reason):
    assert config_of(root, f'{{"lanInterface": {value}}}') == (1, [
        ("FILE:1:2", f'"lanInterface" is ignored, as {reason}: "br0" is in force', A_TEXT)])


def test_of_a_key_that_comes_twice_the_earlier_one_is_shown(root):
    assert config_of(root, '{"agentDstPort": 1,\n "agentDstPort": "x"}') == (1, [
        ("FILE:1:2", '"agentDstPort" is ignored, as it comes again below',
         "take one of them out"),
        ("FILE:2:2", '"agentDstPort" is ignored, as it is a text in quotes: 60277 is in force',
         A_PORT)])


@pytest.mark.parametrize("text, kind", [('[{"agentHttpPort": 80}]', "a list"), ("7", "a number"),
                                        ('"text"', "a text in quotes")])
def test_another_root_than_an_object_is_shown(root, text, kind):
    assert config_of(root, text) == (1, [
        ("FILE:1:1",
         f"every key is ignored, as the whole is {kind}: all settings have their defaults",
         "put the keys into an object: { ... }")])


@pytest.mark.parametrize("text", [
    '/* "agentDstPorts": 1 */ {"agentDstPort": 1}', "// agentDstPorts:\n{'agentDstPort': 1,}",
    '{"agentPrefix": "\\"agentDstPorts\\": 1", "agentDstPort": 1}',
    '{} \t\n// more\n /* and\nmore */ /**/\n', "{}// more", "{}/* more"])
def test_what_the_daemon_takes_is_no_finding(root, text):
    assert config_of(root, text) == (1, [])


@pytest.mark.parametrize("text, place", [
    ('{\n  "agentHttpPort": 8080\n},\n  "agentUser": "nobody"\n}\n', "3:2"),
    ('{"agentDstPort": 1} and more', "1:21"), ("{}}", "1:3"), ("{} {}", "1:4"),
    ("{} // more\n7", "2:1"), ("{}/* more */\n{}", "2:1")])
def test_what_comes_behind_the_end_is_shown(root, text, place):
    assert config_of(root, text) == (1, [
        (f"FILE:{place}", "all from here on is ignored, as the configuration has ended before",
         "take it out, or the bracket that closes too early")])


def test_what_comes_behind_the_end_does_not_count(root):
    found = config_of(root, '{"agentDstPort": 0} {"agentDstPort": 1, "agentDstPorts": 1}')
    assert [where for where, _, _ in found[1]] == ["FILE:1:21", "FILE:1:2"]


@pytest.mark.parametrize("keys", [["a"], [f"{i:x}" for i in range(95000)], ["a" * 1048000]],
                         ids=["repeated", "unknown", "long"])
def test_a_mebibyte_of_keys_is_looked_through(root, keys):
    members = [f'"{key}":1' for key in keys]
    text = "{" + ",".join(members * (1048576 // len(",".join(members) + ",") or 1)) + "}"
    status, found = config_of(root, text)
    assert status == 1 and len(found) == text.count(":")


def test_a_place_is_that_of_the_outermost_object(root):
    text = ('{"agentPrefix": "\\"", "comment": {\n"agentDstPort": 1},\n'
            '/* "agentDstPort": 2 */\n\'agentDstPort\': 0}')
    assert [where for where, _, _ in config_of(root, text)[1]] == ["FILE:1:23", "FILE:4:1"]


@as_root
def test_who_may_not_ask_for_the_user_is_told_so(root):
    root.settings["agentUser"] = "daemon"
    _, unseen = check_as_nobody(root)
    assert ("agentUser", "what user 'daemon' may do: run this as root or that user") in unseen
