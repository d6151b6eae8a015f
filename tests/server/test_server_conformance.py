"""Requests that deviate from the agent protocol are answered but recorded,
each deviation as a violation, with the request's raw bytes kept."""

import socket

import pytest

from rs_client import (agent_head, download_request, exchange, plugin_fields, service_body,
                       service_request)


def kinds(srv):
    return sorted({k for k, _ in srv.violations()})


def test_agent_style_requests_pass_and_are_kept_byte_for_byte(start_server):
    srv = start_server({"require_plugin": False})
    sent = [service_request("2", plugin_fields()),
            service_request("3", ["42", "0"]),
            service_request("7", ["42", "true", "1700000000000", "false", "<files>",
                                  "a|1| |0|0| | | | ", "</files>"]),
            service_request("12", ["42", "1.1.1.51", "Linux", "6.1", "x86", "7", "", "h", "80",
                                   "/", "", "/tmp"]),
            download_request("/pkg/missing.bin")]
    for data in sent:
        exchange(srv.port, data)
    assert srv.violations() == []
    rows = srv.query("SELECT method, path, service, agent_id, raw FROM requests ORDER BY id")
    assert [bytes(r[4]) for r in rows] == sent
    assert [r[:4] for r in rows] == [("POST", "/", "2", 42), ("POST", "/", "3", 42),
                                     ("POST", "/", "7", 42), ("POST", "/", "12", 42),
                                     ("GET", "/pkg/missing.bin", None, None)]


def with_head_line(data, old, new):
    head, sep, body = data.partition(b"\r\n\r\n")
    assert old in head
    return head.replace(old, new, 1) + sep + body


HEAD_CASES = [
    ("blank after colon", lambda d: with_head_line(d, b"Service:3", b"Service: 3"), ["header-format"]),
    ("standard spelling", lambda d: with_head_line(d, b"SubjectType:SLMAgent",
                                                   b"Content-Encoding:x\r\nSubjectType:SLMAgent"),
     ["header-unknown"]),
    ("agent spelling sent", lambda d: with_head_line(d, b"SCPVersion", b"Content-Enconding:\r\nSCPVersion"),
     ["header-unexpected"]),
    ("headers swapped", lambda d: with_head_line(d, b"Pragma:no-cache\r\nCache-Control:no-cache",
                                                 b"Cache-Control:no-cache\r\nPragma:no-cache"),
     ["header-order"]),
    ("second host", lambda d: with_head_line(d, b"Connection:", b"Host:x\r\nConnection:"),
     ["header-duplicate"]),
    ("host with port", lambda d: with_head_line(d, b"Host:127.0.0.1", b"Host:127.0.0.1:80"),
     ["header-value"]),
    ("wrong version", lambda d: with_head_line(d, b"SCPVersion:1.1.1", b"SCPVersion:1.1.2"),
     ["header-value"]),
    ("no subject type", lambda d: with_head_line(d, b"\r\nSubjectType:SLMAgent", b""), ["header-missing"]),
    ("HTTP/1.1", lambda d: with_head_line(d, b"HTTP/1.0", b"HTTP/1.1"), ["request-line"]),
    ("escaped customer missing", lambda d: with_head_line(d, b"SubjectCustomer:acme",
                                                          "SubjectCustomer:caf\u00e9".encode("utf-8")),
     ["header-value"]),
    ("customer unit below 20", lambda d: with_head_line(d, b"SubjectCustomer:acme", b"SubjectCustomer:a\x13c"),
     ["header-value"]),
    ("customer lone backslash", lambda d: with_head_line(d, b"SubjectCustomer:acme", b"SubjectCustomer:a\\b"),
     ["header-value"]),
    ("customer over 127", lambda d: with_head_line(d, b"SubjectCustomer:acme", b"SubjectCustomer:" + b"a" * 128),
     ["header-value"]),
    ("customer escapes", lambda d: with_head_line(d, b"SubjectCustomer:acme",
                                                  b"SubjectCustomer: a\\\\b\\u00E9\\t\x14\\u00e9"), []),
    ("customer cut inside an escape", lambda d: with_head_line(
        d, b"SubjectCustomer:acme", b"SubjectCustomer:" + b"a" * 126 + b"\\"), []),
    ("empty subject sent", lambda d: with_head_line(d, b"SubjectID:host1", b"SubjectID:"), ["header-value"]),
    ("no customer", lambda d: with_head_line(d, b"SubjectCustomer:acme\r\n", b""), []),
    ("subject sent unescaped", lambda d: with_head_line(d, b"SubjectID:host1",
                                                        "SubjectID: h\u00f4te".encode("utf-8")), []),
    ("through a proxy", lambda d: with_head_line(d, b"POST / ", b"POST http://127.0.0.1:8080/ "), []),
    ("through a proxy, port 80", lambda d: with_head_line(d, b"POST / ", b"POST http://127.0.0.1/ "), []),
    ("port 80 written", lambda d: with_head_line(d, b"POST / ", b"POST http://127.0.0.1:80/ "),
     ["request-line"]),
    ("proxy form naming another host", lambda d: with_head_line(d, b"POST / ", b"POST http://h2:8080/ "),
     ["header-value"]),
]


@pytest.mark.parametrize("name,damage,expected", HEAD_CASES, ids=[c[0] for c in HEAD_CASES])
def test_head_deviations(start_server, name, damage, expected):
    srv = start_server({"require_plugin": False})
    data = damage(service_request("3", ["42", "0"]))
    got = exchange(srv.port, data)
    # The service still answers, so the agent side of a test goes on.
    assert got.endswith(b"<response:0,0:ok>\r\n")
    assert kinds(srv) == expected
    assert srv.query("SELECT raw, violations FROM requests") == [(data, len(srv.violations()))]


def test_content_length_must_match_the_body(start_server):
    srv = start_server({"require_plugin": False, "read_timeout": 0.5})
    body = service_body(["42", "0"])
    short = agent_head("POST", "/", "3", len(body) - 5) + body
    assert exchange(srv.port, short).endswith(b"<response:0,0:ok>\r\n")
    [(kind, detail)] = srv.violations()
    assert kind == "content-length"
    assert detail == "Content-Length %d but the body has %d bytes" % (len(body) - 5, len(body))

    # A length beyond the body: the server gives up waiting after its read
    # time-out and answers what it has.
    with socket.create_connection(("127.0.0.1", srv.port), timeout=10) as s:
        s.sendall(agent_head("POST", "/", "3", len(body) + 10) + body)
        assert s.recv(4096).startswith(b"HTTP/1.0 200 OK")
    assert srv.violations()[1] == ("content-length", "Content-Length %d but the body has %d bytes"
                                   % (len(body) + 10, len(body)))


BODY_CASES = [
    ("no terminator", b"1700000000000\r\n1.0\r\n42\r\n0\r\n", ["body-terminator"]),
    ("time without milliseconds", b"1700000001\r\n1.0\r\n42\r\n0\r\n<request:ok>\r\n", ["body-time"]),
    ("format version", b"1700000000000\r\n1.1\r\n42\r\n0\r\n<request:ok>\r\n", ["body-version"]),
    ("missing field", b"0\r\n1.0\r\n42\r\n<request:ok>\r\n", ["body-fields"]),
    ("leading zero id", b"0\r\n1.0\r\n042\r\n0\r\n<request:ok>\r\n", ["body-fields"]),
    ("last line unterminated", b"0\r\n1.0\r\n42\r\n0<request:ok>\r\n", ["body-format"]),
]


@pytest.mark.parametrize("name,body,expected", BODY_CASES, ids=[c[0] for c in BODY_CASES])
def test_body_deviations(start_server, name, body, expected):
    srv = start_server({"require_plugin": False, "read_timeout": 1})
    exchange(srv.port, agent_head("POST", "/", "3", len(body)) + body)
    assert kinds(srv) == expected


def test_service_field_checks(start_server):
    srv = start_server({"require_plugin": False})
    bad_plugin = plugin_fields()
    bad_plugin[6] = "2G"  # memory is "%d"
    bad_plugin[14] = "\u00c9" * 21  # the tag is cut to 40 bytes
    cut_tag = plugin_fields()
    cut_tag[14] = "T" * 39 + "\udcc3"  # cut inside a character, as the agent may
    bad_byte = plugin_fields()
    bad_byte[2] = "h\udcffst"
    for fields in (bad_plugin, cut_tag, bad_byte):
        exchange(srv.port, service_request("2", fields))
    exchange(srv.port, service_request("7", ["42", "false", "1700000000000", "true", "<files>",
                                             "a|b|1| |0|0| | | | ", "b|1| |0|4294967295| | | | ",
                                             "x*y|z|2| |0|0| | | | ", "n|1|%s|0|0| | | | " % ("d" * 401),
                                             "n|1| |0|0| |%s| | " % ("\u00e9" * 20), "</files>"]))
    exchange(srv.port, service_request("12", ["42", "1.1.1.51", "Linux", "6.1", "x86", "7", "", "h",
                                              "80", "x", "", "/tmp"]))
    details = [d for _, d in srv.violations()]
    assert details == [
        "memory is not a signed 32-bit decimal: '2G'",
        "tag is longer than 40 bytes: '%s'" % ("\u00c9" * 21),
        "body is not UTF-8: b'h\\xffst': invalid start byte",
        "unknown-files upload must send scan time 0 and last true",
        "record 1 has 10 fields, expected 9: 'a|b|1| |0|0| | | | '",
        "record 2: attr2 is not a signed 32-bit decimal: '4294967295'",
        "record 4: directory longer than 400 bytes: '%s'" % ("d" * 401),
        "record 5: text2 longer than 39 bytes: '%s'" % ("\u00e9" * 20),
        "root should be '/': 'x'",
    ]


def test_download_requests_carry_no_length_or_service(start_server):
    srv = start_server()
    data = with_head_line(download_request("/f"), b"Content-Type", b"Content-Length:0\r\nContent-Type")
    exchange(srv.port, data)
    exchange(srv.port, with_head_line(download_request("/f"), b"SubjectCustomer", b"Service:1\r\nSubjectCustomer"))
    assert [k for k, _ in srv.violations()] == ["header-unexpected", "header-unexpected"]


def test_incomplete_head_is_logged(start_server):
    srv = start_server({"read_timeout": 0.3})
    with socket.create_connection(("127.0.0.1", srv.port), timeout=10) as s:
        s.sendall(b"POST / HTTP/1.0\r\nHost:h\r\n")
        assert s.recv(100) == b""
    assert srv.query("SELECT raw, method FROM requests") == [(b"POST / HTTP/1.0\r\nHost:h\r\n", None)]
    assert kinds(srv) == ["incomplete-head"]
