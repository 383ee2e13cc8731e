// Every wait and every reading of the clock goes through here, so that tests can
// replace both and assert the exact sequence of waits without waiting.
#pragma once

#include <windows.h>
#include <time.h>

struct KSP_TIME_SEAM {
    void (*pfnSleep)(DWORD dwMilliseconds);
    __time64_t (*pfnNow)(void);
};

// Waits dwMilliseconds (Sleep unless a test replaced it).
void KspSleep(DWORD dwMilliseconds);
// Seconds since 1970-01-01 UTC (_time64 unless a test replaced it).
__time64_t KspTime(void);
// Replaces the seam; NULL restores the real clock. Not thread-safe: tests set it before calling in.
void KspSetTimeSeam(const KSP_TIME_SEAM *pSeam);
