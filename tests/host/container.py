"""A Debian machine booted with systemd as PID 1 of a systemd-nspawn container, for the host suite.

The root file system is an ext4 image of its own, loop-mounted inside a private mount namespace
that also lays tmpfs copies over the host files nspawn would bind into the container
(/run/systemd/nspawn, os-release). So the container's only disk file system is its own: a
whole-file-system watch inside it (the built-in exec monitor) never reaches the host's disk, and
every mount goes away with the namespace when nspawn ends, whatever happened. The container shares
the host's network, so it reaches a server on the host's 127.0.0.1. nspawn stays a child of the
test and is waited for; the cgroups made for it are removed at the end."""
import ctypes
import os
import pathlib
import shlex
import signal
import stat
import subprocess
import time

PR_SET_PDEATHSIG = 1
# How systemd in the container is asked to start and stop, and how long that may take.
BOOT_SECONDS = 60
POWEROFF_SECONDS = 60

# Run inside the private mount namespace; nspawn replaces the shell, so its pid is the child's.
LAUNCHER = r"""
set -e
mount -t tmpfs -o mode=0755 kvdhost /run/systemd/nspawn
cp /usr/lib/os-release /run/systemd/nspawn/os-release
mount --bind /run/systemd/nspawn/os-release /usr/lib/os-release
mount -o loop "$1" "$2"
shift 2
exec systemd-nspawn "$@"
"""


def wait_until(predicate, timeout: float, interval: float = 0.1):
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def pid1_is_systemd() -> bool:
    return pathlib.Path("/run/systemd/system").is_dir()


def cgroup_hierarchies() -> list[pathlib.Path]:
    """Where the launcher needs a cgroup of its own when systemd does not run the host: the
    systemd hierarchy of cgroup version 1 and every cgroup2 mount (nspawn checks both)."""
    found = []
    for line in pathlib.Path("/proc/self/mounts").read_text().splitlines():
        _, path, kind, options = line.split()[:4]
        if kind == "cgroup2" or (kind == "cgroup" and "name=systemd" in options.split(",")):
            found.append(pathlib.Path(path))
    return found


class Container:
    def __init__(self, image: pathlib.Path, work: pathlib.Path, name: str):
        self.image = image
        self.work = work
        self.name = name
        self.mountpoint = work / "root"
        self.mountpoint.mkdir(exist_ok=True)
        self.process: subprocess.Popen | None = None
        self.pid = 0  # the container's systemd, as the host sees it
        self.boots = 0
        self.cgroups: list[pathlib.Path] = []
        self.made_run_dir: pathlib.Path | None = None

    # --- Booting and powering off ------------------------------------------------------------

    def _prepare_launcher(self) -> None:
        # Should the test itself be killed, nspawn is told to stop the machine (SIGTERM halts it).
        ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        for path in self.cgroups:
            (path / "cgroup.procs").write_text(str(os.getpid()))

    def boot(self, allowed_calls: tuple[str, ...] = ()) -> str:
        """Boots the image, with the system calls `allowed_calls` let through nspawn's filter
        besides its own list, and waits until systemd has finished starting up; returns what
        `systemctl is-system-running` said ("running", or "degraded" with a failed unit)."""
        assert self.process is None
        self.boots += 1
        nspawn = ["-D", str(self.mountpoint), "-M", self.name, "--register=no", "--keep-unit",
                  "--console=read-only", "--resolv-conf=off", "--timezone=off",
                  "--link-journal=no", "-b"]
        if allowed_calls:
            nspawn.insert(-1, "--system-call-filter=" + " ".join(allowed_calls))
        command = ["unshare", "--mount", "--propagation", "private", "sh", "-c", LAUNCHER,
                   "launcher", str(self.image), str(self.mountpoint), *nspawn]
        if pid1_is_systemd():
            command = ["systemd-run", "--scope", "--quiet", "--collect",
                       f"--unit={self.name}-{self.boots}", *command]
        elif not self.cgroups:
            for hierarchy in cgroup_hierarchies():
                (hierarchy / f"nspawn-{self.name}").mkdir(exist_ok=True)
                self.cgroups.append(hierarchy / f"nspawn-{self.name}")
        run_dir = pathlib.Path("/run/systemd/nspawn")
        if self.made_run_dir is None and not run_dir.exists():
            self.made_run_dir = next(p for p in [run_dir, *run_dir.parents] if p.parent.exists())
        run_dir.mkdir(parents=True, exist_ok=True)
        log = open(self.work / f"boot{self.boots}.log", "wb")
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log,
                                        stderr=subprocess.STDOUT,
                                        preexec_fn=self._prepare_launcher)
        log.close()
        self.pid = wait_until(self._init_pid, BOOT_SECONDS) or 0
        assert self.pid, f"the container's systemd did not start: {self.boot_log()}"
        private = pathlib.Path(f"/proc/{self.pid}/root/run/systemd/private")
        assert wait_until(lambda: private.is_socket(), BOOT_SECONDS), self.boot_log()
        return self.run("systemctl", "is-system-running", "--wait", check=False,
                        timeout=BOOT_SECONDS).stdout.strip()

    def _init_pid(self) -> int:
        if self.process is None or self.process.poll() is not None:
            raise AssertionError(f"nspawn ended during the boot: {self.boot_log()}")
        try:
            children = pathlib.Path(
                f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
            for child in children:
                if pathlib.Path(f"/proc/{child}/comm").read_text().strip() == "systemd":
                    return int(child)
        except OSError:
            pass
        return 0

    def boot_log(self) -> str:
        path = self.work / f"boot{self.boots}.log"
        return path.read_text(errors="replace")[-3000:] if path.exists() else ""

    def poweroff(self) -> int:
        """Powers the machine off from inside and waits for nspawn; its exit status."""
        assert self.process is not None
        self.run("systemctl", "poweroff", check=False)
        try:
            status = self.process.wait(timeout=POWEROFF_SECONDS)
        finally:
            if self.process.poll() is None:
                self.kill()
        self.process = None
        self.pid = 0
        return status

    def kill(self) -> None:
        """Ends a container that did not power off: its systemd, and with it every process of
        its pid namespace, then nspawn."""
        if self.pid:
            try:
                os.kill(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if self.process is not None and self.process.poll() is None:
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=10)
        self.process = None
        self.pid = 0

    def close(self) -> None:
        """Powers off (or kills) a running container and removes the cgroups made for it."""
        try:
            if self.process is not None and self.process.poll() is None:
                try:
                    self.poweroff()
                except Exception:  # noqa: BLE001 (the kill below ends it in any case)
                    self.kill()
            self.kill()
        finally:
            for top in self.cgroups:
                for directory in sorted(top.glob("**/"), key=lambda p: -len(p.parts)):
                    try:
                        directory.rmdir()
                    except OSError:
                        pass
            if self.made_run_dir is not None:
                for directory in sorted(self.made_run_dir.glob("**/"),
                                        key=lambda p: -len(p.parts)):
                    try:
                        directory.rmdir()
                    except OSError:
                        pass

    # --- Inside the running machine ----------------------------------------------------------

    def run(self, *argv: str, check: bool = True, timeout: float = 120,
            env: dict | None = None) -> subprocess.CompletedProcess:
        """Runs a program of the container in all of its namespaces, as root."""
        assert self.pid, "the container does not run"
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C",
                       "DEBIAN_FRONTEND": "noninteractive", **(env or {})}
        completed = subprocess.run(["nsenter", "-t", str(self.pid), "-a", "--", *argv],
                                   env=environment, capture_output=True, text=True,
                                   timeout=timeout, stdin=subprocess.DEVNULL)
        if check and completed.returncode != 0:
            raise AssertionError(f"{shlex.join(argv)}: exit {completed.returncode}\n"
                                 f"{completed.stdout}{completed.stderr}")
        return completed

    def path(self, inside: str) -> pathlib.Path:
        """A path of the running container, as the host reaches it."""
        assert self.pid, "the container does not run"
        return pathlib.Path(f"/proc/{self.pid}/root") / inside.lstrip("/")

    def write(self, inside: str, text: str | bytes, mode: int = 0o644) -> None:
        target = self.path(inside)
        target.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(text, str):
            text = text.encode()
        target.write_bytes(text)
        target.chmod(mode)

    def read(self, inside: str) -> str:
        try:
            return self.path(inside).read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def unit(self, name: str, *properties: str) -> dict[str, str]:
        shown = self.run("systemctl", "show", name, *(f"--property={p}" for p in properties))
        return dict(line.split("=", 1) for line in shown.stdout.splitlines() if "=" in line)


def make_image(tree: pathlib.Path, image: pathlib.Path, hostname: str) -> None:
    """An ext4 image of `tree` with `hostname` as the machine's name, known to no /etc/hosts
    line and to no name server, as on many cloud machines and containers."""
    staging = image.parent / "staging"
    subprocess.run(["cp", "-a", "--reflink=auto", f"{tree}/.", str(staging)], check=True)
    (staging / "etc/hostname").write_text(hostname + "\n")
    (staging / "etc/hosts").write_text("127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost\n")
    with open(image, "wb") as file:
        file.truncate(2 << 30)  # sparse
    subprocess.run(["mkfs.ext4", "-q", "-F", "-L", "kvdhost", "-d", str(staging), str(image)],
                   check=True, capture_output=True)
    subprocess.run(["rm", "-rf", "--one-file-system", str(staging)], check=True)
    assert stat.S_ISREG(image.stat().st_mode)
