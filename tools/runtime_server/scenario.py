"""Scenario: what the runtime server answers, loaded from a JSON file.

A scenario holds the catalog, topology, parameters and new-agent answer, and
per-service fault settings (result codes, HTTP status, version header, delay,
early close, raw payload). Missing keys take the defaults below.
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
    "delay", "close_after", "payload", "trailer", "count",
}


class ScenarioError(ValueError):
    """The scenario file cannot be used; the message says which key."""


class Scenario:
    """One loaded scenario. Read-only after construction except for the
    per-service counters that limit a behaviour to its first N requests."""

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
        self._used = {}
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

    def behaviour(self, service):
        """The behaviour for one request of a service; a behaviour with a
        count applies to that many requests only, then the defaults return."""
        return self._take(self.services, service)

    def download_behaviour(self, path):
        return self._take(self.downloads["faults"], path)

    def _take(self, table, key):
        b = table.get(key)
        if not b:
            return {}
        if "count" in b:
            with self._lock:
                used = self._used.get(key, 0)
                if used >= b["count"]:
                    return {}
                self._used[key] = used + 1
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
            key = SERVICE_NAMES.get(key, key)
            if key not in SERVICE_IDS:
                raise ScenarioError("unknown service %r in services" % key)
            if key in table:
                raise ScenarioError("service %r named twice in services" % key)
        if not isinstance(b, dict) or set(b) - BEHAVIOUR_KEYS:
            raise ScenarioError("bad behaviour for %r: allowed keys %s" % (key, sorted(BEHAVIOUR_KEYS)))
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
