"""Once a minute the main thread looks whether the listener threads are alive."""

import os
from datetime import datetime, timedelta

from support.clients import ask, connect

A_LITTLE_MORE_THAN_A_MINUTE = 75
A_MINUTE = 60
LONGEST_SILENCE = 60


def test_listeners_without_work_stay_alive(root, daemon):
    mark = daemon.mark()
    # Three looks at the listeners, each a minute apart, beyond the longest silence allowed.
    looks = daemon.wait_for_log(r"^(\S+ \S+) .*Got signal 0, from pid 0$", since=mark, count=3,
                                limit=3 * A_LITTLE_MORE_THAN_A_MINUTE)
    times = [datetime.fromisoformat(look[1]) for look in looks]
    for earlier, later in zip(times, times[1:]):
        # Not earlier; how much later is the machine's affair.
        assert later - earlier >= timedelta(seconds=A_MINUTE - 0.5)
    assert ask(root.http_port, "GET", "/").status == 404
    assert ask(root.https_port, "GET", "/", tls=True).status == 404


def test_a_listener_that_has_fallen_silent_ends_the_daemon(root, make_daemon):
    # A certificate that blocks whoever opens it holds up the TLS listener's thread.
    root.certificate.unlink()
    os.mkfifo(root.certificate)
    daemon = make_daemon().start()
    client = connect(root.https_port)
    # The other listener works on.
    assert ask(root.http_port, "GET", "/").status == 404
    assert daemon.wait_for_exit(limit=180) == 0
    client.close()
    lines = daemon.log_text().splitlines()
    line = lines[-2]
    assert " ERROR: void Run: Exit as missing thread hearbeat with id=tavlo::httpsAgent " in line
    silence = int(line.rpartition("interval=")[2].removesuffix("s"))
    assert LONGEST_SILENCE <= silence <= 2 * LONGEST_SILENCE
    assert lines[-1].endswith("DEBUG: void Run: Leave")
