"""Command line: `serve`, `dump`, `sign` and `testca`.

`serve` prints "port N" as its first line once it listens, reloads its
scenario on SIGHUP and stops cleanly on SIGTERM or SIGINT.
"""

import argparse
import signal
import sys
import threading

from . import downloads, report, testca
from .httpd import RuntimeServer
from .scenario import ScenarioError


def main(argv=None):
    parser = argparse.ArgumentParser(prog="runtime_server", description="Reference runtime server.")
    sub = parser.add_subparsers(dest="command", required=True)

    serve = sub.add_parser("serve", help="listen on 127.0.0.1 and answer agents")
    serve.add_argument("--state", required=True, help="state directory (holds server.db)")
    serve.add_argument("--scenario", help="scenario JSON file")
    serve.add_argument("--port", type=int, default=0, help="port; 0 picks a free one")
    serve.add_argument("--verbose", action="store_true", help="one line per request on stderr")
    serve.add_argument("--tls-cert", metavar="PEM", help="serve TLS with this certificate chain")
    serve.add_argument("--tls-key", metavar="PEM", help="the private key of --tls-cert")

    dump = sub.add_parser("dump", help="print a summary of the state database")
    dump.add_argument("--state", required=True)
    dump.add_argument("--raw", type=int, metavar="ID", help="print request ID's raw bytes")

    sign = sub.add_parser("sign", help="write FILE.sign for each file (directories: every file below)")
    sign.add_argument("--key", default=downloads.DEFAULT_KEY, help="private key (PEM)")
    sign.add_argument("paths", nargs="+")

    ca = sub.add_parser("testca", help="write a throw-away CA and a server certificate into DIR")
    ca.add_argument("directory", metavar="DIR")
    ca.add_argument("names", nargs="*", default=["127.0.0.1", "localhost"],
                    help="the server's addresses and DNS names (default 127.0.0.1 localhost)")

    args = parser.parse_args(argv)
    if args.command == "serve":
        if (args.tls_cert is None) != (args.tls_key is None):
            parser.error("--tls-cert and --tls-key go together")
        return serve_command(args)
    if args.command == "dump":
        return report.dump(args.state, args.raw, sys.stdout)
    if args.command == "testca":
        try:
            print(testca.make(args.directory, args.names).pin)
        except (testca.CaError, OSError) as e:
            print(e, file=sys.stderr)
            return 1
        return 0
    try:
        for path in downloads.sign_tree(args.paths, args.key):
            print(path)
    except downloads.SignError as e:
        print(e, file=sys.stderr)
        return 1
    return 0


def serve_command(args):
    try:
        tls = None if args.tls_cert is None else (args.tls_cert, args.tls_key)
        server = RuntimeServer(args.state, args.scenario, args.port, args.verbose, tls)
    except (ScenarioError, OSError) as e:
        print("cannot start: %s" % e, file=sys.stderr)
        return 1
    wake = threading.Event()
    wanted = {"stop": False, "reload": False}

    def on_signal(what):
        # Handlers only raise flags; the main thread does the work, since
        # shutting the server down from inside a handler would deadlock.
        def handler(*_):
            wanted[what] = True
            wake.set()
        return handler

    signal.signal(signal.SIGTERM, on_signal("stop"))
    signal.signal(signal.SIGINT, on_signal("stop"))
    signal.signal(signal.SIGHUP, on_signal("reload"))

    server.start()
    print("port %d" % server.port, flush=True)
    while not wanted["stop"]:
        # A signal may land on a server thread, which does not interrupt this
        # wait; waking now and then lets the main thread see the flag.
        wake.wait(0.1)
        wake.clear()
        if wanted["reload"] and not wanted["stop"]:
            wanted["reload"] = False
            try:
                server.reload()
                print("reloaded %s" % args.scenario, file=sys.stderr, flush=True)
            except ScenarioError as e:
                print("reload failed, scenario kept: %s" % e, file=sys.stderr, flush=True)
    server.stop()
    return 0
