"""The built-in exec monitor on the real kernel: the daemon in a temporary root watches programs
started there, knows the catalogued one, records and uploads the unknown one, and lets every one of
them run to completion."""
import os
import shutil
import sqlite3
import struct
import subprocess
import sys

import pytest

from conftest import SOURCE_DIR, wait_for
from test_caches import header

sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

BUILTIN = "OK - Monitoring with the built-in exec monitor"


@pytest.fixture
def server(tmp_path_factory):
    """The reference server, started by the test with its scenario written first."""
    state = tmp_path_factory.mktemp("server")
    running = []

    def start(scenario: str) -> RuntimeServer:
        path = state / "scenario.json"
        path.write_text(scenario)
        instance = RuntimeServer(str(state), str(path)).start()
        running.append(instance)
        return instance

    start.state = state
    yield start
    for instance in running:
        instance.stop()


def copy_program(agent_root, relative: str, padding: int = 0) -> str:
    """A small real program under the root; padding makes it a different file."""
    target = agent_root.file(relative)
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile("/bin/true", target)
    with open(target, "ab") as file:
        file.write(b"\0" * padding)
    target.chmod(0o755)
    return str(target)


def test_builtin_monitor_identifies_records_and_lets_programs_run(agent_root, server):
    known = copy_program(agent_root, "usr/bin/known")
    unknown = copy_program(agent_root, "usr/bin/unknown", padding=512)
    scratch = copy_program(agent_root, "var/tmp/build/scratch", padding=1024)
    size = os.path.getsize(known)
    instance = server('{"catalog": {"files": [["known", %d, 0, 0, []]]},'
                      ' "parameters": {"upload_min_time": 1}}' % size)
    agent_root.write_configuration(trace_level="2", port=str(instance.port), path="/",
                                   exec_monitor="builtin")
    pid = agent_root.start_daemon()
    assert wait_for(lambda: " - Starting commands thread" in agent_root.trace_text())
    if BUILTIN not in agent_root.trace_text():
        agent_root.stop_daemon(pid)
        pytest.skip("exec permission events are not available (root and fanotify needed)")
    assert wait_for(lambda: "OK - Catalog stored" in agent_root.trace_text())

    for program in (known, unknown, scratch):
        assert subprocess.run([program], timeout=10).returncode == 0
    trace = agent_root.trace_text
    assert wait_for(lambda: " - Found 'known' in catalog" in trace())
    assert wait_for(lambda: "not added to UAT" in trace())
    db = sqlite3.connect(os.path.join(server.state, "server.db"))
    uploaded = lambda: db.execute("SELECT name, directory FROM unknown_files").fetchall()
    assert wait_for(lambda: uploaded(), timeout=30)
    assert uploaded() == [("unknown", "/usr/bin")]
    agent_root.stop_daemon(pid)

    unknown_files = agent_root.file("var/qsam/cache/uat.dat").read_bytes()[272:]
    assert len(unknown_files) == 684
    name, size_read = struct.unpack_from("<256sq", unknown_files)
    assert (name.rstrip(b"\0"), size_read) == (b"unknown", os.path.getsize(unknown))
    assert unknown_files[276:276 + 9] == b"/usr/bin\0"
    assert db.execute("SELECT kind, detail FROM violations").fetchall() == []


@pytest.mark.parametrize("choice, expected", [
    ("auto", BUILTIN),
    ("module", "Plugin data don't match/missing, or current driver not working"),
])
def test_auto_falls_back_to_the_builtin_monitor_and_module_does_not(agent_root, choice, expected):
    # No server, no module for this kernel: the module path fails at once.
    agent_root.write_configuration(trace_level="1", exec_monitor=choice)
    pid = agent_root.start_daemon()
    # The monitor is chosen after the start-up line, before the threads start.
    assert wait_for(lambda: " - Starting commands thread" in agent_root.trace_text())
    texts = agent_root.trace_text()
    agent_root.stop_daemon(pid)
    if choice == "auto" and "not available on this kernel" in texts:
        pytest.skip("exec permission events are not available (root and fanotify needed)")
    assert expected in texts
    if choice == "module":
        assert BUILTIN not in texts
        assert "Found driver status" in texts
