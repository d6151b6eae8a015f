"""Attacks on the agent as root, each tried against the real daemon and the reference server: the
way in must stay shut. Every case records what it expected and what it saw; the table goes to
"attack-report.txt" beside the binary under test, so a run shows the whole suite at a glance."""
import os
import pathlib

import pytest

from conftest import AGENT_BIN, wait_for
from test_commands import Server, run_agent, servers, traced  # noqa: F401 (fixture)

REPORT_ROWS: list[tuple[str, str, str]] = []


def record(case: str, expected: str, seen: str) -> None:
    """Notes one case's outcome for the report; the test's own assertions decide pass or fail."""
    REPORT_ROWS.append((case, expected, seen))


@pytest.fixture(scope="module", autouse=True)
def attack_report():
    yield
    if not AGENT_BIN or not REPORT_ROWS:
        return
    widths = [max(len(row[i]) for row in REPORT_ROWS + [("case", "expected", "seen")])
              for i in range(3)]
    lines = [" | ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
             for row in [("case", "expected", "seen")] + REPORT_ROWS]
    lines.insert(1, "-+-".join("-" * width for width in widths))
    pathlib.Path(AGENT_BIN).parent.joinpath("attack-report.txt").write_text("\n".join(lines) + "\n")


# --- The self-update's command line and the module loader ----------------------------------------


# --- The temporary directory and planted links ---------------------------------------------------


# --- Answers too large or too slow ---------------------------------------------------------------


# --- Hostile file names --------------------------------------------------------------------------

# Imported here, beside the cases that use them, so that each section stays whole.
import ctypes  # noqa: E402
import re  # noqa: E402
import resource  # noqa: E402
import shutil  # noqa: E402
import subprocess  # noqa: E402
import threading  # noqa: E402

from conftest import scan_start_ms  # noqa: E402
from test_caches import header, unknown_entry  # noqa: E402
from test_commands import seed_cache  # noqa: E402


def trace_lines_are_messages(text: str) -> bool:
    """Whether every line of a trace is a message header or the one message line after it: a name
    that carried a line end would have started a line of its own."""
    lines = text.split("\n")
    if lines.pop() != "" or "\r" in text:
        return False
    return len(lines) % 2 == 0 and all(
        line.startswith("File: ") if i % 2 == 0 else line.startswith("  ")
        for i, line in enumerate(lines))


FORGED = "\n  OK - Agent stopped\n"


def test_hostile_names_of_unknown_programs_upload_as_one_record_each(agent_root, servers):
    # What the monitor records of programs started under names a local user chose.
    entries = [("cr\r\nlf\r\nname", "/opt/hostile"), ("bar|in|name", "/opt/hostile"),
               ("x" + FORGED, "/opt/hostile" + FORGED + "dir")]
    uat = header(1, 3, 1700000000)
    for name, directory in entries:
        program = agent_root.file(directory + "/" + name)
        program.parent.mkdir(parents=True, exist_ok=True)
        program.write_bytes(b"x")
        uat += unknown_entry(name, 100, directory, 1700000050)
    seed_cache(agent_root, "uat.dat", uat)
    server = servers({"plugin": {"first_result": 0}})
    pid = run_agent(agent_root, server)
    uploaded = wait_for(traced(agent_root, "OK - Upload successfull, 3 files"))
    agent_root.stop_daemon(pid)
    rows = sorted(server.rows("SELECT name, directory FROM unknown_files"))
    forged = agent_root.trace_text().count("\n  OK - Agent stopped\n")
    record("upload: names with CR LF, | and a forged trace line",
           "3 records, control bytes as ?, 1 stop line",
           f"{len(rows)} records {[name for name, _ in rows]}, {forged} stop lines")
    assert uploaded, agent_root.trace_text()[-3000:]
    assert rows == sorted([("bar*in|name", "/opt/hostile"), ("cr??lf??name", "/opt/hostile"),
                           ("x?  OK - Agent stopped?", "/opt/hostile?  OK - Agent stopped?dir")])
    assert forged == 1
    assert trace_lines_are_messages(agent_root.trace_text())


def test_hostile_names_scanned_travel_as_one_record_each(agent_root, servers):
    for relative in ("usr/bin/cr\r\nlf\r\nname", "usr/bin/bar|in|name", "usr/bin/x" + FORGED,
                     "opt/dir" + FORGED + "/tool"):
        target = agent_root.file(relative)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile("/bin/true", target)
        target.chmod(0o755)
    # Never entered, but named in the trace as a path not walked.
    agent_root.file("proc" + FORGED).mkdir()
    server = servers({})
    agent_root.write_configuration(port=str(server.port), path="/")
    assert agent_root.run("-p").returncode == 0
    scanned = agent_root.run("-s")
    names = sorted(name for name, in server.rows("SELECT name FROM inventory_records"))
    trace = agent_root.file("var/qsam/log/inventory.log").read_text(errors="replace")
    forged = trace.count("\n  OK - Agent stopped\n")
    record("scan: names with CR LF, | and a forged trace line",
           "4 records, control bytes as ?, no stop line", f"{len(names)} records {names}, "
           f"{forged} stop lines")
    assert scanned.returncode == 0, scanned
    assert names == sorted(["bar*in|name", "cr??lf??name", "tool", "x?  OK - Agent stopped?"])
    assert forged == 0 and "The path = //proc\\n  OK - Agent stopped\\n is not valid" in trace
    assert trace_lines_are_messages(trace)


# --- The scanner: FIFOs, deep trees, descriptors -------------------------------------------------

# An old scanner met the swap in about one scan of eight here: 40 scans all but always meet it.
SWAP_SCANS = 40
AT_FDCWD = -100
RENAME_EXCHANGE = 2
PR_CAPBSET_DROP = 24
CAP_SYS_RESOURCE = 24


def test_candidate_swapped_for_a_fifo_never_holds_the_scan(agent_root, servers):
    """Each pair of names is swapped between a program and a FIFO without pause while scans run;
    a scan that opened what it looked at as a program and got the FIFO would wait for ever."""
    libc = ctypes.CDLL(None, use_errno=True)
    pairs = []
    for i in range(8):
        program = agent_root.file(f"opt/swap/app{i}")
        program.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile("/bin/true", program)
        program.chmod(0o755)
        fifo = agent_root.file(f"opt/swap/pipe{i}")
        os.mkfifo(fifo)
        pairs.append((bytes(program), bytes(fifo)))
    server = servers({})
    agent_root.write_configuration(port=str(server.port), path="/")
    assert agent_root.run("-p").returncode == 0
    swapping = threading.Event()
    swapping.set()

    def swap():
        while swapping.is_set():
            for program, fifo in pairs:
                libc.renameat2(AT_FDCWD, program, AT_FDCWD, fifo, RENAME_EXCHANGE)

    swapper = threading.Thread(target=swap)
    swapper.start()
    ended = 0
    try:
        for _ in range(SWAP_SCANS):
            try:
                if agent_root.run("-s", timeout=30).returncode == 0:
                    ended += 1
            except subprocess.TimeoutExpired:
                break
    finally:
        swapping.clear()
        swapper.join()
    record("FIFO swapped in between look and open", f"{SWAP_SCANS} scans end",
           f"{ended} scans ended")
    assert ended == SWAP_SCANS


def start_daemon_with_descriptors(agent_root, descriptors: int) -> int:
    """Starts the daemon with soft and hard descriptor limits of `descriptors`, and without the
    capability that would let it raise the hard one; returns the daemon's pid."""
    libc = ctypes.CDLL(None, use_errno=True)

    def limit():
        libc.prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE, 0, 0, 0)
        resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))

    agent_root.trace.unlink(missing_ok=True)
    with open(agent_root.path / "run.out", "wb") as out:
        subprocess.run([AGENT_BIN], env=agent_root.environment(), stdout=out, stderr=out,
                       stdin=subprocess.DEVNULL, preexec_fn=limit, timeout=30, check=True)
    pids = wait_for(agent_root.daemon_pids)
    assert len(pids) == 1, pids
    assert wait_for(agent_root.trace.exists)
    return pids[0]


def test_deep_tree_is_scanned_with_64_descriptors(agent_root, servers):
    deep = agent_root.file("srv/" + "d/" * 300)
    deep.mkdir(parents=True)
    shutil.copyfile("/bin/true", deep / "bottom")
    (deep / "bottom").chmod(0o755)
    server = servers({"parameters": {"scan_start_ms": scan_start_ms(3), "scan_rule_type": 1,
                                     "scan_rule_value": 1, "max_delay": 1}})
    agent_root.write_configuration(port=str(server.port), path="/", trace_level="2")
    pid = start_daemon_with_descriptors(agent_root, 64)
    limits = pathlib.Path(f"/proc/{pid}/limits").read_text()
    most = 0

    def complete():
        nonlocal most
        try:
            most = max(most, len(os.listdir(f"/proc/{pid}/fd")))
        except OSError:
            pass
        return server.rows("SELECT id FROM inventories WHERE complete = 1")

    delivered = wait_for(complete, timeout=60, interval=0.002)
    names = [name for name, in server.rows("SELECT name FROM inventory_records")]
    agent_root.stop_daemon(pid)
    record("300-level tree, 64 descriptors", "scan ends, bottom found, <= 70 open",
           f"{'delivered' if delivered else 'not delivered'} {names}, at most {most} open")
    assert re.search(r"Max open files +64 +64 ", limits), limits
    assert delivered, agent_root.trace_text()[-3000:]
    assert names == ["bottom"]
    assert most <= 70
    assert "OK - Disks scan completes" in agent_root.trace_text()


def test_hard_links_stop_at_the_bound_on_records(agent_root, servers):
    program = agent_root.file("usr/bin/prog")
    program.parent.mkdir(parents=True)
    shutil.copyfile("/bin/true", program)
    program.chmod(0o755)
    for i in range(49):
        os.link(program, agent_root.file(f"usr/bin/link{i:02d}"))
    server = servers({})
    agent_root.write_configuration(port=str(server.port), path="/", max_scan_records="20")
    assert agent_root.run("-p").returncode == 0
    scanned = agent_root.run("-s")
    count, = server.rows("SELECT count(*) FROM inventory_records")[0]
    trace = agent_root.file("var/qsam/log/inventory.log").read_text()
    record("50 hard links, max_scan_records=20", "20 records and a WARNING",
           f"{count} records" + (", WARNING" if "WARNING - Scan stopped at 20" in trace else ""))
    assert scanned.returncode == 0, scanned
    assert count == 20
    assert "WARNING - Scan stopped at 20 records" in trace


# --- What a child of the agent inherits ----------------------------------------------------------
