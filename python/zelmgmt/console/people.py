"""A user name to the DN of its person, for signing in by name.

The library binds with a DN; a name is placed the way the directory's own
clients (PAM and NSS modules) place it, in one of three ways:
- a DN template: "uid={name},ou=People,o=example" (the name DN-escaped);
- a look-up identity: a bind as a DN whose password is read from a file,
  then a search for (&(objectClass=Person)(uid=NAME)) below the base (or
  each naming context the root DSE lists);
- neither: the same search, anonymous (which access rules usually forbid).
Exactly one match counts; none or several give None, and the caller says no
more than "sign-in failed".
"""
from __future__ import annotations

import ctypes
import ctypes.util
from dataclasses import dataclass
from typing import List, Optional

_OPT_PROTOCOL_VERSION = 0x0011
_OPT_NETWORK_TIMEOUT = 0x5005
_OPT_TIMEOUT = 0x5002
_OPT_TIMELIMIT = 0x0004
_OPT_X_TLS_CACERTFILE = 0x6002
_OPT_X_TLS_NEWCTX = 0x600F
_SCOPE_BASE, _SCOPE_SUBTREE = 0, 2
_SIZELIMIT_EXCEEDED = 4


class _BerVal(ctypes.Structure):
    _fields_ = [("bv_len", ctypes.c_ulong), ("bv_val", ctypes.c_void_p)]


class _TimeVal(ctypes.Structure):
    _fields_ = [("tv_sec", ctypes.c_long), ("tv_usec", ctypes.c_long)]


_ldap = None


def _lib():
    global _ldap
    if _ldap is None:
        name = ctypes.util.find_library("ldap")
        if not name:
            raise OSError("libldap not found")
        lib = ctypes.CDLL(name)
        v, P = ctypes.c_void_p, ctypes.POINTER
        for fn, res, args in (
                ("ldap_initialize", ctypes.c_int, [P(v), ctypes.c_char_p]),
                ("ldap_set_option", ctypes.c_int, [v, ctypes.c_int, v]),
                ("ldap_search_ext_s", ctypes.c_int, [v, ctypes.c_char_p, ctypes.c_int, ctypes.c_char_p,
                                                     P(ctypes.c_char_p), ctypes.c_int, v, v, P(_TimeVal),
                                                     ctypes.c_int, P(v)]),
                ("ldap_first_entry", v, [v, v]),
                ("ldap_next_entry", v, [v, v]),
                ("ldap_get_dn", v, [v, v]),
                ("ldap_get_values_len", P(P(_BerVal)), [v, v, ctypes.c_char_p]),
                ("ldap_value_free_len", None, [P(P(_BerVal))]),
                ("ldap_memfree", None, [v]),
                ("ldap_msgfree", ctypes.c_int, [v]),
                ("ldap_sasl_bind_s", ctypes.c_int, [v, ctypes.c_char_p, ctypes.c_char_p, P(_BerVal), v, v, v]),
                ("ldap_unbind_ext_s", ctypes.c_int, [v, v, v])):
            f = getattr(lib, fn)
            f.restype, f.argtypes = res, args
        _ldap = lib
    return _ldap


class LookupFailed(Exception):
    """The look-up identity could not bind: the console is set up wrongly."""

    def __init__(self, rc: int):
        super().__init__(f"the look-up identity could not bind (LDAP result {rc})")
        self.rc = rc


def escape_filter_value(text: str) -> str:
    """RFC 4515: a name is an assertion value, never a piece of the filter."""
    return "".join(f"\\{b:02x}" if b in b"*()\\\x00" else chr(b) if b < 0x80 else f"\\{b:02x}"
                   for b in text.encode("utf-8"))


def _search(ld, base: str, scope: int, flt: str, attr: str, limit: int, timeout: int):
    """(dns, values of attr) of the entries found, or ([], []) when the search failed."""
    lib = _lib()
    attrs = (ctypes.c_char_p * 2)(attr.encode(), None)
    res = ctypes.c_void_p()
    tv = _TimeVal(timeout, 0)
    rc = lib.ldap_search_ext_s(ld, base.encode(), scope, flt.encode(), attrs, 0, None, None,
                               ctypes.byref(tv), limit, ctypes.byref(res))
    dns: List[str] = []
    values: List[str] = []
    try:
        if rc not in (0, _SIZELIMIT_EXCEEDED):
            return [], []
        entry = lib.ldap_first_entry(ld, res)
        while entry:
            dn = lib.ldap_get_dn(ld, entry)
            if dn:
                dns.append(ctypes.string_at(dn).decode("utf-8", "replace"))
                lib.ldap_memfree(dn)
            vals = lib.ldap_get_values_len(ld, entry, attr.encode())
            if vals:
                i = 0
                while vals[i]:
                    values.append(ctypes.string_at(vals[i].contents.bv_val, vals[i].contents.bv_len)
                                  .decode("utf-8", "replace"))
                    i += 1
                lib.ldap_value_free_len(vals)
            entry = lib.ldap_next_entry(ld, entry)
        if rc == _SIZELIMIT_EXCEEDED:
            dns.append("")  # more than the limit: never one match
        return dns, values
    finally:
        if res:
            lib.ldap_msgfree(res)


@dataclass
class Lookup:
    """How a user name is placed: a DN template, or a look-up identity
    (bind_dn with the password in password_file) searching below base."""
    template: Optional[str] = None
    bind_dn: Optional[str] = None
    password_file: Optional[str] = None
    base: Optional[str] = None


def escape_dn_value(text: str) -> str:
    """RFC 4514: a name is one attribute value, never more of the DN."""
    out = []
    for i, c in enumerate(text):
        if c in ',+"\\<>;=' or (c == "#" and i == 0) or (c == " " and i in (0, len(text) - 1)):
            out.append("\\" + c)
        elif ord(c) < 0x20:
            out.append(f"\\{ord(c):02x}")
        else:
            out.append(c)
    return "".join(out)


def _connect(uri: str, ca_file: Optional[str], timeout: int):
    lib = _lib()
    ld = ctypes.c_void_p()
    # A replicated list as the library takes it: the client tries each in turn.
    if lib.ldap_initialize(ctypes.byref(ld), uri.encode()) != 0 or not ld:
        return None
    version = ctypes.c_int(3)
    lib.ldap_set_option(ld, _OPT_PROTOCOL_VERSION, ctypes.byref(version))
    tv = _TimeVal(timeout, 0)
    lib.ldap_set_option(ld, _OPT_NETWORK_TIMEOUT, ctypes.byref(tv))
    lib.ldap_set_option(ld, _OPT_TIMEOUT, ctypes.byref(tv))   # the bind's wait too
    if ca_file:
        # On this connection only: the process's TLS defaults stay as they are.
        lib.ldap_set_option(ld, _OPT_X_TLS_CACERTFILE, ctypes.c_char_p(ca_file.encode()))
        new_ctx = ctypes.c_int(0)
        lib.ldap_set_option(ld, _OPT_X_TLS_NEWCTX, ctypes.byref(new_ctx))
    return ld


def _bind(ld, dn: str, secret: bytes) -> int:
    buf = ctypes.create_string_buffer(secret, len(secret))
    cred = _BerVal(len(secret), ctypes.cast(buf, ctypes.c_void_p))
    try:
        return _lib().ldap_sasl_bind_s(ld, dn.encode(), None, ctypes.byref(cred), None, None, None)
    finally:
        ctypes.memset(buf, 0, len(secret))


def member_of(uri: str, dn: str, password: str, groups: List[str], ca_file: Optional[str] = None,
              timeout: int = 10) -> List[str]:
    """The groups of `groups` that list dn as a member, as far as dn may read them."""
    lib = _lib()
    ld = _connect(uri, ca_file, timeout)
    if ld is None:
        return []
    try:
        if _bind(ld, dn, password.encode("utf-8")) != 0:
            return []
        flt = f"(member={escape_filter_value(dn)})"
        return [g for g in groups if _search(ld, g, _SCOPE_BASE, flt, "1.1", 1, timeout)[0]]
    finally:
        lib.ldap_unbind_ext_s(ld, None, None)


def person_dn(uri: str, name: str, ca_file: Optional[str] = None, lookup: Optional[Lookup] = None,
              timeout: int = 10) -> Optional[str]:
    lookup = lookup or Lookup()
    if "\x00" in name:
        return None
    if lookup.template:
        return lookup.template.replace("{name}", escape_dn_value(name))
    lib = _lib()
    ld = _connect(uri, ca_file, timeout)
    if ld is None:
        return None
    try:
        if lookup.bind_dn:
            with open(lookup.password_file or "/dev/null", "rb") as f:
                rc = _bind(ld, lookup.bind_dn, f.read().rstrip(b"\r\n"))
            if rc != 0:
                raise LookupFailed(rc)
        if lookup.base:
            contexts = [lookup.base]
        else:
            _, contexts = _search(ld, "", _SCOPE_BASE, "(objectClass=*)", "namingContexts", 0, timeout)
        found: List[str] = []
        person = f"(&(objectClass=Person)(uid={escape_filter_value(name)}))"
        for base in contexts:
            found += _search(ld, base, _SCOPE_SUBTREE, person, "1.1", 2, timeout)[0]
        return found[0] if len(found) == 1 and found[0] else None
    finally:
        lib.ldap_unbind_ext_s(ld, None, None)
