// The credential query with each search its answer needs sent once: the
// user resolved once per form, the direct and the group records of a form in
// one search, and the candidate groups asked about together (with the
// user's first-generation profile, when one search covers both).  The answer is
// the step-by-step one: the direct record of the session's form, then of the
// first generation; then the first group record, in directory order, whose
// group holds the resource.  Group records come from the session's form, or
// from the first generation when the user has none there.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include "ZelCredentialQuery.h"
#include "ZelIdentifierText.h"
#include "platform/dn_escape.h"
#include "platform/filter_format.h"
#include "platform/utf8_text.h"
#include "ZelHolders.h"
#include "ZelRoutines.h"
#include "ZelPlatform.h"
#include "ZelSearch.h"
#include "ZelSession.h"
#include "ZelSessionTexts.h"
#include "ZelSmallVector.h"
#include "ZelStatus.h"
#include "ZelText.h"
#include "ZelTrace.h"

namespace {

using zel::CredentialQuery;
using zel::CredentialTrail;

using zel::ParsedDn;

// A DN as (type, value) pairs, first RDN first; false for text that is no DN
// or an RDN of several values, which none of the entries asked for has.
using Rdns = std::vector<std::pair<std::string, std::string>>;
// `out`'s strings are written over in place: one vector serves every entry
// of an answer.
bool split_dn(const char *dn, Rdns &out) {
    LDAPDN raw = nullptr;
    if (ldap_str2dn(dn, &raw, LDAP_DN_FORMAT_LDAP) != LDAP_SUCCESS) {
        out.clear();
        return false;
    }
    ParsedDn parsed(raw);
    size_t n = 0;
    for (LDAPRDN *rdn = parsed.get(); rdn && *rdn; ++rdn, ++n) {
        if (!(*rdn)[0] || (*rdn)[1]) {
            out.clear();
            return false;
        }
        const LDAPAVA *ava = (*rdn)[0];
        if (n == out.size()) out.emplace_back();
        out[n].first.assign(ava->la_attr.bv_val, ava->la_attr.bv_len);
        out[n].second.assign(ava->la_value.bv_val, ava->la_value.bv_len);
    }
    out.resize(n);
    return true;
}

using Container = zel::GroupContainer;

// One of the session's group containers, made when first asked for.  The
// domain's lies below a DN fixed for the session; the Zel database's is made
// again when the database's DN is not the one it was made below, since a
// session may find or create its database later.
const Container &container_of(zel::SessionTexts &texts, Container &c, const char *prefix, const char *base,
                              bool fixed_base) {
    if (c.made && (fixed_base || c.base == base)) return c;
    c.base = base;
    c.dn.assign(prefix).append(base);
    c.ok = split_dn(c.dn.c_str(), c.rdns);
    c.made = true;
    texts.common_base_made = false;
    return c;
}

bool same_rdns(const Rdns &a, size_t a_from, const Rdns &b) {
    if (a.size() - a_from != b.size()) return false;
    for (size_t i = 0; i < b.size(); ++i)
        if (!zel::same_text(a[a_from + i].first.c_str(), b[i].first.c_str()) ||
            !zel::same_text(a[a_from + i].second.c_str(), b[i].second.c_str()))
            return false;
    return true;
}

// The group a group record names, as the asks about groups see it: one
// slot per ask (0: the security domain's groups, 1: the Zel database's).
struct Candidate {
    std::string name;       // empty: the record names no group
    std::string escaped;    // the name escaped for a filter, when it needs escaping
    bool fits[2] = {};      // a DN of the group below the ask's container fits a DN buffer
    bool held[2] = {};      // the group there holds the resource

    std::string_view in_filter() const { return escaped.empty() ? std::string_view(name) : escaped; }
};
using Candidates = zel::SmallVector<Candidate, 4>;

// A user's records of one form: the direct one (the first found) and the
// group records in directory order.
struct FormRecords {
    zel::Message result;
    LDAPMessage *direct = nullptr;
    zel::SmallVector<LDAPMessage *, 8> groups;
    zel::SmallVector<const char *, 8> group_dns;  // read in place, alive with `result`
};

// A group record's identifier starts "G:"; neither character is ever
// escaped in a DN, so the text after the first '=' tells.
bool names_group(const char *dn) {
    const char *value = dn ? std::strchr(dn, '=') : nullptr;
    return value && (value[1] == 'G' || value[1] == 'g') && value[2] == ':';
}

// One search for the direct record and the group records below the user.
ZelRC search_form_records(ZelSession *s, const std::string &user_dn, int32_t mode, const CredentialQuery &q,
                          FormRecords &out) {
    ZelRC rc = 0;
    zel::RoutineTrace trace(s, "locate_ZEL_TR", rc);
    const std::string_view id = q.id_assertion();
    std::string filter;
    if (mode == zel::kFirstGenerationMode)
        zel::append_text(filter, {"(&(objectClass=eTargetRecord)(|(cn=", id, ")(cn=G:*)))"});
    else
        zel::append_text(filter, {"(|(secResCredsID=", id, ")(secResCredsID=G:*))"});
    zel::tracef(s, zel::kTraceProgress, "zelmgmt:Target being looked for: %s\n", q.credential_id.c_str());
    char **attrs = const_cast<char **>(zel::kCredentialAttributes);
    if ((rc = zel::search_mapped(s, user_dn.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs, 0, 0, 0,
                                 out.result)) != 0)
        return rc;
    for (LDAPMessage *e = ldap_first_entry(s->ld, out.result.get()); e; e = ldap_next_entry(s->ld, e)) {
        const char *dn = zel::entry_dn(s->ld, e);
        if (names_group(dn)) {
            out.groups.push_back(e);
            out.group_dns.push_back(dn);
        } else if (!out.direct)
            out.direct = e;
    }
    return rc;
}

// Which of the candidate groups hold the resource in one storage form.
struct FormAsk {
    unsigned slot = 0;                     // the candidates' slot for this ask
    const Container *container = nullptr;  // the session's (container_of)
    const char *naming = nullptr;          // the groups' naming attribute
    // Holds the resource and is one of the candidates: a slice of the
    // query's filter text, which joins both asks' filters for one search.
    size_t filter_at = 0, filter_size = 0;
    bool needed = false;
};

// The candidates' slots (Candidate::fits, held) of the two asks.
constexpr unsigned kInDomain = 0, kInDatabase = 1;

// Appends the ask's filter to `f`, measured first and then written in
// place.  A group's DN must fit a DN buffer; escaping at most triples a
// name, so only a long one is escaped to be measured.
void prepare_ask(FormAsk &ask, unsigned slot, const Container &container, std::string_view naming,
                 const zel::HoldsFilter &holds, Candidates &candidates, std::string &f) {
    ask.slot = slot;
    ask.naming = naming.data();
    ask.container = &container;
    const size_t fixed = naming.size() + 1 + 1 + container.dn.size();
    size_t size = 2 + holds.size() + 2 + 2;
    bool asked = false;
    for (size_t i = 0; i < candidates.size(); ++i) {
        Candidate &c = candidates[i];
        if (c.name.empty()) continue;
        c.fits[slot] = fixed + 3 * c.name.size() < zel::kDnSize ||
                       fixed + plat::escape_dn_value(c.name).size() < zel::kDnSize;
        if (!c.fits[slot]) continue;
        size += 1 + naming.size() + 1 + c.in_filter().size() + 1;
        asked = true;
    }
    ask.filter_at = f.size();
    ask.filter_size = size;
    ask.needed = container.ok && asked;
    f.resize(f.size() + size);
    char *out = &f[ask.filter_at];
    auto put = [&out](std::string_view text) {
        std::memcpy(out, text.data(), text.size());
        out += text.size();
    };
    put("(&");
    put(holds.head);
    put(holds.value);
    put(holds.tail);
    put("(|");
    for (size_t i = 0; i < candidates.size(); ++i) {
        const Candidate &c = candidates[i];
        if (c.name.empty() || !c.fits[slot]) continue;
        *out++ = '(';
        put(naming);
        *out++ = '=';
        put(c.in_filter());
        *out++ = ')';
    }
    put("))");
}

// Whether the server's matching rule takes two group names for one; out of
// line, as the copy it makes is seldom needed.
[[gnu::noinline]] bool same_name(const std::string &candidate, std::string_view name) {
    return plat::zstricmp_spaced(plat::zgetUTF8Handle(), candidate.c_str(), std::string(name).c_str()) == 0;
}

// Marks the candidates an entry of the answer names, if it is a child of
// the ask's container.  The server found the entry by the group's name as
// its matching rule compares them (case and insignificant spaces ignored);
// the name is matched back to the candidates the same way.  It is most
// often the very spelling of the record: that is told without a copy.
void mark_named(const FormAsk &ask, std::string_view name, Candidates &candidates) {
    for (size_t i = 0; i < candidates.size(); ++i) {
        Candidate &c = candidates[i];
        if (c.fits[ask.slot] && (c.name == name || same_name(c.name, name))) c.held[ask.slot] = true;
    }
}

// Whether `type` is the ask's naming attribute: most often its very spelling.
bool names_by(const FormAsk &ask, std::string_view type) {
    return type == ask.naming || zel::same_text(std::string(type).c_str(), ask.naming);
}

// Whether the entry lies directly below the ask's container (marking the
// candidate it names, if it is named by the ask's naming attribute).
bool mark_held(const FormAsk &ask, const Rdns &entry, Candidates &candidates) {
    if (entry.empty() || !same_rdns(entry, 1, ask.container->rdns)) return false;
    if (zel::same_text(entry[0].first.c_str(), ask.naming)) mark_named(ask, entry[0].second, candidates);
    return true;
}

// The deepest DN both containers lie below, as text; empty when none.
std::string common_base_text(const Rdns &a, const Rdns &b) {
    size_t n = 0;
    while (n < a.size() && n < b.size() && zel::same_text(a[a.size() - 1 - n].first.c_str(), b[b.size() - 1 - n].first.c_str()) &&
           zel::same_text(a[a.size() - 1 - n].second.c_str(), b[b.size() - 1 - n].second.c_str()))
        ++n;
    std::string base;
    for (size_t i = a.size() - n; i < a.size(); ++i) {
        const std::string &v = a[i].second;
        bool plain = !v.empty() && v.front() != ' ' && v.back() != ' ' &&
                     std::all_of(v.begin(), v.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == ' '; });
        base += (base.empty() ? "" : ",") + a[i].first + "=" + (plain ? v : plat::escape_dn_value(v));
    }
    return base;
}

// The session's two group containers compared: the deepest DN both lie
// below, and whether they are one DN.
const zel::SessionTexts &compare_containers(zel::SessionTexts &texts) {
    if (!texts.common_base_made) {
        texts.groups_common_base = common_base_text(texts.domain_groups.rdns, texts.database_groups.rdns);
        texts.same_group_containers = same_rdns(texts.domain_groups.rdns, 0, texts.database_groups.rdns);
        texts.common_base_made = true;
    }
    return texts;
}

// The user's first-generation profile, asked for in the groups' search
// when that search covers the person: a child of the person entry that
// names it as its associatedName.  A search of its own reads the first two
// such children; this reads the first two of the answer.
struct ProfileAsk {
    const std::string *person = nullptr;  // the person's DN as the directory gave it
    zel::ProfileVerdict verdict;
    std::string dn;
    int read = 0;
    // An entry of the answer that is neither below a container nor the
    // person's child: it may be a profile written another way, so the
    // profile is looked for on its own after all.
    bool unsure = false;
};

// The groups that group records name, and the filters that ask whether
// they hold the resource, one ask per storage form.
struct GroupQuestion {
    Candidates candidates;
    FormAsk in_domain, in_database;
    std::string filters;  // "(|" and the asks' filters, then ")"
    bool domain = false, first_gen = false;
};

// The deepest DN the asks' containers share, when both asks are needed
// and one subtree search covers them; null otherwise.
const std::string *shared_base(ZelSession *s, const GroupQuestion &g) {
    if (!g.in_domain.needed || !g.in_database.needed) return nullptr;
    const std::string &common = compare_containers(zel::session_texts(s)).groups_common_base;
    return common.empty() ? nullptr : &common;
}

// Whether the profile can ride along in the groups' search: it covers the
// person, who is no container of groups.
bool profile_rides(ZelSession *s, const GroupQuestion &g, const std::string &person) {
    const std::string *base = shared_base(s, g);
    return base && plat::dn_text_within(person, *base) && person != g.in_domain.container->dn &&
           person != g.in_database.container->dn;
}

// Appends the profile's piece to `g.filters` (before its closing ')').
void add_profile_filter(GroupQuestion &g, const std::string &person) {
    g.filters.pop_back();
    g.filters.append("(associatedName=");
    plat::append_filter_value(g.filters, person);
    g.filters.append("))");
}

// One search over the asks' containers: one level below a single container,
// the subtree of the common base of two (the entries outside the containers
// are passed over), one search each when the two share no base.  Each
// ask's filter is a slice of `filters`.  With `profile`, which only a
// subtree search of both containers takes, the profile rides along.
ZelRC ask_groups(ZelSession *s, FormAsk *first, FormAsk *second, Candidates &candidates, const std::string &filters,
                 ProfileAsk *profile = nullptr) {
    FormAsk *needed[2];
    size_t count = 0;
    for (FormAsk *a : {first, second})
        if (a && a->needed) needed[count++] = a;
    if (count == 0) return 0;
    const char *base = needed[0]->container->dn.c_str(), *filter = filters.c_str();
    std::string one;
    int scope = LDAP_SCOPE_ONELEVEL;
    // Two asks are always the domain's and the database's.
    const zel::SessionTexts *both = count == 2 ? &compare_containers(zel::session_texts(s)) : nullptr;
    const std::string *common = both ? &both->groups_common_base : nullptr;
    if (common && !common->empty()) {
        scope = LDAP_SCOPE_SUBTREE;
        base = common->c_str();
    } else if (count == 2) {
        if (ZelRC rc = ask_groups(s, needed[0], nullptr, candidates, filters)) return rc;
        return ask_groups(s, needed[1], nullptr, candidates, filters);
    } else {
        filter = one.assign(filters, needed[0]->filter_at, needed[0]->filter_size).c_str();
    }
    static char *const no_attrs[] = {const_cast<char *>(LDAP_NO_ATTRS), nullptr};
    static char *const profile_attrs[] = {const_cast<char *>("objectClass"), const_cast<char *>("userState"), nullptr};
    zel::Message res;
    int lrc = zel::search(s, base, scope, filter, const_cast<char **>(profile ? profile_attrs : no_attrs), 0, 0, res);
    if (lrc == LDAP_NO_SUCH_OBJECT) return 0;  // no such container: its groups hold nothing
    // The profile's own search would have failed first, and answered so.
    if (lrc != LDAP_SUCCESS)
        return check_LDAP_rc(s, static_cast<uint32_t>(lrc), profile ? ZEL_RC_ENTRY_NOT_FOUND : 0, "ldap_search_ext_s()");
    // Most entries name their group plainly below the very text of an ask's
    // container: they are matched without parsing the DN.  The other ask
    // takes such an entry only when its container is the same DN.
    const bool same_containers = both && both->same_group_containers;
    Rdns rdns;
    std::string_view type, value;
    for (LDAPMessage *e = ldap_first_entry(s->ld, res.get()); e; e = ldap_next_entry(s->ld, e)) {
        const char *dn = zel::entry_dn(s->ld, e);
        if (!dn) {
            if (profile) profile->unsure = true;
            continue;
        }
        const char *parent = nullptr;
        const bool plain = plat::plain_first_rdn(dn, type, value, parent);
        if (profile) {
            const char *above = plain ? parent : plat::dn_parent(dn);
            if (above && *profile->person == above) {
                if (profile->read++ < 2 && profile->verdict.rc == 0)
                    zel::read_profile(s, e, false, profile->verdict, &profile->dn);
                continue;
            }
        }
        size_t below = count;
        if (plain)
            for (size_t k = 0; k < count && below == count; ++k)
                if (needed[k]->container->dn == parent) below = k;
        if (below < count) {
            for (size_t k = 0; k < count; ++k)
                if ((k == below || same_containers) && names_by(*needed[k], type))
                    mark_named(*needed[k], value, candidates);
            continue;
        }
        bool placed = false;
        if (split_dn(dn, rdns))
            for (size_t k = 0; k < count; ++k) placed |= mark_held(*needed[k], rdns, candidates);
        if (profile && !placed) profile->unsure = true;
    }
    return 0;
}

// The candidates a form's group records name, and the asks about them.
// Records of the security domain form look at the domain's group and then
// at the Zel database's group of that name; first-generation records at
// the latter.
ZelRC prepare_groups(ZelSession *s, const CredentialQuery &q, int32_t mode, const FormRecords &records,
                     GroupQuestion &g) {
    Candidates &candidates = g.candidates;
    candidates.grow_to(records.groups.size());
    size_t names_size = 0;
    for (size_t i = 0; i < candidates.size(); ++i) {
        Candidate &c = candidates[i];
        if (ZelRC rc = zel::credential_group(records.group_dns[i], c.name)) return rc;
        if (!plat::filter_value_is_plain(c.name)) plat::append_filter_value(c.escaped, c.name);
        names_size += c.in_filter().size();
    }
    // A security domain record held in no domain: without a domain DN there
    // is nothing to ask.
    g.domain = mode == zel::kDomainMode && s->domain_dn;
    g.first_gen = s->database_dn && (mode == zel::kFirstGenerationMode || g.domain);
    std::string &filters = g.filters;
    // Room for both asks and the profile's piece, as most sessions name them.
    filters.reserve(2 * (names_size + 16 * candidates.size()) + 512);
    filters.assign("(|");
    zel::SessionTexts &texts = zel::session_texts(s);
    if (g.domain)
        prepare_ask(g.in_domain, kInDomain,
                    container_of(texts, texts.domain_groups, "cn=ResourceGroups,", s->domain_dn, true),
                    "secResGroupID", q.member_pieces(), candidates, filters);
    if (g.first_gen)
        prepare_ask(g.in_database, kInDatabase,
                    container_of(texts, texts.database_groups, "cn=Zel Domains,", s->database_dn, false), "cn",
                    q.location_pieces(), candidates, filters);
    filters.push_back(')');
    return 0;
}

// The first group record whose group holds the resource, once the asks
// were answered.
ZelRC first_held_group(const GroupQuestion &g, int32_t mode, FormRecords &records, LDAPMessage *&answer,
                       CredentialTrail *trail) {
    for (size_t i = 0; i < g.candidates.size(); ++i) {
        const Candidate &c = g.candidates[i];
        int32_t held_in = 0;
        if (!c.name.empty()) {
            if (g.domain && !c.fits[kInDomain]) return ZEL_RC_LIMIT_EXCEEDED;
            if (g.domain && c.held[kInDomain]) {
                held_in = zel::kDomainMode;
            } else if (g.first_gen) {
                if (!c.fits[kInDatabase]) return ZEL_RC_LIMIT_EXCEEDED;
                if (c.held[kInDatabase]) held_in = zel::kFirstGenerationMode;
            }
        }
        if (trail) trail->group(mode, records.groups[i], c.name, held_in);
        if (held_in) {
            answer = records.groups[i];
            return 0;
        }
    }
    return 0;
}

// The user's records in one form; a user who is no Zel user there has none.
ZelRC form_records(ZelSession *s, const zel::UserForm &user, int32_t mode, const CredentialQuery &q,
                   FormRecords &out, CredentialTrail *trail) {
    if (!user.dn.empty())
        if (ZelRC rc = search_form_records(s, user.dn, mode, q, out)) return rc;
    if (trail && !user.dn.empty()) trail->direct(mode, out.direct);
    return 0;
}

ZelRC answer_with(FormRecords &records, int32_t mode, LDAPMessage *entry, zel::CredentialAnswer &answer) {
    answer.result = std::move(records.result);
    answer.entry = entry;
    answer.mode = mode;
    return 0;
}

}  // namespace

namespace zel {

ZelRC merged_credential(ZelSession *s, const char *user, const CredentialQuery &q, CredentialAnswer &answer,
                        CredentialTrail *trail) {
    UserLookup users(s, user);
    const int32_t own = session_mode(s);
    const UserForm &mine = users.form(own);
    if (trail) trail->user(own, mine);
    // First generation: a user who is no Zel user, or an inactive one, gets nothing.
    if (first_generation(s) ? mine.rc != 0 : !search_made(mine.rc)) return mine.rc;
    FormRecords records;
    if (ZelRC rc = form_records(s, mine, own, q, records, trail)) return rc;
    if (records.direct) return answer_with(records, own, records.direct, answer);

    // A security domain session also sees the Zel database's records.  When
    // its own group records are the candidates, their groups are asked about
    // before the first generation is looked at, in the same search as the
    // user's profile there, if one search covers both.
    FormRecords older;
    GroupQuestion groups;
    bool prepared = false, asked = false;
    ZelRC unprepared = 0;  // the groups' failure, answered where the groups are asked about
    if (!first_generation(s) && s->database_dn) {
        if (!records.groups.empty() && !users.known(kFirstGenerationMode)) {
            unprepared = prepare_groups(s, q, own, records, groups);
            prepared = true;
            const std::string &person = users.person_dn();
            if (unprepared == 0 && profile_rides(s, groups, person)) {
                add_profile_filter(groups, person);
                ProfileAsk profile;
                profile.person = &person;
                ZelRC rc = ask_groups(s, &groups.in_domain, &groups.in_database, groups.candidates, groups.filters,
                                      &profile);
                asked = rc == 0;
                if (rc != 0)
                    users.settle(kFirstGenerationMode, rc, {});
                else if (!profile.unsure)
                    users.settle(kFirstGenerationMode, profile.verdict.result(&profile.dn), std::move(profile.dn));
            }
        }
        const UserForm &first_gen = users.form(kFirstGenerationMode);
        if (trail) trail->user(kFirstGenerationMode, first_gen);
        if (!search_made(first_gen.rc)) return first_gen.rc;
        if (ZelRC rc = form_records(s, first_gen, kFirstGenerationMode, q, older, trail)) return rc;
        if (older.direct) return answer_with(older, kFirstGenerationMode, older.direct, answer);
    }

    bool own_groups = !records.groups.empty() || first_generation(s) || !s->database_dn;
    FormRecords &candidates = own_groups ? records : older;
    const int32_t mode = own_groups ? own : kFirstGenerationMode;
    // Groups prepared above were the session's own: the same as these.
    if (!prepared) unprepared = prepare_groups(s, q, mode, candidates, groups);
    if (unprepared != 0) return unprepared;
    if (!asked) {
        if (ZelRC rc = ask_groups(s, &groups.in_domain, &groups.in_database, groups.candidates, groups.filters))
            return rc;
    }
    LDAPMessage *entry = nullptr;
    if (ZelRC rc = first_held_group(groups, mode, candidates, entry, trail)) return rc;
    if (entry) answer_with(candidates, mode, entry, answer);
    return 0;
}

}  // namespace zel
