"""The console's application: sign-in, sessions, roles, form tokens, page safety.

Every POST must carry the form token of its session (403 otherwise).  Pages
are never cached, and none of them runs a script.

A directory that stops answering must not take the console with it: every
library call carries the time-outs the process set, a person's second
request never queues behind their own stalled one, and only part of the
server threads may wait on the directory at once, so the sign-in page and
the stylesheet are always answered.
"""
from __future__ import annotations

import functools
import logging
import threading
from pathlib import Path
from typing import Optional

from flask import Flask, abort, g, redirect, render_template, request, url_for
from werkzeug.exceptions import HTTPException

import zelmgmt

from . import words
from .people import Lookup, LookupFailed, member_of, person_dn
from .sessions import SessionStore

COOKIE = "zelconsole"
log = logging.getLogger("zelmgmt.console")

ADMIN, AGENT, USER = "admin", "agent", "user"
ROLE_NAMES = {ADMIN: "administrator", AGENT: "sign-on agent", USER: "user"}


class Unanswered(Exception):
    """The directory did not answer a call within the time-outs."""

    def __init__(self, error: zelmgmt.Error):
        super().__init__(str(error))
        self.error = error


class Busy(Exception):
    """No thread is free to wait on the directory, or the person's own
    previous request still waits."""

    def __init__(self, own: bool):
        super().__init__("busy")
        self.own = own


def directory_call(fn):
    """Runs fn() with one of the threads allowed to wait on the directory."""
    gate = g.directory_gate
    if not gate.acquire(timeout=1):
        raise Busy(own=False)
    try:
        return fn()
    finally:
        gate.release()


def signed_in(*roles: str):
    """Runs `view(zel, ...)` with the visitor's library session, one request
    at a time per person; `roles` (when given) are the ones the page is for."""
    def decorate(view):
        @functools.wraps(view)
        def wrapper(*args, **kwargs):
            s = g.console
            if s is None or s.zel is None:
                return redirect(url_for("signin"))
            if roles and s.role not in roles:
                return not_permitted()
            # A request behind the same person's stalled one is answered at once.
            if not s.lock.acquire(timeout=2):
                raise Busy(own=True)
            try:
                if s.zel is None:  # signed out by a request that held the lock before
                    return redirect(url_for("signin"))
                return directory_call(lambda: view(s.zel, *args, **kwargs))
            finally:
                s.lock.release()
        return wrapper
    return decorate


def not_permitted():
    return render_template("message.html", title="Not permitted",
                           text="Not permitted: your account may not use this page."), 403


def notice(kind: str, text: str, small: str = "", link: Optional[str] = None) -> None:
    g.console.notice(kind, text, small, link)


def fail(e: zelmgmt.Error, what: str = "") -> None:
    """A failed call as a notice; a directory that did not answer as its own page."""
    if e.status in words.UNANSWERED:
        raise Unanswered(e)
    text, small = words.failure(e)
    notice("error", f"{what} {text}".strip() if what else text, small)


def attempt(call, done: str, what: str = "") -> bool:
    """Runs one library call: a notice of success, or a sentence of what failed."""
    try:
        call()
    except words.Refused as e:
        notice("error", str(e))
        return False
    except zelmgmt.Error as e:
        fail(e, what)
        return False
    if done:
        notice("ok", done)
    return True


def role_of(zel: zelmgmt.Session, dn: str, password: str, ca_file: Optional[str], timeout: int) -> tuple:
    """(role, own Zel user name or None) of the person signed in as dn.

    The access groups decide, as far as the person may read them (the
    shipped rules let members of the administrators' groups read them):
    administrators manage, sign-on agents read.  Anyone else with a profile
    is a user.  Someone with neither who may list the users is the
    directory's own administrator; anyone else is a user without a profile."""
    own = None
    try:
        profile = zel.verify_user(dn)
        own = profile_name(profile) if profile else None
    except zelmgmt.Error:
        pass
    try:
        database = zel.info().database_dn
    except zelmgmt.Error:
        database = None
    if database:
        groups = {f"cn={name},cn=Access Groups,{database}": role
                  for name, role in (("Administrators", ADMIN), ("Senior Administrators", ADMIN),
                                     ("Middle Tier Servers", AGENT))}
        found = [groups[d] for d in member_of(zel_uri(), dn, password, list(groups), ca_file, timeout)]
        if found:
            return (ADMIN if ADMIN in found else AGENT), own
    if own:
        return USER, own
    try:
        zel.get_all_users()
        return ADMIN, own
    except zelmgmt.Error as e:
        if e.status == 19:   # no users yet: listing was allowed
            return ADMIN, own
    # Neither: "My sign-ons" tells them they have no profile yet.
    return USER, own


def zel_uri() -> str:
    from flask import current_app
    return current_app.config["ZEL_URI"]


def profile_name(profile_dn: str) -> str:
    """The user name a profile DN carries: its first RDN's value, unescaped."""
    rdn, i, value = profile_dn.split("=", 1)[1] if "=" in profile_dn else profile_dn, 0, []
    while i < len(rdn) and rdn[i] != ",":
        if rdn[i] == "\\" and i + 1 < len(rdn):
            pair = rdn[i + 1:i + 3]
            if len(pair) == 2 and all(c in "0123456789abcdefABCDEF" for c in pair):
                value.append(chr(int(pair, 16)))
                i += 3
                continue
            value.append(rdn[i + 1])
            i += 2
            continue
        value.append(rdn[i])
        i += 1
    return "".join(value)


def create_app(uri: str, *, ca_file: Optional[str] = None, domain: str = "Default",
               idle_seconds: float = 15 * 60, lookup: Optional[Lookup] = None,
               directory_threads: int = 8, audit_file: Optional[str] = None,
               zelctl: Optional[str] = None, timeout: int = 15) -> Flask:
    here = Path(__file__).resolve().parent
    app = Flask(__name__, template_folder=str(here / "templates"), static_folder=str(here / "static"))
    app.config.update(ZEL_URI=uri, ZEL_CA_FILE=ca_file, ZEL_DOMAIN=domain, ZEL_AUDIT_FILE=audit_file,
                      ZEL_ZELCTL=zelctl, ZEL_TIMEOUT=timeout, MAX_CONTENT_LENGTH=16 * 1024 * 1024)  # an import document of a large site
    store = SessionStore(idle_seconds)
    app.extensions["zelmgmt.sessions"] = store
    lookup = lookup or Lookup()
    gate = threading.BoundedSemaphore(max(directory_threads, 1))

    @app.before_request
    def find_session():
        g.directory_gate = gate
        g.console = store.get(request.cookies.get(COOKIE))
        g.new_key = None
        # The form is read first, so that one too large is answered as such.
        offered = request.form.get("csrf_token") if request.method == "POST" else None
        if request.method == "POST" and (g.console is None or not g.console.token_matches(offered)):
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
        signed = s is not None and s.zel is not None
        return {"csrf_token": s.csrf_token if s else "", "who": s.who if signed else None,
                "role": s.role if signed else None, "own": s.own if signed else None,
                "role_name": ROLE_NAMES.get(s.role, "") if signed else "",
                "notices": s.take_notices() if s else [], "audit_on": bool(audit_file),
                "short": words.shorten}

    @app.errorhandler(403)
    def forbidden(_):
        return render_template("forbidden.html"), 403

    @app.errorhandler(HTTPException)
    def http_error(e):
        titles = {404: ("Page not found", "There is no such page in the console."),
                  405: ("Not allowed", "This page cannot be used that way. Nothing was changed."),
                  413: ("Too large", "What was sent is larger than the console accepts. Nothing was changed.")}
        title, text = titles.get(e.code, (e.name, "The request could not be answered."))
        return render_template("message.html", title=title, text=text, small=f"HTTP {e.code}"), e.code

    @app.errorhandler(Unanswered)
    def unanswered(e):
        log.warning("the directory did not answer: status %d", e.error.status)
        return render_template("message.html", title="The directory did not answer",
                               text=words.sentence(e.error.status) + " The console waited "
                               f"{app.config['ZEL_TIMEOUT']} seconds for it.",
                               small=words.failure(e.error)[1]), 504

    @app.errorhandler(Busy)
    def busy(e):
        text = ("Your previous request is still waiting for the directory. Try again in a moment."
                if e.own else "The console is waiting on the directory for others. Try again in a moment.")
        return render_template("message.html", title="The directory is slow to answer", text=text), 503

    @app.route("/signin", methods=["GET"])
    def signin():
        if g.console is None:
            g.console = store.start()
            g.new_key = g.console.key
        elif g.console.zel is not None:
            return redirect(url_for("pages.home"))
        return render_template("signin.html", login="")

    @app.route("/signin", methods=["POST"])
    def signin_post():
        login = request.form.get("login", "").strip()
        password = request.form.get("password", "")
        try:
            if "\x00" in login or "\x00" in password:
                raise zelmgmt.Error(1005, "cannot sign in", detail="")
            if "=" in login:
                dn = login
            else:
                dn = directory_call(lambda: person_dn(uri, login, ca_file, lookup, timeout)) if login else None
                if dn is None:
                    # The library's own bind gives 1004 for a name it cannot place.
                    raise zelmgmt.Error(1004, "cannot sign in", detail="")
            zel = directory_call(lambda: zelmgmt.Session(uri, dn, password=password, domain=domain,
                                                         ca_file=ca_file))
            role, own = directory_call(lambda: role_of(zel, dn, password, ca_file, timeout))
            zel1 = None
            if role == ADMIN:
                try:
                    zel1 = directory_call(lambda: zelmgmt.Session(uri, dn, password=password, version=1,
                                                                  ca_file=ca_file))
                except zelmgmt.Error:
                    pass
        except LookupFailed as e:
            log.error("sign-in by name: %s", e)
            notice("error", "Sign-in by user name is not working: the console's look-up identity was refused. "
                            "Sign in with your DN, and tell the administrator.")
            return render_template("signin.html", login=login), 503
        except zelmgmt.Error as e:
            # Not the text typed as the login: a password typed into the wrong field must not reach the log.
            log.info("sign-in from %s refused: status %d", request.remote_addr, e.status)
            if e.status in words.UNANSWERED:
                raise Unanswered(e)
            text = "Sign-in failed: the user name or password is wrong." if e.status in (4, 1004) \
                else words.sentence(e.status)
            notice("error", text, words.failure(e)[1])
            return render_template("signin.html", login=login), 401
        finally:
            password = None
        with g.console.lock:  # a new key at sign-in: a key known before it is worth nothing after
            store.end(g.console)
        g.console = store.start(zel, dn)
        g.console.role, g.console.own, g.console.zel1 = role, own, zel1
        g.new_key = g.console.key
        log.info("signed in: %r as %s from %s", dn, role, request.remote_addr)
        return redirect(url_for("pages.home"))

    @app.route("/signout", methods=["POST"])
    def signout():
        log.info("signed out: %r", g.console.who)
        with g.console.lock:
            store.end(g.console)
        g.drop_cookie = True
        return redirect(url_for("signin"))

    from .pages import pages
    from .operations import operations
    app.register_blueprint(pages)
    app.register_blueprint(operations)
    return app

