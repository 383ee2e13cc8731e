// The REST call frame: the one door to the Key Vault REST interface. It builds the URL and the
// headers, makes one exchange and hands the status and body to the calling thread's answer.
// It neither authenticates nor retries: KVCVaultCall does that with each operation's policy.
#include "kvclient/kvc.h"

#include <objbase.h>

#include <stdlib.h>
#include <string.h>

namespace {

constexpr WCHAR kDefaultApiVersion[] = L"2016-10-01";
constexpr WORD kHttpsPort = 443;

bool Given(const WCHAR *psz) { return psz && *psz; }

bool IsSuccess(DWORD status) { return status == 200 || status == 201 || status == 202 || status == 204; }

// Copies what the request needs of the shared client under its lock, so that a token renewed
// or a vault name resolved meanwhile never changes (or frees) what this request is using.
struct REQUEST_CREDENTIALS {
    WCHAR *pszHost;
    WCHAR *pszAuthorization; // "<type> <token>": wiped after use
    DWORD tokenGeneration;
};

bool TakeCredentials(KVC *kvc, REQUEST_CREDENTIALS *pCred)
{
    AcquireSRWLockShared(&kvc->tokenLock);
    const bool fHeld = kvc->tokenType && kvc->accessToken && kvc->tokenType->cStr && kvc->accessToken->cStr;
    if (fHeld) {
        pCred->pszHost = KVCNewVaultHost(kvc);
        pCred->pszAuthorization = KVCJoinText({kvc->tokenType->cStr, L" ", kvc->accessToken->cStr});
        pCred->tokenGeneration = kvc->tokenGeneration;
    }
    ReleaseSRWLockShared(&kvc->tokenLock);
    return fHeld;
}

// Managed HSM has no certificates API: nothing goes to its certificate paths, whoever asks.
bool ManagedHsmCertificateRequest(const KVC *kvc, const WCHAR *pszPath, DWORD dwCollection)
{
    if (!kvc->fManagedHsm)
        return false;
    if (!pszPath)
        return dwCollection == KVC_COLLECTION_CERTIFICATES;
    return _wcsnicmp(pszPath, L"/certificates", 13) == 0 || _wcsnicmp(pszPath, L"/deletedcertificates", 20) == 0;
}

} // namespace

int KVCNewRequestId(WCHAR (&szId)[39])
{
    GUID guid;
    szId[0] = 0;
    return SUCCEEDED(CoCreateGuid(&guid)) && StringFromGUID2(guid, szId, ARRAYSIZE(szId)) > 0 ? 1 : 0;
}

int KVCDoKVRESTCall(KVC *kvc, KVC_ANSWER *pAnswer, const WCHAR *pszPath, DWORD dwCollection,
                    const WCHAR *pszObjectName, const WCHAR *pszVerb, const WCHAR *pszAction, const char *pszBody,
                    const WCHAR *pszApiVersion)
{
    LogMsg(L"KVCDoKVRESTCall", KSP_LOG_TRACE);
    KVCFreeAnswer(pAnswer); // the previous answer may be a decryption's plaintext
    REQUEST_CREDENTIALS cred = {};
    if (!kvc || !pAnswer || !TakeCredentials(kvc, &cred)) {
        LogMsgError(L"KVCDoKVRESTCall Failed - kvc, kvc->tokenType or kvc->accessToken or kvc->tokenType->cStr or "
                    L"kvc->accessToken->cStr NULL",
                    ERROR_INVALID_PARAMETER, KSP_LOG_TRACE);
        return 0;
    }
    pAnswer->tokenGeneration = cred.tokenGeneration;
    if (ManagedHsmCertificateRequest(kvc, pszPath, dwCollection)) {
        LogMsg(L"KVCDoKVRESTCall Managed HSM has no certificates", KSP_LOG_FAILURE);
        KVCWipeFreeText(cred.pszAuthorization);
        free(cred.pszHost);
        return 0;
    }

    pszApiVersion = KVCApiVersion(kvc, pszApiVersion);
    if (!pszApiVersion) {
        LogMsg(L"KVCDoKVRESTCall API Version 2016-10-01", KSP_LOG_TRACE);
        pszApiVersion = kDefaultApiVersion;
    }
    LogMsg2(L"KVCDoKVRESTCall host", cred.pszHost, KSP_LOG_TRACE);

    WCHAR *pszUrl = nullptr;
    if (pszPath) {
        pszUrl = KVCJoinText({pszPath}); // a continuation link, complete as it stands
    } else {
        const WCHAR *pszCollection = dwCollection == KVC_COLLECTION_CERTIFICATES ? L"certificates" : L"keys";
        pszUrl = KVCJoinText({L"/", pszCollection, Given(pszObjectName) ? L"/" : nullptr,
                              Given(pszObjectName) ? pszObjectName : nullptr, Given(pszAction) ? L"/" : nullptr,
                              Given(pszAction) ? pszAction : nullptr, L"?api-version=", pszApiVersion});
    }
    LogMsg2(L"KVCDoKVRESTCall Keyname", pszObjectName, KSP_LOG_TRACE);
    LogMsg3(L"KVCDoKVRESTCall actionverb", pszAction, pszVerb, KSP_LOG_TRACE);
    LogMsg2(L"KVCDoKVRESTCall url", pszUrl, KSP_LOG_TRACE);

    WCHAR szRequestId[39];
    KVCNewRequestId(szRequestId);
    // Holds the token: built at its final size, wiped after use.
    WCHAR *pszHeaders = cred.pszAuthorization
                            ? KVCJoinText({L"Content-Type: application/json; charset=utf-8\r\n",
                                           L"Accept: application/json\r\n", L"return-client-request-id: true\r\n",
                                           L"Authorization: ", cred.pszAuthorization, L"\r\n",
                                           L"client-request-id: ", szRequestId, L"\r\n\r\n"})
                            : nullptr;

    int result = 0;
    KVC_WEB_RESPONSE *resp = nullptr;
    if (cred.pszHost && pszUrl && pszHeaders)
        resp = KVCDoWebCall(kvc, kHttpsPort, cred.pszHost, pszUrl, pszVerb, pszHeaders, pszBody);
    if (resp) {
        pAnswer->status = resp->status;
        pAnswer->body = resp->body;
        resp->body = nullptr;
    }
    if (resp && IsSuccess(resp->status)) {
        // The answer itself is not logged: a decryption's holds the caller's plaintext.
        LogMsg(L"KVCDoKVRESTCall Good - JSON", KSP_LOG_TRACE);
        result = 1;
    } else {
        LogMsgError(L"KVCDoKVRESTCall Failed - JSON", resp ? resp->lastError : ERROR_NOT_ENOUGH_MEMORY,
                    KSP_LOG_TRACE);
    }
    KVCFreeWebResponse(resp);
    KVCWipeFreeText(pszHeaders);
    KVCWipeFreeText(cred.pszAuthorization);
    free(pszUrl);
    free(cred.pszHost);
    return result;
}
