// Opening library sessions against a test directory.
#pragma once

#include <memory>
#include <string>

#include "support/directory.h"
#include "support/fault_injection.h"
#include "zelmgmt.h"

namespace zeltest {

struct SessionClose {
    void operator()(ZelSession *s) const {
        if (s) Zel_close(s, 1);
    }
};
using Session = std::unique_ptr<ZelSession, SessionClose>;

// Opens a session bound as the directory's administrator over plain LDAP.
// version < 2 opens without a security domain (Zel_open); version 2 opens on
// the profile's domain (Zel_open_sec_domain).  A failed open fails the test
// and gives null.
Session open_session(const Directory &dir, uint32_t version = 2);

// The status of such an open, for tests of open itself; bound as `bind_dn`
// with `password` when one is given.
ZelRC try_open(const Directory &dir, uint32_t version, ZelSession **out, const std::string &bind_dn = "",
               const char *password = nullptr);

// A session bound as someone other than the directory's root.
Session open_session_as(const Directory &dir, const std::string &bind_dn, const char *password,
                        uint32_t version = 2);

// A fresh directory and a version-2 session on it per test; the calls made by
// opening are cleared from the record.
class SessionTest : public DirectoryTest {
protected:
    void SetUp() override {
        DirectoryTest::SetUp();
        s = open_session(*dir, 2);
        ASSERT_TRUE(s);
        fault::reset();
    }
    void TearDown() override {
        s.reset();
        DirectoryTest::TearDown();
    }
    Session s;
};

// A fresh directory per test; open() gives it a session of the storage form
// asked for, with the calls made by opening cleared from the record.
class VersionedSessionTest : public DirectoryTest {
protected:
    void open(uint32_t version) {
        s = open_session(*dir, version);
        ASSERT_TRUE(s);
        fault::reset();
    }
    Session s;
};

// Seed LDIF of a first-generation Zel database entry under the suffix:
// systemName=ORVZEL,<suffix> with the containers the library expects.
std::string database_ldif(const std::string &suffix);

// Seed LDIF of a person entry cn=<cn>,<parent> with uid <uid>, and a
// password to bind with when one is given.
std::string person_ldif(const std::string &parent, const std::string &cn, const std::string &uid,
                        const std::string &password = "");

}  // namespace zeltest
