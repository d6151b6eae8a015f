#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/.

The seeds are small well-formed inputs built from the layouts of docs/cache-files.md and the
exchanges of docs/protocol.md, plus a few damaged ones; libFuzzer mutates from there. Run it once
after a layout changes: `python3 fuzz/make_corpus.py` (it replaces the generated seeds and leaves
the crash inputs, named crash-*, in place).
"""
import os
import struct
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def text(value, size):
    raw = value.encode() if isinstance(value, str) else value
    assert len(raw) <= size
    return raw + b"\0" * (size - len(raw))


def header(major, minor, timestamp=1795439060, server="fuzz.example"):
    return struct.pack("<IIq", major, minor, timestamp) + text(server, 256)


def answer(body, head="HTTP/1.0 200 OK\r\nConnection: close\r\nContent-Type: text/plain\r\n"):
    return (head + "Content-Length: %d\r\nSCPVersion: 1.1.1\r\nService: 2\r\n\r\n" % len(body) +
            body).encode()


TRAILER = "<response:0,0:ok>\r\n"
CATALOG = ("1795439063000\r\n<components>\r\n101|1|0|2\r\n102|0|1|0\r\n</components>\r\n"
           "<files>\r\nsh|125560|0|0|101|\r\nls|138208|1|0|101|102|0|\r\n</files>\r\n" + TRAILER)
PARAMETERS = "".join("%s\r\n" % v for v in [
    7, 1, 1700000000123, 2, 3, 600, 10, 4, 61, 5, 1800, 3600, 7200, 14400, 120, "yes", 43200])
TOPOLOGY = ("<division>\r\ndiv1.example|/svc|8080\r\n127.0.0.1|/|80\r\n</division>\r\n"
            "<enterprise>\r\nent1.example|/|443\r\n</enterprise>\r\n")

# The delimiters of the tokenizer target, in its order.
DELIMITERS = ["\r\n", "|", "<response:", ",", ":", "<components>\r\n", "</components>\r\n",
              "<files>\r\n", "</files>\r\n", "<division>\r\n", "</division>\r\n",
              "<enterprise>\r\n", "</enterprise>\r\n", " ", ":"]


def tokenizer(control, a, b, pieces, payload):
    pair = DELIMITERS.index(a) + 15 * DELIMITERS.index(b)
    return bytes([control, pair, pieces]) + payload.encode()


def server_record(host, path, port, scope, active=1):
    info = text(host, 256) + text(path, 256) + struct.pack("<Ii", port, 0)
    return (struct.pack("<I", 0) + info + struct.pack("<iiB3xi", 0, active, 1, scope) +
            b"\0" * 12)


def component(comp_id, attributes):
    return struct.pack("<qq", comp_id, 0) + bytes(attributes) + b"\0"


def file_key(name, size, first=0, second=0):
    return text(name, 256) + struct.pack("<qIII", size, first, second, 0)


def catalog_file(name, size, ids):
    return (file_key(name, size) + b"".join(struct.pack("<q", i) for i in ids) +
            b"\0" * 8 * (16 - len(ids)) + struct.pack("<i", len(ids)))


def unknown(name, size, path, time):
    return file_key(name, size, 0, 1700000000) + text(path, 404) + struct.pack("<I", time)


def scanned(name, size):
    return (file_key(name, size) + text(" ", 401) + text(" ", 80) + text(" ", 40) +
            text(" ", 80) + text(" ", 83))


def mix_bits(value):
    mask = (1 << 64) - 1
    value = ((value ^ (value >> 30)) * 0xBF58476D1CE4E5B9) & mask
    value = ((value ^ (value >> 27)) * 0x94D049BB133111EB) & mask
    return value ^ (value >> 31)


def known_files(entries):
    check = mix_bits(len(entries))
    for file, state in entries:
        check = mix_bits(mix_bits(check ^ file) ^ state)
    return (struct.pack("<IIII", 1, 1, len(entries), check & 0xFFFFFFFF) +
            b"".join(struct.pack("<QQ", file, state) for file, state in entries))


def event(kind, path="", pid=4242, dummy=0, fork=0):
    body = text(path, 256) if kind == 0 else struct.pack("<qq", pid, dummy) + b"\0" * 240
    return (struct.pack("<I8sI", 1700000000, b"EVENT-ID", kind) + body +
            struct.pack("<qqIIIi", 1, pid, 1000, 1000, fork, 0))


def tuple_field(value):
    return text(value, 50)


def elf64(elf_type, machine=62, phdrs=(), phoff=64):
    head = (b"\x7fELF" + bytes([2, 1, 1]) + b"\0" * 9 +
            struct.pack("<HHIQQQIHHHHHH", elf_type, machine, 1, 0x401000, phoff, 0, 0, 64, 56,
                        len(phdrs), 64, 0, 0))
    table = b"".join(struct.pack("<IIQQQQQQ", p, 4, 0, 0, 0, 0, 0, 8) for p in phdrs)
    return head + b"\0" * (phoff - len(head)) + table


def elf32(elf_type, machine=3):
    return (b"\x7fELF" + bytes([1, 1, 1]) + b"\0" * 9 +
            struct.pack("<HHIIIIIHHHHHH", elf_type, machine, 1, 0x8048000, 52, 0, 0, 52, 32, 0,
                        40, 0, 0))


PLUGIN = (struct.pack("<IIqq", 1, 2, 4711, 12) + text("vm", 256) + text("Unix", 256) +
          text("Linux 6.1", 256) + text("127.0.0.1", 16) + struct.pack("<iiiiiq", 2048, 1, 0, 2,
                                                                           2, 1001) +
          text("DEMO-NODE", 256) + text("kvdkagent-2420smp", 256) +
          b"".join(tuple_field(v) for v in ["1.1.1.51", "Linux", "2.4.18", "x86", "2.4.18",
                                             "YES"]))

SEEDS = {
    "http_answer": {
        "service": b"\x00" + answer("1001\r\n<response:0,1:ok>\r\n"),
        "service-tokens": b"\x02" + answer(CATALOG),
        "ascii-custom": b"\x01" + answer("caf\xe9\r\n" + TRAILER, "HTTP/1.1 200 OK\r\nX-Node: 7\r\n"),
        "not-found": b"\x00HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n",
        "download": b"\x00HTTP/1.0 200 OK\r\nContent-Length: 24\r\n\r\n" + elf64(2)[:24],
    },
    "tokenizer": {
        "trailer": tokenizer(0x00, ",", "<response:", 12, "1001\r\n<response:0,1:ok>\r\n"),
        "catalog-peek": tokenizer(0x01, "\r\n", "<response:", 3, CATALOG),
        "files-small-buffer": tokenizer(0x12, "|", "</files>\r\n", 5, CATALOG),
        "head": tokenizer(0x0A, "\r\n", " ", 0, "HTTP/1.0 200 OK\r\nSCPVersion: 1.1.1\r\n\r\n"),
    },
    "plugin_answer": {
        "node": "1001\r\n<response:0,1:ok>\r\n",
        "zero-node": "0\r\n" + TRAILER,
        "unknown-agent": "<response:0,-1:ok>\r\n",
    },
    "parameters_answer": {
        "seventeen": PARAMETERS + TRAILER,
        "none": TRAILER,
        "bad-switch": PARAMETERS.replace("yes", "maybe") + TRAILER,
    },
    "topology_answer": {
        "both": TOPOLOGY + TRAILER,
        "empty": "<division>\r\n</division>\r\n<enterprise>\r\n</enterprise>\r\n" + TRAILER,
        "zero-port": TOPOLOGY.replace("8080", "0") + TRAILER,
    },
    "new_agent_answer": {
        "update": "/tmp/qsam/install.sh -q\r\n/pkg/a\r\n/pkg/b\r\n" + TRAILER,
        "newest": "<response:0,-5:ok>\r\n",
        "no-files": "/tmp/qsam/install.sh\r\n" + TRAILER,
    },
    "catalog_answer": {
        "increment": CATALOG,
        "refused": "<response:0,-1:ok>\r\n",
        "zero-size": CATALOG.replace("125560", "0"),
    },
    "upload_answer": {
        "stored": TRAILER,
        "obsolete": "<response:0,-4:ok>\r\n",
        "communication-error": "<response:3,0:ok>\r\n",
    },
    "configuration": {
        "complete": ("agentid=4711\ndivisionid=12\ntag=demo-node\ncustomer=Demo Customer\n"
                     "server=127.0.0.1\nport=8080\npath=/\nserver_security=0\nuse_proxy=no\n"
                     "proxy=proxy.example\nproxy_port=3128\nproxy_security=0\ntrace_level=3\n"
                     "trace_size=200000\ndriver_conf_file=/drivers/kvdkagent.conf\n"
                     "exec_monitor=auto\n"),
        "comments-crlf": "# agent\r\n  agentid = 1 \r\ndivisionid=2\r\ntag=t\u00e4g\r\ncustomer=c\r\n",
        "duplicate": "agentid=1\nagentid=2\n",
        "empty-value": "tag=\n",
    },
    "driver_configuration": {
        "match": ("1.1.1.51,Linux,2.4.18|2.4.20,x86,*,YES=/drivers/kvdkagent-2420smp.o,"
                  "/drivers/extra.o\n"),
        "second-line": ("1.1.1.51,Linux,2.6.9,x86,*,NOT=/drivers/a.o\n"
                        "1.1.1.51, Linux ,*,x86,*,*= /drivers/b.o\n"),
        "bad-format": "1.1.1.50,Linux,*,*,*,*=/x.o\n",
    },
    "site_manifest": {
        "two-files": ("kvdagent-site-manifest-v1\nversion 1.1.1.52\nnot-after 2027-06-30T00:00:00Z\n"
                      "command /tmp/qsam/install.sh -q\n"
                      "file " + "ab" * 32 + " install.sh\nfile " + "0f" * 32 + " kvdagent\n"),
        "leap-day": ("kvdagent-site-manifest-v1\nversion 2\nnot-after 2028-02-29T23:59:59Z\n"
                     "command /tmp/qsam/kvdagent\t--install\nfile " + "9" * 64 + " kvdagent\n"),
        "cut": "kvdagent-site-manifest-v1\nversion 1.1\nnot-after 2027-06-30T00:00:00Z\ncomm",
    },
    "agent_dat": {
        "initial": struct.pack("<III", 0, 0, 31),
        "five-slots": struct.pack("<iiiii", 3600, 0, -1, 43200, 7),
    },
    "plugin_dat": {
        "whole": PLUGIN,
        "other-version": struct.pack("<II", 1, 1) + PLUGIN[8:],
        "cut": PLUGIN[:1200],
    },
    "server_dat": {
        "two-lists": (header(1, 2) + struct.pack("<II", 2, 1) +
                      server_record("div1.example", "/svc", 8080, 1) +
                      server_record("div2.example", "/", 80, 1, 0) +
                      server_record("ent1.example", "/", 443, 2)),
        "foreign-scope": (header(1, 2) + struct.pack("<II", 1, 1) +
                          server_record("div1.example", "/", 80, 2) +
                          server_record("ent1.example", "/", 80, 0)),
        "cut": header(1, 2) + struct.pack("<II", 3, 0) + server_record("a", "/", 1, 1)[:300],
    },
    "catalog_dat": {
        "two-of-each": (header(1, 2) + struct.pack("<i", 2) + component(101, [1, 0, 2]) +
                        component(102, [0, 1, 0]) + catalog_file("sh", 125560, [101]) +
                        catalog_file("LS", 138208, [101, 102])),
        "no-components": header(1, 2) + struct.pack("<i", 0) + catalog_file("a", 1, [9]),
        "cut-file": (header(1, 2) + struct.pack("<i", 1) + component(5, [0, 0, 0]) +
                     catalog_file("b", 2, [5])[:200]),
    },
    "uat_dat": {
        "two": (header(1, 3) + unknown("tool", 4321, "/opt/app", 1795439000) +
                unknown("run", 99, "/srv/bin/", 1795439100)),
        "duplicate": (header(1, 3) + unknown("Tool", 4321, "/a", 1) + unknown("tool", 4321, "/b", 2)),
    },
    "scan_dat": {
        "two": struct.pack("<I", 1795439060) + scanned("sh", 125560) + scanned("ls", 138208),
        "damaged-and-cut": (struct.pack("<I", 1795439060) + file_key("x", 1, 5) + b"\0" * 684 +
                            scanned("ok", 10) + scanned("cut", 3)[:500]),
    },
    "scan_known": {
        # Two entries for one file (two names of one inode) and one more, the check made as the
        # agent makes it.
        "three": known_files([(0x0102030405060708, 0x1112131415161719),
                              (0x0102030405060708, 0x2122232425262728),
                              (0xF0E0D0C0B0A09080, 0x3132333435363738)]),
        "cut": known_files([(5, 7), (9, 10)])[:40],
    },
    "device_events": {
        "starts": (event(0, "/usr/bin/known") + event(0, "/opt/app/tool") +
                   event(0, "/tmp/qsam/run") + event(0, "/usr/bin/known", fork=1)),
        "end-and-swap": event(1, pid=77) + event(2, pid=77, dummy=78) + event(0, "/nowhere")[:100],
    },
    "elf_header": {
        "exec64": elf64(2),
        "pie": elf64(3, phdrs=(6, 3, 1)),
        "shared": elf64(3, phdrs=(1, 1, 2)),
        "far-table": elf64(3, phdrs=(1, 3), phoff=512),
        "exec32": elf32(2),
        "arm": elf32(2, machine=40),
    },
}


def main():
    for target, seeds in SEEDS.items():
        directory = os.path.join(ROOT, target)
        os.makedirs(directory, exist_ok=True)
        for name in os.listdir(directory):
            if not name.startswith("crash-"):
                os.remove(os.path.join(directory, name))
        for name, content in seeds.items():
            raw = content.encode("utf-8") if isinstance(content, str) else content
            with open(os.path.join(directory, name), "wb") as out:
                out.write(raw)
    return 0


if __name__ == "__main__":
    sys.exit(main())
