"""A daemon that is root, where somebody else may make files: what they put there leads nowhere."""

import os

import pytest

from support.clients import ask

SOMEBODY = 65534
SECRET = "root's own\n"

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="only root has something to lose")


@pytest.fixture
def victim(root):
    path = root.directory / "victim"
    path.write_text(SECRET)
    return path


def plant(path, victim, kind):
    """As somebody would who may write to the directory."""
    path.unlink(missing_ok=True)
    if kind == "link":
        path.symlink_to(victim)
        os.lchown(path, SOMEBODY, SOMEBODY)
    else:
        os.link(victim, path)


@pytest.mark.parametrize("kind", ["link", "second name"])
def test_a_body_is_not_written_elsewhere(root, make_daemon, sdk_host, victim, kind):
    root.settings["agentDataPath"] = str(root.agent_data)
    daemon = make_daemon().start()
    plant(root.agent_data, victim, kind)
    answer = ask(root.http_port, "PATCH", "/api/1/router-ref", body=b"chosen in the LAN")
    assert (answer.status, answer.reason) == (500, "Internal error")
    assert victim.read_text() == SECRET
    assert sdk_host.requests == []
    assert any(text.startswith(f"Failed to write file {root.agent_data}: ")
               for _, text in daemon.messages())
    root.agent_data.unlink()
    assert ask(root.http_port, "PATCH", "/api/1/router-ref", body=b"x").status == 200


@pytest.mark.parametrize("kind", ["link", "second name"])
def test_a_crash_is_not_recorded_elsewhere(root, daemon, victim, kind):
    plant(root.directory / "tmp" / "tavlo-backtrace.log", victim, kind)
    daemon.crash()
    assert victim.read_text() == SECRET
    assert "CrashHandler: Process exit due to signal: 11" in daemon.log_text()


def test_a_log_is_not_written_elsewhere(root, make_daemon, victim):
    daemon = make_daemon()
    plant(daemon.log, victim, "link")
    daemon.launch()
    daemon.wait_for_log("INFO: void Run: tavlo started$", path=daemon.console)
    assert victim.read_text() == SECRET
    daemon.log.unlink()
    daemon.hang_up()
    assert "void Run: " in daemon.log.read_text()
    assert victim.read_text() == SECRET
