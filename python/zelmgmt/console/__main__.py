"""zelmgmt-console [--uri URI] [--ca FILE] [--domain NAME] [--host H] [--port N]

Serves the console with waitress and prints its address once it listens.
The console keeps no password: each person signs in with their own.
"""
import argparse
import logging
import os
import signal
import sys


def main(argv=None) -> int:
    p = argparse.ArgumentParser(prog="zelmgmt-console", description="A web console for Zel data.")
    p.add_argument("--uri", default=os.environ.get("LDAPURI"),
                   help="the directory, ldap://host:port or ldaps://host:port (default: $LDAPURI)")
    p.add_argument("--ca", help="CA certificate file for ldaps://")
    p.add_argument("--domain", default="Default", help="security domain (default: Default)")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default: 127.0.0.1)")
    p.add_argument("--port", type=int, default=8080, help="port to listen on; 0 picks a free one (default: 8080)")
    p.add_argument("--idle-minutes", type=float, default=15, help="idle sessions end after this (default: 15)")
    p.add_argument("--url-scheme", choices=("http", "https"), default="http",
                   help="https when a TLS proxy in front serves the console (cookies are then Secure)")
    args = p.parse_args(argv)
    if not args.uri:
        p.error("--uri is required when LDAPURI is not set")

    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(name)s: %(message)s", stream=sys.stderr)
    from waitress.server import create_server

    from . import create_app
    app = create_app(args.uri, ca_file=args.ca, domain=args.domain, idle_seconds=args.idle_minutes * 60)
    server = create_server(app, host=args.host, port=args.port, url_scheme=args.url_scheme, threads=4)
    host = f"[{args.host}]" if ":" in args.host else args.host
    print(f"zelmgmt-console: serving {args.url_scheme}://{host}:{server.effective_port}/", flush=True)
    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, lambda *_: sys.exit(0))
    try:
        server.run()
    except SystemExit:
        pass
    finally:
        server.close()
        app.extensions["zelmgmt.sessions"].close_all()
    return 0


if __name__ == "__main__":
    sys.exit(main())
