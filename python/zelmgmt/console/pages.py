"""The console's pages: overview, services, resource groups, users, records,
and the credential tester.  Each write is a POST that redirects back to the
page it came from (so a reload never repeats it) with a notice of the result.
"""
from __future__ import annotations

from flask import Blueprint, current_app, redirect, render_template, request, url_for

import zelmgmt

from .app import attempt, log, notice, signed_in

pages = Blueprint("pages", __name__)

SERVICE_TYPES = ("Web Resource", "Resource Group")
USER_TYPES = ("User", "XR User", "Middle Tier Server", "Senior Admin")
DIR_KINDS = {0: "unknown", 1: "Orv directory", 2: "Netscape-style", 3: "NDS", 4: "eDirectory",
             5: "generic", 6: "Active Directory"}


def field(name: str):
    """A form value, None when left empty (the library then keeps or omits it)."""
    value = request.form.get(name, "").strip()
    return value or None


def read_or_notice(call, default):
    try:
        return call()
    except zelmgmt.Error as e:
        notice("error", str(e))
        return default


@pages.route("/")
@signed_in
def overview(zel):
    info = read_or_notice(zel.info, None)
    # The current server, where the library reports it; else the one the console was told.
    server = getattr(info, "server", None) or current_app.config["ZEL_URI"]
    kind = DIR_KINDS.get(info.dir_kind, "unknown") if info else None
    return render_template("overview.html", info=info, kind=kind, server=server)


# Target services.
@pages.route("/services")
@signed_in
def services(zel):
    return render_template("services.html", services=read_or_notice(zel.get_all_target_services, []),
                           types=SERVICE_TYPES)


@pages.route("/services/add", methods=["POST"])
@signed_in
def service_add(zel):
    name = field("name") or ""
    attempt(lambda: zel.add_target_service(zelmgmt.TargetService(name, field("type"), field("description"))),
            f"Service {name} added.")
    return redirect(url_for(".services"))


@pages.route("/services/edit")
@signed_in
def service_edit(zel):
    service = read_or_notice(lambda: zel.get_target_service(request.args.get("name", "")), None)
    if service is None:
        return redirect(url_for(".services"))
    return render_template("service_edit.html", service=service, types=SERVICE_TYPES)


def replace_service(zel, old: zelmgmt.TargetService, new: zelmgmt.TargetService) -> None:
    # The library has no update of a service: it is written anew.  Records and
    # group memberships name the service and are left alone by the removal.
    zel.remove_target_service(old.name)
    try:
        zel.add_target_service(new)
    except zelmgmt.Error:
        zel.add_target_service(old)  # put back what was there; the first failure is the one to tell
        raise


@pages.route("/services/edit", methods=["POST"])
@signed_in
def service_edit_post(zel):
    name = request.form.get("name", "")
    try:
        old = zel.get_target_service(name)
    except zelmgmt.Error as e:
        notice("error", str(e))
        return redirect(url_for(".services"))
    new = zelmgmt.TargetService(name, field("type"), field("description"), old.identifiers)
    if attempt(lambda: replace_service(zel, old, new), f"Service {name} changed."):
        return redirect(url_for(".services"))
    return redirect(url_for(".service_edit", name=name))


@pages.route("/services/remove", methods=["POST"])
@signed_in
def service_remove(zel):
    name = request.form.get("name", "")
    attempt(lambda: zel.remove_target_service(name), f"Service {name} removed.")
    return redirect(url_for(".services"))


# Resource groups and their members.
@pages.route("/groups")
@signed_in
def groups(zel):
    return render_template("groups.html", groups=read_or_notice(zel.get_all_domains, []))


@pages.route("/groups/add", methods=["POST"])
@signed_in
def group_add(zel):
    name = field("name") or ""
    attempt(lambda: zel.add_domain(zelmgmt.Domain(name, field("description"))), f"Resource group {name} added.")
    return redirect(url_for(".groups"))


@pages.route("/groups/remove", methods=["POST"])
@signed_in
def group_remove(zel):
    name = request.form.get("name", "")
    attempt(lambda: zel.remove_domain(name), f"Resource group {name} removed.")
    return redirect(url_for(".groups"))


@pages.route("/groups/view")
@signed_in
def group(zel):
    group = read_or_notice(lambda: zel.get_domain(request.args.get("name", "")), None)
    if group is None:
        return redirect(url_for(".groups"))
    services = [s.name for s in read_or_notice(zel.get_all_target_services, []) if s.name not in group.members]
    return render_template("group.html", group=group, services=services)


@pages.route("/groups/members", methods=["POST"])
@signed_in
def group_members(zel):
    name, member = request.form.get("name", ""), request.form.get("member", "")
    if request.form.get("action") == "remove":
        attempt(lambda: zel.remove_domain_member(name, member), f"{member} left {name}.")
    else:
        attempt(lambda: zel.add_domain_member(name, member), f"{member} joined {name}.")
    return redirect(url_for(".group", name=name))


# Zel users.
@pages.route("/users")
@signed_in
def users(zel):
    return render_template("users.html", users=read_or_notice(zel.get_all_users, []), types=USER_TYPES)


@pages.route("/users/add", methods=["POST"])
@signed_in
def user_add(zel):
    user = zelmgmt.User(field("name") or "", field("type"), field("description"), True, field("person_dn"))
    attempt(lambda: zel.add_user(user), f"User {user.name} added.")
    return redirect(url_for(".users"))


@pages.route("/users/state", methods=["POST"])
@signed_in
def user_state(zel):
    name, enable = request.form.get("name", ""), request.form.get("enabled") == "1"

    def change():
        user = zel.get_user(name)  # an update writes every field: keep the others as stored
        user.enabled = enable
        zel.update_user(user)
    attempt(change, f"User {name} {'enabled' if enable else 'disabled'}.")
    return redirect(url_for(".users"))


@pages.route("/users/remove", methods=["POST"])
@signed_in
def user_remove(zel):
    name = request.form.get("name", "")
    attempt(lambda: zel.remove_user(name), f"User {name} removed.")
    return redirect(url_for(".users"))


# A user's target records.
def records_page(zel, user: str, revealed=None):
    records = read_or_notice(lambda: zel.get_all_target_records(user), [])
    for r in records:
        r.password = None  # never into a page, whatever the template does
    services = read_or_notice(zel.get_all_target_services, [])
    return render_template("records.html", user=user, records=records, services=services, revealed=revealed)


@pages.route("/records")
@signed_in
def records(zel):
    return records_page(zel, request.args.get("user", ""))


@pages.route("/records/add", methods=["POST"])
@signed_in
def record_add(zel):
    user, service = request.form.get("user", ""), request.form.get("service", "")
    kind = request.form.get("kind") or "T"
    record = zelmgmt.TargetRecord(f"{kind}:{service}", service, account=field("account"),
                                  password=request.form.get("password") or None, description=field("description"))
    attempt(lambda: zel.add_target_record(user, record), f"Record {record.id} added.")
    return redirect(url_for(".records", user=user))


@pages.route("/records/update", methods=["POST"])
@signed_in
def record_update(zel):
    user, record_id = request.form.get("user", ""), request.form.get("id", "")

    def update():
        stored = zel.get_target_record(user, record_id)
        # Empty fields keep what is stored: the library writes only what it is given.
        zel.update_target_record(user, zelmgmt.TargetRecord(
            record_id, stored.service, stored.service_type, account=field("account"),
            password=request.form.get("password") or None, description=field("description")))
    attempt(update, f"Record {record_id} updated.")
    return redirect(url_for(".records", user=user))


@pages.route("/records/remove", methods=["POST"])
@signed_in
def record_remove(zel):
    user, record_id = request.form.get("user", ""), request.form.get("id", "")
    attempt(lambda: zel.remove_target_record(user, record_id), f"Record {record_id} removed.")
    return redirect(url_for(".records", user=user))


@pages.route("/records/reveal", methods=["POST"])
@signed_in
def record_reveal(zel):
    """The one page that shows a stored password: answered to this POST only,
    never cached, never reachable by a link or a reload of a GET."""
    user, record_id = request.form.get("user", ""), request.form.get("id", "")
    record = read_or_notice(lambda: zel.get_target_record(user, record_id), None)
    log.info("password of record %r of %r revealed", record_id, user)
    return records_page(zel, user, revealed=(record_id, record.password) if record else None)


# The credential tester.
@pages.route("/credential", methods=["GET", "POST"])
@signed_in
def credential(zel):
    user, resource = request.form.get("user", ""), request.form.get("resource", "")
    account = explanation = None
    if request.method == "POST":
        cred = read_or_notice(lambda: zel.get_credential(user, resource), None)
        account = cred.account if cred else None
        # How the answer was reached, where the library can say so.
        if hasattr(zel, "explain_credential"):
            explanation = read_or_notice(lambda: zel.explain_credential(user, resource), None)
    return render_template("credential.html", user=user, resource=resource, account=account,
                           explanation=explanation, asked=request.method == "POST")
