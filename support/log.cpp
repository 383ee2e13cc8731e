// Logging: one line per call to the daily file, and to the event log for the severe levels.
// LogfilePath is read when the module is attached; the day's file stays open for appending and
// is reopened when the UTC date changes. Each line goes out in one append-only write, so lines of
// several threads and processes never interleave mid-line.
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

WCHAR g_szLogDir[256];            // LogfilePath; empty: the root of the current drive
SRWLOCK g_LogFileLock = SRWLOCK_INIT; // guards the open file and its day
HANDLE g_hLogFile = INVALID_HANDLE_VALUE;
long long g_LogFileDay = -1; // the UTC day the open file is named after

long long UtcDay(__time64_t now) { return now / 86400; }

// Today's file name in the log folder; false when the date or name cannot be made.
bool LogFilePath(__time64_t now, WCHAR (&szPath)[320])
{
    struct tm utc = {};
    if (_gmtime64_s(&utc, &now) != 0)
        return false;
    return _snwprintf_s(szPath, ARRAYSIZE(szPath), _TRUNCATE, L"%ls\\%04d-%02d-%02d_KestalKeyVaultKSP.log", g_szLogDir,
                        utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday) >= 0;
}

void CloseLogFile()
{
    if (g_hLogFile != INVALID_HANDLE_VALUE)
        CloseHandle(g_hLogFile);
    g_hLogFile = INVALID_HANDLE_VALUE;
    g_LogFileDay = -1;
}

// Called with the lock held: the file of now's UTC day, opened for appending when needed.
HANDLE DayFile(__time64_t now)
{
    if (g_hLogFile != INVALID_HANDLE_VALUE && g_LogFileDay == UtcDay(now))
        return g_hLogFile;
    CloseLogFile();
    WCHAR szPath[320];
    if (!LogFilePath(now, szPath))
        return INVALID_HANDLE_VALUE;
    // FILE_APPEND_DATA alone makes every write land at the end, whoever else appends meanwhile.
    g_hLogFile = CreateFileW(szPath, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (g_hLogFile != INVALID_HANDLE_VALUE)
        g_LogFileDay = UtcDay(now);
    return g_hLogFile;
}

// The line as bytes: characters up to U+00FF as themselves, others as "?", and CR LF at the end.
int NarrowLine(const WCHAR *pszLine, char *pszOut, int cbOut)
{
    int cb = 0;
    for (const WCHAR *p = pszLine; *p && cb < cbOut - 2; ++p)
        pszOut[cb++] = *p <= 0xFF ? static_cast<char>(*p) : '?';
    pszOut[cb++] = '\r';
    pszOut[cb++] = '\n';
    return cb;
}

void AppendToLogFile(const WCHAR *pszMessage, int level)
{
    __time64_t now = KspTime();
    struct tm local = {};
    WCHAR szTime[20] = L"";
    if (_localtime64_s(&local, &now) == 0)
        wcsftime(szTime, ARRAYSIZE(szTime), L"%Y-%m-%d %H:%M:%S", &local);
    WCHAR szLine[kLineChars + 64];
    _snwprintf_s(szLine, ARRAYSIZE(szLine), _TRUNCATE, L"KestalKeyVaultKSP: %ls %ls %d", szTime, pszMessage, level);
    char line[kLineChars + 64];
    const int cb = NarrowLine(szLine, line, sizeof(line));
    AcquireSRWLockExclusive(&g_LogFileLock);
    HANDLE hFile = DayFile(now);
    DWORD cbWritten = 0;
    if (hFile != INVALID_HANDLE_VALUE)
        WriteFile(hFile, line, static_cast<DWORD>(cb), &cbWritten, nullptr);
    ReleaseSRWLockExclusive(&g_LogFileLock);
}

} // namespace

void LogConfigure(void)
{
    WCHAR szDir[ARRAYSIZE(g_szLogDir)] = L"";
    DWORD cbDir = sizeof(szDir);
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, L"LogfilePath",
                     RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW, &type, szDir, &cbDir) != ERROR_SUCCESS ||
        type != REG_SZ)
        szDir[0] = 0; // no folder: the root of the current drive
    AcquireSRWLockExclusive(&g_LogFileLock);
    CloseLogFile();
    wcscpy_s(g_szLogDir, szDir);
    ReleaseSRWLockExclusive(&g_LogFileLock);
}

void LogClose(void)
{
    AcquireSRWLockExclusive(&g_LogFileLock);
    CloseLogFile();
    ReleaseSRWLockExclusive(&g_LogFileLock);
}

void KspSetEventLogSeam(const KSP_EVENT_LOG_SEAM *pSeam) { g_EventLogSeam = pSeam ? *pSeam : kRealEventLog; }

FILE *LogOpenFile(void)
{
    WCHAR szPath[320];
    AcquireSRWLockShared(&g_LogFileLock);
    const bool fNamed = LogFilePath(KspTime(), szPath);
    ReleaseSRWLockShared(&g_LogFileLock);
    FILE *pFile = nullptr;
    if (!fNamed || _wfopen_s(&pFile, szPath, L"a+") != 0)
        return nullptr;
    return pFile;
}

namespace {

// C0, DEL and C1 controls, and the Unicode line and paragraph separators: each may end a line
// for some reader of the file or the event log.
bool IsControl(unsigned ch) { return ch < 0x20 || (ch >= 0x7F && ch <= 0x9F) || ch == 0x2028 || ch == 0x2029; }

// Appends to a bounded output, always terminated.
struct LINE_OUT {
    WCHAR *psz;
    size_t cch;
    size_t pos;
    void Put(const WCHAR *pszText)
    {
        while (*pszText && pos + 1 < cch)
            psz[pos++] = *pszText++;
        psz[pos] = 0;
    }
};

// One character as it may stand in a line: control characters and, for text from outside,
// non-ASCII ones as escapes.
void PutEscaped(LINE_OUT *pOut, unsigned ch, bool fEscapeNonAscii, bool fNarrow)
{
    WCHAR sz[8] = {static_cast<WCHAR>(ch), 0};
    if (ch == L'\r')
        wcscpy_s(sz, L"\\r");
    else if (ch == L'\n')
        wcscpy_s(sz, L"\\n");
    else if (ch == L'\t')
        wcscpy_s(sz, L"\\t");
    else if (IsControl(ch) || (fEscapeNonAscii && ch > 0x7F && fNarrow))
        swprintf(sz, ARRAYSIZE(sz), L"\\x%02X", ch);
    else if (fEscapeNonAscii && ch > 0x7F)
        swprintf(sz, ARRAYSIZE(sz), L"\\u%04X", ch);
    pOut->Put(sz);
}

void WriteLine(const WCHAR *pszMessage, int level)
{
    if (level <= g_LogLevel)
        AppendToLogFile(pszMessage, level);
    if (level <= g_EventLogLevel) {
        // Only failures and warnings carry their own type; level 4 is not "information".
        WORD wType = (level == EVENTLOG_ERROR_TYPE || level == EVENTLOG_WARNING_TYPE) ? static_cast<WORD>(level)
                                                                                     : EVENTLOG_SUCCESS;
        g_EventLogSeam.pfnReport(wType, pszMessage);
    }
}

// A message holding control characters is written with them escaped: CR LF from a key name or
// an answer would otherwise forge a line of its own. Apart so that only such lines pay for the
// copy on the stack.
__declspec(noinline) void WriteEscapedLine(const WCHAR *pszMessage, int level)
{
    WCHAR szLine[kLineChars];
    LINE_OUT out = {szLine, kLineChars, 0};
    szLine[0] = 0;
    for (const WCHAR *p = pszMessage; *p; ++p)
        PutEscaped(&out, *p, false, false);
    WriteLine(szLine, level);
}

} // namespace

void LogMsg(const WCHAR *pszMessage, int level)
{
    pszMessage = OrNull(pszMessage);
    if (level > g_LogLevel && level > g_EventLogLevel)
        return;
    for (const WCHAR *p = pszMessage; *p; ++p) {
        if (IsControl(*p)) {
            WriteEscapedLine(pszMessage, level);
            return;
        }
    }
    WriteLine(pszMessage, level);
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

// ---- Excerpts of text from outside ------------------------------------------------------------

namespace {

// Member names whose values are bearer secrets.
constexpr const char *kTokenMembers[] = {"access_token", "refresh_token", "id_token"};
// A run of these this long is taken for a token even without a telling shape.
constexpr size_t kTokenRunChars = 64;

template <typename CH> unsigned Unit(CH ch)
{
    return sizeof(CH) == 1 ? static_cast<unsigned char>(ch) : static_cast<unsigned>(ch);
}

bool IsAlnum(unsigned ch) { return (ch >= '0' && ch <= '9') || ((ch | 0x20) >= 'a' && (ch | 0x20) <= 'z'); }
// The alphabet of a JSON Web Token: base64url parts joined by dots.
bool IsJwtChar(unsigned ch) { return IsAlnum(ch) || ch == '-' || ch == '_' || ch == '.'; }
// The characters a bearer token may hold (token68).
bool IsToken68Char(unsigned ch) { return IsJwtChar(ch) || ch == '~' || ch == '+' || ch == '/' || ch == '='; }
bool IsSeparator(unsigned ch) { return ch == '"' || ch == ':' || ch == '=' || ch == ' ' || ch == '\t'; }

template <typename CH> bool StartsWith(const CH *p, const char *pszPrefix)
{
    for (; *pszPrefix; ++p, ++pszPrefix)
        if (Unit(*p) != static_cast<unsigned char>(*pszPrefix))
            return false;
    return true;
}

template <typename CH> size_t RunLength(const CH *p, bool (*pfnIn)(unsigned))
{
    size_t n = 0;
    while (p[n] && pfnIn(Unit(p[n])))
        n++;
    return n;
}

// The length of a token that starts here: a JSON Web Token, or any long run of its alphabet.
template <typename CH> size_t TokenAt(const CH *pszText, const CH *p)
{
    if (p > pszText && IsJwtChar(Unit(p[-1])))
        return 0;
    const size_t n = RunLength(p, IsJwtChar);
    bool fDotted = false;
    for (size_t i = 0; i < n && !fDotted; i++)
        fDotted = p[i] == '.';
    return n >= kTokenRunChars || (fDotted && StartsWith(p, "eyJ")) ? n : 0;
}

template <typename CH> size_t TextLength(const CH *p)
{
    size_t n = 0;
    while (p[n])
        n++;
    return n;
}

template <typename CH> const WCHAR *Excerpt(const CH *pszText, WCHAR *pszOut, size_t cchOut)
{
    if (!pszOut || cchOut == 0)
        return pszOut;
    LINE_OUT out = {pszOut, cchOut, 0};
    pszOut[0] = 0;
    if (!pszText) {
        out.Put(L"(NULL)");
        return pszOut;
    }
    const CH *p = pszText;
    bool fAfterTokenName = false; // between "access_token" and its value
    for (size_t shown = 0; *p && shown < KSP_LOG_EXCERPT_SOURCE_CHARS; shown++) {
        if (fAfterTokenName && IsSeparator(Unit(*p))) {
            PutEscaped(&out, Unit(*p++), true, sizeof(CH) == 1);
            continue;
        }
        const size_t cchToken = fAfterTokenName ? RunLength(p, IsToken68Char) : TokenAt(pszText, p);
        fAfterTokenName = false;
        if (cchToken > 0) {
            WCHAR sz[40];
            swprintf(sz, ARRAYSIZE(sz), L"<%u characters>", static_cast<unsigned>(cchToken));
            out.Put(sz);
            p += cchToken;
            continue;
        }
        for (const char *pszName : kTokenMembers) {
            if ((p == pszText || !IsJwtChar(Unit(p[-1]))) && StartsWith(p, pszName)) {
                for (; *pszName; ++pszName)
                    PutEscaped(&out, Unit(*p++), true, sizeof(CH) == 1);
                fAfterTokenName = true;
                break;
            }
        }
        if (!fAfterTokenName)
            PutEscaped(&out, Unit(*p++), true, sizeof(CH) == 1);
    }
    if (*p) {
        WCHAR sz[48];
        swprintf(sz, ARRAYSIZE(sz), L"... (%u characters)",
                 static_cast<unsigned>(static_cast<size_t>(p - pszText) + TextLength(p)));
        out.Put(sz);
    }
    return pszOut;
}

} // namespace

const WCHAR *LogExcerpt(const char *pszText, WCHAR *pszOut, size_t cchOut) { return Excerpt(pszText, pszOut, cchOut); }

const WCHAR *LogExcerptW(const WCHAR *pszText, WCHAR *pszOut, size_t cchOut)
{
    return Excerpt(pszText, pszOut, cchOut);
}

void LogMsgExcerpt(const WCHAR *pszMessage, const char *pszText, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szExcerpt[KSP_LOG_EXCERPT_CHARS];
    LogMsg2(pszMessage, LogExcerpt(pszText, szExcerpt, ARRAYSIZE(szExcerpt)), level);
}

void LogMsgExcerptW(const WCHAR *pszMessage, const WCHAR *pszText, int level)
{
    if (level > g_LogLevel)
        return;
    WCHAR szExcerpt[KSP_LOG_EXCERPT_CHARS];
    LogMsg2(pszMessage, LogExcerptW(pszText, szExcerpt, ARRAYSIZE(szExcerpt)), level);
}
