"""What docs/hooks.md says of files that cannot be executed."""

from support.clients import ask


def test_a_carriage_return_behind_the_first_line_ends_every_request(root, make_daemon, sdk_host):
    root.settings["agentDataPath"] = str(root.agent_data)
    script = root.write_hook(root.external_hooks, "10-text", "#!/bin/sh\r\nexit 0\n")
    make_daemon().start()
    answer = ask(root.http_port, "GET", "/api/version")
    assert (answer.status, answer.body) == (200, b"")
    assert sdk_host.requests == []
    script.write_text("#!/bin/sh\nexit 0\n")
    assert ask(root.http_port, "GET", "/api/version").body != b""
    assert len(sdk_host.requests) == 1
