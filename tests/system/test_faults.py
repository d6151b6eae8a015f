"""Faults around the real daemon: SIGKILL at random moments of a scan, of an inventory send and of
a catalog store; a full file system under the cache directory; and a reference server that is down,
slow past the agent's read time-out, closes mid-answer, answers garbage or a wrong protocol version
at every service and download the daemon uses.

The daemons are children of the test (a subreaper), so a crash shows as an exit by a signal or with
a non-zero status, and a hang as no exit within STOP_BOUND seconds of SIGTERM. After every kill the
next start must load or reject each cache file as the loading rules say (faultlib.expected_loads).

Time: a slow server is given up only after the agent's read time-out of 180 seconds, so the
server-fault campaign runs on threads from the first test of this module on, while the SIGKILL runs
and the full-disk test go on in the foreground; its tests, at the end, only wait for it and check
what it found. The kill runs are random but seeded: the seed is printed, and SLM_FAULT_SEED=<seed>
replays them (SLM_FAULT_RUNS sets the runs per kind, 50). The figures go to stdout (-s) and, when
SLM_FAULT_REPORT names a file, into it."""
import os
import pathlib
import random
import shutil
import signal
import struct
import subprocess
import threading
import time

import pytest

from faultlib import (FAULTS, Daemon, FaultServer, end_all, expected_loads, failure_after,
                      load_mismatches, make_root, messages, scan_file, scan_start_ms, servers_file,
                      set_subreaper, trace_has, unknown_files_file)
from conftest import wait_for

SEED = int(os.environ.get("SLM_FAULT_SEED") or time.time_ns() % 2**32)
RUNS = int(os.environ.get("SLM_FAULT_RUNS", "50"))
# Figures lines by kind of kill and of server fault, printed at the end of the module.
FIGURES = {}
SERVER_FIGURES = {}


@pytest.fixture(scope="module", autouse=True)
def children():
    """Daemons become children of the test, which reaps whatever has ended by the end."""
    set_subreaper(True)
    yield
    set_subreaper(False)
    try:
        while os.waitpid(-1, os.WNOHANG)[0] > 0:
            pass
    except ChildProcessError:
        pass


@pytest.fixture(scope="module", autouse=True)
def figures_report():
    print(f"\nfault seed {SEED} (replay with SLM_FAULT_SEED={SEED})")
    yield
    lines = []
    if FIGURES:
        lines += ["fault kind | runs | kills that hit a running daemon | crashes | hangs |"
                  " inventories lost | caches wrong"] + [FIGURES[k] for k in sorted(FIGURES)]
    if SERVER_FIGURES:
        lines += ["server fault | services | failure not traced as the rules say | not recovered"
                  " | crashes or hangs | caches wrong"]
        lines += [SERVER_FIGURES[k] for k in sorted(SERVER_FIGURES)]
    if not lines:
        return
    print("\n" + "\n".join(lines))
    if os.environ.get("SLM_FAULT_REPORT"):
        with open(os.environ["SLM_FAULT_REPORT"], "w") as report:
            report.write(f"seed {SEED}\n" + "\n".join(lines) + "\n")


class KillRuns:
    """The figures of one kind of kill, and the checks every run shares."""

    def __init__(self, kind: str, root, server: FaultServer):
        self.kind, self.root, self.server = kind, root, server
        self.rng = random.Random(f"{SEED}-{kind}")
        self.cache = root.file("var/qsam/cache")
        self.runs = self.hits = self.crashes = self.hangs = self.lost = self.wrong = 0
        self.problems = []

    def note(self, counter: str, what: str) -> None:
        setattr(self, counter, getattr(self, counter) + 1)
        # The trace of the run is kept beside the root, for a look after the test.
        kept = self.root.path.parent / f"trace-run{self.runs}-{len(self.problems)}.log"
        if self.root.trace.exists():
            shutil.copyfile(self.root.trace, kept)
        self.problems.append(f"run {self.runs}: {what} (trace {kept})")

    def kill(self, daemon: Daemon) -> None:
        if daemon.kill():
            self.hits += 1
        elif daemon.status != 0:
            self.note("crashes", daemon.crashed())

    def restart(self) -> Daemon:
        """The start after a kill: every cache file is loaded or rejected as the rules say."""
        expected = expected_loads(self.cache)
        daemon = Daemon(self.root)
        # The inventory thread tells of a waiting scan a moment after the start.
        wait_for(lambda: not load_mismatches(self.root.trace_text(), expected), timeout=5)
        for problem in load_mismatches(self.root.trace_text(), expected):
            self.note("wrong", problem)
        return daemon

    def stop(self, daemon: Daemon) -> None:
        problem = daemon.stop()
        if problem:
            self.note("hangs" if problem.startswith("hang") else "crashes", problem)

    def finish(self, lost_applies: bool = True) -> None:
        lost = self.lost if lost_applies else "-"
        FIGURES[self.kind] = (f"{self.kind} | {self.runs} | {self.hits} | {self.crashes} | "
                              f"{self.hangs} | {lost} | {self.wrong}")
        print(FIGURES[self.kind])
        assert (self.crashes, self.hangs, self.lost, self.wrong) == (0, 0, 0, 0), \
            f"seed {SEED}: " + "; ".join(self.problems[:10])


def configure(root, server, **overrides):
    root.write_configuration(port=str(server.port), path="/", trace_level="1", **overrides)


def test_sigkill_during_an_inventory_send(tmp_path):
    root = make_root(tmp_path / "root")
    records = [(f"prog{i:04d}", 1000 + i) for i in range(600)]
    server = FaultServer(tmp_path / "server", {
        "parameters": {"packet_size": 10, "max_delay": 1, "scan_start_ms": scan_start_ms(86400)}})
    runs = KillRuns("SIGKILL during an inventory send", root, server)
    configure(root, server)
    scan = root.file("var/qsam/cache/scan.dat")
    scan.parent.mkdir(parents=True)
    scan_time = int(time.time()) - 100_000
    try:
        # One send whole, to learn how long a send takes.
        scan.write_bytes(scan_file(scan_time, records))
        daemon = Daemon(root)
        assert wait_for(trace_has(root, "INV - Sending inventory to server"), interval=0.005)
        began = time.monotonic()
        assert wait_for(lambda: not scan.exists(), timeout=60, interval=0.005)
        send_seconds = time.monotonic() - began
        runs.stop(daemon)
        assert server.inventory(scan_time) == (True, set(records))

        for runs.runs in range(1, RUNS + 1):
            scan_time += 1
            scan.write_bytes(scan_file(scan_time, records))
            target = Daemon(root)
            assert wait_for(trace_has(root, "INV - Sending inventory to server"), interval=0.005)
            time.sleep(runs.rng.uniform(0, send_seconds))  # the random moment of the kill
            runs.kill(target)
            if not scan.exists() and server.inventory(scan_time) != (True, set(records)):
                runs.note("lost", f"scan {scan_time} neither on disk nor delivered")
            verify = runs.restart()
            # Whatever was cut short is delivered whole by the next start.
            if not wait_for(lambda: not scan.exists(), timeout=30) or \
                    server.inventory(scan_time) != (True, set(records)):
                runs.note("lost", f"scan {scan_time} not delivered after the restart")
            runs.stop(verify)
    finally:
        end_all(root, server)
    runs.finish()


def place_executables(root, count: int) -> set:
    """`count` executables under /opt of the root, hard links of one program; their records."""
    program = root.file("opt/program")
    program.parent.mkdir(parents=True)
    shutil.copyfile("/bin/true", program)
    program.chmod(0o755)
    for i in range(count):
        link = root.file(f"opt/d{i % 40:02d}/p{i:05d}")
        link.parent.mkdir(exist_ok=True)
        os.link(program, link)
    size = program.stat().st_size
    return {(f"p{i:05d}", size) for i in range(count)} | {("program", size)}


def test_sigkill_during_a_scan(tmp_path):
    root = make_root(tmp_path / "root")
    expected = place_executables(root, 3000)
    parameters = {"max_delay": 1, "scan_rule_type": 1, "scan_rule_value": 1, "packet_size": 500}
    server = FaultServer(tmp_path / "server", {})
    runs = KillRuns("SIGKILL during a scan", root, server)
    configure(root, server)
    scan = root.file("var/qsam/cache/scan.dat")

    def scan_soon() -> Daemon:
        """A daemon whose scan has begun. Scans start on whole seconds: the next but one after
        the start, unless the parameters came too late for it on a busy machine (then again)."""
        for _ in range(5):
            server.set_scenario({"parameters": dict(parameters, scan_start_ms=scan_start_ms(0.3))})
            asked = server.requests("8")
            daemon = Daemon(root)
            assert wait_for(lambda: server.requests("8") > asked, interval=0.005)
            server.set_scenario({"parameters": dict(parameters,
                                                    scan_start_ms=scan_start_ms(86400))})
            if wait_for(trace_has(root, "INV - Scanning Disks for inventory"), timeout=3,
                        interval=0.005):
                return daemon
            daemon.kill()
        raise AssertionError("no scan began")

    counted = set()

    def delivered() -> list:
        """The scans the server holds that are not whole, each once: every scan delivered must be
        complete and hold every executable."""
        bad = []
        for (scan_time,) in server.rows("SELECT scan_time FROM inventories"):
            complete, records = server.inventory(scan_time // 1000)
            if (not complete or records != expected) and scan_time not in counted:
                counted.add(scan_time)
                bad.append((scan_time // 1000, complete, records))
        return bad

    try:
        # One scan whole, to learn how long a scan and the writing of its result take.
        daemon = scan_soon()
        began = time.monotonic()
        assert wait_for(scan.exists, timeout=60, interval=0.005)
        scan_seconds = time.monotonic() - began
        assert wait_for(lambda: not scan.exists(), timeout=60)
        runs.stop(daemon)
        assert delivered() == []

        for runs.runs in range(1, RUNS + 1):
            target = scan_soon()
            time.sleep(runs.rng.uniform(0, scan_seconds * 1.2))  # the random moment of the kill
            runs.kill(target)
            waiting = scan.exists()
            verify = runs.restart()
            # A scan that was written is delivered whole by the next start; none is cut.
            if waiting and not wait_for(lambda: not scan.exists(), timeout=30):
                runs.note("lost", "the written scan was not delivered after the restart")
            for scan_time, complete, records in delivered():
                runs.note("lost", f"scan {scan_time} delivered with {len(records)} of "
                                  f"{len(expected)} records, complete {complete}")
            runs.stop(verify)
    finally:
        end_all(root, server)
    runs.finish()


def test_sigkill_during_a_catalog_store(tmp_path):
    root = make_root(tmp_path / "root")
    server = FaultServer(tmp_path / "server", {"catalog": {"generate": {"files": 20000,
                                                                        "components": 5}}})
    runs = KillRuns("SIGKILL during a catalog store", root, server)
    configure(root, server)
    whole = (f"LAT - The catalog has been read from file {runs.cache}/catalog.dat, "
             "5 comps, 20000 files")
    try:
        # The catalog downloaded and stored whole once. Each clean stop tells how long a stop
        # with it takes now; the next kill comes within that time.
        daemon = Daemon(root)
        assert wait_for(trace_has(root, "OK - Catalog stored, update time"), timeout=60)
        runs.stop(daemon)
        assert expected_loads(runs.cache)["catalog.dat"] == whole
        stored = (runs.cache / "catalog.dat").read_bytes()

        for runs.runs in range(1, RUNS + 1):
            target = Daemon(root)
            os.kill(target.pid, signal.SIGTERM)
            time.sleep(runs.rng.uniform(0, daemon.stop_seconds))  # the random moment of the kill
            runs.kill(target)
            left = expected_loads(runs.cache)["catalog.dat"]
            verify = runs.restart()
            runs.stop(verify)
            daemon = verify if hasattr(verify, "stop_seconds") else daemon
            if left != whole:
                # A catalog cut short loses files for good: the next download asks only for what
                # changed since the time in its header. The next run starts from the whole one.
                runs.note("wrong", f"the catalog is no longer whole: {left}")
                (runs.cache / "catalog.dat").write_bytes(stored)
    finally:
        end_all(root, server)
    runs.finish(lost_applies=False)


def cpu_seconds(pid: int) -> float:
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@pytest.fixture
def full_cache(tmp_path):
    """A root whose cache directory is a small file system of its own (the trace stays on the
    disk), and a function that fills it up; unmounted whatever happens."""
    root = make_root(tmp_path / "root")
    cache = root.file("var/qsam/cache")
    cache.mkdir()
    if os.geteuid() != 0:
        pytest.skip("mounting a file system needs root")
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m,mode=0700", "tmpfs",
                              str(cache)], capture_output=True, text=True)
    if mounted.returncode != 0:
        pytest.skip(f"mount not permitted here: {mounted.stderr.strip()}")

    def fill():
        filler = os.open(cache / "filler", os.O_WRONLY | os.O_CREAT, 0o600)
        try:
            for block in (65536, 4096, 1):
                try:
                    while os.write(filler, b"\0" * block):
                        pass
                except OSError:
                    pass
        finally:
            os.close(filler)

    try:
        yield root, fill
    finally:
        for pid in root.daemon_pids():
            os.kill(pid, signal.SIGKILL)
        if subprocess.run(["umount", str(cache)]).returncode != 0:
            subprocess.run(["umount", "-l", str(cache)])


def test_full_cache_file_system(full_cache, tmp_path):
    root, fill = full_cache
    cache = root.file("var/qsam/cache")
    catalog = {"update_time": 1700000000000,
               "files": [[f"known{i}", 5000 + i, 0, 0, [1]] for i in range(300)],
               "components": [[1, 0, 0, 0]]}
    probe = root.file("opt/tools/probe")
    probe.parent.mkdir(parents=True)
    shutil.copyfile("/bin/true", probe)
    probe.chmod(0o755)
    server = FaultServer(tmp_path / "server", {"catalog": catalog})
    root.write_configuration(port=str(server.port), path="/", trace_level="2")
    try:
        # With room: the caches are written at the stop.
        daemon = Daemon(root)
        assert wait_for(trace_has(root, "OK - Catalog stored"), timeout=30)
        assert daemon.stop() is None
        stored = {p.name: p.read_bytes() for p in cache.iterdir()}
        assert {"catalog.dat", "uat.dat", "server.dat"} <= stored.keys()

        # An older scan waits, its send put off past the next scan.
        old_scan = int(time.time()) - 3600
        (cache / "scan.dat").write_bytes(scan_file(old_scan, INVENTORY[:5]))
        agent = bytearray((cache / "agent.dat").read_bytes())
        struct.pack_into("<i", agent, 4, 20)
        (cache / "agent.dat").write_bytes(bytes(agent))

        # Full: a scan whose result cannot be written, then a stop whose stores fail.
        fill()
        server.set_scenario({"catalog": catalog, "parameters": {
            "scan_start_ms": scan_start_ms(1), "scan_rule_type": 1, "scan_rule_value": 1,
            "max_delay": 1, "upload_min_time": 1, "catalog_period": 1}})
        daemon = Daemon(root)
        assert wait_for(trace_has(root, "ERROR - Some problems saving inventory file"), timeout=30)
        # The older scan went with the new one that could not be written: it must never pass for
        # this scan's result.
        assert wait_for(trace_has(root, f"WARNING - Older inventory file {cache}/scan.dat removed"))
        assert not (cache / "scan.dat").exists()
        fill()  # what the older scan took is taken again
        catalogs = server.requests("3")
        # It goes on: the commands run, and a program started is still looked up and reported.
        monitored = "OK - Monitoring with the built-in exec monitor" in root.trace_text()
        if monitored:
            subprocess.run([str(probe)], check=True)
            assert wait_for(lambda: server.rows("SELECT name FROM unknown_files") == [("probe",)],
                            timeout=30), root.trace_text()[-3000:]
        assert wait_for(lambda: server.requests("3") > catalogs, timeout=30)
        # An observation window: a daemon that spins on the failed write burns its CPU here.
        before = cpu_seconds(daemon.pid)
        time.sleep(3)
        assert cpu_seconds(daemon.pid) - before < 0.5
        assert daemon.stop() is None
        texts = {text for _, text in messages(root.trace_text())}
        # Nothing is left waiting, so nothing is tried to be sent.
        assert "ERROR - Opening inventory file for sending" not in texts
        assert f"ERROR - Writing server list to file {cache}/server.dat" in texts
        assert f"ERROR - Writing unknown file list to file {cache}/uat.dat" in texts
        # Every failed store kept the file written with room, and left nothing beside it
        # (agent.dat is changed in place, which a full disk allows).
        left = {p.name: p.read_bytes() for p in cache.iterdir() if p.name != "filler"}
        assert left.keys() == stored.keys()
        assert {n: d for n, d in left.items() if n != "agent.dat"} == \
            {n: d for n, d in stored.items() if n != "agent.dat"}

        # Room again: the next start reads those files as they are.
        (cache / "filler").unlink()
        expected = expected_loads(cache)
        daemon = Daemon(root)
        assert wait_for(lambda: not load_mismatches(root.trace_text(), expected), timeout=10), \
            load_mismatches(root.trace_text(), expected)
        assert daemon.stop() is None
        # The server never received the older scan, and nothing of it is left.
        assert server.rows("SELECT COUNT(*) FROM inventories") == [(0,)]
        assert not (cache / "scan.dat").exists()
    finally:
        server.stop()


# The server-fault campaign. Each service: the run of a chain of starts in which the fault hits it
# (1: enrolment, 2: after the plug-in, 3: after the parameters, 4: with self-update on), the
# server's name for it (with the request a slow answer holds), where its exchange begins in the
# trace (which occurrence, in the thread that traces the marker), and what shows it worked.
SERVICES = {
    "driver": (1, "/drivers.conf", ("kernel configuration file", 1, None),
               "No KE drivers available for this system"),
    "plugin": (1, "plugin", ("SRVCS - Plugging in on server", 1, None), "OK - Plug"),
    "node": (2, "plugin", ("SRVCS - Plugging in on server", 2, None), "OK - Plugged, agent node"),
    "parameters": (2, "parameters", ("SRVCS - Parameters from server", 1, None), None),
    "catalog": (3, "catalog", ("SRVCS - Catalog from server", 1, None),
                "OK - Catalog stored, update time"),
    "topology": (3, "topology", ("SRVCS - Topology from server", 1, None), "OK - Topology updated"),
    "ping": (3, "ping", ("SRVCS - Pinging server", 1, None), "OK - Pinged 1 servers"),
    "unknown_files": (3, "unknown_files", ("SRVCS - Upload to server", 1, "OK - Plug"),
                      "OK - Upload successfull"),
    "inventory": (3, "inventory", ("SRVCS - Upload to server", 1, "INV - "), None),
    "new_agent": (4, "new_agent", ("SRVCS - Agent from server", 1, None),
                  "OK - No new agents found"),
}
KINDS = ("down", "slow", "close", "garbage", "version")
# An answer the rules make usable: a ping reads only the head of its answer.
ANSWERED = {("garbage", "ping")}
# A fault that does not exist: a plain download carries no protocol version.
NOT_APPLICABLE = {("version", "driver")}
DRIVERS_CONF = "1.1.1.51,Linux,2.4.18,x86,*,YES=/drivers/kvdkagent-2418.o\n"
INVENTORY = [(f"packed{i:02d}", 2000 + i) for i in range(30)]


class Chain:
    """A root and a server on which a run of starts meets one kind of fault."""

    def __init__(self, directory: pathlib.Path, kind: str):
        self.kind = kind
        self.root = make_root(directory / "root")
        self.cache = self.root.file("var/qsam/cache")
        self.cache.mkdir()
        # The kernel's device list, without agent drivers: the start goes on to the download.
        self.root.file("proc").mkdir()
        self.root.file("proc/devices").write_text("Character devices:\n  1 mem\n\nBlock devices:\n")
        self.server = FaultServer(directory / "server", {}, {"drivers.conf": DRIVERS_CONF})
        self.root.write_configuration(port=str(self.server.port), path="/", trace_level="2",
                                      driver_conf_file="/drivers.conf", exec_monitor="auto")
        self.problems = []  # of the whole chain: crashes, hangs, caches loaded against the rules
        self.scan_time = int(time.time()) - 50_000

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end_all(self.root, self.server)

    def scenario(self, run: int, faults: dict) -> dict:
        """The scenario of a run; `faults` maps a service's server name to its behaviour."""
        parameters = {}
        if run >= 3:
            parameters = {"scan_start_ms": scan_start_ms(60), "scan_rule_type": 1,
                          "scan_rule_value": 1, "max_delay": 1, "attempts": 20, "packet_size": 10,
                          "catalog_period": 10, "topology_period": 10, "ping_period": 10}
        if run == 4:
            parameters.update(update_enabled="yes", max_update_period=1)
        services = {name: b for name, b in faults.items() if not name.startswith("/")}
        downloads = {name: b for name, b in faults.items() if name.startswith("/")}
        # In run 2 the next plug-in brings no node id, so that the node is asked for again; no
        # plug-in is answered as the first on the server, which would empty the unknown files.
        withhold = self.server.rows("SELECT COUNT(*) FROM plugins")[0][0] + 1 if run == 2 else 0
        return {"plugin": {"withhold_node": withhold, "first_result": 0},
                "parameters": parameters,
                "topology": {"division": [["127.0.0.1", "/", "self"], ["localhost", "/", "self"]]},
                "services": services,
                "downloads": {"root": "files", "sign": True, "faults": downloads}}

    def seed(self) -> None:
        """What the services of run 3 work on: an unknown program, a scan waiting to be sent and
        a division server that does not respond."""
        tool = self.root.file("opt/app/tool")
        if not tool.exists():
            tool.parent.mkdir(parents=True)
            tool.write_bytes(b"\x7fELF tool")
        (self.cache / "uat.dat").write_bytes(unknown_files_file("/opt/app", "tool", 9))
        self.scan_time += 1
        (self.cache / "scan.dat").write_bytes(scan_file(self.scan_time, INVENTORY))
        (self.cache / "server.dat").write_bytes(servers_file("localhost", self.server.port))

    def put_off_inventory_send(self, seconds: int) -> None:
        """Has the next start send a waiting scan `seconds` after it, as if the last stop had
        saved that much time to go (agent.dat's second slot)."""
        path = self.cache / "agent.dat"
        data = bytearray(path.read_bytes())
        struct.pack_into("<i", data, 4, seconds)
        path.write_bytes(bytes(data))

    def start(self) -> Daemon:
        # The trace of each start is kept beside the root, for a look after the test.
        self.starts = getattr(self, "starts", 0) + 1
        if self.root.trace.exists():
            shutil.copyfile(self.root.trace, self.root.path.parent / f"trace{self.starts - 1}.log")
        expected = expected_loads(self.cache)
        daemon = Daemon(self.root, ready=" - Creating agent cache")
        wait_for(lambda: not load_mismatches(self.root.trace_text(), expected), timeout=10)
        self.problems += load_mismatches(self.root.trace_text(), expected)
        return daemon

    def stop(self, daemon: Daemon) -> None:
        problem = daemon.crashed() or daemon.stop()
        if problem:
            self.problems.append(f"{self.kind}: {problem}")

    def failed(self, service: str) -> str | None:
        progress, occurrence, marker = SERVICES[service][2]
        return failure_after(self.root.trace_text(), progress, occurrence, marker)

    def recovered(self, service: str) -> bool:
        trace = self.root.trace_text()
        if service == "parameters":
            return "SRVCS - Parameters from server" in trace and self.failed(service) is None
        if service == "inventory":
            return not (self.cache / "scan.dat").exists() and \
                self.server.inventory(self.scan_time) == (True, set(INVENTORY))
        return SERVICES[service][3] in trace

    def requests(self, service: str, answered: bool = False) -> int:
        """How many requests of the service's exchange the server has received (with `answered`:
        and has made its answer to, which a delay then holds back)."""
        name = SERVICES[service][1]
        count = "SELECT COUNT(*) FROM requests WHERE " + \
            ("http_status IS NOT NULL AND " if answered else "")
        if name.startswith("/"):
            return self.server.rows(count + "path = ?", name)[0][0]
        if name in ("unknown_files", "inventory"):
            kind = b"true" if name == "inventory" else b"false"
            return self.server.rows(count + "service = '7' AND instr(raw, ?) > 0",
                                    b"\r\n1234\r\n" + kind + b"\r\n")[0][0]
        service_id = {"plugin": "2", "parameters": "8", "catalog": "3", "topology": "11",
                      "ping": "1", "new_agent": "12"}[name]
        return self.server.rows(count + "service = ?", service_id)[0][0]


def run_chain(chain: Chain, results: dict) -> None:
    """Runs 1 to 4, each with the chain's fault on the services of that run; then a last start
    that reads what the last stop wrote. Services that fail before the plug-in and the parameters
    are through show that they recovered at the next start, the others at their next attempt."""
    recover_next = []
    for run in (1, 2, 3, 4):
        services = [s for s, plan in SERVICES.items()
                    if plan[0] == run and (chain.kind, s) not in NOT_APPLICABLE]
        daemon = start_faulty_run(chain, run, services)
        for service in services:
            failure = chain.failed(service)
            if (chain.kind, service) in ANSWERED:
                results[service] += [f"failed: {failure}"] if failure else []
            elif failure is None:
                results[service].append("no failure traced")
        if chain.kind == "down":
            chain.server.start()
        for service in recover_next:
            if not wait_for(lambda: chain.recovered(service), timeout=30):
                results[service].append("not recovered at the next start")
        recover_next = services if run < 3 else []
        for service in services if run >= 3 else []:
            if not wait_for(lambda: chain.recovered(service), timeout=90):
                results[service].append("not recovered")
        chain.stop(daemon)
    chain.stop(chain.start())


def start_faulty_run(chain: Chain, run: int, services: list) -> Daemon:
    """Starts a run with the chain's fault on `services`, and waits until each failed. A server
    that is down goes down once the run's first exchange is held (for two seconds); the caller
    brings it back."""
    first = {2: "plugin", 3: "parameters", 4: "parameters"}.get(run)
    if chain.kind == "down":
        faults = {} if first is None else {first: {"delay": 2, "count": 1}}
    else:
        faults = {SERVICES[s][1]: dict(FAULTS[chain.kind], count=1, skip=int(s == "node"))
                  for s in services}
    if run == 3:
        chain.seed()
    if run == 3 and chain.kind == "down":
        # A scan due at once goes as soon as the plug-in is through, which can be before the
        # server is down; put off, it meets the server down, whatever the order of the threads.
        chain.put_off_inventory_send(20)
    chain.server.set_scenario(chain.scenario(run, faults))
    asked = chain.requests(first, answered=True) if first else 0
    if chain.kind == "down" and run == 1:
        chain.server.stop()
    daemon = chain.start()
    if chain.kind == "down" and run > 1:
        # Down only once the held answer is made: a stop that closes the server's state under a
        # request still being answered would drop that exchange too, and with it the parameters
        # that time the run's services within the wait.
        assert wait_for(lambda: chain.requests(first, answered=True) > asked, timeout=30)
        chain.server.stop()
    wait_for(lambda: all(chain.failed(s) or (chain.kind, s) in ANSWERED for s in services),
             timeout=90)
    return daemon


def run_slow(directory: pathlib.Path, service: str, results: list) -> None:
    """A slow answer at one service: the daemon gives up after its read time-out, traces it and
    recovers, at the next attempt or, for a failed enrolment or start-up download, at the next
    start."""
    run, name = SERVICES[service][:2]
    with Chain(directory, "slow") as chain:
        if run == 3:
            chain.seed()
        fault = dict(FAULTS["slow"], count=1, skip=int(service == "node"))
        chain.server.set_scenario(chain.scenario(run, {name: fault}))
        daemon = chain.start()
        if not wait_for(lambda: chain.failed(service), timeout=300):
            results.append("no failure traced after the read time-out")
        if run < 3:
            chain.stop(daemon)
            chain.server.set_scenario(chain.scenario(3, {}))
            daemon = chain.start()
        if not wait_for(lambda: chain.recovered(service), timeout=90):
            results.append("not recovered")
        chain.stop(daemon)
        chain.stop(chain.start())
        results += chain.problems


def run_held(directory: pathlib.Path, service: str, results: list) -> None:
    """A daemon stopped while a slow answer of the service is held stops at once. (A stop during
    start-up is seen only once start-up is over: the driver download has no such case.)"""
    run, name = SERVICES[service][:2]
    with Chain(directory, "stopped while an answer is held") as chain:
        if run == 3:
            chain.seed()
        fault = dict(FAULTS["slow"], delay=600, count=1, skip=int(service == "node"))
        chain.server.set_scenario(chain.scenario(run, {name: fault}))
        daemon = chain.start()
        if not wait_for(lambda: chain.requests(service) >= 1 + int(service == "node"), timeout=60):
            results.append("the held request never came")
        chain.stop(daemon)
        results += chain.problems


@pytest.fixture(scope="module", autouse=True)
def campaign(request, tmp_path_factory, figures_report):
    """Starts, on threads, every server-fault chain that a selected test of this module will look
    at; each kind's results are complete when its event is set. Its figures are reported after
    it ends."""
    kinds = {item.callspec.params["kind"] for item in request.session.items
             if item.module is request.module and item.originalname == "test_server_fault"}
    results = {(kind, s): [] for kind in kinds for s in SERVICES}
    done = {kind: threading.Event() for kind in kinds}

    def guarded(work, keys):
        try:
            work()
        except BaseException as error:  # noqa: B036 - reported by every test of the chain
            for key in keys:
                results[key].append(f"the run broke off: {error!r}")

    def run_kind(kind):
        # Whatever breaks the chain, its tests learn of it rather than wait for it.
        try:
            guarded(lambda: run_kind_chain(kind), [(kind, s) for s in SERVICES])
        finally:
            done[kind].set()

    def run_kind_chain(kind):
        base = tmp_path_factory.mktemp(f"server-{kind}")
        if kind == "slow":
            jobs = [(run_slow, s, "wait") for s in SERVICES] + \
                [(run_held, s, "held") for s in SERVICES if s != "driver"]
            workers = [threading.Thread(target=guarded, args=(
                lambda job=job, s=s, d=d: job(base / s / d, s, results[(kind, s)]), [(kind, s)]))
                for job, s, d in jobs]
            for worker in workers:
                worker.start()
            for worker in workers:
                worker.join()
        else:
            with Chain(base, kind) as chain:
                per_service = {s: results[(kind, s)] for s in SERVICES}
                guarded(lambda: run_chain(chain, per_service), [(kind, s) for s in SERVICES])
            for s in SERVICES:
                results[(kind, s)] += chain.problems

    tmp_path_factory.getbasetemp()  # made here once: the threads below would race to make it
    threads = [threading.Thread(target=run_kind, args=(kind,), daemon=True) for kind in kinds]
    for thread in threads:
        thread.start()
    yield results, done
    for thread in threads:
        thread.join(timeout=600)
    for kind in kinds:
        found = [results[(kind, s)] for s in SERVICES if (kind, s) not in NOT_APPLICABLE]

        def count(*words):
            return sum(any(w in problem for problem in problems for w in words)
                       for problems in found)

        SERVER_FIGURES[kind] = (f"{kind} | {len(found)} | {count('failure', 'failed:')} | "
                                f"{count('not recovered')} | "
                                f"{count('hang', 'exit status', 'ended by itself', 'broke off')} | "
                                f"{count('.dat: expected')}")


@pytest.mark.parametrize("kind, service", [(k, s) for k in KINDS for s in SERVICES
                                           if (k, s) not in NOT_APPLICABLE])
def test_server_fault(campaign, kind, service):
    """The fault at the service is traced (or, where the rules make the answer usable, is no
    failure), the daemon recovers, never crashes or hangs, and its caches load as the rules say."""
    results, done = campaign
    assert done[kind].wait(timeout=900), "the campaign did not finish"
    assert results[(kind, service)] == []
