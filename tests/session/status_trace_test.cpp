// The LDAP result mapping, handle validation and the trace levels.
#include <gtest/gtest.h>

#include <cstring>

#include "support/env.h"
#include "support/session.h"

using namespace zeltest;

TEST(CheckLdapRc, MapsEveryListedResultAndFallsBackToDefaultOrCode) {
    const std::pair<uint32_t, ZelRC> table[] = {
        {1, 2}, {3, 2}, {14, 2}, {51, 2}, {52, 2}, {53, 2}, {80, 2}, {81, 2}, {82, 2}, {89, 2}, {91, 2}, {129, 2},
        {2, 1007}, {4, 1008}, {11, 1008}, {70, 1008}, {85, 1015}, {101, 1008},
        {5, 1009}, {6, 1009}, {9, 1009}, {10, 1009}, {12, 1009}, {17, 1009}, {18, 1009}, {19, 1009},
        {21, 1009}, {33, 1009}, {36, 1009}, {64, 1009},
        {7, 7}, {8, 7}, {13, 7}, {48, 7}, {50, 7}, {86, 7}, {88, 7},
        {32, 6}, {34, 23}, {87, 23}, {49, 4}, {196, 4}, {65, 1014}, {66, 10}, {68, 5}, {116, 31}, {208, 34}};
    for (auto [ldap_rc, status] : table) {
        EXPECT_EQ(check_LDAP_rc(nullptr, ldap_rc, 1003, "op()"), status) << "LDAP result " << ldap_rc;
        EXPECT_EQ(check_LDAP_rc(nullptr, ldap_rc, 0, "op()"), status) << "LDAP result " << ldap_rc;
    }
    EXPECT_EQ(check_LDAP_rc(nullptr, 68, 1014, "op()"), 5u);
    EXPECT_EQ(check_LDAP_rc(nullptr, 999, 0, "op()"), 999u);
    EXPECT_EQ(check_LDAP_rc(nullptr, 999, 1003, "op()"), 1003u);
    EXPECT_EQ(check_LDAP_rc(nullptr, 0, 4, "op()"), 4u);  // callers never pass 0
}

TEST(Strerror, NamesLibraryStatusesAndFallsBackToLdapTexts) {
    EXPECT_STREQ(Zel_strerror(ZEL_RC_TS_NOT_FOUND), "ZEL_RC_TS_NOT_FOUND: target service not found");
    EXPECT_EQ(std::string(Zel_strerror(ZEL_RC_INVALID_HANDLE)).rfind("ZEL_RC_INVALID_HANDLE:", 0), 0u);
    EXPECT_STREQ(Zel_strerror(53), ldap_err2string(53));
}

// Every public entry point of the session, target service and user families
// refuses a null or foreign
// handle with 1010 and prints nothing, even at the highest trace level.
TEST(HandleValidation, NullOrForeignHandleIsRefusedSilentlyEverywhere) {
    ScopedEnv debug("ZEL_DEBUG", "20");
    ZelSession foreign{};
    std::memcpy(foreign.tag, "ZEX", 4);
    foreign.debug_level = 20;
    ZelTargetServiceList *tsl = nullptr;
    ZelTargetService *ts = nullptr;
    ZelUser user{const_cast<char *>("u"), const_cast<char *>("User"), nullptr, 1, nullptr};
    ZelTargetServiceType type{};
    ZelTargetServiceTypeList *types = nullptr;
    ZelUserTargetRecordList *records = nullptr;
    char *out = nullptr;
    for (ZelSession *s : {static_cast<ZelSession *>(nullptr), &foreign}) {
        testing::internal::CaptureStdout();
        const ZelRC results[] = {
            Zel_close(s, 1), Zel_getAllTargetService(s, &tsl), Zel_getTargetService(s, "x", &ts),
            Zel_addTargetService(s, ts), Zel_addTargetServiceType(s, &type), Zel_removeTargetService(s, "x"),
            Zel_removeTargetServiceType(s, "x"), Zel_addZelUser(s, &user), Zel_updateZelUser(s, &user),
            Zel_verifyZelUser(s, "cn=x", &out), Zel_removeZelUser(s, "x"), Zel_getAllTargetServiceType(s, &types),
            Zel_getAllUserTargetRecord(s, &records), Zel_setProgressCallback(s, nullptr, nullptr)};
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        for (size_t i = 0; i < sizeof results / sizeof results[0]; ++i)
            EXPECT_EQ(results[i], ZEL_RC_INVALID_HANDLE) << "entry point #" << i;
    }
}

class TraceLevels : public DirectoryTest {};

// A failed open (wrong password) exercises all three levels at once.
TEST_F(TraceLevels, EachLevelAddsItsOwnMessages) {
    auto open_badly = [&](const char *level) {
        ScopedEnv debug("ZEL_DEBUG", level);
        ZelSession *s = nullptr;
        std::string admin = dir->admin_dn();
        testing::internal::CaptureStdout();
        ZelRC rc = Zel_open(nullptr, admin.c_str(), "wrong", Directory::host(), dir->port(), ZEL_OPEN_NONSSL,
                            nullptr, nullptr, nullptr, &s, 1);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, ZEL_RC_AUTHENTICATION_FAILED);
        EXPECT_EQ(s, nullptr);
        return out;
    };
    for (const char *quiet : {static_cast<const char *>(nullptr), "abc", "1", ""}) EXPECT_EQ(open_badly(quiet), "");

    EXPECT_EQ(open_badly("2"), "zelmgmt:ldap_simple_bind_s() failed.  RC=x31\n");

    std::string progress = open_badly("10");
    EXPECT_NE(progress.find("zelmgmt:About to invoke ldap_init() with ldaphost: 127.0.0.1 ldapport " +
                            std::to_string(dir->port()) + "...\n"),
              std::string::npos);
    EXPECT_NE(progress.find("  DN:" + dir->admin_dn() + "\n  Password:XXXXXXXX\n"), std::string::npos);
    EXPECT_EQ(progress.find("wrong"), std::string::npos) << "a password was printed";
    EXPECT_EQ(progress.find("Entered"), std::string::npos);

    std::string flow = open_badly("20");
    EXPECT_EQ(flow.rfind("zelmgmt:Zel_open:Entered...\n", 0), 0u) << flow;
    EXPECT_NE(flow.find("zelmgmt:bind_to_LDAP:Exited...rc=4\n"), std::string::npos);
    EXPECT_NE(flow.find("zelmgmt:Zel_open:Exited...rc=4\nzelmgmt:Zel_close:Entered...\n"), std::string::npos);
}
