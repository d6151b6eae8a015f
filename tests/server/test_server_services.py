"""Each service's answer byte for byte, and what the server records."""

from rs_client import answer, exchange, plugin_fields, service_request

CATALOG = {
    "update_time": 5000,
    "components": [{"id": 12, "attrs": [1, 0, 2], "time": 1000},
                   {"id": 13, "attrs": [0, 0, 0], "time": 3000}],
    "files": [{"name": "app", "size": 4096, "attrs": [0, 7], "components": [7, 9], "time": 1000},
              {"name": "tool", "size": 10, "attrs": [1, 0], "components": [], "time": 3000}],
}


def test_ping_answers_bare_trailer(start_server):
    srv = start_server()
    assert exchange(srv.port, service_request("1", [])) == answer("1", b"<response:0,0:ok>\r\n")


def test_plugin_assigns_a_node_and_reports_first_plugin_once(start_server):
    srv = start_server({"plugin": {"node_id_base": 500}})
    first = exchange(srv.port, service_request("2", plugin_fields(42)))
    again = exchange(srv.port, service_request("2", plugin_fields(42)))
    other = exchange(srv.port, service_request("2", plugin_fields(43)))
    assert first == answer("2", b"501\r\n<response:0,1:ok>\r\n")
    assert again == answer("2", b"501\r\n<response:0,0:ok>\r\n")
    assert other == answer("2", b"502\r\n<response:0,1:ok>\r\n")
    assert srv.query("SELECT agent_id, node_id, host, ip, division_id, plugins FROM agents"
                     " ORDER BY agent_id") == [(42, 501, "host1", "10.0.0.5", 7, 2),
                                               (43, 502, "host1", "10.0.0.5", 7, 1)]
    assert srv.query("SELECT agent_id, first, result FROM plugins ORDER BY id") == [
        (42, 1, 1), (42, 0, 0), (43, 1, 1)]


def test_plugin_node_line_settings(start_server):
    srv = start_server({"plugin": {"withhold_node": 1, "first_result": 0}})
    assert exchange(srv.port, service_request("2", plugin_fields())) == \
        answer("2", b"0\r\n<response:0,0:ok>\r\n")
    assert exchange(srv.port, service_request("2", plugin_fields())) == \
        answer("2", b"1001\r\n<response:0,0:ok>\r\n")
    srv.reload({"plugin": {"node_id": "abc"}})
    assert exchange(srv.port, service_request("2", plugin_fields())) == \
        answer("2", b"abc\r\n<response:0,0:ok>\r\n")
    srv.reload({"plugin": {"node_id": None}})
    assert exchange(srv.port, service_request("2", plugin_fields())) == \
        answer("2", b"<response:0,0:ok>\r\n")


def test_catalog_sends_increments_since_the_agents_update_time(plugged):
    srv = plugged({"catalog": CATALOG})
    full = exchange(srv.port, service_request("3", ["42", "0"]))
    assert full == answer("3", b"5000\r\n<components>\r\n12|1|0|2\r\n13|0|0|0\r\n</components>\r\n"
                          b"<files>\r\napp|4096|0|7|7|9|\r\ntool|10|1|0|\r\n</files>\r\n"
                          b"<response:0,0:ok>\r\n")
    part = exchange(srv.port, service_request("3", ["42", "2000"]))
    assert part == answer("3", b"5000\r\n<components>\r\n13|0|0|0\r\n</components>\r\n"
                          b"<files>\r\ntool|10|1|0|\r\n</files>\r\n<response:0,0:ok>\r\n")
    none = exchange(srv.port, service_request("3", ["42", "5000"]))
    assert none == answer("3", b"5000\r\n<components>\r\n</components>\r\n<files>\r\n</files>\r\n"
                          b"<response:0,0:ok>\r\n")
    # A time this catalog never gave out: the agent gets everything.
    assert exchange(srv.port, service_request("3", ["42", "9000"])) == full
    assert srv.query("SELECT since, update_time, components, files FROM catalog_downloads") == [
        (0, 5000, 2, 2), (2000, 5000, 1, 1), (5000, 5000, 0, 0), (9000, 5000, 2, 2)]


def test_parameters_topology_and_new_agent(plugged):
    srv = plugged({
        "parameters": {"packet_size": 10, "update_enabled": True, "scan_start_ms": 1700000000000},
        "topology": {"division": [["h1", "/p", 8080], "h2|/q|self"], "enterprise": [{"host": "e1"}]},
        "new_agent": {"command": "/tmp/agent/install.sh -q", "files": ["/pkg/kvdagent", "/pkg/install.sh"]},
    })
    params = exchange(srv.port, service_request("8", ["42", "7"]))
    assert params == answer("8", b"0\r\n2\r\n1700000000000\r\n0\r\n0\r\n10800\r\n10\r\n5\r\n60\r\n2\r\n"
                            b"3600\r\n86400\r\n86400\r\n86400\r\n300\r\nyes\r\n86400\r\n"
                            b"<response:0,0:ok>\r\n")
    topo = exchange(srv.port, service_request("11", ["42", "7"]))
    assert topo == answer("11", ("<division>\r\nh1|/p|8080\r\nh2|/q|%d\r\n</division>\r\n"
                                 "<enterprise>\r\ne1|/|%d\r\n</enterprise>\r\n<response:0,0:ok>\r\n"
                                 % (srv.port, srv.port)).encode())
    fields = ["42", "1.1.1.51", "Linux", "6.1.0", "x86", "7", "lab", "127.0.0.1",
              str(srv.port), "/", "acme", "/var/qsam/tmp"]
    assert exchange(srv.port, service_request("12", fields)) == answer(
        "12", b"/tmp/agent/install.sh -q\r\n/pkg/kvdagent\r\n/pkg/install.sh\r\n<response:0,0:ok>\r\n")
    srv.reload({"new_agent": None, "parameters": ["1", "2", "x"]})
    assert exchange(srv.port, service_request("12", fields)) == answer("12", b"<response:0,-5:ok>\r\n")
    assert exchange(srv.port, service_request("8", ["42", "7"])) == \
        answer("8", b"1\r\n2\r\nx\r\n<response:0,0:ok>\r\n")


def test_services_refuse_agents_that_never_plugged_in(start_server):
    srv = start_server()
    for service, fields in (("3", ["77", "0"]), ("8", ["77", "7"]), ("11", ["77", "7"]),
                            ("7", ["77", "false", "0", "true", "<files>", "</files>"])):
        assert exchange(srv.port, service_request(service, fields)) == \
            answer(service, b"<response:0,-1:ok>\r\n")
    srv.reload({"require_plugin": False})
    assert exchange(srv.port, service_request("8", ["77", "7"])).endswith(b"<response:0,0:ok>\r\n")


def upload_fields(inventory, scan_time, last, records):
    return ["42", inventory, scan_time, last, "<files>"] + records + ["</files>"]


def test_unknown_files_upload_is_stored(plugged):
    srv = plugged()
    # Masking turns only the first "|" of a text field into "*".
    records = ["app*x|4096|/opt/bin|0|0| | | | ", "tool|10| |3|-1|v1|acme|prod|x",
               "x*y|z|20|/o*p|q|0|0|a*b|c| | | "]
    got = exchange(srv.port, service_request("7", upload_fields("false", "0", "true", records)))
    assert got == answer("7", b"<response:0,0:ok>\r\n")
    assert srv.query("SELECT agent_id, name, size, directory, attr1, attr2, text1, text2, text3, text4"
                     " FROM unknown_files ORDER BY id") == [
        (42, "app*x", 4096, "/opt/bin", 0, 0, " ", " ", " ", " "),
        (42, "tool", 10, " ", 3, -1, "v1", "acme", "prod", "x"),
        (42, "x*y|z", 20, "/o*p|q", 0, 0, "a*b|c", " ", " ", " ")]
    assert srv.violations() == []


def test_inventory_packets_complete_an_inventory_and_old_scans_are_obsolete(plugged):
    srv = plugged()
    rec = "a.out|100| |0|0| | | | "
    for last in ("false", "false", "true"):
        got = exchange(srv.port, service_request("7", upload_fields("true", "1700000100000", last, [rec] * 2)))
        assert got == answer("7", b"<response:0,0:ok>\r\n")
    assert srv.query("SELECT agent_id, scan_time, packets, records, complete FROM inventories") == [
        (42, 1700000100000, 3, 6, 1)]
    assert srv.query("SELECT packet, COUNT(*) FROM inventory_records GROUP BY packet") == [
        (1, 2), (2, 2), (3, 2)]
    old = exchange(srv.port, service_request("7", upload_fields("true", "1700000000000", "true", [rec])))
    assert old == answer("7", b"<response:0,-4:ok>\r\n")
    assert srv.query("SELECT COUNT(*) FROM inventories") == [(1,)]
