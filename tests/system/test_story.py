"""The demo's story as a test: the real daemon against the reference server from enrolment to an
inventory delivered and caches read back at a restart, directly and through a forwarding proxy."""
import pathlib
import socket
import subprocess
import sys
import time

import pytest

from conftest import AGENT_BIN, SOURCE_DIR

sys.path.insert(0, str(SOURCE_DIR / "scripts"))
import demo_story  # noqa: E402


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@pytest.fixture
def story(tmp_path, monkeypatch):
    # The story runs the binary under test, not whatever the release tree holds; a sanitized
    # build's reports go to files that fail the test.
    monkeypatch.setattr(demo_story, "AGENT", pathlib.Path(AGENT_BIN).resolve())
    report = f"log_path={tmp_path}/sanitizer"
    monkeypatch.setenv("ASAN_OPTIONS", report)
    monkeypatch.setenv("UBSAN_OPTIONS", report + ":print_stacktrace=1")
    yield lambda configuration="", **options: demo_story.Demo(tmp_path, configuration, **options)
    assert "".join(p.read_text(errors="replace") for p in tmp_path.glob("sanitizer.*")) == ""


def steps(demo) -> list:
    return [step for step, _ in demo.table]


def test_story_from_enrolment_to_caches_read_back(story):
    demo = story()
    demo.run()
    assert steps(demo) == ["enrolment", "topology", "catalog", "parameters", "programs",
                           "inventory", "caches", "protocol"]
    assert dict(demo.table)["inventory"] == "scanned and delivered: 3 executables"


def test_story_through_a_forwarding_proxy(story, tmp_path):
    port = free_port()
    config = tmp_path / "tinyproxy.conf"
    config.write_text(f"Port {port}\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\n"
                      f"MaxClients 20\nLogLevel Error\nLogFile \"{tmp_path}/tinyproxy.log\"\n")
    proxy = subprocess.Popen(["tinyproxy", "-d", "-c", str(config)])
    try:
        deadline = time.monotonic() + 10
        while socket.socket().connect_ex(("127.0.0.1", port)) != 0:
            assert time.monotonic() < deadline, "tinyproxy did not start"
            time.sleep(0.05)
        demo = story(f"use_proxy=yes\nproxy=127.0.0.1\nproxy_port={port}\nproxy_security=0\n",
                     check_protocol=False)
        demo.run()
        assert "OK - Using proxy server" in demo.trace()
        assert steps(demo)[-1] == "caches"
        # Every request came through the proxy, which writes the server's port into the Host
        # header; the agent never does.
        heads = [bytes(raw).split(b"\r\n\r\n", 1)[0] for (raw,) in
                 demo.rows("SELECT raw FROM requests")]
        assert heads and all(b"\r\nHost: 127.0.0.1:" in head for head in heads), heads[:2]
    finally:
        proxy.terminate()
        proxy.wait(timeout=10)
