"""Files served by GET and their ".sign" companions.

A signature is the RSA signature over the MD5 digest of a file, made with the
`openssl` command-line tool and the development private key by default.
"""

import os
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_KEY = os.path.normpath(os.path.join(HERE, "..", "..", "tests", "data", "keys", "dev_private.pem"))
SIGN_SUFFIX = ".sign"


class SignError(RuntimeError):
    pass


def resolve(root, url_path):
    """The local file for a request path, or None when it is outside the
    served directory, not a regular file, or nothing is served."""
    if root is None:
        return None
    if url_path.startswith("http://"):
        # A request passed on unchanged by a forwarding proxy.
        url_path = "/" + url_path[len("http://"):].partition("/")[2]
    rel = url_path.split("?", 1)[0].lstrip("/")
    if not rel:
        return None
    full = os.path.realpath(os.path.join(root, rel))
    if os.path.commonpath([full, os.path.realpath(root)]) != os.path.realpath(root):
        return None
    return full if os.path.isfile(full) else None


def sign_file(path, key=None):
    """Write path + ".sign"; raises SignError when openssl fails."""
    key = key or DEFAULT_KEY
    out = path + SIGN_SUFFIX
    proc = subprocess.run(["openssl", "dgst", "-md5", "-sign", key, "-out", out, path],
                          capture_output=True, text=True)
    if proc.returncode != 0:
        raise SignError("openssl could not sign %s: %s" % (path, proc.stderr.strip()))
    return out


def sign_tree(paths, key=None, only_stale=False):
    """Sign every file named, and every file below each directory named,
    except signatures themselves. With only_stale, a file whose signature is
    newer than the file is left alone. Returns the signature paths written."""
    written = []
    for path in paths:
        if os.path.isdir(path):
            files = sorted(os.path.join(d, f) for d, _, fs in os.walk(path) for f in fs)
        else:
            files = [path]
        for f in files:
            if f.endswith(SIGN_SUFFIX):
                continue
            sig = f + SIGN_SUFFIX
            if only_stale and os.path.exists(sig) and os.path.getmtime(sig) >= os.path.getmtime(f):
                continue
            written.append(sign_file(f, key))
    return written
