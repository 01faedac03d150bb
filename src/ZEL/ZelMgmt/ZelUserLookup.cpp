// Resolving a user name once per call, and the session's cache of what it
// resolved to.  The cache keeps only answers the directory gave (a user, an
// inactive user, no Zel user), never a failure, and lets an entry live for
// the session's TTL at most: another process's change shows after that.
#include "ZelEntry.h"
#include "ZelUserLookup.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <list>
#include <new>
#include <unordered_map>

#include "ZelTargetRecord.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelSession.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace zel {

class UserCache {
public:
    using Clock = std::chrono::steady_clock;
    explicit UserCache(uint32_t ttl) : ttl_(std::chrono::seconds(ttl)) {}

    bool find(const std::string &user, ResolvedUser &out) {
        auto it = index_.find(user);
        if (it == index_.end()) return false;
        if (Clock::now() >= it->second->expires) {
            order_.erase(it->second);
            index_.erase(it);
            return false;
        }
        order_.splice(order_.begin(), order_, it->second);  // most recently used first
        out = it->second->resolved;
        return true;
    }

    // A refreshed entry keeps the expiry of its first resolution: the TTL
    // bounds how old an answer may be, not how long since it was last used.
    void store(const std::string &user, const ResolvedUser &resolved) {
        auto it = index_.find(user);
        if (it != index_.end()) {
            it->second->resolved = resolved;
            order_.splice(order_.begin(), order_, it->second);
            return;
        }
        order_.push_front(Entry{user, resolved, Clock::now() + ttl_});
        index_.emplace(user, order_.begin());
        if (order_.size() > kCapacity) {
            index_.erase(order_.back().user);
            order_.pop_back();
        }
    }

    void clear() {
        index_.clear();
        order_.clear();
    }

private:
    static constexpr size_t kCapacity = 4096;
    struct Entry {
        std::string user;
        ResolvedUser resolved;
        Clock::time_point expires;
    };
    std::chrono::seconds ttl_;
    std::list<Entry> order_;
    std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

namespace {

// Only what the directory answered is worth keeping.
bool cacheable(const ResolvedUser &r) {
    if (!r.person_known || r.person_rc != 0) return false;
    for (const UserForm &f : r.forms)
        if (f.known && f.rc != 0 && f.rc != ZEL_RC_ACCOUNT_INVALID && f.rc != ZEL_RC_USER_NOT_FOUND) return false;
    return true;
}

uint32_t ttl_from_environment() {
    const char *text = std::getenv("ZEL_CACHE_TTL");
    if (text == nullptr || *text == '\0') return 0;
    char *end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    // Anything but a plain number of seconds leaves the cache off.
    if (*end != '\0' || text[0] == '-' || value > 86400UL * 365) return 0;
    return static_cast<uint32_t>(value);
}

}  // namespace

ZelRC resolve_person(ZelSession *s, const char *user, std::string &person_dn) {
    person_dn.clear();
    char buffer[kDnSize];
    buffer[0] = '\0';
    ZelRC rc;
    // Neither '=' nor '@' has another case: a plain search for the byte tells.
    if (user != nullptr && std::strchr(user, '='))
        rc = construct_ePersonDN_from_UP(s, user, buffer);
    else if (user != nullptr && std::strchr(user, '@'))
        rc = locate_krb_ePerson(s, user, s->suffixes, buffer);
    else
        rc = locate_ePerson(s, user, s->suffixes, buffer);
    if (rc == 0) person_dn = buffer;
    return rc;
}

namespace {

// verify_user's answer as a form's status.
ZelRC form_status(ZelRC verified) { return verified == 1 ? 0 : verified == 0 ? ZEL_RC_USER_NOT_FOUND : verified; }

}  // namespace

ZelRC verify_form(ZelSession *s, const std::string &person_dn, int32_t mode, std::string &user_dn) {
    return form_status(verify_user(s, person_dn.c_str(), mode, &user_dn));
}

UserLookup::UserLookup(ZelSession *s, const char *user, bool cached) : s_(s), user_(user), cached_(cached) {
    if (cached_ && s->user_cache) s->user_cache->find(user, resolved_);
}

// Settles a form and offers the whole resolution to the cache; inlined
// into form() and settle(), the user check's hot path.
[[gnu::always_inline]] inline const UserForm &UserLookup::kept(UserForm &f) {
    f.known = true;
    if (f.rc != 0 && f.rc != ZEL_RC_ACCOUNT_INVALID) f.dn.clear();
    if (cached_ && s_->user_cache && cacheable(resolved_)) s_->user_cache->store(user_, resolved_);
    return f;
}

const UserForm &UserLookup::form(int32_t mode) {
    UserForm &f = resolved_.form(mode);
    if (f.known) return f;
    ZelRC rc = 0;
    RoutineTrace trace(s_, "get_verify_User_profile", rc);
    if (!resolved_.person_known) {
        resolved_.person_rc = resolve_person(s_, user_, resolved_.person_dn);
        resolved_.person_known = true;
    }
    f.rc = resolved_.person_rc != 0 ? resolved_.person_rc : verify_form(s_, resolved_.person_dn, mode, f.dn);
    rc = f.rc;
    return kept(f);
}

const UserForm &UserLookup::settle(int32_t mode, ZelRC verified, std::string &&dn) {
    UserForm &f = resolved_.form(mode);
    ZelRC rc = 0;
    RoutineTrace trace(s_, "get_verify_User_profile", rc);
    rc = f.rc = form_status(verified);
    f.dn = std::move(dn);
    return kept(f);
}

ZelRC configure_reads(ZelSession *s) {
    const char *path = std::getenv("ZEL_CREDENTIAL_PATH");
    s->stepwise_credentials = path != nullptr && std::strcmp(path, "stepwise") == 0;
    return set_cache_ttl(s, ttl_from_environment());
}

ZelRC set_cache_ttl(ZelSession *s, uint32_t seconds) {
    free_user_cache(s);
    if (seconds == 0) return 0;
    s->user_cache = new (std::nothrow) UserCache(seconds);
    return s->user_cache ? 0 : ZEL_RC_NO_MEMORY;
}

void free_user_cache(ZelSession *s) {
    delete s->user_cache;
    s->user_cache = nullptr;
}

void forget_users(ZelSession *s) {
    if (s->user_cache) s->user_cache->clear();
}

}  // namespace zel

extern "C" {

ZEL_API ZelRC Zel_setSessionCacheTTL(ZelSession *s, uint32_t seconds) {
    return zel::call(s, nullptr, [&] { return zel::set_cache_ttl(s, seconds); });
}

}  // extern "C"
