"""Attacks on the agent as root, each tried against the real daemon and the reference server: the
way in must stay shut. Every case records what it expected and what it saw; the table goes to
"attack-report.txt" beside the binary under test, so a run shows the whole suite at a glance."""
import json
import os
import pathlib
import stat

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

def offer_update(agent_root, files_root: pathlib.Path, command: str, files: list[str]) -> dict:
    """A scenario offering a new agent made of `files` (served signed from `files_root`) with the
    installation command line `command`."""
    return {"parameters": {"update_enabled": "yes", "max_update_period": 2},
            "new_agent": {"command": command, "files": files},
            "downloads": {"root": str(files_root), "sign": True}}


def publish(files_root: pathlib.Path, relative: str, text: str, mode: int = 0o644) -> None:
    path = files_root / relative.lstrip("/")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(mode)


def test_an_injected_install_command_runs_nothing(agent_root, servers, tmp_path):
    marker = agent_root.path / "owned"
    qsam = agent_root.file("tmp/qsam")
    files = tmp_path / "files"
    # The signed installer itself only fails, so that the agent comes back after a launch.
    publish(files, "pkg/install.sh", "#!/bin/sh\nexit 3\n")
    publish(files, "pkg/install.sh x", "signed, but not the program named")
    # A stale program from an earlier update, never verified for this one.
    qsam.mkdir(mode=0o700)
    (qsam / "install.sh").write_text(f"#!/bin/sh\ntouch {marker}\n")
    (qsam / "install.sh").chmod(0o700)
    cases = [
        ("semicolon", f"{qsam}/install.sh -q;touch {marker}", ["/pkg/install.sh"],
         "word 2 '-q;touch'"),
        ("pipe", f"{qsam}/install.sh -q|touch {marker}", ["/pkg/install.sh"], "word 2 '-q|touch'"),
        ("command substitution", f"{qsam}/install.sh $(touch {marker})", ["/pkg/install.sh"],
         "word 2 '$(touch'"),
        ("backticks", f"{qsam}/install.sh `touch {marker}`", ["/pkg/install.sh"],
         "word 2 '`touch'"),
        ("newline", f"{qsam}/install.sh -q\ntouch {marker}", ["/pkg/install.sh"], "word 2 '-q"),
        ("not a verified file", f"/usr/bin/touch {marker}", ["/pkg/install.sh"],
         "its program '/usr/bin/touch' is not one of the files downloaded"),
        ("program name with a blank", f"{qsam}/install.sh x", ["/pkg/install.sh x"],
         f"its program '{qsam}/install.sh' is not one of the files downloaded"),
    ]
    server = servers(offer_update(agent_root, files, "", ["/pkg/install.sh"]))
    scenario_path = server.directory / "scenario.json"
    pid = None
    outcomes = []
    for name, command, offered, rule in cases:
        scenario_path.write_text(json.dumps(offer_update(agent_root, files, command, offered)))
        server.server.reload()
        refused = traced(agent_root, "ERROR - Update command refused: " + rule)
        if pid is None:
            pid = run_agent(agent_root, server)
        seen = bool(wait_for(lambda: refused() or marker.exists(), timeout=20)) and refused()
        ran = marker.exists()
        marker.unlink(missing_ok=True)
        record(f"install command: {name}", "refused, nothing runs",
               ("refused" if seen else "not refused") + (", marker made" if ran else ""))
        outcomes.append((name, seen, ran))
    assert [o for o in outcomes if not o[1] or o[2]] == []
    assert "Launching" not in agent_root.trace_text()
    assert agent_root.daemon_pids() == [pid]


# --- The temporary directory and planted links ---------------------------------------------------

NOBODY = 65534


def plant_foreign_directory(agent_root, victim: pathlib.Path) -> None:
    """A user's own /tmp/qsam, open to all, with a link at the installer's name."""
    qsam = agent_root.file("tmp/qsam")
    qsam.mkdir()
    (qsam / "install.sh").symlink_to(victim)
    os.lchown(qsam / "install.sh", NOBODY, NOBODY)
    os.chown(qsam, NOBODY, NOBODY)
    qsam.chmod(0o755)


def plant_link(agent_root, victim: pathlib.Path) -> None:
    """/tmp/qsam as a link to a directory the user owns, holding a link at the installer's name."""
    theirs = agent_root.file("home/user/qsam")
    theirs.mkdir(parents=True)
    (theirs / "install.sh").symlink_to(victim)
    os.chown(theirs, NOBODY, NOBODY)
    agent_root.file("tmp/qsam").symlink_to(theirs)


@pytest.mark.parametrize("plant", [plant_foreign_directory, plant_link],
                         ids=["made by a user", "a link"])
def test_a_users_temporary_directory_is_not_used(agent_root, servers, tmp_path, plant):
    victim = agent_root.file("etc/shadow")
    victim.write_text("root:secret\n")
    victim.chmod(0o600)
    plant(agent_root, victim)
    files = tmp_path / "files"
    publish(files, "pkg/install.sh", f"#!/bin/sh\necho ran >> {agent_root.path}/installed\n")
    qsam = agent_root.file("tmp/qsam")
    server = servers(offer_update(agent_root, files, f"{qsam}/install.sh", ["/pkg/install.sh"]))
    run_agent(agent_root, server)
    ran = wait_for(lambda: agent_root.file("installed").exists(), timeout=30)
    status = os.lstat(qsam)
    landed = (stat.S_ISDIR(status.st_mode) and status.st_uid == 0
              and stat.S_IMODE(status.st_mode) == 0o700)
    untouched = victim.read_text() == "root:secret\n"
    record(f"temporary directory {plant.__name__.split('_', 1)[1].replace('_', ' ')}",
           "moved aside; victim untouched; download in a root-only directory",
           f"victim {'untouched' if untouched else 'overwritten'}; "
           f"directory {'root-only' if landed else 'foreign'}; installer {'ran' if ran else 'not run'}")
    assert untouched
    assert landed
    assert "WARNING - " + str(qsam) + " is not a directory only the agent can use" in \
        agent_root.trace_text()
    assert ran


# --- Answers too large or too slow ---------------------------------------------------------------


# --- Hostile file names --------------------------------------------------------------------------


# --- The scanner: FIFOs, deep trees, descriptors -------------------------------------------------


# --- What a child of the agent inherits ----------------------------------------------------------

def test_the_installer_inherits_only_standard_streams_and_a_fixed_environment(
        agent_root, servers, tmp_path):
    report = agent_root.path / "child.json"
    files = tmp_path / "files"
    # It looks at every descriptor number it could have, without opening one of its own.
    publish(files, "pkg/install.py", f"""#!/usr/bin/python3
import json, os
def is_open(fd):
    try:
        os.fstat(fd)
        return True
    except OSError:
        return False
open_fds = [fd for fd in range(0, 4096) if is_open(fd)]
with open("{report}", "w") as out:
    json.dump({{"fds": open_fds, "env": dict(os.environ)}}, out)
""")
    qsam = agent_root.file("tmp/qsam")
    server = servers(offer_update(agent_root, files, f"{qsam}/install.py", ["/pkg/install.py"]))
    run_agent(agent_root, server)
    assert wait_for(lambda: report.exists() and report.read_text().endswith("}"), timeout=30)
    child = json.loads(report.read_text())
    inherited = child["fds"]
    names = sorted(child["env"])
    record("installer's descriptors and environment", "0-2; PATH and LANG only",
           f"{inherited}; " + (", ".join(names) if len(names) < 5 else f"{len(names)} variables"))
    assert inherited == [0, 1, 2]
    assert child["env"] == {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
