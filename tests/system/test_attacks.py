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

import struct  # noqa: E402

from runtime_server.catalog import Catalog  # noqa: E402
from test_caches import catalog_file, component, header  # noqa: E402
from test_commands import cache_file, catalog_contents, seed_cache  # noqa: E402

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


# --- The scanner: FIFOs, deep trees, descriptors -------------------------------------------------


# --- What a child of the agent inherits ----------------------------------------------------------
