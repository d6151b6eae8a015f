"""The built-in exec monitor on the real kernel: the daemon in a temporary root watches programs
started there without ever holding one: it knows the catalogued one (even once removed), records
and uploads the unknown one once, accounts for every start of a storm, follows file systems
mounted later, names a container's start once, and loses nothing short of descriptors."""
import os
import re
import resource
import shutil
import sqlite3
import struct
import subprocess
import sys
import time

import pytest

from conftest import AGENT_BIN, SOURCE_DIR, wait_for

sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

BUILTIN = "OK - Monitoring with the built-in exec monitor"
WATCHING = "OK - Exec monitor watching"
CLOSED = re.compile(r"OK - Exec monitor closed: (\d+) starts seen, (\d+) delivered, (\d+) lost "
                    r"\((\d+) queue overflows, (\d+) without a descriptor, (\d+) beyond the memory "
                    r"bound\), (\d+) not named, (\d+) seen through a lower layer, (\d+) reads")


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


def copy_program(agent_root, relative: str, padding: int = 0, source: str = "/bin/true") -> str:
    """A small real program under the root; padding makes it a different file."""
    target = agent_root.file(relative)
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(source, target)
    with open(target, "ab") as file:
        file.write(b"\0" * padding)
    target.chmod(0o755)
    return str(target)


def start_builtin(agent_root, descriptors: int | None = None) -> int:
    """Starts the daemon on the built-in monitor (with at most `descriptors` open files) and
    returns its pid once the marks are in place; skips where the kernel lacks exec notices."""
    if descriptors is None:
        pid = agent_root.start_daemon()
    else:
        agent_root.trace.unlink(missing_ok=True)
        limit = (descriptors, descriptors)
        subprocess.run([AGENT_BIN], env=agent_root.environment(), stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60, check=True,
                       preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, limit))
        pids = wait_for(agent_root.daemon_pids)
        assert len(pids) == 1, pids
        pid = pids[0]
    unavailable = "The built-in exec monitor is not available"
    assert wait_for(lambda: WATCHING in agent_root.trace_text()
                    or unavailable in agent_root.trace_text())
    if unavailable in agent_root.trace_text():
        agent_root.stop_daemon(pid)
        pytest.skip("exec notifications are not available (root and fanotify needed)")
    return pid


def closed_counts(agent_root, pid: int) -> dict:
    """Stops the daemon and returns the monitor's counts from its last trace line."""
    agent_root.stop_daemon(pid)
    found = CLOSED.findall(agent_root.trace_text())
    assert found, "the monitor traced no counts as it closed"
    names = ("seen", "delivered", "lost", "overflows", "no_descriptor", "dropped", "unnamed",
             "layers", "reads")
    return dict(zip(names, map(int, found[-1])))


def agent_cpu_micros(pid: int) -> float:
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) * 1e6 / os.sysconf("SC_CLK_TCK")


def test_builtin_monitor_identifies_records_and_lets_programs_run(agent_root, server):
    known = copy_program(agent_root, "usr/bin/known")
    unknown = copy_program(agent_root, "usr/bin/unknown", padding=512)
    scratch = copy_program(agent_root, "var/tmp/build/scratch", padding=1024)
    gone = copy_program(agent_root, "usr/bin/gone", padding=2048)
    instance = server('{"catalog": {"files": [["known", %d, 0, 0, []], ["gone", %d, 0, 0, []]]},'
                      ' "parameters": {"upload_min_time": 1}}'
                      % (os.path.getsize(known), os.path.getsize(gone)))
    agent_root.write_configuration(trace_level="2", port=str(instance.port), path="/",
                                   exec_monitor="builtin")
    pid = start_builtin(agent_root)
    assert wait_for(lambda: "OK - Catalog stored" in agent_root.trace_text())

    for program in (known, unknown, scratch, unknown, gone):
        assert subprocess.run([program], timeout=10).returncode == 0
    # Removed at once: the monitor still knows it by the descriptor its notice brought.
    os.unlink(gone)
    trace = agent_root.trace_text
    assert wait_for(lambda: " - Found 'known' in catalog" in trace())
    assert wait_for(lambda: " - Found 'gone' in catalog" in trace())
    assert wait_for(lambda: "not added to UAT" in trace())
    db = sqlite3.connect(os.path.join(server.state, "server.db"))
    uploaded = lambda: db.execute("SELECT name, directory FROM unknown_files").fetchall()
    assert wait_for(lambda: uploaded(), timeout=30)
    assert uploaded() == [("unknown", "/usr/bin")]
    counts = closed_counts(agent_root, pid)
    assert (counts["seen"], counts["lost"]) == (5, 0)

    # The unknown program, started twice, was recorded once.
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
    # The monitor is chosen at start-up; the monitor thread then ends at once or watches.
    unavailable = "not available on this kernel"
    settled = ("Found driver status", WATCHING, unavailable)
    assert wait_for(lambda: any(text in agent_root.trace_text() for text in settled))
    agent_root.stop_daemon(pid)
    texts = agent_root.trace_text()
    if choice == "auto" and unavailable in texts:
        pytest.skip("exec notifications are not available (root and fanotify needed)")
    assert expected in texts
    if choice == "module":
        assert BUILTIN not in texts
        assert "Found driver status" in texts


STARTERS = 4
STARTS_EACH = 5000


def test_a_storm_of_starts_is_accounted_for_start_by_start(agent_root, capsys):
    program = copy_program(agent_root, "usr/bin/storm")
    # The counts are traced at level 1, where the process event monitor also traces every event.
    agent_root.write_configuration(trace_level="1", exec_monitor="builtin")
    pid = start_builtin(agent_root)
    cpu_before = agent_cpu_micros(pid)
    began = time.monotonic()
    loop = f'i=0; while [ $i -lt {STARTS_EACH} ]; do "{program}" || exit 1; i=$((i+1)); done'
    starters = [subprocess.Popen(["/bin/sh", "-c", loop]) for _ in range(STARTERS)]
    assert [starter.wait(timeout=300) for starter in starters] == [0] * STARTERS
    elapsed = time.monotonic() - began
    # The agent is through once its CPU time stands still.
    last = [agent_cpu_micros(pid)]

    def settled() -> bool:
        time.sleep(0.5)
        now = agent_cpu_micros(pid)
        still, last[0] = now == last[0], now
        return still

    assert wait_for(settled, timeout=60)
    cpu = last[0] - cpu_before
    counts = closed_counts(agent_root, pid)
    started = STARTERS * STARTS_EACH
    with capsys.disabled():
        print(f"\nstorm: {started} starts in {elapsed:.1f} s, agent CPU {cpu / 1000:.0f} ms = "
              f"{cpu / started:.1f} us per start, {counts['reads']} reads of the queue, "
              f"{counts['lost']} lost")
    assert counts["seen"] + counts["lost"] == started, counts
    assert counts["lost"] == 0, counts


def mount(*args: str) -> bool:
    return subprocess.run(["mount", *args], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


def started_lines(agent_root, path: str) -> int:
    return agent_root.trace_text().count(f" - Application {path} started\n")


def test_file_systems_mounted_later_are_watched_and_a_container_start_is_named_once(agent_root):
    # An overlay whose lower layer lies below the root too, holding a program and what it needs
    # to start inside a mount namespace of its own rooted there, as in a container.
    lower = agent_root.file("layers/lower")
    copy_program(agent_root, "layers/lower/bin/prog")
    libraries = re.findall(r"(/\S+) \(0x", subprocess.run(["ldd", "/bin/true"], text=True,
                                                          capture_output=True).stdout)
    for library in libraries:
        copy_program(agent_root, "layers/lower" + library, source=library)
    for directory in ("layers/upper", "layers/work", "mnt/tmp", "mnt/ov"):
        agent_root.file(directory).mkdir(parents=True)
    tmp, overlay = agent_root.file("mnt/tmp"), agent_root.file("mnt/ov")
    agent_root.write_configuration(trace_level="2", exec_monitor="builtin")
    pid = start_builtin(agent_root)
    try:
        if not mount("-t", "tmpfs", "tmpfs", str(tmp)):
            pytest.skip("a tmpfs cannot be mounted here")
        mounted = time.monotonic()
        copy_program(agent_root, "mnt/tmp/prog")
        # Marked within a second of the mount: a start then is seen.
        time.sleep(max(0.0, mounted + 1.0 - time.monotonic()))
        assert subprocess.run([str(tmp / "prog")], timeout=10).returncode == 0
        assert wait_for(lambda: started_lines(agent_root, "/mnt/tmp/prog") == 1)

        layers = agent_root.file("layers")
        if not mount("-t", "overlay", "overlay", "-o", f"lowerdir={lower},upperdir={layers}/upper,"
                     f"workdir={layers}/work", str(overlay)):
            pytest.skip("overlayfs cannot be mounted here")
        time.sleep(1.0)
        assert subprocess.run([str(overlay / "bin/prog")], timeout=10).returncode == 0
        container = (f'mount --bind "{overlay}" "{overlay}" && cd "{overlay}" && mkdir -p old && '
                     'pivot_root . old && exec /bin/prog')
        started = subprocess.run(["unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
                                  container], timeout=10, capture_output=True, text=True)
        assert started.returncode == 0, started.stderr
        # Both starts under the agent's own name for the file, neither through the layer below nor
        # under the container's name for it.
        assert wait_for(lambda: started_lines(agent_root, "/mnt/ov/bin/prog") == 2)
    finally:
        for target in (overlay, tmp):
            subprocess.run(["umount", "-l", str(target)], stderr=subprocess.DEVNULL)
    counts = closed_counts(agent_root, pid)
    trace = agent_root.trace_text()
    assert started_lines(agent_root, "/mnt/ov/bin/prog") == 2
    assert started_lines(agent_root, "/bin/prog") == 0
    assert started_lines(agent_root, "/layers/lower/bin/prog") == 0
    assert " - Exec monitor watching the new mount" in trace
    assert counts["layers"] >= 1 and counts["unnamed"] == 0 and counts["lost"] == 0, counts


def test_a_daemon_short_of_descriptors_fails_no_start_and_loses_none(agent_root, tmp_path):
    program = copy_program(agent_root, "usr/bin/burst")
    # Every start traced keeps the monitor busy, as on a machine watched closely.
    agent_root.write_configuration(trace_level="2", exec_monitor="builtin")
    pid = start_builtin(agent_root, descriptors=64)
    # 200 shells wait on one pipe, then all start the program at the same moment.
    gate = tmp_path / "gate"
    os.mkfifo(gate)
    held = os.open(gate, os.O_RDWR)
    shells = [subprocess.Popen(["/bin/sh", "-c", 'read line < "$1"; exec "$0"', program, gate])
              for _ in range(200)]
    # A moment for them to reach the pipe; one that comes late only starts a little later.
    time.sleep(1)
    os.write(held, b"\n" * len(shells))
    codes = [shell.wait(timeout=60) for shell in shells]
    os.close(held)
    assert codes == [0] * len(shells)
    counts = closed_counts(agent_root, pid)
    assert (counts["seen"], counts["lost"]) == (200, 0), counts
