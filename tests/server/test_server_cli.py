"""The server as a subprocess: port line, reload on SIGHUP, clean SIGTERM,
the dump command, and start-up refusal of a bad scenario."""

import json
import os
import signal
import socket
import ssl
import subprocess
import sys
import time

from rs_client import answer, exchange, plugin_fields, read_all, service_request

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SERVER = os.path.join(REPO, "tools", "runtime_server", "server.py")


def run_cli(*args, text=True):
    return subprocess.run([sys.executable, SERVER, *args], capture_output=True, text=text, timeout=60)


def wait_for(predicate, seconds=10):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(0.05)
    return False


def test_serve_reload_and_stop(tmp_path):
    scenario = tmp_path / "scenario.json"
    scenario.write_text(json.dumps({"plugin": {"node_id": 77}}))
    state = tmp_path / "state"
    proc = subprocess.Popen([sys.executable, SERVER, "serve", "--state", str(state),
                             "--scenario", str(scenario)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        first = proc.stdout.readline()
        assert first.startswith("port ")
        port = int(first.split()[1])
        assert exchange(port, service_request("2", plugin_fields())) == \
            answer("2", b"77\r\n<response:0,1:ok>\r\n")

        scenario.write_text(json.dumps({"plugin": {"node_id": 88}}))
        proc.send_signal(signal.SIGHUP)
        assert wait_for(lambda: exchange(port, service_request("2", plugin_fields()))
                        == answer("2", b"88\r\n<response:0,0:ok>\r\n"))

        # A broken scenario is refused and the running one stays.
        scenario.write_text("{not json")
        proc.send_signal(signal.SIGHUP)
        assert "reload failed" in proc.stderr.readline() + proc.stderr.readline()
        assert exchange(port, service_request("2", plugin_fields())).startswith(b"HTTP/1.0 200")

        proc.send_signal(signal.SIGTERM)
        assert proc.wait(timeout=10) == 0
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()

    dump = run_cli("dump", "--state", str(state))
    assert dump.returncode == 0
    assert "agent 42 node 1001 host host1 ip 10.0.0.5 division 7," in dump.stdout
    assert "request 1 agent 42 node line '77' first 1 result 1" in dump.stdout
    raw = run_cli("dump", "--state", str(state), "--raw", "1", text=False)
    assert raw.stdout == service_request("2", plugin_fields())


def test_bad_scenario_stops_start_up(tmp_path):
    scenario = tmp_path / "scenario.json"
    scenario.write_text(json.dumps({"services": {"99": {"delay": 1}}}))
    out = run_cli("serve", "--state", str(tmp_path / "state"), "--scenario", str(scenario))
    assert out.returncode == 1
    assert "unknown service '99'" in out.stderr
    assert out.stdout == ""


def test_serve_tls_with_a_test_ca(tmp_path):
    made = run_cli("testca", str(tmp_path / "ca"), "127.0.0.1", "localhost")
    assert made.returncode == 0, made.stderr
    pin = made.stdout.strip()
    assert len(pin) == 44 and pin.endswith("=")
    ca = tmp_path / "ca"
    proc = subprocess.Popen([sys.executable, SERVER, "serve", "--state", str(tmp_path / "state"),
                             "--tls-cert", str(ca / "server.pem"),
                             "--tls-key", str(ca / "server.key")],
                            stdout=subprocess.PIPE, text=True)
    try:
        port = int(proc.stdout.readline().split()[1])
        client = ssl.create_default_context(cafile=str(ca / "ca.pem"))
        # Checked by name and by address; the answer is the one given in the clear, and it ends with
        # close_notify (a ragged end would raise here).
        for name in ("localhost", "127.0.0.1"):
            with socket.create_connection(("127.0.0.1", port), timeout=30) as raw, \
                    client.wrap_socket(raw, server_hostname=name, suppress_ragged_eofs=False) as s:
                s.sendall(service_request("2", plugin_fields()))
                assert read_all(s) == answer("2", b"1001\r\n<response:0,%d:ok>\r\n"
                                             % (1 if name == "localhost" else 0))
        # A client in the clear gets no answer and leaves no request behind.
        try:
            plain = exchange(port, service_request("1", []), timeout=10)
        except ConnectionResetError:
            plain = b""
        assert b"HTTP" not in plain
    finally:
        proc.send_signal(signal.SIGTERM)
        assert proc.wait(timeout=10) == 0
    dump = run_cli("dump", "--state", str(tmp_path / "state"))
    assert dump.stdout.count("request ") == 2, dump.stdout
