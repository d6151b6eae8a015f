"""A throw-away certificate authority for serving TLS in tests and the demo.

`make(directory, names)` writes, with the `openssl` command, a CA (`ca.pem`,
`ca.key`) and a server certificate signed by it (`server.pem`, `server.key`)
for the given names (IP addresses and DNS names), valid for two days, P-256
keys; `server.pin` holds the base64 SHA-256 of the server's public key
(SubjectPublicKeyInfo, DER), the value the agent's `tls_pin_sha256` takes.
Nothing here is secret: the keys live as long as the test's directory.
"""

import base64
import hashlib
import ipaddress
import os
import subprocess
from dataclasses import dataclass

CA_NAME = "/CN=Runtime server test CA"
DAYS = "2"


class CaError(Exception):
    pass


@dataclass(frozen=True)
class Authority:
    directory: str

    def path(self, name):
        return os.path.join(self.directory, name)

    @property
    def ca_file(self):
        return self.path("ca.pem")

    @property
    def cert_file(self):
        return self.path("server.pem")

    @property
    def key_file(self):
        return self.path("server.key")

    @property
    def pin(self):
        with open(self.path("server.pin")) as f:
            return f.read().strip()


def subject_alt_names(names):
    entries = []
    for name in names:
        try:
            ipaddress.ip_address(name)
            entries.append("IP:" + name)
        except ValueError:
            entries.append("DNS:" + name)
    return ",".join(entries)


def _openssl(*args, stdin=None):
    done = subprocess.run(["openssl", *args], input=stdin, capture_output=True)
    if done.returncode != 0:
        raise CaError("openssl %s: %s" % (args[0], done.stderr.decode(errors="replace").strip()))
    return done.stdout


def make(directory, names=("127.0.0.1", "localhost")):
    """Writes the CA and a server certificate for `names` into `directory`
    (created if needed) and returns an Authority for it."""
    if not names:
        raise CaError("a server certificate needs at least one name")
    os.makedirs(directory, exist_ok=True)
    ca = Authority(directory)
    p = ca.path
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    _openssl("req", "-x509", *key, "-keyout", p("ca.key"), "-out", p("ca.pem"), "-days", DAYS,
             "-subj", CA_NAME)
    _openssl("req", "-new", *key, "-keyout", p("server.key"), "-out", p("server.csr"),
             "-subj", "/CN=" + names[0])
    with open(p("server.ext"), "w") as f:
        f.write("subjectAltName=%s\nbasicConstraints=critical,CA:FALSE\n"
                "extendedKeyUsage=serverAuth\n" % subject_alt_names(names))
    _openssl("x509", "-req", "-in", p("server.csr"), "-CA", p("ca.pem"), "-CAkey", p("ca.key"),
             "-set_serial", "2", "-days", DAYS, "-extfile", p("server.ext"),
             "-out", p("server.pem"))
    spki = _openssl("pkey", "-in", p("server.key"), "-pubout", "-outform", "DER")
    with open(p("server.pin"), "w") as f:
        f.write(base64.b64encode(hashlib.sha256(spki).digest()).decode() + "\n")
    return ca
