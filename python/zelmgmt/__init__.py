"""Python access to libzelmgmt: single-sign-on data in an LDAP directory.

    import zelmgmt
    with zelmgmt.Session("ldap://127.0.0.1:389", "cn=admin,o=example",
                         password_file="/etc/zel/admin.pw") as s:
        cred = s.get_credential("ann", "payroll")
        print(cred.account)

Every method returns Python objects; the C records the library hands out are
released before the method returns.  A failing call raises zelmgmt.Error with
the library's status and text.  Passwords never appear in a repr.
"""
from __future__ import annotations

import ctypes
import ctypes.util
import os
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, List, Optional, Tuple

from . import _c

__all__ = [
    "Error", "Session", "SessionInfo", "TargetService", "ServiceType", "User", "TargetRecord",
    "Credential", "Explanation", "ExplainStep", "Domain", "Person", "strerror", "set_timeouts",
    "last_error_detail",
    "OPEN_NONSSL", "OPEN_SSL", "OPEN_GSSAPI",
    "CREATEDB_SUFFIX", "CREATEDB_XR_DEFAULTS", "CREATEDB_EXTENDED",
]

OPEN_NONSSL, OPEN_SSL, OPEN_GSSAPI, OPEN_STARTTLS = 1, 2, 4, 8
__all__ += ["OPEN_STARTTLS", "TIMEOUT", "set_hold_down"]
# The directory did not answer in time: a change sent may or may not have been
# applied.  Read it back once the directory answers, and write again if needed.
TIMEOUT = 1015
CREATEDB_SUFFIX, CREATEDB_XR_DEFAULTS, CREATEDB_EXTENDED = 1, 2, 4

_lib = _c.load()


class Error(Exception):
    """A library status other than success.

    detail: what the status cannot say (the directory's own message and
    matched DN, or the entry that stood in the way), "" when nothing; read
    from the library as the error is made, right after the failed call.
    """

    def __init__(self, status: int, what: str = "", detail: Optional[str] = None):
        self.status = status
        self.text = strerror(status)
        self.what = what
        self.detail = last_error_detail() if detail is None else detail
        message = f"{what}: {self.text} (status {status})" if what else f"{self.text} (status {status})"
        super().__init__(f"{message}: {self.detail}" if self.detail else message)


def strerror(status: int) -> str:
    return _lib.Zel_strerror(status).decode("utf-8", "replace")


def last_error_detail() -> str:
    """What the last failed call on this thread left to add to its status, "" when none."""
    return (_lib.Zel_last_error_detail() or b"").decode("utf-8", "replace")


def _check(status: int, what: str) -> None:
    if status != 0:
        # Read on the failing call's own thread, before anything else can replace it.
        raise Error(status, what, last_error_detail())


def _b(text: Optional[str]) -> Optional[bytes]:
    return None if text is None else text.encode("utf-8")


def _s(raw: Optional[bytes]) -> Optional[str]:
    return None if raw is None else raw.decode("utf-8", "replace")


def generate_key_file(path: str, add: bool = False) -> str:
    """Writes a new key file (mode 0600), or with add a new active key into the
    one at path; the new key's id.  Key bytes never leave the library."""
    out = ctypes.c_void_p()
    _check(_lib.Zel_generateKeyFile(_b(path), 1 if add else 0, ctypes.byref(out)), f"cannot write the key file {path}")
    try:
        return _s(ctypes.cast(out, ctypes.c_char_p).value)
    finally:
        _lib.Zel_memfree(out)


@dataclass
class AuditCheck:
    intact: bool
    lines: int
    fault_line: int
    fault: Optional[str]
    torn_line: int
    head: str


def verify_audit_trail(path: str, expect_head: Optional[str] = None) -> AuditCheck:
    """Checks a ZEL_AUDIT trail's chain (under ZEL_AUDIT_KEY when set) and, with
    expect_head, that it still holds that head."""
    out = ctypes.POINTER(_c.AuditCheck)()
    _check(_lib.Zel_verifyAuditTrail(_b(path), _b(expect_head), ctypes.byref(out)), f"cannot check {path}")
    try:
        c = out.contents
        return AuditCheck(bool(c.intact), c.lines, c.faultLine, _s(c.fault), c.tornLine, _s(c.head))
    finally:
        _lib.Zel_freeAuditCheck(out)


@dataclass
class TargetService:
    name: str
    type: Optional[str] = None
    description: Optional[str] = None
    identifiers: List[Tuple[str, str]] = field(default_factory=list)


@dataclass
class SessionInfo:
    """What the session learnt at open (dir_kind is a ZEL_DIR_* number)."""
    dir_kind: int
    host_kind: int
    suffixes: List[str]
    security_domain: Optional[str]
    security_domain_dn: Optional[str]
    security_domain_version: int
    database_dn: Optional[str]
    api_version: int
    server: Optional[str] = None   # the URI of the server the session is on now


@dataclass
class ServiceType:
    name: str
    identifiers: List[str] = field(default_factory=list)


@dataclass
class User:
    name: str
    type: Optional[str] = None
    description: Optional[str] = None
    enabled: bool = True
    person_dn: Optional[str] = None


@dataclass
class TargetRecord:
    id: str
    service: Optional[str] = None
    service_type: Optional[str] = None
    account: Optional[str] = None
    password: Optional[str] = field(default=None, repr=False)
    description: Optional[str] = None


@dataclass
class Credential:
    account: Optional[str]
    password: Optional[str] = field(repr=False)


@dataclass
class ExplainStep:
    kind: str                 # "user", "direct" or "group"
    form: int                 # 1 Zel database, 2 security domain
    dn: Optional[str]         # the user entry or the record; None when none was found
    name: Optional[str]       # direct: "T:<resource>"; group: the group named
    outcome: int              # user: 0, 33 or 19; direct: 1 found; group: form holding the resource, 0 none


@dataclass
class Explanation:
    status: int               # what get_credential answers (0: a credential)
    user: str
    resource: str
    steps: List[ExplainStep]
    answer: Optional[int]     # index of the answering step
    reason: str


@dataclass
class Domain:
    name: str
    description: Optional[str] = None
    # (location type, value); members are ("resourceName", service name).
    locations: List[Tuple[Optional[str], Optional[str]]] = field(default_factory=list)

    @property
    def members(self) -> List[str]:
        return [v for t, v in self.locations if t == "resourceName" and v is not None]


@dataclass
class Person:
    parent_dn: str
    cn: str
    sn: str
    description: Optional[str] = None
    uid: Optional[str] = None
    password: Optional[str] = field(default=None, repr=False)


def _service_from(c: _c.TargetService) -> TargetService:
    ids = []
    for i in range(max(c.reqIdentifierCount, 0)):
        p = c.reqIdentifiers[i] if c.reqIdentifiers else None
        if p:
            ids.append((_s(p.contents.name), _s(p.contents.value)))
    return TargetService(_s(c.name), _s(c.type), _s(c.description), ids)


def _user_from(u: _c.User) -> User:
    return User(_s(u.userName), _s(u.userType), _s(u.description), bool(u.enabled), _s(u.personDN))


def _record_from(c: _c.TargetRecord) -> TargetRecord:
    return TargetRecord(_s(c.targetRecordId), _s(c.targetServiceName), _s(c.targetServiceType),
                        _s(c.userId), _s(c.password), _s(c.description))


def _domain_from(c: _c.Domain) -> Domain:
    locations = []
    for i in range(max(c.locationCount, 0)):
        p = c.locations[i] if c.locations else None
        locations.append((_s(p.contents.type), _s(p.contents.value)) if p else (None, None))
    return Domain(_s(c.name), _s(c.description), locations)


def _parse_uri(uri: str) -> Tuple[str, int, bool]:
    for scheme, ssl in (("ldaps://", True), ("ldap://", False)):
        if uri.startswith(scheme):
            rest = uri[len(scheme):].split("/", 1)[0]
            break
    else:
        raise ValueError(f"not an ldap:// or ldaps:// URI: {uri}")
    if rest.startswith("["):
        host, _, tail = rest[1:].partition("]")
        port = tail[1:] if tail.startswith(":") else ""
    else:
        host, _, port = rest.partition(":")
    if not host:
        raise ValueError(f"no host in {uri}")
    return host, int(port) if port else 0, ssl


def set_timeouts(request: Optional[int] = None, network: Optional[int] = None) -> None:
    """Time-outs, in whole seconds, of the sessions this process opens from now
    on: each request, and connecting to a server.  0 means no limit; None
    leaves the choice to ZEL_TIMEOUT / ZEL_NETWORK_TIMEOUT, else ldap.conf,
    else 30 s per request and 5 s to connect."""
    _check(_lib.Zel_setTimeouts(-1 if network is None else network, -1 if request is None else request),
           "cannot set the time-outs")


def set_hold_down(seconds: Optional[int] = None) -> None:
    """How long, in whole seconds, every session of this process tries a
    server that failed (refused, timed out, dropped a connection) only after
    the others.  0 remembers no failure; None leaves the choice to
    ZEL_HOLD_DOWN, else the request time-out.  Also forgets the failures
    remembered so far."""
    _check(_lib.Zel_setHoldDown(-1 if seconds is None else seconds), "cannot set the hold-down")


class Session:
    """One library session; use it as a context manager or call close().

    uri: "ldap://host[:port]" or "ldaps://host[:port]", or several of them
    separated by blanks (a replicated set: the first that answers is used,
    the next when it fails); or host and port.
    Without either, the directory client's configured default server.
    password or password_file authenticate bind_dn; version 2 (the default)
    opens on the security domain `domain`, 0 or 1 the first-generation form.
    ca_file: CA certificate for SSL; cert_file: PEM client certificate + key.
    """

    def __init__(self, uri: Optional[str] = None, bind_dn: Optional[str] = None, *,
                 password: Optional[str] = None, password_file: Optional[str] = None,
                 host: Optional[str] = None, port: int = 0, ssl: Optional[bool] = None,
                 domain: str = "Default", version: int = 2,
                 ca_file: Optional[str] = None, cert_file: Optional[str] = None,
                 gssapi: bool = False):
        if password_file is not None:
            password = Path(password_file).read_text(encoding="utf-8").rstrip("\r\n")
        if uri is not None and len(uri.split()) > 1:
            for one in uri.split():
                _parse_uri(one)   # each must be a URI; the library reads the list
            host, port = " ".join(uri.split()), 0
        elif uri is not None:
            host, port, uri_ssl = _parse_uri(uri)
            ssl = uri_ssl if ssl is None else ssl
        flags = 0
        if ssl is True:
            flags |= OPEN_SSL
        elif ssl is False:
            flags |= OPEN_NONSSL
        if gssapi:
            flags |= OPEN_GSSAPI
        handle = ctypes.c_void_p()
        args = (None, _b(bind_dn), _b(password), _b(host), port, flags, _b(ca_file), None, _b(cert_file))
        if version >= 2:
            rc = _lib.Zel_open_sec_domain(*args, _b(domain), ctypes.byref(handle), version)
        else:
            rc = _lib.Zel_open(*args, ctypes.byref(handle), version)
        password = None
        _check(rc, "cannot open a session")
        self._handle = handle

    def close(self) -> None:
        if getattr(self, "_handle", None):
            _lib.Zel_close(self._handle, 1)
            self._handle = None

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<zelmgmt.Session {'open' if getattr(self, '_handle', None) else 'closed'}>"

    @property
    def _h(self):
        if not getattr(self, "_handle", None):
            raise Error(1010, "the session is closed", detail="")
        return self._handle

    def info(self) -> SessionInfo:
        out = ctypes.POINTER(_c.SessionInfo)()
        _check(_lib.Zel_getSessionInfo(self._h, ctypes.byref(out)), "cannot read the session")
        try:
            i = out.contents
            return SessionInfo(i.dirKind, i.hostKind, [_s(i.suffixes[k]) for k in range(i.suffixCount)],
                               _s(i.securityDomain), _s(i.securityDomainDN), i.securityDomainVersion,
                               _s(i.databaseDN), i.apiVersion, _s(i.server))
        finally:
            _lib.Zel_freeSessionInfo(out)

    # Target services.
    def get_target_service(self, name: str) -> TargetService:
        out = ctypes.POINTER(_c.TargetService)()
        _check(_lib.Zel_getTargetService(self._h, _b(name), ctypes.byref(out)), f"cannot read service {name}")
        try:
            return _service_from(out.contents)
        finally:
            _lib.Zel_freeTargetService(out)

    def get_all_target_services(self) -> List[TargetService]:
        out = ctypes.POINTER(_c.TargetServiceList)()
        _check(_lib.Zel_getAllTargetService(self._h, ctypes.byref(out)), "cannot list services")
        try:
            lst = out.contents
            return [_service_from(lst.services[i].contents) for i in range(lst.count) if lst.services[i]]
        finally:
            _lib.Zel_freeTargetServices(out)

    def add_target_service(self, service: TargetService) -> None:
        keep = [(_b(n), _b(v)) for n, v in service.identifiers]
        ids = [_c.ReqIdentifier(n, v) for n, v in keep]
        ptrs = (ctypes.POINTER(_c.ReqIdentifier) * max(len(ids), 1))(*[ctypes.pointer(i) for i in ids])
        c = _c.TargetService(_b(service.name), _b(service.type), _b(service.description), len(ids),
                             ptrs if ids else None)
        _check(_lib.Zel_addTargetService(self._h, ctypes.byref(c)), f"cannot add service {service.name}")

    def remove_target_service(self, name: str) -> None:
        _check(_lib.Zel_removeTargetService(self._h, _b(name)), f"cannot remove service {name}")

    def add_target_service_type(self, service_type: ServiceType) -> None:
        names = (ctypes.c_char_p * max(len(service_type.identifiers), 1))(*[_b(n) for n in service_type.identifiers])
        c = _c.TargetServiceType(_b(service_type.name), len(service_type.identifiers),
                                 names if service_type.identifiers else None)
        _check(_lib.Zel_addTargetServiceType(self._h, ctypes.byref(c)), f"cannot add service type {service_type.name}")

    def remove_target_service_type(self, name: str) -> None:
        _check(_lib.Zel_removeTargetServiceType(self._h, _b(name)), f"cannot remove service type {name}")

    def get_all_target_service_types(self) -> List[ServiceType]:
        """The types kept in the Zel database; a security domain's built-in ones have no entry."""
        out = ctypes.POINTER(_c.TargetServiceTypeList)()
        _check(_lib.Zel_getAllTargetServiceType(self._h, ctypes.byref(out)), "cannot list service types")
        try:
            lst = out.contents
            return [ServiceType(_s(t.typeName), [_s(t.identifierNames[k]) for k in range(t.identifierCount)])
                    for t in (lst.types[i].contents for i in range(lst.count) if lst.types[i])]
        finally:
            _lib.Zel_freeTargetServiceTypes(out)

    # Zel users.
    def _user(self, user: User) -> _c.User:
        return _c.User(_b(user.name), _b(user.type), _b(user.description), 1 if user.enabled else 0,
                       _b(user.person_dn))

    def add_user(self, user: User) -> None:
        _check(_lib.Zel_addZelUser(self._h, ctypes.byref(self._user(user))), f"cannot add user {user.name}")

    def get_user(self, name: str) -> User:
        out = ctypes.POINTER(_c.User)()
        _check(_lib.Zel_getZelUser(self._h, _b(name), ctypes.byref(out)), f"cannot read user {name}")
        try:
            return _user_from(out.contents)
        finally:
            _lib.Zel_freeZelUser(out)

    def get_all_users(self) -> List[User]:
        out = ctypes.POINTER(_c.UserList)()
        _check(_lib.Zel_getAllZelUser(self._h, ctypes.byref(out)), "cannot list users")
        try:
            lst = out.contents
            return [_user_from(lst.users[i].contents) for i in range(lst.count) if lst.users[i]]
        finally:
            _lib.Zel_freeZelUsers(out)

    def update_user(self, user: User) -> None:
        _check(_lib.Zel_updateZelUser(self._h, ctypes.byref(self._user(user))), f"cannot update user {user.name}")

    def verify_user(self, person_dn: str) -> Optional[str]:
        """The person's Zel profile DN, or None when the person is not a Zel user."""
        out = ctypes.c_void_p()
        rc = _lib.Zel_verifyZelUser(self._h, _b(person_dn), ctypes.byref(out))
        try:
            if rc not in (0, 1):
                raise Error(rc, f"cannot verify {person_dn}")
            return _s(ctypes.string_at(out.value)) if rc == 1 and out.value else None
        finally:
            _lib.Zel_memfree(out)

    def remove_user(self, name_or_dn: str) -> None:
        _check(_lib.Zel_removeZelUser(self._h, _b(name_or_dn)), f"cannot remove user {name_or_dn}")

    # Target records and the sign-on question.
    def get_target_record(self, user: str, record_id: str) -> TargetRecord:
        out = ctypes.POINTER(_c.TargetRecord)()
        _check(_lib.Zel_getTargetRecord(self._h, _b(user), _b(record_id), ctypes.byref(out)),
               f"cannot read record {record_id} of {user}")
        try:
            return _record_from(out.contents)
        finally:
            _lib.Zel_freeTargetRecord(out)

    def get_all_target_records(self, user: str) -> List[TargetRecord]:
        out = ctypes.POINTER(_c.TargetRecordList)()
        _check(_lib.Zel_getAllTargetRecord(self._h, _b(user), ctypes.byref(out)), f"cannot list records of {user}")
        try:
            lst = out.contents
            return [_record_from(lst.records[i].contents) for i in range(lst.count) if lst.records[i]]
        finally:
            _lib.Zel_freeTargetRecords(out)

    def _record(self, record: TargetRecord) -> _c.TargetRecord:
        return _c.TargetRecord(_b(record.id), _b(record.description), _b(record.account), _b(record.password),
                               _b(record.service), _b(record.service_type))

    def add_target_record(self, user: str, record: TargetRecord) -> None:
        _check(_lib.Zel_addTargetRecord(self._h, _b(user), ctypes.byref(self._record(record))),
               f"cannot add record {record.id} for {user}")

    def update_target_record(self, user: str, record: TargetRecord) -> None:
        _check(_lib.Zel_updateTargetRecord(self._h, _b(user), ctypes.byref(self._record(record))),
               f"cannot update record {record.id} of {user}")

    def remove_target_record(self, user: str, record_id: str) -> None:
        _check(_lib.Zel_removeTargetRecord(self._h, _b(user), _b(record_id)),
               f"cannot remove record {record_id} of {user}")

    def get_credential(self, user: str, resource: str) -> Credential:
        req = _c.CredentialRequest(None, None, _b(resource))
        out = _c.Credential()
        rc = _lib.Zel_getCredential(self._h, _b(user), ctypes.byref(req), ctypes.byref(out))
        try:
            _check(rc, f"no credential of {user} for {resource}")
            return Credential(_s(ctypes.string_at(out.userId)) if out.userId else None,
                              _s(ctypes.string_at(out.password)) if out.password else None)
        finally:
            _lib.Zel_memfree(out.userId)
            _lib.Zel_memfree(out.password)

    def explain_credential(self, user: str, resource: str) -> Explanation:
        """How get_credential answers for user and resource; never a password."""
        req = _c.CredentialRequest(None, None, _b(resource))
        out = ctypes.POINTER(_c.CredentialExplanation)()
        _check(_lib.Zel_explainCredential(self._h, _b(user), ctypes.byref(req), ctypes.byref(out)),
               f"no explanation for {user} and {resource}")
        try:
            e = out.contents
            kinds = {1: "user", 2: "direct", 3: "group"}
            steps = [ExplainStep(kinds.get(s.kind, "?"), s.form, _s(s.dn), _s(s.name), s.outcome)
                     for s in (e.steps[i].contents for i in range(e.stepCount))]
            return Explanation(e.status, _s(e.userName), _s(e.resourceName), steps,
                               e.answerStep if e.answerStep >= 0 else None, _s(e.reason))
        finally:
            _lib.Zel_freeCredentialExplanation(out)

    def set_cache_ttl(self, seconds: int) -> None:
        """Caches user look-ups of this session for seconds (0: off)."""
        _check(_lib.Zel_setSessionCacheTTL(self._h, seconds), "cannot set the cache lifetime")

    def set_progress(self, fn: Optional[Callable[[int, int], None]]) -> None:
        """fn(done, total) as rekey_target_records and remove_database go (total
        -1 until known); None turns it off.  It runs inside those calls and must
        not use this session."""
        hook = _c.ProgressFn(lambda _context, done, total: fn(done, total)) if fn else _c.ProgressFn()
        _check(_lib.Zel_setProgressCallback(self._h, hook, None), "cannot set the progress hook")
        self._progress = hook  # the library keeps only a pointer to it

    def rekey_target_records(self, user: Optional[str] = None) -> Tuple[int, List[str]]:
        """Rewrites stored passwords under ZEL_KEYFILE's active key (every user's
        when user is None): how many were rewritten, and the DNs left unreadable."""
        out = ctypes.POINTER(_c.RekeyReport)()
        status = _lib.Zel_rekeyTargetRecords(self._h, _b(user), ctypes.byref(out))
        # A run that failed part way still hands out its report.
        if status != 0 and out:
            _lib.Zel_freeRekeyReport(out)
        _check(status, "cannot rekey")
        try:
            r = out.contents
            return r.rewritten, [_s(r.unreadable[i]) for i in range(r.unreadableCount)]
        finally:
            _lib.Zel_freeRekeyReport(out)

    # Zel domains.
    def get_domain(self, name: str) -> Domain:
        out = ctypes.POINTER(_c.Domain)()
        _check(_lib.Zel_getZelDomain(self._h, _b(name), ctypes.byref(out)), f"cannot read domain {name}")
        try:
            return _domain_from(out.contents)
        finally:
            _lib.Zel_freeZelDomain(out)

    def get_all_domains(self) -> List[Domain]:
        out = ctypes.POINTER(_c.DomainList)()
        _check(_lib.Zel_getAllZelDomain(self._h, ctypes.byref(out)), "cannot list domains")
        try:
            lst = out.contents
            return [_domain_from(lst.domains[i].contents) for i in range(lst.count) if lst.domains[i]]
        finally:
            _lib.Zel_freeZelDomains(out)

    def _domain_call(self, fn, domain: Domain, what: str) -> None:
        keep = [(_b(t), _b(v)) for t, v in domain.locations]
        locs = [_c.DomainLocation(t, v) for t, v in keep]
        ptrs = (ctypes.POINTER(_c.DomainLocation) * max(len(locs), 1))(*[ctypes.pointer(l) for l in locs])
        c = _c.Domain(_b(domain.name), _b(domain.description), len(locs), ptrs if locs else None)
        _check(fn(self._h, ctypes.byref(c)), f"cannot {what} domain {domain.name}")

    def add_domain(self, domain: Domain) -> None:
        self._domain_call(_lib.Zel_addZelDomain, domain, "add")

    def update_domain(self, domain: Domain) -> None:
        self._domain_call(_lib.Zel_updateZelDomain, domain, "update")

    def remove_domain(self, name: str) -> None:
        _check(_lib.Zel_removeZelDomain(self._h, _b(name)), f"cannot remove domain {name}")

    def add_domain_member(self, domain: str, service: str, location_type: str = "resourceName") -> None:
        _check(_lib.Zel_addLocationToDomain(self._h, _b(domain), _b(location_type), _b(service)),
               f"cannot add {service} to domain {domain}")

    def remove_domain_member(self, domain: str, service: str, location_type: str = "resourceName") -> None:
        _check(_lib.Zel_removeLocationFromDomain(self._h, _b(domain), _b(location_type), _b(service)),
               f"cannot remove {service} from domain {domain}")

    # Database provisioning (first-generation sessions).
    def create_database(self, suffix: str, admin: Optional[str] = None, admin_uid: Optional[str] = None,
                        admin_password: Optional[str] = None, flags: int = 0) -> None:
        _check(_lib.Zel_createDatabase(self._h, _b(suffix), _b(admin), _b(admin_uid), _b(admin_password), flags),
               f"cannot create a Zel database under {suffix}")

    def create_person(self, person: Person, user_type: Optional[str] = None) -> None:
        c = _c.Person(_b(person.parent_dn), _b(person.cn), _b(person.sn), _b(person.description),
                      _b(person.uid), _b(person.password))
        _check(_lib.Zel_create_ePerson(self._h, ctypes.byref(c), _b(user_type)), f"cannot add person {person.cn}")

    def remove_database(self) -> None:
        _check(_lib.Zel_removeDatabase(self._h), "cannot remove the Zel database")
