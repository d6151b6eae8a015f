"""What the fault tests share: the daemon as a child of the test (so that its exit status is known),
the trace read as messages per thread, the rules by which a start loads or rejects each cache file,
cache files and inventories written by hand, and a reference server that can go down and come back
on its port."""
import ctypes
import json
import os
import pathlib
import signal
import sqlite3
import struct
import sys
import time
from contextlib import closing

from conftest import SOURCE_DIR, AgentRoot, scan_start_ms, wait_for  # noqa: F401 - for the suite
from test_caches import header, unknown_entry
from test_commands import server_record

sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

# A stop may wait kStopGraceSeconds (3) for each of three threads before it cancels one; anything
# beyond this bound is a hang.
STOP_BOUND = 15.0
HEADER_SIZE = 272
INVENTORY_RECORD_SIZE = 960
PR_SET_CHILD_SUBREAPER = 36


def set_subreaper(on: bool) -> None:
    """Makes orphaned descendants children of this process, so that a daemon (which its launcher
    leaves behind) can be waited for and its exit status read."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, int(on), 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")


def make_root(path: pathlib.Path) -> AgentRoot:
    for directory in ("etc", "var/qsam", "tmp"):
        (path / directory).mkdir(parents=True)
    return AgentRoot(path)


def end_all(root: AgentRoot, server: "FaultServer") -> None:
    """Kills whatever daemon of the root is left (a test that failed midway) and stops the
    server."""
    for pid in root.daemon_pids():
        os.kill(pid, signal.SIGKILL)
    server.stop()


class Daemon:
    """One daemon of a root, started and ended by the test."""

    def __init__(self, root: AgentRoot, ready: str = " - Starting monitor thread"):
        self.root = root
        # A start empties the trace; without the old one, what is read next is this run's.
        for name in ("traceagt.log", "traceagt.log.bck"):
            root.file(f"var/qsam/log/{name}").unlink(missing_ok=True)
        launcher = root.run()
        assert launcher.returncode == 0, launcher
        pids = wait_for(root.daemon_pids)
        assert len(pids) == 1, pids
        self.pid = pids[0]
        self.status = None  # exit code, or minus the signal number, once it ended
        assert wait_for(lambda: ready in root.trace_text() or self.ended(), timeout=60), \
            f"no {ready!r} in the trace"

    def ended(self) -> bool:
        if self.status is None:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid == self.pid:
                self.status = os.waitstatus_to_exitcode(status)
        return self.status is not None

    def crashed(self) -> str | None:
        """Why the daemon is gone although nobody stopped it, or None while it runs."""
        if not self.ended():
            return None
        return f"the daemon ended by itself with status {self.status}"

    def stop(self, bound: float = STOP_BOUND) -> str | None:
        """SIGTERM; None when the daemon exits with 0 within `bound` seconds, else what went
        wrong (it is killed then)."""
        if self.ended():
            return self.crashed()
        os.kill(self.pid, signal.SIGTERM)
        began = time.monotonic()
        if not wait_for(self.ended, timeout=bound, interval=0.01):
            self.kill()
            return f"hang: no exit {bound:.0f} s after SIGTERM"
        if self.status != 0:
            return f"exit status {self.status} after SIGTERM"
        self.stop_seconds = time.monotonic() - began
        return None

    def kill(self) -> bool:
        """SIGKILL; whether the daemon was still running when it came."""
        running = not self.ended()
        if running:
            os.kill(self.pid, signal.SIGKILL)
            assert wait_for(self.ended, timeout=30, interval=0.01)
        return running


def messages(trace: str) -> list[tuple[str, str]]:
    """(thread id, text) of every message of a trace, in order."""
    out = []
    tid = ""
    for line in trace.splitlines():
        if line.startswith("File: "):
            tid = line.rsplit("Tid: ", 1)[-1]
        elif line.startswith("  "):
            out.append((tid, line[2:]))
    return out


def failure_after(trace: str, progress: str, occurrence: int = 1,
                  marker: str | None = None) -> str | None:
    """The first error a thread traced after its line starting with `progress` (the
    `occurrence`-th of them; only threads that also trace a line starting with `marker`, when
    given, count) and before its next service exchange ("SRVCS - ... server: host"), or None."""
    entries = messages(trace)
    threads = {tid for tid, text in entries if marker is None or text.startswith(marker)}
    seen = 0
    thread = None
    for tid, text in entries:
        if thread is None:
            if text.startswith(progress) and tid in threads:
                seen += 1
                if seen == occurrence:
                    thread = tid
            continue
        if tid != thread:
            continue
        if text.startswith("ERROR") or text.startswith("error occurs"):
            return text
        if text.startswith("SRVCS - ") and "server" in text:  # the thread's next exchange
            return None
    return None


def header_state(data: bytes, version: tuple[int, int], server: str, full: bool = True) -> str:
    """How the validating open treats a file: "unreadable" (kept), "bad" (deleted) or "valid"."""
    if len(data) < 8:
        return "unreadable"
    if struct.unpack_from("<II", data) != version:
        return "bad"
    # The server name is compared over the configured name's length only.
    if full and (len(data) < HEADER_SIZE or data[16:16 + len(server)] != server.encode()):
        return "bad"
    return "valid"


def expected_loads(cache: pathlib.Path, server: str = "127.0.0.1") -> dict[str, str | None]:
    """The line the next start must trace for each cache file as it lies in `cache` now (None: no
    line about it): the loading rules of the caches, one file at a time."""
    def read(name):
        path = cache / name
        return path, (path.read_bytes() if path.exists() else None)

    out = {}
    path, data = read("catalog.dat")
    if data is None:
        out["catalog.dat"] = None
    elif header_state(data, (1, 2), server) != "valid" or len(data) < HEADER_SIZE + 4:
        out["catalog.dat"] = f"LAT - no Catalog file {path}"
    else:
        count, = struct.unpack_from("<i", data, HEADER_SIZE)
        body = len(data) - HEADER_SIZE - 4 - 20 * max(count, 0)
        if body < 0:
            out["catalog.dat"] = f"LAT - no Catalog file {path}"
        else:
            out["catalog.dat"] = (f"LAT - The catalog has been read from file {path}, "
                                  f"{max(count, 0)} comps, {body // 408} files")
    path, data = read("uat.dat")
    if data is None or header_state(data, (1, 3), server) != "valid":
        out["uat.dat"] = f"UAT - no Unknown Files file {path}"
    else:
        entries = (len(data) - HEADER_SIZE) // 684
        out["uat.dat"] = (f"UAT - The unknown file list has been read from file {path}, "
                          f"{entries} entries")
    path, data = read("server.dat")
    whole = False
    if data is not None and header_state(data, (1, 2), server) == "valid" and len(data) >= 280:
        division, enterprise = struct.unpack_from("<II", data, HEADER_SIZE)
        whole = len(data) >= 280 + 552 * (division + enterprise)
    out["server.dat"] = (f"SRV - The server list has been read from file {path}" if whole
                         else f"SRV CACHE - no Servers file {path}")
    path, data = read("scan.dat")
    out["scan.dat"] = None if data is None else f"INV - Inventory file {path} waits to be sent"
    return out


def load_mismatches(trace: str, expected: dict[str, str | None]) -> list[str]:
    """The cache files whose loading at the start traced in `trace` differs from `expected`."""
    texts = {text for _, text in messages(trace)}
    problems = []
    patterns = {"catalog.dat": ("LAT - The catalog has been read", "LAT - no Catalog file"),
                "uat.dat": ("UAT - The unknown file list", "UAT - no Unknown Files"),
                "server.dat": ("SRV - The server list", "SRV CACHE - no Servers file"),
                "scan.dat": ("INV - Inventory file",)}
    for name, line in expected.items():
        got = sorted(t for t in texts if t.startswith(patterns[name]) and name in t)
        if got != ([line] if line else []):
            problems.append(f"{name}: expected {line!r}, traced {got}")
    return problems


def inventory_record(name: str, size: int) -> bytes:
    """An inventory record as the scanner writes it: blank directory and texts."""
    texts = b"".join(b" ".ljust(size_, b"\0") for size_ in (401, 80, 40, 80, 83))
    return name.encode().ljust(256, b"\0") + struct.pack("<qIIi", size, 0, 0, 0) + texts


def scan_file(scan_time: int, records: list[tuple[str, int]]) -> bytes:
    return struct.pack("<I", scan_time) + b"".join(inventory_record(*r) for r in records)


def scan_records(data: bytes) -> list[tuple[str, int]]:
    out = []
    for at in range(4, len(data) - INVENTORY_RECORD_SIZE + 1, INVENTORY_RECORD_SIZE):
        name = data[at:at + 256].split(b"\0")[0].decode()
        out.append((name, struct.unpack_from("<q", data, at + 256)[0]))
    return out


def unknown_files_file(path: str, name: str, size: int) -> bytes:
    """uat.dat with one entry, added after the last upload (time 0)."""
    return header(1, 3, 0) + unknown_entry(name, size, path, int(time.time()))


def servers_file(host: str, port: int) -> bytes:
    """server.dat with one division server that does not respond, so that the pings go to it."""
    return header(1, 2, 0) + struct.pack("<ii", 1, 0) + server_record(host, "/", port, 0, 1)


class FaultServer:
    """The reference server on a port it keeps across a stop and a start, with a scenario that
    can be replaced while it runs."""

    def __init__(self, directory: pathlib.Path, scenario: dict, files: dict | None = None):
        directory.mkdir(parents=True)
        self.directory = directory
        self.scenario_path = directory / "scenario.json"
        if files:
            (directory / "files").mkdir()
            for name, text in files.items():
                (directory / "files" / name).write_text(text)
        self.server = None
        self.port = 0
        self.scenario = scenario
        self.scenario_path.write_text(json.dumps(scenario))
        self.start()

    def start(self) -> None:
        self.server = RuntimeServer(str(self.directory), str(self.scenario_path), self.port).start()
        self.port = self.server.port

    def stop(self) -> None:
        if self.server is not None:
            self.server.stop()
            self.server = None

    def set_scenario(self, scenario: dict) -> None:
        self.scenario = scenario
        self.scenario_path.write_text(json.dumps(scenario))
        if self.server is not None:
            self.server.reload()

    def rows(self, query: str, *args) -> list:
        with closing(sqlite3.connect(self.directory / "server.db", timeout=30)) as db:
            return db.execute(query, args).fetchall()

    def requests(self, service: str) -> int:
        return self.rows("SELECT COUNT(*) FROM requests WHERE service = ?", service)[0][0]

    def inventory(self, scan_time_s: int) -> tuple[bool, set] | None:
        """(complete, distinct (name, size) records) of the inventory of that scan, or None."""
        rows = self.rows("SELECT id, complete FROM inventories WHERE scan_time = ?",
                         scan_time_s * 1000)
        if not rows:
            return None
        (inventory_id, complete), = rows
        records = self.rows("SELECT DISTINCT name, size FROM inventory_records"
                            " WHERE inventory_id = ?", inventory_id)
        return bool(complete), set(records)


# Every byte but the digits (a plug-in answer that began with one would read as a node id), then
# pieces of the framing in the wrong places; a NUL among them.
GARBAGE = "".join(chr(c) for c in range(1, 256) if chr(c) not in "0123456789") * 3 + \
    "\r\n|<response:|\r\n\0<files>\r\n12|x|\r\n" * 8
# What the server does for each kind of fault (a server that is down is stopped instead).
FAULTS = {
    "close": {"close_at": 0.5},
    "garbage": {"payload": GARBAGE, "trailer": ""},
    "version": {"scp_version": "1.1.0"},
    "slow": {"delay": 200},  # past the agent's read time-out of 180 seconds
}


def trace_has(root: AgentRoot, text: str):
    return lambda: text in root.trace_text()
