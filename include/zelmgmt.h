/*
 * zelmgmt.h - single-sign-on data in an LDAP directory.
 *
 * A caller opens a session on a directory server (optionally on a named
 * security domain), reads and writes target services, Zel domains, Zel users
 * and target records through it, and closes it.  Every function returns a
 * ZelRC status (0 on success) unless its prototype says otherwise.  Records the
 * library hands out are allocated with the malloc family: release them with
 * the matching Zel_free* call, and texts with Zel_memfree.
 *
 * Compiles as C99 and as C++.
 */
#ifndef ZELMGMT_H
#define ZELMGMT_H

#include <stdint.h>

#if defined(ZELMGMT_BUILDING_LIBRARY) && defined(__GNUC__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct ldap; /* the directory client's connection handle (LDAP *) */

typedef uint32_t ZelRC;

/* Status codes.  A status may also be a raw LDAP result code where the
 * library passes one through unmapped. */
#define ZEL_RC_SUCCESS                     0u
#define ZEL_RC_DIRECTORY_ERROR             2u
#define ZEL_RC_AUTHENTICATION_FAILED       4u
#define ZEL_RC_ALREADY_EXISTS              5u
#define ZEL_RC_NO_SUCH_OBJECT              6u
#define ZEL_RC_NOT_AUTHORIZED              7u
#define ZEL_RC_TST_NOT_FOUND               8u
#define ZEL_RC_NOT_LEAF                   10u
#define ZEL_RC_NO_CREDENTIAL_DATA         13u
#define ZEL_RC_TS_NOT_FOUND               14u
#define ZEL_RC_CONFLICT                   17u
#define ZEL_RC_USER_NOT_FOUND             19u
#define ZEL_RC_INVALID_SYNTAX             23u
#define ZEL_RC_TR_NOT_FOUND               24u
#define ZEL_RC_LOCATION_NOT_FOUND         26u
#define ZEL_RC_EPERSON_NOT_FOUND          28u
#define ZEL_RC_DATABASE_NOT_FOUND         29u
#define ZEL_RC_LDAP_116                   31u
#define ZEL_RC_ZEL_DOMAIN_NOT_FOUND       32u
#define ZEL_RC_ACCOUNT_INVALID            33u
#define ZEL_RC_LDAP_208                   34u
#define ZEL_RC_SECURITY_DOMAIN_NOT_FOUND  35u
#define ZEL_RC_SUFFIX_UNAVAILABLE        900u
#define ZEL_RC_DATABASE_EXISTS           901u
#define ZEL_RC_SYSTEM_ERROR             1000u
#define ZEL_RC_CONNECT_FAILED           1001u
#define ZEL_RC_SET_OPTION_FAILED        1002u
#define ZEL_RC_ROOT_DSE_FAILED          1003u
#define ZEL_RC_ENTRY_NOT_FOUND          1004u
#define ZEL_RC_INVALID_ARGUMENT         1005u
#define ZEL_RC_SSL_INIT_FAILED          1006u
#define ZEL_RC_PROTOCOL_ERROR           1007u
#define ZEL_RC_LIMIT_EXCEEDED           1008u
#define ZEL_RC_REQUEST_ERROR            1009u
#define ZEL_RC_INVALID_HANDLE           1010u
#define ZEL_RC_UNSUPPORTED_VERSION      1011u
#define ZEL_RC_NO_MEMORY                1012u
#define ZEL_RC_DECODE_FAILED            1013u
#define ZEL_RC_SCHEMA_VIOLATION         1014u
#define ZEL_RC_TIMEOUT                  1015u
#define ZEL_RC_NOT_UNIQUE               8999u
#define ZEL_RC_UNSUPPORTED_OPERATION    9000u

/* Directory vendor kinds, learnt from the root DSE at open. */
#define ZEL_DIR_UNKNOWN           0
#define ZEL_DIR_ORV               1
#define ZEL_DIR_NETSCAPE          2
#define ZEL_DIR_NDS               3
#define ZEL_DIR_EDIRECTORY        4
#define ZEL_DIR_GENERIC           5
#define ZEL_DIR_ACTIVE_DIRECTORY  6

/* Host platform of an Orv directory server. */
#define ZEL_HOST_OTHER   0
#define ZEL_HOST_TESSAN  1
#define ZEL_HOST_KELMAR  2

/* Open flags. */
#define ZEL_OPEN_NONSSL  1
#define ZEL_OPEN_SSL     2
#define ZEL_OPEN_GSSAPI  4
/* Plain connections (bare hosts, ldap:// entries) are upgraded with StartTLS
 * before anything else is sent, checking the server's certificate against
 * the keyring's CA; ldaps:// entries keep TLS from the start. */
#define ZEL_OPEN_STARTTLS 8

/* Database creation flags. */
#define ZEL_CREATEDB_SUFFIX       1
#define ZEL_CREATEDB_XR_DEFAULTS  2
#define ZEL_CREATEDB_EXTENDED     4

/* Records.  Field order is part of the interface. */
typedef struct ZelSession ZelSession; /* opaque */

typedef struct ZelBindCredentials {
    uint32_t kind; /* must be 1 */
    uint32_t unused;
    uint32_t length;
    const void *data;
} ZelBindCredentials;

typedef struct ZelReqIdentifier {
    char *name;
    char *value;
} ZelReqIdentifier;

typedef struct ZelTargetService {
    char *name;
    char *type;
    char *description;
    int32_t reqIdentifierCount;
    ZelReqIdentifier **reqIdentifiers;
} ZelTargetService;

typedef struct ZelTargetServiceList {
    int32_t count;
    ZelTargetService **services;
} ZelTargetServiceList;

typedef struct ZelTargetServiceType {
    char *typeName;
    int32_t identifierCount;
    char **identifierNames;
} ZelTargetServiceType;

typedef struct ZelUser {
    char *userName;
    char *userType; /* "Senior Admin", "Middle Tier Server", "User", "XR User" */
    char *description;
    unsigned char enabled; /* 1 = active */
    char *personDN;
} ZelUser;

typedef struct ZelTargetRecord {
    char *targetRecordId;
    char *description;
    char *userId;
    char *password;
    char *targetServiceName;
    char *targetServiceType;
} ZelTargetRecord;

typedef struct ZelTargetRecordList {
    int32_t count;
    ZelTargetRecord **records;
} ZelTargetRecordList;

typedef struct ZelCredential {
    char *userId;
    char *password;
} ZelCredential;

typedef struct ZelCredentialRequest {
    char *reserved1;
    char *reserved2;
    char *resourceName;
} ZelCredentialRequest;

typedef struct ZelDomainLocation {
    char *type;
    char *value;
} ZelDomainLocation;

typedef struct ZelDomain {
    char *name;
    char *description;
    int32_t locationCount;
    ZelDomainLocation **locations;
} ZelDomain;

typedef struct ZelDomainList {
    int32_t count;
    ZelDomain **domains;
} ZelDomainList;

typedef struct ZelPerson {
    char *parentDN;
    char *cn;
    char *sn;
    char *description;
    char *uid;
    char *password;
} ZelPerson;

/* Sessions.  `host` may name several servers separated by blanks, each
 * "host[:port]" (`port` applies to those without one) or an "ldap://" or
 * "ldaps://" URI.  An open tries them in order and takes the first that
 * answers.  Later, a request that fails on the client side (server down,
 * time-out, connect error) moves a session the library connected to the
 * next server (round to the first), bound as the same identity: a read is
 * sent once more there, a write never is (it returns its status).  A session
 * on the caller's own `ld` never reconnects. */
ZEL_API ZelRC Zel_open(struct ldap *ld, const char *user, const char *password, const char *host,
                       uint16_t port, int32_t flags, const char *keyring, const char *keyring_pw,
                       const char *cert_label, ZelSession **session_out, uint32_t version);
ZEL_API ZelRC Zel_open_ext(struct ldap *ld, const char *user, const char *password, const char *host,
                           uint16_t port, int32_t flags, const char *keyring, const char *keyring_pw,
                           const char *cert_label, ZelSession **session_out, uint32_t version,
                           const ZelBindCredentials *credentials, unsigned char reserved);
ZEL_API ZelRC Zel_open_sec_domain(struct ldap *ld, const char *user, const char *password,
                                  const char *host, uint16_t port, int32_t flags,
                                  const char *keyring, const char *keyring_pw,
                                  const char *cert_label, const char *domain,
                                  ZelSession **session_out, uint32_t version);
ZEL_API ZelRC Zel_close(ZelSession *s, unsigned char unbind);

/* Locale, memory and status texts. */
ZEL_API char *Zel_get_locale(void);
ZEL_API int Zel_set_locale(const char *locale);
ZEL_API void Zel_memfree(void *p);
/* A static text naming the status, e.g. "ZEL_RC_TS_NOT_FOUND: target service not found". */
ZEL_API const char *Zel_strerror(ZelRC rc);
/* What the status of the last failure on this thread cannot say: why the
   server's certificate was refused ("server certificate refused: ..."), the
   directory's own words and matched DN for a refused operation ("server:
   ...; matched DN: ..."), or the entry that stood in the way of an add.  ""
   when there is nothing to add.  Written only when a call fails (an open
   clears it), so read it right after the failed call.  Never holds a
   password.  The text belongs to the library and stays valid until the
   thread's next call. */
ZEL_API const char *Zel_last_error_detail(void);

/* Target services. */
ZEL_API ZelRC Zel_getAllTargetService(ZelSession *s, ZelTargetServiceList **out);
ZEL_API ZelRC Zel_getTargetService(ZelSession *s, const char *name, ZelTargetService **out);
ZEL_API void Zel_freeTargetService(ZelTargetService *ts);
ZEL_API void Zel_freeTargetServices(ZelTargetServiceList *l);
ZEL_API ZelRC Zel_addTargetService(ZelSession *s, const ZelTargetService *ts);
ZEL_API ZelRC Zel_addTargetServiceType(ZelSession *s, const ZelTargetServiceType *t);
ZEL_API ZelRC Zel_removeTargetService(ZelSession *s, const char *name);
ZEL_API ZelRC Zel_removeTargetServiceType(ZelSession *s, const char *typeName);

/* An addition of ours: every target service type the session sees, read page
 * by page.  Types are entries of the Zel database: a first-generation session
 * locates it, a security domain session lists them when it knows it (its own
 * "Web Resource" and "Resource Group" are built in and have no entry).  As
 * Zel_getAllTargetService answers 14, none found answers 8 with a null list. */
typedef struct ZelTargetServiceTypeList {
    int32_t count;
    ZelTargetServiceType **types;
} ZelTargetServiceTypeList;

ZEL_API ZelRC Zel_getAllTargetServiceType(ZelSession *s, ZelTargetServiceTypeList **out);
ZEL_API void Zel_freeTargetServiceTypes(ZelTargetServiceTypeList *l);

/* Zel users. */
ZEL_API ZelRC Zel_addZelUser(ZelSession *s, const ZelUser *u);
ZEL_API ZelRC Zel_updateZelUser(ZelSession *s, const ZelUser *u);
/* 1 = the person has a Zel profile, 0 = not; *userDN_out (when asked for) is
 * always handed out and must be freed by the caller. */
ZEL_API ZelRC Zel_verifyZelUser(ZelSession *s, const char *personDN, char **userDN_out);
ZEL_API ZelRC Zel_removeZelUser(ZelSession *s, const char *nameOrDN);

/* Target records and credentials. */
ZEL_API ZelRC Zel_getAllTargetRecord(ZelSession *s, const char *user, ZelTargetRecordList **out);
ZEL_API ZelRC Zel_getTargetRecord(ZelSession *s, const char *user, const char *target,
                                  ZelTargetRecord **out);
ZEL_API void Zel_freeTargetRecord(ZelTargetRecord *r);
ZEL_API void Zel_freeTargetRecords(ZelTargetRecordList *l);
ZEL_API ZelRC Zel_removeTargetRecord(ZelSession *s, const char *user, const char *target);
ZEL_API ZelRC Zel_addTargetRecord(ZelSession *s, const char *user, const ZelTargetRecord *r);
ZEL_API ZelRC Zel_updateTargetRecord(ZelSession *s, const char *user, const ZelTargetRecord *r);
ZEL_API ZelRC Zel_getCredential(ZelSession *s, const char *user, const ZelCredentialRequest *req,
                                ZelCredential *out);

/* Zel domains (resource groups). */
ZEL_API ZelRC Zel_getAllZelDomain(ZelSession *s, ZelDomainList **out);
ZEL_API ZelRC Zel_getZelDomain(ZelSession *s, const char *name, ZelDomain **out);
ZEL_API void Zel_freeZelDomain(ZelDomain *d);
ZEL_API void Zel_freeZelDomains(ZelDomainList *l);
ZEL_API ZelRC Zel_removeZelDomain(ZelSession *s, const char *name);
ZEL_API ZelRC Zel_addZelDomain(ZelSession *s, const ZelDomain *d);
ZEL_API ZelRC Zel_updateZelDomain(ZelSession *s, const ZelDomain *d);
ZEL_API ZelRC Zel_addLocationToDomain(ZelSession *s, const char *domain, const char *locType,
                                      const char *locName);
ZEL_API ZelRC Zel_removeLocationFromDomain(ZelSession *s, const char *domain, const char *locType,
                                           const char *locName);

/* Database provisioning.
 *
 * Zel_createDatabase with a null `admin` makes the first senior
 * administrator "cn=Zel Sr Admin,<suffix>"; with a null `adminPassword` too,
 * that person gets a well-known default password, kept for callers written
 * against it (a warning is traced at level 1).  Name a password, or an
 * existing person as `admin`: anyone who knows the default can sign on as
 * the administrator.
 *
 * A person's password (Zel_create_ePerson, the first administrator) is
 * never stored as given: where the server offers the Password Modify
 * extended operation it is set through it once the entry exists, so the
 * server hashes it under its own policy (the entry is removed again when
 * that fails); elsewhere the entry is written with a salted {SSHA} hash.
 * Active Directory takes it as the account's unicodePwd, over an encrypted
 * connection only. */
ZEL_API ZelRC Zel_createDatabase(ZelSession *s, const char *suffix, const char *admin,
                                 const char *adminUid, const char *adminPassword,
                                 unsigned char flags);
ZEL_API ZelRC Zel_create_ePerson(ZelSession *s, const ZelPerson *p, const char *userType);
ZEL_API ZelRC Zel_removeDatabase(ZelSession *s);

/* Key files and the audit trail, for tools: neither call needs a session.
 *
 * Zel_generateKeyFile writes a new key file at `path` (mode 0600, one fresh
 * random key, active) in the format ZEL_KEYFILE and ZEL_AUDIT_KEY read.  An
 * existing file is never overwritten; with ZEL_KEYFILE_ADD a new active key
 * is added to the usable key file there instead (its other keys kept, the
 * file replaced at once).  ZEL_KEYFILE_CHECK writes nothing and only answers
 * whether ZEL_KEYFILE_ADD would find a usable file.  The new key's id goes to
 * *keyIdOut when it is not null (release with Zel_memfree); key bytes never
 * leave the library.  1005 for a null or empty path or unknown flags, 1000
 * when the file cannot be read or written as asked, 1012.
 *
 * Zel_verifyAuditTrail walks the chain of a ZEL_AUDIT trail file under the
 * trail key of ZEL_AUDIT_KEY (every line must be sealed under it; without
 * it, lines sealed under a key cannot be checked).  With `expectHead` (a
 * head as `head` gives it, "<line>:<seal>", kept from an earlier check or a
 * syslog checkpoint) the trail must still hold that line with that seal, so
 * that a cut end or an emptied file shows.  0 with a check handed out
 * whenever the file was read, intact or not; 1005 for a null path or out or
 * an expected head of the wrong shape, 1000 when the file or the key file
 * cannot be read, 1012. */
#define ZEL_KEYFILE_ADD   1u
#define ZEL_KEYFILE_CHECK 2u
typedef struct ZelAuditCheck {
    int32_t intact;        /* 1 when every line checks out and the expected head is there */
    uint64_t lines;        /* lines read */
    uint64_t faultLine;    /* the first line that does not check out; 0 when intact */
    char *fault;           /* what is wrong there, one phrase; null when intact */
    uint64_t tornLine;     /* the first line torn by an interrupted write and sealed over
                              by the next writer (not intact then); 0 when none */
    char *head;            /* "<line>:<seal>" of the last line that checks out; "0:" for none */
} ZelAuditCheck;
ZEL_API ZelRC Zel_generateKeyFile(const char *path, uint32_t flags, char **keyIdOut);
ZEL_API ZelRC Zel_verifyAuditTrail(const char *path, const char *expectHead, ZelAuditCheck **out);
ZEL_API void Zel_freeAuditCheck(ZelAuditCheck *c);

/* Additions of ours: what a session learnt, and one Zel user read back.
 * Both hand out records the caller releases with the matching free call
 * (which accepts null); on failure nothing is handed out. */
typedef struct ZelSessionInfo {
    int32_t dirKind;               /* ZEL_DIR_* */
    int32_t hostKind;              /* ZEL_HOST_* */
    int32_t suffixCount;
    char **suffixes;               /* in discovery order */
    char *securityDomain;          /* null when the session has none */
    char *securityDomainDN;        /* null when none or not found */
    int32_t securityDomainVersion;
    char *databaseDN;              /* null until the session has located it */
    uint32_t apiVersion;
    char *server;                  /* the server the session is on now, as a URI;
                                      null when unknown */
} ZelSessionInfo;

/* 1010 for a bad handle, 1005 for a null out, 1012 when memory runs out. */
ZEL_API ZelRC Zel_getSessionInfo(ZelSession *s, ZelSessionInfo **out);
ZEL_API void Zel_freeSessionInfo(ZelSessionInfo *info);

/* The session's cache of user look-ups: a credential query or a record read
 * resolves its user (person, Zel user entry in each storage form) from the
 * cache for `seconds` after it was first asked, so a repeated query sends
 * only the record and group searches (a record removal always asks).  0 turns it off and empties it; ZEL_CACHE_TTL
 * gives every new session its default.  The session's own writes that touch
 * a user empty it at once; another process's change shows after at most
 * `seconds`.  1010 for a bad handle, 1012 when memory runs out. */
ZEL_API ZelRC Zel_setSessionCacheTTL(ZelSession *s, uint32_t seconds);

/* How Zel_getCredential answers a question, step by step: the user resolved
 * in each storage form, the direct record looked for, each group record in
 * the order considered, and the record that answers (or why none does).  An
 * explanation never holds a password. */
#define ZEL_FORM_FIRST_GENERATION 1
#define ZEL_FORM_SECURITY_DOMAIN  2
#define ZEL_STEP_USER   1   /* the user's Zel user entry in one form */
#define ZEL_STEP_DIRECT 2   /* the user's "T:<resource>" record in one form */
#define ZEL_STEP_GROUP  3   /* one "G:<group>" record */
typedef struct ZelExplainStep {
    int32_t kind;           /* ZEL_STEP_* */
    int32_t form;           /* ZEL_FORM_* the step looked in */
    char *dn;               /* the user entry or the record; null when none was found */
    char *name;             /* direct: "T:<resource>"; group: the group named ("" for none) */
    int32_t outcome;        /* user: 0 active, 33 inactive, 19 no Zel user here, else the failure;
                               direct: 1 found, 0 not; group: the ZEL_FORM_* in which its group
                               holds the resource, 0 in none */
} ZelExplainStep;
typedef struct ZelCredentialExplanation {
    ZelRC status;           /* what Zel_getCredential answers to the same question */
    char *userName;
    char *resourceName;
    int32_t stepCount;
    ZelExplainStep **steps;
    int32_t answerStep;     /* the step whose record answers; -1 when none does */
    char *reason;           /* one sentence */
} ZelCredentialExplanation;

/* 0 with an explanation whenever the query got an answer from the directory
 * (its status: 0, 24, 19, 33, 13, 1013, or no such person); otherwise the
 * query's failure (1010, 1005, 1012, a server failure ...) and nothing is
 * handed out. */
ZEL_API ZelRC Zel_explainCredential(ZelSession *s, const char *user, const ZelCredentialRequest *req,
                                    ZelCredentialExplanation **out);
ZEL_API void Zel_freeCredentialExplanation(ZelCredentialExplanation *e);
/* Time-outs, in whole seconds, of the connections opened from now on in this
 * process: connecting to a server, and each request (its reply included).
 * 0 means no limit; -1 hands the choice back to the environment
 * (ZEL_NETWORK_TIMEOUT, ZEL_TIMEOUT), else to the client's ldap.conf, else
 * to the defaults of 5 s to connect and 30 s per request.  1005 for anything
 * else. */
ZEL_API ZelRC Zel_setTimeouts(int32_t networkSeconds, int32_t requestSeconds);
/* How long, in whole seconds, every session of this process avoids a server
 * that refused a connection, timed out or dropped one: opens and reconnects
 * try it after the others until then.  0: failures are not remembered; -1
 * hands the choice back to ZEL_HOLD_DOWN, else the request time-out.  Each
 * call also forgets the failures remembered so far.  1005 for anything else. */
ZEL_API ZelRC Zel_setHoldDown(int32_t seconds);

/* The profile of the Zel user `name` as stored: the security domain's first
 * in a version 2 session, else the Zel database's.  userType is null where
 * the storage form keeps none.  19 when there is no such user. */
ZEL_API ZelRC Zel_getZelUser(ZelSession *s, const char *name, ZelUser **out);
ZEL_API void Zel_freeZelUser(ZelUser *user);

/* Every Zel user the session sees, read back as Zel_getZelUser reads one:
 * the security domain's first, then the Zel database's (when the session
 * knows it, or is of the first generation).  An empty list is success. */
typedef struct ZelUserList {
    int32_t count;
    ZelUser **users;
} ZelUserList;

ZEL_API ZelRC Zel_getAllZelUser(ZelSession *s, ZelUserList **out);
ZEL_API void Zel_freeZelUsers(ZelUserList *list);

/* Key rotation: stored passwords rewritten in the form a write uses now (under
 * the active key of the key file ZEL_KEYFILE names, else masked).  `user`
 * names one Zel user as Zel_getAllTargetRecord does; null means every target
 * record under the session's suffixes, read page by page.  A value already in
 * that form is left as it is; one that cannot be read with the keys at hand is
 * left as it is and its entry's DN listed; an entry the directory refuses to
 * rewrite is listed too, and the run goes on (as it does past a suffix that
 * cannot be searched).  Once the run has begun *out is always handed out
 * (release it with Zel_freeRekeyReport), also when the status is the run's
 * first failure: what was rewritten and what was not.  Nothing is handed out
 * for 1000 (ZEL_KEYFILE names a key file that cannot be used), the user's
 * statuses of Zel_getAllTargetRecord (19 no Zel user, 28 no such person),
 * 1005 (a null out) and 1012. */
typedef struct ZelRekeyReport {
    int32_t rewritten;        /* values rewritten */
    int32_t unreadableCount;
    char **unreadable;        /* DNs of the entries left as they were */
    int32_t failedCount;
    char **failed;            /* DNs of the entries the directory refused to rewrite */
} ZelRekeyReport;

/* Every target record the session sees with the Zel user it belongs to, for
 * tools that compare many records at once (an import): a few searches, read
 * page by page, where reading user by user asks at least three per user.  The
 * users are those Zel_getAllZelUser lists; a record belongs to the user entry
 * it lies below.  Security domain records first, then those of the Zel
 * database (when the session knows it, or is of the first generation), each
 * in the directory's order.  Passwords are in clear, as
 * Zel_getAllTargetRecord hands them out (and audited alike); one that cannot
 * be read with the keys at hand is listed with a null password and
 * `unreadable` set, and the list goes on.  An empty list is success. */
typedef struct ZelUserTargetRecord {
    char *userName;
    int32_t form;              /* ZEL_FORM_* the record is stored in */
    ZelTargetRecord *record;
    int32_t unreadable;        /* 1: the stored password could not be read */
} ZelUserTargetRecord;

typedef struct ZelUserTargetRecordList {
    int32_t count;
    ZelUserTargetRecord **records;
} ZelUserTargetRecordList;

ZEL_API ZelRC Zel_getAllUserTargetRecord(ZelSession *s, ZelUserTargetRecordList **out);
ZEL_API void Zel_freeUserTargetRecords(ZelUserTargetRecordList *l);

ZEL_API ZelRC Zel_rekeyTargetRecords(ZelSession *s, const char *user, ZelRekeyReport **out);
ZEL_API void Zel_freeRekeyReport(ZelRekeyReport *report);

/* Progress of the long-running calls: Zel_rekeyTargetRecords reports each
 * target record it visits, Zel_removeDatabase each entry it deletes.  A call
 * first reports done 0 with total -1 (not known yet), then each step, with
 * total known once its entries are listed; a call that completes its walk
 * ends with done == total.  The function is called on the caller's thread,
 * inside the call: it must return quickly, must not call the library with the
 * same session, and cannot stop the call.  A null fn turns it off.  The hook
 * stays set on the session until changed.  1010 for a bad handle. */
typedef void (*ZelProgressFn)(void *context, int64_t done, int64_t total);

ZEL_API ZelRC Zel_setProgressCallback(ZelSession *s, ZelProgressFn fn, void *context);

/* Passwords sealed for documents that leave the directory (exports): the
 * ciphertext under the active key of the key file ZEL_KEYFILE names, in the
 * form an encrypted stored value has, never clear text.  Seal: 1000 when no
 * usable key file is configured.  Unseal takes only such a value and reads it
 * with any key of the file: 1013 for anything else or a key not at hand.
 * Both hand out new text (release it with Zel_memfree after overwriting it);
 * 1005 for a null argument, 1012 when memory runs out. */
ZEL_API ZelRC Zel_sealPassword(const char *clear, char **sealed_out);
ZEL_API ZelRC Zel_unsealPassword(const char *sealed, char **clear_out);

#ifdef __cplusplus
}
#endif

#endif /* ZELMGMT_H */
