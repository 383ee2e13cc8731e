#include <gtest/gtest.h>

#include <climits>
#include <memory>

#include "support/bldstr.h"
#include "tests/harness/harness.h"

using namespace kestal_test;
using Str = std::unique_ptr<BldStr, decltype([](BldStr *p) { BldStrFree(p); })>;

TEST(BldStr, AppendsKeepRoomForTheTerminatorAndHexIsUpperCase)
{
    Str s(BldStrNewStr(L"abc"));
    EXPECT_EQ(BldStrCat(s.get(), L"de"), 1);
    EXPECT_EQ(BldStrCatAscii(s.get(), "fg"), 1);
    EXPECT_EQ(BldStrCatNum(s.get(), INT_MIN), 1);
    EXPECT_STREQ(s->cStr, L"abcdefg-2147483648");
    EXPECT_EQ(s->length, 18u);
    EXPECT_GT(s->capacity, s->length);
    BldStrReplace(s.get(), L"-a-b--c-");
    BldStrRemove(s.get(), L'-');
    EXPECT_STREQ(s->cStr, L"abc");
    EXPECT_EQ(s->length, 3u);

    const BYTE bytes[] = {0x0A, 0xFF};
    EXPECT_STREQ(Str(BldStrNewHexStr(bytes, 2))->cStr, L"0AFF");
    EXPECT_STREQ(Str(BldStrNewHexStr(bytes, 0))->cStr, L"");
}

using BldStrMessages = VaultProviderTest;

TEST_F(BldStrMessages, NullArgumentsAreLoggedAndChangeNothing)
{
    Attach(0, 2);
    Str s(BldStrNewStr(L"keep"));
    EXPECT_EQ(BldStrCat(s.get(), nullptr), 0);
    EXPECT_EQ(BldStrReplace(s.get(), nullptr), s.get());
    EXPECT_EQ(BldStrNewStr(nullptr), nullptr);
    EXPECT_EQ(BldStrRemove(nullptr, L'x'), nullptr);
    EXPECT_STREQ(s->cStr, L"keep");
    EXPECT_EQ(g_events, (std::vector<RecordedEvent>{{2, L"BldStrFree BldStrCat pstr or stradd NULL"},
                                                    {2, L"BldStrReplace NULL"},
                                                    {1, L"BldStrNewStr NULL str"},
                                                    {2, L"BldStrRemove NULL"}}));
}
