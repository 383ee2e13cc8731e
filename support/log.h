// Logging to the daily file and the event log, and the module's start-up state.
#pragma once

#include <windows.h>

#include <stdio.h>

// Levels callers pass; smaller is more severe.
enum KSP_LOG_LEVEL {
    KSP_LOG_FAILURE = 1,
    KSP_LOG_WARNING = 2,
    KSP_LOG_ENTRY = 4,
    KSP_LOG_STEP = 8,
    KSP_LOG_TRACE = 10,
};

// Set once at module attach, read everywhere.
extern int g_FileLogLevel;  // LoggingLevel
extern int g_EventLogLevel; // EVLoggingLevel
extern int g_LogLevel;      // the larger of the two: the file's threshold and the cheap pre-filter
extern WCHAR g_EventSourceName[256]; // EventLog, "Application" when unset

// Where every setting lives, under HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER.
inline constexpr WCHAR KSP_SETTINGS_KEY[] = L"Software\\Kestal\\KestalKeyVaultKSP";
// Every access goes to the registry's 64-bit view, where administrators and the installer keep
// the settings: the 32-bit DLL loaded by WOW64 callers would otherwise be sent to WOW6432Node
// under HKEY_LOCAL_MACHINE. A 64-bit process, and HKEY_CURRENT_USER, see the same key either way.
inline constexpr REGSAM KSP_SETTINGS_VIEW = KEY_WOW64_64KEY;         // RegOpenKeyExW access
inline constexpr DWORD KSP_SETTINGS_RRF_VIEW = RRF_SUBKEY_WOW6464KEY; // RegGetValueW flags

void LogMsg(const WCHAR *pszMessage, int level);
void LogMsgError(const WCHAR *pszMessage, DWORD dwError, int level);                         // "%s Error 0x%0x"
void LogMsg2(const WCHAR *pszMessage, const WCHAR *pszText, int level);                      // "%s %s"
void LogMsg3(const WCHAR *pszMessage, const WCHAR *pszText1, const WCHAR *pszText2, int level); // "%s %s %s"
void LogMsgNum(const WCHAR *pszMessage, const WCHAR *pszText, int num, int level);           // "%s %s %d"
void LogMsgTrace3(const WCHAR *pszMessage, const WCHAR *pszText);                             // level 10
void LogMsgAscii(const WCHAR *pszMessage, const char *pszText);                               // level 1
FILE *LogOpenFile(void); // today's file (UTC date) in LogfilePath, mode "a+"; null when it cannot be opened

// Where event-log entries go. Tests replace it to record (type, message); NULL restores
// RegisterEventSourceW/ReportEventW.
struct KSP_EVENT_LOG_SEAM {
    void (*pfnReport)(WORD wType, const WCHAR *pszMessage);
};
void KspSetEventLogSeam(const KSP_EVENT_LOG_SEAM *pSeam);
