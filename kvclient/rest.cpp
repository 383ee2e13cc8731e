// The REST call frame: the one door to the Key Vault REST interface. It builds the URL and the
// headers, makes one exchange and leaves the status and body in the client for the caller.
// It neither authenticates nor retries: each vault operation has its own rules for that.
#include "kvclient/kvc.h"

#include <objbase.h>

#include <stdlib.h>
#include <string.h>

namespace {

// The vault DNS suffix of the public Azure cloud.
constexpr WCHAR kVaultDnsSuffix[] = L".vault.azure.net";
constexpr WCHAR kDefaultApiVersion[] = L"2016-10-01";
constexpr WORD kHttpsPort = 443;

bool Given(const WCHAR *psz) { return psz && *psz; }

bool IsSuccess(DWORD status) { return status == 200 || status == 201 || status == 202 || status == 204; }

} // namespace

int KVCNewRequestId(WCHAR (&szId)[39])
{
    GUID guid;
    szId[0] = 0;
    return SUCCEEDED(CoCreateGuid(&guid)) && StringFromGUID2(guid, szId, ARRAYSIZE(szId)) > 0 ? 1 : 0;
}

int KVCDoKVRESTCall(KVC *kvc, DWORD, const WCHAR *pszPath, DWORD dwCollection, const WCHAR *pszObjectName,
                    const WCHAR *pszVerb, const WCHAR *pszAction, const char *pszBody, const WCHAR *pszApiVersion)
{
    LogMsg(L"KVCDoKVRESTCall", KSP_LOG_TRACE);
    if (!kvc || !kvc->tokenType || !kvc->accessToken || !kvc->tokenType->cStr || !kvc->accessToken->cStr) {
        LogMsgError(L"KVCDoKVRESTCall Failed - kvc, kvc->tokenType or kvc->accessToken or kvc->tokenType->cStr or "
                    L"kvc->accessToken->cStr NULL",
                    ERROR_INVALID_PARAMETER, KSP_LOG_TRACE);
        return 0;
    }
    // The previous answer may be a decryption's plaintext.
    KVCWipeFreeBytes(kvc->lastResponse);
    kvc->lastResponse = nullptr;

    if (!pszApiVersion) {
        LogMsg(L"KVCDoKVRESTCall API Version 2016-10-01", KSP_LOG_TRACE);
        pszApiVersion = kDefaultApiVersion;
    }
    WCHAR *pszHost = KVCJoinText({kvc->kvName ? kvc->kvName->cStr : nullptr, kVaultDnsSuffix});
    LogMsg2(L"KVCDoKVRESTCall host", pszHost, KSP_LOG_TRACE);

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
    WCHAR *pszHeaders = KVCJoinText({L"Content-Type: application/json; charset=utf-8\r\n",
                                     L"Accept: application/json\r\n", L"return-client-request-id: true\r\n",
                                     L"Authorization: ", kvc->tokenType->cStr, L" ", kvc->accessToken->cStr, L"\r\n",
                                     L"client-request-id: ", szRequestId, L"\r\n\r\n"});

    int result = 0;
    KVC_WEB_RESPONSE *resp = nullptr;
    if (pszHost && pszUrl && pszHeaders)
        resp = KVCDoWebCall(kvc, kHttpsPort, pszHost, pszUrl, pszVerb, pszHeaders, pszBody);
    kvc->lastStatus = resp ? resp->status : 0;
    if (resp) {
        kvc->lastResponse = resp->body;
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
    free(pszUrl);
    free(pszHost);
    return result;
}
