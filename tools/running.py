"""Runs the steps of a check: what can go on at the same time does, and nothing outlives it."""

import collections
import ctypes
import os
import re
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree
from dataclasses import dataclass, field
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
# The tests wait more than they compute.
TEST_JOBS = str(4 * (os.cpu_count() or 1))
# How the unit tests say in their output why one is skipped, and pytest why so many are.
SKIPPED = [re.compile(r": Skipped\n(?P<reason>.+)"),
           re.compile(r"^SKIPPED \[(?P<count>\d+)\] \S+ (?P<reason>.+)", re.M)]
CTEST_PROGRESS = re.compile(r"^ *(\d+/\d+) Test ", re.M)
POLL_SECS = 0.1
SILENCE_SECS = 60  # on no terminal, after which a line says how far it is
SHOWN_LINES = 200
SLOWEST = 10
END_LIMIT_SECS = 5
PR_SET_CHILD_SUBREAPER = 36


@dataclass
class Step:
    """A program to run: after those steps that it needs have passed, and while no other step of its
    lane is running. With `report` it is CTest, whose tests are counted in place of the step."""

    name: str
    command: list
    needs: tuple = ()
    lane: str = ""
    report: Path = None
    environment: dict = field(default_factory=dict)

    process: subprocess.Popen = None
    begin: float = 0
    seconds: float = 0
    passed: bool = None

    @property
    def log(self):
        return PROJECT / "build" / "check" / f"{self.name.replace(' ', '-')}.log"

    def start(self):
        self.log.parent.mkdir(parents=True, exist_ok=True)
        if self.report:
            self.report.unlink(missing_ok=True)
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                self.command, cwd=PROJECT, stdin=subprocess.DEVNULL, stdout=log,
                stderr=subprocess.STDOUT, start_new_session=True,
                env={**os.environ, **self.environment})
        self.begin = time.monotonic()

    def output(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def progress(self):
        done = CTEST_PROGRESS.findall(self.output())[-1:] if self.report else []
        return " ".join([self.name, *done, f"{time.monotonic() - self.begin:.0f} s"])


def tests(preset, name, *selection, needs=(), lane="", environment=None):
    """The tests of a build that CTest selects by these options."""
    report = PROJECT / "build" / preset / f"{name.replace(' ', '-')}.xml"
    return Step(f"{preset} {name}",
                ["ctest", "--test-dir", f"build/{preset}", "--no-tests=error",
                 "--test-output-size-passed", "100000", "-j", TEST_JOBS,
                 "--output-junit", str(report), *selection],
                needs, lane, report, environment or {})


class Tally:
    def __init__(self):
        self.passed = self.skipped = 0
        self.failures = []
        self.reasons = set()
        self.skipped_for = collections.Counter()
        self.seconds = collections.Counter()

    def add(self, step):
        if step.report and step.report.exists():
            failed_before = len(self.failures)
            self.add_junit(step)
            # A test whose program is missing stands in the report as a skipped one.
            if step.passed or len(self.failures) > failed_before:
                return
        if step.passed:
            self.passed += 1
            return
        self.failures.append(step.name)
        print(f"-- {step.name}\n" + "\n".join(step.output().splitlines()[-SHOWN_LINES:]))

    def add_junit(self, step):
        """Counts the tests of CTest's report and prints what the failed ones said."""
        for case in xml.etree.ElementTree.parse(step.report).getroot().iter("testcase"):
            output = case.findtext("system-out", "")
            for found in (found for pattern in SKIPPED for found in pattern.finditer(output)):
                self.reasons.add((case.get("name"), found["reason"]))
                self.skipped_for[found["reason"]] += int(found.groupdict().get("count", 1))
            # Those within a file of system tests, which is one test to CTest.
            self.skipped += sum(map(int, re.findall(r"^SKIPPED \[(\d+)\]", output, re.M)))
            name = f"{step.name}: {case.get('name')}"
            self.seconds[name] += float(case.get("time", 0))
            if case.find("skipped") is not None:
                self.skipped += 1
            elif case.find("failure") is None:
                self.passed += 1
            else:
                self.failures.append(name)
                print(f"-- {name}\n{case.findtext('system-out')}")

    def show(self, steps, remarks):
        print("The slowest:")
        self.seconds.update({step.name: step.seconds for step in steps if not step.report})
        for name, seconds in self.seconds.most_common(SLOWEST):
            print(f"{seconds:6.0f} s  {name}")
        for remark in remarks:
            print(remark)
        for name, reason in sorted(self.reasons):
            print(f"skipped: {name}: {reason}")
        for failure in self.failures:
            print(f"failed: {failure}")
        print(f"{self.passed} passed, {len(self.failures)} failed, {self.skipped} skipped")


class Display:
    """On a terminal one line that is always up to date; elsewhere a line when something begins or
    ends, or when there was none for long."""

    def __init__(self):
        self.terminal = sys.stdout.isatty()
        self.last = time.monotonic()

    def say(self, text):
        print("\r\033[K" * self.terminal + text, flush=True)
        self.last = time.monotonic()

    def progress(self, running, left):
        text = "; ".join(step.progress() for step in running)
        text += f"; left: {', '.join(step.name for step in left) or 'nothing'}"
        if self.terminal:
            width = os.get_terminal_size().columns - 1
            print(f"\r\033[K{text[:width]}", end="", flush=True)
        elif time.monotonic() > self.last + SILENCE_SECS:
            self.say(text)


def run(steps, remarks=(), within=None):
    """Runs them and prints what became of them, and the remarks; returns whether all was well. What
    has not begun after `within` seconds is left out, and told."""
    # Whatever a test leaves behind becomes a child of ours, so that it can be found at the end.
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
    # Also where it was started in the background, with the first one ignored.
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.default_int_handler)
    tally, display = Tally(), Display()
    try:
        run_steps(steps, tally, display, within)
    except KeyboardInterrupt:
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        display.say("interrupted")
        return False
    finally:
        end_descendants()
    tally.show(steps, remarks)
    return not tally.failures and tally.passed > 0


def leave_out(steps, state, tally, reason):
    for step in steps:
        state[step.name] = False
        tally.skipped += 1
        tally.reasons.add((step.name, reason))


def run_steps(steps, tally, display, within):
    left, running = list(steps), []
    state = {}
    limit = time.monotonic() + (within or float("inf"))
    while left or running:
        if time.monotonic() > limit:
            leave_out(left, state, tally, "no time was left for it")
            left = []
        for step in list(left):
            if not may_start(step, running, state):
                continue
            left.remove(step)
            if all(state[name] for name in step.needs):
                display.say(f"== {step.name} ({time.strftime('%H:%M:%S')})")
                step.start()
                running.append(step)
            else:
                leave_out([step], state, tally, "what it needs has failed")
        reap_orphans({step.process.pid for step in running})
        for step in [step for step in running if step.process.poll() is not None]:
            running.remove(step)
            step.seconds = time.monotonic() - step.begin
            state[step.name] = step.passed = step.process.returncode == 0
            display.say(f"== {step.name}: {'passed' if step.passed else 'FAILED'} after "
                        f"{step.seconds:.0f} s")
            tally.add(step)
        if running:
            display.progress(running, left)
            time.sleep(POLL_SECS)


def reap_orphans(own):
    """As the first process of a system does: some tests wait until a process is gone for good."""
    while True:
        try:
            ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        except ChildProcessError:
            return
        if ended is None or ended.si_pid in own:
            return
        os.waitpid(ended.si_pid, 0)


def may_start(step, running, state):
    return (all(name in state for name in step.needs)
            and not (step.lane and any(other.lane == step.lane for other in running)))


def descendants(pid):
    """All that live below a process, whatever session they made for themselves."""
    found = []
    for children in Path(f"/proc/{pid}/task").glob("*/children"):
        try:
            for child in children.read_text(encoding="ascii").split():
                found += [int(child), *descendants(child)]
        except OSError:
            pass  # it has just ended
    return [each for each in found if is_alive(each)]


def is_alive(pid):
    try:
        stat = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
    except OSError:
        return False
    return stat.rpartition(")")[2].split()[0] != "Z"


def end_descendants():
    """First as by Ctrl-C, so that tests clean up; those that do not heed it are killed."""
    limit = time.monotonic() + END_LIMIT_SECS
    number = signal.SIGINT
    while remaining := descendants(os.getpid()):
        for pid in remaining:
            try:
                os.kill(pid, number)
            except ProcessLookupError:
                pass
        if number == signal.SIGINT:
            while time.monotonic() < limit and descendants(os.getpid()):
                time.sleep(POLL_SECS)
            number = signal.SIGKILL
    try:
        while True:
            os.wait()
    except ChildProcessError:
        pass  # none is left
