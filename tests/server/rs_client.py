"""Raw-socket client for the runtime server tests: builds requests the way
the agent writes them (header lines "Name:value", fixed order) and reads
answers whole, so tests compare exact bytes."""

import socket

TIME_LINE = "1700000000000"


def agent_head(method, path, service=None, length=None, host="127.0.0.1",
               customer="acme", subject="host1"):
    lines = ["%s %s HTTP/1.0" % (method, path),
             "Host:" + host,
             "Connection:close",
             "Pragma:no-cache",
             "Cache-Control:no-cache",
             "User-Agent:SLMAgent",
             "Accept-Charset:UTF-8"]
    if length is not None:
        lines.append("Content-Length:%d" % length)
    lines += ["Content-Type:text/plain", "SCPVersion:1.1.1"]
    if service is not None:
        lines.append("Service:" + service)
    lines += ["SubjectCustomer:" + customer, "SubjectID:" + subject, "SubjectType:SLMAgent"]
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


def service_body(fields, time_line=TIME_LINE):
    lines = [time_line, "1.0"] + list(fields)
    # Lone surrogates stand for bytes that are not UTF-8.
    return ("".join(line + "\r\n" for line in lines) + "<request:ok>\r\n").encode("utf-8", "surrogateescape")


def service_request(service, fields, path="/"):
    body = service_body(fields)
    return agent_head("POST", path, service, len(body)) + body


def download_request(path):
    return agent_head("GET", path)


def exchange(port, data, timeout=60):
    """Send `data`, then read until the server closes; returns all bytes."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
        s.sendall(data)
        return read_all(s)


def read_all(sock):
    parts = []
    while True:
        chunk = sock.recv(1 << 20)
        if not chunk:
            return b"".join(parts)
        parts.append(chunk)


def split_response(data):
    """(status line, [header lines], body) of a raw answer."""
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    return lines[0], lines[1:], body


def answer(status_line_service, body):
    """The exact answer a service gives with the default header layout."""
    return (("HTTP/1.0 200 OK\r\nConnection: close\r\nContent-Type: text/plain\r\n"
             "Content-Length: %d\r\nSCPVersion: 1.1.1\r\nService: %s\r\n\r\n")
            % (len(body), status_line_service)).encode() + body


PLUGIN_FIELDS = ["1.1.1.51", "42", "host1", "10.0.0.5", "Linux", "Debian 12",
                 "2048", "1", "0", "2", "2", "7", "0", TIME_LINE, "lab"]


def plugin_fields(agent_id=42):
    fields = list(PLUGIN_FIELDS)
    fields[1] = str(agent_id)
    return fields
