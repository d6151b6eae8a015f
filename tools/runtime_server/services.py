"""The answers of the node, catalog and upload services.

Each service turns a parsed request body into an Answer: the payload lines
the agent reads before the trailer, the communication status and the result
code. Side effects (enrolment, uploads) go to the state database.
"""

from .conformance import INT64

PING, PLUGIN, CATALOG, UPLOAD, PARAMETERS, TOPOLOGY, NEW_AGENT = "1", "2", "3", "7", "8", "11", "12"

R_OK = 0
R_FIRST_PLUGIN = 1
R_UNKNOWN_AGENT = -1
R_OBSOLETE_SCAN = -4
R_NO_NEWER_AGENT = -5
R_INTERNAL_ERROR = -999

# Services that only answer agents this server has enrolled.
NEEDS_PLUGIN = (CATALOG, UPLOAD, PARAMETERS, TOPOLOGY, NEW_AGENT)


class Answer:
    """Payload as (length, factory of byte chunks) so a large catalog is
    streamed rather than held whole."""

    def __init__(self, result=R_OK, payload=b"", status=0):
        self.result = result
        self.status = status
        if isinstance(payload, str):
            payload = payload.encode("utf-8")
        if isinstance(payload, bytes):
            self.length = len(payload)
            self.chunks = lambda: iter((payload,) if payload else ())
        else:
            self.length, self.chunks = payload


class Context:
    def __init__(self, scenario, state, request_id, body, port):
        self.scenario = scenario
        self.state = state
        self.request_id = request_id
        self.fields = body.fields
        self.records = body.records
        self.port = port

    def int_field(self, name):
        value = self.fields.get(name)
        if value is None or not INT64.match(value):
            return None
        return int(value)


def answer(service, ctx, behaviour):
    """The answer to one service request; `behaviour` may force the status
    and result code, which is what the state then records too."""
    agent_id = ctx.int_field("agent_id")
    if service != PING and agent_id is None:
        ans = Answer(R_INTERNAL_ERROR)
    elif (service in NEEDS_PLUGIN and ctx.scenario.require_plugin
          and not ctx.state.known_agent(agent_id)):
        ans = Answer(R_UNKNOWN_AGENT)
    else:
        ans = HANDLERS[service](ctx, agent_id, behaviour)
    if "result" in behaviour:
        ans.result = int(behaviour["result"])
    if "status" in behaviour:
        ans.status = int(behaviour["status"])
    return ans


def _ping(ctx, agent_id, behaviour):
    return Answer()


def _plugin(ctx, agent_id, behaviour):
    cfg = ctx.scenario.plugin
    node, first, earlier = ctx.state.plug_in(agent_id, ctx.fields, int(cfg["node_id_base"]))
    if earlier < int(cfg["withhold_node"]):
        line = "0"
    elif cfg["node_id"] == "auto":
        line = str(node)
    elif cfg["node_id"] is None:
        line = None
    else:
        line = str(cfg["node_id"])
    result = int(cfg["first_result"] if first else cfg["result"])
    result = int(behaviour.get("result", result))
    ctx.state.note_plugin(ctx.request_id, agent_id, line, first, result)
    return Answer(result, "" if line is None else line + "\r\n")


def _catalog(ctx, agent_id, behaviour):
    since = ctx.int_field("last_update")
    if since is None:
        return Answer(R_INTERNAL_ERROR)
    cat = ctx.scenario.catalog
    length, chunks, n_comps, n_files = cat.increment(since)
    ctx.state.note_catalog(ctx.request_id, agent_id, since, cat.update_time, n_comps, n_files)
    return Answer(R_OK, (length, chunks))


def _upload(ctx, agent_id, behaviour):
    if ctx.fields.get("inventory") != "true":
        ctx.state.store_unknown_files(ctx.request_id, agent_id, ctx.records)
        return Answer()
    scan_time = ctx.int_field("scan_time")
    if scan_time is None:
        return Answer(R_INTERNAL_ERROR)
    newest = ctx.state.newest_scan(agent_id)
    # A packet of a scan older than one already received is refused, so an
    # agent that resends an old scan.dat learns it is obsolete.
    if ctx.scenario.upload["reject_obsolete"] and newest is not None and newest > scan_time:
        return Answer(R_OBSOLETE_SCAN)
    ctx.state.store_packet(agent_id, scan_time, ctx.fields.get("last") == "true", ctx.records)
    return Answer()


def _parameters(ctx, agent_id, behaviour):
    return Answer(R_OK, "".join(line + "\r\n" for line in ctx.scenario.parameters))


def _topology(ctx, agent_id, behaviour):
    def section(tag, entries):
        lines = "".join(_own_port(e, ctx.port) + "\r\n" for e in entries)
        return "<%s>\r\n%s</%s>\r\n" % (tag, lines, tag)
    topo = ctx.scenario.topology
    return Answer(R_OK, section("division", topo["division"]) + section("enterprise", topo["enterprise"]))


def _new_agent(ctx, agent_id, behaviour):
    offer = ctx.scenario.new_agent
    if offer is None:
        return Answer(R_NO_NEWER_AGENT)
    lines = [offer["command"]] + offer["files"]
    return Answer(R_OK, "".join(line + "\r\n" for line in lines))


def _own_port(line, port):
    if line.endswith("|self"):
        return line[:-len("self")] + str(port)
    return line


def trailer(status, result, text):
    return ("<response:%d,%d:%s\r\n" % (status, result, text)).encode("utf-8")


HANDLERS = {
    PING: _ping, PLUGIN: _plugin, CATALOG: _catalog, UPLOAD: _upload,
    PARAMETERS: _parameters, TOPOLOGY: _topology, NEW_AGENT: _new_agent,
}
