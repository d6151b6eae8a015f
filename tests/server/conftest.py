"""Fixtures that run the runtime server in-process on a thread, each test
with its own state directory and scenario file."""

import json
import os
import sqlite3
import sys

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "tools"))

from runtime_server.httpd import RuntimeServer  # noqa: E402


class Running:
    def __init__(self, tmp_path, scenario):
        self.dir = tmp_path
        self.state_dir = str(tmp_path / "state")
        self.scenario_path = str(tmp_path / "scenario.json")
        self.write_scenario(scenario or {})
        self.server = RuntimeServer(self.state_dir, self.scenario_path).start()
        self.port = self.server.port

    def write_scenario(self, scenario):
        with open(self.scenario_path, "w") as f:
            json.dump(scenario, f)

    def reload(self, scenario):
        self.write_scenario(scenario)
        self.server.reload()

    def query(self, sql, args=()):
        db = sqlite3.connect(os.path.join(self.state_dir, "server.db"))
        try:
            return db.execute(sql, args).fetchall()
        finally:
            db.close()

    def violations(self):
        return self.query("SELECT kind, detail FROM violations ORDER BY id")


@pytest.fixture
def start_server(tmp_path):
    running = []

    def start(scenario=None):
        r = Running(tmp_path, scenario)
        running.append(r)
        return r
    yield start
    for r in running:
        r.server.stop()


@pytest.fixture
def plugged(start_server):
    """Start a server with a scenario and enrol agent 42 on it."""
    from rs_client import exchange, plugin_fields, service_request

    def start(scenario=None):
        srv = start_server(scenario)
        exchange(srv.port, service_request("2", plugin_fields(42)))
        return srv
    return start
