// Sessions: the three open calls, the open sequence, connecting, binding and
// closing.
#include <cstdlib>
#include <cstring>

#include "ZelUserLookup.h"
#include "ZelFailover.h"
#include "ZelEntry.h"
#include "ZelClient.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelSessionTexts.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

// Slots of the suffix array a caller of locate_LDAP_Server passes.
constexpr int kSuffixSlots = 20;

bool present(const char *text) { return text != nullptr && *text != '\0'; }

// Without a caller's connection and without GSSAPI a user and a password
// are both required.
bool missing_credentials(LDAP *ld, int32_t flags, const char *user, const char *password) {
    return ld == nullptr && !(flags & ZEL_OPEN_GSSAPI) && !(present(user) && present(password));
}

// The V3 refusal: tell, switch the connection to protocol 2.
ZelRC fall_back_to_v2(ZelSession *s) {
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:LDAP Server does not support V3 protocol.");
    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Attempting to rebind with V2 protocol.");
    return set_LDAP_options(s, LDAP_VERSION2);
}

// A caller's connection stops chasing referrals for the session's lifetime;
// close puts the caller's setting back.
ZelRC adopt_connection(ZelSession *s) {
    bool chased = false;
    if (plat::ldap_set_referrals(s->ld, false, &chased) != 0) return ZEL_RC_SET_OPTION_FAILED;
    s->caller_referrals = chased ? 1 : 0;
    return 0;
}

}  // namespace

extern "C" {

ZelRC zelOpen(const char *name, LDAP *ld, const char *user, const char *password, const char *host,
              uint16_t port, int32_t flags, const char *keyring, const char *keyring_pw,
              const char *cert_label, ZelSession **session_out, uint32_t version,
              const ZelBindCredentials *credentials, unsigned char reserved, const char *domain) {
    return zel::guarded([&]() -> ZelRC {
        (void)reserved;
        if (session_out == nullptr) return ZEL_RC_INVALID_ARGUMENT;
        *session_out = nullptr;
        ZelRC rc = ZEL_RC_NO_MEMORY;
        auto *s = static_cast<ZelSession *>(std::calloc(1, sizeof(ZelSession)));
        zel::clear_error_detail();
        if (!s) return rc;
        std::memcpy(s->tag, "ZEL", 4);
        s->version = version;
        s->ld = ld;
        s->debug_level = zel::read_debug_level();
        zel::tracef(s, zel::kTraceFlow, "zelmgmt:%s:Entered...\n", name);

        char *bind_dn = nullptr;
        bool mutex_ready = pthread_mutex_init(&s->mutex, nullptr) == 0;
        // The stages run guarded here, not only at the boundary: whatever stops
        // them, the failure path below releases the half-built session.
        rc = !mutex_ready ? ZEL_RC_SYSTEM_ERROR : zel::guarded([&]() -> ZelRC {
            ZelRC stage = 0;
            if (ld == nullptr) {
                s->owns_connection = 1;
                stage = zel::connect_and_bind(s, host, port, flags, keyring, keyring_pw, cert_label, user, password,
                                              credentials, &bind_dn);
            } else {
                stage = adopt_connection(s);
                if (stage == 0 && (user != nullptr || (flags & ZEL_OPEN_GSSAPI)))
                    stage = bind_to_LDAP(s, (flags & ZEL_OPEN_GSSAPI) ? nullptr : user, password, &bind_dn,
                                         credentials);
            }
            if (stage == 0) stage = determine_suffixes(s);
            if (stage == 0 && domain != nullptr) {
                stage = get_domain(s, domain);
                if (stage == 0) {
                    s->database_dn = static_cast<char *>(std::calloc(1, zel::kDnSize));
                    stage = s->database_dn ? locate_ZEL_database(s, s->suffixes, s->database_dn) : ZEL_RC_NO_MEMORY;
                    if (stage == ZEL_RC_DATABASE_NOT_FOUND) {
                        // A directory without a database yet: creation needs such a session.
                        std::free(s->database_dn);
                        s->database_dn = nullptr;
                        stage = 0;
                    }
                }
            }
            if (stage == 0) stage = zel::configure_reads(s);
            if (stage == 0) stage = zel::audit::attach(s, bind_dn);
            return stage;
        });
        if (rc == 0) {
            *session_out = s;
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:Were able to open Zel session succesfully!");
        }

        std::free(bind_dn);
        zel::tracef(s, zel::kTraceFlow, "zelmgmt:%s:Exited...rc=%d\n", name, static_cast<int>(rc));
        if (rc != 0) {
            if (!mutex_ready) {
                // Nothing to destroy: release by hand what Zel_close would.
                if (s->ld && s->owns_connection) plat::ldap_unbind(s->ld);
                std::free(s);
            } else {
                Zel_close(s, ld == nullptr ? 1 : 0);
            }
        }
        return rc;
    });
}

ZelRC connect_to_LDAP(ZelSession *s, const char *host, uint16_t port, int32_t flags,
                      const char *keyring, const char *keyring_pw, const char *cert_label) {
    return zel::guarded([&]() -> ZelRC {
        bool ssl = std::getenv("ZEL_NONSSL") == nullptr;
        ZelRC rc = 0;
        zel::RoutineTrace trace(s, "connect_to_LDAP", rc);
        s->ld = nullptr;
        if (flags != 0) {
            if (flags & ZEL_OPEN_NONSSL) ssl = false;
            else if (flags & ZEL_OPEN_SSL) ssl = true;
            else if (flags & ZEL_OPEN_STARTTLS) ssl = false;
        }

        char *located = nullptr;
        int located_port = 0;
        if (host == nullptr) {
            ZelRC found = locate_LDAP_Server(s, ssl ? 0 : 1, &located, &located_port, nullptr);
            if (found != 0) {
                zel::tracef(s, zel::kTraceFailures, "zelmgmt:locate_LDAP_Server failed.  RC=x%x\n", found);
                std::free(located);
                return rc = ZEL_RC_CONNECT_FAILED;
            }
            zel::tracef(s, zel::kTraceProgress, "zelmgmt:locate_server() returns LDAP host=%s port=%d\n",
                        located, located_port);
            host = located;
        }
        int use_port = port != 0 ? port : located_port != 0 ? located_port : ssl ? LDAPS_PORT : LDAP_PORT;

        if (!ssl) {
            zel::tracef(s, zel::kTraceProgress,
                        "zelmgmt:About to invoke ldap_init() with ldaphost: %s ldapport %d...\n", host, use_port);
            // StartTLS checks the server against the same CA as ldaps does;
            // the upgrade itself is sent before the bind (ZelFailover.cpp).
            int init = 0, reason = 0;
            if (flags & ZEL_OPEN_STARTTLS) init = plat::ldap_ssl_client_init(keyring, keyring_pw, 0, &reason);
            if (init != 0 && init != plat::kSslAlreadyInitialised) {
                zel::tracef(s, zel::kTraceFailures,
                            "zelmgmt:ldap_ssl_client_init() failed with rc: x%x, SSLReasonCode: %d\n", init, reason);
                std::free(located);
                return rc = ZEL_RC_SSL_INIT_FAILED;
            }
            s->ld = plat::ldap_init(host, use_port);
            if (s->ld == nullptr) {
                zel::trace_line(s, zel::kTraceProgress, "zelmgmt:ldap_init() failed.");
                rc = ZEL_RC_CONNECT_FAILED;
            } else {
                rc = zel::apply_timeouts(s);
                if (rc == 0) rc = set_LDAP_options(s, LDAP_VERSION3);
            }
        } else {
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:About to issue ldap_ssl_client_init() with:");
            zel::tracef(s, zel::kTraceProgress, "%51skeyring=%s\n", "", keyring ? keyring : "NULL");
            zel::tracef(s, zel::kTraceProgress, "%51skeyring_pw=%s\n", "",
                        keyring_pw ? zel::kMaskedPassword : "NULL");
            zel::tracef(s, zel::kTraceProgress, "%51sssl_timeout=%d\n", "", 0);
            int reason = 0;
            int init = plat::ldap_ssl_client_init(keyring, keyring_pw, 0, &reason);
            if (init != 0 && init != plat::kSslAlreadyInitialised) {
                zel::tracef(s, zel::kTraceFailures,
                            "zelmgmt:ldap_ssl_client_init() failed with rc: x%x, SSLReasonCode: %d\n", init, reason);
                rc = ZEL_RC_SSL_INIT_FAILED;
            } else {
                zel::trace_line(s, zel::kTraceProgress, "zelmgmt:About to issue ldap_ssl_init()");
                s->ld = plat::ldap_ssl_init(host, use_port, cert_label);
                if (s->ld == nullptr) {
                    zel::trace_line(s, zel::kTraceProgress, "zelmgmt:ldap_ssl_init() failed.");
                    rc = ZEL_RC_CONNECT_FAILED;
                } else {
                    rc = zel::apply_timeouts(s);
                    if (rc == 0) rc = set_LDAP_options(s, LDAP_VERSION3);
                }
            }
        }
        std::free(located);
        return rc;
    });
}

ZelRC locate_LDAP_Server(ZelSession *s, int nonssl, char **host_out, int *port_out, char **suffix_array) {
    ZelRC rc = 0;
    return zel::routine(s, "locate_LDAP_Server", [&]() -> ZelRC {
        *host_out = nullptr;
        *port_out = 0;
        if (suffix_array) std::memset(suffix_array, 0, kSuffixSlots * sizeof(char *));
        char *host = static_cast<char *>(std::calloc(1, zel::kHostSize));
        if (!host) return rc = ZEL_RC_NO_MEMORY;
        *host_out = host;

        plat::ServerInfo *list = nullptr;
        int lrc = plat::ldap_server_locate(nullptr, &list);
        if (lrc != 0) {
            plat::ldap_server_free_list(list);
            return rc = static_cast<ZelRC>(lrc);
        }
        bool chosen = false, suffix_found = suffix_array == nullptr;
        int next_slot = 0;
        int want = nonssl == 1 ? plat::kSecurityNone : plat::kSecuritySsl;
        for (plat::ServerInfo *e = list; e && rc == 0; e = e->next) {
            if (!chosen) {
                if (e->replica_type != plat::kReplicaMaster || e->sec_type != want) continue;
                if (!zel::copy_into(host, zel::kHostSize, e->host)) continue;  // a name we cannot hold
                *port_out = e->port;
                chosen = true;
            } else if (!zel::same_text(e->host, host) || e->port != *port_out) {
                continue;
            }
            if (suffix_array && e->suffix) {
                // A suffix that does not fit, or one slot too many, is refused:
                // an empty or missing suffix would widen the search to the root.
                if (next_slot >= kSuffixSlots) {
                    rc = ZEL_RC_INVALID_ARGUMENT;
                    break;
                }
                char *copy = static_cast<char *>(std::calloc(1, zel::kDnSize));
                if (!copy) {
                    rc = ZEL_RC_NO_MEMORY;
                    break;
                }
                if (!zel::copy_into(copy, zel::kDnSize, e->suffix)) {
                    std::free(copy);
                    rc = ZEL_RC_INVALID_ARGUMENT;
                    break;
                }
                suffix_array[next_slot++] = copy;
                suffix_found = true;
            }
        }
        if (rc == 0 && (!chosen || !suffix_found)) rc = ZEL_RC_CONNECT_FAILED;
        plat::ldap_server_free_list(list);
        return rc;
    });
}

ZelRC set_LDAP_options(ZelSession *s, int protocol_version) {
    ZelRC rc = 0;
    return zel::routine(s, "set_LDAP_options", [&]() -> ZelRC {
        using plat::OptionPassing;
        int version = protocol_version;
        if (plat::ldap_set_option(s->ld, plat::kOptProtocolVersion, &version, OptionPassing::ByAddress) != 0 ||
            plat::ldap_set_option(s->ld, plat::kOptDeref, reinterpret_cast<void *>(intptr_t{1}),
                                  OptionPassing::ByValue) != 0 ||
            plat::ldap_set_option(s->ld, plat::kOptSslTimeout, nullptr, OptionPassing::ByValue) != 0)
            return rc = ZEL_RC_SET_OPTION_FAILED;
        // Protocol 3 takes these by address, protocol 2 by value.
        int three = 3, zero = 0;
        bool ok;
        if (protocol_version == LDAP_VERSION3) {
            ok = plat::ldap_set_option(s->ld, plat::kOptSizeLimit, &three, OptionPassing::ByAddress) == 0 &&
                 plat::ldap_set_option(s->ld, plat::kOptDesc, &zero, OptionPassing::ByAddress) == 0 &&
                 plat::ldap_set_option(s->ld, plat::kOptApiInfo, &zero, OptionPassing::ByAddress) == 0;
        } else {
            ok = plat::ldap_set_option(s->ld, plat::kOptSizeLimit, reinterpret_cast<void *>(intptr_t{3}),
                                       OptionPassing::ByValue) == 0 &&
                 plat::ldap_set_option(s->ld, plat::kOptDesc, nullptr, OptionPassing::ByValue) == 0 &&
                 plat::ldap_set_option(s->ld, plat::kOptApiInfo, nullptr, OptionPassing::ByValue) == 0;
        }
        if (!ok) rc = ZEL_RC_SET_OPTION_FAILED;
        return rc;
    });
}

ZelRC bind_to_LDAP(ZelSession *s, const char *user, const char *password, char **dn_out,
                   const ZelBindCredentials *credentials) {
    ZelRC rc = 0;
    return zel::routine(s, "bind_to_LDAP", [&]() -> ZelRC {
        char *dn = static_cast<char *>(std::calloc(1, zel::kDnSize));
        *dn_out = dn;
        if (!dn) return rc = ZEL_RC_NO_MEMORY;

        if (user == nullptr) {
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:About to issue ldap_sasl_bind_s() with mechanism GSSAPI");
            struct berval cred{};
            if (credentials) {
                cred.bv_len = credentials->length;
                cred.bv_val = static_cast<char *>(const_cast<void *>(credentials->data));
            }
            struct berval *server_cred = nullptr;
            int lrc = plat::ldap_sasl_bind_s(s->ld, nullptr, "GSSAPI", credentials ? &cred : nullptr, nullptr,
                                             nullptr, &server_cred);
            if (server_cred) ber_bvfree(server_cred);
            if (lrc == LDAP_SUCCESS)
                zel::tracef(s, zel::kTraceProgress, "zelmgmt:Back from bind. rc=%d\n", lrc);
            else
                rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), ZEL_RC_AUTHENTICATION_FAILED, "ldap_sasl_bind_s()");
            return rc;
        }

        if (std::strchr(user, '=') != nullptr) {
            if (!zel::copy_into(dn, zel::kDnSize, user)) return rc = ZEL_RC_INVALID_ARGUMENT;
        } else {
            zel::trace_line(s, zel::kTraceProgress, "zelmgmt:About to issue anonymous bind.");
            int lrc = plat::ldap_simple_bind_s(s->ld, nullptr, nullptr);
            if (lrc == LDAP_PROTOCOL_ERROR) {
                if ((rc = fall_back_to_v2(s)) != 0) return rc;
                lrc = plat::ldap_simple_bind_s(s->ld, nullptr, nullptr);
            }
            if (lrc != LDAP_SUCCESS) {
                zel::tracef(s, zel::kTraceFailures, "zelmgmt:Anonymous bind failed with rc=x%x\n", lrc);
                return rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), ZEL_RC_ENTRY_NOT_FOUND, "ldap_simple_bind_s()");
            }
            if (locate_ePerson(s, user, s->suffixes, dn) != 0) return rc = ZEL_RC_ENTRY_NOT_FOUND;
        }

        zel::tracef(s, zel::kTraceProgress, "zelmgmt:About to issue ldap_simple_bind_s() with:\n  DN:%s\n  Password:%s\n",
                    dn, zel::kMaskedPassword);
        int lrc = plat::ldap_simple_bind_s(s->ld, dn, password);
        if (lrc == LDAP_PROTOCOL_ERROR) {
            if ((rc = fall_back_to_v2(s)) != 0) return rc;
            lrc = plat::ldap_simple_bind_s(s->ld, dn, password);
        }
        if (lrc == LDAP_SUCCESS) {
            zel::tracef(s, zel::kTraceProgress, "zelmgmt:Back from bind. rc=%d\n", lrc);
        } else {
            rc = check_LDAP_rc(s, static_cast<uint32_t>(lrc), ZEL_RC_AUTHENTICATION_FAILED, "ldap_simple_bind_s()");
            zel::explain_connection_failure(s, lrc);  // a refused certificate says more than the server's words
        }
        return rc;
    });
}

ZEL_API ZelRC Zel_open(LDAP *ld, const char *user, const char *password, const char *host, uint16_t port,
                       int32_t flags, const char *keyring, const char *keyring_pw, const char *cert_label,
                       ZelSession **session_out, uint32_t version) {
    if (version >= 3) return ZEL_RC_UNSUPPORTED_VERSION;
    if (missing_credentials(ld, flags, user, password)) return ZEL_RC_INVALID_ARGUMENT;
    return zel::guarded([&] {
        return zelOpen("Zel_open", ld, user, password, host, port, flags, keyring, keyring_pw, cert_label,
                       session_out, version, nullptr, 0, version > 1 ? "Default" : nullptr);
    });
}

ZEL_API ZelRC Zel_open_ext(LDAP *ld, const char *user, const char *password, const char *host, uint16_t port,
                           int32_t flags, const char *keyring, const char *keyring_pw, const char *cert_label,
                           ZelSession **session_out, uint32_t version, const ZelBindCredentials *credentials,
                           unsigned char reserved) {
    if (version >= 3) return ZEL_RC_UNSUPPORTED_VERSION;
    if (ld == nullptr) {
        if (flags & ZEL_OPEN_GSSAPI) {
            if (credentials != nullptr && credentials->kind != 1) return ZEL_RC_INVALID_ARGUMENT;
        } else if (!present(user) || !present(password)) {
            return ZEL_RC_INVALID_ARGUMENT;
        }
    }
    return zel::guarded([&] {
        return zelOpen("Zel_open_ext", ld, user, password, host, port, flags, keyring, keyring_pw, cert_label,
                       session_out, version, credentials, reserved, version >= 2 ? "Default" : nullptr);
    });
}

ZEL_API ZelRC Zel_open_sec_domain(LDAP *ld, const char *user, const char *password, const char *host,
                                  uint16_t port, int32_t flags, const char *keyring, const char *keyring_pw,
                                  const char *cert_label, const char *domain, ZelSession **session_out,
                                  uint32_t version) {
    if (!present(domain)) return ZEL_RC_INVALID_ARGUMENT;
    if (version >= 3) return ZEL_RC_UNSUPPORTED_VERSION;
    if (missing_credentials(ld, flags, user, password)) return ZEL_RC_INVALID_ARGUMENT;
    return zel::guarded([&] {
        return zelOpen("Zel_open_sec_domain", ld, user, password, host, port, flags, keyring, keyring_pw,
                       cert_label, session_out, 2, nullptr, 0, domain);
    });
}

ZEL_API ZelRC Zel_close(ZelSession *s, unsigned char unbind) {
    if (!zel::valid_handle(s)) return ZEL_RC_INVALID_HANDLE;
    return zel::guarded([&]() -> ZelRC {
        zel::tracef(s, zel::kTraceFlow, "zelmgmt:%s:Entered...\n", "Zel_close");
        if (s->ld != nullptr && (unbind == 1 || s->owns_connection == 1)) plat::ldap_unbind(s->ld);
        else if (s->ld != nullptr && s->caller_referrals) plat::ldap_set_referrals(s->ld, true, nullptr);
        delete s->failover;   // wipes the password it kept
        zel::free_suffixes(s->suffixes);
        std::free(s->database_dn);
        std::free(s->schema_dn);
        std::free(s->domain_dn);
        std::free(s->domain_name);
        zel::free_user_cache(s);
        zel::forget_session_texts(s);
        zel::audit::detach(s);
        std::memset(s->tag, 0, sizeof s->tag);
        pthread_mutex_destroy(&s->mutex);
        zel::tracef(s, zel::kTraceFlow, "zelmgmt:%s:Exited...rc=%d\n", "Zel_close", 0);
        std::memset(static_cast<void *>(s), 0, sizeof *s);
        std::free(s);
        return 0;
    });
}

}  // extern "C"
