"""A readable summary of the state database, for the `dump` command."""

import os
import sqlite3

from .state import DB_NAME


def dump(state_dir, raw_id, out):
    path = os.path.join(state_dir, DB_NAME)
    if not os.path.exists(path):
        print("no state database at %s" % path, file=out)
        return 1
    db = sqlite3.connect(path)
    try:
        if raw_id is not None:
            row = db.execute("SELECT raw FROM requests WHERE id = ?", (raw_id,)).fetchone()
            if row is None:
                print("no request %d" % raw_id, file=out)
                return 1
            # The bytes exactly as received, not re-encoded.
            out.flush()
            getattr(out, "buffer", out).write(bytes(row[0]))
            return 0
        _summary(db, out)
    finally:
        db.close()
    return 0


def _summary(db, out):
    def section(title, query, fmt, args=()):
        rows = db.execute(query, args).fetchall()
        print("%s (%d)" % (title, len(rows)), file=out)
        for r in rows:
            print("  " + fmt % tuple(r), file=out)

    section("requests by service",
            "SELECT COALESCE(method, '?'), COALESCE(service, '-'), COUNT(*), SUM(violations)"
            " FROM requests GROUP BY 1, 2 ORDER BY 1, CAST(service AS INTEGER)",
            "%-4s service %-3s %6d requests, %d violations")
    section("agents",
            "SELECT agent_id, node_id, host, ip, division_id, plugins FROM agents ORDER BY agent_id",
            "agent %s node %s host %s ip %s division %s, %d plug-ins")
    section("plug-ins",
            "SELECT request_id, agent_id, node_line, first, result FROM plugins ORDER BY id",
            "request %d agent %s node line %r first %d result %d")
    section("unknown files",
            "SELECT agent_id, name, size, directory FROM unknown_files ORDER BY id",
            "agent %s %s size %d in %r")
    section("inventories",
            "SELECT agent_id, scan_time, packets, records, complete FROM inventories ORDER BY id",
            "agent %s scan %d: %d packets, %d records, complete %d")
    section("catalog downloads",
            "SELECT request_id, agent_id, since, update_time, components, files"
            " FROM catalog_downloads ORDER BY id",
            "request %d agent %s since %d -> %d: %d components, %d files")
    section("violations",
            "SELECT v.request_id, r.request_line_text, v.kind, v.detail FROM violations v"
            " JOIN (SELECT id, substr(CAST(raw AS TEXT), 1, instr(CAST(raw AS TEXT), char(13)) - 1)"
            " AS request_line_text FROM requests) r ON r.id = v.request_id ORDER BY v.id",
            "request %d [%s] %s: %s")
