// A clean log folder and fresh logging settings per test; the event log is recorded through
// its seam as (type, message) instead of reaching Windows.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "support/log.h"
#include "tests/harness/harness.h"

namespace kestal_test {

struct RecordedEvent {
    WORD type;
    std::wstring message;
    bool operator==(const RecordedEvent &) const = default;
};
inline std::vector<RecordedEvent> g_events;
inline void RecordEvent(WORD wType, const WCHAR *pszMessage) { g_events.push_back({wType, pszMessage}); }

constexpr __time64_t kNov14At221320Utc = 1'700'000'000;

class LogFolderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ClearSettings(HKEY_LOCAL_MACHINE);
        WCHAR szTemp[MAX_PATH];
        GetTempPathW(MAX_PATH, szTemp);
        dir_ = std::wstring(szTemp) + L"kestal-log-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
               std::to_wstring(GetTickCount64());
        CreateDirectoryW(dir_.c_str(), nullptr);
        SetSetting(HKEY_LOCAL_MACHINE, L"LogfilePath", dir_);
        g_events.clear();
        KSP_EVENT_LOG_SEAM seam = {RecordEvent};
        KspSetEventLogSeam(&seam);
    }
    void TearDown() override
    {
        KspSetEventLogSeam(nullptr);
        ClearSettings(HKEY_LOCAL_MACHINE);
        KspModuleAttach(); // no settings: logging off again
        KspModuleDetach();
        _putenv_s("TZ", "");
        _tzset();
    }
    // Reads the settings as a module load does.
    void Attach(DWORD loggingLevel, DWORD eventLevel)
    {
        SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", loggingLevel);
        SetSettingDword(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", eventLevel);
        KspModuleAttach();
    }
    // Sets the CRT's time zone for this process (Wine's msvcrt honours TZ in _tzset).
    static void SetTimeZone(const char *tz)
    {
        _putenv_s("TZ", tz);
        _tzset();
    }
    // The raw bytes of the log named after a UTC date such as L"2023-11-14".
    std::string ReadLog(const std::wstring &utcDate) const
    {
        std::string text;
        FILE *file = nullptr;
        if (_wfopen_s(&file, (dir_ + L"\\" + utcDate + L"_KestalKeyVaultKSP.log").c_str(), L"rb") != 0)
            return text;
        char chunk[4096];
        for (size_t n; (n = fread(chunk, 1, sizeof(chunk), file)) > 0;)
            text.append(chunk, n);
        fclose(file);
        return text;
    }
    std::wstring dir_;
};

} // namespace kestal_test
