"""How the programs behave that run the tests."""

import fcntl
import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
LIMIT_SECS = 30
UNIT_TESTS = """
TEST(Tides, ComeAndGo) {}
TEST_P(TidesOf, AreHigh) {}
INSTANTIATE_TEST_SUITE_P(All, TidesOf, testing::Values(1));
"""
REPORT = """<testsuite><testcase name="unit/a" time="1" status="run"><system-out/></testcase>
</testsuite>"""


@pytest.fixture
def tree(tmp_path):
    """A tree with tests, whose build and CTest only say what they were asked."""
    (tmp_path / "programs").mkdir()
    (tmp_path / "tools").mkdir()
    for name in ("check", "test", "running.py"):
        shutil.copy(PROJECT / "tools" / name, tmp_path / "tools")
    for name, text in {"unit/sea/tides_test.cc": UNIT_TESTS,
                       "system/test_wind.py": "def test_it_blows():\n    pass\n",
                       "house/test_roof.py": "def test_it_is_tight():\n    pass\n"}.items():
        path = tmp_path / "tests" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    (tmp_path / "report").write_text(REPORT)
    program(tmp_path, "tools/build", 'echo "build $*" >>asked')
    program(tmp_path, "programs/ctest", """echo "ctest $* $PYTEST_ADDOPTS" >>asked
while [ "$1" != --output-junit ]; do shift; done
mkdir -p "${2%/*}" && cp report "$2\"""")
    return tmp_path


def program(tree, name, script):
    path = tree / name
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)


def start(tree, *command):
    """As a shell starts it in the background: with interruptions ignored."""
    return subprocess.Popen(
        [tree / command[0], *command[1:]], text=True, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN),
        # Without what this test itself may have been asked for.
        env={**os.environ, "PATH": f"{tree}/programs:{os.environ['PATH']}", "PYTEST_ADDOPTS": "",
             "PYTHONDONTWRITEBYTECODE": "1"})


def run_test(tree, *arguments):
    """Returns the status, what was asked, and the last line."""
    process = start(tree, "tools/test", *arguments)
    output, errors = process.communicate(timeout=LIMIT_SECS)
    asked = tree / "asked"
    return (process.returncode, asked.read_text().splitlines() if asked.exists() else [],
            (output + errors).splitlines()[-1])


@pytest.mark.parametrize("name, target, selection", [
    ("Come", "unit_sea", "-L unit -R Come "),
    ("All/TidesOf", "unit_sea", "-L unit -R All/TidesOf "),
    ("test_wind", "tavlo tavloctl", "-R ^system/test_wind$ "),
    ("blows", "tavlo tavloctl", "-R ^system/test_wind$ -k 'test_it_blows'"),
    ("test_roof", "help", "-R ^house/test_roof$ "),
])
def test_what_matches_is_built_and_run(tree, name, target, selection):
    status, asked, last = run_test(tree, name)
    assert (status, last) == (0, "2 passed, 0 failed, 0 skipped")
    assert asked[0] == f"build release {target}"
    assert asked[1].startswith("ctest --test-dir build/release ") and asked[1].endswith(selection)


def test_another_build_may_be_asked_for_and_many_runs_beside_load(tree):
    _, asked, _ = run_test(tree, "Come", "--preset", "asan", "--repeat", "20", "--load", "1")
    assert asked[0] == "build asan unit_sea"
    assert asked[1].endswith("-R Come --repeat until-fail:20 ")


@pytest.mark.parametrize("name, text", [
    ("nowhere", "no test has a name that matches: nowhere"),
    ("", "test: error: argument names: make test ONLY=names says which")])
def test_a_name_that_matches_nothing_fails(tree, name, text):
    status, asked, last = run_test(tree, name)
    assert (status != 0, asked, last) == (True, [], text)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_an_interruption_leaves_nothing_running(tree, number):
    """Not even what has made a session of its own and heeds no such signal."""
    program(tree, "tools/build", """trap '' INT TERM
setsid sh -c 'trap "" INT TERM; echo $$ >deaf; while :; do sleep 1; done' &
wait""")
    process = start(tree, "tools/test", "Come")
    limit = time.monotonic() + LIMIT_SECS
    while not (tree / "deaf").exists() or not (tree / "deaf").read_text():
        assert time.monotonic() < limit
        time.sleep(0.02)
    process.send_signal(number)
    output, errors = process.communicate(timeout=LIMIT_SECS)
    assert (process.returncode, errors) == (1, "")
    assert output.splitlines()[-1] == "interrupted"
    assert not Path("/proc", (tree / "deaf").read_text().strip()).exists()


def test_what_has_not_begun_in_time_is_left_out_and_named(tree):
    plan = """from running import Step, run
steps = [Step(name, ["sleep", "0.5"], lane="one") for name in ("first", "second")]
print(run(steps, within=0.2))"""
    result = subprocess.run(["python3", "-B", "-c", plan], cwd=tree, check=True, text=True,
                            stdout=subprocess.PIPE, timeout=LIMIT_SECS,
                            env={**os.environ, "PYTHONPATH": str(tree / "tools")})
    assert result.stdout.splitlines()[-3:] == [
        "skipped: second: no time was left for it", "1 passed, 0 failed, 1 skipped", "True"]


@pytest.fixture
def repository(tmp_path):
    """With a result by hand that speaks of `src`."""
    (tmp_path / "tools").mkdir()
    shutil.copy(PROJECT / "tools" / "by-hand", tmp_path / "tools")
    for name, text in {"src/a": "1\n", "tests/by-hand.md": "| `make sail` | goes | `src` | never | |\n",
                       "other": "1\n"}.items():
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_text(text)
    git(tmp_path, "init", "-q")
    commit(tmp_path)
    return tmp_path


def git(tree, *arguments):
    return subprocess.run(["git", "-c", "user.name=a", "-c", "user.email=a@b", *arguments],
                          cwd=tree, check=True, capture_output=True, text=True).stdout.strip()


def commit(tree):
    git(tree, "add", "-A")
    git(tree, "commit", "-q", "-m", "a")


def by_hand(tree, *arguments):
    return subprocess.run([tree / "tools" / "by-hand", *arguments], check=True, text=True,
                          capture_output=True).stdout


def test_a_result_by_hand_is_noted_and_grows_old_with_its_sources(repository):
    assert by_hand(repository, "check") == "by hand: make sail has never been noted\n"
    by_hand(repository, "note", "sail")
    line = (repository / "tests" / "by-hand.md").read_text()
    noted = git(repository, "rev-parse", "--short", "HEAD")
    assert line.startswith("| `make sail` | goes | `src` | 20") and line.endswith(f" | {noted} |\n")
    (repository / "other").write_text("2\n")
    commit(repository)
    assert by_hand(repository, "check") == ""
    (repository / "src" / "a").write_text("2\n")
    commit(repository)
    old = by_hand(repository, "check")
    assert old.startswith("by hand: make sail was last run on 20")
    assert old.endswith(f"at {noted}; since then src have changed\n")


def test_a_result_of_sources_that_are_in_no_commit_is_old(repository):
    (repository / "src" / "a").write_text("2\n")
    by_hand(repository, "note", "sail")
    assert "with changes" in by_hand(repository, "check")


MUTATIONS = """Why: it would be less
Tests: unit/a
--- a/src/a/b.cc
+++ b/src/a/b.cc
@@ -3,3 +3,3 @@
 int One() {
-  return 1;
+  return 0;
 }

Why: it would be more
Tests: unit/a
Preset: tsan
--- a/src/a/b.cc
+++ b/src/a/b.cc
@@ -3,3 +3,3 @@
 int One() {
-  return 1;
+  return 2;
 }
"""


@pytest.fixture
def mutate(tmp_path):
    """Runs tools/mutate in a tree with two mutations of one file."""
    for name, text in {"tools/mutate": (PROJECT / "tools/mutate").read_text(),
                       "src/a/b.cc": "// One\n\nint One() {\n  return 1;\n}\n",
                       "tests/mutations/a/b.cc.patch": MUTATIONS}.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text(text)

    def run(*arguments):
        result = subprocess.run(["python3", "-B", tmp_path / "tools" / "mutate", *arguments],
                                check=False, capture_output=True, text=True,
                                env={**os.environ, "PATH": f"{tmp_path}/programs:{os.environ['PATH']}"})
        return result.returncode, result.stdout + result.stderr

    run.tree = tmp_path
    return run


def test_a_mutation_whose_code_has_changed_is_named(mutate):
    assert mutate("check") == (0, "")
    (mutate.tree / "src/a/b.cc").write_text("// One\n\n// moved\nint One() {\n  return 1;\n}\n")
    assert mutate("check") == (0, "")
    (mutate.tree / "src/a/b.cc").write_text("// One\n\nint One() {\n  return 3;\n}\n")
    status, output = mutate("check")
    assert status == 1
    assert "a/b.cc:1: error: " in output and "a/b.cc:2: error: " in output


def test_a_mutation_without_the_proper_head_is_refused(mutate):
    path = mutate.tree / "tests/mutations/a/b.cc.patch"
    path.write_text(MUTATIONS.replace("Preset", "Set"))
    status, output = mutate("check")
    assert (status, "number 2 has not the form" in output) == (1, True)


@pytest.mark.parametrize("name", ["b", "a/c.cc", "a/b.cc:3"])
def test_a_mutation_that_there_is_not_is_refused(mutate, name):
    assert mutate(name) == (1, f"no mutations of that name: {name}\n")


def test_two_do_not_break_the_same_copy(mutate):
    copy = mutate.tree / "build/mutate"
    copy.mkdir(parents=True)
    other = os.open(copy, os.O_RDONLY)
    fcntl.flock(other, fcntl.LOCK_EX)
    assert mutate("a/b.cc") == (1, f"{copy} is being worked on already\n")
    os.close(other)


@pytest.mark.parametrize("said, status, judged", [
    ("1 failed, 2 deselected in 0.10s", 0, "noticed by system/test_a"),
    ("3 deselected in 0.10s", 1, "pytest -k 'no_case' nothing of a file:"),
    ("no tests ran in 0.10s", 1, "pytest -k 'no_case' nothing of a file:")])
def test_cases_of_which_there_are_none_notice_nothing(mutate, said, status, judged):
    patch = mutate.tree / "tests/mutations/a/b.cc.patch"
    patch.write_text(MUTATIONS.replace("Tests: unit/a\n", "Tests: system/test_a\nCases: no_case\n"))
    (mutate.tree / "programs").mkdir()
    program(mutate.tree, "programs/git", "[ $1 = apply ] || printf 'src/a/b.cc\\0'")
    program(mutate.tree, "programs/cmake", ":")
    # Without a mutation all is well.
    program(mutate.tree, "programs/ctest", f"""[ -e {mutate.tree}/asked ] || exec touch {mutate.tree}/asked
echo '{said}'
printf 'The following tests FAILED:\\n\\t  1 - system/test_a (Failed)\\n'
exit 8""")
    found = mutate("a/b.cc:1")
    assert (found[0], judged in found[1]) == (status, True), found[1]
