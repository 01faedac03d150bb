"""A user name to the DN of its person, for signing in by name.

The library binds with a DN; a name is looked up the way the directory's own
clients do it: an anonymous search for (&(objectClass=Person)(uid=NAME)) in
each naming context the root DSE lists.  Exactly one match counts; none or
several give None, and the caller says no more than "sign-in failed".
"""
from __future__ import annotations

import ctypes
import ctypes.util
from typing import List, Optional

_OPT_PROTOCOL_VERSION = 0x0011
_OPT_NETWORK_TIMEOUT = 0x5005
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
                ("ldap_unbind_ext_s", ctypes.c_int, [v, v, v])):
            f = getattr(lib, fn)
            f.restype, f.argtypes = res, args
        _ldap = lib
    return _ldap


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


def person_dn(uri: str, name: str, ca_file: Optional[str] = None, timeout: int = 10) -> Optional[str]:
    lib = _lib()
    ld = ctypes.c_void_p()
    if lib.ldap_initialize(ctypes.byref(ld), uri.encode()) != 0 or not ld:
        return None
    try:
        version = ctypes.c_int(3)
        lib.ldap_set_option(ld, _OPT_PROTOCOL_VERSION, ctypes.byref(version))
        tv = _TimeVal(timeout, 0)
        lib.ldap_set_option(ld, _OPT_NETWORK_TIMEOUT, ctypes.byref(tv))
        if ca_file:
            # On this connection only: the process's TLS defaults stay as they are.
            lib.ldap_set_option(ld, _OPT_X_TLS_CACERTFILE, ctypes.c_char_p(ca_file.encode()))
            new_ctx = ctypes.c_int(0)
            lib.ldap_set_option(ld, _OPT_X_TLS_NEWCTX, ctypes.byref(new_ctx))
        _, contexts = _search(ld, "", _SCOPE_BASE, "(objectClass=*)", "namingContexts", 0, timeout)
        found: List[str] = []
        person = f"(&(objectClass=Person)(uid={escape_filter_value(name)}))"
        for base in contexts:
            found += _search(ld, base, _SCOPE_SUBTREE, person, "1.1", 2, timeout)[0]
        return found[0] if len(found) == 1 and found[0] else None
    finally:
        lib.ldap_unbind_ext_s(ld, None, None)
