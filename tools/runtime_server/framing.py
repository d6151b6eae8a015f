"""HTTP/1.0 framing: reading one raw request off a socket and writing answers.

The reader keeps every byte it received, splits the head into the request
line and header lines without normalising anything (so conformance checks see
exactly what the agent sent), and reads the body by its declared length.
"""

import select
import socket
import time

MAX_HEAD_BYTES = 64 * 1024
MAX_BODY_BYTES = 256 * 1024 * 1024
TERMINATOR = b"<request:ok>\r\n"
# How long to wait for bytes beyond a declared length that leaves the body
# unterminated, to tell a short Content-Length from a truncated body.
EXTRA_WAIT_SECONDS = 0.3

REASONS = {200: "OK", 302: "Found", 400: "Bad Request", 404: "Not Found",
           500: "Internal Server Error", 503: "Service Unavailable"}


class RawRequest:
    """One request as received. `problems` lists framing faults found while
    reading (kind, detail); the head fields are None when no head arrived."""

    def __init__(self):
        self.raw = b""
        self.request_line = None
        self.headers = []          # [(name, value, raw line)] in order
        self.body = b""
        self.declared_length = None
        self.problems = []

    def header(self, name):
        for n, v, _ in self.headers:
            if n == name:
                return v
        return None

    @property
    def method(self):
        return self.request_line.split(" ", 1)[0] if self.request_line else None

    @property
    def path(self):
        parts = (self.request_line or "").split(" ")
        return parts[1] if len(parts) > 1 else None


def read_request(sock, timeout):
    """Read one request; never raises for what the peer sends."""
    req = RawRequest()
    deadline = time.monotonic() + timeout
    buf = bytearray()
    while b"\r\n\r\n" not in buf:
        chunk = _recv(sock, deadline)
        if not chunk:
            req.raw = bytes(buf)
            req.problems.append(("incomplete-head", "connection ended or timed out after %d head bytes" % len(buf)))
            return req
        buf += chunk
        if len(buf) > MAX_HEAD_BYTES and b"\r\n\r\n" not in buf:
            req.raw = bytes(buf)
            req.problems.append(("incomplete-head", "head longer than %d bytes" % MAX_HEAD_BYTES))
            return req
    head_end = buf.index(b"\r\n\r\n")
    _parse_head(req, bytes(buf[:head_end]))
    body = bytearray(buf[head_end + 4:])

    length = req.header("Content-Length")
    if length is not None and length.strip().isdigit():
        req.declared_length = int(length.strip())
    if req.declared_length is not None:
        want = min(req.declared_length, MAX_BODY_BYTES)
        while len(body) < want:
            chunk = _recv(sock, deadline)
            if not chunk:
                break
            body += chunk
        if len(body) == want and not body.endswith(TERMINATOR) and req.method == "POST":
            body += _drain(sock, EXTRA_WAIT_SECONDS)
    elif req.method == "POST":
        # Without a length the only end of a body is the peer going quiet.
        body += _drain(sock, EXTRA_WAIT_SECONDS)
    req.body = bytes(body)
    req.raw = bytes(buf[:head_end + 4]) + req.body
    return req


def _parse_head(req, head):
    lines = head.split(b"\r\n")
    req.request_line = lines[0].decode("latin-1")
    for raw in lines[1:]:
        text = raw.decode("latin-1")
        name, sep, value = text.partition(":")
        req.headers.append((name, value if sep else None, text))


def _recv(sock, deadline):
    remaining = deadline - time.monotonic()
    if remaining <= 0:
        return b""
    try:
        # Bytes a TLS socket has already decrypted show on no descriptor.
        pending = getattr(sock, "pending", None)
        if not (pending and pending()):
            ready, _, _ = select.select([sock], [], [], remaining)
            if not ready:
                return b""
        return sock.recv(65536)
    except OSError:
        return b""


def _drain(sock, wait):
    got = bytearray()
    deadline = time.monotonic() + wait
    while len(got) < MAX_HEAD_BYTES:
        chunk = _recv(sock, deadline)
        if not chunk:
            break
        got += chunk
    return bytes(got)


def response_head(http_status, headers, separator=": ", reason=None):
    """Status line and header lines, ending with the blank line. `headers`
    is a list of (name, value); a value of None leaves the header out."""
    reason = reason if reason is not None else REASONS.get(http_status, "Status")
    lines = ["HTTP/1.0 %d %s\r\n" % (http_status, reason)]
    for name, value in headers:
        if value is not None:
            lines.append("%s%s%s\r\n" % (name, separator, value))
    lines.append("\r\n")
    return "".join(lines).encode("latin-1")


class CappedWriter:
    """Writes to a socket and stops, closing the write side, once `limit`
    bytes went out (None: no limit). Small pieces are gathered so that a
    head and a short body leave in one segment."""

    def __init__(self, sock, limit=None):
        self.sock = sock
        self.limit = limit
        self.sent = 0
        self.closed = False
        self._pending = bytearray()

    def write(self, data):
        if self.closed:
            return
        if self.limit is not None and self.sent + len(self._pending) + len(data) >= self.limit:
            data = data[:self.limit - self.sent - len(self._pending)]
            self._pending += data
            self.flush()
            self.closed = True
            _shutdown(self.sock)
            return
        self._pending += data
        if len(self._pending) >= 65536:
            self.flush()

    def flush(self):
        if self._pending:
            try:
                self.sock.sendall(self._pending)
                self.sent += len(self._pending)
            except OSError:
                # The peer went away; the rest of the answer is dropped.
                self.closed = True
            self._pending = bytearray()


def _shutdown(sock):
    try:
        sock.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass
