"""TLS to the server: the demo's story against the reference server serving TLS with a CA made at
test time, directly and through tinyproxy's CONNECT tunnel; and the servers the agent must refuse
(another CA, another name, another key than the pinned one, a server in the clear), each with its
ERROR line and without one byte of the agent's requests in the clear on the wire."""
import contextlib
import pathlib
import select
import shutil
import socket
import subprocess
import sys
import threading

import pytest

from conftest import AGENT_BIN, SOURCE_DIR, wait_for

sys.path.insert(0, str(SOURCE_DIR / "scripts"))
sys.path.insert(0, str(SOURCE_DIR / "tools"))
import demo_story  # noqa: E402
from runtime_server import testca  # noqa: E402
from runtime_server.httpd import RuntimeServer  # noqa: E402

CA_IN_ROOT = "/etc/kvdagent/server-ca.pem"
# A well-formed pin of no key.
OTHER_PIN = "A" * 43 + "="


def tls_settings(pins: str = "") -> str:
    lines = f"server_tls=yes\ntls_ca_file={CA_IN_ROOT}\n"
    return lines + (f"tls_pin_sha256={pins}\n" if pins else "")


def install_ca(root: pathlib.Path, ca: testca.Authority) -> None:
    target = root / CA_IN_ROOT.lstrip("/")
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(ca.ca_file, target)


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@pytest.fixture(scope="module")
def cas(tmp_path_factory):
    base = tmp_path_factory.mktemp("ca")
    return {"local": testca.make(str(base / "local")),
            "other": testca.make(str(base / "other")),
            "elsewhere": testca.make(str(base / "elsewhere"), ("elsewhere.example",))}


@pytest.fixture
def tls_story(tmp_path, monkeypatch, cas):
    """The demo's story with its reference server serving TLS with the local CA's certificate, and
    that CA installed in the agent's root before the agent starts."""
    monkeypatch.setattr(demo_story, "AGENT", pathlib.Path(AGENT_BIN).resolve())
    report = f"log_path={tmp_path}/sanitizer"
    monkeypatch.setenv("ASAN_OPTIONS", report)
    monkeypatch.setenv("UBSAN_OPTIONS", report + ":print_stacktrace=1")
    ca = cas["local"]

    def server(state, scenario, **options):
        # The story makes its root's directories just before it starts its server.
        install_ca(tmp_path / "root", ca)
        return RuntimeServer(state, scenario, tls=(ca.cert_file, ca.key_file), **options)
    monkeypatch.setattr(demo_story, "RuntimeServer", server)
    yield lambda configuration: demo_story.Demo(tmp_path, tls_settings(f"{OTHER_PIN},{ca.pin}")
                                                + configuration)
    assert "".join(p.read_text(errors="replace") for p in tmp_path.glob("sanitizer.*")) == ""


@contextlib.contextmanager
def tinyproxy(directory: pathlib.Path):
    """tinyproxy on a free port, logging every request it gets; yields (port, log path)."""
    port = free_port()
    config, log = directory / "tinyproxy.conf", directory / "tinyproxy.log"
    config.write_text(f"Port {port}\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\n"
                      f"MaxClients 20\nLogLevel Connect\nLogFile \"{log}\"\n")
    proxy = subprocess.Popen(["tinyproxy", "-d", "-c", str(config)])
    try:
        assert wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, 10)
        yield port, log
    finally:
        proxy.terminate()
        proxy.wait(timeout=10)


@pytest.mark.parametrize("route", ["direct", "tunnel"])
def test_story_over_tls(tls_story, tmp_path, route):
    with contextlib.ExitStack() as stack:
        proxy = ""
        if route == "tunnel":
            port, log = stack.enter_context(tinyproxy(tmp_path))
            proxy = f"use_proxy=yes\nproxy=127.0.0.1\nproxy_port={port}\nproxy_security=0\n"
        demo = tls_story(proxy)
        demo.run()
    # Through the tunnel as directly: requests in the origin form, nothing inside the proxy's to
    # rewrite, so the server's conformance checks hold ("protocol"), and the proxy saw nothing but
    # the tunnels asked for.
    assert [step for step, _ in demo.table] == ["enrolment", "topology", "catalog", "parameters",
                                                "programs", "inventory", "caches", "protocol"]
    assert "ERROR - TLS" not in demo.trace()
    lines = [bytes(raw).split(b" ", 2)[:2] for (raw,) in demo.rows("SELECT raw FROM requests")]
    assert lines and all(path.startswith(b"/") for _, path in lines), lines[:3]
    if route == "tunnel":
        asked = [line for line in log.read_text().splitlines()
                 if "Request (file descriptor" in line]
        assert asked and all("CONNECT 127.0.0.1:" in line for line in asked), asked[:3]


class WireRecorder:
    """A relay on loopback in front of a server that keeps every byte the agent sent, one entry per
    connection."""

    def __init__(self, target_port: int):
        self.target_port = target_port
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.sent: list[bytearray] = []
        self.threads = [threading.Thread(target=self.accept, daemon=True)]
        self.threads[0].start()

    def accept(self):
        while True:
            try:
                agent, _ = self.listener.accept()
            except OSError:
                return
            self.sent.append(bytearray())
            thread = threading.Thread(target=self.relay, args=(agent, self.sent[-1]), daemon=True)
            self.threads.append(thread)
            thread.start()

    def relay(self, agent: socket.socket, record: bytearray):
        with agent, socket.create_connection(("127.0.0.1", self.target_port)) as server:
            ends = {agent: server, server: agent}
            while ends:
                ready, _, _ = select.select(list(ends), [], [], 30)
                if not ready:
                    return
                for side in ready:
                    try:
                        data = side.recv(65536)
                        if side is agent:
                            record += data
                        if data:
                            ends[side].sendall(data)
                        else:
                            ends[side].shutdown(socket.SHUT_WR)
                    except OSError:  # either end gave up: so does the relay
                        return
                    if not data:
                        del ends[side]

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)  # wakes the accepting thread
        self.listener.close()
        for thread in self.threads:
            thread.join(10)


@pytest.mark.parametrize("case", ["other CA", "other name", "other key", "in the clear"])
def test_a_server_that_fails_the_checks_gets_nothing_in_the_clear(agent_root, tmp_path, cas, case):
    served = cas["elsewhere"] if case == "other name" else cas["local"]
    trusted = cas["other"] if case == "other CA" else served
    scenario = tmp_path / "scenario.json"
    scenario.write_text('{"read_timeout": 1}')
    tls = None if case == "in the clear" else (served.cert_file, served.key_file)
    server = RuntimeServer(str(tmp_path / "server"), str(scenario), tls=tls).start()
    recorder = WireRecorder(server.port)
    peer = f"127.0.0.1:{recorder.port}"
    expected = {
        "other CA": f"ERROR - TLS handshake with {peer} failed: certificate verify failed "
                    "(unable to get local issuer certificate)",
        "other name": f"ERROR - TLS handshake with {peer} failed: certificate verify failed "
                      "(IP address mismatch)",
        "other key": f"ERROR - TLS with {peer} refused: public key pin does not match",
        "in the clear": f"ERROR - TLS handshake with {peer} failed: unexpected eof while reading",
    }[case]
    try:
        install_ca(agent_root.path, trusted)
        agent_root.write_configuration(port=str(recorder.port), path="/", trace_level="1")
        with open(agent_root.file("etc/kvdagent.ini"), "a") as ini:
            ini.write(tls_settings(OTHER_PIN if case == "other key" else ""))
        pid = agent_root.start_daemon()
        refused = wait_for(lambda: f"  {expected}\n" in agent_root.trace_text())
        agent_root.stop_daemon(pid)
    finally:
        recorder.close()
        server.stop()
    assert refused, agent_root.trace_text()[-3000:]
    # Every connection began with a TLS handshake, and none carried a request in the clear.
    assert recorder.sent
    for sent in recorder.sent:
        assert sent.startswith(b"\x16\x03"), bytes(sent[:40])
        assert all(word not in sent for word in (b"POST ", b"GET ", b"Service:", b"<request:ok>"))
