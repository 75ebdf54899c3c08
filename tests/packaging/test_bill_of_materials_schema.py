"""Whether the bills of materials that are installed are CycloneDX: a library from npm has its schema, in
the version of tools/cyclonedx."""

import subprocess

import pytest
from conftest import BUILD, SOURCE
from support import npm

VALIDATE = """
const { Spec, Validation } = require('@cyclonedx/cyclonedx-library');
new Validation.JsonStrictValidator(Spec.Version.v1dot5)
  .validate(require('node:fs').readFileSync(0, 'utf8'))
  .then((error) => { if (error !== null) { console.error(error); process.exitCode = 1; } });
"""


@pytest.mark.parametrize("name", ["tavlo", "tavloctl"])
def test_the_schema_has_nothing_against_it(installation, name):
    installation.run(PREFIX="/usr")
    bill = installation.root / "usr/share/doc/tavlo" / f"{name}.cdx.json"
    packages = npm.install(SOURCE / "tools/cyclonedx", BUILD / "cyclonedx")
    result = subprocess.run(["node", "-e", VALIDATE], cwd=packages.parent, check=False, text=True,
                            input=bill.read_text(), capture_output=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
