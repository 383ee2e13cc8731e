// The transport: every byte the vault client sends or receives goes through KVCDoWebCall. By
// default each call has a WinHTTP session, connection and request of its own; with
// ReuseConnections set, all calls of the process share one session whose connections WinHTTP
// keeps alive, which saves a TCP and TLS handshake (two or three round trips) per call.
#include "kvclient/kvc.h"
#include "support/handles.h"
#include "support/module.h"

#include <winhttp.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>


namespace {

constexpr WCHAR kUserAgent[] = L"Kestal Key Vault Key Storage Provider";
constexpr int kAttempts = 10;
// A refused connection usually means the endpoint is restarting or a proxy is not yet up:
// worth a long pause. Anything else transient gets a short one.
constexpr DWORD kCannotConnectWaitMs = 20000;
constexpr DWORD kRetryWaitMs = 200;
constexpr WORD kTlsPort = 443;
// Forty times the largest answer the vault gives (a certificate bundle with a 64 KB certificate
// is about 100 KB): a body beyond it is no vault answer, and reading on would only cost time
// and memory.
constexpr DWORD kMaxAnswerBytes = 4 * 1024 * 1024;

// WinHTTP's defaults would let a silent server hold each read for 30 s, and a trickling one
// without end. Each step gets its own time-out, and the call as a whole a budget: no attempt
// starts, and no pause before one is taken, once it would be spent, and a body still arriving
// when it runs out is given up. 60 s keeps three tries at a refused connection.
constexpr KVC_TIMEOUTS kDefaultTimeouts = {10000, 10000, 20000, 20000, 60};
KVC_TIMEOUTS g_timeouts = kDefaultTimeouts;

// How an attempt ended.
enum class Attempt {
    Done,  // a response was received (any HTTP status)
    Retry, // a transient failure: try again
    Stop,  // WinHTTP itself is unusable: trying again cannot help
    Lost,  // an answer began but could not be read whole: it is no answer, and trying again
           // would cost as much
};

// The call's start and how long it may last, in the seconds of the time seam.
struct Budget {
    __time64_t start;
    bool Allows(DWORD dwMoreMs) const
    {
        return KspTime() - start + (dwMoreMs + 999) / 1000 <= static_cast<__time64_t>(g_timeouts.dwBudgetSeconds);
    }
};

// Grows the body buffer to cbNew bytes through a fresh zeroed block, wiping the old one: a
// token answer passes through here and must not be left behind in freed memory.
char *GrowBody(char *pOld, DWORD cbOld, DWORD cbNew)
{
    char *pNew = static_cast<char *>(calloc(cbNew, 1));
    if (pNew)
        memcpy(pNew, pOld, cbOld);
    SecureZeroMemory(pOld, cbOld);
    free(pOld);
    return pNew;
}

// Reads the whole body into a zero-terminated text. False (logged, lastError set) when it
// could not be read whole: a failed read, an answer over kMaxAnswerBytes, or a budget spent.
bool ReadBody(HINTERNET hRequest, KVC_WEB_RESPONSE *resp, const Budget &budget)
{
    DWORD cbBody = 0;     // bytes read so far, terminator excluded
    DWORD cbCapacity = 1; // the buffer's size; it doubles, so a large answer is copied a few times only
    resp->body = static_cast<char *>(calloc(1, 1));
    if (!resp->body) {
        LogMsgError(L"KVCDoWebCall calloc failure", GetLastError(), KSP_LOG_FAILURE);
        return false;
    }
    for (;;) {
        DWORD cbAvailable = 0;
        if (!WinHttpQueryDataAvailable(hRequest, &cbAvailable)) {
            resp->lastError = GetLastError();
            LogMsgError(L"KVCDoWebCall WinHttpQueryDataAvailable", resp->lastError, KSP_LOG_FAILURE);
            return false;
        }
        if (cbAvailable == 0)
            return true;
        if (cbAvailable > kMaxAnswerBytes - cbBody) {
            resp->lastError = ERROR_INSUFFICIENT_BUFFER;
            LogMsgError(L"KVCDoWebCall Answer Too Large", resp->lastError, KSP_LOG_WARNING);
            return false;
        }
        if (!budget.Allows(0)) {
            resp->lastError = ERROR_WINHTTP_TIMEOUT;
            LogMsgError(L"KVCDoWebCall Time Budget Spent", resp->lastError, KSP_LOG_WARNING);
            return false;
        }
        if (cbBody + cbAvailable + 1 > cbCapacity) {
            const DWORD cbNeeded = cbBody + cbAvailable + 1;
            const DWORD cbDoubled = cbCapacity < kMaxAnswerBytes ? 2 * cbCapacity : kMaxAnswerBytes + 1;
            const DWORD cbNew = cbDoubled > cbNeeded ? cbDoubled : cbNeeded;
            resp->body = GrowBody(resp->body, cbCapacity, cbNew);
            cbCapacity = cbNew;
        }
        if (!resp->body) {
            resp->lastError = ERROR_NOT_ENOUGH_MEMORY;
            LogMsgError(L"KVCDoWebCall calloc failure", resp->lastError, KSP_LOG_FAILURE);
            return false;
        }
        DWORD cbRead = 0;
        if (!WinHttpReadData(hRequest, resp->body + cbBody, cbAvailable, &cbRead)) {
            resp->lastError = GetLastError();
            LogMsgError(L"KVCDoWebCall WinHttpReadData", resp->lastError, KSP_LOG_FAILURE);
            return false;
        }
        cbBody += cbRead;
        resp->body[cbBody] = 0;
        if (cbRead == 0) // the server closed early: nothing more will come
            return true;
    }
}

void ReadStatusAndHeaders(HINTERNET hRequest, KVC_WEB_RESPONSE *resp)
{
    DWORD cbStatus = sizeof(resp->status);
    if (!WinHttpQueryHeaders(hRequest, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                             WINHTTP_HEADER_NAME_BY_INDEX, &resp->status, &cbStatus, WINHTTP_NO_HEADER_INDEX))
        resp->lastError = GetLastError();

    DWORD cbHeaders = 0;
    if (WinHttpQueryHeaders(hRequest, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, nullptr,
                            &cbHeaders, WINHTTP_NO_HEADER_INDEX) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER)
        return;
    // One spare character keeps the text terminated whatever the reported size includes.
    WCHAR *pszHeaders = static_cast<WCHAR *>(calloc(cbHeaders / sizeof(WCHAR) + 1, sizeof(WCHAR)));
    if (!pszHeaders) {
        LogMsgError(L"KVCDoWebCall WinHttpQueryHeaders memory allocation failed", GetLastError(), KSP_LOG_FAILURE);
        return;
    }
    if (WinHttpQueryHeaders(hRequest, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, pszHeaders,
                            &cbHeaders, WINHTTP_NO_HEADER_INDEX))
        resp->headers = BldStrNewStr(pszHeaders);
    else
        resp->lastError = GetLastError();
    free(pszHeaders);
}

HINTERNET OpenSession() {
    return WinHttpOpen(kUserAgent, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
}

HINTERNET g_hSharedSession = nullptr;

BOOL CALLBACK OpenSharedSession(PINIT_ONCE, PVOID, PVOID *)
{
    g_hSharedSession = OpenSession();
    return TRUE;
}

// The session every call shares when connections are reused: made on first use, safe for many
// threads at once (WinHTTP hands each request its own connection from the session's pool), and
// kept for the life of the process; closing it while the process ends could race a last call.
HINTERNET SharedSession()
{
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    InitOnceExecuteOnce(&once, OpenSharedSession, nullptr, nullptr);
    return g_hSharedSession;
}

// One exchange. hShared null: over a session and connection of its own, closed with it.
Attempt OneAttempt(KVC_WEB_RESPONSE *resp, HINTERNET hShared, WORD wPort, const WCHAR *pszHost, const WCHAR *pszPath,
                   const WCHAR *pszVerb, const WCHAR *pszHeaders, const char *pszBody, const Budget &budget)
{
    UniqueInternet ownSession(hShared ? nullptr : OpenSession());
    HINTERNET hSession = hShared ? hShared : ownSession.get();
    if (!hSession) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpOpen Failed", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Stop;
    }
    UniqueInternet connection(WinHttpConnect(hSession, pszHost, wPort, 0));
    if (!connection) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpConnect Failed", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Stop;
    }
    DWORD dwFlags = wPort == kTlsPort ? WINHTTP_FLAG_SECURE : 0;
    UniqueInternet request(WinHttpOpenRequest(connection.get(), pszVerb, pszPath, nullptr, WINHTTP_NO_REFERER,
                                              WINHTTP_DEFAULT_ACCEPT_TYPES, dwFlags));
    if (!request) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpOpenRequest Failed", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Retry;
    }
    // Set on the request, so that a shared session is never changed under another thread.
    if (!WinHttpSetTimeouts(request.get(), g_timeouts.resolveMs, g_timeouts.connectMs, g_timeouts.sendMs,
                            g_timeouts.receiveMs)) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpSetTimeouts Failed", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Stop;
    }
    // Redirects are never followed: WinHTTP would send the request's own headers (a bearer token,
    // the metadata service's header, an Arc key) to wherever a plain-HTTP answer points. A call
    // of its own also ends its connection: closing the session does that on Windows, but Wine
    // keeps a process-wide pool, so the connection is told not to outlive its one request.
    DWORD dwDisable = WINHTTP_DISABLE_REDIRECTS | (hShared ? 0 : WINHTTP_DISABLE_KEEP_ALIVE);
    if (!WinHttpSetOption(request.get(), WINHTTP_OPTION_DISABLE_FEATURE, &dwDisable, sizeof(dwDisable))) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpSetOption Failed", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Stop;
    }
    DWORD cbBody = pszBody ? static_cast<DWORD>(strlen(pszBody)) : 0;
    if (!WinHttpSendRequest(request.get(), pszHeaders ? pszHeaders : WINHTTP_NO_ADDITIONAL_HEADERS,
                            pszHeaders ? static_cast<DWORD>(-1L) : 0,
                            pszBody ? const_cast<char *>(pszBody) : WINHTTP_NO_REQUEST_DATA, cbBody, cbBody, 0)) {
        resp->lastError = GetLastError();
        if (resp->lastError == ERROR_WINHTTP_CANNOT_CONNECT) {
            LogMsgError(L"KVCDoWebCall WinHttpSendRequest Failed - Sleeping 20 Seconds", resp->lastError,
                        KSP_LOG_FAILURE);
        } else {
            LogMsgError(L"KVCDoWebCall WinHttpSendRequest Failed", resp->lastError, KSP_LOG_FAILURE);
        }
        return Attempt::Retry;
    }
    if (!WinHttpReceiveResponse(request.get(), nullptr)) {
        resp->lastError = GetLastError();
        LogMsgError(L"KVCDoWebCall WinHttpReceiveResponse", resp->lastError, KSP_LOG_FAILURE);
        return Attempt::Retry;
    }
    if (!ReadBody(request.get(), resp, budget)) {
        KVCWipeFreeBytes(resp->body); // half an answer must not pass for one: no body, status 0
        resp->body = nullptr;
        return Attempt::Lost;
    }
    ReadStatusAndHeaders(request.get(), resp);
    return Attempt::Done;
}

// Forgets what an earlier attempt left, so the record describes the final attempt alone.
void ResetResponse(KVC_WEB_RESPONSE *resp)
{
    resp->status = 0;
    resp->lastError = 0;
    if (resp->body) {
        SecureZeroMemory(resp->body, strlen(resp->body));
        free(resp->body);
        resp->body = nullptr;
    }
    BldStrFree(resp->headers);
    resp->headers = nullptr;
}

} // namespace

KVC_WEB_RESPONSE *KVCDoWebCall(KVC *, WORD wPort, const WCHAR *pszHost, const WCHAR *pszPath, const WCHAR *pszVerb,
                               const WCHAR *pszHeaders, const char *pszBody)
{
    LogMsg(L"KVCDoWebCall", KSP_LOG_STEP);
    KVC_WEB_RESPONSE *resp = static_cast<KVC_WEB_RESPONSE *>(calloc(1, sizeof(KVC_WEB_RESPONSE)));
    if (!resp) {
        LogMsgError(L"KVCDoWebCall allocated response", GetLastError(), KSP_LOG_FAILURE);
        return nullptr;
    }
    const Budget budget = {KspTime()};
    HINTERNET hShared = g_ReuseConnections ? SharedSession() : nullptr;
    Attempt outcome = Attempt::Stop;
    for (int attempt = 1; attempt <= kAttempts; attempt++) {
        ResetResponse(resp);
        outcome = OneAttempt(resp, hShared, wPort, pszHost, pszPath, pszVerb, pszHeaders, pszBody, budget);
        if (outcome == Attempt::Retry && hShared) {
            // The kept connection may have been closed by the server while idle: the request is
            // repeated at once over a connection of its own, before the usual rules apply.
            LogMsgError(L"KVCDoWebCall Kept Connection Failed - New Connection", resp->lastError, KSP_LOG_WARNING);
            ResetResponse(resp);
            outcome = OneAttempt(resp, nullptr, wPort, pszHost, pszPath, pszVerb, pszHeaders, pszBody, budget);
        }
        // Nothing follows the last attempt, so it is not followed by a pause either.
        if (outcome != Attempt::Retry || attempt == kAttempts)
            break;
        const bool fRefused = resp->lastError == ERROR_WINHTTP_CANNOT_CONNECT;
        if (!budget.Allows((fRefused ? kCannotConnectWaitMs : 0) + kRetryWaitMs)) {
            LogMsgError(L"KVCDoWebCall Time Budget Spent", resp->lastError, KSP_LOG_WARNING);
            break;
        }
        if (fRefused)
            KspSleep(kCannotConnectWaitMs);
        KspSleep(kRetryWaitMs);
    }
    if (outcome != Attempt::Done)
        LogMsgError(L"KVCDoWebCall failure", resp->lastError, KSP_LOG_FAILURE);
    return resp;
}

void KVCSetTimeouts(const KVC_TIMEOUTS *pTimeouts) { g_timeouts = pTimeouts ? *pTimeouts : kDefaultTimeouts; }

void KVCFreeWebResponse(KVC_WEB_RESPONSE *resp)
{
    if (!resp)
        return;
    ResetResponse(resp);
    free(resp);
}

WCHAR *KVCJoinText(std::initializer_list<const WCHAR *> pieces)
{
    size_t cch = 0;
    for (const WCHAR *piece : pieces)
        cch += piece ? wcslen(piece) : 0;
    WCHAR *pszJoined = static_cast<WCHAR *>(calloc(cch + 1, sizeof(WCHAR)));
    if (!pszJoined)
        return nullptr;
    WCHAR *pEnd = pszJoined;
    for (const WCHAR *piece : pieces) {
        if (!piece)
            continue;
        size_t cchPiece = wcslen(piece);
        memcpy(pEnd, piece, cchPiece * sizeof(WCHAR));
        pEnd += cchPiece;
    }
    return pszJoined;
}

void KVCWipeFreeText(WCHAR *psz)
{
    if (!psz)
        return;
    SecureZeroMemory(psz, wcslen(psz) * sizeof(WCHAR));
    free(psz);
}

void KVCWipeFreeBytes(char *psz)
{
    if (!psz)
        return;
    SecureZeroMemory(psz, strlen(psz));
    free(psz);
}
