// zelctl import: an export document written back.  What is missing is
// created, what differs is updated, what is equal is left alone, in the order
// the objects depend on each other (service types, services, resource
// groups, users, records).  Every object is one library call, so a failed
// one is reported and the rest go on; --dry-run reports the same without
// writing.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>

#include "document.h"
#include "progress.h"
#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

enum class Outcome { Created, Updated, Unchanged, Failed };

// A look-up's answer that the object is not there (each family has its own
// "not found" status).
constexpr ZelRC kMissing = ~ZelRC{0};

// A Zel user's type where the storage form keeps none (the security domain's).
constexpr const char *kDefaultUserType = "User";

char *c_text(const Text &t) { return t ? const_cast<char *>(t->c_str()) : nullptr; }
bool same(const Text &a, const char *b) { return a ? b != nullptr && *a == b : b == nullptr || *b == '\0'; }

Pairs sorted(Pairs pairs) {
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

// A record's list of pairs (identifiers, members) as the document keeps it.
template <class Pair>
Pairs sorted_pairs(int32_t count, Pair *const *items, char *Pair::*first, char *Pair::*second) {
    Pairs out;
    for (int32_t i = 0; i < count; ++i)
        out.emplace_back(items[i]->*first ? items[i]->*first : "", items[i]->*second ? items[i]->*second : "");
    return sorted(std::move(out));
}

// A document's pairs as the array of C records a write takes; the texts stay
// the document's.
template <class Pair>
class CPairs {
public:
    CPairs(const Pairs &pairs, char *Pair::*first, char *Pair::*second) : items_(pairs.size()) {
        for (size_t i = 0; i < pairs.size(); ++i) {
            items_[i].*first = const_cast<char *>(pairs[i].first.c_str());
            items_[i].*second = const_cast<char *>(pairs[i].second.c_str());
            pointers_.push_back(&items_[i]);
        }
    }
    int32_t count() const { return static_cast<int32_t>(items_.size()); }
    Pair **array() { return pointers_.empty() ? nullptr : pointers_.data(); }

private:
    std::vector<Pair> items_;
    std::vector<Pair *> pointers_;
};

// Type names and identifier names as the directory compares them: ignoring case.
std::string folded(std::string text) {
    for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::vector<std::string> folded_sorted(std::vector<std::string> names) {
    for (std::string &n : names) n = folded(std::move(n));
    std::sort(names.begin(), names.end());
    return names;
}

// The only types a security domain knows; they are built in and have no entry.
bool builtin_type(const std::string &name) {
    return folded(name) == "web resource" || folded(name) == "resource group";
}

class Importer {
public:
    Importer(ZelSession *s, const Options &opts, bool dry_run) : s_(s), opts_(opts), dry_run_(dry_run) {}

    // The types the session sees, read once: there are few, and no call
    // reads a single one.
    void read_types() {
        ZelTargetServiceTypeList *raw = nullptr;
        types_read_ = Zel_getAllTargetServiceType(s_, &raw);
        Held<ZelTargetServiceTypeList, Zel_freeTargetServiceTypes> list(raw);
        if (types_read_ == ZEL_RC_TST_NOT_FOUND) types_read_ = 0;
        for (int32_t i = 0; list && i < list->count; ++i) {
            const ZelTargetServiceType *t = list->types[i];
            std::vector<std::string> ids;
            for (int32_t k = 0; k < t->identifierCount; ++k)
                ids.emplace_back(t->identifierNames[k] ? t->identifierNames[k] : "");
            known_types_[folded(t->typeName ? t->typeName : "")] = folded_sorted(std::move(ids));
        }
        types_have_a_home_ = knows_database();
    }

    void service_type(const DocServiceType &d) {
        const char *kind = "service type";
        if (types_read_ != 0) return report(kind, d.name, Outcome::Failed, types_read_);
        auto found = known_types_.find(folded(d.name));
        if (found != known_types_.end()) {
            // A type has no update call: one that differs is left as it is.
            bool equal = found->second == folded_sorted(d.identifiers);
            return report(kind, d.name, equal ? Outcome::Unchanged : Outcome::Failed,
                          equal ? 0 : ZEL_RC_ALREADY_EXISTS);
        }
        // Types are entries of the Zel database.  A security domain without
        // one still has its own built-in types.
        if (!types_have_a_home_)
            return builtin_type(d.name) ? report(kind, d.name, Outcome::Unchanged, 0)
                                        : report(kind, d.name, Outcome::Failed, ZEL_RC_DATABASE_NOT_FOUND);
        std::vector<char *> names;
        for (const std::string &n : d.identifiers) names.push_back(const_cast<char *>(n.c_str()));
        ZelTargetServiceType t{const_cast<char *>(d.name.c_str()), static_cast<int32_t>(names.size()),
                               names.empty() ? nullptr : names.data()};
        write(kind, d.name, [&] {
            ZelSession *ts = older_session();
            return ts ? Zel_addTargetServiceType(ts, &t) : ZEL_RC_CONNECT_FAILED;
        }, Outcome::Created);
    }

    void service(const DocService &d) {
        ZelSession *s = session_of(d.storage);
        if (s == nullptr) return report("service", d.name, Outcome::Failed, ZEL_RC_CONNECT_FAILED);
        ZelTargetService *raw = nullptr;
        ZelRC rc = Zel_getTargetService(s, d.name.c_str(), &raw);
        Held<ZelTargetService, Zel_freeTargetService> old(raw);
        CPairs<ZelReqIdentifier> ids(d.identifiers, &ZelReqIdentifier::name, &ZelReqIdentifier::value);
        ZelTargetService wanted{const_cast<char *>(d.name.c_str()), c_text(d.type), c_text(d.description),
                                ids.count(), ids.array()};
        settle("service", d.name, rc == ZEL_RC_TS_NOT_FOUND ? kMissing : rc,
               [&] { return Zel_addTargetService(s, &wanted); },
               [&] {
                   return same(d.type, old->type) && same(d.description, old->description) &&
                          sorted_pairs(old->reqIdentifierCount, old->reqIdentifiers, &ZelReqIdentifier::name,
                                       &ZelReqIdentifier::value) == sorted(d.identifiers);
               },
               // A service has no update call: one that differs is left as it is.
               [&] { report("service", d.name, Outcome::Failed, ZEL_RC_ALREADY_EXISTS); });
    }

    void group(const DocGroup &d) {
        ZelSession *s = session_of(d.storage);
        if (s == nullptr) return report("resource group", d.name, Outcome::Failed, ZEL_RC_CONNECT_FAILED);
        ZelDomain *raw = nullptr;
        ZelRC rc = Zel_getZelDomain(s, d.name.c_str(), &raw);
        Held<ZelDomain, Zel_freeZelDomain> old(raw);
        CPairs<ZelDomainLocation> locs(d.members, &ZelDomainLocation::type, &ZelDomainLocation::value);
        ZelDomain wanted{const_cast<char *>(d.name.c_str()), c_text(d.description), locs.count(), locs.array()};
        settle("resource group", d.name, rc == ZEL_RC_ZEL_DOMAIN_NOT_FOUND ? kMissing : rc,
               [&] { return Zel_addZelDomain(s, &wanted); },
               [&] {
                   return same(d.description, old->description) &&
                          sorted_pairs(old->locationCount, old->locations, &ZelDomainLocation::type,
                                       &ZelDomainLocation::value) == sorted(d.members);
               },
               [&] { return Zel_updateZelDomain(s, &wanted); });
    }

    // Every user the session sees, read once: a document of thousands of
    // users is then compared without a look-up each.  Without the list the
    // users are looked up one by one.
    void read_users() {
        ZelUserList *raw = nullptr;
        if (Zel_getAllZelUser(s_, &raw) != 0) return;
        users_.reset(raw);
        // A security domain session lists its own users first, then the
        // first generation's: as many at the end as that form's session lists.
        int32_t older_count = 0;
        if (opts_.api_version >= 2 && knows_database()) {
            ZelSession *older = older_session();
            ZelUserList *raw_older = nullptr;
            if (older == nullptr || Zel_getAllZelUser(older, &raw_older) != 0) return users_.reset();
            older_count = raw_older->count;
            Zel_freeZelUsers(raw_older);
        } else if (opts_.api_version < 2) {
            older_count = users_->count;
        }
        for (int32_t i = 0; i < users_->count; ++i) {
            bool older = i >= users_->count - older_count;
            if (users_->users[i]->userName) known_users_[older].emplace(users_->users[i]->userName, users_->users[i]);
        }
    }

    void user(const DocUser &d) {
        ZelSession *s = session_of(d.storage);
        if (s == nullptr) return report("user", d.name, Outcome::Failed, ZEL_RC_CONNECT_FAILED);
        ZelUser *raw = nullptr;
        const ZelUser *old = nullptr;
        ZelRC rc = 0;
        if (users_) {
            const auto &known = known_users_[first_generation(d.storage)];
            auto found = known.find(d.name);
            old = found == known.end() ? nullptr : found->second;
            rc = old ? 0 : ZEL_RC_USER_NOT_FOUND;
        } else {
            rc = Zel_getZelUser(s, d.name.c_str(), &raw);
            old = raw;
        }
        Held<ZelUser, Zel_freeZelUser> looked_up(raw);
        ZelUser wanted{const_cast<char *>(d.name.c_str()),
                       const_cast<char *>(d.type ? d.type->c_str() : kDefaultUserType), c_text(d.description),
                       static_cast<unsigned char>(d.enabled ? 1 : 0), c_text(d.person)};
        bool created = settle(
            "user", d.name, rc == ZEL_RC_USER_NOT_FOUND ? kMissing : rc, [&] { return Zel_addZelUser(s, &wanted); },
            [&] {
                return (old->enabled != 0) == d.enabled && same(d.description, old->description) &&
                       (!d.person || same(d.person, old->personDN)) && (!d.type || same(d.type, old->userType));
            },
            [&] { return Zel_updateZelUser(s, &wanted); });
        // A user made now has no records yet: they need no look-up.
        if (created) new_users_.insert({d.name, first_generation(d.storage)});
    }

    // Every record the session sees, read once in bulk: an unchanged record
    // is then known without a look-up of its own.  Anything the bulk read
    // cannot settle (a record missing, different or not unique in its form)
    // is looked up and written one by one, as without it.
    void read_records() {
        ZelUserTargetRecordList *raw = nullptr;
        if (Zel_getAllUserTargetRecord(s_, &raw) != 0) return;
        records_.reset(raw);
        records_read_ = true;
        for (int32_t i = 0; i < records_->count; ++i) {
            const ZelUserTargetRecord *r = records_->records[i];
            if (r->userName == nullptr || r->record->targetRecordId == nullptr) continue;
            Stored &slot = known_records_[{r->userName, r->record->targetRecordId}];
            (r->form == ZEL_FORM_SECURITY_DOMAIN ? slot.domain : slot.first_generation).push_back(r->record);
        }
    }

    void record(const DocRecord &d, bool sealed) {
        const std::string name = d.user + " " + d.id;
        std::string password;
        if (sealed && d.password) {
            char *clear = nullptr;
            ZelRC rc = Zel_unsealPassword(d.password->c_str(), &clear);
            if (rc != 0) return report("record", name, Outcome::Failed, rc);
            password = clear;
            std::memset(clear, 0, password.size());
            Zel_memfree(clear);
        }
        // The security domain form keeps only whether the service is a web
        // resource, and reads anything else back as a resource group: there
        // the service's own type is the record's, whatever the document says.
        ZelTargetRecord wanted{const_cast<char *>(d.id.c_str()), c_text(d.description), c_text(d.account),
                               sealed && d.password ? password.data() : nullptr, c_text(d.service),
                               first_generation(d.storage) ? c_text(d.type) : nullptr};
        ZelSession *s = session_of(d.storage);
        if (s == nullptr) {
            report("record", name, Outcome::Failed, ZEL_RC_CONNECT_FAILED);
        } else if (const ZelTargetRecord *known = known_record(d); known && same_record(d, wanted, known)) {
            report("record", name, Outcome::Unchanged, 0);
        } else {
            compare_and_write(s, d, name, wanted);
        }
        forget_secret(password);
    }

    int finish() {
        int changed = counts_[0] + counts_[1];
        if (opts_.json) {
            print_json(Json{{"dryRun", dry_run_}, {"created", counts_[0]}, {"updated", counts_[1]},
                            {"unchanged", counts_[2]}, {"failed", counts_[3]}, {"objects", objects_}});
        } else {
            say("%s%d created, %d updated, %d unchanged, %d failed%s\n", dry_run_ ? "dry run: " : "",
                counts_[0], counts_[1], counts_[2], counts_[3], changed == 0 ? ": nothing changed" : "");
        }
        return counts_[3] ? 1 : 0;
    }

private:
    // Only a first-generation session writes type entries (a security
    // domain session takes its built-in ones as written) and objects of that
    // form: for a security domain session one of the first generation is
    // opened on the same directory, when needed.
    ZelSession *older_session() {
        if (opts_.api_version < 2) return s_;
        if (!older_session_) {
            Options first_generation = opts_;
            first_generation.api_version = 1;
            older_session_ = open_session(first_generation);
        }
        return older_session_.get();
    }

    // An object without a form of its own is written in the session's.
    bool first_generation(int storage) const {
        return storage == kFirstGenerationForm || (storage == kDocumentForm && opts_.api_version < 2);
    }
    ZelSession *session_of(int storage) { return first_generation(storage) ? older_session() : s_; }

    bool knows_database() {
        if (database_known_ < 0) {
            ZelSessionInfo *info = nullptr;
            database_known_ = Zel_getSessionInfo(s_, &info) == 0 && info->databaseDN != nullptr;
            Zel_freeSessionInfo(info);
        }
        return database_known_ == 1;
    }

    struct Stored {
        std::vector<const ZelTargetRecord *> domain, first_generation;
    };

    // The record of this user and id in the document's form, as far as the
    // bulk read tells.  Null when there is none or it cannot tell.
    const ZelTargetRecord *known_record(const DocRecord &d) const {
        const std::vector<const ZelTargetRecord *> *in_form = stored(d);
        return in_form && in_form->size() == 1 ? in_form->front() : nullptr;
    }
    const std::vector<const ZelTargetRecord *> *stored(const DocRecord &d) const {
        auto it = known_records_.find({d.user, d.id});
        if (it == known_records_.end()) return nullptr;
        return first_generation(d.storage) ? &it->second.first_generation : &it->second.domain;
    }
    // The bulk read saw every record: one it did not list in this form is new.
    bool known_missing(const DocRecord &d) const {
        if (!records_read_) return false;
        const std::vector<const ZelTargetRecord *> *in_form = stored(d);
        return in_form == nullptr || in_form->empty();
    }

    static bool same_record(const DocRecord &d, const ZelTargetRecord &wanted, const ZelTargetRecord *old) {
        return same(d.service, old->targetServiceName) && same(d.account, old->userId) &&
               same(d.description, old->description) &&
               (wanted.password == nullptr ||
                (old->password != nullptr && std::strcmp(wanted.password, old->password) == 0));
    }

    void compare_and_write(ZelSession *s, const DocRecord &d, const std::string &name, ZelTargetRecord &wanted) {
        ZelTargetRecord *raw = nullptr;
        ZelRC rc = new_users_.count({d.user, first_generation(d.storage)}) || known_missing(d)
                       ? ZEL_RC_TR_NOT_FOUND
                       : Zel_getTargetRecord(s, d.user.c_str(), d.id.c_str(), &raw);
        Held<ZelTargetRecord, Zel_freeTargetRecord> old(raw);
        settle("record", name, rc == ZEL_RC_TR_NOT_FOUND || rc == ZEL_RC_USER_NOT_FOUND ? kMissing : rc,
               [&] { return Zel_addTargetRecord(s, d.user.c_str(), &wanted); },
               [&] { return same_record(d, wanted, old.get()); },
               [&] { return Zel_updateTargetRecord(s, d.user.c_str(), &wanted); });
    }

    // One object of the document against what the look-up found (`looked_up`:
    // 0, kMissing or the look-up's failure): created when missing, left alone
    // when equal, else changed.  `change` is the update call; one that
    // returns nothing reports for itself (a family without an update call).
    // True when the object was created (or, in a dry run, would be).
    template <class Add, class Equal, class Change>
    bool settle(const char *kind, const std::string &name, ZelRC looked_up, Add &&add, Equal &&equal,
                Change &&change) {
        if (looked_up == kMissing) return write(kind, name, add, Outcome::Created);
        if (looked_up != 0) {
            report(kind, name, Outcome::Failed, looked_up);
        } else if (equal()) {
            report(kind, name, Outcome::Unchanged, 0);
        } else if constexpr (std::is_void_v<decltype(change())>) {
            change();
        } else {
            write(kind, name, change, Outcome::Updated);
        }
        return false;
    }

    // True when the write was made (or, in a dry run, would be).
    template <class Fn>
    bool write(const char *kind, const std::string &name, Fn &&call, Outcome outcome) {
        ZelRC rc = dry_run_ ? 0 : call();
        report(kind, name, rc == 0 ? outcome : Outcome::Failed, rc);
        return rc == 0;
    }

    void report(const char *kind, const std::string &name, Outcome outcome, ZelRC rc) {
        static const char *const kWords[] = {"created", "updated", "unchanged", "failed"};
        static const char *const kDryWords[] = {"would be created", "would be updated", "unchanged", "failed"};
        int i = static_cast<int>(outcome);
        ++counts_[i];
        const char *word = dry_run_ ? kDryWords[i] : kWords[i];
        if (opts_.json) {
            Json object{{"kind", kind}, {"name", name}, {"outcome", kWords[i]}};
            if (outcome == Outcome::Failed) object["status"] = rc;
            objects_.push_back(std::move(object));
        } else if (outcome == Outcome::Failed) {
            say("%s %s: failed: %s (status %u)\n", kind, name.c_str(), Zel_strerror(rc), rc);
        } else {
            say("%s %s: %s\n", kind, name.c_str(), word);
        }
    }

    ZelSession *s_;
    Session older_session_;
    int database_known_ = -1;  // the session knows a Zel database; -1 not asked yet
    ZelRC types_read_ = 0;
    bool types_have_a_home_ = true;  // the session knows a Zel database to keep types in
    std::map<std::string, std::vector<std::string>> known_types_;  // folded name: folded, sorted identifier names
    Held<ZelUserList, Zel_freeZelUsers> users_;
    std::map<std::string, const ZelUser *> known_users_[2];  // by form: [1] the first generation
    std::set<std::pair<std::string, bool>> new_users_;        // name, of the first generation
    bool records_read_ = false;
    Held<ZelUserTargetRecordList, Zel_freeUserTargetRecords> records_;
    std::map<std::pair<std::string, std::string>, Stored> known_records_;  // by user and id
    const Options &opts_;
    bool dry_run_;
    int counts_[4] = {};
    Json objects_ = Json::array();
};

bool read_file(const std::string &path, std::string &out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::stringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return !in.bad();
}

}  // namespace

int run_import(const Options &given_opts, Args args) {
    int status = 0;
    bool dry_run = given_opts.dry_run;
    bool quiet = take_flag(args, "--quiet");
    std::vector<std::string> operands;
    if (!take_operands(args, "import", {"FILE"}, operands, status)) return status;
    std::string text, error;
    if (!read_file(operands[0], text)) return usage("import: cannot read " + operands[0]);
    Document doc;
    if (!read_document(text, doc, error)) return usage("import: " + operands[0] + ": " + error);
    bool sealed = doc.passwords == "sealed";

    // The document's storage form, unless the command line names one.
    Options opts = given_opts;
    if (!opts.api_version_given) opts.api_version = static_cast<uint32_t>(doc.storage);
    Session s(open_session(opts));
    if (!s) return 1;
    Importer importer(s.get(), opts, dry_run);
    Progress progress("import",
                      doc.types.size() + doc.services.size() + doc.groups.size() + doc.users.size() +
                          doc.records.size(),
                      quiet);
    if (!doc.types.empty()) importer.read_types();
    for (const DocServiceType &d : doc.types) importer.service_type(d), progress.step();
    for (const DocService &d : doc.services) importer.service(d), progress.step();
    for (const DocGroup &d : doc.groups) importer.group(d), progress.step();
    if (!doc.users.empty()) importer.read_users();
    for (const DocUser &d : doc.users) importer.user(d), progress.step();
    if (!doc.records.empty()) importer.read_records();
    for (const DocRecord &d : doc.records) importer.record(d, sealed), progress.step();
    progress.done();
    return importer.finish();
}

}  // namespace zelctl
