"""The demo's story as a test: the real daemon against the reference server from enrolment to an
inventory delivered and caches read back at a restart, directly and through a forwarding proxy;
a stop at any moment of a run leaves caches the next start reads; and an inventory that finds the
server down waits in its scan file and arrives once the server is back."""
import pathlib
import random
import socket
import subprocess
import sys
import time

import pytest

from conftest import AGENT_BIN, SOURCE_DIR, wait_for

sys.path.insert(0, str(SOURCE_DIR / "scripts"))
sys.path.insert(0, str(SOURCE_DIR / "tools"))
import demo_story  # noqa: E402
from runtime_server.httpd import RuntimeServer  # noqa: E402


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


def test_sigterm_at_any_moment_leaves_caches_the_next_start_reads(agent_root, tmp_path):
    scenario = tmp_path / "scenario.json"
    scenario.write_text('{"catalog": {"generate": {"files": 20000, "components": 5}},'
                        ' "topology": {"division": [["127.0.0.1", "/", "self"], "d2|/|81"]}}')
    server = RuntimeServer(str(tmp_path / "server"), str(scenario)).start()
    try:
        agent_root.write_configuration(trace_level="1", port=str(server.port), path="/")
        rng = random.Random(7)
        cache = agent_root.file("var/qsam/cache")
        for _ in range(8):
            pid = agent_root.start_daemon()
            time.sleep(rng.uniform(0, 2.5))  # a moment of the run, not a wait for something
            agent_root.stop_daemon(pid)
            pid = agent_root.start_daemon()
            assert wait_for(lambda: " - Starting commands thread" in agent_root.trace_text())
            trace = agent_root.trace_text()
            agent_root.stop_daemon(pid)
            # Whatever the stop interrupted, the files it wrote are whole and this server's.
            assert "is not supported or the runtime server has been changed" not in trace
            assert f"LAT - The catalog has been read from file {cache}/catalog.dat" in trace
            assert f"UAT - The unknown file list has been read from file {cache}/uat.dat" in trace
            assert "SRV CACHE - no Servers file" not in trace
    finally:
        server.stop()


def test_server_restart_mid_run_the_inventory_waits_and_arrives(agent_root, tmp_path):
    from test_inventory import Server, place_programs, scheduled_scan
    expected = place_programs(agent_root)
    # Many attempts spread over the day until the next scan: one every few seconds.
    scenario = scheduled_scan(6)
    scenario["parameters"]["attempts"] = 20000
    server = Server(tmp_path, scenario).start()
    try:
        agent_root.write_configuration(port=str(server.port), path="/", trace_level="2")
        pid = agent_root.start_daemon()
        assert wait_for(lambda: server.rows("SELECT id FROM requests WHERE service = '8'"))
        server.stop()
        assert wait_for(lambda: "INV - Attempt 1, resending inventory packet 1"
                        in agent_root.trace_text(), timeout=60), agent_root.trace_text()
        scan_file = agent_root.file("var/qsam/cache/scan.dat")
        assert len(scan_file.read_bytes()) == 4 + 960 * len(expected)

        server.start()
        assert wait_for(server.complete_inventories, timeout=60), agent_root.trace_text()
        (inventory, _), = server.complete_inventories()
        assert server.records(inventory) == expected
        assert wait_for(lambda: not scan_file.exists())
        agent_root.stop_daemon(pid)
    finally:
        server.stop()
