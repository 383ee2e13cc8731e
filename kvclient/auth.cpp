// Authentication: a bearer token for the vault, by client secret (Entra ID client-credentials
// grant) or by managed identity (the instance metadata service, or the Azure Arc agent).
#include "kvclient/kvc.h"

#include <wininet.h>

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <utility>

#include "kvclient/kvjson.h"

namespace {

// A token is used for at most an hour from the moment it was asked for, and never past the
// lifetime its answer states, less a margin: the metadata service and the Arc agent hand out
// cached tokens with whatever life they have left, and a token must not expire mid-request.
// The margin is a minute, but at most half the lifetime, so a short-lived token is still used.
constexpr __time64_t kTokenReuseSeconds = 3600;
constexpr __time64_t kTokenMarginSeconds = 60;

constexpr DWORD kAuthnManagedIdentity = 1;
constexpr DWORD kAuthnClientSecret = 2;

constexpr WCHAR kHttpsScheme[] = L"https://";
constexpr WORD kHttpsPort = 443;

// The instance metadata service's well-known link-local address, plain HTTP.
constexpr WCHAR kImdsHost[] = L"169.254.169.254";
constexpr WORD kImdsPort = 80;
// The Azure Arc agent listens here and wants a newer api-version than the metadata service.
constexpr WORD kArcPort = 40342;
constexpr DWORD kEndpointChars = 500;
// The first request and up to 240 repeats, a second apart: an agent that is still starting
// gets four minutes.
constexpr int kManagedIdentityAttempts = 241;
constexpr DWORD kManagedIdentityWaitMs = 1000;
// Each of those requests may itself take up to the transport's budget: the repeats stop once
// five minutes have gone by, however slowly the agent answers.
constexpr __time64_t kManagedIdentityBudgetSeconds = 300;
// The Arc agent's key file: 64 hexadecimal characters in practice. Only a file of its own
// folder is read, and only a small one: the challenge comes over plain HTTP from whoever
// listens on the agent's port.
constexpr DWORD kArcSecretBytes = 4096;
constexpr WCHAR kArcTokenFolder[] = L"\\AzureConnectedMachineAgent\\Tokens\\";
constexpr WCHAR kArcKeyFileExtension[] = L".key";

constexpr WCHAR kIdentityPlaceholder[] = L"oidguid";
constexpr DWORD kVaultNameChars = 24;

const WCHAR *TextOf(const BldStr *pstr) { return pstr ? pstr->cStr : nullptr; }

// ---- The form body of the client-credentials grant -------------------------------------

bool IsUnreserved(WCHAR ch)
{
    return (ch >= L'A' && ch <= L'Z') || (ch >= L'a' && ch <= L'z') || (ch >= L'0' && ch <= L'9') || ch == L'-' ||
           ch == L'.' || ch == L'_' || ch == L'~';
}

// Percent-encodes a form value as the token service decodes it (UTF-8 bytes), so that a
// secret holding "+", "&", "=" or "%" arrives unchanged. With pszOut null, only counts the
// characters. Returns the count, terminator excluded.
size_t FormEncode(const WCHAR *pszValue, WCHAR *pszOut)
{
    static const WCHAR kHex[] = L"0123456789ABCDEF";
    size_t cch = 0;
    for (const WCHAR *p = pszValue ? pszValue : L""; *p; p++) {
        if (IsUnreserved(*p)) {
            if (pszOut)
                pszOut[cch] = *p;
            cch++;
            continue;
        }
        // A surrogate pair is one character: encode both halves together.
        int cchChar = IS_HIGH_SURROGATE(p[0]) && IS_LOW_SURROGATE(p[1]) ? 2 : 1;
        char utf8[4] = {};
        int cbUtf8 = WideCharToMultiByte(CP_UTF8, 0, p, cchChar, utf8, sizeof(utf8), nullptr, nullptr);
        for (int i = 0; i < cbUtf8; i++) {
            BYTE b = static_cast<BYTE>(utf8[i]);
            if (pszOut) {
                pszOut[cch] = L'%';
                pszOut[cch + 1] = kHex[b >> 4];
                pszOut[cch + 2] = kHex[b & 0x0F];
            }
            cch += 3;
        }
        SecureZeroMemory(utf8, sizeof(utf8));
        p += cchChar - 1;
    }
    if (pszOut)
        pszOut[cch] = 0;
    return cch;
}

// The encoded value in a text of exactly its size (the caller wipes and frees it).
WCHAR *NewFormValue(const WCHAR *pszValue)
{
    WCHAR *pszOut = static_cast<WCHAR *>(calloc(FormEncode(pszValue, nullptr) + 1, sizeof(WCHAR)));
    if (pszOut)
        FormEncode(pszValue, pszOut);
    return pszOut;
}

// "resource=...&grant_type=client_credentials&client_id=...&client_secret=..." as narrow
// text. Every copy that held the secret is wiped before it is freed.
char *NewClientCredentialsBody(KVC *kvc, const WCHAR *pszResource)
{
    WCHAR *pszEncResource = NewFormValue(pszResource);
    WCHAR *pszEncClientId = NewFormValue(TextOf(kvc->clientId));
    WCHAR *pszEncSecret = NewFormValue(TextOf(kvc->clientSecret));
    WCHAR *pszBody = nullptr;
    if (pszEncResource && pszEncClientId && pszEncSecret)
        pszBody = KVCJoinText({L"resource=", pszEncResource, L"&grant_type=client_credentials", L"&client_id=",
                               pszEncClientId, L"&client_secret=", pszEncSecret});
    char *pszNarrow = nullptr;
    if (pszBody) {
        pszNarrow = WStrToBytesStr(pszBody);
        if (!pszNarrow)
            LogMsgError(L"KVCAuthenticate WStrToBytesStr failure", GetLastError(), KSP_LOG_FAILURE);
    }
    KVCWipeFreeText(pszBody);
    KVCWipeFreeText(pszEncSecret);
    free(pszEncClientId);
    free(pszEncResource);
    return pszNarrow;
}

// ---- Token answers ------------------------------------------------------------------------

// A token as one sign-in answered it, before it is handed to the client. The texts are wiped
// by BldStrFree when a fresh token is not used.
struct FRESH_TOKEN {
    BldStr *tokenType;
    BldStr *accessToken;
    __time64_t lifetime; // seconds the token may be used from the moment it was asked for
    WCHAR szVaultName[kVaultNameChars + 1]; // the vault named after the identity; empty if none
};

void FreeFreshToken(FRESH_TOKEN *pToken)
{
    BldStrFree(pToken->tokenType);
    BldStrFree(pToken->accessToken);
    *pToken = {};
}

// A member that is a whole number, sent as a number (Entra ID v2) or as decimal text (v1, the
// metadata service, Arc); -1 when absent or not a number.
long long WholeNumber(json_object *doc, const char *pszMember)
{
    json_object *value = KVCJsonMember(doc, pszMember, json_type_int);
    if (value)
        return json_object_get_int64(value);
    const char *pszText = KVCJsonGetString(doc, pszMember);
    if (!pszText || !*pszText)
        return -1;
    long long n = 0;
    for (const char *p = pszText; *p; ++p) {
        if (*p < '0' || *p > '9' || n > 1000000000000LL)
            return -1;
        n = n * 10 + (*p - '0');
    }
    return n;
}

// How long the answer says the token lives ("expires_in", else "expires_on" against now), less
// the margin, within the hour; the hour when it says nothing usable.
__time64_t UsableLifetime(json_object *doc, __time64_t now)
{
    long long seconds = WholeNumber(doc, "expires_in");
    if (seconds < 0) {
        const long long expiresOn = WholeNumber(doc, "expires_on");
        seconds = expiresOn < 0 ? -1 : (expiresOn > now ? expiresOn - now : 0);
    }
    if (seconds < 0 || seconds > kTokenReuseSeconds + kTokenMarginSeconds)
        return kTokenReuseSeconds;
    const long long margin = seconds / 2 < kTokenMarginSeconds ? seconds / 2 : kTokenMarginSeconds;
    return static_cast<__time64_t>(seconds - margin);
}

// The token type goes into the Authorization line as it stands: printable ASCII, no spaces.
bool IsHeaderWord(const char *psz)
{
    for (; psz && *psz; ++psz)
        if (*psz < 0x21 || *psz > 0x7E)
            return false;
    return true;
}

// The token itself: token68 (letters, digits, "-._~+/", then "=" padding only).
bool IsToken68(const char *psz)
{
    for (; psz && *psz && *psz != '='; ++psz)
        if (!isalnum(static_cast<unsigned char>(*psz)) && !strchr("-._~+/", *psz))
            return false;
    for (; psz && *psz == '='; ++psz) {
    }
    return !psz || !*psz;
}

// Takes "token_type", "access_token" and the lifetime from a 200 answer; either text counts as
// a token. A token a header line could not carry as it stands is refused: the metadata
// service and the Arc agent answer over plain HTTP, and a CR LF in a token would add headers of
// the answerer's choosing to every vault request.
int TakeToken(FRESH_TOKEN *pToken, const char *pszBody, __time64_t now)
{
    KVCJsonDoc doc = KVCJsonParse(pszBody);
    const char *pszType = KVCJsonGetString(doc.get(), "token_type");
    const char *pszToken = KVCJsonGetString(doc.get(), "access_token");
    if (!pszType && !pszToken)
        return 0;
    if (!IsHeaderWord(pszType) || !IsToken68(pszToken)) {
        LogMsg(L"KVCAuthenticate Token Refused - token_type or access_token holds characters a header cannot carry",
               KSP_LOG_FAILURE);
        return 0;
    }
    FreeFreshToken(pToken);
    pToken->tokenType = BldStrNewStrFromAscii(pszType ? pszType : "");
    pToken->accessToken = BldStrNewStrFromAscii(pszToken ? pszToken : "");
    pToken->lifetime = UsableLifetime(doc.get(), now);
    return pToken->tokenType && pToken->accessToken ? 1 : 0;
}

// ---- Client secret --------------------------------------------------------------------------

int ClientSecretToken(KVC *kvc, const WCHAR *pszResource, FRESH_TOKEN *pToken, __time64_t now)
{
    LogMsg2(L"KVCAuthenticate KVCKeyCert", TextOf(kvc->kvName), KSP_LOG_STEP);
    KVCGetLoginUrl(kvc);
    if (!pszResource)
        pszResource = TextOf(kvc->resource);

    // "https://<host>/<tenant>" -> host, and "/<tenant>/oauth2/token".
    const WCHAR *pszLogin = TextOf(kvc->loginUrl);
    const size_t cchScheme = ARRAYSIZE(kHttpsScheme) - 1;
    if (!pszLogin || _wcsnicmp(pszLogin, kHttpsScheme, cchScheme) != 0)
        return 0;
    const WCHAR *pszHostStart = pszLogin + cchScheme;
    const WCHAR *pszSlash = wcschr(pszHostStart, L'/');
    if (!pszSlash || pszSlash == pszHostStart)
        return 0;
    WCHAR szHost[256] = {};
    size_t cchHost = static_cast<size_t>(pszSlash - pszHostStart);
    if (cchHost >= ARRAYSIZE(szHost))
        return 0;
    memcpy(szHost, pszHostStart, cchHost * sizeof(WCHAR));
    WCHAR *pszPath = KVCJoinText({pszSlash, L"/oauth2/token"});

    WCHAR szRequestId[39];
    KVCNewRequestId(szRequestId);
    WCHAR *pszHeaders = KVCJoinText({L"Content-Type: application/x-www-form-urlencoded\r\n",
                                     L"Accept: application/json\r\n", L"return-client-request-id: true\r\n",
                                     L"client-request-id: ", szRequestId, L"\r\n\r\n"});
    char *pszBody = NewClientCredentialsBody(kvc, pszResource);

    int got = 0;
    KVC_WEB_RESPONSE *resp = nullptr;
    if (pszPath && pszHeaders && pszBody)
        resp = KVCDoWebCall(kvc, kHttpsPort, szHost, pszPath, L"POST", pszHeaders, pszBody);
    if (!resp || resp->status != 200)
        LogMsgError(L"KVCAuthenticate KVCDoWebCall failure", 1, KSP_LOG_FAILURE);
    else
        got = TakeToken(pToken, resp->body, now);

    KVCFreeWebResponse(resp);
    KVCWipeFreeBytes(pszBody);
    free(pszHeaders);
    free(pszPath);
    return got;
}

// ---- Managed identity ----------------------------------------------------------------------

// Only "<ProgramData>\AzureConnectedMachineAgent\Tokens\<name>.key" is the agent's key file.
// Any other path in a challenge is refused: a process listening on the agent's port could
// otherwise have any file the caller can read sent to it.
bool IsArcKeyFilePath(const WCHAR *pszPath)
{
    WCHAR szFolder[MAX_PATH] = {};
    const DWORD cchData = GetEnvironmentVariableW(L"ProgramData", szFolder, MAX_PATH);
    if (cchData == 0 || cchData >= MAX_PATH)
        return false;
    if (szFolder[cchData - 1] == L'\\')
        szFolder[cchData - 1] = 0;
    if (wcscat_s(szFolder, kArcTokenFolder) != 0)
        return false;
    const size_t cchFolder = wcslen(szFolder);
    if (_wcsnicmp(pszPath, szFolder, cchFolder) != 0)
        return false;
    const WCHAR *pszName = pszPath + cchFolder;
    const size_t cchName = wcslen(pszName);
    const size_t cchExtension = ARRAYSIZE(kArcKeyFileExtension) - 1;
    if (cchName <= cchExtension || _wcsicmp(pszName + cchName - cchExtension, kArcKeyFileExtension) != 0)
        return false;
    for (const WCHAR *p = pszName; *p; ++p)
        if (*p < 0x20 || wcschr(L"\\/:*?\"<>|", *p))
            return false; // a file directly inside the folder, no stream or device
    return true;
}

// Reads the key file (at most kArcSecretBytes) into szSecret. The secret goes into a header
// line, so it must be printable ASCII; a final line break is dropped.
int ReadArcSecret(const WCHAR *pszPath, char (&szSecret)[kArcSecretBytes + 1])
{
    HANDLE hFile =
        CreateFileW(pszPath, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        LogMsg2(L"KVCAuthenticate MSIAuthenticate failure - Could not open secret file", pszPath, KSP_LOG_FAILURE);
        return 0;
    }
    LARGE_INTEGER size = {};
    DWORD cbRead = 0;
    const bool fSmall = GetFileSizeEx(hFile, &size) && size.QuadPart <= kArcSecretBytes;
    // One byte more than allowed is asked for, so that a file that grew is still caught.
    const bool fRead = fSmall && ReadFile(hFile, szSecret, kArcSecretBytes + 1, &cbRead, nullptr);
    CloseHandle(hFile);
    if (!fRead || cbRead > kArcSecretBytes) {
        SecureZeroMemory(szSecret, sizeof(szSecret));
        LogMsg2(L"KVCAuthenticate MSIAuthenticate failure - Arc key file too large or unreadable", pszPath,
                KSP_LOG_FAILURE);
        return 0;
    }
    szSecret[cbRead] = 0;
    while (cbRead > 0 && (szSecret[cbRead - 1] == '\n' || szSecret[cbRead - 1] == '\r'))
        szSecret[--cbRead] = 0;
    if (cbRead == 0 || !IsHeaderWord(szSecret)) {
        SecureZeroMemory(szSecret, sizeof(szSecret));
        LogMsg2(L"KVCAuthenticate MSIAuthenticate failure - Arc key file holds no usable secret", pszPath,
                KSP_LOG_FAILURE);
        return 0;
    }
    return 1;
}

// Reads the key file and appends "Authorization: Basic <contents>" to the request headers.
int AnswerArcChallenge(const WCHAR *pszPath, WCHAR *pszHeaders, size_t cchHeaders)
{
    if (!IsArcKeyFilePath(pszPath)) {
        LogMsgExcerptW(L"KVCAuthenticate MSIAuthenticate failure - Arc realm is not a key file of the agent", pszPath,
                       KSP_LOG_FAILURE);
        return 0;
    }
    char secret[kArcSecretBytes + 1] = {};
    if (!ReadArcSecret(pszPath, secret))
        return 0;
    WCHAR szSecret[kArcSecretBytes + 1] = {};
    MultiByteToWideChar(CP_ACP, 0, secret, -1, szSecret, ARRAYSIZE(szSecret));
    wcscat_s(pszHeaders, cchHeaders, L"Authorization: Basic ");
    wcscat_s(pszHeaders, cchHeaders, szSecret);
    wcscat_s(pszHeaders, cchHeaders, L"\r\n");
    SecureZeroMemory(secret, sizeof(secret));
    SecureZeroMemory(szSecret, sizeof(szSecret));
    return 1;
}

void LogReturnCode(const KVC_WEB_RESPONSE *resp, const WCHAR *pszHost)
{
    LogMsgNum(L"KVCAuthenticate MSIAuthenticate failure - Return Code", pszHost, static_cast<int>(resp->status),
              KSP_LOG_FAILURE);
    // An excerpt only: the answer may carry a token, and it came over plain HTTP.
    if (resp->body && resp->body[0] && resp->headers)
        LogMsgExcerpt(L"KVCAuthenticate MSIAuthenticate failure - Return String", resp->body, KSP_LOG_FAILURE);
}

int ManagedIdentityToken(KVC *kvc, const WCHAR *pszResource, FRESH_TOKEN *pToken, __time64_t now)
{
    WCHAR szHost[256] = {};
    wcscpy_s(szHost, kImdsHost);
    WORD wPort = kImdsPort;

    WCHAR szEndpoint[kEndpointChars] = {};
    DWORD cchEndpoint = GetEnvironmentVariableW(L"IDENTITY_ENDPOINT", szEndpoint, kEndpointChars);
    if (cchEndpoint > 0 && cchEndpoint < kEndpointChars) {
        LogMsg(L"KVCAuthenticate MSIAuthenticate - Found IDENTITY_ENDPOINT Environment", KSP_LOG_STEP);
        WCHAR szCrackedHost[256] = {};
        URL_COMPONENTSW parts = {};
        parts.dwStructSize = sizeof(parts);
        parts.lpszHostName = szCrackedHost;
        parts.dwHostNameLength = ARRAYSIZE(szCrackedHost);
        if (InternetCrackUrlW(szEndpoint, 0, 0, &parts)) {
            wcscpy_s(szHost, szCrackedHost);
            wPort = parts.nPort;
            LogMsg2(L"KVCAuthenticate MSIAuthenticate - Found Host", szHost, KSP_LOG_STEP);
        }
    }
    LogMsg2(L"KVCAuthenticate MSIAuthenticate - Azure or Arc VM", TextOf(kvc->kvName), KSP_LOG_STEP);

    // The audience is set up by the client-secret flow; a managed identity alone builds it here.
    if (!pszResource && !kvc->resource)
        KVCGetLoginUrl(kvc);
    if (!pszResource)
        pszResource = TextOf(kvc->resource);
    WCHAR *pszPath = KVCJoinText({L"/metadata/identity/oauth2/token?resource=", pszResource,
                                  wPort == kArcPort ? L"&api-version=2020-06-01" : L"&api-version=2018-02-01"});
    if (!pszPath)
        return 0;

    // Room for the metadata line and one answered Arc challenge; wiped before leaving.
    WCHAR szHeaders[64 + kArcSecretBytes] = L"Metadata: True\r\n";
    bool fChallengeAnswered = false;
    int got = 0;
    const __time64_t started = KspTime();
    for (int attempt = 1; attempt <= kManagedIdentityAttempts; attempt++) {
        if (attempt > 1 && KspTime() - started >= kManagedIdentityBudgetSeconds) {
            LogMsg(L"KVCAuthenticate MSIAuthenticate failure - Time Budget Spent", KSP_LOG_FAILURE);
            break;
        }
        if (attempt > 1)
            KspSleep(kManagedIdentityWaitMs);
        KVC_WEB_RESPONSE *resp = KVCDoWebCall(kvc, wPort, szHost, pszPath, L"GET", szHeaders, nullptr);
        if (!resp) {
            LogMsg(L"KVCAuthenticate MSIAuthenticate Response NULL", KSP_LOG_STEP);
            LogMsg(L"KVCAuthenticate MSIAuthenticate failure - Response NULL", KSP_LOG_FAILURE);
            break;
        }
        bool fDone = true;
        if (resp->status == 200) {
            got = TakeToken(pToken, resp->body, now);
        } else if (wPort == kArcPort && resp->headers && !fChallengeAnswered) {
            LogMsg(L"KVCAuthenticate MSIAuthenticate Arc Retry", KSP_LOG_STEP);
            fDone = false; // an unreadable challenge is asked again
            WCHAR *pszKeyFile = KVCArcRealmPath(resp->headers->cStr);
            if (pszKeyFile) {
                fChallengeAnswered = AnswerArcChallenge(pszKeyFile, szHeaders, ARRAYSIZE(szHeaders)) != 0;
                if (!fChallengeAnswered) {
                    LogReturnCode(resp, szHost);
                    fDone = true;
                }
            }
            free(pszKeyFile);
        } else {
            LogReturnCode(resp, szHost);
        }
        KVCFreeWebResponse(resp);
        if (fDone)
            break;
    }
    SecureZeroMemory(szHeaders, sizeof(szHeaders));
    free(pszPath);
    return got;
}

// ---- A vault named after the identity ---------------------------------------------------------

// An object id as the directory writes it: a GUID, 8-4-4-4-12 hexadecimal digits. The id
// becomes part of a host name, so nothing else is taken.
bool IsGuid(const char *psz)
{
    for (int i = 0; i < 36; i++) {
        const bool fDash = i == 8 || i == 13 || i == 18 || i == 23;
        if (fDash ? psz[i] != '-' : !isxdigit(static_cast<unsigned char>(psz[i])))
            return false;
    }
    return psz[36] == 0;
}

// The claims of a JSON Web Token (its second part), parsed; null when they cannot be read.
KVCJsonDoc TokenClaims(const WCHAR *pszToken)
{
    const WCHAR *pszPayload = pszToken ? wcschr(pszToken, L'.') : nullptr;
    if (!pszPayload)
        return nullptr;
    pszPayload++;
    const WCHAR *pszPayloadEnd = wcschr(pszPayload, L'.');
    size_t cchPayload = pszPayloadEnd ? static_cast<size_t>(pszPayloadEnd - pszPayload) : wcslen(pszPayload);
    WCHAR *pszPart = static_cast<WCHAR *>(calloc(cchPayload + 1, sizeof(WCHAR)));
    if (!pszPart)
        return nullptr;
    memcpy(pszPart, pszPayload, cchPayload * sizeof(WCHAR));
    BYTE *pbClaims = nullptr;
    DWORD cbClaims = 0;
    KVCJsonDoc claims;
    if (KVCKKVKSP_FromBase64(pszPart, &pbClaims, &cbClaims, TRUE) && pbClaims)
        claims = KVCJsonParse(reinterpret_cast<const char *>(pbClaims));
    free(pbClaims);
    KVCWipeFreeText(pszPart);
    return claims;
}

// "oidguid" becomes "x" and the object id without dashes, cut to 24 characters. The name is
// worked out before the token is handed to the client: a token without a usable object id
// fails the sign-in rather than be sent to a vault literally named "oidguid".
int IdentityVaultName(FRESH_TOKEN *pToken)
{
    LogMsg(L"KVCAuthenticate Found OIDGUID - Replace", KSP_LOG_STEP);
    KVCJsonDoc claims = TokenClaims(TextOf(pToken->accessToken));
    const char *pszOid = KVCJsonGetString(claims.get(), "oid");
    if (!pszOid || !IsGuid(pszOid)) {
        LogMsg(L"KVCAuthenticate Found OIDGUID - the token's oid is not a GUID", KSP_LOG_FAILURE);
        return 0;
    }
    DWORD cch = 0;
    pToken->szVaultName[cch++] = L'x';
    for (const char *p = pszOid; *p && cch < kVaultNameChars; ++p)
        if (*p != '-')
            pToken->szVaultName[cch++] = static_cast<WCHAR>(*p);
    pToken->szVaultName[cch] = 0;
    return 1;
}

} // namespace

// The Arc agent's challenge names a file ("WWW-Authenticate: Basic realm=<path>") whose
// contents prove that the caller may read the agent's folder.
WCHAR *KVCArcRealmPath(const WCHAR *pszHeaders)
{
    static const WCHAR kRealm[] = L"Basic realm=";
    const WCHAR *pszStart = pszHeaders ? wcsstr(pszHeaders, kRealm) : nullptr;
    if (!pszStart) {
        LogMsg(L"KVCAuthenticate MSIAuthenticate failure - Could not find Arc Basic realm 2", KSP_LOG_FAILURE);
        return nullptr;
    }
    pszStart += ARRAYSIZE(kRealm) - 1;
    const WCHAR *pszEnd = wcsstr(pszStart, L"\r\n");
    if (!pszEnd) {
        LogMsg(L"KVCAuthenticate MSIAuthenticate failure - Could not find Arc Basic realm 1", KSP_LOG_FAILURE);
        return nullptr;
    }
    size_t cch = static_cast<size_t>(pszEnd - pszStart);
    WCHAR *pszPath = static_cast<WCHAR *>(calloc(cch + 1, sizeof(WCHAR)));
    if (pszPath)
        memcpy(pszPath, pszStart, cch * sizeof(WCHAR));
    return pszPath;
}

namespace {

// Whose token the client asks for, as the process-wide token sharing tells identities apart:
// the sign-in kind, the cloud and kind of vault (so the audience), tenant, client, a hash of the
// secret, an audience asked for instead, and the managed identity's endpoint. Null when the
// secret cannot be hashed: the client then signs in on its own.
WCHAR *IdentityOf(KVC *kvc, const WCHAR *pszResource)
{
    WCHAR *pszSecretHash = KVCSecretHash(TextOf(kvc->clientSecret));
    if (!pszSecretHash)
        return nullptr;
    WCHAR szKind[16];
    swprintf(szKind, ARRAYSIZE(szKind), L"%lu|%lu|", static_cast<unsigned long>(kvc->authn),
             static_cast<unsigned long>(kvc->fManagedHsm));
    WCHAR szEndpoint[kEndpointChars] = {};
    GetEnvironmentVariableW(L"IDENTITY_ENDPOINT", szEndpoint, kEndpointChars);
    WCHAR *pszIdentity = KVCJoinText({szKind, kvc->cloud ? kvc->cloud->pszName : L"", L"|", TextOf(kvc->tenantId),
                                      L"|", TextOf(kvc->clientId), L"|", pszSecretHash, L"|", pszResource, L"|",
                                      szEndpoint});
    KVCWipeFreeText(pszSecretHash);
    return pszIdentity;
}

// Asks for a token with no lock held: the request may take minutes (an Arc agent starting up).
// A live token another client of the process holds for the same identity serves instead.
// fIdentityVault: the vault is to be named after the token's identity.
int FetchToken(KVC *kvc, const WCHAR *pszResource, const WCHAR *pszIdentity, bool fIdentityVault,
               FRESH_TOKEN *pToken, __time64_t now)
{
    __time64_t expiry = 0;
    int got = KVCSharedTokenTake(pszIdentity, now, &pToken->tokenType, &pToken->accessToken, &expiry);
    if (got) {
        LogMsg(L"KVCAuthenticate Shared Token", KSP_LOG_STEP);
        pToken->lifetime = expiry - now;
    } else {
        if (kvc->authn & kAuthnClientSecret)
            got = ClientSecretToken(kvc, pszResource, pToken, now);
        if (!got && (kvc->authn & kAuthnManagedIdentity))
            got = ManagedIdentityToken(kvc, pszResource, pToken, now);
        if (got)
            KVCSharedTokenKeep(pszIdentity, TextOf(pToken->tokenType), TextOf(pToken->accessToken),
                               now + pToken->lifetime);
    }
    if (got && fIdentityVault)
        got = IdentityVaultName(pToken);
    return got;
}

// Hands a fresh token to the client. Called with the lock held exclusively; the old texts are
// wiped as they go, and no request still uses them (requests copy the token under the lock).
void InstallToken(KVC *kvc, FRESH_TOKEN *pToken, __time64_t now)
{
    BldStrFree(kvc->tokenType);
    BldStrFree(kvc->accessToken);
    kvc->tokenType = pToken->tokenType;
    kvc->accessToken = pToken->accessToken;
    kvc->tokenExpiry = now + pToken->lifetime;
    kvc->tokenGeneration++;
    if (pToken->szVaultName[0] && kvc->kvName)
        BldStrReplace(kvc->kvName, pToken->szVaultName);
    *pToken = {};
}

void LogVaultName(const WCHAR *pszMessage, KVC *kvc, int level)
{
    AcquireSRWLockShared(&kvc->tokenLock);
    WCHAR szName[64] = {};
    if (kvc->kvName && kvc->kvName->cStr)
        wcsncpy_s(szName, kvc->kvName->cStr, _TRUNCATE);
    ReleaseSRWLockShared(&kvc->tokenLock);
    LogMsg2(pszMessage, szName, level);
}

} // namespace

int KVCAuthenticate(KVC *kvc, const WCHAR *pszResource)
{
    if (!kvc) {
        LogMsg2(L"KVCAuthenticate", nullptr, KSP_LOG_STEP);
        LogMsg2(L"KVCAuthenticate Logon failure", nullptr, KSP_LOG_FAILURE);
        return 0;
    }
    LogVaultName(L"KVCAuthenticate", kvc, KSP_LOG_STEP);
    // Taken before any request, so that a slow answer does not stretch the token's life.
    const __time64_t now = KspTime();

    AcquireSRWLockExclusive(&kvc->tokenLock);
    const DWORD renewalsSeen = kvc->renewals;
    while (kvc->fRenewing)
        SleepConditionVariableSRW(&kvc->tokenRenewed, &kvc->tokenLock, INFINITE, 0);
    const bool fHeld = kvc->accessToken && kvc->tokenExpiry > now;
    // Another thread's renewal answered while this one waited: its answer is this one's too,
    // so a sign-in that fails is not repeated by every waiting thread in turn.
    if (fHeld || kvc->renewals != renewalsSeen) {
        ReleaseSRWLockExclusive(&kvc->tokenLock);
        if (!fHeld)
            LogVaultName(L"KVCAuthenticate Logon failure", kvc, KSP_LOG_FAILURE);
        return fHeld ? 1 : 0;
    }
    kvc->fRenewing = 1;
    const bool fIdentityVault =
        !pszResource && kvc->kvName && kvc->kvName->cStr && wcscmp(kvc->kvName->cStr, kIdentityPlaceholder) == 0;
    ReleaseSRWLockExclusive(&kvc->tokenLock);

    FRESH_TOKEN fresh = {};
    WCHAR *pszIdentity = IdentityOf(kvc, pszResource);
    const int got = FetchToken(kvc, pszResource, pszIdentity, fIdentityVault, &fresh, now);

    AcquireSRWLockExclusive(&kvc->tokenLock);
    if (got)
        InstallToken(kvc, &fresh, now);
    std::swap(kvc->pszIdentity, pszIdentity);
    kvc->fRenewing = 0;
    kvc->renewals++;
    ReleaseSRWLockExclusive(&kvc->tokenLock);
    WakeAllConditionVariable(&kvc->tokenRenewed);
    FreeFreshToken(&fresh);
    KVCWipeFreeText(pszIdentity);

    if (!got)
        LogVaultName(L"KVCAuthenticate Logon failure", kvc, KSP_LOG_FAILURE);
    return got;
}

void KVCDropToken(KVC *kvc, DWORD dwTokenGeneration)
{
    if (!kvc)
        return;
    WCHAR *pszIdentity = nullptr, *pszToken = nullptr;
    AcquireSRWLockExclusive(&kvc->tokenLock);
    if (kvc->tokenGeneration == dwTokenGeneration) {
        kvc->tokenExpiry = 0;
        // Other clients of the process must not take the refused token either.
        pszIdentity = kvc->pszIdentity ? KVCJoinText({kvc->pszIdentity}) : nullptr;
        pszToken = KVCJoinText({TextOf(kvc->accessToken)});
    }
    ReleaseSRWLockExclusive(&kvc->tokenLock);
    KVCSharedTokenForget(pszIdentity, pszToken);
    KVCWipeFreeText(pszIdentity);
    KVCWipeFreeText(pszToken);
}
