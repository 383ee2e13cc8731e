#include <gtest/gtest.h>

#include <climits>
#include <memory>

#include "support/bldstr.h"
#include "tests/harness/harness.h"

using namespace kestal_test;
using Str = std::unique_ptr<BldStr, decltype([](BldStr *p) { BldStrFree(p); })>;

TEST(BldStr, EveryAppendLeavesExactlyEnoughCapacityAndHexIsUpperCase)
{
    Str s(BldStrNewStr(L"abc"));
    auto grew = [&](int appended, size_t capacity) {
        EXPECT_EQ(appended, 1);
        EXPECT_EQ(s->capacity, capacity);
    };
    EXPECT_EQ(s->capacity, 8u);
    grew(BldStrCat(s.get(), L"de"), 12);
    grew(BldStrCat(s.get(), L""), 12);
    grew(BldStrCatAscii(s.get(), "fg"), 16);
    grew(BldStrCatNum(s.get(), -42), 22);
    grew(BldStrCatNum(s.get(), INT_MIN), 44);
    EXPECT_STREQ(s->cStr, L"abcdefg-42-2147483648");
    EXPECT_EQ(s->length, 21u);
    BldStrReplace(s.get(), L"-a-b--c-"); // never shrinks
    EXPECT_EQ(s->capacity, 44u);
    BldStrRemove(s.get(), L'-');
    EXPECT_STREQ(s->cStr, L"abc");
    EXPECT_EQ(s->length, 3u);

    const BYTE bytes[] = {0x0A, 0xFF};
    Str hex(BldStrNewHexStr(bytes, 2));
    EXPECT_STREQ(hex->cStr, L"0AFF");
    EXPECT_EQ(hex->capacity, 14u);
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
