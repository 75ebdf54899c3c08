"""What tools/settings does for a new setting."""

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
FILES = ["docs/configuration.md", "docs/man/tavlo.json.5", "examples/completion/tavlo.bash",
         "examples/tavlo.json", "packaging/tavlo.json.in", "packaging/buildroot/package/tavlo/tavlo.json",
         "packaging/openwrt/tavlo/files/tavlo.json"]
CONFIGURATIONS = FILES[3:]
PORT = {"description": "The port of nothing.", "type": "integer", "minimum": 1, "maximum": 65535,
        "default": 60299}
TEXT = {"description": "What is said last.", "type": "string", "default": ""}
LIMIT_SECS = 30


@pytest.fixture
def tree(tmp_path):
    for name in [*FILES, "tools/settings", "tavlo.schema.json"]:
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(PROJECT / name, tmp_path / name)
    return tmp_path


def run(tree):
    return subprocess.run([tree / "tools/settings"], check=True, capture_output=True, text=True,
                          timeout=LIMIT_SECS).stdout.splitlines()


def contents(tree):
    return {name: (tree / name).read_text(encoding="utf-8") for name in FILES}


def add(tree, behind, key, value):
    path = tree / "tavlo.schema.json"
    schema = json.loads(path.read_text(encoding="utf-8"))
    properties = list(schema["properties"].items())
    place = [name for name, _ in properties].index(behind) + 1
    schema["properties"] = dict([*properties[:place], (key, value), *properties[place:]])
    path.write_text(json.dumps(schema), encoding="utf-8")


def test_without_a_new_one_nothing_changes(tree):
    assert run(tree) == []
    assert contents(tree) == contents(PROJECT)


@pytest.mark.parametrize("behind, key, value, row, entry", [
    ("agentDstPort", "sparePort", PORT,
     "| `sparePort` | integer | `60299` | 1 to 65535 | the port of nothing |",
     ".It Va sparePort Pq number from 1 to 65535, 60299\nThe port of nothing."),
    ("rootPrefix", "lastWord", TEXT, '| `lastWord` | string | `""` | any | what is said last |',
     ".It Va lastWord Pq string, empty\nWhat is said last."),
], ids=["second", "last"])
def test_a_new_one_comes_into_every_file_at_its_place(tree, behind, key, value, row, entry):
    add(tree, behind, key, value)
    assert run(tree) == [f"{name}: {key}" for name in FILES]
    texts = contents(tree)
    assert re.search(rf"^\| `{behind}` .*\n{re.escape(row)}$", texts[FILES[0]], re.M)
    entries = re.split(r"\n(?=\.It |\.El)", texts[FILES[1]])
    assert entries[entries.index(entry) - 1].startswith(f".It Va {behind} ")
    assert re.search(rf"\b{behind}\s+{key}\b", texts[FILES[2]])
    for name in CONFIGURATIONS:
        settings = json.loads(texts[name])
        keys = list(settings)
        assert keys.index(key) == keys.index(behind) + 1
        assert settings.pop(key) == value["default"]
        assert settings == json.loads((PROJECT / name).read_text(encoding="utf-8"))
    # And only once.
    assert run(tree) == []
    assert contents(tree) == texts
