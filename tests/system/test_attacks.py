"""Attacks on the agent as root, each tried against the real daemon and the reference server: the
way in must stay shut. Every case records what it expected and what it saw; the table goes to
"attack-report.txt" beside the binary under test, so a run shows the whole suite at a glance."""
import ctypes
import json
import os
import pathlib
import re
import resource
import shutil
import stat
import struct
import subprocess
import threading

import pytest

from conftest import AGENT_BIN, scan_start_ms, wait_for
from test_caches import catalog_file, component, header, unknown_entry
from test_commands import (Server, cache_file, catalog_contents, run_agent, seed_cache,  # noqa: F401
                           servers, traced)
# test_commands has put the reference server's package on the import path.
from runtime_server.catalog import Catalog  # noqa: E402

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

def offer_update(agent_root, files_root: pathlib.Path, command: str, files: list[str]) -> dict:
    """A scenario offering a new agent made of `files` (served signed from `files_root`) with the
    installation command line `command`."""
    return {"parameters": {"update_enabled": "yes", "max_update_period": 2},
            "new_agent": {"command": command, "files": files},
            "downloads": {"root": str(files_root), "sign": True}}


def publish(files_root: pathlib.Path, relative: str, text: str, mode: int = 0o644) -> None:
    path = files_root / relative.lstrip("/")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(mode)


def test_an_injected_install_command_runs_nothing(agent_root, servers, tmp_path):
    marker = agent_root.path / "owned"
    qsam = agent_root.file("tmp/qsam")
    files = tmp_path / "files"
    # The signed installer itself only fails, so that the agent comes back after a launch.
    publish(files, "pkg/install.sh", "#!/bin/sh\nexit 3\n")
    publish(files, "pkg/install.sh x", "signed, but not the program named")
    # A stale program from an earlier update, never verified for this one.
    qsam.mkdir(mode=0o700)
    (qsam / "install.sh").write_text(f"#!/bin/sh\ntouch {marker}\n")
    (qsam / "install.sh").chmod(0o700)
    cases = [
        ("semicolon", f"{qsam}/install.sh -q;touch {marker}", ["/pkg/install.sh"],
         "word 2 '-q;touch'"),
        ("pipe", f"{qsam}/install.sh -q|touch {marker}", ["/pkg/install.sh"], "word 2 '-q|touch'"),
        ("command substitution", f"{qsam}/install.sh $(touch {marker})", ["/pkg/install.sh"],
         "word 2 '$(touch'"),
        ("backticks", f"{qsam}/install.sh `touch {marker}`", ["/pkg/install.sh"],
         "word 2 '`touch'"),
        ("newline", f"{qsam}/install.sh -q\ntouch {marker}", ["/pkg/install.sh"], "word 2 '-q"),
        ("not a verified file", f"/usr/bin/touch {marker}", ["/pkg/install.sh"],
         "its program '/usr/bin/touch' is not one of the files downloaded"),
        ("program name with a blank", f"{qsam}/install.sh x", ["/pkg/install.sh x"],
         f"its program '{qsam}/install.sh' is not one of the files downloaded"),
    ]
    server = servers(offer_update(agent_root, files, "", ["/pkg/install.sh"]))
    scenario_path = server.directory / "scenario.json"
    pid = None
    outcomes = []
    for name, command, offered, rule in cases:
        scenario_path.write_text(json.dumps(offer_update(agent_root, files, command, offered)))
        server.server.reload()
        refused = traced(agent_root, "ERROR - Update command refused: " + rule)
        if pid is None:
            pid = run_agent(agent_root, server)
        seen = bool(wait_for(lambda: refused() or marker.exists(), timeout=20)) and refused()
        ran = marker.exists()
        marker.unlink(missing_ok=True)
        record(f"install command: {name}", "refused, nothing runs",
               ("refused" if seen else "not refused") + (", marker made" if ran else ""))
        outcomes.append((name, seen, ran))
    assert [o for o in outcomes if not o[1] or o[2]] == []
    assert "Launching" not in agent_root.trace_text()
    assert agent_root.daemon_pids() == [pid]


# --- The temporary directory and planted links ---------------------------------------------------

NOBODY = 65534


def plant_foreign_directory(agent_root, victim: pathlib.Path) -> None:
    """A user's own /tmp/qsam, open to all, with a link at the installer's name."""
    qsam = agent_root.file("tmp/qsam")
    qsam.mkdir()
    (qsam / "install.sh").symlink_to(victim)
    os.lchown(qsam / "install.sh", NOBODY, NOBODY)
    os.chown(qsam, NOBODY, NOBODY)
    qsam.chmod(0o755)


def plant_link(agent_root, victim: pathlib.Path) -> None:
    """/tmp/qsam as a link to a directory the user owns, holding a link at the installer's name."""
    theirs = agent_root.file("home/user/qsam")
    theirs.mkdir(parents=True)
    (theirs / "install.sh").symlink_to(victim)
    os.chown(theirs, NOBODY, NOBODY)
    agent_root.file("tmp/qsam").symlink_to(theirs)


@pytest.mark.parametrize("plant", [plant_foreign_directory, plant_link],
                         ids=["made by a user", "a link"])
def test_a_users_temporary_directory_is_not_used(agent_root, servers, tmp_path, plant):
    victim = agent_root.file("etc/shadow")
    victim.write_text("root:secret\n")
    victim.chmod(0o600)
    plant(agent_root, victim)
    files = tmp_path / "files"
    publish(files, "pkg/install.sh", f"#!/bin/sh\necho ran >> {agent_root.path}/installed\n")
    qsam = agent_root.file("tmp/qsam")
    server = servers(offer_update(agent_root, files, f"{qsam}/install.sh", ["/pkg/install.sh"]))
    run_agent(agent_root, server)
    ran = wait_for(lambda: agent_root.file("installed").exists(), timeout=30)
    status = os.lstat(qsam)
    landed = (stat.S_ISDIR(status.st_mode) and status.st_uid == 0
              and stat.S_IMODE(status.st_mode) == 0o700)
    untouched = victim.read_text() == "root:secret\n"
    record(f"temporary directory {plant.__name__.split('_', 1)[1].replace('_', ' ')}",
           "moved aside; victim untouched; download in a root-only directory",
           f"victim {'untouched' if untouched else 'overwritten'}; "
           f"directory {'root-only' if landed else 'foreign'}; installer {'ran' if ran else 'not run'}")
    assert untouched
    assert landed
    assert "WARNING - " + str(qsam) + " is not a directory only the agent can use" in \
        agent_root.trace_text()
    assert ran


# --- Answers too large or too slow ---------------------------------------------------------------

LIE = 2_000_000_000  # a Content-Length for an answer of ten bytes
MIB = 1 << 20


def memory_kib(pid: int) -> dict:
    """VmRSS, VmHWM and VmPeak of the process, in KiB."""
    fields = {}
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        name, _, value = line.partition(":")
        if name in ("VmRSS", "VmHWM", "VmPeak"):
            fields[name] = int(value.split()[0])
    return fields


def growth_kib(before: dict, after: dict) -> tuple[int, int]:
    """(resident growth, peak virtual growth): the resident set's high-water mark, or its current
    size, above where it stood; the peak of the address space above its earlier peak."""
    resident = max(after["VmHWM"] - before["VmHWM"], after["VmRSS"] - before["VmRSS"])
    return resident, after["VmPeak"] - before["VmPeak"]


def attacked(agent_root, server, pid: int, requested, refusal: str) -> tuple[dict, dict, bool]:
    """Memory before the held answer arrives (once the server logged the request) and after the
    daemon refused it (or gave up waiting for the refusal), and whether it refused."""
    assert wait_for(requested, timeout=30)
    before = memory_kib(pid)
    refused = wait_for(traced(agent_root, refusal), timeout=30)
    return before, memory_kib(pid), bool(refused)


@pytest.mark.parametrize("target", ["service", "download"])
def test_huge_length_with_a_tiny_body_is_refused(agent_root, servers, tmp_path, target):
    lie = {"payload": "0123456789", "content_length": LIE, "delay": 2}
    if target == "service":
        scenario = {"services": {"catalog": dict(lie, trailer="")}}
        refusal = f"ERROR - Answer of service 3 over its limit of {256 * MIB} bytes ({LIE} announced)"
        requested = lambda: server.requests("3")  # noqa: E731
    else:
        (tmp_path / "files/pkg").mkdir(parents=True)
        (tmp_path / "files/pkg/kvdagent").write_bytes(b"\x7fELF new agent")
        scenario = {"parameters": {"update_enabled": "yes", "max_update_period": 2},
                    "new_agent": {"command": f"{agent_root.path}/tmp/qsam/kvdagent",
                                  "files": ["/pkg/kvdagent"]},
                    "downloads": {"root": str(tmp_path / "files"), "sign": True,
                                  "faults": {"/pkg/kvdagent": lie}}}
        refusal = (f"ERROR - Answer of /pkg/kvdagent over its limit of {256 * MIB} bytes "
                   f"({LIE} announced)")
        requested = lambda: server.rows("SELECT id FROM requests WHERE method = 'GET'")  # noqa: E731
    server = servers(scenario)
    pid = run_agent(agent_root, server)
    before, after, refused = attacked(agent_root, server, pid, requested, refusal)
    resident, peak = growth_kib(before, after)
    alive = agent_root.daemon_pids() == [pid]
    record(f"2 GB length, 10-byte {target}", "refused, RSS < 10 MiB, no 2 GB reserved, up",
           f"{'refused' if refused else 'not refused'}, RSS +{resident} KiB, "
           f"peak +{peak // 1024} MiB, {'up' if alive else 'down'}")
    assert refused, agent_root.trace_text()[-3000:]
    assert resident < 10 * 1024
    assert peak < 1024 * 1024  # nothing near the announced length was even reserved
    assert alive
    if target == "download":
        assert not agent_root.file("tmp/qsam/kvdagent").exists()
    agent_root.stop_daemon(pid)


def generated_catalog_bytes(files: int) -> int:
    """The body of the reference server's catalog answer with `files` generated files."""
    length = Catalog.from_config({"generate": {"files": files, "components": 1}}).increment(0)[0]
    return length + len(b"<response:0,0:ok>\r\n")


def test_catalog_one_line_over_its_limit_is_refused(agent_root, servers):
    # The fewest generated files whose answer is over 1 MiB: one line fewer fits.
    low, high = 1, 100_000
    while low < high:
        middle = (low + high) // 2
        low, high = (middle + 1, high) if generated_catalog_bytes(middle) <= MIB else (low, middle)
    files = low
    assert generated_catalog_bytes(files - 1) <= MIB < generated_catalog_bytes(files)
    # A catalog already there, which the refused one must leave as it is; not a first plug-in,
    # which would empty it.
    seed_cache(agent_root, "catalog.dat", header(1, 2, 5) + struct.pack("<i", 1) +
               component(12, (1, 0, 2)) + catalog_file("App.exe", 4096, (1, -2), [12]))
    kept = catalog_contents(cache_file(agent_root, "catalog.dat"))
    server = servers({"plugin": {"first_result": 0},
                      "catalog": {"generate": {"files": files, "components": 1}},
                      "services": {"catalog": {"delay": 2}}})
    agent_root.write_configuration(port=str(server.port), trace_level="3", max_catalog_mb="1")
    pid = agent_root.start_daemon()
    refusal = (f"ERROR - Answer of service 3 over its limit of {MIB} bytes "
               f"({generated_catalog_bytes(files)} announced)")
    before, after, refused = attacked(agent_root, server, pid, lambda: server.requests("3"),
                                      refusal)
    resident, _ = growth_kib(before, after)
    stored = "OK - Catalog stored" in agent_root.trace_text()
    agent_root.stop_daemon(pid)
    unchanged = catalog_contents(cache_file(agent_root, "catalog.dat")) == kept
    record("catalog 1 MiB + 1 line, limit 1 MiB", "refused, catalog.dat kept, RSS < 10 MiB",
           f"{'refused' if refused else 'not refused'}, catalog.dat "
           f"{'kept' if unchanged else 'changed'}{', stored' if stored else ''}, "
           f"RSS +{resident} KiB")
    assert refused, agent_root.trace_text()[-3000:]
    assert not stored
    assert unchanged
    assert resident < 10 * 1024



# --- Hostile file names --------------------------------------------------------------------------

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

def test_the_installer_inherits_only_standard_streams_and_a_fixed_environment(
        agent_root, servers, tmp_path):
    report = agent_root.path / "child.json"
    files = tmp_path / "files"
    # It looks at every descriptor number it could have, without opening one of its own.
    publish(files, "pkg/install.py", f"""#!/usr/bin/python3
import json, os
def is_open(fd):
    try:
        os.fstat(fd)
        return True
    except OSError:
        return False
open_fds = [fd for fd in range(0, 4096) if is_open(fd)]
with open("{report}", "w") as out:
    json.dump({{"fds": open_fds, "env": dict(os.environ)}}, out)
""")
    qsam = agent_root.file("tmp/qsam")
    server = servers(offer_update(agent_root, files, f"{qsam}/install.py", ["/pkg/install.py"]))
    run_agent(agent_root, server)
    assert wait_for(lambda: report.exists() and report.read_text().endswith("}"), timeout=30)
    child = json.loads(report.read_text())
    inherited = child["fds"]
    names = sorted(child["env"])
    record("installer's descriptors and environment", "0-2; PATH and LANG only",
           f"{inherited}; " + (", ".join(names) if len(names) < 5 else f"{len(names)} variables"))
    assert inherited == [0, 1, 2]
    assert child["env"] == {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
