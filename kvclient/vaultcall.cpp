// One vault call with its retries: the single place where an operation waits out throttling
// (and, for deletion, conflicts) and where a refused token is renewed. Each operation brings
// its own policy; the answer belongs to the calling thread.
#include "kvclient/kvc.h"

namespace {

bool IsSuccess(DWORD status) { return status == 200 || status == 201 || status == 202 || status == 204; }

// The bound of a status the policy retries; 0 for a status it does not.
DWORD RetryBound(const KVC_RETRY_POLICY *pPolicy, DWORD status)
{
    if (status == KVC_HTTP_TOO_MANY_REQUESTS)
        return pPolicy->dwThrottleMaxWaitMs;
    if (status == KVC_HTTP_CONFLICT)
        return pPolicy->dwConflictMaxWaitMs;
    return 0;
}

// Sleeps as the policy says: 1 when the request should be made again.
bool WaitToRetry(const KVC_RETRY_POLICY *pPolicy, DWORD status, DWORD *pdwWaitMs)
{
    const DWORD dwBound = RetryBound(pPolicy, status);
    if (dwBound == 0)
        return false;
    LogMsgError(pPolicy->pszRetryMsg, status, pPolicy->retryMsgLevel);
    if (pPolicy->fTestBeforeSleep) {
        if (*pdwWaitMs > dwBound)
            return false;
        KspSleep(*pdwWaitMs);
        *pdwWaitMs *= 2;
        return true;
    }
    if (*pdwWaitMs <= pPolicy->dwThrottleMaxWaitMs) {
        KspSleep(*pdwWaitMs);
        *pdwWaitMs *= 2;
    }
    return *pdwWaitMs <= dwBound;
}

} // namespace

void KVCFreeAnswer(KVC_ANSWER *pAnswer)
{
    if (!pAnswer)
        return;
    KVCWipeFreeBytes(pAnswer->body);
    *pAnswer = {};
}

KVC_RETRY_POLICY KVCThrottlePolicy(const WCHAR *pszRetryMsg, BOOL fTestBeforeSleep, const WCHAR *pszCallFailedMsg)
{
    return {pszRetryMsg, KSP_LOG_WARNING, 1000, 16000, 0, fTestBeforeSleep, pszCallFailedMsg, KSP_LOG_FAILURE};
}

int KVCVaultCall(KVC *kvc, const KVC_REQUEST *pRequest, const KVC_RETRY_POLICY *pPolicy, DWORD *pdwWaitMs,
                 KVC_ANSWER *pAnswer)
{
    if (!kvc || !pRequest || !pPolicy || !pdwWaitMs || !pAnswer)
        return 0;
    bool fSignedInAgain = false;
    for (;;) {
        KVCDoKVRESTCall(kvc, pAnswer, pRequest->pszPath, pRequest->dwCollection, pRequest->pszObjectName,
                        pRequest->pszVerb, pRequest->pszAction, pRequest->pszBody, pRequest->pszApiVersion);
        const DWORD status = pAnswer->status;
        if (IsSuccess(status))
            return 1;
        if (pPolicy->pszCallFailedMsg)
            LogMsgError(pPolicy->pszCallFailedMsg, status, pPolicy->callFailedLevel);
        // A token the vault no longer takes (revoked, or expired earlier than it said) costs one
        // new sign-in and one repeat, never more: a vault that refuses every token is final.
        if (status == KVC_HTTP_UNAUTHORIZED && !fSignedInAgain) {
            fSignedInAgain = true;
            LogMsg(L"KVCVaultCall token refused - sign in again", KSP_LOG_WARNING);
            KVCDropToken(kvc, pAnswer->tokenGeneration);
            if (KVCAuthenticate(kvc, nullptr))
                continue;
            return 0;
        }
        if (!WaitToRetry(pPolicy, status, pdwWaitMs))
            return 0;
    }
}
