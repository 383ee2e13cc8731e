// Scope guards for slim reader/writer locks: the lock is released on every path out.
#pragma once

#include <windows.h>

template <bool Exclusive> class SrwGuard {
public:
    explicit SrwGuard(SRWLOCK *pLock) : pLock_(pLock)
    {
        if constexpr (Exclusive)
            AcquireSRWLockExclusive(pLock_);
        else
            AcquireSRWLockShared(pLock_);
    }
    ~SrwGuard()
    {
        if constexpr (Exclusive)
            ReleaseSRWLockExclusive(pLock_);
        else
            ReleaseSRWLockShared(pLock_);
    }
    SrwGuard(const SrwGuard &) = delete;
    SrwGuard &operator=(const SrwGuard &) = delete;

private:
    SRWLOCK *pLock_;
};

using SrwShared = SrwGuard<false>;
using SrwExclusive = SrwGuard<true>;
