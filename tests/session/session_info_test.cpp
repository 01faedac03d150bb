// What a session learnt, handed out through the public accessor.
#include "support/session.h"

using namespace zeltest;

TEST_F(SessionTest, InfoIsACopy) {
    ZelSessionInfo *info = nullptr;
    EXPECT_EQ(Zel_getSessionInfo(nullptr, &info), ZEL_RC_INVALID_HANDLE);
    EXPECT_EQ(Zel_getSessionInfo(s.get(), nullptr), ZEL_RC_INVALID_ARGUMENT);
    Zel_freeSessionInfo(nullptr);

    ASSERT_EQ(Zel_getSessionInfo(s.get(), &info), 0u);
    std::vector<std::string> suffixes(info->suffixes, info->suffixes + info->suffixCount);
    EXPECT_EQ(suffixes, std::vector<std::string>{s->suffixes->suffix});
    EXPECT_NE(info->suffixes[0], s->suffixes->suffix) << "the caller gets copies";
    EXPECT_EQ(info->apiVersion, 2u);
    Zel_freeSessionInfo(info);

}
