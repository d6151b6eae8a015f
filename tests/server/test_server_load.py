"""Volume: a generated catalog of a million files in one answer, and two
hundred plug-ins at once."""

import concurrent.futures
import re
import socket

from rs_client import exchange, plugin_fields, service_request, split_response


def test_million_file_catalog_in_one_answer(plugged):
    srv = plugged({"catalog": {"update_time": 9000, "generate": {"files": 1000000, "components": 50}}})
    data = exchange(srv.port, service_request("3", ["42", "0"]), timeout=120)
    _, headers, body = split_response(data)
    assert "Content-Length: %d" % len(body) in headers
    comps_at = body.index(b"<components>\r\n")
    files_at = body.index(b"<files>\r\n")
    assert body[:comps_at] == b"9000\r\n"
    components = body[comps_at:files_at].split(b"\r\n")[1:-2]
    assert len(components) == 50 and components[0] == b"1|0|0|0"
    files = body[files_at + len(b"<files>\r\n"):body.index(b"</files>\r\n")].split(b"\r\n")[:-1]
    assert len(files) == 1000000
    assert files[0] == b"gen0000000.bin|1000|0|0|1|"
    assert files[-1] == b"gen0999999.bin|1000999|0|0|50|"
    assert len(set(files[::997])) == len(files[::997])
    assert body.endswith(b"</files>\r\n<response:0,0:ok>\r\n")
    # The next download brings nothing new.
    again = split_response(exchange(srv.port, service_request("3", ["42", "9000"])))[2]
    assert again == b"9000\r\n<components>\r\n</components>\r\n<files>\r\n</files>\r\n<response:0,0:ok>\r\n"


def test_two_hundred_concurrent_plugins(start_server):
    srv = start_server()
    count = 200
    # Open every connection first so that all requests are in flight at once.
    socks = [socket.create_connection(("127.0.0.1", srv.port), timeout=60) for _ in range(count)]

    def plug(i):
        with socks[i] as s:
            s.sendall(service_request("2", plugin_fields(10000 + i)))
            parts = []
            while True:
                chunk = s.recv(65536)
                if not chunk:
                    return b"".join(parts)
                parts.append(chunk)

    with concurrent.futures.ThreadPoolExecutor(max_workers=50) as pool:
        answers = list(pool.map(plug, range(count)))
    nodes = []
    for a in answers:
        m = re.search(rb"\r\n\r\n(\d+)\r\n<response:0,1:ok>\r\n$", a)
        assert m, a
        nodes.append(int(m.group(1)))
    assert sorted(nodes) == list(range(1001, 1001 + count))
    assert srv.query("SELECT COUNT(*), COUNT(DISTINCT node_id) FROM agents") == [(count, count)]
    assert srv.query("SELECT COUNT(*) FROM violations") == [(0,)]
