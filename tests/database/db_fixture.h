// An empty directory suffix for the database provisioning tests, a
// first-generation session on it, and the tree read back in one piece.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "support/session.h"

namespace dbtest {

using namespace zeltest;
using fault::Fn;

inline const std::string kDb = "systemName=ORVZEL,o=acme";
inline const std::string kAdmin = "cn=Zel Sr Admin,o=acme";
inline std::string below(const char *rdn) { return std::string(rdn) + "," + kDb; }
inline std::string group(const char *cn) { return std::string("cn=") + cn + ",cn=Access Groups," + kDb; }

template <Kind K = Kind::Generic>
class DatabaseTestAs : public VersionedSessionTest {
protected:
    Profile profile() const override { return Profile().kind_is(K); }
    void SetUp() override {
        VersionedSessionTest::SetUp();
        open(1);
    }
    void TearDown() override {
        s.reset();
        VersionedSessionTest::TearDown();
    }
    ZelRC create(unsigned char flags = 0, const char *admin = nullptr, const char *suffix = "o=acme") {
        return Zel_createDatabase(s.get(), suffix, admin, nullptr, nullptr, flags);
    }
    // Every DN below base, sorted.
    std::vector<std::string> tree(const std::string &base = "o=acme") const {
        std::vector<std::string> out;
        for (const Entry &e : dir->search(base)) out.push_back(e.dn);
        std::sort(out.begin(), out.end());
        return out;
    }
    std::vector<std::string> values(const std::string &dn, const char *attr) const {
        return dir->entry(dn).values(attr);
    }
};
using DatabaseTest = DatabaseTestAs<>;
using OrvDatabase = DatabaseTestAs<Kind::Orv>;

}  // namespace dbtest
