"""Plain and signed downloads, checked with the openssl command-line tool."""

import os
import subprocess
import sys

from rs_client import download_request, exchange, split_response

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
KEYS = os.path.join(REPO, "tests", "data", "keys")
SERVER = os.path.join(REPO, "tools", "runtime_server", "server.py")


def verify(path, sig):
    return subprocess.run(["openssl", "dgst", "-md5", "-verify", os.path.join(KEYS, "dev_public.pem"),
                           "-signature", sig, path], capture_output=True).returncode == 0


def make_tree(tmp_path):
    root = tmp_path / "files"
    (root / "pkg").mkdir(parents=True)
    (root / "pkg" / "agent.tar").write_bytes(bytes(range(256)) * 40)
    (root / "kvdkagent.conf").write_text("1.1.1.51,Linux,*,x86,*,*=/drivers/kvdkagent-a.o\n")
    return root


def body_of(data):
    status, headers, body = split_response(data)
    assert status == "HTTP/1.0 200 OK"
    assert "Content-Length: %d" % len(body) in headers
    return body


def test_signed_files_are_served_and_verify(start_server, tmp_path):
    root = make_tree(tmp_path)
    srv = start_server({"downloads": {"root": "files", "sign": True}})
    for rel in ("pkg/agent.tar", "kvdkagent.conf"):
        content = body_of(exchange(srv.port, download_request("/" + rel)))
        assert content == (root / rel).read_bytes()
        sig = body_of(exchange(srv.port, download_request("/" + rel + ".sign")))
        assert len(sig) == 64
        got, got_sig = tmp_path / "got", tmp_path / "got.sign"
        got.write_bytes(content)
        got_sig.write_bytes(sig)
        assert verify(str(got), str(got_sig))
        got.write_bytes(content + b"x")
        assert not verify(str(got), str(got_sig))
    assert srv.violations() == []


def test_missing_and_escaping_paths_are_not_found(start_server, tmp_path):
    make_tree(tmp_path)
    srv = start_server({"downloads": {"root": "files"}})
    for path in ("/nothing", "/", "/pkg", "/../scenario.json", "/pkg/../../scenario.json"):
        status, _, body = split_response(exchange(srv.port, download_request(path)))
        assert (status, body) == ("HTTP/1.0 404 Not Found", b""), path


def test_sign_command_and_development_keys(tmp_path):
    f = tmp_path / "module.o"
    f.write_bytes(b"\x7fELF" + b"\0" * 100)
    out = subprocess.run([sys.executable, SERVER, "sign", str(tmp_path)], capture_output=True, text=True)
    assert out.returncode == 0, out.stderr
    assert out.stdout == str(f) + ".sign\n"
    assert os.path.getsize(str(f) + ".sign") == 64
    assert verify(str(f), str(f) + ".sign")
    # The agent builds in the DER public key; it must be the half of the
    # private key the server signs with.
    der = subprocess.run(["openssl", "rsa", "-in", os.path.join(KEYS, "dev_private.pem"), "-pubout",
                          "-outform", "DER"], capture_output=True).stdout
    with open(os.path.join(KEYS, "dev_public.der"), "rb") as k:
        assert der == k.read() and len(der) == 94
