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
    LogMsg2(L"KVCDoKVRESTCall Good - JSON", nullptr, 10);
    LogMsg3(L"GetKeyStorageInterface", L"a", L"b", 4);
    LogMsgNum(L"KVCCryptoOp", L"status", -5, 8);
    LogMsgTrace3(L"KVCGetKey", L"name");
    LogMsgAscii(L"KVCAuthenticate", "{\"error\":1}");
    LogMsg(L"too detailed", 11);

    EXPECT_EQ(afterStart.rfind("Fri Mar 01 14:30:00 2024\r\n"
                               "KestalKeyVaultKSP: 2024-03-01 14:30:00 DllMain DLL_PROCESS_ATTACH ", 0), 0u)
        << afterStart;
    EXPECT_EQ(ReadLog(L"2024-03-01").substr(afterStart.size()),
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetKeys Failed 1\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCDoWebCall WinHttpSendRequest Failed Error 0x2efd 1\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCDoKVRESTCall Good - JSON (NULL) 10\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 GetKeyStorageInterface a b 4\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCCryptoOp status -5 8\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetKey name (NULL) 10\r\n"
              "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCAuthenticate {\"error\":1} 1\r\n");
}

TEST_F(LogLines, EventLevelAloneSendsSevereLinesToBothAndOnlyFailuresAndWarningsCarryAType)
{
    SetTimeZone("GMT0");
    time.now = kMar1At143000Utc;
    Attach(0, 2);
    LogMsg(L"KVCGetCerts Failed", 1);
    LogMsg(L"BldStrReplace NULL", 2);
    LogMsg(L"GetKeyStorageInterface", 4);
    EXPECT_EQ(ReadLog(L"2024-03-01"), "KestalKeyVaultKSP: 2024-03-01 14:30:00 KVCGetCerts Failed 1\r\n"
                                      "KestalKeyVaultKSP: 2024-03-01 14:30:00 BldStrReplace NULL 2\r\n");
    EXPECT_EQ(g_events, (std::vector<RecordedEvent>{{1, L"KVCGetCerts Failed"}, {2, L"BldStrReplace NULL"}}));

    g_events.clear();
    Attach(0, 10);
    ASSERT_EQ(g_events.size(), 1u);
    EXPECT_EQ(g_events[0].type, 0) << "attach is level 4";
    g_events.clear();
    for (int level : {1, 2, 3, 4, 8, 10, 11})
        LogMsg((L"level " + std::to_wstring(level)).c_str(), level);
    LogMsgAscii(L"KVCAuthenticate", "a\x80\xff"); // widened by sign extension
    LogMsgAscii(L"KVCAuthenticate", std::string(20000, 'x').c_str());
    ASSERT_EQ(g_events.size(), 8u);
    EXPECT_EQ(std::vector<RecordedEvent>(g_events.begin(), g_events.begin() + 7),
              (std::vector<RecordedEvent>{{1, L"level 1"}, {2, L"level 2"}, {0, L"level 3"}, {0, L"level 4"},
                                          {0, L"level 8"}, {0, L"level 10"}, {1, L"KVCAuthenticate a\xff80\xffff"}}));
    EXPECT_EQ(g_events[7].message.size(), 9999u) << "cut";
}

TEST_F(LogLines, FileIsNamedAfterUtcDateWhileLinesCarryLocalTime)
{
    SetTimeZone("KST-10"); // 14:30 UTC on 1 March is 00:30 on 2 March here
    time.now = kMar1At143000Utc;
    Attach(1, 0);
    LogMsg(L"KVCGetKeys Failed", 1);
    EXPECT_EQ(ReadLog(L"2024-03-01"), "Sat Mar 02 00:30:00 2024\r\n"
                                      "KestalKeyVaultKSP: 2024-03-02 00:30:00 KVCGetKeys Failed 1\r\n");
    EXPECT_EQ(ReadLog(L"2024-03-02"), "");
}

TEST_F(LogLines, SettingsOfAnotherTypeFallBackToDefaults)
{
    SetSetting(HKEY_LOCAL_MACHINE, L"EventLog", L"KestalKSP");
    KspModuleAttach();
    EXPECT_STREQ(g_EventSourceName, L"KestalKSP");
    SetSetting(HKEY_LOCAL_MACHINE, L"LoggingLevel", L"10");
    SetSetting(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", L"10");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"EventLog", 7);
    KspModuleAttach();
    const std::string before = ReadLogs(logDir);
    LogMsg(L"KVCGetKeys Failed", 1);
    EXPECT_STREQ(g_EventSourceName, L"Application");
    EXPECT_TRUE(g_events.empty());
    EXPECT_EQ(ReadLogs(logDir), before);
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
