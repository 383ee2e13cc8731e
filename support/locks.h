// Scope guards for slim reader/writer locks: the lock is released on every path out.
#pragma once

#include <windows.h>

class SrwShared {
public:
    explicit SrwShared(SRWLOCK *pLock) : pLock_(pLock) { AcquireSRWLockShared(pLock_); }
    ~SrwShared() { ReleaseSRWLockShared(pLock_); }
    SrwShared(const SrwShared &) = delete;
    SrwShared &operator=(const SrwShared &) = delete;

private:
    SRWLOCK *pLock_;
};

class SrwExclusive {
public:
    explicit SrwExclusive(SRWLOCK *pLock) : pLock_(pLock) { AcquireSRWLockExclusive(pLock_); }
    ~SrwExclusive() { ReleaseSRWLockExclusive(pLock_); }
    SrwExclusive(const SrwExclusive &) = delete;
    SrwExclusive &operator=(const SrwExclusive &) = delete;

private:
    SRWLOCK *pLock_;
};
