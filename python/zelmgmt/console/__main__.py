"""zelmgmt-console [--uri URI] [--ca FILE] [--domain NAME] [--host H] [--port N] ...

Serves the console with waitress and prints its address once it listens.
The console keeps no password: each person signs in with their own.  A user
name is placed through a look-up identity (--lookup-dn with
--lookup-password-file) or a DN template (--dn-template).  With ZEL_AUDIT
naming a file, the library writes its audit trail there and the console
shows it.
"""
import argparse
import logging
import os
import signal
import sys


def main(argv=None) -> int:
    p = argparse.ArgumentParser(prog="zelmgmt-console", description="A web console for Zel data.")
    p.add_argument("--uri", default=os.environ.get("LDAPURI"),
                   help="the directory, ldap://host:port or ldaps://host:port, or several separated "
                        "by blanks (default: $LDAPURI)")
    p.add_argument("--ca", help="CA certificate file for ldaps://")
    p.add_argument("--domain", default="Default", help="security domain (default: Default)")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default: 127.0.0.1)")
    p.add_argument("--port", type=int, default=8080, help="port to listen on; 0 picks a free one (default: 8080)")
    p.add_argument("--idle-minutes", type=float, default=15, help="idle sessions end after this (default: 15)")
    p.add_argument("--url-scheme", choices=("http", "https"), default="http",
                   help="https when a TLS proxy in front serves the console (cookies are then Secure)")
    p.add_argument("--dn-template", help='a user name to its DN, e.g. "uid={name},ou=People,o=example"')
    p.add_argument("--lookup-dn", help="the identity that finds a user name's entry")
    p.add_argument("--lookup-password-file", help="the look-up identity's password, alone in a file")
    p.add_argument("--lookup-base", help="where the look-up searches (default: every naming context)")
    p.add_argument("--timeout", type=int, default=15,
                   help="seconds a directory request may take before the page says it did not answer (default: 15)")
    p.add_argument("--network-timeout", type=int, default=5, help="seconds to connect to a server (default: 5)")
    p.add_argument("--threads", type=int, default=16,
                   help="server threads (default: 16); four of them never wait on the directory")
    p.add_argument("--zelctl", help="zelctl, for export, import and the trail's check (default: from PATH)")
    args = p.parse_args(argv)
    if not args.uri:
        p.error("--uri is required when LDAPURI is not set")
    if bool(args.lookup_dn) != bool(args.lookup_password_file):
        p.error("--lookup-dn and --lookup-password-file go together")
    if args.dn_template and "{name}" not in args.dn_template:
        p.error("--dn-template must hold {name}")
    if args.threads < 5:
        p.error("--threads must be at least 5")

    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(name)s: %(message)s", stream=sys.stderr)
    from waitress.server import create_server

    import zelmgmt

    from . import create_app
    from .people import Lookup
    # Every session the console opens from now on carries these.
    zelmgmt.set_timeouts(request=args.timeout, network=args.network_timeout)
    audit = os.environ.get("ZEL_AUDIT")
    lookup = Lookup(args.dn_template, args.lookup_dn, args.lookup_password_file, args.lookup_base)
    app = create_app(args.uri, ca_file=args.ca, domain=args.domain, idle_seconds=args.idle_minutes * 60,
                     lookup=lookup, directory_threads=args.threads - 4,
                     audit_file=audit if audit and audit != "syslog" else None, zelctl=args.zelctl,
                     timeout=args.timeout + args.network_timeout)
    server = create_server(app, host=args.host, port=args.port, url_scheme=args.url_scheme, threads=args.threads)
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
