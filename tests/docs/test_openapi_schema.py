"""Whether the documents of api/ are OpenAPI at all: a validator from npm has its schema, in the version of
tools/openapi."""

import os
import subprocess
from pathlib import Path

import pytest

from markdown import PROJECT
from support import npm

DOCUMENTS = sorted((PROJECT / "api").glob("*.yaml"))


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda each: each.name)
def test_a_document_is_valid(document):
    packages = npm.install(PROJECT / "tools" / "openapi", Path(os.environ["TAVLO_BUILD"]) / "openapi")
    result = subprocess.run([packages / ".bin" / "validate-api", document], capture_output=True,
                            text=True, timeout=60, check=False)
    assert result.returncode == 0, result.stdout + result.stderr
    assert '"valid": true' in result.stdout
