#include <gtest/gtest.h>

#include <memory>

#include "support/bldstr.h"
#include "tests/support/logfolder.h"

using namespace kestal_test;

namespace {
struct BldStrDelete {
    void operator()(BldStr *p) const { BldStrFree(p); }
};
using Str = std::unique_ptr<BldStr, BldStrDelete>;
} // namespace

TEST(BldStr, EveryAppendLeavesExactlyEnoughCapacity)
{
    Str s(BldStrNewStr(L"abc"));
    EXPECT_EQ(s->capacity, 8u);
    const struct {
        int (*append)(BldStr *);
        DWORD capacity;
    } steps[] = {
        {[](BldStr *p) { return BldStrCat(p, L"de"); }, 12},
        {[](BldStr *p) { return BldStrCat(p, L""); }, 12},
        {[](BldStr *p) { return BldStrCatAscii(p, "fg"); }, 16},
        {[](BldStr *p) { return BldStrCatNum(p, -42); }, 22},
        {[](BldStr *p) { return BldStrCatNum(p, static_cast<int>(0x80000000u)); }, 44},
    };
    for (const auto &step : steps) {
        EXPECT_EQ(step.append(s.get()), 1);
        EXPECT_EQ(s->capacity, step.capacity);
    }
    EXPECT_STREQ(s->cStr, L"abcdefg-42-2147483648");
    EXPECT_EQ(s->length, 21u);

    BldStrReplace(s.get(), L"-a-b--c-"); // never shrinks
    EXPECT_EQ(s->capacity, 44u);
    BldStrRemove(s.get(), L'-');
    EXPECT_STREQ(s->cStr, L"abc");
    EXPECT_EQ(s->length, 3u);
}

TEST(BldStr, HexIsUpperCaseHighNibbleFirst)
{
    const BYTE bytes[] = {0x0A, 0xFF};
    Str hex(BldStrNewHexStr(bytes, 2));
    EXPECT_STREQ(hex->cStr, L"0AFF");
    EXPECT_EQ(hex->capacity, 14u);
    EXPECT_STREQ(Str(BldStrNewHexStr(bytes, 0))->cStr, L"");
}

TEST(BldStr, CertSyncIsReadFromTheChosenScopeAsRegSzOnly)
{
    ClearSettings(HKEY_LOCAL_MACHINE);
    SetSetting(HKEY_LOCAL_MACHINE, L"CertSync", L"2024-03-01");
    SetSettingDword(HKEY_CURRENT_USER, L"CertSync", 5);
    EXPECT_STREQ(Str(BldStrGetWStringValue(TRUE))->cStr, L"2024-03-01");
    EXPECT_STREQ(Str(BldStrGetWStringValue(FALSE))->cStr, L"");
    ClearSettings(HKEY_LOCAL_MACHINE);
    ClearSettings(HKEY_CURRENT_USER);
    EXPECT_STREQ(Str(BldStrGetWStringValue(TRUE))->cStr, L"");
}

using BldStrMessages = LogFolderTest;

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
