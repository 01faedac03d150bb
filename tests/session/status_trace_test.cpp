// The LDAP result mapping, handle validation and the trace levels.
#include <gtest/gtest.h>

#include <cstring>
#include <ldap.h>

#include "support/env.h"
#include "support/session.h"
#include "ZelSession.h"
#include "ZelStatus.h"

using namespace zeltest;

// A listed result keeps its own status whatever the caller's default; an
// unlisted one takes the default, or stays itself without one.
TEST(CheckLdapRc, ListedResultsWinOverTheDefault) {
    const struct {
        uint32_t ldap_rc, default_code;
        ZelRC want;
    } cases[] = {
        {32, 1003, ZEL_RC_NO_SUCH_OBJECT},  {49, 0, ZEL_RC_AUTHENTICATION_FAILED},
        {68, 1014, ZEL_RC_ALREADY_EXISTS},  {50, 1003, ZEL_RC_NOT_AUTHORIZED},
        {53, 0, ZEL_RC_DIRECTORY_ERROR},    {999, 1003, 1003},
        {85, 0, ZEL_RC_TIMEOUT},            {999, 0, 999},
    };
    for (const auto &c : cases)
        EXPECT_EQ(check_LDAP_rc(nullptr, c.ldap_rc, c.default_code, "op()"), c.want) << "LDAP result " << c.ldap_rc;
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
