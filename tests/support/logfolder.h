// A fresh log folder and logging settings per test; the event log is recorded through its seam.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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
        dir_ = (std::filesystem::temp_directory_path() / (L"kestal-log-" + std::to_wstring(GetCurrentProcessId()) +
                                                          L"-" + std::to_wstring(GetTickCount64())))
                   .wstring();
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
        SetTimeZone("");
    }
    // Reads the settings as a module load does.
    void Attach(DWORD loggingLevel, DWORD eventLevel)
    {
        SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", loggingLevel);
        SetSettingDword(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", eventLevel);
        KspModuleAttach();
    }
    static void SetTimeZone(const char *tz) // Wine's msvcrt honours TZ in _tzset
    {
        _putenv_s("TZ", tz);
        _tzset();
    }
    // The raw bytes of the log named after a UTC date such as L"2023-11-14".
    std::string ReadLog(const std::wstring &utcDate) const
    {
        std::ifstream file(std::filesystem::path(dir_ + L"\\" + utcDate + L"_KestalKeyVaultKSP.log"), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    std::wstring dir_;
};

} // namespace kestal_test
