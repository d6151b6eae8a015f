"""The removal run "-r": every agent driver the kernel lists is switched off and its files go."""
import os

import pytest

REMOVED = "3503 - Orvane Agent has been successfully removed.\n"
NOT_REMOVED = "3504 - Error 1 occurred while attempting to remove Orvane Agent.\n"


@pytest.mark.parametrize("with_catalogue", [False, True])
def test_removal_deletes_the_listed_drivers(agent_root, request, with_catalogue):
    if os.geteuid() != 0:
        pytest.skip("creating device nodes needs root")
    if with_catalogue:
        request.getfixturevalue("installed_catalogue")
    agent_root.file("proc").mkdir()
    agent_root.file("proc/devices").write_text(
        "Character devices:\n  1 mem\n 61 kvdkagent-old\n 62 kvdkagent-older\n\nBlock devices:\n")
    modules = agent_root.file("lib/modules")
    modules.mkdir(parents=True)
    for name in ("kvdkagent-old.o", "kvdkagent-older.o", "kvdkagent-kept.o", "other.o"):
        (modules / name).write_text(name)

    result = agent_root.run("-r")
    assert (result.returncode, result.stdout) == (0, REMOVED)
    assert sorted(p.name for p in modules.iterdir()) == ["kvdkagent-kept.o", "other.o"]
    assert not agent_root.file("var/qsam/kvdkagent").exists()


def test_removal_fails_without_the_device_list(agent_root):
    result = agent_root.run("-r")
    assert (result.returncode, result.stdout) == (1, NOT_REMOVED)
