"""The threaded TCP server: one thread per connection, one request each.

A connection is read whole, checked, logged with its raw bytes, then answered
as a service (POST) or a file download (GET), with the scenario's faults
applied. The scenario can be swapped while the server runs. With a TLS
certificate the server speaks TLS only: each connection's handshake runs on
its own thread, and the request inside is read and checked as in the clear.
"""

import os
import socket
import socketserver
import ssl
import sys
import threading
import time

from . import conformance, downloads, framing, services
from .scenario import Scenario, ScenarioError
from .state import State

SCP_VERSION = "1.1.1"
MAX_DELAY_SECONDS = 3600
LINGER_SECONDS = 2.0


class RuntimeServer(socketserver.ThreadingMixIn, socketserver.TCPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 1024

    def __init__(self, state_dir, scenario_path=None, port=0, verbose=False, tls=None):
        """`tls`: None, or (certificate chain PEM, private key PEM) to serve TLS."""
        self.scenario_path = scenario_path
        self.verbose = verbose
        self.scenario = load_scenario(scenario_path)
        self.tls = None if tls is None else tls_context(*tls)
        self.state = State(state_dir)
        super().__init__(("127.0.0.1", port), Handler)
        self._thread = None

    @property
    def port(self):
        return self.server_address[1]

    def reload(self):
        """Replace the scenario from its file; on error keep the old one and
        raise ScenarioError."""
        self.scenario = load_scenario(self.scenario_path)

    def start(self):
        """Serve on a background thread (for tests that run in-process)."""
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,),
                                        name="runtime-server", daemon=True)
        self._thread.start()
        return self

    def stop(self):
        self.shutdown()
        self.server_close()
        if self._thread:
            self._thread.join(5)
        self.state.close()

    def log(self, text):
        if self.verbose:
            print(text, file=sys.stderr, flush=True)

    def handle_error(self, request, client_address):
        # A client that gave up before a delayed or long answer was written
        # is what fault scenarios are for: not worth a traceback.
        if isinstance(sys.exc_info()[1], OSError):
            self.log("%s:%d went away: %s" % (*client_address[:2], sys.exc_info()[1]))
            return
        super().handle_error(request, client_address)


def tls_context(cert_file, key_file):
    """A server context for TLS 1.2 and later with the given chain and key."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    context.load_cert_chain(cert_file, key_file)
    return context


def load_scenario(path):
    scenario = Scenario.load(path)
    d = scenario.downloads
    if d["sign"] and d["root"]:
        try:
            downloads.sign_tree([d["root"]], d["key"], only_stale=True)
        except downloads.SignError as e:
            raise ScenarioError(str(e)) from e
    return scenario


class Handler(socketserver.BaseRequestHandler):
    def setup(self):
        # A client that fails the handshake (it refused the certificate, or speaks plain HTTP)
        # ends here with an SSLError: nothing is logged, since no request arrived.
        if self.server.tls is not None:
            self.request.settimeout(self.server.scenario.read_timeout)
            self.request = self.server.tls.wrap_socket(self.request, server_side=True)

    def handle(self):
        server = self.server
        scenario = server.scenario
        sock = self.request
        peer = "%s:%d" % self.client_address[:2]
        req = framing.read_request(sock, scenario.read_timeout)
        violations = list(req.problems)
        if req.request_line is None:
            server.state.log_request(peer, req, None, None, violations)
            server.log("%s incomplete request (%d bytes)" % (peer, len(req.raw)))
            return
        violations += conformance.check_head(req)
        service = None
        if req.method == "POST" and req.header("Service") is not None:
            # Dispatch on the trimmed value; a stray blank is already a violation.
            service = req.header("Service").strip()
        body = None
        if req.method == "POST" and service in services.HANDLERS:
            body = conformance.parse_body(service, req.body)
            violations += body.violations
        agent_id = None
        if body is not None and conformance.INT64.match(body.fields.get("agent_id", "x")):
            agent_id = int(body.fields["agent_id"])
        rid = server.state.log_request(peer, req, service, agent_id, violations)
        server.log("%s %s service=%s violations=%d" % (peer, req.request_line, service, len(violations)))

        if body is not None:
            self.answer_service(scenario, rid, service, body)
        elif req.method == "GET":
            self.answer_download(scenario, rid, req.path)
        else:
            server.state.set_answer(rid, 400, None, None)
            head = framing.response_head(400, [("Connection", "close"), ("Content-Length", "0")],
                                         scenario.header_separator)
            self.send(head, [], {}, len(head))

    def answer_service(self, scenario, rid, service, body):
        server = self.server
        kind = None
        if service == services.UPLOAD:
            kind = "inventory" if body.fields.get("inventory") == "true" else "unknown_files"
        b = scenario.behaviour(service, kind)
        ctx = services.Context(scenario, server.state, rid, body, server.port)
        ans = services.answer(service, ctx, b)
        if "payload" in b:
            ans = services.Answer(ans.result, str(b["payload"]), ans.status)
        if "trailer" in b:
            tail = str(b["trailer"]).encode("utf-8")
        else:
            tail = services.trailer(ans.status, ans.result, scenario.trailer_text)
        http_status = int(b.get("http_status", 200))
        head = framing.response_head(http_status, [
            ("Connection", "close"),
            ("Content-Type", "text/plain"),
            ("Content-Length", _content_length(b, ans.length + len(tail))),
            ("SCPVersion", b.get("scp_version", SCP_VERSION)),
            ("Service", service),
        ], scenario.header_separator, b.get("http_reason"))
        server.state.set_answer(rid, http_status, ans.status, ans.result)
        self.send(head, _chain(ans.chunks(), [tail]), b, len(head) + ans.length + len(tail))

    def answer_download(self, scenario, rid, path):
        server = self.server
        key = "/" + path.split("://", 1)[1].partition("/")[2] if path.startswith("http://") else path
        b = scenario.download_behaviour(key)
        local = downloads.resolve(scenario.downloads["root"], path)
        status = int(b.get("http_status", 200 if local or "payload" in b else 404))
        if "payload" in b and 200 <= status < 300:
            content = str(b["payload"]).encode("utf-8")
            size, chunks = len(content), [content]
        elif local and 200 <= status < 300:
            size = os.path.getsize(local)
            chunks = _file_chunks(local)
        else:
            size, chunks = 0, []
        head = framing.response_head(status, [
            ("Connection", "close"),
            ("Content-Type", "application/octet-stream"),
            ("Content-Length", _content_length(b, size)),
        ], scenario.header_separator, b.get("http_reason"))
        server.state.set_answer(rid, status, None, None)
        self.send(head, chunks, b, len(head) + size)

    def send(self, head, chunks, behaviour, total):
        """Writes the answer of `total` bytes after the behaviour's delay,
        cut after `close_after` bytes or the `close_at` fraction of it."""
        delay = float(behaviour.get("delay", 0))
        if delay > 0:
            time.sleep(min(delay, MAX_DELAY_SECONDS))
        limit = behaviour.get("close_after")
        if "close_at" in behaviour:
            limit = int(float(behaviour["close_at"]) * total)
        out = framing.CappedWriter(self.request, None if limit is None else int(limit))
        out.write(head)
        for chunk in chunks:
            if out.closed:
                break
            out.write(chunk)
        out.flush()

    def finish(self):
        # Half-close and wait for the peer to hang up, so that unread request
        # bytes on our side cannot turn the close into a reset that destroys
        # the answer in flight. Over TLS the half-close is close_notify, which
        # tells the client that the answer is whole.
        sock = self.request
        if isinstance(sock, ssl.SSLSocket):
            try:
                sock.settimeout(LINGER_SECONDS)
                sock = sock.unwrap()
            except (OSError, ValueError):
                pass
            finally:
                self.request.close()
            return
        try:
            sock.shutdown(socket.SHUT_WR)
            sock.settimeout(LINGER_SECONDS)
            deadline = time.monotonic() + LINGER_SECONDS
            while time.monotonic() < deadline and sock.recv(65536):
                pass
        except OSError:
            pass


def _content_length(behaviour, length):
    """The Content-Length value: the body's length unless the behaviour
    announces another (a lying server); the body itself is unchanged."""
    return str(behaviour.get("content_length", length))


def _chain(*iterables):
    for it in iterables:
        yield from it


def _file_chunks(path):
    with open(path, "rb") as f:
        while True:
            data = f.read(65536)
            if not data:
                return
            yield data
