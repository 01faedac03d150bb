"""The operators' pages: the audit trail, export and import.

The audit trail is the file the library writes (ZEL_AUDIT); its chain is
checked by `zelctl audit verify`.  Export and import are zelctl's own
document, run by zelctl as the signed-in person: the console keeps no
password, so each asks for it again and hands it to zelctl through a pipe,
never on a command line.  An import is first run as a dry run, and written
only on a second confirmation of that same file.
"""
from __future__ import annotations

import collections
import hashlib
import json
import os
import shutil
import subprocess
import tempfile
from pathlib import Path
from typing import List, Optional

from flask import Blueprint, Response, current_app, g, redirect, render_template, request, url_for

from .app import ADMIN, log, notice, signed_in
from .listing import Listing

operations = Blueprint("operations", __name__)

# The longest a zelctl run may take before the console gives up on it.
RUN_SECONDS = 600


def zelctl_path() -> Optional[str]:
    return current_app.config.get("ZEL_ZELCTL") or shutil.which("zelctl")


def verdict(path: str) -> tuple:
    """(intact, text) of `zelctl audit verify`; (None, why) when it cannot run."""
    tool = zelctl_path()
    if not tool:
        return None, "zelctl was not found, so the chain was not checked."
    done = subprocess.run([tool, "--json", "audit", "verify", path], capture_output=True, text=True, timeout=60)
    try:
        answer = json.loads(done.stdout)
    except ValueError:
        return None, "zelctl could not check the chain."
    if answer.get("intact"):
        return True, f"Intact: all {answer.get('lines', 0)} lines are in their chain."
    return False, f"Broken at line {answer.get('line')}: {answer.get('fault', 'changed')}."


# The newest lines of a trail the page reads; `zelctl audit verify` checks all of it.
TRAIL_LINES = 100_000


def trail_lines(path: str) -> List[dict]:
    lines = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for raw in collections.deque(f, maxlen=TRAIL_LINES):
            try:
                line = json.loads(raw)
            except ValueError:
                line = {"op": "(a line that is not JSON)"}
            if isinstance(line, dict):
                lines.append(line)
    return lines


@operations.route("/audit")
@signed_in(ADMIN)
def audit(zel):
    path = current_app.config.get("ZEL_AUDIT_FILE")
    if not path:
        return render_template("message.html", title="Audit trail",
                               text="This console writes no audit trail: start it with ZEL_AUDIT naming a file.")
    wanted = {k: request.args.get(k, "").strip() for k in ("user", "resource", "action", "since", "until")}
    try:
        lines = trail_lines(path)
    except OSError:
        lines = []
    intact, said = verdict(path)

    def keep(line: dict) -> bool:
        def has(key, value):
            return not value or value.casefold() in str(line.get(key) or "").casefold()
        when = str(line.get("time") or "")
        return (has("user", wanted["user"]) and has("target", wanted["resource"]) and has("op", wanted["action"])
                and (not wanted["since"] or when >= wanted["since"])
                and (not wanted["until"] or when[:len(wanted["until"])] <= wanted["until"]))
    lines = [line for line in lines if keep(line)]
    listing = Listing(lines, {"time": lambda l: f"{l.get('time', '')}{int(l.get('seq') or 0):012d}"}, "time",
                      keep=wanted, default_desc=True)
    return render_template("audit.html", listing=listing, wanted=wanted, intact=intact, verdict=said)


def run_zelctl(password: str, *args: str) -> subprocess.CompletedProcess:
    """zelctl as the signed-in person; the password reaches it through a pipe."""
    cfg = current_app.config
    tool = zelctl_path()
    if not tool:
        raise FileNotFoundError("zelctl")
    read_end, write_end = os.pipe()
    try:
        os.write(write_end, password.encode("utf-8"))
    finally:
        os.close(write_end)
    command = [tool, "-H", cfg["ZEL_URI"], "-D", g.console.who, "-y", f"/dev/fd/{read_end}",
               "--domain", cfg["ZEL_DOMAIN"], "--timeout", str(cfg["ZEL_TIMEOUT"])]
    if cfg.get("ZEL_CA_FILE"):
        command += ["--ca", cfg["ZEL_CA_FILE"]]
    try:
        return subprocess.run(command + list(args), capture_output=True, timeout=RUN_SECONDS,
                              pass_fds=(read_end,))
    finally:
        os.close(read_end)


class ToolFailed(Exception):
    pass


def run_or_say(password: str, *args: str) -> subprocess.CompletedProcess:
    try:
        return run_zelctl(password, *args)
    except FileNotFoundError:
        raise ToolFailed("zelctl was not found: start the console with --zelctl naming it.")
    except subprocess.TimeoutExpired:
        raise ToolFailed(f"zelctl did not finish within {RUN_SECONDS} seconds; look at the directory "
                         "before trying again.")


@operations.errorhandler(ToolFailed)
def tool_failed(e):
    notice("error", str(e))
    return redirect(url_for(".transfer"))


def said(done: subprocess.CompletedProcess) -> str:
    return (done.stdout + done.stderr).decode("utf-8", "replace").strip()[-20000:]


@operations.route("/transfer")
@signed_in(ADMIN)
def transfer(zel):
    return render_template("transfer.html", pending=g.console.pending)


@operations.route("/export", methods=["POST"])
@signed_in(ADMIN)
def export(zel):
    mode = "sealed" if request.form.get("passwords") == "sealed" else "omit"
    done = run_or_say(request.form.get("password", ""), "export", "--passwords", mode, "--quiet")
    if done.returncode != 0:
        log.info("export by %r from %s failed", g.console.who, request.remote_addr)
        notice("error", "The export failed.", said(done)[-300:])
        return redirect(url_for(".transfer"))
    log.info("export (passwords %s) by %r from %s", mode, g.console.who, request.remote_addr)
    return Response(done.stdout, mimetype="application/json",
                    headers={"Content-Disposition": 'attachment; filename="zel-export.json"'})


def drop_pending() -> None:
    if g.console.pending:
        Path(g.console.pending["file"]).unlink(missing_ok=True)
        g.console.pending = None


@operations.route("/import", methods=["POST"])
@signed_in(ADMIN)
def import_check(zel):
    drop_pending()
    upload = request.files.get("document")
    data = upload.read() if upload else b""
    if not data:
        notice("error", "Choose an export document to import.")
        return redirect(url_for(".transfer"))
    fd, path = tempfile.mkstemp(prefix="zelconsole-import-", suffix=".json")
    with os.fdopen(fd, "wb") as f:
        f.write(data)
    try:
        done = run_or_say(request.form.get("password", ""), "import", path, "--dry-run")
    except ToolFailed:
        Path(path).unlink(missing_ok=True)
        raise
    digest = hashlib.sha256(data).hexdigest()
    if done.returncode == 0:
        g.console.pending = {"file": path, "digest": digest, "name": (upload.filename or "document")[:80]}
    else:
        Path(path).unlink(missing_ok=True)
    log.info("import dry run by %r from %s: exit %d", g.console.who, request.remote_addr, done.returncode)
    return render_template("import_report.html", report=said(done), ok=done.returncode == 0,
                           pending=g.console.pending, applied=False)


@operations.route("/import/apply", methods=["POST"])
@signed_in(ADMIN)
def import_apply(zel):
    pending = g.console.pending
    if not pending or request.form.get("digest") != pending["digest"]:
        notice("error", "There is no checked import to apply; upload the document again.")
        return redirect(url_for(".transfer"))
    done = run_or_say(request.form.get("password", ""), "import", pending["file"])
    log.info("import by %r from %s: exit %d", g.console.who, request.remote_addr, done.returncode)
    if done.returncode == 0:
        drop_pending()
    return render_template("import_report.html", report=said(done), ok=done.returncode == 0,
                           pending=g.console.pending, applied=True)
