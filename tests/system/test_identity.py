"""Agent identity at start-up: required keys, the properties trace, the caches it creates."""
import pytest

from conftest import wait_for
from test_frame import DEV_KEY_WARNING, messages


@pytest.mark.parametrize("missing", ["agentid", "divisionid", "tag", "customer"])
def test_missing_required_key_fails_start_up(agent_root, missing):
    agent_root.write_configuration(**{missing: None})
    result = agent_root.run()
    assert result.returncode == 0
    assert wait_for(lambda: not agent_root.daemon_pids())
    texts = messages(agent_root.trace_text())
    assert texts == [DEV_KEY_WARNING, f'ERROR - Needed tag "{missing}" not found',
                     "ERROR - Init the agent info"]


def test_complete_configuration_describes_the_agent(agent_root):
    agent_root.write_configuration(trace_level="1")
    pid = agent_root.start_daemon()
    assert wait_for(lambda: "OK - Starting agent..." in agent_root.trace_text())
    agent_root.stop_daemon(pid)

    texts = messages(agent_root.trace_text())
    start = texts.index(" - Loading agent properties")
    # The environment's code set is UTF-8 (LANG=C.UTF-8).
    assert texts[start + 1:start + 3] == ["OK - Agent codeset: UTF-8", "OK - Agent properties"]
    assert texts.index(" - Init communication") > start
    assert texts.index(" - Creating agent cache") < texts.index("OK - Cache created")
    assert texts[-3:] == ["OK - Cache deleted", "OK - Close Communication", "OK - Agent stopped"]
    # The server cache is written at shut-down, the state the next start begins from.
    assert agent_root.file("var/qsam/cache/server.dat").stat().st_size > 0


def test_zero_server_port_fails_cache_creation(agent_root):
    agent_root.write_configuration(port="0", trace_level="1")
    result = agent_root.run()
    assert result.returncode == 0
    assert wait_for(lambda: not agent_root.daemon_pids())
    texts = messages(agent_root.trace_text())
    # Communication was up by then, and is closed again.
    assert texts[-3:] == ["ERROR - Bad server port value: 0", "ERROR - Main during cache creation",
                          "OK - Close Communication"]
