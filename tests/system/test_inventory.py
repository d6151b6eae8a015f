"""Inventories through the real binary against the reference runtime server: the on-demand runs and
the daemon's scheduled scan with its "scan.dat"."""
import json
import os
import pathlib
import shutil
import sqlite3
import subprocess
import sys
import time

import pytest

from conftest import AGENT_BIN, SOURCE_DIR, scan_start_ms, wait_for

sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

ELF_PROGRAM = "/bin/true"  # a position-independent executable with a program interpreter


class Server:
    """The reference server on a state directory outside the agent's root, restartable on its
    port."""

    def __init__(self, directory, scenario):
        self.state = directory / "state"
        self.scenario = directory / "scenario.json"
        self.scenario.write_text(json.dumps(scenario))
        self.server = None
        self.port = 0

    def start(self):
        self.server = RuntimeServer(str(self.state), str(self.scenario), self.port).start()
        self.port = self.server.port
        return self

    def stop(self):
        if self.server is not None:
            self.server.stop()
            self.server = None

    def rows(self, sql, *args):
        db = sqlite3.connect(self.state / "server.db")
        try:
            return db.execute(sql, args).fetchall()
        finally:
            db.close()

    def complete_inventories(self):
        return self.rows("SELECT id, scan_time FROM inventories WHERE complete = 1")

    def records(self, inventory_id):
        return sorted(self.rows("SELECT name, size FROM inventory_records WHERE inventory_id = ?",
                                inventory_id))


@pytest.fixture
def server_factory(tmp_path_factory):
    servers = []

    def make(scenario=None):
        server = Server(tmp_path_factory.mktemp("server"), scenario or {}).start()
        servers.append(server)
        return server

    yield make
    for server in servers:
        server.stop()


def place_programs(agent_root):
    """Executables and look-alikes in the root; returns the (name, size) records expected."""
    size = os.path.getsize(ELF_PROGRAM)
    for relative in ("usr/bin/alpha", "opt/tools/bin/bravo", "home/user/proc/charlie"):
        target = agent_root.file(relative)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(ELF_PROGRAM, target)
        target.chmod(0o755)
    plain = agent_root.file("usr/share/not-executable")
    plain.parent.mkdir(parents=True)
    shutil.copyfile(ELF_PROGRAM, plain)
    script = agent_root.file("usr/bin/script.sh")
    script.write_text("#!/bin/sh\nexit 0\n")
    script.chmod(0o755)
    agent_root.file("usr/bin/link").symlink_to(agent_root.file("usr/bin/alpha"))
    return sorted([("alpha", size), ("bravo", size), ("charlie", size)])


def configure(agent_root, server, **overrides):
    agent_root.write_configuration(port=str(server.port), path="/", trace_level="2", **overrides)


def test_plugin_on_demand_enrols_and_reports_the_server(agent_root, server_factory):
    server = server_factory()
    configure(agent_root, server)
    result = agent_root.run("-p")
    assert result.returncode == 0, result
    assert result.stdout == "3517 - The agent has successfully contacted the runtime server 127.0.0.1.\n"
    assert server.rows("SELECT agent_id FROM agents") == [(1234,)]
    assert agent_root.file("var/qsam/log/plugin.log").stat().st_size > 0

    server.stop()
    result = agent_root.run("-p")
    assert result.returncode == 1
    assert result.stdout == "3518 - The agent failed to contact the runtime server 127.0.0.1.\n"
    # A host name that resolves nowhere does not stop the run before it tries the server.
    result = subprocess.run(["unshare", "--uts", "sh", "-c", 'hostname no-such-host-q7 && "$0" -p',
                             AGENT_BIN], env=agent_root.environment(), capture_output=True,
                            text=True, timeout=60)
    assert result.returncode == 1, result
    assert result.stdout == "3518 - The agent failed to contact the runtime server 127.0.0.1.\n"


def run_watching_niceness(agent_root, *args) -> tuple[subprocess.CompletedProcess, set]:
    """Runs the agent to its exit, sampling its niceness while it runs."""
    process = subprocess.Popen([AGENT_BIN, *args], env=agent_root.environment(), text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    seen = set()
    while process.poll() is None:
        try:
            seen.add(int(pathlib.Path(f"/proc/{process.pid}/stat").read_text().rsplit(")")[1]
                         .split()[16]))
        except (OSError, IndexError, ValueError):
            pass
        time.sleep(0.02)
    out, err = process.communicate()
    return subprocess.CompletedProcess(process.args, process.returncode, out, err), seen


def test_inventory_on_demand_sends_exactly_the_executables(agent_root, server_factory):
    expected = place_programs(agent_root)
    # The held answer keeps the run alive long enough to see the priority it scanned at.
    server = server_factory({"services": {"upload": {"delay": 1.0}}})
    configure(agent_root, server)
    assert agent_root.run("-p").returncode == 0
    result, niceness = run_watching_niceness(agent_root, "-s")
    assert result.returncode == 0, result
    # Somebody asked for it now: it runs at the normal priority.
    assert niceness == {0}
    assert result.stdout.splitlines() == [
        "3519 - Scanning your system ...", "3521 - Sending the inventory to the runtime server ...",
        "3522 - The inventory scan was completed and sent."]
    (inventory, _), = server.complete_inventories()
    assert server.records(inventory) == expected
    assert not agent_root.file("var/qsam/cache/scan.dat").exists()
    assert "INV - Packet 1 sent; 3 files." in agent_root.file("var/qsam/log/inventory.log").read_text()
    assert server.rows("SELECT count(*) FROM violations") == [(0,)]


def scheduled_scan(seconds_from_now):
    """Parameters for a daily scan starting soon, sent at once after it."""
    return {"parameters": {"scan_start_ms": scan_start_ms(seconds_from_now), "scan_rule_type": 1,
                           "scan_rule_value": 1, "max_delay": 1}}


def test_daemon_scans_on_schedule_and_delivers_the_scan_file(agent_root, server_factory):
    expected = place_programs(agent_root)
    server = server_factory(scheduled_scan(2))
    configure(agent_root, server)
    pid = agent_root.start_daemon()
    assert wait_for(server.complete_inventories, timeout=60), agent_root.trace_text()
    (inventory, _), = server.complete_inventories()
    assert server.records(inventory) == expected
    assert wait_for(lambda: not agent_root.file("var/qsam/cache/scan.dat").exists())
    agent_root.stop_daemon(pid)
    assert "OK - Disks scan completes" in agent_root.trace_text()


def test_server_down_at_send_time_gets_the_inventory_after_a_restart(agent_root, server_factory):
    expected = place_programs(agent_root)
    # The scan comes a few seconds after the parameters, once the server is down.
    server = server_factory(scheduled_scan(6))
    configure(agent_root, server)
    pid = agent_root.start_daemon()
    assert wait_for(lambda: server.rows("SELECT id FROM requests WHERE service = '8'"), timeout=60)
    server.stop()
    assert wait_for(lambda: "ERROR - Sending inventory packet 1" in agent_root.trace_text(),
                    timeout=60), agent_root.trace_text()
    agent_root.stop_daemon(pid)
    # The second agent starts after the scheduled second, or it would scan again at once.
    scan_at = int(time.time())
    assert wait_for(lambda: int(time.time()) > scan_at, timeout=3)
    scan_file = agent_root.file("var/qsam/cache/scan.dat")
    content = scan_file.read_bytes()
    assert len(content) == 4 + 960 * len(expected)
    assert server.rows("SELECT id FROM requests WHERE service = '7'") == []

    server.start()
    pid = agent_root.start_daemon()
    assert wait_for(server.complete_inventories, timeout=60), agent_root.trace_text()
    (inventory, scan_time), = server.complete_inventories()
    assert scan_time == int.from_bytes(content[:4], "little") * 1000
    assert server.records(inventory) == expected, agent_root.trace_text()
    assert wait_for(lambda: not scan_file.exists())
    agent_root.stop_daemon(pid)
