"""The daemon's cache files across a stop and a start: written at SIGTERM, read back at start-up,
and thrown away when they were written for another server or by another version."""
import struct

from conftest import wait_for
from test_frame import messages

SERVER = "127.0.0.1"  # the configured server, which the files name as the preferred one


def header(major: int, minor: int, time: int, server: str = SERVER) -> bytes:
    return struct.pack("<IIq", major, minor, time) + server.encode().ljust(256, b"\0")


def component(comp_id: int, attributes: tuple[int, int, int]) -> bytes:
    return struct.pack("<qq3Bx", comp_id, 0, *attributes)


def catalog_file(name: str, size: int, attributes: tuple[int, int], ids: list[int]) -> bytes:
    slots = ids + [0] * (16 - len(ids))
    return (name.encode().ljust(256, b"\0") + struct.pack("<qiiI", size, *attributes, 0) +
            struct.pack("<16q", *slots) + struct.pack("<i", len(ids)))


def unknown_entry(name: str, size: int, path: str, time: int) -> bytes:
    return (name.encode().ljust(256, b"\0") + struct.pack("<qiiI", size, 0, 0, 0) +
            path.encode().ljust(404, b"\0") + struct.pack("<i", time))


def cache_files(agent_root) -> dict:
    cache = agent_root.file("var/qsam/cache")
    return {name: (cache / name).read_bytes() for name in ("catalog.dat", "uat.dat", "server.dat")
            if (cache / name).exists()}


def test_stop_writes_every_cache_and_start_reads_them_back(agent_root):
    agent_root.write_configuration(trace_level="1")
    agent_root.stop_daemon(agent_root.start_daemon())
    files = cache_files(agent_root)
    assert files["catalog.dat"] == header(1, 2, 0) + struct.pack("<i", 0)
    assert files["uat.dat"] == header(1, 3, 0)
    assert files["server.dat"].startswith(struct.pack("<II", 1, 2))

    agent_root.stop_daemon(agent_root.start_daemon())
    texts = messages(agent_root.trace_text())
    cache = agent_root.file("var/qsam/cache")
    assert f"LAT - The catalog has been read from file {cache}/catalog.dat, 0 comps, 0 files" in texts
    assert (f"UAT - The unknown file list has been read from file {cache}/uat.dat, 0 entries"
            in texts)
    assert cache_files(agent_root) == files


def test_hand_made_catalog_and_unknown_files_survive_a_start_and_stop(agent_root):
    catalog = (header(1, 2, 1700000000000) + struct.pack("<i", 2) + component(12, (1, 0, 2)) +
               component(13, (0, 0, 0)) + catalog_file("App.exe", 4096, (1, -2), [12, 13]) +
               catalog_file("tool", 10, (0, 0), [13]))
    unknown = (header(1, 3, 1700000100) + unknown_entry("setup", 100, "/opt/a", 1700000050) +
               unknown_entry("other", 5000000000, "/usr/local/bin", 1700000200))
    cache = agent_root.file("var/qsam/cache")
    cache.mkdir(parents=True)
    (cache / "catalog.dat").write_bytes(catalog)
    (cache / "uat.dat").write_bytes(unknown)
    agent_root.write_configuration(trace_level="1")
    agent_root.stop_daemon(agent_root.start_daemon())

    texts = messages(agent_root.trace_text())
    assert f"LAT - The catalog has been read from file {cache}/catalog.dat, 2 comps, 2 files" in texts
    assert f"UAT - The unknown file list has been read from file {cache}/uat.dat, 2 entries" in texts
    files = cache_files(agent_root)
    assert files["catalog.dat"] == catalog
    assert files["uat.dat"] == unknown


def test_files_of_another_server_or_version_are_dropped(agent_root):
    cache = agent_root.file("var/qsam/cache")
    cache.mkdir(parents=True)
    (cache / "catalog.dat").write_bytes(header(1, 2, 5, server="10.1.1.1") + struct.pack("<i", 1) +
                                        component(1, (0, 0, 0)))
    (cache / "uat.dat").write_bytes(header(1, 2, 5) + unknown_entry("x", 1, "/", 1))
    agent_root.write_configuration(trace_level="1")
    pid = agent_root.start_daemon()
    assert wait_for(lambda: "OK - Starting agent..." in agent_root.trace_text())
    texts = messages(agent_root.trace_text())
    assert f"LAT - no Catalog file {cache}/catalog.dat" in texts
    assert f"UAT - no Unknown Files file {cache}/uat.dat" in texts
    assert "WARNING - The minor version is different: actual 2, read 3" in texts
    # Both were deleted at once, not only replaced at the stop.
    assert cache_files(agent_root).keys() <= {"server.dat"}
    agent_root.stop_daemon(pid)
    files = cache_files(agent_root)
    assert files["catalog.dat"] == header(1, 2, 0) + struct.pack("<i", 0)
    assert files["uat.dat"] == header(1, 3, 0)
