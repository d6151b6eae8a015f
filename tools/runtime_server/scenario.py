"""Scenario: what the runtime server answers, loaded from a JSON file.

A scenario holds the catalog, topology, parameters and new-agent answer, and
per-service fault settings (result codes, HTTP status, version header, delay,
early close, raw payload), also per kind of upload (inventory packets or
unknown files). Missing keys take the defaults below.
"""

import json
import os
import threading

from . import catalog

SERVICE_IDS = ("1", "2", "3", "7", "8", "11", "12")
SERVICE_NAMES = {
    "ping": "1", "plugin": "2", "catalog": "3", "upload": "7",
    "parameters": "8", "topology": "11", "new_agent": "12",
}
# The two kinds of upload (service 7), each of which may have its own
# behaviour: inventory packets and unknown files.
UPLOAD_KINDS = {"inventory": "7/inventory", "unknown_files": "7/unknown_files"}

# The seventeen parameter lines in wire order, with the values an agent gets
# when the scenario names none of them.
PARAMETER_ORDER = (
    ("attribute", 0),
    ("scope", 2),
    ("scan_start_ms", 0),
    ("scan_rule_type", 0),
    ("scan_rule_value", 0),
    ("max_delay", 10800),
    ("packet_size", 25),
    ("attempts", 5),
    ("time_threshold", 60),
    ("delay_factor", 2),
    ("ping_period", 3600),
    ("parameters_period", 86400),
    ("catalog_period", 86400),
    ("topology_period", 86400),
    ("upload_min_time", 300),
    ("update_enabled", "no"),
    ("max_update_period", 86400),
)

# Keys a per-service (or per-download) behaviour may carry.
BEHAVIOUR_KEYS = {
    "result", "status", "http_status", "http_reason", "scp_version",
    "delay", "close_after", "close_at", "payload", "trailer", "skip", "count",
    "content_length",
}


class ScenarioError(ValueError):
    """The scenario file cannot be used; the message says which key."""


class Scenario:
    """One loaded scenario. Read-only after construction except for the
    per-service request counters that let a behaviour skip the first
    requests or stop after N of them."""

    def __init__(self, data=None, base_dir="."):
        data = dict(data or {})
        unknown = set(data) - {
            "plugin", "require_plugin", "catalog", "topology", "parameters",
            "new_agent", "upload", "services", "downloads", "read_timeout",
            "header_separator", "trailer_text", "comment",
        }
        if unknown:
            raise ScenarioError("unknown scenario keys: %s" % ", ".join(sorted(unknown)))
        self.base_dir = base_dir
        self.plugin = _plugin_settings(data.get("plugin", {}))
        self.require_plugin = bool(data.get("require_plugin", True))
        self.catalog = catalog.Catalog.from_config(data.get("catalog", {}))
        self.topology = _topology(data.get("topology", {}))
        self.parameters = parameter_lines(data.get("parameters", {}))
        self.new_agent = _new_agent(data.get("new_agent"))
        self.upload = {"reject_obsolete": bool(data.get("upload", {}).get("reject_obsolete", True))}
        self.services = _behaviours(data.get("services", {}), by_service=True)
        self.downloads = _downloads(data.get("downloads", {}), base_dir)
        self.read_timeout = float(data.get("read_timeout", 5.0))
        self.header_separator = str(data.get("header_separator", ": "))
        self.trailer_text = str(data.get("trailer_text", "ok>"))
        self._seen = {}
        self._lock = threading.Lock()

    @classmethod
    def load(cls, path):
        if path is None:
            return cls()
        try:
            with open(path, "r", encoding="utf-8") as f:
                data = json.load(f)
        except (OSError, json.JSONDecodeError) as e:
            raise ScenarioError("cannot read scenario %s: %s" % (path, e)) from e
        if not isinstance(data, dict):
            raise ScenarioError("scenario %s is not a JSON object" % path)
        try:
            return cls(data, os.path.dirname(os.path.abspath(path)))
        except ScenarioError:
            raise
        except (ValueError, KeyError, TypeError, AttributeError) as e:
            raise ScenarioError("bad scenario %s: %s: %s" % (path, type(e).__name__, e)) from e

    def behaviour(self, service, kind=None):
        """The behaviour for one request of a service (and, for an upload,
        its kind: "inventory" or "unknown_files"); a kind's own behaviour
        replaces the service's. A behaviour with `skip` leaves that many
        requests alone first; one with a count then applies to that many
        requests only, and the defaults return."""
        if kind is not None and "%s/%s" % (service, kind) in self.services:
            return self._take(self.services, "%s/%s" % (service, kind))
        return self._take(self.services, service)

    def download_behaviour(self, path):
        return self._take(self.downloads["faults"], path)

    def _take(self, table, key):
        b = table.get(key)
        if not b:
            return {}
        with self._lock:
            seen = self._seen.get(key, 0)
            self._seen[key] = seen + 1
        applied = seen - int(b.get("skip", 0))
        if applied < 0 or ("count" in b and applied >= b["count"]):
            return {}
        return b


def parameter_lines(value):
    """The seventeen parameter lines as text: a list is sent verbatim (so a
    test can send a bad line), an object overrides named defaults."""
    if isinstance(value, list):
        return [str(v) for v in value]
    if not isinstance(value, dict):
        raise ScenarioError("parameters must be an object or a list")
    names = {n for n, _ in PARAMETER_ORDER}
    unknown = set(value) - names
    if unknown:
        raise ScenarioError("unknown parameters: %s" % ", ".join(sorted(unknown)))
    lines = []
    for name, default in PARAMETER_ORDER:
        v = value.get(name, default)
        if isinstance(v, bool):
            v = "yes" if v else "no"
        lines.append(str(v))
    return lines


def _plugin_settings(value):
    s = {"first_result": 1, "result": 0, "node_id": "auto", "node_id_base": 1000,
         "withhold_node": 0}
    unknown = set(value) - set(s)
    if unknown:
        raise ScenarioError("unknown plugin keys: %s" % ", ".join(sorted(unknown)))
    s.update(value)
    return s


def _server_line(entry):
    """A topology entry as host|path|port; a port "self" means this server's
    own port and is filled in when the answer is built."""
    if isinstance(entry, str):
        return entry
    if isinstance(entry, dict):
        entry = [entry.get("host", "127.0.0.1"), entry.get("path", "/"), entry.get("port", "self")]
    if not isinstance(entry, list) or len(entry) != 3:
        raise ScenarioError("topology entry must be host|path|port, [host, path, port] or an object")
    return "%s|%s|%s" % tuple(entry)


def _topology(value):
    division = value.get("division", [["127.0.0.1", "/", "self"]])
    enterprise = value.get("enterprise", [])
    return {"division": [_server_line(e) for e in division],
            "enterprise": [_server_line(e) for e in enterprise]}


def _new_agent(value):
    if value is None:
        return None
    if not isinstance(value, dict) or "command" not in value:
        raise ScenarioError("new_agent must be null or an object with a command")
    return {"command": str(value["command"]), "files": [str(f) for f in value.get("files", [])]}


def _behaviours(value, by_service):
    table = {}
    for key, b in value.items():
        if by_service:
            key = UPLOAD_KINDS.get(key) or SERVICE_NAMES.get(key, key)
            if key not in SERVICE_IDS and key not in UPLOAD_KINDS.values():
                raise ScenarioError("unknown service %r in services" % key)
            if key in table:
                raise ScenarioError("service %r named twice in services" % key)
        if not isinstance(b, dict) or set(b) - BEHAVIOUR_KEYS:
            raise ScenarioError("bad behaviour for %r: allowed keys %s" % (key, sorted(BEHAVIOUR_KEYS)))
        if "close_at" in b and not 0 <= float(b["close_at"]) < 1:
            raise ScenarioError("close_at of %r must lie in [0, 1)" % key)
        table[key] = dict(b)
    return table


def _downloads(value, base_dir):
    root = value.get("root")
    if root is not None:
        root = os.path.abspath(os.path.join(base_dir, root))
    key = value.get("key")
    if key is not None:
        key = os.path.abspath(os.path.join(base_dir, key))
    return {"root": root, "sign": bool(value.get("sign", False)), "key": key,
            "faults": _behaviours(value.get("faults", {}), by_service=False)}
