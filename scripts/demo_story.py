"""The demo's story: the real agent daemon in a sandbox root against the reference runtime server.

It enrols, takes the topology, the catalog and its parameters, watches programs started in the
sandbox (with the built-in exec monitor, where the kernel allows it), uploads the unknown ones,
scans the sandbox and delivers the inventory, writes its caches at SIGTERM and reads them back at a
restart. Every step is checked; the script exits non-zero when one fails. Run by scripts/demo;
with DEMO_KEEP=1 the sandbox (the agent's trace, caches and the server's database) stays for a look.
"""
import os
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[1]
AGENT = REPO / "build/release/kvdagent"
sys.path.insert(0, str(REPO / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402


class StepFailed(Exception):
    pass


def wait_for(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise StepFailed(f"{what} did not happen within {timeout:.0f} s")
        time.sleep(0.1)


def place_program(root, relative, padding):
    """A small real program under the root; padding makes it a different file."""
    target = root / relative
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile("/bin/true", target)
    with open(target, "ab") as file:
        file.write(b"\0" * padding)
    target.chmod(0o755)
    return target


class Demo:
    def __init__(self, sandbox, extra_configuration="", check_protocol=True):
        self.sandbox = sandbox
        self.extra_configuration = extra_configuration  # more kvdagent.ini lines (a proxy, say)
        # Off behind a proxy, which rewrites the head on the way: the server then judges the proxy.
        self.check_protocol = check_protocol
        self.root = sandbox / "root"
        self.state = sandbox / "server"
        self.table = []  # (step, what happened)
        self.pid = None

    def trace(self):
        path = self.root / "var/qsam/log/traceagt.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def rows(self, sql):
        db = sqlite3.connect(self.state / "server.db")
        try:
            return db.execute(sql).fetchall()
        finally:
            db.close()

    def environment(self):
        env = dict(os.environ, KVDAGENT_ROOT=str(self.root), LANG="C.UTF-8")
        env.pop("LC_ALL", None)
        return env

    def start_agent(self):
        subprocess.run([str(AGENT)], env=self.environment(), check=True, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        marker = f"KVDAGENT_ROOT={self.root}".encode()

        def daemon():
            for entry in pathlib.Path("/proc").iterdir():
                try:
                    if (entry.name.isdigit() and os.readlink(entry / "exe") == str(AGENT)
                            and marker in (entry / "environ").read_bytes().split(b"\0")):
                        return int(entry.name)
                except OSError:
                    continue
            return None

        self.pid = wait_for(daemon, 20, "the daemon's start")
        wait_for(lambda: " - Starting commands thread" in self.trace(), 20, "the start-up")

    def stop_agent(self):
        os.kill(self.pid, signal.SIGTERM)
        wait_for(lambda: not pathlib.Path(f"/proc/{self.pid}").exists() or
                 b"Z" in pathlib.Path(f"/proc/{self.pid}/stat").read_bytes().split(b")")[-1][:3],
                 30, "the daemon's stop")
        self.pid = None

    def run(self):
        for directory in ("etc", "var/qsam/nls/C", "tmp"):
            (self.root / directory).mkdir(parents=True)
        shutil.copyfile(REPO / "build/release/nls/C/kvdagt.cat",
                        self.root / "var/qsam/nls/C/kvdagt.cat")
        known = place_program(self.root, "usr/bin/editor", 0)
        unknown = place_program(self.root, "usr/bin/homegrown", 512)
        report = place_program(self.root, "opt/tools/report", 1024)

        # A daily scan a few seconds from now, sent at once after it. The agent reads the start as
        # local time, so it is sent shifted by the zone's offset.
        scan_start = int(time.time()) + 8 - time.timezone
        if time.daylight and time.localtime().tm_isdst > 0:
            scan_start += 3600
        scenario = self.sandbox / "scenario.json"
        scenario.write_text(
            '{"catalog": {"components": [[7, 1, 0, 0]],'
            ' "files": [["editor", %d, 0, 0, [7]]]},'
            ' "topology": {"division": [["127.0.0.1", "/", "self"]],'
            ' "enterprise": [["standby.example", "/", 8080]]},'
            ' "parameters": {"upload_min_time": 1, "scan_start_ms": %d, "scan_rule_type": 1,'
            ' "scan_rule_value": 1, "max_delay": 1}}' % (known.stat().st_size, scan_start * 1000))
        server = RuntimeServer(str(self.state), str(scenario)).start()
        try:
            self.story(server.port, known, unknown, report)
        finally:
            if self.pid is not None:
                os.kill(self.pid, signal.SIGTERM)
            server.stop()

    def story(self, port, known, unknown, report):
        (self.root / "etc/kvdagent.ini").write_text(
            "agentid=4711\ndivisionid=12\ntag=demo-node\ncustomer=Demo Customer\n"
            f"server=127.0.0.1\nport={port}\npath=/\ntrace_level=2\n" + self.extra_configuration)
        print(f"Sandbox root {self.root}; reference runtime server on 127.0.0.1:{port}.")
        self.start_agent()
        print(f"The agent daemon runs (pid {self.pid}).")

        (node,) = wait_for(lambda: self.rows("SELECT node_id FROM agents"), 30, "the plug-in")[0]
        self.table.append(("enrolment", f"plugged in, node id {node}"))
        print(f"It enrolled with the server and was given node id {node}.")
        wait_for(lambda: "OK - Topology updated" in self.trace(), 30, "the topology")
        self.table.append(("topology", "its division's server (the preferred one), 1 enterprise"
                                       " server"))
        print("It took the topology: its division's server, which is already its preferred server,"
              " and one enterprise server.")
        wait_for(lambda: "OK - Catalog stored" in self.trace(), 30, "the catalog download")
        self.table.append(("catalog", "1 component, 1 file"))
        print("It downloaded the catalog, which knows one program: editor.")
        wait_for(lambda: self.rows("SELECT id FROM requests WHERE service = '8'"), 30,
                 "the parameters download")
        self.table.append(("parameters", "upload delay 1 s, a daily scan starting now"))
        print("It applied its parameters: uploads after 1 s, a daily scan starting now.")

        if "OK - Monitoring with the built-in exec monitor" in self.trace():
            for program in (known, unknown, report):
                subprocess.run([str(program)], check=True, timeout=10)
            wait_for(lambda: " - Found 'editor' in catalog" in self.trace(), 20,
                     "the identification of editor")
            wait_for(lambda: sorted(name for (name,) in self.rows(
                "SELECT DISTINCT name FROM unknown_files")) == ["homegrown", "report"], 30,
                "the upload of the unknown programs")
            self.table.append(("programs", "editor identified; homegrown, report uploaded"))
            print("Three programs were started in the sandbox: editor was identified in the catalog,"
                  " homegrown and report were unknown and were uploaded.")
        else:
            self.table.append(("programs", "not watched: this kernel lacks fanotify exec notifications"))
            print("This kernel (or a run without root) has no fanotify exec notifications, so "
                  "programs are not watched here; everything else goes on.")

        def complete():
            return self.rows("SELECT id, records FROM inventories WHERE complete = 1")
        ((_, records),) = wait_for(complete, 90, "the inventory")
        # Delivered means taken by the server and the waiting scan file removed: a stop before
        # that sends it again at the next start, so that nothing is lost.
        wait_for(lambda: not (self.root / "var/qsam/cache/scan.dat").exists(), 20,
                 "the removal of the delivered scan")
        self.table.append(("inventory", f"scanned and delivered: {records} executables"))
        print(f"It scanned the sandbox and delivered the inventory: {records} executables.")

        self.stop_agent()
        cache = self.root / "var/qsam/cache"
        sizes = {name: (cache / name).stat().st_size
                 for name in ("catalog.dat", "uat.dat", "server.dat")}
        print("SIGTERM: it stopped and wrote its caches: " +
              ", ".join(f"{name} {size} bytes" for name, size in sizes.items()) + ".")
        self.start_agent()
        wait_for(lambda: "LAT - The catalog has been read from file" in self.trace(), 20,
                 "the catalog's load at the restart")
        wait_for(lambda: "UAT - The unknown file list has been read" in self.trace(), 20,
                 "the unknown files' load at the restart")
        self.stop_agent()
        self.table.append(("caches", "written at SIGTERM, read back at a restart"))
        print("Restarted, it read the catalog and the unknown files back, and stopped again.")
        if self.check_protocol:
            violations = self.rows("SELECT kind, detail FROM violations")
            if violations:
                raise StepFailed(f"the server recorded protocol violations: {violations}")
            self.table.append(("protocol", "no violation recorded by the server"))

        print()
        width = max(len(step) for step, _ in self.table)
        for step, what in self.table:
            print(f"  {step.ljust(width)}  {what}")


def main():
    sandbox = pathlib.Path(tempfile.mkdtemp(prefix="kvdagent-demo-"))
    try:
        Demo(sandbox).run()
    except (StepFailed, subprocess.SubprocessError, OSError, ValueError) as failure:
        print(f"\nDemo failed: {failure}", file=sys.stderr)
        return 1
    finally:
        if not os.environ.get("DEMO_KEEP"):
            shutil.rmtree(sandbox, ignore_errors=True)
    print("\nDemo finished.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
