"""Fault scenarios: delays, early closes, version headers, status codes,
malformed payloads, and behaviours limited to the first N requests."""

import time

from rs_client import answer, download_request, exchange, service_request, split_response


def test_delay_holds_the_answer(start_server):
    srv = start_server({"services": {"ping": {"delay": 0.6}}})
    began = time.monotonic()
    got = exchange(srv.port, service_request("1", []))
    assert time.monotonic() - began >= 0.6
    assert got == answer("1", b"<response:0,0:ok>\r\n")


def test_close_after_cuts_the_answer(start_server, tmp_path):
    (tmp_path / "files").mkdir()
    (tmp_path / "files" / "f.bin").write_bytes(b"z" * 5000)
    srv = start_server({"require_plugin": False,
                        "services": {"3": {"close_after": 40, "count": 1}},
                        "downloads": {"root": "files", "faults": {
                            "/f.bin": {"close_after": 100},
                            "/none": {"payload": "not|a\r\nfile"}}}})
    cut = exchange(srv.port, service_request("3", ["42", "0"]))
    whole = exchange(srv.port, service_request("3", ["42", "0"]))
    assert len(cut) == 40 and whole.startswith(cut) and len(whole) > 40
    got = exchange(srv.port, download_request("/f.bin"))
    assert len(got) == 100
    assert "Content-Length: 5000" in split_response(got)[1]
    assert split_response(exchange(srv.port, download_request("/none")))[2] == b"not|a\r\nfile"


def test_content_length_announces_a_lie_over_the_real_body(start_server):
    srv = start_server({"services": {"ping": {"content_length": 2000000000}},
                        "downloads": {"faults": {"/big": {"payload": "0123456789",
                                                          "content_length": "2000000000"}}}})
    for request, body in ((service_request("1", []), b"<response:0,0:ok>\r\n"),
                          (download_request("/big"), b"0123456789")):
        _, headers, got = split_response(exchange(srv.port, request))
        assert "Content-Length: 2000000000" in headers
        assert got == body


def test_version_header_wrong_or_missing(start_server):
    srv = start_server({"services": {"1": {"scp_version": "1.0.9"}, "2": {"scp_version": None}}})
    _, headers, _ = split_response(exchange(srv.port, service_request("1", [])))
    assert "SCPVersion: 1.0.9" in headers
    _, headers, _ = split_response(exchange(srv.port, service_request("2", ["1.1.1.51"] + ["0"] * 14)))
    assert not [h for h in headers if h.startswith("SCPVersion")]


def test_status_result_http_status_and_raw_payload(start_server):
    srv = start_server({"require_plugin": False, "services": {
        "parameters": {"payload": "12\r\nnot a number\r\n", "status": 1, "result": -2},
        "11": {"http_status": 503},
        "3": {"trailer": "<response:0"},
    }})
    assert exchange(srv.port, service_request("8", ["42", "7"])) == \
        answer("8", b"12\r\nnot a number\r\n<response:1,-2:ok>\r\n")
    status, _, body = split_response(exchange(srv.port, service_request("11", ["42", "7"])))
    assert status == "HTTP/1.0 503 Service Unavailable"
    assert body.endswith(b"<response:0,0:ok>\r\n")
    assert exchange(srv.port, service_request("3", ["42", "0"])).endswith(
        b"</files>\r\n<response:0")
    assert srv.query("SELECT service, http_status, status, result FROM requests ORDER BY id") == [
        ("8", 200, 1, -2), ("11", 503, 0, 0), ("3", 200, 0, 0)]


def test_counted_behaviour_then_defaults(start_server):
    srv = start_server({"services": {"ping": {"result": -999, "count": 2}}})
    got = [exchange(srv.port, service_request("1", [])) for _ in range(3)]
    assert got == [answer("1", b"<response:0,-999:ok>\r\n")] * 2 + [answer("1", b"<response:0,0:ok>\r\n")]
    # A reload starts the count again.
    srv.reload({"services": {"ping": {"result": -999, "count": 1}}})
    assert exchange(srv.port, service_request("1", [])) == answer("1", b"<response:0,-999:ok>\r\n")


def test_close_at_cuts_each_answer_at_its_fraction(start_server):
    srv = start_server({"services": {"ping": {"close_at": 0.5, "count": 1}}})
    cut = exchange(srv.port, service_request("1", []))
    whole = exchange(srv.port, service_request("1", []))
    assert cut == whole[:len(whole) // 2]


def test_skip_then_count_and_upload_kinds_apart(plugged):
    rec = "a.out|100| |0|0| | | | "
    inventory = ["42", "true", "1700000100000", "true", "<files>", rec, "</files>"]
    unknown = ["42", "false", "0", "true", "<files>", rec, "</files>"]
    srv = plugged({"services": {"inventory": {"result": -999, "skip": 1, "count": 1},
                                "upload": {"result": 1}}})
    got = [exchange(srv.port, service_request("7", inventory)) for _ in range(3)]
    assert got == [answer("7", b"<response:0,%s:ok>\r\n" % r) for r in (b"0", b"-999", b"0")]
    # The unknown files take the service's own behaviour, not the inventory's.
    assert exchange(srv.port, service_request("7", unknown)) == answer("7", b"<response:0,1:ok>\r\n")
