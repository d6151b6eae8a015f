"""Fixtures that run the real kvdagent binary in a temporary root.

Every test gets its own root with the directories an installation provides ("/etc", "/var/qsam",
"/tmp"); the agent resolves all of its fixed paths under it through KVDAGENT_ROOT.
"""
import math
import os
import pathlib
import shutil
import signal
import subprocess
import time

import pytest

AGENT_BIN = os.environ.get("KVDAGENT_BIN", "")
NLS_CATALOGUE = os.environ.get("SLM_NLS_CATALOGUE", "")
SOURCE_DIR = pathlib.Path(os.environ.get("SLM_SOURCE_DIR", pathlib.Path(__file__).parents[2]))

BASE_CONFIGURATION = {
    "agentid": "1234",
    "divisionid": "7",
    "tag": "node-tag",
    "customer": "Example Customer",
    "server": "127.0.0.1",
    "port": "9",
    "path": "/slm",
}


def scan_start_ms(seconds_from_now: float) -> int:
    """A scan start `seconds_from_now` ahead, in the server's milliseconds. The agent reads it as
    local time, so it is sent shifted by the zone's offset."""
    start = math.ceil(time.time() + seconds_from_now) - time.timezone
    if time.daylight and time.localtime().tm_isdst > 0:
        start += 3600
    return start * 1000


def wait_for(predicate, timeout=20.0, interval=0.05):
    """Polls `predicate` until it is true or `timeout` seconds have gone; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


class AgentRoot:
    def __init__(self, path: pathlib.Path):
        self.path = path

    def file(self, relative: str) -> pathlib.Path:
        return self.path / relative.lstrip("/")

    @property
    def trace(self) -> pathlib.Path:
        return self.file("var/qsam/log/traceagt.log")

    def trace_text(self) -> str:
        try:
            return self.trace.read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def write_configuration(self, values: dict | None = None, raw: str | None = None,
                            **overrides: str) -> None:
        """Writes kvdagent.ini: the raw text, or the complete base configuration with `overrides`
        (a value of None leaves that key out)."""
        if raw is None:
            values = dict(BASE_CONFIGURATION if values is None else values, **overrides)
            raw = "".join(f"{key}={value}\n" for key, value in values.items() if value is not None)
        self.file("etc/kvdagent.ini").write_text(raw)

    def environment(self) -> dict:
        env = dict(os.environ)
        env["KVDAGENT_ROOT"] = str(self.path)
        # One known locale whatever the machine's, so the code set the agent reports is UTF-8.
        for variable in ("LC_ALL", "LC_MESSAGES", "LC_CTYPE"):
            env.pop(variable, None)
        env["LANG"] = "C.UTF-8"
        # A sanitized build reports into files here, so that reports of a daemon, whose streams
        # nobody reads, still fail the test.
        report = f"log_path={self.path}/sanitizer"
        env["ASAN_OPTIONS"] = report
        env["UBSAN_OPTIONS"] = report + ":print_stacktrace=1"
        return env

    def sanitizer_reports(self) -> str:
        return "".join(p.read_text(errors="replace") for p in self.path.glob("sanitizer.*"))

    def run(self, *args: str, timeout: float = 60) -> subprocess.CompletedProcess:
        """Runs the agent to its exit. Output goes through the files "run.out" and "run.err" of
        the root, not pipes: a daemon child keeps the streams it inherited and writes to them long
        after its parent has exited."""
        out_path, err_path = self.path / "run.out", self.path / "run.err"
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            completed = subprocess.run([AGENT_BIN, *args], env=self.environment(), stdout=out,
                                       stderr=err, stdin=subprocess.DEVNULL, timeout=timeout)
        completed.stdout = out_path.read_text(errors="replace")
        completed.stderr = err_path.read_text(errors="replace")
        return completed

    def daemon_pids(self) -> list[int]:
        """The running agents whose root is this one."""
        marker = f"KVDAGENT_ROOT={self.path}".encode()
        pids = []
        for entry in pathlib.Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            try:
                if os.readlink(entry / "exe") != os.path.realpath(AGENT_BIN):
                    continue
                if marker in (entry / "environ").read_bytes().split(b"\0"):
                    if b"Z" not in (entry / "stat").read_bytes().split(b")")[-1][:3]:
                        pids.append(int(entry.name))
            except OSError:
                continue
        return pids

    def start_daemon(self, *args: str) -> int:
        """Starts the daemon; returns the daemon's pid once it has its SIGTERM handler, which it
        installs before it starts the trace."""
        # The trace of an earlier run would pass for this one's: a SIGTERM sent before the
        # handler is in place ends the daemon at once, without a stop.
        self.trace.unlink(missing_ok=True)
        parent = self.run(*args)
        assert parent.returncode == 0, parent
        pids = wait_for(self.daemon_pids)
        assert len(pids) == 1, pids
        assert wait_for(self.trace.exists)
        return pids[0]

    def stop_daemon(self, pid: int) -> None:
        os.kill(pid, signal.SIGTERM)
        assert wait_for(lambda: not self.daemon_pids(), timeout=30), "the daemon did not stop"


@pytest.fixture
def agent_root(tmp_path) -> AgentRoot:
    assert AGENT_BIN, "KVDAGENT_BIN names the binary under test"
    for directory in ("etc", "var/qsam", "tmp"):
        (tmp_path / directory).mkdir(parents=True)
    root = AgentRoot(tmp_path)
    yield root
    for pid in root.daemon_pids():
        os.kill(pid, signal.SIGKILL)
    assert root.sanitizer_reports() == ""


@pytest.fixture
def installed_catalogue(agent_root) -> pathlib.Path:
    """Places the compiled message catalogue where the agent searches for it."""
    target = agent_root.file("var/qsam/nls/C/kvdagt.cat")
    target.parent.mkdir(parents=True)
    shutil.copyfile(NLS_CATALOGUE, target)
    return target
