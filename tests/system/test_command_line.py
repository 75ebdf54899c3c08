"""What the command line does: the options, the usage text, the printing of single values."""

import json
import signal
import subprocess
from pathlib import Path

import pytest

from support.daemon import PROGRAM, run_tavlo

USAGE = """\
Usage: tavlo [-d] [-s] [-f path] [-c path]
-d Enable debug logging (LOG_INFO by default)
-s Enable logging to syslog
-f <path> Log to file specified in <path>
-c <path> Load configuration from <path>
-p <key> | --print-config-value <key> Print value of configuration key <key>
"""

SCHEMA = Path(__file__).resolve().parents[2] / "tavlo.schema.json"
# What each default is, a unit test of the settings says for itself.
PROPERTIES = {key: value
              for key, value in json.loads(SCHEMA.read_text(encoding="utf-8"))["properties"].items()
              if "default" in value}
DEFAULTS = {key: str(value["default"]) for key, value in PROPERTIES.items()}

OTHER_VALUES = {key: value["minimum"] if "minimum" in value else f"of {key}"
                for key, value in PROPERTIES.items()} | {
    "agentHttpPort": 65535,
    "agentHttpsPort": 4443,
    "agentPrefix": "/rest v1",
    "routerInfoPath": "relative/router_info",
    "rootPrefix": "/x",
}


def write(path, text):
    path.write_text(text)
    return path


def test_h_prints_the_usage_and_fails():
    result = run_tavlo("-h")
    assert (result.returncode, result.stdout, result.stderr) == (1, USAGE, "")


@pytest.mark.parametrize("arguments", [["-h", "-x"], ["-h", "extra"], ["extra", "-h"], ["-dh"],
                                       ["-c", "/nowhere", "-p", "rootPrefix", "-h"]])
def test_h_ends_the_process_whatever_else_is_there(arguments):
    result = run_tavlo(*arguments)
    assert (result.returncode, result.stdout, result.stderr) == (1, USAGE, "")


@pytest.mark.parametrize("arguments", [["-x"], ["-c"], ["-f"], ["-p"], ["--unknown"],
                                       ["--print-config-value"], ["--help"], ["--debug"],
                                       ["-x", "-h"], ["-x", "-x"], ["-x", "extra"]])
def test_an_unknown_option_or_a_missing_argument_fails_without_the_usage(arguments):
    result = run_tavlo(*arguments)
    assert result.returncode == 1
    assert result.stdout == ""
    # The first word is the program's own path.
    assert len(result.stderr.splitlines()) == 1
    assert "option" in result.stderr


@pytest.mark.parametrize("arguments", [["extra"], ["-d", "extra"], ["-p", "rootPrefix", "extra"],
                                       ["--", "-d"]])
def test_a_positional_argument_fails(arguments):
    result = run_tavlo(*arguments)
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == "Too many arguments, no positional parameters expected\n"


@pytest.mark.parametrize("key, value", DEFAULTS.items())
def test_p_prints_the_default_of_each_key(key, value):
    result = run_tavlo("-p", key)
    assert (result.returncode, result.stdout, result.stderr) == (0, value + "\n", "")


@pytest.mark.parametrize("key, value", OTHER_VALUES.items())
def test_p_prints_the_value_of_each_key_from_the_file(tmp_path, key, value):
    config = write(tmp_path / "config", json.dumps(OTHER_VALUES))
    result = run_tavlo("-c", config, "-p", key)
    assert (result.returncode, result.stdout, result.stderr) == (0, f"{value}\n", "")


@pytest.mark.parametrize("arguments", [["--print-config-value", "rootPrefix"],
                                       ["--print-config-value=rootPrefix"]])
def test_the_long_option_prints_a_value(arguments):
    result = run_tavlo(*arguments)
    assert (result.returncode, result.stdout, result.stderr) == (0, "/tmp/qvd\n", "")


def test_p_whose_value_cannot_be_written_fails():
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([*PROGRAM, "-p", "rootPrefix"], stdout=full, check=False)
    assert result.returncode == 1


@pytest.mark.parametrize("key", ["AgentDstPort", "agentdstport", "unheard", "", "agentDstPort "])
def test_p_of_an_unknown_key_fails(key):
    result = run_tavlo("-p", key)
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr == f"Unknown config key: {key}\n"


def test_the_last_of_two_c_options_counts(tmp_path):
    first = write(tmp_path / "first", '{"rootPrefix": "/first"}')
    second = write(tmp_path / "second", '{"rootPrefix": "/second"}')
    assert run_tavlo("-c", first, "-c", second, "-p", "rootPrefix").stdout == "/second\n"
    # The first one is not even looked at.
    assert run_tavlo("-c", "/nowhere", "-c", second, "-p", "rootPrefix").stdout == "/second\n"


def test_the_last_of_two_p_options_counts():
    assert run_tavlo("-p", "agentDstPort", "-p", "rootPrefix").stdout == "/tmp/qvd\n"


def test_the_last_of_two_f_options_counts(make_daemon):
    daemon = make_daemon()
    first = daemon.root.directory / "first"
    daemon.options += ["-f", str(first)]
    daemon.start().stop()
    assert not first.exists()


def test_an_empty_configuration_path_means_the_defaults():
    result = run_tavlo("-c", "", "-p", "lanInterface")
    assert (result.returncode, result.stdout, result.stderr) == (0, "br0\n", "")


def test_print_mode_logs_nothing_but_errors_and_no_file(tmp_path):
    config = write(tmp_path / "config", "{}")
    log = tmp_path / "log"
    result = run_tavlo("-d", "-s", "-f", log, "-c", config, "-p", "lanInterface")
    assert (result.returncode, result.stdout, result.stderr) == (0, "br0\n", "")
    assert not log.exists()


@pytest.mark.parametrize("others", [[], ["-d", "-s", "-f", "/nowhere/log"]])
def test_print_mode_fails_on_an_unreadable_file(tmp_path, others):
    result = run_tavlo(*others, "-c", tmp_path / "missing", "-p", "lanInterface")
    assert result.returncode == 1
    assert result.stdout == ""
    first, second = result.stderr.splitlines()
    assert first.endswith(
        "ERROR: virtual bool tavlo::AppSettings::LoadConfigFile: "
        f"Failed to read file {tmp_path}/missing: 2 No such file or directory")
    assert second.endswith(f"Failed to read config file from: {tmp_path}/missing")
    assert " ERROR: " in second


@pytest.mark.parametrize("text", ["", "{", "nonsense", '{"rootPrefix": '])
def test_print_mode_fails_on_an_unparsable_file(tmp_path, text):
    config = write(tmp_path / "config", text)
    result = run_tavlo("-c", config, "-p", "lanInterface")
    assert result.returncode == 1
    assert result.stdout == ""
    first, second = result.stderr.splitlines()
    assert first.endswith("ERROR: virtual bool tavlo::AppSettings::LoadConfigFile: "
                          f"Failed to parse config file {config}")
    assert second.endswith(f"Failed to read config file from: {config}")


@pytest.mark.parametrize("text", ["[]", "17", '{"unheard": 1}', '{"agentDstPort": "80"}',
                                  '{"agentDstPort": 0}', '{"agentDstPort": 65536}',
                                  '{"agentDstPort": null}', '{"agentDstPort": 80.0}'])
def test_what_does_not_fit_is_passed_over_silently(tmp_path, text):
    config = write(tmp_path / "config", text)
    result = run_tavlo("-c", config, "-p", "agentDstPort")
    assert (result.returncode, result.stdout, result.stderr) == (0, "60277\n", "")


@pytest.mark.parametrize("text", [None, "", "{"])
def test_a_daemon_with_an_unusable_configuration_does_not_start(tmp_path, text):
    config = tmp_path / "config"
    if text is not None:
        config.write_text(text)
    result = run_tavlo("-c", config)
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr.splitlines()[-1].endswith(
        f"ERROR: bool Init: Failed to read config file from: {config}")


def test_without_d_the_log_holds_no_debug_lines(make_daemon):
    daemon = make_daemon(options=[]).start()
    daemon.stop()
    assert {level for level, _ in daemon.messages()} <= {"INFO", "ERROR"}
    assert "DEBUG: " not in daemon.log_text()
    assert "INFO: void Run: tavlo started" in daemon.log_text()


def test_with_d_the_log_holds_debug_lines(daemon):
    daemon.wait_for_log("DEBUG: bool Init: Enter$")
    daemon.wait_for_log("DEBUG: bool Init: Leave$")
    daemon.wait_for_log("DEBUG: void Run: Enter$")
    daemon.wait_for_log("DEBUG: virtual bool tavlo::AppSettings::LoadConfigFile: "
                        f"agentHttpPort={daemon.root.http_port}$")


def test_console_and_file_get_the_same_lines(daemon):
    daemon.stop()
    assert daemon.console.read_bytes() == daemon.log.read_bytes()


@pytest.mark.parametrize("options", [["-s", "-d"], ["-d", "-s"], ["-ds"]])
def test_s_shows_each_line_a_second_time_under_the_name_of_the_daemon(make_daemon, options):
    daemon = make_daemon(options=options).start()
    daemon.stop()
    console = daemon.log_text(path=daemon.console).splitlines()
    # The system log's copy on standard error begins with its identity.
    copies = [line.split(": ", 1)[1] for line in console
              if line.startswith(f"tavlo[{daemon.pid}]: ")]
    own = [line for line in console if not line.startswith("tavlo[")]
    assert any("tavlo started" in line for line in copies)
    assert any("DEBUG: " in line for line in copies)
    assert copies == own == daemon.log_text().splitlines()


def test_s_without_d_hands_no_debug_line_to_the_system_log(make_daemon):
    daemon = make_daemon(options=["-s"]).start()
    daemon.stop()
    console = daemon.log_text(path=daemon.console)
    assert f"tavlo[{daemon.pid}]: " in console
    assert "DEBUG: " not in console


def test_a_log_file_that_cannot_be_opened_does_not_stop_the_daemon(make_daemon):
    daemon = make_daemon()
    daemon.log = daemon.root.directory / "missing" / "log"
    daemon.launch()
    daemon.wait_for_log("INFO: void Run: tavlo started$", path=daemon.console)
    daemon.stop()
    assert not daemon.log.exists()


def test_the_log_file_is_appended_to(make_daemon):
    daemon = make_daemon()
    daemon.log.write_text("earlier\n")
    daemon.start().send_signal(signal.SIGTERM)
    assert daemon.wait_for_exit() == 0
    assert daemon.log_text().startswith("earlier\n2")
