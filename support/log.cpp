// Logging: one line per call to the daily file, and to the event log for the severe levels.
// Every line reopens the file and rereads LogfilePath, so nothing is held between calls and
// concurrent writers rely on append mode alone.
#include "support/log.h"

#include <stdlib.h>
#include <time.h>
#include <wchar.h>

#include "support/timeseam.h"

int g_FileLogLevel = 0;
int g_EventLogLevel = 0;
int g_LogLevel = 0;
WCHAR g_EventSourceName[256] = L"Application";

namespace {

// The formatting wrappers' line buffer, in wide characters.
constexpr size_t kLineChars = 10000;

// Registered on first use and kept for the life of the process. The unguarded check can at
// worst register twice and leak one handle.
HANDLE g_hEventSource = nullptr;

void ReportToEventLog(WORD wType, const WCHAR *pszMessage)
{
    if (!g_hEventSource)
        g_hEventSource = RegisterEventSourceW(nullptr, g_EventSourceName);
    if (g_hEventSource)
        ReportEventW(g_hEventSource, wType, 0, 0, nullptr, 1, 0, &pszMessage, nullptr);
}

constexpr KSP_EVENT_LOG_SEAM kRealEventLog = {ReportToEventLog};
KSP_EVENT_LOG_SEAM g_EventLogSeam = kRealEventLog;

const WCHAR *OrNull(const WCHAR *psz) { return psz ? psz : L"(NULL)"; }

} // namespace

void KspSetEventLogSeam(const KSP_EVENT_LOG_SEAM *pSeam) { g_EventLogSeam = pSeam ? *pSeam : kRealEventLog; }

FILE *LogOpenFile(void)
{
    // The file is named after the UTC date, while each line carries local time.
    __time64_t now = KspTime();
    struct tm utc = {};
    if (_gmtime64_s(&utc, &now) != 0)
        return nullptr;

    WCHAR szDir[256] = L""; // 512 bytes
    DWORD cbDir = sizeof(szDir);
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, L"LogfilePath",
                     RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW, &type, szDir, &cbDir) != ERROR_SUCCESS ||
        type != REG_SZ)
        szDir[0] = 0; // no folder: the root of the current drive

    WCHAR szPath[320];
    if (_snwprintf_s(szPath, ARRAYSIZE(szPath), _TRUNCATE, L"%ls\\%04d-%02d-%02d_KestalKeyVaultKSP.log", szDir,
                     utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday) < 0)
        return nullptr;
    FILE *pFile = nullptr;
    if (_wfopen_s(&pFile, szPath, L"a+") != 0)
        return nullptr;
    return pFile;
}

void LogMsg(const WCHAR *pszMessage, int level)
{
    pszMessage = OrNull(pszMessage);
    if (level <= g_LogLevel) {
        FILE *pFile = LogOpenFile();
        if (pFile) {
            __time64_t now = KspTime();
            struct tm local = {};
            WCHAR szTime[20] = L"";
            if (_localtime64_s(&local, &now) == 0)
                wcsftime(szTime, ARRAYSIZE(szTime), L"%Y-%m-%d %H:%M:%S", &local);
            fwprintf_s(pFile, L"KestalKeyVaultKSP: %ls %ls %d\n", szTime, pszMessage, level);
            fclose(pFile);
        }
    }
    if (level <= g_EventLogLevel) {
        // Only failures and warnings carry their own type; level 4 is not "information".
        WORD wType = (level == EVENTLOG_ERROR_TYPE || level == EVENTLOG_WARNING_TYPE) ? static_cast<WORD>(level)
                                                                                     : EVENTLOG_SUCCESS;
        g_EventLogSeam.pfnReport(wType, pszMessage);
    }
}

// The wrappers format on the stack (about 20 KB) so that logging never depends on the heap.
void LogMsgError(const WCHAR *pszMessage, DWORD dwError, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szLine[kLineChars];
    _snwprintf_s(szLine, kLineChars, _TRUNCATE, L"%ls Error 0x%0x", OrNull(pszMessage), dwError);
    LogMsg(szLine, level);
}

void LogMsg2(const WCHAR *pszMessage, const WCHAR *pszText, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szLine[kLineChars];
    _snwprintf_s(szLine, kLineChars, _TRUNCATE, L"%ls %ls", OrNull(pszMessage), OrNull(pszText));
    LogMsg(szLine, level);
}

void LogMsg3(const WCHAR *pszMessage, const WCHAR *pszText1, const WCHAR *pszText2, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szLine[kLineChars];
    _snwprintf_s(szLine, kLineChars, _TRUNCATE, L"%ls %ls %ls", OrNull(pszMessage), OrNull(pszText1),
                 OrNull(pszText2));
    LogMsg(szLine, level);
}

void LogMsgNum(const WCHAR *pszMessage, const WCHAR *pszText, int num, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szLine[kLineChars];
    _snwprintf_s(szLine, kLineChars, _TRUNCATE, L"%ls %ls %d", OrNull(pszMessage), OrNull(pszText), num);
    LogMsg(szLine, level);
}

void LogMsgTrace3(const WCHAR *pszMessage, const WCHAR *pszText)
{
    LogMsg3(pszMessage, pszText, nullptr, KSP_LOG_TRACE);
}

void LogMsgAscii(const WCHAR *pszMessage, const char *pszText)
{
    if (KSP_LOG_FAILURE > g_LogLevel)
        return;
    WCHAR szLine[kLineChars];
    int cch = _snwprintf_s(szLine, kLineChars, _TRUNCATE, L"%ls ", OrNull(pszMessage));
    size_t pos = cch < 0 ? kLineChars - 1 : static_cast<size_t>(cch);
    if (!pszText) {
        _snwprintf_s(szLine + pos, kLineChars - pos, _TRUNCATE, L"(NULL)");
    } else {
        // Byte by byte with sign extension, as the raw body of an answer arrives (0x80 -> U+FF80).
        for (const char *p = pszText; *p && pos < kLineChars - 1; p++)
            szLine[pos++] = static_cast<WCHAR>(static_cast<signed char>(*p));
        szLine[pos] = 0;
    }
    LogMsg(szLine, KSP_LOG_FAILURE);
}
