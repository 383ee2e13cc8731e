#include "support/timeseam.h"

namespace {

void RealSleep(DWORD dwMilliseconds) { Sleep(dwMilliseconds); }
__time64_t RealNow(void) { return _time64(nullptr); }

constexpr KSP_TIME_SEAM kRealTime = {RealSleep, RealNow};
KSP_TIME_SEAM g_TimeSeam = kRealTime;

} // namespace

void KspSleep(DWORD dwMilliseconds) { g_TimeSeam.pfnSleep(dwMilliseconds); }

__time64_t KspTime(void) { return g_TimeSeam.pfnNow(); }

void KspSetTimeSeam(const KSP_TIME_SEAM *pSeam) { g_TimeSeam = pSeam ? *pSeam : kRealTime; }
