// Logging to the daily file and the event log, and the module's start-up state.
#pragma once

#include <windows.h>

#include <stdio.h>

#include "support/product.h"

// Levels callers pass; smaller is more severe.
enum KSP_LOG_LEVEL {
    KSP_LOG_FAILURE = 1,
    KSP_LOG_WARNING = 2,
    KSP_LOG_ENTRY = 4,
    // Between CNG calls and steps: the CertSync list FreeKey consults before publishing a key's
    // certificate; seen from LoggingLevel 6 on without the rest of the steps.
    KSP_LOG_PUBLISH = 6,
    KSP_LOG_STEP = 8,
    KSP_LOG_TRACE = 10,
};

// Set once at module attach, read everywhere.
extern int g_FileLogLevel;  // LoggingLevel
extern int g_EventLogLevel; // EVLoggingLevel
extern int g_LogLevel;      // the larger of the two: the file's threshold and the cheap pre-filter
extern WCHAR g_EventSourceName[256]; // EventLog, "Application" when unset


void LogMsg(const WCHAR *pszMessage, int level);
void LogMsgError(const WCHAR *pszMessage, DWORD dwError, int level);                         // "%s Error 0x%0x"
void LogMsg2(const WCHAR *pszMessage, const WCHAR *pszText, int level);                      // "%s %s"
void LogMsg3(const WCHAR *pszMessage, const WCHAR *pszText1, const WCHAR *pszText2, int level); // "%s %s %s"
void LogMsgNum(const WCHAR *pszMessage, const WCHAR *pszText, int num, int level);           // "%s %s %d"
void LogMsgTrace3(const WCHAR *pszMessage, const WCHAR *pszText);                             // level 10
void LogMsgAscii(const WCHAR *pszMessage, const char *pszText);                               // level 1
// "%s %s" with an excerpt (LogExcerpt) of text that came from outside: an answer or a header.
void LogMsgExcerpt(const WCHAR *pszMessage, const char *pszText, int level);
void LogMsgExcerptW(const WCHAR *pszMessage, const WCHAR *pszText, int level);
// Text from outside made fit for a log line: its first KSP_LOG_EXCERPT_SOURCE_CHARS characters,
// control and non-ASCII characters escaped (\r, \n, \t, \xNN, \uNNNN) so that it cannot start
// a line of its own, and anything shaped like a token (the value of an access_token,
// refresh_token or id_token member, or a JSON Web Token) replaced by its length as
// "<N characters>". A longer text ends in "... (N characters)". pszOut holds at least
// KSP_LOG_EXCERPT_CHARS characters. Returns pszOut.
#define KSP_LOG_EXCERPT_SOURCE_CHARS 300
#define KSP_LOG_EXCERPT_CHARS 2048
const WCHAR *LogExcerpt(const char *pszText, WCHAR *pszOut, size_t cchOut);
const WCHAR *LogExcerptW(const WCHAR *pszText, WCHAR *pszOut, size_t cchOut);
FILE *LogOpenFile(void); // today's file (UTC date) in LogfilePath, mode "a+"; null when it cannot be opened
// Reads LogfilePath (module attach); closes the day's file (module detach).
void LogConfigure(void);
void LogClose(void);

// Where event-log entries go. Tests replace it to record (type, message); NULL restores
// RegisterEventSourceW/ReportEventW.
struct KSP_EVENT_LOG_SEAM {
    void (*pfnReport)(WORD wType, const WCHAR *pszMessage);
};
void KspSetEventLogSeam(const KSP_EVENT_LOG_SEAM *pSeam);
