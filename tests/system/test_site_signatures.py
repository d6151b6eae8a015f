"""The site's own signatures (signature_policy=site) against the real daemon and the reference
server: files and manifests signed with scripts/site-sign by a key made at test time. The server
may sign anything with the legacy key, as a hostile server or one whose key was broken could;
only what the site signed, under its own name and in its manifest's set, is installed."""
import subprocess

import pytest

from conftest import SOURCE_DIR, wait_for
from test_commands import installer_runs, run_agent, servers, traced, update_scenario  # noqa: F401

SITE_SIGN = str(SOURCE_DIR / "scripts/site-sign")
SITE_KEYS = "/etc/kvdagent-site-keys.pem"
AGENT_VERSION = "1.1.1.51"


@pytest.fixture
def site_key(agent_root, tmp_path) -> str:
    """A new Ed25519 key; its public half is the agent's site keys file."""
    key = tmp_path / "site.key"
    subprocess.run(["openssl", "genpkey", "-algorithm", "ED25519", "-out", key], check=True)
    public = agent_root.file(SITE_KEYS)
    subprocess.run(["openssl", "pkey", "-in", key, "-pubout", "-out", public], check=True)
    public.chmod(0o644)
    return str(key)


def site_sign(key: str, files: list, manifest: dict | None = None) -> None:
    options = []
    for name, value in (manifest or {}).items():
        options += [f"--{name.replace('_', '-')}", value]
    subprocess.run([SITE_SIGN, *(["--manifest"] if manifest else []), *options, key,
                    *map(str, files)], check=True, stdout=subprocess.DEVNULL)


def run_site_agent(agent_root, server) -> int:
    return run_agent(agent_root, server, signature_policy="site", site_keys_file=SITE_KEYS)


def signed_update(agent_root, tmp_path, key: str, action: str, **manifest: str) -> dict:
    """update_scenario's two files, site-signed with their manifest (by default one that fits)."""
    scenario = update_scenario(agent_root, tmp_path, action)
    files = [tmp_path / "files" / path.lstrip("/") for path in scenario["new_agent"]["files"]]
    manifest = {"version": "1.1.1.52", "command": scenario["new_agent"]["command"], **manifest}
    site_sign(key, files, manifest)
    return scenario


def test_the_site_signed_set_installs(agent_root, servers, tmp_path, site_key):
    pid_file = agent_root.path / "daemon.pid"
    server = servers(signed_update(agent_root, tmp_path, site_key,
                                   f'kill -TERM "$(cat {pid_file})"'))
    pid_file.write_text(str(run_site_agent(agent_root, server)))
    assert wait_for(lambda: not agent_root.daemon_pids(), timeout=30)
    assert installer_runs(agent_root) == ["-q"]
    assert sorted(p.name for p in agent_root.file("tmp/qsam").iterdir()) == [
        "install.sh", "kvdagent"]
    # The manifest beside the first file, then each file as before plus its site signature.
    assert [row[0] for row in server.rows(
        "SELECT path FROM requests WHERE method = 'GET' ORDER BY id")] == [
            "/pkg/install.sh.manifest", "/pkg/install.sh.manifest.sig",
            "/pkg/install.sh", "/pkg/install.sh.sign", "/pkg/install.sh.sig",
            "/pkg/kvdagent", "/pkg/kvdagent.sign", "/pkg/kvdagent.sig"]


def legacy_only(package, key):
    (package / "kvdagent.sig").unlink()


def renamed(package, key):
    # Another file the site signed, with its signature, served under the installer's name.
    other = package / "helper.sh"
    other.write_text("#!/bin/sh\necho helper\n")
    site_sign(key, [other])
    (package / "install.sh").write_bytes(other.read_bytes())
    (package / "install.sh.sig").write_bytes((package / "helper.sh.sig").read_bytes())


REFUSALS = {
    "legacy signature only": (
        {}, legacy_only, "ERROR - No site signature /pkg/kvdagent.sig for kvdagent"),
    "renamed file": (
        {}, renamed,
        "ERROR - Site signature check failed for /pkg/install.sh.sig: no site key signed it as "
        "install.sh"),
    "older version": (
        {"version": "1.1.1.50"}, None,
        f"ERROR - Update refused: manifest version 1.1.1.50 is not newer than this agent's "
        f"{AGENT_VERSION}"),
    "expired manifest": (
        {"not_after": "2020-01-01T00:00:00Z"}, None,
        "ERROR - Update refused: manifest /pkg/install.sh.manifest expired at 2020-01-01T00:00:00Z"),
    "other command line": (
        {"command": "{qsam}/install.sh -q -f"}, None,
        "ERROR - Update refused: command line '{qsam}/install.sh -q' is not the manifest's "
        "'{qsam}/install.sh -q -f'"),
}


@pytest.mark.parametrize("case", REFUSALS)
def test_an_update_the_site_did_not_sign_as_offered_runs_nothing(agent_root, servers, tmp_path,
                                                                 site_key, case):
    manifest, change, refusal = REFUSALS[case]
    qsam = str(agent_root.file("tmp/qsam"))
    manifest = {k: v.format(qsam=qsam) for k, v in manifest.items()}
    scenario = signed_update(agent_root, tmp_path, site_key, "exit 0", **manifest)
    if change is not None:
        change(tmp_path / "files/pkg", site_key)
    server = servers(scenario)
    pid = run_site_agent(agent_root, server)
    # It is tried again, and every time nothing runs.
    assert wait_for(traced(agent_root, refusal.format(qsam=qsam), 2), timeout=30), \
        agent_root.trace_text()[-3000:]
    assert installer_runs(agent_root) == []
    assert "Launching" not in agent_root.trace_text()
    assert agent_root.daemon_pids() == [pid]
    agent_root.stop_daemon(pid)


DRIVERS_CONF = "1.1.1.51,Linux,2.4.18,x86,*,YES=/drivers/kvdkagent-2418.o\n"


@pytest.mark.parametrize("site_signed", [True, False], ids=["site-signed", "legacy-only"])
def test_the_driver_configuration_needs_the_site_signature_too(agent_root, servers, tmp_path,
                                                               site_key, site_signed):
    files = tmp_path / "files"
    files.mkdir()
    (files / "drivers.conf").write_text(DRIVERS_CONF)
    if site_signed:
        site_sign(site_key, [files / "drivers.conf"])
    # The kernel's device list, without agent drivers: the start goes on to the download.
    agent_root.file("proc").mkdir()
    agent_root.file("proc/devices").write_text("Character devices:\n  1 mem\n\nBlock devices:\n")
    server = servers({"downloads": {"root": str(files), "sign": True}})
    pid = run_agent(agent_root, server, signature_policy="site", site_keys_file=SITE_KEYS,
                    driver_conf_file="/drivers.conf", exec_monitor="module")
    outcome = ("No KE drivers available for this system" if site_signed else
               "error occurs while downloading the driver configuration file")
    assert wait_for(traced(agent_root, outcome), timeout=30), agent_root.trace_text()[-3000:]
    assert ("ERROR - No site signature /drivers.conf.sig for drivers.conf" in
            agent_root.trace_text()) != site_signed
    agent_root.stop_daemon(pid)
