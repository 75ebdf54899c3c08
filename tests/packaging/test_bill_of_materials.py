"""The bills of materials that are installed: what is in them, and that it is true."""

import hashlib
import json
import re
import subprocess
from pathlib import Path

import pytest
from conftest import BUILD, SOURCE

# The C library, the compiler's libraries and the loader: the system's, not in the bills.
SYSTEM = re.compile(r"(?:lib(?:c|m|gcc_s|stdc\+\+)|ld-linux.*)\.so\.\d+")
# The library's name there, and in pkg-config.
MODULES = {"libevent": "libevent_core", "OpenSSL": "openssl", "json-c": "json-c", "zlib": "zlib",
           "RapidJSON": "RapidJSON"}


class Installed:
    def __init__(self, root, name):
        self.name = name
        self.program = root / "usr/sbin" / name
        self.path = root / "usr/share/doc/tavlo" / f"{name}.cdx.json"
        self.bill = json.loads(self.path.read_text())
        self.components = {each["name"]: each for each in self.bill["components"]}

    def needed(self):
        section = subprocess.run(["readelf", "--dynamic", self.program], check=True, text=True,
                                 capture_output=True).stdout
        return set(re.findall(r"\(NEEDED\).*\[(.*)\]", section))


@pytest.fixture(name="installed", params=["tavlo", "tavloctl"])
def installed_program(request, installation):
    installation.run(PREFIX="/usr")
    return Installed(installation.root, request.param)


def sha256(path):
    return [{"alg": "SHA-256", "content": hashlib.sha256(path.read_bytes()).hexdigest()}]


def find(name):
    """A file by its name in a bill: a library where the linker looks, or a header of RapidJSON."""
    directory = Path(subprocess.run(["pkg-config", "--variable=libdir", "openssl"], check=True, text=True,
                                    capture_output=True).stdout.strip())
    return directory / name if ".so" in name else Path("/usr/include/rapidjson") / name


def test_it_is_of_the_program_beside_it(installed):
    version = re.search(r"project\(tavlo VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
    assert installed.bill["metadata"]["component"] == {
        "type": "application", "bom-ref": installed.name, "name": installed.name, "version": version,
        "hashes": sha256(installed.program)}


def test_it_has_what_the_program_is_linked_with_and_nothing_else(installed):
    files = {file["name"] for name, each in installed.components.items() if name != "RapidJSON"
             for file in each["components"]}
    needed = {name for name in installed.needed() if not SYSTEM.fullmatch(name)}
    assert needed
    assert files == {find(name).resolve().name for name in needed}


def test_it_has_the_headers_that_the_program_is_compiled_with(installed):
    debug = (BUILD / f"{installed.name}.debug").read_bytes()
    assert (b"rapidjson" in debug) == ("RapidJSON" in installed.components)
    if "RapidJSON" in installed.components:
        names = [each["name"] for each in installed.components["RapidJSON"]["components"]]
        assert "document.h" in names and len(names) > 20


def test_each_component_has_its_version_and_the_hashes_of_its_files(installed):
    for name, component in installed.components.items():
        version = subprocess.run(["pkg-config", "--modversion", MODULES[name]], check=True, text=True,
                                 capture_output=True).stdout.strip()
        assert component["version"] == version
        assert component["components"]
        for file in component["components"]:
            assert file["hashes"] == sha256(find(file["name"]))


def test_the_program_depends_on_each_component(installed):
    assert installed.bill["dependencies"] == [
        {"ref": installed.name, "dependsOn": list(installed.components)}]
