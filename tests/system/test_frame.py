"""The start-up frame driven through the real binary: options, directories, the daemon's life."""
import pathlib
import re
import subprocess
import time

import pytest

from conftest import wait_for

HEADER = re.compile(
    r"File: (\S*) Line: (\d+) Time: (Mon|Tue|Wed|Thu|Fri|Sat|Sun) "
    r"(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ \d]\d \d\d:\d\d:\d\d \d{4} Tid: \d+$")

# The binary under test is built with the development key (the reference server signs with it):
# every trace it starts begins with this.
DEV_KEY_WARNING = ("WARNING - Built with the development signing key: any holder of the repository "
                   "can sign updates")

USAGE = ('Usage: "{name} [option]" where the option may be:\n'
         "\t-v : Version\n\t-p : Plugin\n\t-s : Inventory\n\t-sp -ps: Inventory and Plugin\n"
         "\t(none): Run as process\n")


def messages(trace: str) -> list[str]:
    """The message texts of a trace, after checking that every header is well formed."""
    lines = trace.splitlines()
    texts = []
    for header, text in zip(lines[0::2], lines[1::2]):
        assert HEADER.match(header), header
        assert text.startswith("  "), text
        texts.append(text[2:])
    return texts


@pytest.mark.parametrize("with_catalogue", [False, True])
def test_version_prints_product_version_and_build(agent_root, request, with_catalogue):
    if with_catalogue:
        request.getfixturevalue("installed_catalogue")
    result = agent_root.run("-v")
    assert result.returncode == 0
    assert re.match(r"\n Orvane Agent version \d+\.\d+\.\d+ - Build \d{4}-\d\d-\d\d\n\n",
                    result.stdout), result.stdout


def test_version_prints_the_notice_as_it_stands_and_help_formats_it(agent_root):
    source = agent_root.path / "notice.msg"
    source.write_text('$quote "\n$set 2\n16 "Notice: 100%% pure\\n"\n')
    target = agent_root.file("var/qsam/nls/C/kvdagt.cat")
    target.parent.mkdir(parents=True)
    subprocess.run(["gencat", str(target), str(source)], check=True)
    assert agent_root.run("-v").stdout.endswith("\n\nNotice: 100%% pure\n")
    assert "\n\nNotice: 100% pure\nUsage: " in agent_root.run("-x").stdout


@pytest.mark.parametrize("argument", ["-x", "-pp", "-P", "--v", "-V"])
def test_anything_else_prints_help(agent_root, argument):
    result = agent_root.run(argument)
    assert result.returncode == 0
    assert result.stdout.startswith("\n Orvane Agent version ")
    assert result.stdout.endswith(USAGE.format(name=result.args[0]))


def test_missing_qsam_fails_every_use(agent_root):
    (agent_root.path / "var/qsam").rmdir()
    for args in [(), ("-v",), ("-p",), ("a", "b")]:
        result = agent_root.run(*args)
        assert result.returncode == 1
        assert result.stdout == (f"ERROR - Couldn't create directory {agent_root.path}/var/qsam/log,"
                                 " error: 2ERROR DIRS\n")
    assert not agent_root.daemon_pids()


def test_daemon_traces_and_stops_in_order(agent_root):
    agent_root.write_configuration(trace_level="1")
    pid = agent_root.start_daemon()
    assert wait_for(lambda: "OK - Starting agent..." in agent_root.trace_text())
    for directory in ("var/qsam/log", "var/qsam/cache", "tmp/qsam"):
        assert agent_root.file(directory).is_dir()
        assert agent_root.file(directory).stat().st_mode & 0o777 == 0o700
    agent_root.stop_daemon(pid)

    texts = messages(agent_root.trace_text())
    # The configured level applies only after the configuration is read, so the loading line of
    # level 1 is not there.
    assert "- Loading configuration file" not in "".join(texts)
    assert (texts.index("OK - Starting agent...") < texts.index(" - Starting commands thread") <
            texts.index(" - Stopping commands thread") < texts.index("CMDS Thread stopped"))
    assert texts[-1] == "OK - Agent stopped"


def main_thread_switches(pid: int) -> int:
    status = pathlib.Path(f"/proc/{pid}/task/{pid}/status").read_text()
    return sum(int(line.split()[1]) for line in status.splitlines() if "ctxt_switches" in line)


def test_idle_daemon_main_thread_sleeps_until_sigterm(agent_root):
    agent_root.write_configuration(trace_level="1")
    pid = agent_root.start_daemon()
    # The main thread's last work is starting the monitor thread, which then opens its device (or
    # is refused when there is none).
    assert wait_for(lambda: any(line in agent_root.trace_text() for line in
                                ("Enabling driver", "Error creating monitor thread")))
    before = main_thread_switches(pid)
    # An observation window, not a wait: a main thread that wakes on a timer switches in it.
    time.sleep(2.5)
    assert main_thread_switches(pid) == before
    agent_root.stop_daemon(pid)
    assert messages(agent_root.trace_text())[-1] == "OK - Agent stopped"


# With no server at the configured port the commands thread's plug-in fails at once.
PLUG_IN_FAILED = "ERROR - Error init http request, service: 2"
# The root has no /proc/devices and no module, so the kernel driver step fails at once and the
# built-in exec monitor is used where the kernel has it (its device says it closed at the stop);
# otherwise the monitor does not start. The commands thread runs beside the start-up, so the order
# of these lines varies; the stop line comes last.
LEVEL_0_TRACE = [DEV_KEY_WARNING, "Unable to open /proc/devices, errno: 2",
                 "Could not delete old drivers", "CMDS - No self update to do (time: 0)",
                 "ERROR - no http handle", PLUG_IN_FAILED]
# The stop's close cuts the monitor's read short; a monitor stopped while it was still opening the
# device finds nothing to read and closes the device itself.
WITH_BUILTIN_MONITOR = (["DRIVER CLOSED", "ERROR  - Reading Driver: nBytesRead 0 drv_errno 0",
                         "Driver errno reading 0"], ["DRIVER CLOSED", "DRIVER CLOSED"])
WITHOUT_MONITOR = ["ERROR - The built-in exec monitor is not available on this kernel",
                   "Found driver status 3 exiting", "Error creating monitor thread"]


@pytest.mark.parametrize("level, expected", [
    ("0", LEVEL_0_TRACE),
    ("abc", LEVEL_0_TRACE),  # the warning is a level-1 line
    ("7", LEVEL_0_TRACE),  # read, but out of range for the trace
    ("000000000000001", LEVEL_0_TRACE),  # read through 15 bytes: the final 1 is cut off
    ("00000000000001", "OK - Starting agent..."),
    ("1 # verbose", "OK - Starting agent..."),  # leading digits count
])
def test_daemon_honours_trace_level(agent_root, level, expected):
    agent_root.write_configuration(trace_level=level)
    pid = agent_root.start_daemon()
    assert wait_for(lambda: PLUG_IN_FAILED in agent_root.trace_text())
    agent_root.stop_daemon(pid)
    texts = messages(agent_root.trace_text())
    if isinstance(expected, list):
        monitors = WITH_BUILTIN_MONITOR if "DRIVER CLOSED" in texts else (WITHOUT_MONITOR,)
        assert sorted(texts[:-1]) in [sorted(expected + monitor) for monitor in monitors]
        assert texts[-1] == "OK - Agent stopped"
    else:
        assert expected in texts


@pytest.mark.parametrize("size, expected", [
    ("6000 bytes", "Trace size (bytes): 6000 (min: 5000, max: 100000000)"),
    ("5000", "Trace size (bytes): 2000000 (min: 5000, max: 100000000)"),
    ("big", "WARNING - Bad trace size value big"),
])
def test_daemon_reads_trace_size(agent_root, size, expected):
    agent_root.write_configuration(trace_level="1", trace_size=size)
    agent_root.stop_daemon(agent_root.start_daemon())
    # A small size may have rolled the start-up's lines over into the backup generation.
    backup = agent_root.file("var/qsam/log/traceagt.log.bck")
    earlier = backup.read_text(errors="replace") if backup.exists() else ""
    assert expected in messages(earlier + agent_root.trace_text())


def test_two_arguments_run_the_daemon(agent_root):
    agent_root.write_configuration()
    agent_root.stop_daemon(agent_root.start_daemon("-v", "-p"))
    assert messages(agent_root.trace_text())[-1] == "OK - Agent stopped"


@pytest.mark.parametrize("configuration", ["agentid=1\nagentid=2\n", None])
def test_bad_configuration_fails_start_up(agent_root, configuration):
    if configuration is not None:
        agent_root.write_configuration(raw=configuration)
    result = agent_root.run()
    assert result.returncode == 0
    assert wait_for(lambda: not agent_root.daemon_pids())
    assert messages(agent_root.trace_text()) == [DEV_KEY_WARNING,
                                                 "ERROR - Main loading 'kvdagent.ini' not loaded"]
    # The daemon child reports the failed initialisation step on the standard error it inherited.
    assert agent_root.file("run.err").read_text() == (
        "Failure at file: agent/service/unix/sys_service.cpp, line: 245\n")
