"""The console's application: sign-in, sessions, form tokens, page safety.

Every POST must carry the form token of its session (403 otherwise).  Pages
are never cached, and none of them runs a script.
"""
from __future__ import annotations

import functools
import logging
from pathlib import Path
from typing import Optional

from flask import Flask, abort, g, redirect, render_template, request, url_for

import zelmgmt

from .people import person_dn
from .sessions import SessionStore

COOKIE = "zelconsole"
log = logging.getLogger("zelmgmt.console")


def signed_in(view):
    """Runs `view(zel, ...)` with the visitor's library session, one request at a time."""
    @functools.wraps(view)
    def wrapper(*args, **kwargs):
        s = g.console
        if s is None or s.zel is None:
            return redirect(url_for("signin"))
        with s.lock:
            if s.zel is None:  # signed out by a request that held the lock before
                return redirect(url_for("signin"))
            return view(s.zel, *args, **kwargs)
    return wrapper


def notice(kind: str, text: str) -> None:
    g.console.notice(kind, text)


def attempt(call, done: str) -> bool:
    """Runs one library call: a notice of success, or the library's status text."""
    try:
        call()
    except zelmgmt.Error as e:
        notice("error", str(e))
        return False
    notice("ok", done)
    return True


def create_app(uri: str, *, ca_file: Optional[str] = None, domain: str = "Default",
               idle_seconds: float = 15 * 60) -> Flask:
    here = Path(__file__).resolve().parent
    app = Flask(__name__, template_folder=str(here / "templates"), static_folder=str(here / "static"))
    app.config.update(ZEL_URI=uri, ZEL_CA_FILE=ca_file, ZEL_DOMAIN=domain,
                      MAX_CONTENT_LENGTH=64 * 1024)
    store = SessionStore(idle_seconds)
    app.extensions["zelmgmt.sessions"] = store

    @app.before_request
    def find_session():
        g.console = store.get(request.cookies.get(COOKIE))
        g.new_key = None
        if request.method == "POST" and (g.console is None or
                                          not g.console.token_matches(request.form.get("csrf_token"))):
            log.warning("refused a %s to %s without a valid form token", request.method, request.path)
            abort(403)

    @app.after_request
    def protect(response):
        if g.get("new_key") is not None:
            response.set_cookie(COOKIE, g.new_key, httponly=True, samesite="Strict", secure=request.is_secure)
        elif g.get("drop_cookie"):
            response.delete_cookie(COOKIE, httponly=True, samesite="Strict", secure=request.is_secure)
        response.headers["Cache-Control"] = "no-store"
        response.headers["Content-Security-Policy"] = "default-src 'self'; frame-ancestors 'none'; form-action 'self'"
        response.headers["X-Content-Type-Options"] = "nosniff"
        response.headers["Referrer-Policy"] = "no-referrer"
        return response

    @app.context_processor
    def page_context():
        s = g.get("console")
        return {"csrf_token": s.csrf_token if s else "", "who": s.who if s and s.zel else None,
                "notices": s.take_notices() if s else []}

    @app.errorhandler(403)
    def forbidden(_):
        return render_template("forbidden.html"), 403

    @app.route("/signin", methods=["GET"])
    def signin():
        if g.console is None:
            g.console = store.start()
            g.new_key = g.console.key
        elif g.console.zel is not None:
            return redirect(url_for("pages.overview"))
        return render_template("signin.html", login="")

    @app.route("/signin", methods=["POST"])
    def signin_post():
        login = request.form.get("login", "").strip()
        password = request.form.get("password", "")
        try:
            if "=" in login:
                dn = login
            else:
                # The library's own bind gives 1004 for a name it cannot place.
                dn = person_dn(uri, login, ca_file) if login else None
                if dn is None:
                    raise zelmgmt.Error(1004, "cannot sign in")
            zel = zelmgmt.Session(uri, dn, password=password, domain=domain, ca_file=ca_file)
        except zelmgmt.Error as e:
            # Not the text typed as the login: a password typed into the wrong field must not reach the log.
            log.info("sign-in from %s refused: status %d", request.remote_addr, e.status)
            notice("error", str(e))
            return render_template("signin.html", login=login), 401
        finally:
            password = None
        with g.console.lock:  # a new key at sign-in: a key known before it is worth nothing after
            store.end(g.console)
        g.console = store.start(zel, dn)
        g.new_key = g.console.key
        log.info("signed in: %r from %s", dn, request.remote_addr)
        return redirect(url_for("pages.overview"))

    @app.route("/signout", methods=["POST"])
    def signout():
        log.info("signed out: %r", g.console.who)
        with g.console.lock:
            store.end(g.console)
        g.drop_cookie = True
        return redirect(url_for("signin"))

    from .pages import pages
    app.register_blueprint(pages)
    return app
