"""The package on a Debian 12 machine booted with systemd, used as an operator would: installed
with apt-get, configured, enabled, stopped, killed, rebooted, updated by its own self-update to a
newer package, watching programs with the built-in exec monitor, and purged. The reference
server runs on the host. The steps build on each other and run in file order; each notes a row
of the table."""
import re
import time

import pytest

from conftest import EXEC_MONITOR_CALLS, MACHINE_NAME, field_of, record
from container import wait_until

AGENT_ID = 4711
TRACE = "/var/qsam/log/traceagt.log"
CACHES = ("catalog.dat", "uat.dat", "server.dat")
INSTALLER_LOG = "/var/tmp/kvdagent-installer.log"
# A newer package installed the way an operator would; its postinst restarts the agent's unit,
# whose stop would end this script too if it ran in that unit.
INSTALLER = """#!/bin/sh
echo "started in $(tail -n 1 /proc/self/cgroup)" >"{log}"
apt-get install -y -q "$1" >>"{log}" 2>&1
echo "finished: $?" >>"{log}"
"""


def configuration(port: int) -> str:
    return (f"agentid={AGENT_ID}\ndivisionid=7\ntag=host-suite\ncustomer=Host Suite\n"
            f"server=127.0.0.1\nport={port}\npath=/\ntrace_level=3\nexec_monitor=builtin\n")


def scenario(known_size: int, **more) -> dict:
    return {"catalog": {"components": [[7, 1, 0, 0]],
                        "files": [["known-tool", known_size, 0, 0, [7]]]},
            "parameters": {"upload_min_time": 1, **more.pop("parameters", {})}, **more}


def trace(machine) -> str:
    # A trace that grew past its size went to the backup; both count.
    return machine.read(TRACE.replace(".log", ".bck")) + machine.read(TRACE)


def plug_ins(server) -> int:
    return server.rows("SELECT COUNT(*) FROM plugins WHERE agent_id = ?", AGENT_ID)[0][0]


def unit_state(machine) -> dict[str, str]:
    return machine.unit("kvdagent", "ActiveState", "SubState", "MainPID", "NRestarts", "Result")


def running_agent(machine) -> int:
    """The agent's main pid once the unit is active with one, else 0."""
    state = unit_state(machine)
    return int(state["MainPID"]) if state["ActiveState"] == "active" else 0


def agent_processes(machine) -> list[str]:
    """The pids, inside the container, of processes running a program named kvdagent."""
    found = []
    for entry in machine.path("/proc").iterdir():
        try:
            if entry.name.isdigit() and (entry / "comm").read_text().strip() == "kvdagent":
                found.append(entry.name)
        except OSError:
            continue
    return found


class Facts:
    """What a step leaves for the ones after it."""
    known_size = 0
    address = ""


def test_install_and_enable(machine, server, packages):
    started = time.monotonic()
    state = machine.boot()
    record("boot", "systemd as PID 1 reaches running", f"{state} (nspawn pid {machine.process.pid})",
           started)
    assert state == "running", machine.run("systemctl", "--failed", check=False).stdout

    started = time.monotonic()
    deb = packages[0]
    machine.write(f"/root/{deb.name}", deb.read_bytes())
    machine.run("apt-get", "install", "-y", "-q", "--no-install-recommends", f"/root/{deb.name}")
    unit = machine.unit("kvdagent", "Restart", "RestartUSec", "UnitFileState", "ActiveState")
    record("apt-get install ./kvdagent.deb",
           "installed, not enabled, not started; Restart=always 30 s",
           f"{unit['UnitFileState']}, {unit['ActiveState']}; Restart={unit['Restart']} "
           f"{unit['RestartUSec']}", started)
    assert (unit["UnitFileState"], unit["ActiveState"]) == ("disabled", "inactive")
    assert (unit["Restart"], unit["RestartUSec"]) == ("always", "30s")

    # Two programs for the exec monitor step: one the catalog knows, one it does not.
    true = machine.path("/usr/bin/true").read_bytes()
    machine.write("/usr/local/bin/known-tool", true, 0o755)
    machine.write("/usr/local/bin/homegrown", true + bytes(512), 0o755)
    Facts.known_size = len(true)
    server.play(scenario(Facts.known_size))

    # Enabled while the configuration is still the example: the start-up fails with status 0 and
    # is tried again. The suite waits 1 s between tries, not 30, through a drop-in.
    started = time.monotonic()
    machine.write("/etc/systemd/system/kvdagent.service.d/host-suite.conf",
                  "[Service]\nRestartSec=1\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "enable", "--now", "kvdagent")
    assert wait_until(lambda: int(unit_state(machine)["NRestarts"]) >= 1, 30), unit_state(machine)
    refused = trace(machine).count('Needed tag "agentid" not found')
    machine.write("/etc/kvdagent.ini", configuration(server.port))
    plugged = wait_until(lambda: plug_ins(server) >= 1, 60)
    state = unit_state(machine)
    record("failed start-up (example configuration)", "status 0, tried again until configured",
           f"{refused} refusal(s), NRestarts={state['NRestarts']}, then "
           f"{'plugged in' if plugged else 'never plugged in'}", started)
    assert refused >= 1 and plugged, trace(machine)

    started = time.monotonic()
    pid = wait_until(lambda: running_agent(machine), 30)
    journal = machine.run("journalctl", "--no-pager", "-o", "cat", "-u", "kvdagent").stdout
    warning = re.search(r"WARNING - Couldn't resolve host name (\S+): reporting (\S+), (.*)",
                        trace(machine))
    ((ip,),) = server.rows("SELECT ip FROM agents WHERE agent_id = ?", AGENT_ID)
    Facts.address = ip
    record("host name unknown to resolver", "starts; reports a non-loopback address, WARNING",
           f"reports {ip}: {warning.group(0)[10:] if warning else 'no WARNING'}", started)
    assert warning is not None and warning.group(1) == MACHINE_NAME, trace(machine)
    assert warning.group(2) == ip and not ip.startswith("127."), ip
    record("systemctl enable --now", "active, journal shows the start, plugged in",
           f"active (pid {pid}), journal: 'Started kvdagent.service' "
           f"{'present' if 'Started kvdagent.service' in journal else 'missing'}, "
           f"{plug_ins(server)} plug-in(s)", started)
    assert pid and "Started kvdagent.service" in journal, journal


def test_stop_and_kill(machine, server):
    started = time.monotonic()
    assert wait_until(lambda: "OK - Catalog stored" in trace(machine), 30), trace(machine)
    before = time.time()
    stop = time.monotonic()
    stopped = machine.run("systemctl", "stop", "kvdagent", check=False)
    took = time.monotonic() - stop
    state = unit_state(machine)
    written = [name for name in CACHES
               if machine.path(f"/var/qsam/cache/{name}").stat().st_mtime >= before - 1]
    record("systemctl stop", "exit 0 within 5 s, caches written, not restarted",
           f"exit {stopped.returncode} in {took:.1f} s, {state['SubState']}, wrote "
           f"{', '.join(written)}", started)
    assert stopped.returncode == 0 and took < 5
    # Restart=always brings back only what systemctl did not stop: no restart is pending.
    assert (state["ActiveState"], state["SubState"]) == ("inactive", "dead"), state
    assert written == list(CACHES)
    assert trace(machine).rstrip().endswith("OK - Agent stopped")

    started = time.monotonic()
    machine.run("systemctl", "start", "kvdagent")
    pid = wait_until(lambda: running_agent(machine), 30)
    # Each start writes its trace afresh; the old agent goes on writing to the file it has open.
    assert wait_until(lambda: "LAT - The catalog has been read from file" in trace(machine), 30)
    machine.path(TRACE).unlink()
    machine.run("sh", "-c", f"kill -9 {pid}")
    new_pid = wait_until(lambda: running_agent(machine) not in (0, pid) and running_agent(machine),
                         30)
    reloaded = wait_until(
        lambda: "LAT - The catalog has been read from file" in machine.read(TRACE), 30)
    record("kill -9 of the daemon", "systemd starts it again, the caches load",
           f"pid {pid} -> {new_pid}, catalog {'read' if reloaded else 'not read'} from file",
           started)
    assert new_pid and reloaded, trace(machine)


def test_power_off_and_boot_again(machine, server):
    # Booted so far with nspawn's own system call filter, as an operator would first run it.
    started = time.monotonic()
    refusal = re.findall(r"ERROR - The built-in exec monitor[^\n]*", trace(machine))
    record("exec monitor, nspawn's default filter", "refused: fanotify_init and _mark are not "
           "let through", refusal[-1][8:] if refusal else "not refused", started)

    started = time.monotonic()
    # Debian's installer maps the host name to 127.0.1.1: the name then resolves, to loopback.
    machine.write("/etc/hosts", machine.read("/etc/hosts") + f"127.0.1.1\t{MACHINE_NAME}\n")
    plugged = plug_ins(server)
    status = machine.poweroff()
    state = machine.boot(EXEC_MONITOR_CALLS)
    pid = wait_until(lambda: running_agent(machine), 60)
    assert wait_until(lambda: plug_ins(server) > plugged, 60), trace(machine)
    text = trace(machine)
    loaded = [name for name, line in (("catalog", "LAT - The catalog has been read from file"),
                                      ("unknown files", "UAT - The unknown file list has been read"))
              if line in text[text.rfind("Init communication"):]]
    record("power off, boot again (fanotify let through)",
           "comes up by itself, reads its caches, plugs in",
           f"nspawn exit {status}, {state}, agent pid {pid}, read {', '.join(loaded)}", started)
    assert status == 0 and state == "running" and pid
    assert loaded == ["catalog", "unknown files"], text[-3000:]
    warning = f"WARNING - Host name {MACHINE_NAME} resolves only to loopback address 127.0.1.1: " \
              f"reporting {Facts.address}"
    record("host name on 127.0.1.1", "reports the non-loopback address, WARNING",
           "WARNING traced" if warning in text else "no WARNING", started)
    assert warning in text, text[-3000:]


def test_exec_monitor_in_the_container(machine, server):
    started = time.monotonic()
    text = trace(machine)
    if "OK - Monitoring with the built-in exec monitor" not in text:
        record("built-in exec monitor", "programs identified or recorded",
               "refused in the container (fanotify)", started)
        pytest.skip("the built-in exec monitor is refused in this container: "
                    + (re.findall(r"ERROR - The built-in exec monitor[^\n]*", text) or ["?"])[-1])
    for program in ("/usr/local/bin/known-tool", "/usr/local/bin/homegrown"):
        machine.run(program)
    identified = wait_until(lambda: " - Found 'known-tool' in catalog" in trace(machine), 30)
    uploaded = wait_until(lambda: server.rows(
        "SELECT directory FROM unknown_files WHERE name = 'homegrown'"), 60)
    record("built-in exec monitor", "known-tool identified, homegrown recorded and uploaded",
           f"known-tool {'identified' if identified else 'not identified'}, homegrown "
           f"{'uploaded from ' + uploaded[0][0] if uploaded else 'not uploaded'}", started)
    assert identified and uploaded, trace(machine)[-3000:]


def test_self_update_installs_a_newer_package(machine, server, packages, tmp_path):
    started = time.monotonic()
    deb, newer = packages
    files = tmp_path / "files"
    (files / "pkg").mkdir(parents=True)
    (files / "pkg/inst.sh").write_text(INSTALLER.format(log=INSTALLER_LOG))
    (files / "pkg/kvdagent-new.deb").write_bytes(newer.read_bytes())
    offer = scenario(Facts.known_size, parameters={"update_enabled": "yes", "max_update_period": 2},
                     new_agent={"command": "/tmp/qsam/inst.sh /tmp/qsam/kvdagent-new.deb",
                                "files": ["/pkg/inst.sh", "/pkg/kvdagent-new.deb"]},
                     downloads={"root": str(files), "sign": True})
    server.play(offer)
    old_version = machine.run("dpkg-query", "-W", "-f=${Version}", "kvdagent").stdout
    # The parameters that turn the update on are asked for at every start.
    machine.run("systemctl", "restart", "kvdagent")
    old_pid = wait_until(lambda: running_agent(machine), 30)
    fetched = wait_until(lambda: server.rows(
        "SELECT id FROM requests WHERE path = '/pkg/kvdagent-new.deb'"), 60)
    assert fetched, trace(machine)[-3000:]
    # Offered once: the new agent finds nothing newer.
    server.play(scenario(Facts.known_size))
    plugged = plug_ins(server)
    finished = wait_until(lambda: "finished: " in machine.read(INSTALLER_LOG), 60)
    log = machine.read(INSTALLER_LOG)
    new_pid = wait_until(lambda: running_agent(machine) not in (0, old_pid)
                         and running_agent(machine), 60)
    assert wait_until(lambda: plug_ins(server) > plugged, 60), trace(machine)[-3000:]
    version = machine.run("dpkg-query", "-W", "-f=${Version}", "kvdagent").stdout
    audit = machine.run("dpkg", "--audit", check=False)
    # The old agent's trace is gone with its start of the new one; the installer and the
    # journal say where it ran.
    unit = re.search(r"started in 0::/system.slice/(kvdagent-update-\d+)\.service", log)
    name = unit.group(1) if unit else "no unit"
    launched = machine.run("journalctl", "--no-pager", "-o", "cat", "-u", "kvdagent").stdout
    ran = machine.run("journalctl", "--no-pager", "-o", "cat", "-u", f"{name}.service").stdout
    killed = [line for line in launched.splitlines() if "inst.sh" in line and "Kill" in line]
    record("self-update to a newer package",
           "new version, active with a new pid, nothing half-configured, plugs in",
           f"{old_version} -> {version}, pid {old_pid} -> {new_pid}, dpkg --audit "
           f"{'empty' if not audit.stdout.strip() else 'reports'}, plugged in again", started)
    record("installer under systemd", "in a unit of its own, survives the agent's restart",
           f"{name}, {log.splitlines()[-1] if log else 'no log'}, "
           f"{'deactivated successfully' if 'Deactivated successfully' in ran else 'not ended'}"
           f", {len(killed)} kill(s) of it", started)
    assert finished and log.splitlines()[-1] == "finished: 0", log
    assert unit is not None and f"Running as unit: {name}.service" in launched, launched
    assert f"{name}.service: Deactivated successfully" in ran, ran
    assert version == field_of(newer, "Version") != old_version, version
    assert new_pid and (audit.returncode, audit.stdout.strip()) == (0, ""), audit
    assert killed == [], killed


def test_purge_leaves_only_what_the_readme_names(machine, server):
    started = time.monotonic()
    machine.run("apt-get", "purge", "-y", "-q", "kvdagent")
    state = unit_state(machine)
    left = machine.run("find", "/", "/tmp", "-xdev", "(", "-name", "*kvd*", "-o", "-name",
                       "qsam", ")", "-print", check=False).stdout.split()
    # What the suite itself put there: the package file, the drop-in, the installer's log.
    ours = {"/etc/systemd/system/kvdagent.service.d", INSTALLER_LOG}
    others = sorted(path for path in left if path not in ours and not path.startswith("/root/"))
    record("apt-get purge", "agent stopped; nothing of it left but its journal lines",
           f"{state['ActiveState']}; left: {', '.join(others) or 'nothing'}", started)
    assert state["ActiveState"] == "inactive" and others == [], left
    assert agent_processes(machine) == []

    started = time.monotonic()
    status = machine.poweroff()
    record("power off", "nspawn ends with status 0", f"exit {status}", started)
    assert status == 0
