"""The commands thread of the real daemon against the reference runtime server: plug-in, the
scheduled commands and what they leave in the cache files, the self-update, answers the agent
cannot use, and the cost of an idle daemon. The server's database and the files written at SIGTERM
are the evidence; every run ends with no conformance violation recorded by any server."""
import json
import os
import pathlib
import socket
import sqlite3
import struct
import sys
import time
from contextlib import closing

import pytest

from conftest import SOURCE_DIR, wait_for
from test_caches import catalog_file, component, header, unknown_entry

sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

HEADER_SIZE = 272
SERVER_RECORD_SIZE = 552


class Server:
    """One reference server on a thread, with its scenario file and database in `directory`."""

    def __init__(self, directory: pathlib.Path, scenario: dict, port: int = 0):
        directory.mkdir()
        self.directory = directory
        scenario_path = directory / "scenario.json"
        scenario_path.write_text(json.dumps(scenario))
        self.server = RuntimeServer(str(directory), str(scenario_path), port=port).start()

    @property
    def port(self) -> int:
        return self.server.port

    def rows(self, query: str, *args) -> list:
        with closing(sqlite3.connect(self.directory / "server.db")) as db:
            return db.execute(query, args).fetchall()

    def requests(self, service: str) -> list:
        """(status, result) of every request of the service, oldest first."""
        return self.rows("SELECT status, result FROM requests WHERE service = ? ORDER BY id",
                         service)


@pytest.fixture
def servers(agent_root, tmp_path):
    """Starts reference servers; at the end every one of them must have seen only conforming
    requests."""
    started = []

    def start(scenario: dict, port: int = 0) -> Server:
        server = Server(tmp_path / f"server{len(started)}", scenario, port)
        started.append(server)
        return server

    yield start
    try:
        for server in started:
            assert server.rows("SELECT kind, detail FROM violations") == []
    finally:
        for server in started:
            server.server.stop()


def run_agent(agent_root, server: Server, **settings: str) -> int:
    agent_root.write_configuration(port=str(server.port), trace_level="3", **settings)
    return agent_root.start_daemon()


def traced(agent_root, text: str, times: int = 1):
    return lambda: agent_root.trace_text().count(text) >= times


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def cache_file(agent_root, name: str) -> bytes:
    return agent_root.file(f"var/qsam/cache/{name}").read_bytes()


def seed_cache(agent_root, name: str, data: bytes) -> None:
    path = agent_root.file(f"var/qsam/cache/{name}")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def header_time(data: bytes) -> int:
    return struct.unpack_from("<q", data, 8)[0]


def server_records(data: bytes) -> list[tuple]:
    """(host, path, port, active, scope) of every division and enterprise record of server.dat."""
    division, enterprise = struct.unpack_from("<ii", data, HEADER_SIZE)
    assert len(data) == HEADER_SIZE + 8 + (division + enterprise) * SERVER_RECORD_SIZE
    records = []
    for index in range(division + enterprise):
        at = HEADER_SIZE + 8 + index * SERVER_RECORD_SIZE
        host, path = (data[at + 4 + 256 * i:at + 260 + 256 * i].split(b"\0")[0].decode()
                      for i in range(2))
        port, = struct.unpack_from("<I", data, at + 516)
        active, = struct.unpack_from("<i", data, at + 528)
        scope, = struct.unpack_from("<i", data, at + 536)
        records.append((host, path, port, active, scope))
    return records


def server_record(host: str, path: str, port: int, active: int, scope: int) -> bytes:
    return (bytes(4) + host.encode().ljust(256, b"\0") + path.encode().ljust(256, b"\0") +
            struct.pack("<Iiiii4xi", port, 0, 0, active, 1, scope) + bytes(12))


# The lists the agent sees on a catalog answer and writes back to catalog.dat.
CATALOG = {
    "update_time": 1700000000000,
    "components": [{"id": 12, "attrs": [1, 0, 2]}, [13, 0, 0, 0]],
    "files": [{"name": "app", "size": 4096, "attrs": [1, -2], "components": [12, 13]},
              ["tool", 10, 0, 0, [13]]],
}


def catalog_contents(data: bytes) -> tuple[int, set, set]:
    """(update time, components as (id, attributes), files as (name, size, attributes, ids))."""
    count, = struct.unpack_from("<i", data, HEADER_SIZE)
    at = HEADER_SIZE + 4
    components = set()
    for _ in range(count):
        comp_id, _, *attributes = struct.unpack_from("<qq3B", data, at)
        components.add((comp_id, tuple(attributes)))
        at += 20
    files = set()
    while at < len(data):
        name = data[at:at + 256].split(b"\0")[0].decode()
        size, first, second, _ = struct.unpack_from("<qiiI", data, at + 256)
        ids = struct.unpack_from("<16q", data, at + 276)
        used, = struct.unpack_from("<i", data, at + 404)
        files.add((name, size, (first, second), ids[:used]))
        at += 408
    assert at == len(data)
    return header_time(data), components, files


@pytest.mark.parametrize("withheld", [0, 1])
def test_plug_in_stores_the_node_id(agent_root, servers, withheld):
    server = servers({"plugin": {"withhold_node": withheld}})
    pid = run_agent(agent_root, server)
    # A node withheld at the plug-in is asked for by the get-node command, which plugs in again.
    assert wait_for(lambda: server.rows("SELECT node_line FROM plugins")[-1:] == [("1001",)])
    assert server.rows("SELECT node_line, first, result FROM plugins ORDER BY id") == (
        [("0", 1, 1), ("1001", 0, 0)] if withheld else [("1001", 1, 1)])
    assert server.rows("SELECT agent_id, node_id, division_id, tag FROM agents") == [
        (1234, 1001, 7, "NODE-TAG")]
    assert wait_for(traced(agent_root, "OK - Plug-in: waiting for a node in 86400 seconds"
                           if withheld else "OK - Plugged, agent node: 1001"))
    agent_root.stop_daemon(pid)


def test_topology_is_merged_into_the_server_file(agent_root, servers):
    server = servers({"topology": {"division": [["127.0.0.1", "/", "self"], "h2|/p|8080"],
                                   "enterprise": [{"host": "e1", "path": "/e", "port": 81}]}})
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Topology updated: 2 division server(s), "
                                       "1 enterprise server(s)"))
    agent_root.stop_daemon(pid)
    # The configured server the topology names stays the preferred one, which the file leaves out.
    assert server_records(cache_file(agent_root, "server.dat")) == [
        ("h2", "/p", 8080, 1, 1), ("e1", "/e", 81, 1, 2)]


def test_catalog_is_downloaded_and_stored_at_stop(agent_root, servers):
    server = servers({"catalog": CATALOG})
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Catalog stored, update time: 1700000000000"))
    agent_root.stop_daemon(pid)
    assert server.rows("SELECT since, components, files FROM catalog_downloads") == [(0, 2, 2)]
    assert catalog_contents(cache_file(agent_root, "catalog.dat")) == (
        1700000000000, {(12, (1, 0, 2)), (13, (0, 0, 0))},
        {("app", 4096, (1, -2), (12, 13)), ("tool", 10, (0, 0), (13,))})


def test_parameters_set_the_command_periods(agent_root, servers):
    # The parameters' own period is only taken from 30 seconds on: 5 leaves it at a day, where
    # it would otherwise run, from its higher slot, before the catalog's second run.
    server = servers({"parameters": {"catalog_period": 1, "parameters_period": 5}})
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Catalog stored", 2), timeout=30)
    assert len(server.requests("8")) == 1
    agent_root.stop_daemon(pid)


def test_first_plug_in_resets_catalog_and_unknown_files(agent_root, servers):
    seed_cache(agent_root, "catalog.dat", header(1, 2, 5) + struct.pack("<i", 1) +
               component(12, (1, 0, 2)) + catalog_file("App.exe", 4096, (1, -2), [12]))
    # An entry that would be uploaded if the list were kept.
    seed_cache(agent_root, "uat.dat", header(1, 3, 1700000000) +
               unknown_entry("setup", 100, "/opt/app", 1700000050))
    agent_root.file("opt/app").mkdir(parents=True)
    agent_root.file("opt/app/setup").write_bytes(b"x")
    server = servers({})
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Upload uneeded"))
    agent_root.stop_daemon(pid)
    assert server.rows("SELECT first, result FROM plugins") == [(1, 1)]
    assert server.rows("SELECT count(*) FROM unknown_files") == [(0,)]
    assert catalog_contents(cache_file(agent_root, "catalog.dat"))[1:] == (set(), set())
    assert cache_file(agent_root, "uat.dat")[HEADER_SIZE:] == b""


def test_unknown_agent_answer_plugs_in_again(agent_root, servers):
    server = servers({"services": {"parameters": {"result": -1, "count": 1}}})
    pid = run_agent(agent_root, server)
    assert wait_for(lambda: server.rows("SELECT first, result FROM plugins ORDER BY id") ==
                    [(1, 1), (0, 0)], timeout=30)
    assert server.requests("8")[0] == (0, -1)
    assert "ERROR - Agent unknown: plug-in needed" in agent_root.trace_text()
    agent_root.stop_daemon(pid)


def test_server_not_responding_is_pinged_back_to_active(agent_root, servers):
    second_port = free_port()
    seed_cache(agent_root, "server.dat", header(1, 2, 0) + struct.pack("<ii", 1, 0) +
               server_record("localhost", "/", second_port, 0, 1))
    server = servers({"topology": {"division": [["127.0.0.1", "/", "self"],
                                                ["localhost", "/", second_port]]},
                      "parameters": {"ping_period": 1}})
    pid = run_agent(agent_root, server)
    # While it is down, the pings find nobody.
    assert wait_for(traced(agent_root, "OK - No inactive servers to ping"), timeout=30)
    assert "OK - Pinged" not in agent_root.trace_text()
    second = servers({}, port=second_port)
    assert wait_for(traced(agent_root, "OK - Pinged 1 servers"), timeout=30)
    assert second.requests("1")[:1] == [(0, 0)]
    pings = len(second.requests("1"))
    idle = agent_root.trace_text().count("OK - No inactive servers to ping")
    assert wait_for(traced(agent_root, "OK - No inactive servers to ping", idle + 1), timeout=30)
    # Active again, it is not pinged any more.
    assert len(second.requests("1")) == pings
    agent_root.stop_daemon(pid)
    assert server_records(cache_file(agent_root, "server.dat")) == [
        ("localhost", "/", second_port, 1, 1)]


def test_unknown_files_are_uploaded_once(agent_root, servers):
    # Both were recorded after the last upload.
    seed_cache(agent_root, "uat.dat", header(1, 3, 1700000000) +
               unknown_entry("setup", 100, "/opt/app", 1700000050) +
               unknown_entry("gone", 5, "/opt/app", 1700000060))
    agent_root.file("opt/app").mkdir(parents=True)
    agent_root.file("opt/app/setup").write_bytes(b"x")
    # Not a first plug-in, which would reset the list.
    server = servers({"plugin": {"first_result": 0}})
    started = time.time()
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Upload successfull, 1 files"))
    agent_root.stop_daemon(pid)
    assert server.rows("SELECT name, size, directory FROM unknown_files") == [
        ("setup", 100, "/opt/app")]
    uat = cache_file(agent_root, "uat.dat")
    assert header_time(uat) >= int(started)
    # The entry whose file is no longer on disk is gone.
    assert uat[HEADER_SIZE:] == unknown_entry("setup", 100, "/opt/app", 1700000050)

    pid = agent_root.start_daemon()
    assert wait_for(traced(agent_root, "OK - Upload uneeded"))
    agent_root.stop_daemon(pid)
    assert len(server.requests("7")) == 1


INSTALLER = """#!/bin/sh
echo "$@" >> {root}/installed
{action}
"""


def update_scenario(agent_root, tmp_path, action: str) -> dict:
    """A new agent of two signed files whose installer records each run, then does `action`."""
    package = tmp_path / "files/pkg"
    package.mkdir(parents=True)
    (package / "install.sh").write_text(INSTALLER.format(root=agent_root.path, action=action))
    (package / "kvdagent").write_bytes(b"\x7fELF new agent")
    return {"parameters": {"update_enabled": "yes", "max_update_period": 2},
            "new_agent": {"command": f"{agent_root.path}/tmp/qsam/install.sh -q",
                          "files": ["/pkg/install.sh", "/pkg/kvdagent"]},
            "downloads": {"root": str(tmp_path / "files"), "sign": True}}


def installer_runs(agent_root) -> list[str]:
    try:
        return agent_root.file("installed").read_text().splitlines()
    except FileNotFoundError:
        return []


@pytest.mark.parametrize("self_update", ["strict", "legacy"])
def test_self_update_runs_the_installer(agent_root, servers, tmp_path, self_update):
    pid_file = agent_root.path / "daemon.pid"
    server = servers(update_scenario(agent_root, tmp_path, f'kill -TERM "$(cat {pid_file})"'))
    pid = run_agent(agent_root, server, self_update=self_update)
    pid_file.write_text(str(pid))
    assert wait_for(lambda: not agent_root.daemon_pids(), timeout=30)
    assert installer_runs(agent_root) == ["-q"]
    downloaded = agent_root.file("tmp/qsam")
    assert sorted(p.name for p in downloaded.iterdir()) == ["install.sh", "kvdagent"]
    assert (downloaded / "kvdagent").read_bytes() == b"\x7fELF new agent"
    assert sorted(row[0] for row in server.rows(
        "SELECT path FROM requests WHERE method = 'GET'")) == [
            "/pkg/install.sh", "/pkg/install.sh.sign", "/pkg/kvdagent", "/pkg/kvdagent.sign"]
    assert (f'WARNING - Launching "{agent_root.path}/tmp/qsam/install.sh -q" for new agent '
            "installation") in agent_root.trace_text()


def test_self_update_with_a_bad_signature_installs_nothing(agent_root, servers, tmp_path):
    server = servers(update_scenario(agent_root, tmp_path, "exit 0"))
    # Changed after the server signed it: the installer's own signature still holds.
    with open(tmp_path / "files/pkg/kvdagent", "ab") as package:
        package.write(b" tampered")
    pid = run_agent(agent_root, server)
    failed = f"ERROR - Signature check failed for {agent_root.path}/tmp/qsam/kvdagent"
    # It is tried again, and every time nothing runs.
    assert wait_for(traced(agent_root, failed, 2), timeout=30)
    assert installer_runs(agent_root) == []
    assert "Launching" not in agent_root.trace_text()
    assert agent_root.daemon_pids() == [pid]
    agent_root.stop_daemon(pid)
    assert agent_root.trace_text().splitlines()[-1] == "  OK - Agent stopped"


def test_failing_installer_brings_the_agent_back(agent_root, servers, tmp_path):
    server = servers(update_scenario(agent_root, tmp_path, "exit 3"))
    pid = run_agent(agent_root, server)
    # The trace stays stopped after the installer, so the server's log tells the rest.
    assert wait_for(lambda: installer_runs(agent_root) == ["-q"], timeout=30)
    plug_ins = len(server.requests("2"))
    # Back with its agent information rebuilt: it plugs in again and looks for the update again.
    assert wait_for(lambda: len(installer_runs(agent_root)) >= 2, timeout=30)
    assert wait_for(lambda: len(server.requests("2")) > plug_ins)
    assert agent_root.daemon_pids() == [pid]
    agent_root.stop_daemon(pid)


@pytest.mark.parametrize("behaviour", [
    {"payload": "garbage\r\n<components>\r\nnot|a|component\r\n"},
    {"close_after": 40},
    {"trailer": "<response:0,"},
], ids=["garbage", "closed", "cut-trailer"])
def test_unusable_catalog_answer_is_asked_again(agent_root, servers, behaviour):
    server = servers({"catalog": CATALOG, "parameters": {"catalog_period": 1},
                      "services": {"catalog": dict(behaviour, count=1)}})
    pid = run_agent(agent_root, server)
    assert wait_for(traced(agent_root, "OK - Catalog stored, update time: 1700000000000"),
                    timeout=30)
    assert len(server.requests("3")) == 2
    assert agent_root.daemon_pids() == [pid]
    agent_root.stop_daemon(pid)
    assert catalog_contents(cache_file(agent_root, "catalog.dat"))[0] == 1700000000000


def context_switches(pid: int) -> int:
    total = 0
    for status in pathlib.Path(f"/proc/{pid}/task").glob("*/status"):
        total += sum(int(line.split()[1]) for line in status.read_text().splitlines()
                     if "ctxt_switches" in line)
    return total


def test_idle_daemon_does_not_wake_up(agent_root, servers):
    server = servers({})
    pid = run_agent(agent_root, server)
    # The start-up commands are done once the servers have been checked.
    assert wait_for(traced(agent_root, "OK - No inactive servers to ping"), timeout=30)
    assert wait_for(lambda: agent_root.trace_text().rstrip().endswith("for the next command"))
    before = context_switches(pid)
    # An observation window, not a wait: a daemon that wakes on a timer switches in it.
    time.sleep(float(os.environ.get("KVDAGENT_IDLE_WINDOW", "10")))
    switches = context_switches(pid) - before
    print(f"idle context switches: {switches}")
    assert switches <= 2
    # Plug-in, parameters, catalog and topology; nothing to upload and no server to ping.
    assert len(server.rows("SELECT id FROM requests")) == 4
    agent_root.stop_daemon(pid)
