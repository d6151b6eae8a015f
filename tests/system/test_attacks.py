"""Attacks on the agent as root, each tried against the real daemon and the reference server: the
way in must stay shut. Every case records what it expected and what it saw; the table goes to
"attack-report.txt" beside the binary under test, so a run shows the whole suite at a glance."""
import os
import pathlib

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


# --- The temporary directory and planted links ---------------------------------------------------


# --- Answers too large or too slow ---------------------------------------------------------------


# --- Hostile file names --------------------------------------------------------------------------


# --- The scanner: FIFOs, deep trees, descriptors -------------------------------------------------


# --- What a child of the agent inherits ----------------------------------------------------------
