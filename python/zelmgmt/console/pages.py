"""The console's pages: overview, services, resource groups, users, records,
"My sign-ons" and the credential tester.  Each write is a POST that
redirects to a page (so a reload never repeats it) with a notice of the
result; a removal is confirmed on a page of its own first.
"""
from __future__ import annotations

from typing import List, Optional

from flask import Blueprint, current_app, g, redirect, render_template, request, url_for

import zelmgmt

from . import words
from .app import ADMIN, AGENT, USER, Unanswered, attempt, fail, log, notice, signed_in
from .listing import Listing
from .words import Refused, checked_name, checked_text, shorten

pages = Blueprint("pages", __name__)

BUILTIN_SERVICE_TYPES = ("Web Resource", "Resource Group")
USER_TYPES = ("User", "XR User", "Middle Tier Server", "Senior Admin")
DIR_KINDS = {0: "unknown", 1: "Orv directory", 2: "Netscape-style", 3: "NDS", 4: "eDirectory",
             5: "generic", 6: "Active Directory"}
# Lists that find nothing answer "not found" in the library; for a list that is no error.
EMPTY = {14: "services", 19: "users", 24: "records", 32: "groups"}


def field(name: str, what: Optional[str] = None) -> str:
    """A free-text form value, checked; "" when left empty."""
    return checked_text(request.form.get(name), what or name)


def read(call, default):
    """A read whose failure becomes a notice; an empty list is no failure."""
    try:
        return call()
    except zelmgmt.Error as e:
        if e.status not in EMPTY or not isinstance(default, list):
            fail(e)
        return default


def removal(noun: str, name: str, load, goes, remove, back: str, fields: Optional[dict] = None, of: str = ""):
    """A removal: the GET asks on a page of its own what `goes(found)` says
    goes with the object `load` finds, only the POST removes; both end on
    `back`, and so does a GET for an object that is not there."""
    if request.method == "GET":
        found = read(load, None)
        if found is None:
            return redirect(back)
        return render_template("confirm.html", title=f"Remove {noun} {shorten(name)}?",
                               question=f"The {noun} {name}{of} will be removed.", goes=goes(found),
                               action=url_for(request.endpoint), fields=fields or {"name": name}, back=back,
                               button=f"Remove {name}")
    attempt(remove, f"{noun.capitalize()} {shorten(name)} removed.", f"The {noun} was not removed.")
    return redirect(back)


@pages.route("/")
@signed_in()
def home(zel):
    if g.console.role == USER:
        return redirect(url_for(".mine"))
    info = read(zel.info, None)
    # The current server, where the library reports it; else the one the console was told.
    server = getattr(info, "server", None) or current_app.config["ZEL_URI"]
    kind = DIR_KINDS.get(info.dir_kind, "unknown") if info else None
    return render_template("overview.html", info=info, kind=kind, server=server)


# ---- Target services ------------------------------------------------------

def service_types(zel, current: Optional[str] = None) -> List[str]:
    """The types the directory holds, the built-in ones, and the current one."""
    names = list(BUILTIN_SERVICE_TYPES)
    try:
        names += [t.name for t in zel.get_all_target_service_types() if t.name]
    except zelmgmt.Error as e:
        if e.status in words.UNANSWERED:
            raise Unanswered(e)
    if current:
        names.append(current)
    seen, out = set(), []
    for n in names:
        if n.casefold() not in seen:
            seen.add(n.casefold())
            out.append(n)
    return out


@pages.route("/services")
@signed_in(ADMIN, AGENT)
def services(zel):
    items = read(zel.get_all_target_services, [])
    listing = Listing(items, {"name": lambda s: s.name, "type": lambda s: s.type,
                              "description": lambda s: s.description}, "name")
    types = service_types(zel) if g.console.role == ADMIN else []
    return render_template("services.html", listing=listing, types=types)


@pages.route("/services/add", methods=["POST"])
@signed_in(ADMIN)
def service_add(zel):
    def add():
        name = checked_name(request.form.get("name"), "service name")
        service = zelmgmt.TargetService(name, field("type") or None, field("description") or None)
        try:
            zel.get_target_service(name)
            raise Refused(f"A service {shorten(name)} exists already; change it on its edit page.")
        except zelmgmt.Error as e:
            if e.status != 14:
                raise
        session = writer(zel, service.type)
        if session is not zel:
            # A type of the Zel database names the identifiers its services carry.
            known = {t.name.casefold(): t for t in zel.get_all_target_service_types()}
            kind = known.get(service.type.casefold())
            service.identifiers = [(i, name) for i in (kind.identifiers if kind else [])]
        session.add_target_service(service)
        notice("ok", f"Service {shorten(name)} added.")
    attempt(add, "", "The service was not added.")
    return redirect(url_for(".services"))


@pages.route("/services/edit")
@signed_in(ADMIN)
def service_edit(zel):
    service = read(lambda: zel.get_target_service(request.args.get("name", "")), None)
    if service is None:
        return redirect(url_for(".services"))
    return render_template("service_edit.html", service=service, types=service_types(zel, service.type))


def writer(zel, *types: Optional[str]):
    """The session that writes services of these types: a security domain
    session writes the built-in types only, the Zel database's own types go
    through the person's first-generation session."""
    if all(not t or t.casefold() in (b.casefold() for b in BUILTIN_SERVICE_TYPES) for t in types):
        return zel
    if g.console.zel1 is None:
        raise Refused("Services of this type are written in the first-generation form, which this "
                      "console could not open for you; nothing was changed.")
    return g.console.zel1


def replace_service(zel, old: zelmgmt.TargetService, new: zelmgmt.TargetService) -> None:
    # The library has no update of a service: it is written anew.  Records and
    # group memberships name the service and are left alone by the removal.
    zel = writer(zel, old.type, new.type)
    zel.remove_target_service(old.name)
    try:
        zel.add_target_service(new)
    except zelmgmt.Error:
        try:
            zel.add_target_service(old)  # put back what was there; the first failure is the one to tell
        except zelmgmt.Error:
            log.error("service %r was removed for a change and could not be written again", old.name)
            notice("error", f"The service {shorten(old.name)} could not be written again: add it back with "
                            f"type {old.type or '(none)'} and description {shorten(old.description or '(none)')}.")
        raise


@pages.route("/services/edit", methods=["POST"])
@signed_in(ADMIN)
def service_edit_post(zel):
    name = request.form.get("name", "")
    try:
        old = zel.get_target_service(name)
    except zelmgmt.Error as e:
        fail(e)
        return redirect(url_for(".services"))
    try:
        # A field the form did not send keeps what is stored.
        kind = field("type") if "type" in request.form else old.type
        description = field("description") if "description" in request.form else old.description
    except Refused as e:
        notice("error", str(e))
        return redirect(url_for(".service_edit", name=name))
    new = zelmgmt.TargetService(name, kind or old.type, description or None, old.identifiers)
    if attempt(lambda: replace_service(zel, old, new), f"Service {shorten(name)} changed.",
               "The service was not changed."):
        return redirect(url_for(".services", q=name))
    return redirect(url_for(".service_edit", name=name))


@pages.route("/services/remove", methods=["GET", "POST"])
@signed_in(ADMIN)
def service_remove(zel):
    name = request.values.get("name", "")
    return removal("service", name, lambda: zel.get_target_service(name),
                   lambda _: ["Records kept for it stay, and so do its resource groups' memberships; "
                              "they answer nothing until a service of that name is added again."],
                   lambda: zel.remove_target_service(name), url_for(".services"))


# ---- Resource groups and their members --------------------------------------

@pages.route("/groups")
@signed_in(ADMIN, AGENT)
def groups(zel):
    items = read(zel.get_all_domains, [])
    listing = Listing(items, {"name": lambda d: d.name, "description": lambda d: d.description,
                              "members": lambda d: ", ".join(d.members)}, "name")
    return render_template("groups.html", listing=listing)


@pages.route("/groups/add", methods=["POST"])
@signed_in(ADMIN)
def group_add(zel):
    def add():
        name = checked_name(request.form.get("name"), "group name")
        zel.add_domain(zelmgmt.Domain(name, field("description") or None))
        notice("ok", f"Resource group {shorten(name)} added.")
    attempt(add, "", "The resource group was not added.")
    return redirect(url_for(".groups"))


@pages.route("/groups/remove", methods=["GET", "POST"])
@signed_in(ADMIN)
def group_remove(zel):
    name = request.values.get("name", "")

    def goes(group):
        members = [f"Its {len(group.members)} member{'s leave' if len(group.members) != 1 else ' leaves'} it: "
                   + ", ".join(group.members) + ". The services themselves stay."] if group.members else []
        return members + ["Group records (G:) kept for it stay, and answer nothing until it is added again."]
    return removal("resource group", name, lambda: zel.get_domain(name), goes, lambda: zel.remove_domain(name),
                   url_for(".groups"))


@pages.route("/groups/view")
@signed_in(ADMIN, AGENT)
def group(zel):
    group = read(lambda: zel.get_domain(request.args.get("name", "")), None)
    if group is None:
        return redirect(url_for(".groups"))
    services = []
    if g.console.role == ADMIN:
        services = sorted((s.name for s in read(zel.get_all_target_services, []) if s.name not in group.members),
                          key=str.casefold)
    return render_template("group.html", group=group, services=services)


@pages.route("/groups/edit", methods=["POST"])
@signed_in(ADMIN)
def group_edit(zel):
    name = request.form.get("name", "")

    def update():
        group = zel.get_domain(name)  # the members as stored go back unchanged
        group.description = field("description") or None
        zel.update_domain(group)
    attempt(update, f"Resource group {shorten(name)} changed.", "The resource group was not changed.")
    return redirect(url_for(".group", name=name))


@pages.route("/groups/members", methods=["POST"])
@signed_in(ADMIN)
def group_members(zel):
    name, member = request.form.get("name", ""), request.form.get("member", "")
    if request.form.get("action") == "remove":
        attempt(lambda: zel.remove_domain_member(name, member), f"{shorten(member)} left {shorten(name)}.",
                f"{shorten(member)} did not leave {shorten(name)}.")
    else:
        attempt(lambda: zel.add_domain_member(name, checked_name(member, "member")),
                f"{shorten(member)} joined {shorten(name)}.", f"{shorten(member)} did not join {shorten(name)}.")
    return redirect(url_for(".group", name=name))


# ---- Zel users --------------------------------------------------------------

@pages.route("/users")
@signed_in(ADMIN, AGENT)
def users(zel):
    items = read(zel.get_all_users, [])
    listing = Listing(items, {"name": lambda u: u.name, "type": lambda u: u.type,
                              "state": lambda u: "enabled" if u.enabled else "disabled",
                              "person": lambda u: u.person_dn, "description": lambda u: u.description}, "name")
    return render_template("users.html", listing=listing, types=USER_TYPES)


def existing_user(zel, name: str) -> Optional[zelmgmt.User]:
    try:
        return zel.get_user(name)
    except zelmgmt.Error as e:
        if e.status in (19, 6, 1004):
            return None
        raise


@pages.route("/users/add", methods=["POST"])
@signed_in(ADMIN)
def user_add(zel):
    try:
        user = zelmgmt.User(checked_name(request.form.get("name"), "user name"), field("type") or None,
                            field("description") or None, request.form.get("state", "enabled") == "enabled",
                            field("person_dn", "person DN") or None)
    except Refused as e:
        notice("error", str(e))
        return redirect(url_for(".users"))
    try:
        found = existing_user(zel, user.name)
        if found is not None:
            notice("error", f"A user {shorten(user.name)} exists already. Nothing was added; "
                            "change it on its edit page.", link=url_for(".user_edit", name=user.name))
            return redirect(url_for(".users"))
        if user.person_dn:
            holder = zel.verify_user(user.person_dn)
            if holder:
                notice("error", f"That person already has a profile: user {shorten(profile_user(holder))}. "
                                "A person has one profile; nothing was added.",
                       link=url_for(".user_edit", name=profile_user(holder)))
                return redirect(url_for(".users"))
        zel.add_user(user)
    except zelmgmt.Error as e:
        if e.status == 5:
            # The library's detail names the holder of the person's profile, where it knows it.
            notice("error", f"User {shorten(user.name)} was not added: that name, or that person, has a "
                            "profile already.", words.failure(e)[1])
        else:
            fail(e, "The user was not added.")
        return redirect(url_for(".users"))
    # A profile that existed before (a removed one left behind) can come back
    # as it was stored: then what was typed is written over it, or the page
    # says what was not.
    stored = read(lambda: existing_user(zel, user.name), None)
    differs = stored is not None and any(
        asked and (got or "").casefold() != asked.casefold()
        for asked, got in ((user.description, stored.description), (user.person_dn, stored.person_dn),
                           (user.type, stored.type if stored.type is not None else user.type)))
    if stored is not None and (differs or stored.enabled != user.enabled):
        try:
            zel.update_user(zelmgmt.User(user.name, user.type or stored.type, user.description or stored.description,
                                         user.enabled, user.person_dn or stored.person_dn))
            notice("ok", f"User {shorten(user.name)} added: a removed profile of that name was found "
                         "and now holds what was typed.")
        except zelmgmt.Error as e:
            notice("error", f"User {shorten(user.name)} existed already as a removed profile and came back as "
                            "it was stored; what was typed is not written. Change it on its edit page.",
                   words.failure(e)[1], link=url_for(".user_edit", name=user.name))
    else:
        notice("ok", f"User {shorten(user.name)} added.")
    return redirect(url_for(".users", q=user.name))


def profile_user(profile_dn: str) -> str:
    from .app import profile_name
    return profile_name(profile_dn)


@pages.route("/users/edit")
@signed_in(ADMIN)
def user_edit(zel):
    user = read(lambda: zel.get_user(request.args.get("name", "")), None)
    if user is None:
        return redirect(url_for(".users"))
    types = list(USER_TYPES)
    if user.type and user.type.casefold() not in (t.casefold() for t in types):
        types.append(user.type)
    return render_template("user_edit.html", user=user, types=types)


@pages.route("/users/edit", methods=["POST"])
@signed_in(ADMIN)
def user_edit_post(zel):
    name = request.form.get("name", "")

    def update():
        stored = zel.get_user(name)  # an update writes every field: what the form lacks stays as stored
        form = request.form
        zel.update_user(zelmgmt.User(
            name, (field("type") or stored.type) if "type" in form else stored.type,
            (field("description") or None) if "description" in form else stored.description,
            form.get("state") == "enabled" if "state" in form else stored.enabled,
            (field("person_dn", "person DN") or stored.person_dn) if "person_dn" in form else stored.person_dn))
    if attempt(update, f"User {shorten(name)} changed.", "The user was not changed."):
        return redirect(url_for(".users", q=name))
    return redirect(url_for(".user_edit", name=name))


@pages.route("/users/state", methods=["POST"])
@signed_in(ADMIN)
def user_state(zel):
    name, enable = request.form.get("name", ""), request.form.get("enabled") == "1"

    def change():
        user = zel.get_user(name)  # an update writes every field: keep the others as stored
        user.enabled = enable
        zel.update_user(user)
    attempt(change, f"User {shorten(name)} {'enabled' if enable else 'disabled'}.", "The user was not changed.")
    return redirect(url_for(".users", q=name))


@pages.route("/users/remove", methods=["GET", "POST"])
@signed_in(ADMIN)
def user_remove(zel):
    name = request.values.get("name", "")

    def goes(user):
        records = read(lambda: zel.get_all_target_records(name), [])
        listed = [f"Its {len(records)} record{'s go' if len(records) != 1 else ' goes'} with it"
                  + (": " + ", ".join(r.id for r in records[:10]) + (" …" if len(records) > 10 else "")
                     if records else "") + "."]
        return listed + ([f"The person {user.person_dn} stays in the directory."] if user.person_dn else [])
    return removal("user", name, lambda: zel.get_user(name), goes, lambda: zel.remove_user(name), url_for(".users"))


# ---- A user's target records ----------------------------------------------

def record_targets(zel):
    """(services, resource groups) a record may be kept for, as far as the
    signed-in person may read them."""
    services = sorted((s.name for s in read(zel.get_all_target_services, [])), key=str.casefold)
    groups = sorted((d.name for d in read(zel.get_all_domains, [])), key=str.casefold)
    return services, groups


def records_of(zel, user: str):
    records = read(lambda: zel.get_all_target_records(user), [])
    for r in records:
        r.password = None  # never into a page, whatever the template does
    return records


def records_page(zel, user: str, mine: bool, revealed=None):
    records = records_of(zel, user)
    listing = Listing(records, {"id": lambda r: r.id, "service": lambda r: r.service,
                                "account": lambda r: r.account, "description": lambda r: r.description}, "id",
                      keep={} if mine else {"user": user})
    services, groups = record_targets(zel) if (mine or g.console.role == ADMIN) else ([], [])
    return render_template("records.html", user=user, mine=mine, listing=listing, services=services,
                           groups=groups, revealed=revealed)


def whose(user_field: Optional[str]) -> tuple:
    """(user, mine): a user signed in as one acts on their own records only."""
    if g.console.role == USER:
        return g.console.own, True
    return user_field or "", False


def records_url(user: str, mine: bool) -> str:
    return url_for(".mine") if mine else url_for(".records", user=user)


def back_to(user: str, mine: bool):
    return redirect(records_url(user, mine))


@pages.route("/records")
@signed_in(ADMIN, AGENT)
def records(zel):
    return records_page(zel, request.args.get("user", ""), mine=False)


@pages.route("/mine")
@signed_in(USER)
def mine(zel):
    if not g.console.own:
        return render_template("message.html", title="My sign-ons",
                               text="You have no sign-on profile yet. Ask the helpdesk to add one.")
    return records_page(zel, g.console.own, mine=True)


@pages.route("/records/add", methods=["POST"])
@signed_in(ADMIN, USER)
def record_add(zel):
    user, mine = whose(request.form.get("user"))

    def add():
        target = request.form.get("target", "")
        kind, _, name = target.partition(":")
        name = checked_name(name if kind in ("T", "G") else request.form.get("target_name"), "service or group")
        kind = kind if kind in ("T", "G") else "T"
        services, groups = record_targets(zel)
        # A G: record is kept for a resource group, a T: record for a service.
        if kind == "G" and groups and name not in groups:
            raise Refused(f"There is no resource group {shorten(name)}.")
        if kind == "T" and services and name not in services:
            raise Refused(f"There is no service {shorten(name)}.")
        record = zelmgmt.TargetRecord(f"{kind}:{name}", name, account=field("account"),
                                      password=request.form.get("password") or None,
                                      description=field("description") or None)
        if "\x00" in (record.password or ""):
            raise Refused("The password holds a NUL character; nothing was changed.")
        zel.add_target_record(user, record)
        notice("ok", f"Record {shorten(record.id)} added.")
    try:
        add()
    except Refused as e:
        notice("error", str(e))
    except zelmgmt.Error as e:
        if e.status == 14 and mine:
            # The access rules may hide the catalogue from a user.
            notice("error", "The record was not added: there is no such service, or your account may not "
                            "read it.", f"status {e.status}")
        else:
            fail(e, "The record was not added.")
    return back_to(user, mine)


@pages.route("/records/edit")
@signed_in(ADMIN, USER)
def record_edit(zel):
    user, mine = whose(request.args.get("user"))
    record = read(lambda: zel.get_target_record(user, request.args.get("id", "")), None)
    if record is None:
        return back_to(user, mine)
    record.password = None
    return render_template("record_edit.html", user=user, mine=mine, record=record)


@pages.route("/records/edit", methods=["POST"])
@signed_in(ADMIN, USER)
def record_update(zel):
    user, mine = whose(request.form.get("user"))
    record_id = request.form.get("id", "")

    def update():
        stored = zel.get_target_record(user, record_id)
        form = request.form
        # A field left out of the form keeps what is stored; one sent empty is cleared.
        account = field("account") if "account" in form else None
        description = field("description") if "description" in form else None
        password = form.get("password") or None
        if "\x00" in (password or ""):
            raise Refused("The password holds a NUL character; nothing was changed.")
        zel.update_target_record(user, zelmgmt.TargetRecord(
            record_id, stored.service, stored.service_type, account=account, password=password,
            description=description))
        after = zel.get_target_record(user, record_id)
        kept = [label for label, asked, now in (("account", account, after.account),
                                                ("description", description, after.description))
                if asked == "" and now]
        if kept:
            notice("error", f"Record {shorten(record_id)} updated, but this directory keeps no empty "
                            f"{' or '.join(kept)}: the old value stays.")
        else:
            notice("ok", f"Record {shorten(record_id)} updated.")
    if attempt(update, "", "The record was not updated."):
        return back_to(user, mine)
    return redirect(url_for(".record_edit", id=record_id, **({} if mine else {"user": user})))


@pages.route("/records/remove", methods=["GET", "POST"])
@signed_in(ADMIN, USER)
def record_remove(zel):
    user, mine = whose(request.values.get("user"))
    record_id = request.values.get("id", "")
    return removal("record", record_id, lambda: zel.get_target_record(user, record_id),
                   lambda record: [f"Its account {record.account or '(none)'} and password go with it."],
                   lambda: zel.remove_target_record(user, record_id), records_url(user, mine),
                   fields={"id": record_id} if mine else {"id": record_id, "user": user}, of=f" of {user}")


@pages.route("/records/reveal", methods=["POST"])
@signed_in(ADMIN)
def record_reveal(zel):
    """The one page that shows a stored password: answered to this POST only,
    never cached, never reachable by a link or a reload of a GET."""
    user, record_id = request.form.get("user", ""), request.form.get("id", "")
    record = read(lambda: zel.get_target_record(user, record_id), None)
    log.info("password of record %r of user %r revealed to %r from %s", record_id, user, g.console.who,
             request.remote_addr)
    return records_page(zel, user, mine=False, revealed=(record_id, record.password) if record else None)


# ---- The credential tester ----------------------------------------------------

@pages.route("/credential", methods=["GET", "POST"])
@signed_in(ADMIN, AGENT)
def credential(zel):
    user, resource = request.form.get("user", ""), request.form.get("resource", "")
    account = explanation = None
    if request.method == "POST":
        cred = read(lambda: zel.get_credential(user, resource), None)
        account = cred.account if cred else None
        # How the answer was reached, where the library can say so.
        explanation = read(lambda: zel.explain_credential(user, resource), None)
    return render_template("credential.html", user=user, resource=resource, account=account,
                           explanation=explanation, asked=request.method == "POST")
