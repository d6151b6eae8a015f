"""The Debian package: built by scripts/package, checked with lintian, installed into a throw-away
root with dpkg --root (never into the machine itself) and its files checked there."""
import gzip
import os
import pathlib
import re
import shutil
import subprocess

import pytest

from conftest import SOURCE_DIR, wait_for
from test_frame import DEV_KEY_WARNING

if os.environ.get("SLM_SANITIZE"):
    pytest.skip("the package holds the release build; it is tested with the release preset",
                allow_module_level=True)
_missing = [tool for tool in ("dpkg", "dpkg-deb", "lintian") if shutil.which(tool) is None]
if _missing:
    pytest.skip(f"{', '.join(_missing)} not installed (scripts/setup-deps installs them)",
                allow_module_level=True)

UPSTREAM_VERSION = re.search(r"project\(kvdagent VERSION ([0-9.]+)",
                             (SOURCE_DIR / "CMakeLists.txt").read_text()).group(1)
DEV_PUBLIC_KEY = SOURCE_DIR / "tests/data/keys/dev_public.der"


def run_package(*args: str, **env: str) -> subprocess.CompletedProcess:
    environment = {name: value for name, value in os.environ.items() if name != "SLM_SIGNING_KEY"}
    return subprocess.run([str(SOURCE_DIR / "scripts/package"), *args], cwd=SOURCE_DIR,
                          env=environment | env, capture_output=True, text=True, timeout=900)


@pytest.fixture(scope="module")
def package() -> pathlib.Path:
    # The binary under test trusts the development key, and so does this package.
    built = run_package("--dev-key")
    assert built.returncode == 0, built.stdout + built.stderr
    deb = SOURCE_DIR / built.stdout.strip().splitlines()[-1]
    if not deb.is_file():
        pytest.skip(f"scripts/package built no package ({deb})")
    return deb


def dpkg(root: pathlib.Path, *args: str) -> None:
    # Maintainer scripts run outside the root (the root has no shell), with DPKG_ROOT telling them
    # where the package goes; they then leave the machine's systemd alone.
    subprocess.run(["dpkg", f"--root={root}", "--force-not-root", "--force-script-chrootless",
                    *args], check=True, capture_output=True, timeout=120)


@pytest.fixture
def installed(package, tmp_path) -> pathlib.Path:
    root = tmp_path / "root"
    (root / "var/lib/dpkg/info").mkdir(parents=True)
    (root / "var/lib/dpkg/updates").mkdir()
    (root / "var/lib/dpkg/status").touch()
    (root / "tmp").mkdir()
    dpkg(root, "--force-depends", "--install", str(package))
    return root


def run_installed(root: pathlib.Path, *args: str) -> subprocess.CompletedProcess:
    env = dict(os.environ, KVDAGENT_ROOT=str(root), LANG="C.UTF-8")
    env.pop("LC_ALL", None)
    return subprocess.run([str(root / "usr/sbin/kvdagent"), *args], env=env, capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, timeout=60)


def test_the_development_key_needs_to_be_asked_for(tmp_path):
    # Told apart by its bytes: a copy of the development key under another name is refused too.
    copy = tmp_path / "site_public.der"
    copy.write_bytes(DEV_PUBLIC_KEY.read_bytes())
    other = tmp_path / "other_public.der"
    other.write_bytes(bytes(94))
    refusals = [
        ((), {}, "refusing to build with the development signing key"),
        (("--signing-key", str(copy)), {}, "refusing to build with the development signing key"),
        ((), {"SLM_SIGNING_KEY": str(copy)}, "refusing to build with the development signing key"),
        (("--dev-key", "--signing-key", str(other)), {}, "is not the development key"),
        (("--signing-key", str(tmp_path / "missing.der")), {}, "no signing key file"),
    ]
    for args, env, message in refusals:
        refused = run_package(*args, **env)
        assert refused.returncode == 2, (args, env, refused)
        assert message in refused.stderr, (args, env, refused.stderr)
        assert "== release build" not in refused.stdout, (args, env)


def test_lintian_reports_no_error(package):
    result = subprocess.run(["lintian", str(package)], capture_output=True, text=True, timeout=300)
    tags = [line for line in result.stdout.splitlines() if re.match(r"[EWI]: ", line)]
    for line in tags:
        print(line)  # warnings are reported, not failed
    assert [line for line in tags if line.startswith("E: ")] == []
    assert result.returncode == 0, result.stdout + result.stderr


def test_installed_files(installed):
    root = installed
    binary = root / "usr/sbin/kvdagent"
    assert os.access(binary, os.X_OK)
    version = run_installed(root, "-v")
    assert version.returncode == 0, version
    assert UPSTREAM_VERSION in version.stdout
    assert f"\n\n{DEV_KEY_WARNING}\n\n" in version.stdout, version.stdout
    status = (root / "var/lib/dpkg/status").read_text()
    assert f"\nVersion: {UPSTREAM_VERSION}-1+devkey\n" in status, status

    assert (root / "var/qsam").stat().st_mode & 0o7777 == 0o755
    catalogue = root / "var/qsam/nls/C/kvdagt.cat"
    assert catalogue.read_bytes() == (SOURCE_DIR / "build/release/nls/C/kvdagt.cat").read_bytes()

    conffiles = (root / "var/lib/dpkg/info/kvdagent.conffiles").read_text().split()
    assert conffiles == ["/etc/kvdagent.ini"]
    example = (root / "etc/kvdagent.ini").read_text().splitlines()
    # Nothing is set until an administrator edits it; every key is named there.
    assert all(line.startswith("#") for line in example)
    for key in ("agentid", "divisionid", "tag", "customer", "server", "port", "path",
                "use_proxy", "trace_level", "trace_size", "driver_conf_file", "exec_monitor",
                "self_update", "max_catalog_mb", "max_download_mb", "max_scan_records"):
        assert any(line.startswith(f"#{key}=") for line in example), key

    man = gzip.decompress((root / "usr/share/man/man8/kvdagent.8.gz").read_bytes()).decode()
    assert man.startswith(".TH KVDAGENT 8 ")
    for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "CONFIGURATION", "FILES",
                    "ENVIRONMENT", '"EXIT STATUS"', "SIGNALS", "SECURITY"):
        assert f"\n.SH {section}\n" in man, section
    for name in ("copyright", "changelog.Debian.gz", "security.md.gz"):
        assert (root / "usr/share/doc/kvdagent" / name).is_file()


def unit_settings(path: pathlib.Path) -> dict[str, dict[str, str]]:
    """The unit file's sections as systemd reads them: key=value lines, comments skipped."""
    sections: dict[str, dict[str, str]] = {}
    section = None
    for line in path.read_text().splitlines():
        if not line.strip() or line.startswith(("#", ";")):
            continue
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), {})
            continue
        key, value = line.split("=", 1)
        assert key not in section, key  # a key given twice would be a list or a reset
        section[key] = value
    return sections


def test_unit_starts_the_daemon_confined(installed):
    unit = installed / "lib/systemd/system/kvdagent.service"
    settings = unit_settings(unit)
    assert settings["Unit"]["After"] == "network-online.target"
    assert settings["Install"]["WantedBy"] == "multi-user.target"
    service = settings["Service"]
    expected = {
        "Type": "forking", "ExecStart": "/usr/sbin/kvdagent", "KillMode": "mixed",
        "KillSignal": "SIGTERM", "Restart": "always", "RestartSec": "30", "LimitNOFILE": "65536",
        "UMask": "0077", "NoNewPrivileges": "yes", "ProtectKernelTunables": "yes",
        "ProtectControlGroups": "yes", "ProtectHostname": "yes", "RestrictRealtime": "yes",
        "RestrictSUIDSGID": "yes", "LockPersonality": "yes", "SystemCallArchitectures": "native",
        "RestrictAddressFamilies": "AF_INET AF_INET6 AF_UNIX AF_NETLINK",
        # The clock stays protected without the device allow-list that ProtectClock brings.
        "CapabilityBoundingSet": "~CAP_SYS_TIME CAP_WAKE_ALARM", "SystemCallFilter": "~@clock",
        "SystemCallErrorNumber": "EPERM",
    }
    assert {key: service.get(key) for key in expected} == expected
    # Each of these would break the module loader, the self-update or the device.
    for key in ("ProtectKernelModules", "ProtectSystem", "ProtectHome", "PrivateDevices",
                "ProtectClock", "DeviceAllow", "DevicePolicy"):
        assert key not in service, key

    if shutil.which("systemd-analyze") is None:
        pytest.skip("systemd-analyze not installed (Debian package systemd): the unit is not "
                    "verified")
    # The machine's targets, so that the unit's dependencies resolve inside the throw-away root.
    for target in pathlib.Path("/lib/systemd/system").glob("*.target"):
        shutil.copy(target, unit.parent)
    verified = subprocess.run(["systemd-analyze", "verify", "--man=no", f"--root={installed}",
                               "/lib/systemd/system/kvdagent.service"],
                              capture_output=True, text=True, timeout=120)
    # systemd-analyze reports an unknown key or a bad value on standard error and still exits 0.
    assert (verified.returncode, verified.stderr) == (0, ""), verified


def test_example_configuration_keeps_the_daemon_from_starting(installed):
    started = run_installed(installed)
    assert started.returncode == 0, started
    trace = installed / "var/qsam/log/traceagt.log"
    assert wait_for(lambda: trace.exists() and 'Needed tag "agentid" not found' in trace.read_text(
        errors="replace")), "the daemon did not refuse the example configuration"
    binary = str(installed / "usr/sbin/kvdagent")

    def running() -> bool:
        for entry in pathlib.Path("/proc").iterdir():
            try:
                if entry.name.isdigit() and os.readlink(entry / "exe") == binary:
                    return b"Z" not in (entry / "stat").read_bytes().split(b")")[-1][:3]
            except OSError:
                continue
        return False

    assert wait_for(lambda: not running())


def test_purge_removes_the_agent_and_what_it_wrote(installed):
    assert run_installed(installed, "-v").returncode == 0  # creates /var/qsam/log and cache
    assert (installed / "var/qsam/cache").is_dir()
    # The record of the unit's links that the purge removes them by, kept below the root.
    record = "var/lib/systemd/deb-systemd-helper-enabled/kvdagent.service.dsh-also"
    assert (installed / record).is_file()
    dpkg(installed, "--purge", "kvdagent")
    for path in ("usr/sbin/kvdagent", "etc/kvdagent.ini", "var/qsam",
                 "lib/systemd/system/kvdagent.service", record):
        assert not (installed / path).exists(), path
