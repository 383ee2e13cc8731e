// Key deletion and purge: the vault object behind a CNG key is deleted and then, unless
// DoDeletePurge turns it off, purged from the soft-delete store so that its name is free again
// at once. Keys and certificates take the same steps under different paths and messages.
#include "kvclient/kvc.h"

#include <stdlib.h>

namespace {

// How a deletion waits out 409 (the vault still finishing an operation on the object) and 429.
// One wait counter serves the delete and the purge alike: it is never reset in between, and
// every 409 or 429 sleeps it (while within the 429 bound) and doubles it before the status
// decides whether to call again.
struct DELETE_RETRY_RULE {
    DWORD dwFirstWaitMs;
    // 409 is called again while the doubled wait stays within this: waits of 1, 2, 4, 8, 16 s.
    DWORD dwConflictMaxWaitMs;
    // 429 likewise, with room for several of the vault's throttling windows (about 10 s each).
    // No wait beyond it is ever slept, so with the counter shared and doubling, a whole deletion
    // sleeps at most 1 + 2 + ... + 64 = 127 s however long the vault keeps throttling.
    DWORD dwThrottleMaxWaitMs;
};
constexpr DELETE_RETRY_RULE kDeleteRetry = {1000, 16000, 64000};

// What tells the key and certificate variants apart.
struct DELETE_KIND {
    DWORD dwCollection;
    const WCHAR *pszPurgePrefix; // the soft-delete store's path, before the encoded name
    const WCHAR *pszFunction;
    const WCHAR *pszRetryMsg;
    const WCHAR *pszFailedMsg;
    const WCHAR *pszPurgeRetryMsg;
    const WCHAR *pszPurgeFailedMsg;
};

constexpr DELETE_KIND kKeyKind = {
    KVC_COLLECTION_KEYS,
    L"/deletedkeys/",
    L"KVCLowLevelDeleteKey",
    L"KVCLowLevelDeleteKey Failed - Throttled or Conflict - Retry",
    L"KVCLowLevelDeleteKey Failed",
    L"KVCLowLevelDeleteKey PURGE Failed - Throttled or Conflict - Retry",
    L"KVCLowLevelDeleteKey PURGE Failed",
};
constexpr DELETE_KIND kCertificateKind = {
    KVC_COLLECTION_CERTIFICATES,
    L"/deletedcertificates/",
    L"KVCLowLevelDeleteKeyCertificate",
    L"KVCLowLevelDeleteKeyCertificate Failed - Throttled or Conflict - Retry",
    L"KVCLowLevelDeleteKeyCertificate Failed",
    L"KVCLowLevelDeleteKeyCertificate PURGE Failed - Throttled or Conflict - Retry",
    L"KVCLowLevelDeleteKeyCertificate PURGE Failed",
};

// One DELETE of the object (pszPurgePath null) or of its soft-deleted remains, repeated while
// the rule allows. 1 when the vault answered 200 or 204.
int DeleteUntilSettled(KVC *kvc, const DELETE_KIND &kind, const WCHAR *pszEncodedName, const WCHAR *pszPurgePath,
                       DWORD *pdwWaitMs)
{
    const KVC_RETRY_POLICY policy = {pszPurgePath ? kind.pszPurgeRetryMsg : kind.pszRetryMsg,
                                     KSP_LOG_FAILURE,
                                     kDeleteRetry.dwFirstWaitMs,
                                     kDeleteRetry.dwThrottleMaxWaitMs,
                                     kDeleteRetry.dwConflictMaxWaitMs,
                                     FALSE,
                                     nullptr,
                                     0};
    // The purge path carries its own api-version; the name then goes to the frame's log only.
    const KVC_REQUEST request = {pszPurgePath, kind.dwCollection, pszEncodedName, L"DELETE",
                                 nullptr,      nullptr,           pszPurgePath ? nullptr : L"7.0"};
    ScopedAnswer answer;
    if (KVCVaultCall(kvc, &request, &policy, pdwWaitMs, &answer))
        return answer.status == KVC_HTTP_OK || answer.status == KVC_HTTP_NO_CONTENT ? 1 : 0;
    if (answer.status != KVC_HTTP_CONFLICT && answer.status != KVC_HTTP_TOO_MANY_REQUESTS)
        LogMsgError(pszPurgePath ? kind.pszPurgeFailedMsg : kind.pszFailedMsg, answer.status, KSP_LOG_FAILURE);
    return 0;
}

// The purge is tried even when the delete failed: an object already soft-deleted answers the
// delete with 404, and purging it still frees the name.
int DeleteAndPurge(KVC *kvc, const WCHAR *pszEncodedName, const DELETE_KIND &kind)
{
    LogMsg2(kind.pszFunction, pszEncodedName, KSP_LOG_STEP);
    if (!kvc || !pszEncodedName)
        return 0;
    DWORD dwWaitMs = kDeleteRetry.dwFirstWaitMs;
    int deleted = DeleteUntilSettled(kvc, kind, pszEncodedName, nullptr, &dwWaitMs);
    // The setting's sense is inverted on purpose: fPurge is 1 unless DoDeletePurge is nonzero.
    if (!kvc->fPurge)
        return deleted;

    WCHAR *pszPurgePath =
        KVCJoinText({kind.pszPurgePrefix, pszEncodedName, L"?api-version=", KVCApiVersion(kvc, L"7.0")});
    if (!pszPurgePath)
        return deleted;
    int purged = DeleteUntilSettled(kvc, kind, pszEncodedName, pszPurgePath, &dwWaitMs);
    free(pszPurgePath);
    return purged ? 1 : deleted;
}

} // namespace

SECURITY_STATUS KVCKeyDelete(const WCHAR *pszKeyName, KVC *kvc)
{
    LogMsg(L"KVCKeyDelete", KSP_LOG_STEP);
    if (!pszKeyName || !kvc) {
        LogMsg(L"KVCKeyDelete NULL Parameter", KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }
    // A name that cannot be encoded leaves the buffer empty; the vault then refuses the
    // requests, and that refusal is what the caller hears.
    WCHAR szEncoded[KVC_ENCODED_NAME_CHARS] = {};
    KVCConvertClearKeyNameToEncoded(pszKeyName, szEncoded, nullptr);
    int deleted = kvc->fCertMode ? KVCLowLevelDeleteKeyCertificate(kvc, szEncoded)
                                 : KVCLowLevelDeleteKey(kvc, szEncoded);
    return deleted ? 0 : NTE_INTERNAL_ERROR;
}

int KVCLowLevelDeleteKey(KVC *kvc, const WCHAR *pszEncodedName)
{
    return DeleteAndPurge(kvc, pszEncodedName, kKeyKind);
}

int KVCLowLevelDeleteKeyCertificate(KVC *kvc, const WCHAR *pszEncodedName)
{
    return DeleteAndPurge(kvc, pszEncodedName, kCertificateKind);
}
