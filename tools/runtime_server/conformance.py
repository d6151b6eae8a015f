"""Strict checks of an agent's request against the agent protocol.

`check_head` looks at the request line and header lines, `parse_body` splits
a service body into its time line, format version and fields. Each deviation
becomes a (kind, detail) pair that the server stores as a violation.
"""

import functools
import re

from .framing import TERMINATOR

# The agent's header table, in the order its lines must appear.
HEADER_ORDER = (
    "Host", "Connection", "Pragma", "Cache-Control", "User-Agent",
    "Accept-Charset", "Server", "Content-Length", "Content-Type",
    "Content-Enconding", "SCPVersion", "Service", "SubjectCustomer",
    "SubjectID", "SubjectType",
)
FIXED_VALUES = {
    "Connection": "close", "Pragma": "no-cache", "Cache-Control": "no-cache",
    "User-Agent": "SLMAgent", "Accept-Charset": "UTF-8",
    "Content-Type": "text/plain", "SCPVersion": "1.1.1", "SubjectType": "SLMAgent",
}
COMMON_REQUIRED = ("Host", "Connection", "Pragma", "Cache-Control", "User-Agent",
                   "Accept-Charset", "Content-Type", "SCPVersion", "SubjectType")
# Header 6 has no default and header 9 is either unset or suppressed by the
# agent, so neither may ever appear.
NEVER_SENT = ("Server", "Content-Enconding")

REQUEST_LINE = re.compile(r"^(GET|POST) (/\S*|http://[^/\s]+/\S*) HTTP/1\.0$")
# The authority of a request sent to a proxy: the host, and the port only
# when it is not 80.
PROXY_AUTHORITY = re.compile(r"^http://([^/:\s]+)(?::([1-9][0-9]*))?/")
# Values the agent takes from its own identity rather than from the table.
FREE_TEXT = ("SubjectCustomer", "SubjectID")
# Header values are held in 128-byte fields.
MAX_VALUE = 127
# What may follow a backslash in the escaped customer name.
CUSTOMER_ESCAPES = "\\frtnu"
INT64 = re.compile(r"^(0|-?[1-9][0-9]*)$")
TIME_LINE = re.compile(r"^(0|-?[1-9][0-9]*000)$")
VERSION = re.compile(r"^[0-9]+(\.[0-9]+)*$")

# Field ends in a body. The agent cuts some text to a byte count (the tag to
# 40, names and directories to their record fields), so a field may end
# inside a character; up to such a tail every field is UTF-8.
FIELD_BREAK = re.compile(rb"\r\n|\|")
TAG_BYTES = 40

# Fields of each service after the time line and the format version.
#   int64/int32: decimal without leading zeros; time: "0" or seconds + "000";
#   text: any line; tag: at most 40 characters; literal:X: exactly X.
SERVICE_FIELDS = {
    "1": (),
    "2": (("version", "version"), ("agent_id", "int64"), ("host", "text"),
          ("ip", "text"), ("os_family", "text"), ("os_description", "text"),
          ("memory", "int32"), ("disks", "int32"), ("reserved", "int32"),
          ("processors", "int32"), ("processors2", "int32"),
          ("division_id", "int64"), ("node_id", "int64"), ("agent_time", "time"),
          ("tag", "tag")),
    "3": (("agent_id", "int64"), ("last_update", "int64")),
    "8": (("agent_id", "int64"), ("division_id", "int64")),
    "11": (("agent_id", "int64"), ("division_id", "int64")),
    "12": (("agent_id", "int64"), ("version", "version"), ("system", "text"),
           ("release", "text"), ("machine", "text"), ("division_id", "int64"),
           ("tag", "text"), ("server_host", "text"), ("server_port", "int32"),
           ("root", "literal:/"), ("customer", "text"), ("command_buffer", "text")),
}
UPLOAD_HEAD = (("agent_id", "int64"), ("inventory", "bool"), ("scan_time", "time"),
               ("last", "bool"))
KNOWN_SERVICES = set(SERVICE_FIELDS) | {"7"}
RECORD_FIELDS = ("name", "size", "directory", "attr1", "attr2",
                 "text1", "text2", "text3", "text4")
RECORD_NUMBERS = {"size": "int64", "attr1": "int32", "attr2": "int32"}
# The text fields of the record are NUL-terminated in fields of 256, 401, 80,
# 40, 80 and 83 bytes.
RECORD_TEXT_BYTES = {"name": 255, "directory": 400, "text1": 79, "text2": 39,
                     "text3": 79, "text4": 82}
# More parts than this are not worth searching for masked fields.
MAX_RECORD_PARTS = 1024


def check_head(req):
    """Violations of the request line and headers."""
    out = []
    if not REQUEST_LINE.match(req.request_line or ""):
        out.append(("request-line", "bad request line %r" % req.request_line))
    method = req.method
    seen = {}
    last_index = -1
    for name, value, raw in req.headers:
        if value is None:
            out.append(("header-format", "header line without a colon: %r" % raw))
            continue
        # A customer or subject that itself begins with a blank is sent so.
        if value[:1] in (" ", "\t") and name not in FREE_TEXT:
            out.append(("header-format", "blank after the colon: %r" % raw))
        if name not in HEADER_ORDER:
            out.append(("header-unknown", "unknown header name %r" % name))
            continue
        if name in seen:
            out.append(("header-duplicate", "second %s line: %r" % (name, raw)))
            continue
        # A header without a value of its own or a default is left out, so an
        # empty customer or subject sends no line at all.
        if value == "" and name not in NEVER_SENT and name != "Host":
            out.append(("header-value", "%s line with an empty value" % name))
        # Values are judged without the stray blank, which is reported once above.
        seen[name] = value if name in FREE_TEXT else value.lstrip(" \t")
        index = HEADER_ORDER.index(name)
        if index < last_index:
            out.append(("header-order", "%s after %s" % (name, HEADER_ORDER[last_index])))
        last_index = max(last_index, index)

    required = list(COMMON_REQUIRED)
    unexpected = list(NEVER_SENT)
    if method == "POST":
        required += ["Content-Length", "Service"]
    else:
        # A download has no body and names no service.
        unexpected += ["Content-Length", "Service"]
    for name in required:
        if name not in seen:
            out.append(("header-missing", "no %s header" % name))
    for name in unexpected:
        if name in seen:
            out.append(("header-unexpected", "%s must not be sent here: %r" % (name, seen[name])))
    for name, want in FIXED_VALUES.items():
        if name in seen and seen[name] != want:
            out.append(("header-value", "%s is %r, expected %r" % (name, seen[name], want)))
    host = seen.get("Host")
    if host is not None and (host == "" or ":" in host):
        out.append(("header-value", "Host must be the bare host name: %r" % host))
    out += _proxy_form_problems(req.path, host)
    service = seen.get("Service")
    if method == "POST" and service is not None and service not in KNOWN_SERVICES:
        out.append(("header-value", "unknown service %r" % service))
    for name in FREE_TEXT:
        if name in seen and len(seen[name]) > MAX_VALUE:
            out.append(("header-value", "%s is longer than %d characters: %r"
                        % (name, MAX_VALUE, seen[name])))
    customer = seen.get("SubjectCustomer")
    if customer is not None:
        problem = _customer_problem(customer)
        if problem:
            out.append(("header-value", "SubjectCustomer %s: %r" % (problem, customer)))
    length = seen.get("Content-Length")
    if length is not None:
        if not INT64.match(length) or length.startswith("-"):
            out.append(("content-length", "Content-Length is not a decimal number: %r" % length))
        elif int(length) != len(req.body):
            out.append(("content-length", "Content-Length %s but the body has %d bytes"
                        % (length, len(req.body))))
    return out


def _proxy_form_problems(path, host):
    """A request line in the absolute form names the server as the Host line
    does, and its port only when that is not 80."""
    if not path or not path.startswith("http://"):
        return []
    m = PROXY_AUTHORITY.match(path)
    if m is None:
        return [("request-line", "bad server address in %r" % path)]
    out = []
    if m.group(2) is not None and (int(m.group(2)) == 80 or int(m.group(2)) > 65535):
        out.append(("request-line", "port %s written in %r" % (m.group(2), path)))
    if host is not None and m.group(1) != host:
        out.append(("header-value", "Host %r differs from the server %r of the request line"
                    % (host, m.group(1))))
    return out


def _customer_problem(value):
    """The customer name travels escaped: every unit above 127 or below 20
    as a \\u escape, named escapes for four controls, lone backslashes
    doubled. A value cut at its field size may end inside an escape."""
    if any(ord(ch) > 127 or ord(ch) < 20 for ch in value):
        return "holds bytes outside 20 to 127"
    i = 0
    while i < len(value):
        if value[i] == "\\":
            if i + 1 == len(value):
                if len(value) < MAX_VALUE:
                    return "ends with a lone backslash"
            elif value[i + 1] not in CUSTOMER_ESCAPES:
                return "holds a backslash that starts no escape"
            i += 2
        else:
            i += 1
    return None


class Body:
    """A parsed service body. `fields` maps names to text; `records` holds
    the upload's file records as dicts; `violations` the deviations."""

    def __init__(self):
        self.time = None
        self.fields = {}
        self.records = []
        self.violations = []


def parse_body(service, body):
    b = Body()
    v = b.violations
    problem = _utf8_problem(body)
    if problem:
        v.append(("body-encoding", "body is not UTF-8: %s" % problem))
    # Undecodable bytes are kept through the checks, which count bytes where
    # the agent does, and replaced only in what is stored.
    text = body.decode("utf-8", errors="surrogateescape")
    term = TERMINATOR.decode()
    if text.endswith(term):
        text = text[:-len(term)]
    else:
        v.append(("body-terminator", "body does not end with the request terminator"))
        at = text.rfind(term)
        if at >= 0:
            text = text[:at]
    if text and not text.endswith("\r\n"):
        v.append(("body-format", "last line before the terminator lacks CR LF"))
    lines = text.split("\r\n")
    if lines and lines[-1] == "":
        lines.pop()

    if len(lines) < 1 or not TIME_LINE.match(lines[0]):
        v.append(("body-time", "time line is %r" % (lines[0] if lines else None)))
    else:
        b.time = int(lines[0])
    if len(lines) < 2 or lines[1] != "1.0":
        v.append(("body-version", "format version line is %r, expected '1.0'"
                  % (lines[1] if len(lines) > 1 else None)))
    fields = lines[2:]
    if service == "7":
        _parse_upload(b, fields)
    elif service in SERVICE_FIELDS:
        layout = SERVICE_FIELDS[service]
        _check_fields(b, layout, fields)
        if len(fields) != len(layout):
            v.append(("body-fields", "service %s has %d fields, expected %d"
                      % (service, len(fields), len(layout))))
    b.fields = {k: _stored(x) for k, x in b.fields.items()}
    b.records = [{k: _stored(x) for k, x in r.items()} for r in b.records]
    return b


def _utf8_problem(body):
    for field in FIELD_BREAK.split(body):
        try:
            field.decode("utf-8")
        except UnicodeDecodeError as e:
            if e.reason == "unexpected end of data" and e.end == len(field):
                continue
            return "%r: %s" % (field, e.reason)
    return None


def _stored(text):
    return text.encode("utf-8", errors="surrogateescape").decode("utf-8", errors="replace")


def _check_fields(b, layout, lines):
    for (name, kind), value in zip(layout, lines):
        b.fields[name] = value
        problem = _field_problem(kind, value)
        if problem:
            b.violations.append(("body-fields", "%s %s: %r" % (name, problem, value)))


def _field_problem(kind, value):
    if kind == "int64":
        if not INT64.match(value) or not -2**63 <= int(value) < 2**63:
            return "is not a signed 64-bit decimal"
    elif kind == "int32":
        if not INT64.match(value) or not -2**31 <= int(value) < 2**31:
            return "is not a signed 32-bit decimal"
    elif kind == "time":
        if not TIME_LINE.match(value):
            return "is not a time in milliseconds"
    elif kind == "bool":
        if value not in ("true", "false"):
            return "is not true or false"
    elif kind == "version":
        if not VERSION.match(value):
            return "is not a version number"
    elif kind == "tag":
        if len(value.encode("utf-8", errors="surrogateescape")) > TAG_BYTES:
            return "is longer than %d bytes" % TAG_BYTES
    elif kind.startswith("literal:"):
        if value != kind[len("literal:"):]:
            return "should be %r" % kind[len("literal:"):]
    return None


def _parse_upload(b, lines):
    v = b.violations
    _check_fields(b, UPLOAD_HEAD, lines)
    if len(lines) < 5 or lines[4] != "<files>":
        v.append(("body-fields", "upload lacks the <files> line after its four fields"))
        return
    if b.fields.get("inventory") == "false" and (
            b.fields.get("scan_time") != "0" or b.fields.get("last") != "true"):
        v.append(("body-fields", "unknown-files upload must send scan time 0 and last true"))
    rest = lines[5:]
    if not rest or rest[-1] != "</files>":
        v.append(("body-fields", "upload lacks the </files> line"))
    else:
        rest = rest[:-1]
    for n, line in enumerate(rest, 1):
        parts = line.split("|")
        values = _split_record(tuple(parts)) if len(parts) <= MAX_RECORD_PARTS else None
        if values is not None:
            rec = dict(zip(RECORD_FIELDS, values))
            too_long = [f for f, most in RECORD_TEXT_BYTES.items()
                    if len(rec[f].encode("utf-8", errors="surrogateescape")) > most]
            if too_long:
                v.append(("body-record", "record %d: %s longer than %d bytes: %r"
                          % (n, too_long[0], RECORD_TEXT_BYTES[too_long[0]], rec[too_long[0]])))
            else:
                b.records.append(rec)
        elif len(parts) != len(RECORD_FIELDS):
            v.append(("body-record", "record %d has %d fields, expected 9: %r"
                      % (n, len(parts), line)))
        else:
            name = next(f for f, x in zip(RECORD_FIELDS, parts)
                        if f in RECORD_NUMBERS and _field_problem(RECORD_NUMBERS[f], x))
            value = parts[RECORD_FIELDS.index(name)]
            v.append(("body-record", "record %d: %s %s: %r"
                      % (n, name, _field_problem(RECORD_NUMBERS[name], value), value)))


def _split_record(parts):
    """The nine fields of a record line split at every "|", or None. The
    text fields are masked: only their first "|" became "*", so one that
    held more spans several parts, and its first part holds that "*"."""
    @functools.lru_cache(maxsize=None)
    def fit(field, at):
        if field == len(RECORD_FIELDS):
            return () if at == len(parts) else None
        if at == len(parts):
            return None
        name = RECORD_FIELDS[field]
        if name in RECORD_NUMBERS:
            if _field_problem(RECORD_NUMBERS[name], parts[at]):
                return None
            rest = fit(field + 1, at + 1)
            return None if rest is None else (parts[at],) + rest
        last = len(parts) if "*" in parts[at] else at + 1
        for end in range(at + 1, last + 1):
            rest = fit(field + 1, end)
            if rest is not None:
                return ("|".join(parts[at:end]),) + rest
        return None
    return fit(0, 0)
