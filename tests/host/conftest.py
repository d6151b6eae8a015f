"""The host suite's parts: the package and a newer one, a Debian root file system built once and
cached under /var/cache, the booted machine, the reference server on the host, and the table of
steps (step, expected, seen, seconds) written to the report file at the end."""
import fcntl
import hashlib
import json
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import time
from contextlib import closing

import pytest

SOURCE_DIR = pathlib.Path(os.environ.get("SLM_SOURCE_DIR", pathlib.Path(__file__).parents[2]))
REPORT = pathlib.Path(os.environ.get("SLM_HOST_REPORT",
                                     SOURCE_DIR / "build/release/host-report.txt"))
sys.path.insert(0, str(SOURCE_DIR / "tools"))
from runtime_server.httpd import RuntimeServer  # noqa: E402

from container import Container, make_image  # noqa: E402

# The root file system: Debian 12 as a minimal machine booted by systemd. The agent's own library
# dependencies are added from its package, so that apt installs it without a network.
SUITE = "bookworm"
MIRROR = "http://deb.debian.org/debian"
BASE_PACKAGES = ["systemd", "systemd-sysv", "dbus", "iproute2"]
MMDEBSTRAP_OPTIONS = [
    "--variant=minbase", "--dpkgopt=path-exclude=/usr/share/man/*",
    "--dpkgopt=path-exclude=/usr/share/doc/*", "--dpkgopt=path-include=/usr/share/doc/*/copyright",
    "--dpkgopt=path-exclude=/usr/share/locale/*", "--dpkgopt=path-exclude=/usr/share/info/*"]
CACHE_DIR = pathlib.Path(os.environ.get("SLM_HOST_CACHE", "/var/cache/kvdagent-host-suite"))
# The container's name and host name; no name server and no /etc/hosts line knows it.
MACHINE_NAME = "kvdhost-suite"
# What the built-in exec monitor needs inside the container beyond nspawn's defaults: nspawn's
# system call filter refuses fanotify_init and fanotify_mark (EPERM) although CAP_SYS_ADMIN is
# kept.
EXEC_MONITOR_CALLS = ("fanotify_init", "fanotify_mark")

ROWS: list[tuple[str, str, str, str]] = []


def record(step: str, expected: str, seen: str, started: float) -> None:
    """Notes one step for the table; the test's own assertions decide pass or fail."""
    ROWS.append((step, expected, seen, f"{time.monotonic() - started:.1f}"))


def pytest_sessionfinish(session):
    if not ROWS:
        return
    header = ("step", "expected", "seen", "seconds")
    widths = [max(len(row[i]) for row in ROWS + [header]) for i in range(4)]
    lines = [" | ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
             for row in [header] + ROWS]
    lines.insert(1, "-+-".join("-" * width for width in widths))
    REPORT.parent.mkdir(parents=True, exist_ok=True)
    REPORT.write_text("\n".join(lines) + "\n")


def pytest_terminal_summary(terminalreporter):
    if REPORT.exists() and ROWS:
        terminalreporter.write_line(f"host suite table ({REPORT}):")
        for line in REPORT.read_text().splitlines():
            terminalreporter.write_line(line)


def depends_of(deb: pathlib.Path) -> list[str]:
    field = subprocess.run(["dpkg-deb", "-f", str(deb), "Depends"], check=True,
                           capture_output=True, text=True).stdout
    return sorted({part.split()[0] for part in field.replace("|", ",").split(",") if part.strip()})


def field_of(deb: pathlib.Path, name: str) -> str:
    return subprocess.run(["dpkg-deb", "-f", str(deb), name], check=True, capture_output=True,
                          text=True).stdout.strip()


@pytest.fixture(scope="session")
def packages(tmp_path_factory) -> tuple[pathlib.Path, pathlib.Path]:
    """The package scripts/package builds (development key) and the same package with a higher
    Debian revision, as a newer release of it."""
    built = subprocess.run([str(SOURCE_DIR / "scripts/package"), "--dev-key"], cwd=SOURCE_DIR,
                           capture_output=True, text=True, timeout=900)
    assert built.returncode == 0, built.stdout + built.stderr
    deb = SOURCE_DIR / built.stdout.strip().splitlines()[-1]
    work = tmp_path_factory.mktemp("newer")
    tree = work / "tree"
    subprocess.run(["dpkg-deb", "-R", str(deb), str(tree)], check=True)
    control = tree / "DEBIAN/control"
    version = field_of(deb, "Version")
    # The Debian revision one higher: 1.0.0-1+devkey becomes 1.0.0-2+devkey.
    newer = re.sub(r"-([0-9]+)", lambda m: f"-{int(m.group(1)) + 1}", version, count=1)
    control.write_text(control.read_text().replace(f"Version: {version}\n",
                                                   f"Version: {newer}\n"))
    newer_deb = work / "kvdagent-new.deb"
    subprocess.run(["dpkg-deb", "--build", "--root-owner-group", str(tree), str(newer_deb)],
                   check=True, capture_output=True)
    return deb, newer_deb


def build_tree(tree: pathlib.Path, packages: list[str]) -> None:
    partial = tree.with_name(tree.name + ".partial")
    shutil.rmtree(partial, ignore_errors=True)
    subprocess.run(["mmdebstrap", "--quiet", *MMDEBSTRAP_OPTIONS,
                    "--include=" + ",".join(packages), SUITE, str(partial), MIRROR],
                   check=True, capture_output=True, timeout=1200)
    partial.rename(tree)


@pytest.fixture(scope="session")
def rootfs(packages) -> pathlib.Path:
    """The cached root file system, built on the first run: its directory name is a digest of
    what it is made of, so a changed list builds a new one (and older ones are removed)."""
    wanted = sorted(set(BASE_PACKAGES) | set(depends_of(packages[0])))
    recipe = json.dumps([SUITE, MIRROR, MMDEBSTRAP_OPTIONS, wanted])
    key = hashlib.sha256(recipe.encode()).hexdigest()[:16]
    CACHE_DIR.mkdir(parents=True, exist_ok=True)
    tree = CACHE_DIR / f"rootfs-{key}"
    with open(CACHE_DIR / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not tree.is_dir():
            for old in CACHE_DIR.glob("rootfs-*"):
                shutil.rmtree(old, ignore_errors=True)
            build_tree(tree, wanted)
            (CACHE_DIR / f"{tree.name}.recipe").write_text(recipe + "\n")
    return tree


@pytest.fixture(scope="module")
def machine(rootfs, tmp_path_factory):
    """A machine made from the cached tree, not yet booted; powered off or killed at the end,
    whatever happened, with its cgroups removed."""
    work = tmp_path_factory.mktemp("machine")
    image = work / "root.ext4"
    make_image(rootfs, image, MACHINE_NAME)
    container = Container(image, work, MACHINE_NAME)
    try:
        yield container
    finally:
        container.close()
        image.unlink(missing_ok=True)


class Server:
    """The reference server on the host's loopback, its scenario swapped as the steps go."""

    def __init__(self, directory: pathlib.Path):
        self.directory = directory
        self.scenario_path = directory / "scenario.json"
        self.scenario_path.write_text("{}")
        self.server = RuntimeServer(str(directory), str(self.scenario_path)).start()

    @property
    def port(self) -> int:
        return self.server.port

    def play(self, scenario: dict) -> None:
        self.scenario_path.write_text(json.dumps(scenario))
        self.server.reload()

    def rows(self, query: str, *args) -> list:
        with closing(sqlite3.connect(self.directory / "server.db")) as db:
            return db.execute(query, args).fetchall()


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    started = Server(tmp_path_factory.mktemp("server"))
    try:
        yield started
        assert started.rows("SELECT kind, detail FROM violations") == []
    finally:
        started.server.stop()
