"""What `tavloctl log` makes of logs, those of a running daemon among them."""

import gzip
import json
import re
import subprocess
import time
import xml.etree.ElementTree as ElementTree
from datetime import datetime, timedelta, timezone

import pytest

from sdk_rest_host import describe
from support.clients import ask, connect, read_to_end
from support.daemon import DIE_WITH_PARENT
from support.scratch_root import PAIRING_KEY
from support.tavloctl import PROGRAM, run_tavloctl
from support.waiting import DEFAULT_LIMIT, EMULATOR, SANITIZER

KEY = [("PairingKey", PAIRING_KEY)]
DISPATCH = "void tavlo::AgentHost::DispatchRequest"
NOT_ALLOWED = "Endpoint is not allowed with insecure connection"


def line(text, at="2026-11-21 15:46:20.000", thread="4d2.1", level="INFO", function=DISPATCH):
    return f"{at} [{thread}] {level}: {function}: {text}\n"


def requests(count, start="2026-11-21 15:46:20.000", seconds=1, uri="/api/version"):
    first = datetime.fromisoformat(start)
    moments = [first + timedelta(seconds=seconds * number) for number in range(count)]
    return "".join(line(f"GET {uri}", at=moment.strftime("%F %T.%f")[:-3]) for moment in moments)


@pytest.fixture
def log(tmp_path):
    def write(text, name="log"):
        path = tmp_path / name
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    return write


def in_text(*arguments, **options):
    result = run_tavloctl("log", *arguments, **options)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout


def in_json(*arguments, **options):
    return json.loads(in_text("--json", *arguments, **options))


def counts(rows, *keys):
    return {tuple(row[key] for key in keys): row["count"] for row in rows}


# --- the log of a daemon ---


def test_requests_are_told_by_listener_and_endpoint(root, daemon, sdk_host):
    for _ in range(3):
        assert ask(root.http_port, "GET", "/api/version").status == 200
    assert ask(root.http_port, "GET", "/api/1/profiles").status == 417
    for number in range(2):
        assert ask(root.https_port, "POST", f"/api/1/x?y={number}", b"body", KEY, True).status == 200
    assert ask(root.https_port, "GET", "/api/mac", tls=True).status == 200
    daemon.stop()
    report = in_json(daemon.log)
    assert counts(report["endpoints"], "listener", "endpoint") == {
        ("plain", "GET /api/version"): 3, ("plain", "GET /api/1/profiles"): 1,
        ("TLS", "POST /api/1/x"): 2, ("TLS", "GET /api/mac"): 1}
    assert counts(report["listeners"], "listener") == {("plain",): 4, ("TLS",): 3}
    assert (report["requests"], report["starts"], report["otherLines"]) == (7, 1, 0)


def test_refusals_are_told_by_reason(root, daemon):
    expected = {
        (417, NOT_ALLOWED): 2, (404, "Invalid endpoint is called"): 1,
        (417, "Pairing key not as expected"): 3, (500, "Destination request failed"): 1,
        (400, "Invalid character in the URI"): 1, (400, "Two Content-Length"): 1,
        (501, "A request that was not taken up"): 1}
    assert ask(root.http_port, "GET", "/api/1/x").status == 417
    assert ask(root.http_port, "POST", "/api/version").status == 417
    assert ask(root.http_port, "GET", "/elsewhere").status == 404
    for key in ("guessed", "guessed", "another"):
        assert ask(root.https_port, "GET", "/api/1/x", headers=[("PairingKey", key)],
                   tls=True).status == 417
    assert ask(root.http_port, "GET", "/api/version").status == 500
    for request, tls in ((b"GET /api/a\tb HTTP/1.1\r\nPairingKey: %b\r\n" % PAIRING_KEY.encode(), True),
                         (b"GET /api/x HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n", False),
                         (b"BREW /api/x HTTP/1.1\r\n", False)):
        with connect(root.https_port if tls else root.http_port, tls=tls) as client:
            client.sendall(request + b"Connection: close\r\n\r\n")
            read_to_end(client)
    daemon.stop()
    report = in_json(daemon.log)
    assert counts(report["refusals"], "status", "reason") == expected
    assert (report["wrongKeys"]["count"], report["wrongKeys"]["different"]) == (3, 2)
    assert "guessed" not in in_text(daemon.log) + in_text("--json", daemon.log)


def test_an_error_of_the_daemon_has_cause_and_cure(root, daemon):
    assert ask(root.http_port, "GET", "/api/version").status == 500
    daemon.stop()
    error = next(each for each in in_json(daemon.log)["errors"]
                 if each["message"] == "Destination request failed")
    assert error["cause"].startswith("nobody takes the connection to the SDK REST host")
    assert error["cure"] == "start it, or fix `agentDstAddr` and `agentDstPort`"
    text = in_text(daemon.log)
    assert f"cause: {error['cause']}\n" in text and f"cure:  {error['cure']}\n" in text


def test_scripts_that_fail_are_told(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    script = root.write_hook(root.internal_hooks, "10-fails", "#!/bin/sh\nexit 3\n")
    daemon = make_daemon().start()
    for _ in range(2):
        assert ask(root.http_port, "GET", "/api/version").status == 500
    daemon.stop()
    row, = in_json(daemon.log)["scripts"]
    assert row["path"] == str(script)
    assert (row["failures"]["count"], row["failures"]["lastFailure"]) == (2, "status 3")
    assert f"{script} (the last time: status 3, " in in_text(daemon.log)


def test_the_times_of_answers_are_told(root, daemon, sdk_host):
    def after_a_while(request):
        time.sleep(0.3)
        return describe(request)

    sdk_host.respond = after_a_while
    assert ask(root.http_port, "GET", "/api/version").status == 200
    assert ask(root.http_port, "GET", "/api/mac").status == 200
    daemon.stop()
    report = in_json(daemon.log)
    times = {row["endpoint"]: row["msToAnswer"] for row in report["endpoints"]}
    assert times["GET /api/version"]["measured"] == times["GET /api/mac"]["measured"] == 1
    assert times["GET /api/version"]["slowest"] >= 300
    assert counts(report["answers"], "listener", "status") == {("plain", 200): 2}
    assert "Requests (milliseconds until the answer)" in in_text(daemon.log)


def test_a_script_that_ended_a_request_is_told(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    script = root.write_hook(root.external_hooks, "10-ends", "#!/bin/sh\nexit 1\n")
    daemon = make_daemon().start()
    assert ask(root.http_port, "GET", "/api/version").status == 200
    daemon.stop()
    report = in_json(daemon.log)
    assert counts(report["refusals"], "status", "reason") == {(200, "Call terminated by hook"): 1}
    row, = report["scripts"]
    assert (row["path"], row["ms"]["measured"], row["failures"]["count"]) == (str(script), 1, 0)


def test_a_script_that_cannot_be_executed_is_told(root, make_daemon):
    root.settings["agentDataPath"] = str(root.agent_data)
    script = root.write_hook(root.external_hooks, "10-text", "")
    script.chmod(0o644)
    daemon = make_daemon().start()
    assert ask(root.http_port, "GET", "/api/version").status == 200
    daemon.stop()
    row, = in_json(daemon.log)["scripts"]
    assert (row["path"], row["failures"]["lastFailure"]) == (str(script), "13 Permission denied")


def test_a_log_without_answers_has_the_times_to_the_next_line(log):
    path = log(line("x", level="DEBUG") + requests(1)
               + line("Calling agent hook", "2026-11-21 15:46:20.045", level="DEBUG"))
    row, = in_json(path)["endpoints"]
    assert row["msToNextLine"] == {"measured": 1, "half": 45, "most": 45, "slowest": 45}
    assert "Requests (milliseconds until the next line of the thread)" in in_text(path)


def test_without_debug_lines_the_text_says_what_is_missing(root, make_daemon):
    daemon = make_daemon(options=()).start()
    assert ask(root.http_port, "GET", "/api/1/x").status == 417
    daemon.stop()
    report = in_json(daemon.log)
    assert report["refusals"] == []
    row, = report["endpoints"]
    assert re.fullmatch(r"[0-9a-f]+\.[0-9a-f]+", row["listener"])
    assert "msToAnswer" not in row and "msToNextLine" not in row
    assert "Without -d the log has no times" in in_text(daemon.log)


# --- what it reads ---


def test_files_may_be_compressed_and_several(log):
    plain = log(requests(3))
    compressed = log(gzip.compress(requests(4).encode()), "log.1.gz")
    assert in_json(plain)["requests"] == 3
    assert in_json(compressed)["requests"] == 4
    assert in_json(compressed, plain)["requests"] == 7


@pytest.mark.parametrize("arguments", [["-"], []])
@pytest.mark.parametrize("pack", [bytes, gzip.compress], ids=["plain", "gzip"])
def test_standard_input_is_read(arguments, pack):
    result = subprocess.run([*DIE_WITH_PARENT, *PROGRAM, "log", "--json", *arguments], check=True,
                            input=pack(requests(5).encode()), capture_output=True,
                            timeout=DEFAULT_LIMIT)
    assert json.loads(result.stdout)["requests"] == 5


def test_standard_input_may_come_between_files(log):
    with open(log(requests(2), "second"), "rb") as second:
        assert in_json(log(requests(1)), "-", stdin=second)["requests"] == 3


def test_lines_of_a_system_log_are_read(log):
    text = "".join("Nov 21 15:46:20 router tavlo[1234]: " + each
                   for each in requests(3).splitlines(True))
    assert in_json(log(text))["requests"] == 3


def test_lines_that_are_not_the_daemons_are_counted_apart(log):
    report = in_json(log("Nov 21 15:46:20 router kernel: eth0 is up\n\n" + requests(1) + "the end"))
    assert (report["lines"], report["otherLines"]) == (1, 3)


@pytest.mark.parametrize("name", ["missing", "."])
def test_a_file_that_cannot_be_read_is_told_and_the_others_are_read(log, tmp_path, name):
    result = run_tavloctl("log", "--json", tmp_path / name, log(requests(2)))
    assert result.returncode == 2
    assert result.stderr.startswith(f"tavloctl log: Failed to read {tmp_path / name}: ")
    assert json.loads(result.stdout)["requests"] == 2


def test_a_compressed_file_that_was_cut_counts_as_far_as_it_goes(log):
    whole = gzip.compress(b"".join(requests(1, uri=f"/api/{number * 7919}").encode()
                                   for number in range(20000)))
    result = run_tavloctl("log", "--json", log(whole[:len(whole) // 2], "log.gz"))
    assert result.returncode == 2
    assert "it ends in the middle" in result.stderr
    assert 1000 < json.loads(result.stdout)["requests"] < 20000


@pytest.mark.parametrize("since, left", [
    ("2026-11-21 15:46:50", 30), ("2026-11-21 15:47", 20), ("2026-11-22", 0), ("2026-11-21", 60),
    ("99999d", 60)])
def test_since_leaves_out_what_is_older(log, since, left):
    assert in_json("--since", since, log(requests(60)))["requests"] == left


def test_since_may_be_a_time_before_now(log):
    now = datetime.now(timezone.utc)
    path = log("".join(requests(1, (now - timedelta(minutes=minutes)).strftime("%F %T.000"))
                       for minutes in (130, 70, 10)))
    assert [in_json("--since", since, path)["requests"]
            for since in ("1h", "90m", "7200s", "1d")] == [1, 2, 2, 3]


@pytest.mark.parametrize("since", ["yesterday", "", "2026-13-01", "10"])
def test_another_since_is_refused(log, since):
    result = run_tavloctl("log", "--since", since, log(requests(1)))
    assert (result.returncode, result.stdout) == (2, "")
    assert "--since takes" in result.stderr


# --- what it prints ---


def test_the_text_has_a_table_for_each_question(log):
    path = log(line("x", level="DEBUG") + requests(120) + line(NOT_ALLOWED, level="DEBUG")
               + line("Destination request failed", level="ERROR")
               + line("Ended 12 clients to make room, the last of 192.0.2.7: too many connections",
                      function="void tavlo::ClientTable::Report"))
    text = in_text(path)
    assert re.search(r"^2026-11-21 15:46:20 to 2026-11-21 15:48:19 \(UTC\): 124 lines, 120 requests",
                     text)
    assert re.search(r"^ +120 +60\.5 +60 .* plain +GET /api/version$", text, re.M)
    assert re.search(rf"^ +1 +417 +{NOT_ALLOWED}$", text, re.M)
    assert re.search(r"^ +1 +Destination request failed$", text, re.M)
    assert re.search(r"^ +12 +too many connections; the last one 192\.0\.2\.7, 2026-", text, re.M)


def test_nothing_is_no_failure(log):
    assert "0 lines, 0 requests" in in_text(log(""))
    assert in_json(log(""))["errors"] == []


def test_only_the_most_frequent_endpoints_are_in_the_text(log):
    path = log("".join(requests(2 if number else 1, uri=f"/api/{number}") for number in range(30)))
    text = in_text(path)
    assert text.count("GET /api/") == 20
    assert "and 10 more (--json shows them)" in text
    assert "GET /api/0\n" not in text
    assert len(in_json(path)["endpoints"]) == 30


HOSTILE = (b"\x1b[2J\x1b[31m", b"\r", b"\x00", b"\xff\xfe", b"\x9b31m", "‮ü".encode(), b"</svg>",
           b'"', b"\\x41", b"<![CDATA[", b"%s%n", b"\x7f", b"\x08\x08")


@pytest.mark.parametrize("bytes_of_a_client", HOSTILE, ids=range(len(HOSTILE)))
def test_what_clients_wrote_is_shown_in_print(log, tmp_path, bytes_of_a_client):
    uri = b"GET /api/" + bytes_of_a_client
    path = log(b"".join([
        line("#").encode().replace(b"#", uri),
        line("Invalid endpoint is called: #", level="ERROR").encode().replace(b"#", bytes_of_a_client),
        line("# says nobody", level="ERROR").encode().replace(b"#", bytes_of_a_client),
        line("A request of # is refused: #", function="void tavlo::ClientTable::Refuse").encode()
            .replace(b"#", bytes_of_a_client),
        line("Failed to invoke agent hook: failed to call script '#' as 3", level="ERROR").encode()
            .replace(b"#", bytes_of_a_client)]))
    picture = tmp_path / "picture.svg"
    for options in ([], ["--json"]):
        text = in_text("--plot", picture, *options, path)
        assert text.isascii() and text.replace("\n", "").isprintable()
    report = in_json(path)
    assert report["endpoints"][0]["endpoint"].startswith("GET /api/")
    assert ElementTree.parse(picture).getroot().tag == "{http://www.w3.org/2000/svg}svg"


def test_a_byte_that_cannot_be_printed_is_shown_by_its_number(log):
    path = log(b"2026-11-21 15:46:20.000 [1.1] INFO: " + DISPATCH.encode() + b": GET /api/\x1b\\")
    assert in_json(path)["endpoints"][0]["endpoint"] == "GET /api/\\x1b\\\\"


def test_any_bytes_at_all_do_no_harm(log, tmp_path):
    path = log(bytes(range(256)) * 4096 + b"\n" + b"x" * 3000000 + b"\n" + requests(1).encode())
    report = in_json("--plot", tmp_path / "picture.svg", path)
    assert report["requests"] == 1


def in_json_with_little_memory(path):
    measured = run_tavloctl("log", "--json", path, prefix=[
        "/usr/bin/python3", "-c", "import resource, subprocess, sys; "
        "subprocess.run(sys.argv[1:], check=True); "
        "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, file=sys.stderr)"])
    if not SANITIZER and not EMULATOR:
        assert int(measured.stderr) < 20000  # KiB
    return json.loads(measured.stdout)


def test_a_line_without_end_takes_little_memory(tmp_path):
    path = tmp_path / "log.gz"
    with gzip.open(path, "wb", compresslevel=1) as file:
        for _ in range(100):
            file.write(b"x" * 1000000)
        file.write(b"\n" + requests(1).encode())
    report = in_json_with_little_memory(path)
    assert (report["requests"], report["otherLines"]) == (1, 1)


def test_a_log_of_very_many_endpoints_takes_little_memory(tmp_path):
    path = tmp_path / "log.gz"
    lines = 6000 if EMULATOR else 60000  # it takes a hundred times as long
    with gzip.open(path, "wb", compresslevel=1) as file:
        for number in range(lines):
            file.write(line(f"GET /api/{number:0150}", thread=f"{number:x}.1").encode())
    report = in_json_with_little_memory(path)
    assert report["requests"] == lines
    assert len(report["endpoints"]) < 1200
    assert sum(row["count"] for row in report["endpoints"] if row["endpoint"] == "other") > lines / 2


def test_the_busiest_minute_of_what_is_counted_together_is_not_told(log):
    path = log("".join(line(f"GET /api/{number}") for number in range(2000)))
    busiest = {row["endpoint"]: row.get("busiestMinute") for row in in_json(path)["endpoints"]}
    assert busiest.pop("other") is None
    assert set(busiest.values()) == {1}
    [other] = [text for text in in_text(path).splitlines() if text.endswith(" other")]
    assert other.split()[2] == "-"


# --- the picture ---


def bars(picture):
    namespace = {"svg": "http://www.w3.org/2000/svg"}
    return {path.get("fill"): path.get("d").count("z")
            for path in ElementTree.parse(picture).getroot().findall("svg:path", namespace)
            if path.get("fill") != "none"}


def test_the_plot_has_a_bar_for_each_minute_with_something(log, tmp_path):
    path = log(line("x", level="DEBUG") + requests(180) + line(NOT_ALLOWED, "2026-11-21 15:49:30.000",
                                                              level="DEBUG")
               + line("Destination request failed", "2026-11-21 15:50:00.000", level="ERROR"))
    picture = tmp_path / "picture.svg"
    in_text("--plot", picture, path)
    # Requests in four minutes; one slow request, two refusals, one error line.
    assert sorted(bars(picture).values()) == [1, 1, 2, 4]
    text = picture.read_text(encoding="ascii")
    assert "2026-11-21 15:46:20" in text and "2026-11-21 15:50:00 (UTC)" in text


def test_the_plot_of_nothing_is_a_picture_too(log, tmp_path):
    picture = tmp_path / "picture.svg"
    in_text("--plot", picture, log(""))
    assert bars(picture) == {}


def test_the_plot_of_years_is_small(log, tmp_path):
    picture = tmp_path / "picture.svg"
    in_text("--plot", picture, log(requests(5000, start="2021-01-01 00:00:00.000", seconds=36000)))
    assert picture.stat().st_size < 100000
    assert 300 < sum(bars(picture).values()) <= 720


def test_a_plot_that_cannot_be_written_fails(log, tmp_path):
    for picture in (tmp_path / "missing" / "picture.svg", "/dev/full"):
        result = run_tavloctl("log", "--plot", picture, log(requests(1)))
        assert result.returncode == 2
        assert result.stderr == f"tavloctl log: Failed to write {picture}\n"


def test_a_clock_that_was_not_set_does_not_stretch_the_time(log, tmp_path):
    report = in_json(log(requests(3, start="1970-01-01 00:00:10.000") + requests(60)))
    assert (report["requests"], report["linesOfAnUnsetClock"]) == (63, 3)
    assert report["first"] == "2026-11-21 15:46:20"
    assert report["timeline"]["minutesInAStep"] == 1
