#include <gtest/gtest.h>

#include "tests/harness/harness.h"

using namespace kestal_test;

namespace {

// The fixture's own start wrote into 2023-11-14's file; these tests write into 1 March 2024's.
constexpr __time64_t kMar1At143000Utc = 1'709'303'400;

using LogLines = VaultProviderTest;

} // namespace

TEST_F(LogLines, EveryWrapperWritesItsExactLine)
{
    SetTimeZone("GMT0");
    time.now = kMar1At143000Utc;
    Attach(10, 0);
    std::string afterStart = ReadLog(L"2024-03-01");
    LogMsg(L"KVCGetKeys Failed", 1);
    LogMsgError(L"KVCDoWebCall WinHttpSendRequest Failed", 0x2efd, 1);
    LogMsgNum(L"KVCCryptoOp", L"status", -5, 8);
    LogMsgTrace3(L"KVCGetKey", L"name");
    LogMsgAscii(L"KVCAuthenticate", "{\"error\":1}");
    LogMsg(L"KVCGetKey a\r\nb\x0085" L"c\x2028", 1); // no character that ends a line elsewhere
    LogMsg(L"too detailed", 11);

    EXPECT_EQ(afterStart.rfind("Fri Mar 01 14:30:00 2024\r\n"
                               "KestalKeyVaultKSP: 2024-03-01 14:30:00 DllMain DLL_PROCESS_ATTACH ", 0), 0u)
        << afterStart;
    EXPECT_EQ(ReadLog(L"2024-03-01").substr(afterStart.size()),
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetKeys Failed 1\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCDoWebCall WinHttpSendRequest Failed Error 0x2efd 1\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCCryptoOp status -5 8\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetKey name (NULL) 10\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCAuthenticate {\"error\":1} 1\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetKey a\\r\\nb\\x85c\\x2028 1\r\n");
}

// The file is named after the UTC date while its lines carry local time.
TEST_F(LogLines, EventLevelAloneSendsSevereLinesToBothAndOnlyFailuresAndWarningsCarryAType)
{
    SetTimeZone("KST-10"); // 14:30 UTC on 1 March is 00:30 on 2 March here
    time.now = kMar1At143000Utc;
    Attach(0, 2);
    LogMsg(L"KVCGetCerts Failed", 1);
    LogMsg(L"BldStrReplace NULL", 2);
    LogMsg(L"GetKeyStorageInterface", 4);
    EXPECT_EQ(ReadLog(L"2024-03-01"), "KestalKeyVaultKSP: 2024-03-02 00:30:00 KVCGetCerts Failed 1\r\n"
                                      "KestalKeyVaultKSP: 2024-03-02 00:30:00 BldStrReplace NULL 2\r\n");
    EXPECT_EQ(ReadLog(L"2024-03-02"), "");
    EXPECT_EQ(g_events, (std::vector<RecordedEvent>{{1, L"KVCGetCerts Failed"}, {2, L"BldStrReplace NULL"}}));

    Attach(0, 10);
    g_events.clear();
    LogMsg(L"level 10", 10);
    LogMsg(L"level 11", 11);
    LogMsgAscii(L"KVCAuthenticate", std::string(20000, 'x').c_str());
    ASSERT_EQ(g_events.size(), 2u);
    EXPECT_EQ(g_events[0], (RecordedEvent{0, L"level 10"}));
    EXPECT_EQ(g_events[1].message.size(), 9999u) << "cut";
}

// eventlog_wine_debug_test.sh runs this with WINEDEBUG=+eventlog and finds the strings in Wine's output.
TEST_F(LogLines, RealEventLogReceivesReportedStrings)
{
    KspSetEventLogSeam(nullptr);
    Attach(0, 4);
    LogMsg(L"EventLogProbe warning line", 2);
    LogMsg(L"EventLogProbe entry line", 4);
    EXPECT_EQ(Log("EventLogProbe entry line 4").size(), 1u);
}
