// The one loop rule for waiting out a throttled vault; each operation supplies its own policy.
#include "kvclient/kvc.h"

namespace {
constexpr DWORD kHttpTooManyRequests = 429;
}

int KVCThrottleWait(KVC_THROTTLE *pThrottle, DWORD dwStatus)
{
    if (!pThrottle || dwStatus != kHttpTooManyRequests)
        return 0;
    LogMsgError(pThrottle->pszThrottledMsg, dwStatus, KSP_LOG_WARNING);
    if (pThrottle->fTestBeforeSleep && pThrottle->dwWaitMs > pThrottle->dwMaxWaitMs)
        return 0;
    KspSleep(pThrottle->dwWaitMs);
    pThrottle->dwWaitMs *= 2;
    return pThrottle->fTestBeforeSleep || pThrottle->dwWaitMs <= pThrottle->dwMaxWaitMs ? 1 : 0;
}
