"""The server's state in SQLite: agents, plug-ins, uploads, requests, violations.

One connection shared by all request threads behind one lock; WAL mode so a
test or `dump` can read the file while the server writes it. Every request is
logged with its raw bytes before its answer goes out.
"""

import os
import sqlite3
import threading
import time

DB_NAME = "server.db"

SCHEMA = """
CREATE TABLE IF NOT EXISTS requests (
    id INTEGER PRIMARY KEY,
    received_at REAL NOT NULL,
    peer TEXT,
    method TEXT,
    path TEXT,
    service TEXT,
    agent_id INTEGER,
    raw BLOB NOT NULL,
    http_status INTEGER,
    status INTEGER,
    result INTEGER,
    violations INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS violations (
    id INTEGER PRIMARY KEY,
    request_id INTEGER NOT NULL REFERENCES requests(id),
    kind TEXT NOT NULL,
    detail TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS agents (
    agent_id INTEGER PRIMARY KEY,
    node_id INTEGER NOT NULL UNIQUE,
    division_id INTEGER,
    host TEXT,
    ip TEXT,
    os_family TEXT,
    os_description TEXT,
    tag TEXT,
    version TEXT,
    plugins INTEGER NOT NULL DEFAULT 0,
    first_plugin REAL,
    last_plugin REAL
);
CREATE TABLE IF NOT EXISTS plugins (
    id INTEGER PRIMARY KEY,
    request_id INTEGER REFERENCES requests(id),
    agent_id INTEGER NOT NULL,
    node_line TEXT,
    first INTEGER NOT NULL,
    result INTEGER NOT NULL,
    at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS unknown_files (
    id INTEGER PRIMARY KEY,
    request_id INTEGER REFERENCES requests(id),
    agent_id INTEGER NOT NULL,
    name TEXT, size INTEGER, directory TEXT, attr1 INTEGER, attr2 INTEGER,
    text1 TEXT, text2 TEXT, text3 TEXT, text4 TEXT,
    received_at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS inventories (
    id INTEGER PRIMARY KEY,
    agent_id INTEGER NOT NULL,
    scan_time INTEGER NOT NULL,
    packets INTEGER NOT NULL DEFAULT 0,
    records INTEGER NOT NULL DEFAULT 0,
    complete INTEGER NOT NULL DEFAULT 0,
    first_packet REAL,
    last_packet REAL,
    UNIQUE (agent_id, scan_time)
);
CREATE TABLE IF NOT EXISTS inventory_records (
    id INTEGER PRIMARY KEY,
    inventory_id INTEGER NOT NULL REFERENCES inventories(id),
    packet INTEGER NOT NULL,
    name TEXT, size INTEGER, directory TEXT, attr1 INTEGER, attr2 INTEGER,
    text1 TEXT, text2 TEXT, text3 TEXT, text4 TEXT
);
CREATE TABLE IF NOT EXISTS catalog_downloads (
    id INTEGER PRIMARY KEY,
    request_id INTEGER REFERENCES requests(id),
    agent_id INTEGER,
    since INTEGER,
    update_time INTEGER,
    components INTEGER,
    files INTEGER
);
"""

RECORD_COLUMNS = ("name", "size", "directory", "attr1", "attr2", "text1", "text2", "text3", "text4")


class State:
    def __init__(self, state_dir):
        os.makedirs(state_dir, exist_ok=True)
        self.path = os.path.join(state_dir, DB_NAME)
        self._db = sqlite3.connect(self.path, check_same_thread=False, isolation_level=None)
        self._db.execute("PRAGMA journal_mode=WAL")
        self._db.execute("PRAGMA synchronous=NORMAL")
        self._db.executescript(SCHEMA)
        self._lock = threading.Lock()

    def close(self):
        with self._lock:
            self._db.close()

    def _tx(self, fn):
        with self._lock:
            self._db.execute("BEGIN IMMEDIATE")
            try:
                out = fn(self._db)
            except BaseException:
                self._db.execute("ROLLBACK")
                raise
            self._db.execute("COMMIT")
            return out

    def log_request(self, peer, req, service, agent_id, violations):
        """Store a request with its violations; returns the request id."""
        def fn(db):
            cur = db.execute(
                "INSERT INTO requests (received_at, peer, method, path, service, agent_id, raw, violations)"
                " VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                (time.time(), peer, req.method, req.path, service, agent_id, req.raw, len(violations)))
            rid = cur.lastrowid
            db.executemany("INSERT INTO violations (request_id, kind, detail) VALUES (?, ?, ?)",
                           [(rid, k, d) for k, d in violations])
            return rid
        return self._tx(fn)

    def set_answer(self, request_id, http_status, status, result):
        self._tx(lambda db: db.execute(
            "UPDATE requests SET http_status = ?, status = ?, result = ? WHERE id = ?",
            (http_status, status, result, request_id)))

    def known_agent(self, agent_id):
        with self._lock:
            row = self._db.execute("SELECT 1 FROM agents WHERE agent_id = ?", (agent_id,)).fetchone()
        return row is not None

    def plug_in(self, agent_id, fields, node_id_base):
        """Record a plug-in; returns (node id, first, earlier plug-ins). The
        node id is kept per agent id and assigned on the first plug-in."""
        now = time.time()

        def fn(db):
            row = db.execute("SELECT node_id, plugins FROM agents WHERE agent_id = ?",
                             (agent_id,)).fetchone()
            info = (fields.get("division_id"), fields.get("host"), fields.get("ip"),
                    fields.get("os_family"), fields.get("os_description"),
                    fields.get("tag"), fields.get("version"))
            if row is None:
                top = db.execute("SELECT MAX(node_id) FROM agents").fetchone()[0]
                node = max(top or node_id_base, node_id_base) + 1
                db.execute(
                    "INSERT INTO agents (agent_id, node_id, division_id, host, ip, os_family,"
                    " os_description, tag, version, plugins, first_plugin, last_plugin)"
                    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, 1, ?, ?)",
                    (agent_id, node, *info, now, now))
                return node, True, 0
            db.execute(
                "UPDATE agents SET division_id = ?, host = ?, ip = ?, os_family = ?,"
                " os_description = ?, tag = ?, version = ?, plugins = plugins + 1,"
                " last_plugin = ? WHERE agent_id = ?", (*info, now, agent_id))
            return row[0], False, row[1]
        return self._tx(fn)

    def note_plugin(self, request_id, agent_id, node_line, first, result):
        self._tx(lambda db: db.execute(
            "INSERT INTO plugins (request_id, agent_id, node_line, first, result, at)"
            " VALUES (?, ?, ?, ?, ?, ?)",
            (request_id, agent_id, node_line, int(first), result, time.time())))

    def note_catalog(self, request_id, agent_id, since, update_time, components, files):
        self._tx(lambda db: db.execute(
            "INSERT INTO catalog_downloads (request_id, agent_id, since, update_time, components, files)"
            " VALUES (?, ?, ?, ?, ?, ?)",
            (request_id, agent_id, since, update_time, components, files)))

    def store_unknown_files(self, request_id, agent_id, records):
        now = time.time()
        self._tx(lambda db: db.executemany(
            "INSERT INTO unknown_files (request_id, agent_id, %s, received_at)"
            " VALUES (?, ?, %s, ?)" % (", ".join(RECORD_COLUMNS), ", ".join("?" * len(RECORD_COLUMNS))),
            [(request_id, agent_id, *_record_values(r), now) for r in records]))

    def newest_scan(self, agent_id):
        with self._lock:
            row = self._db.execute("SELECT MAX(scan_time) FROM inventories WHERE agent_id = ?",
                                   (agent_id,)).fetchone()
        return row[0]

    def store_packet(self, agent_id, scan_time, last, records):
        """Add one inventory packet; returns the packet's number (1 first)."""
        now = time.time()

        def fn(db):
            db.execute("INSERT OR IGNORE INTO inventories (agent_id, scan_time, first_packet)"
                       " VALUES (?, ?, ?)", (agent_id, scan_time, now))
            inv_id, packets = db.execute(
                "SELECT id, packets FROM inventories WHERE agent_id = ? AND scan_time = ?",
                (agent_id, scan_time)).fetchone()
            packet = packets + 1
            db.executemany(
                "INSERT INTO inventory_records (inventory_id, packet, %s) VALUES (?, ?, %s)"
                % (", ".join(RECORD_COLUMNS), ", ".join("?" * len(RECORD_COLUMNS))),
                [(inv_id, packet, *_record_values(r)) for r in records])
            db.execute("UPDATE inventories SET packets = ?, records = records + ?, last_packet = ?,"
                       " complete = MAX(complete, ?) WHERE id = ?",
                       (packet, len(records), now, int(last), inv_id))
            return packet
        return self._tx(fn)


def _record_values(r):
    return (r["name"], int(r["size"]), r["directory"], int(r["attr1"]), int(r["attr2"]),
            r["text1"], r["text2"], r["text3"], r["text4"])


def open_readonly(state_dir):
    """A plain connection for readers (dump, tests)."""
    path = os.path.join(state_dir, DB_NAME)
    if not os.path.exists(path):
        raise FileNotFoundError(path)
    return sqlite3.connect("file:%s?mode=ro" % path, uri=True)
