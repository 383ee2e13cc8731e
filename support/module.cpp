// Module start-up and shutdown: the logging settings (read here only, so a change takes
// effect at the next load), the start banner, and the process-wide lock and buffer list.
#include "support/module.h"

#include "support/log.h"

#include <psapi.h>
#include <time.h>
#include <wchar.h>

#include "support/timeseam.h"

HANDLE g_hKspSemaphore = nullptr;
DWORD g_ReuseConnections = 0;
KSP_BUFFER_NODE g_EnumBufferList = {nullptr, &g_EnumBufferList, &g_EnumBufferList};
SRWLOCK g_EnumBufferLock = SRWLOCK_INIT;

namespace {

WCHAR g_szImageName[2048];
WCHAR g_szUserName[257];

// REG_DWORD only; anything else, or nothing, gives 0.
int ReadLevelSetting(const WCHAR *pszName)
{
    DWORD dwValue = 0;
    DWORD cbValue = sizeof(dwValue);
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, pszName, RRF_RT_ANY | KSP_SETTINGS_RRF_VIEW, &type, &dwValue,
                     &cbValue) != ERROR_SUCCESS ||
        type != REG_DWORD)
        return 0;
    return static_cast<int>(dwValue);
}

void WriteStartBanner(void)
{
    FILE *pFile = LogOpenFile();
    if (!pFile)
        return;
    __time64_t now = KspTime();
    WCHAR szTime[26];
    if (_wctime64_s(szTime, ARRAYSIZE(szTime), &now) == 0)
        fwprintf_s(pFile, L"%ls", szTime); // ends with its own line break
    fclose(pFile);
}

} // namespace

void KspModuleAttach(void)
{
    if (!K32GetProcessImageFileNameW(GetCurrentProcess(), g_szImageName, ARRAYSIZE(g_szImageName)))
        g_szImageName[0] = 0;
    DWORD cchUser = ARRAYSIZE(g_szUserName);
    if (!GetUserNameW(g_szUserName, &cchUser))
        g_szUserName[0] = 0;

    DWORD cbSource = 256; // bytes, as the value was always read
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, L"EventLog",
                     RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW, &type, g_EventSourceName,
                     &cbSource) != ERROR_SUCCESS ||
        type != REG_SZ)
        g_EventSourceName[0] = 0;
    if (!g_EventSourceName[0])
        wcscpy_s(g_EventSourceName, ARRAYSIZE(g_EventSourceName), L"Application");

    LogConfigure();
    g_ReuseConnections = ReadLevelSetting(L"ReuseConnections") == 1 ? 1 : 0;
    g_FileLogLevel = ReadLevelSetting(L"LoggingLevel");
    g_LogLevel = g_FileLogLevel;
    // The file follows the event log too: raising EVLoggingLevel alone also fills the file.
    g_EventLogLevel = ReadLevelSetting(L"EVLoggingLevel");
    if (g_EventLogLevel > g_LogLevel)
        g_LogLevel = g_EventLogLevel;

    if (g_FileLogLevel > 0)
        WriteStartBanner();
    LogMsg3(L"DllMain DLL_PROCESS_ATTACH", g_szImageName, g_szUserName, KSP_LOG_ENTRY);

    g_EnumBufferList.Flink = &g_EnumBufferList;
    g_EnumBufferList.Blink = &g_EnumBufferList;
    g_hKspSemaphore = CreateSemaphoreW(nullptr, 1, 1, nullptr);
}

void KspModuleDetach(void)
{
    LogMsg3(L"DllMain DLL_PROCESS_DETACH", g_szImageName, g_szUserName, KSP_LOG_ENTRY);
    if (g_hKspSemaphore) {
        CloseHandle(g_hKspSemaphore);
        g_hKspSemaphore = nullptr;
    }
    LogClose();
    // The event source stays registered: the process is going away.
}
