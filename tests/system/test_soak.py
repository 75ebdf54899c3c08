"""A short one of the long runs that 'make soak' makes."""

import subprocess
import sys
from pathlib import Path

import pytest

from support.waiting import SANITIZER

SOAK = Path(__file__).with_name("soak.py")
REQUESTS = 2000 if SANITIZER else 5000


@pytest.mark.parametrize("options", [[], ["--closing"]], ids=["kept", "closing"])
def test_each_request_is_answered_once_with_the_answer_that_belongs_to_it(options):
    result = subprocess.run([sys.executable, "-B", SOAK, *options, str(REQUESTS)],
                            capture_output=True, text=True, timeout=500, check=False)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.endswith("all answered, nothing left over\n")
