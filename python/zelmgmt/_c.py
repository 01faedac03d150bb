"""The C records and function prototypes of zelmgmt.h, for ctypes."""
import ctypes
import ctypes.util
import os
from pathlib import Path

c_char_p, c_int32, c_uint32, c_void_p = ctypes.c_char_p, ctypes.c_int32, ctypes.c_uint32, ctypes.c_void_p
P = ctypes.POINTER


class ReqIdentifier(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p)]


class TargetService(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("type", c_char_p), ("description", c_char_p),
                ("reqIdentifierCount", c_int32), ("reqIdentifiers", P(P(ReqIdentifier)))]


class TargetServiceList(ctypes.Structure):
    _fields_ = [("count", c_int32), ("services", P(P(TargetService)))]


class TargetServiceType(ctypes.Structure):
    _fields_ = [("typeName", c_char_p), ("identifierCount", c_int32), ("identifierNames", P(c_char_p))]


class TargetServiceTypeList(ctypes.Structure):
    _fields_ = [("count", c_int32), ("types", P(P(TargetServiceType)))]


class User(ctypes.Structure):
    _fields_ = [("userName", c_char_p), ("userType", c_char_p), ("description", c_char_p),
                ("enabled", ctypes.c_ubyte), ("personDN", c_char_p)]


class UserList(ctypes.Structure):
    _fields_ = [("count", c_int32), ("users", P(P(User)))]


class TargetRecord(ctypes.Structure):
    _fields_ = [("targetRecordId", c_char_p), ("description", c_char_p), ("userId", c_char_p),
                ("password", c_char_p), ("targetServiceName", c_char_p), ("targetServiceType", c_char_p)]


class TargetRecordList(ctypes.Structure):
    _fields_ = [("count", c_int32), ("records", P(P(TargetRecord)))]


class Credential(ctypes.Structure):
    # Raw pointers: each field is released with Zel_memfree.
    _fields_ = [("userId", c_void_p), ("password", c_void_p)]


class CredentialRequest(ctypes.Structure):
    _fields_ = [("reserved1", c_char_p), ("reserved2", c_char_p), ("resourceName", c_char_p)]


class ExplainStep(ctypes.Structure):
    _fields_ = [("kind", c_int32), ("form", c_int32), ("dn", c_char_p), ("name", c_char_p), ("outcome", c_int32)]


class CredentialExplanation(ctypes.Structure):
    _fields_ = [("status", c_uint32), ("userName", c_char_p), ("resourceName", c_char_p), ("stepCount", c_int32),
                ("steps", P(P(ExplainStep))), ("answerStep", c_int32), ("reason", c_char_p)]


class DomainLocation(ctypes.Structure):
    _fields_ = [("type", c_char_p), ("value", c_char_p)]


class Domain(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("description", c_char_p), ("locationCount", c_int32),
                ("locations", P(P(DomainLocation)))]


class DomainList(ctypes.Structure):
    _fields_ = [("count", c_int32), ("domains", P(P(Domain)))]


class Person(ctypes.Structure):
    _fields_ = [("parentDN", c_char_p), ("cn", c_char_p), ("sn", c_char_p), ("description", c_char_p),
                ("uid", c_char_p), ("password", c_char_p)]


class SessionInfo(ctypes.Structure):
    _fields_ = [("dirKind", c_int32), ("hostKind", c_int32), ("suffixCount", c_int32), ("suffixes", P(c_char_p)),
                ("securityDomain", c_char_p), ("securityDomainDN", c_char_p), ("securityDomainVersion", c_int32),
                ("databaseDN", c_char_p), ("apiVersion", c_uint32), ("server", c_char_p)]


class RekeyReport(ctypes.Structure):
    _fields_ = [("rewritten", c_int32), ("unreadableCount", c_int32), ("unreadable", P(c_char_p)),
                ("failedCount", c_int32), ("failed", P(c_char_p))]


class AuditCheck(ctypes.Structure):
    _fields_ = [("intact", c_int32), ("lines", ctypes.c_uint64), ("faultLine", ctypes.c_uint64),
                ("fault", c_char_p), ("tornLine", ctypes.c_uint64), ("head", c_char_p)]


_OPEN = [c_void_p, c_char_p, c_char_p, c_char_p, ctypes.c_uint16, c_int32, c_char_p, c_char_p, c_char_p]
_S = c_void_p  # ZelSession *
ProgressFn = ctypes.CFUNCTYPE(None, c_void_p, ctypes.c_int64, ctypes.c_int64)

_PROTOTYPES = {
    "Zel_open": (c_uint32, _OPEN + [P(c_void_p), c_uint32]),
    "Zel_open_sec_domain": (c_uint32, _OPEN + [c_char_p, P(c_void_p), c_uint32]),
    "Zel_close": (c_uint32, [_S, ctypes.c_ubyte]),
    "Zel_strerror": (c_char_p, [c_uint32]),
    "Zel_last_error_detail": (c_char_p, []),
    "Zel_memfree": (None, [c_void_p]),
    "Zel_getTargetService": (c_uint32, [_S, c_char_p, P(P(TargetService))]),
    "Zel_getAllTargetService": (c_uint32, [_S, P(P(TargetServiceList))]),
    "Zel_freeTargetService": (None, [P(TargetService)]),
    "Zel_freeTargetServices": (None, [P(TargetServiceList)]),
    "Zel_addTargetService": (c_uint32, [_S, P(TargetService)]),
    "Zel_addTargetServiceType": (c_uint32, [_S, P(TargetServiceType)]),
    "Zel_removeTargetService": (c_uint32, [_S, c_char_p]),
    "Zel_removeTargetServiceType": (c_uint32, [_S, c_char_p]),
    "Zel_getAllTargetServiceType": (c_uint32, [_S, P(P(TargetServiceTypeList))]),
    "Zel_freeTargetServiceTypes": (None, [P(TargetServiceTypeList)]),
    "Zel_addZelUser": (c_uint32, [_S, P(User)]),
    "Zel_updateZelUser": (c_uint32, [_S, P(User)]),
    "Zel_verifyZelUser": (c_uint32, [_S, c_char_p, P(c_void_p)]),
    "Zel_removeZelUser": (c_uint32, [_S, c_char_p]),
    "Zel_getZelUser": (c_uint32, [_S, c_char_p, P(P(User))]),
    "Zel_freeZelUser": (None, [P(User)]),
    "Zel_getAllZelUser": (c_uint32, [_S, P(P(UserList))]),
    "Zel_freeZelUsers": (None, [P(UserList)]),
    "Zel_rekeyTargetRecords": (c_uint32, [_S, c_char_p, P(P(RekeyReport))]),
    "Zel_freeRekeyReport": (None, [P(RekeyReport)]),
    "Zel_getSessionInfo": (c_uint32, [_S, P(P(SessionInfo))]),
    "Zel_setTimeouts": (c_uint32, [c_int32, c_int32]),
    "Zel_setHoldDown": (c_uint32, [c_int32]),
    "Zel_freeSessionInfo": (None, [P(SessionInfo)]),
    "Zel_getTargetRecord": (c_uint32, [_S, c_char_p, c_char_p, P(P(TargetRecord))]),
    "Zel_getAllTargetRecord": (c_uint32, [_S, c_char_p, P(P(TargetRecordList))]),
    "Zel_freeTargetRecord": (None, [P(TargetRecord)]),
    "Zel_freeTargetRecords": (None, [P(TargetRecordList)]),
    "Zel_removeTargetRecord": (c_uint32, [_S, c_char_p, c_char_p]),
    "Zel_addTargetRecord": (c_uint32, [_S, c_char_p, P(TargetRecord)]),
    "Zel_updateTargetRecord": (c_uint32, [_S, c_char_p, P(TargetRecord)]),
    "Zel_getCredential": (c_uint32, [_S, c_char_p, P(CredentialRequest), P(Credential)]),
    "Zel_explainCredential": (c_uint32, [_S, c_char_p, P(CredentialRequest), P(P(CredentialExplanation))]),
    "Zel_freeCredentialExplanation": (None, [P(CredentialExplanation)]),
    "Zel_setSessionCacheTTL": (c_uint32, [_S, c_uint32]),
    "Zel_setProgressCallback": (c_uint32, [_S, ProgressFn, c_void_p]),
    "Zel_getZelDomain": (c_uint32, [_S, c_char_p, P(P(Domain))]),
    "Zel_getAllZelDomain": (c_uint32, [_S, P(P(DomainList))]),
    "Zel_freeZelDomain": (None, [P(Domain)]),
    "Zel_freeZelDomains": (None, [P(DomainList)]),
    "Zel_removeZelDomain": (c_uint32, [_S, c_char_p]),
    "Zel_addZelDomain": (c_uint32, [_S, P(Domain)]),
    "Zel_updateZelDomain": (c_uint32, [_S, P(Domain)]),
    "Zel_addLocationToDomain": (c_uint32, [_S, c_char_p, c_char_p, c_char_p]),
    "Zel_removeLocationFromDomain": (c_uint32, [_S, c_char_p, c_char_p, c_char_p]),
    "Zel_createDatabase": (c_uint32, [_S, c_char_p, c_char_p, c_char_p, c_char_p, ctypes.c_ubyte]),
    "Zel_create_ePerson": (c_uint32, [_S, P(Person), c_char_p]),
    "Zel_removeDatabase": (c_uint32, [_S]),
    "Zel_generateKeyFile": (c_uint32, [c_char_p, c_uint32, P(c_void_p)]),
    "Zel_verifyAuditTrail": (c_uint32, [c_char_p, c_char_p, P(P(AuditCheck))]),
    "Zel_freeAuditCheck": (None, [P(AuditCheck)]),
}


def _candidates():
    if os.environ.get("ZELMGMT_LIBRARY"):
        yield os.environ["ZELMGMT_LIBRARY"]
    # Installed as prefix/lib/python3/dist-packages/zelmgmt beside prefix/lib.
    yield str(Path(__file__).resolve().parents[3] / "libzelmgmt.so.1")
    found = ctypes.util.find_library("zelmgmt")
    if found:
        yield found


def load():
    """The shared library with every prototype set; OSError when not found."""
    errors = []
    for path in _candidates():
        try:
            lib = ctypes.CDLL(path)
        except OSError as e:
            errors.append(str(e))
            continue
        for name, (restype, argtypes) in _PROTOTYPES.items():
            fn = getattr(lib, name)
            fn.restype, fn.argtypes = restype, argtypes
        return lib
    raise OSError("libzelmgmt not found (set ZELMGMT_LIBRARY): " + "; ".join(errors))
