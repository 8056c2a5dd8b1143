// Lock guards of all modules: the constructor takes, the destructor gives back.
#ifndef XEL_COMMON_LOCK_GUARD_H
#define XEL_COMMON_LOCK_GUARD_H

#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_lock_wait.h"
#include "xel_lock.h"

// What copying a guard would break.
class NoCopy
{
public:
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// Read hold of a record's lock.
class ReadGuard : NoCopy
{
public:
    explicit ReadGuard(XelRwlock& lock) : lock_(lock) { XelRwlockReadLock(&lock_); }
    ~ReadGuard() { XelRwlockReadUnLock(&lock_); }

private:
    XelRwlock& lock_;
};

// Write hold of a record's lock.
class WriteGuard : NoCopy
{
public:
    explicit WriteGuard(XelRwlock& lock) : lock_(lock) { XelRwlockWriteLock(&lock_); }
    ~WriteGuard() { XelRwlockWriteUnLock(&lock_); }

private:
    XelRwlock& lock_;
};

// Holds for a few instructions of a lock that is mostly free: then one atomic step takes it whole,
// where a read hold needs two and a write hold three. Otherwise they are a read and a write hold.
class ShortReadGuard : NoCopy
{
public:
    explicit ShortReadGuard(XelRwlock& lock) : lock_(lock), isQuick_(RwlockQuickWriteLock(&lock))
    {
        if (!isQuick_) {
            XelRwlockReadLock(&lock_);
        }
    }
    ~ShortReadGuard()
    {
        if (isQuick_) {
            RwlockQuickWriteUnlock(&lock_);
        } else {
            XelRwlockReadUnLock(&lock_);
        }
    }

private:
    XelRwlock& lock_;
    bool isQuick_;
};

class ShortWriteGuard : NoCopy
{
public:
    explicit ShortWriteGuard(XelRwlock& lock) : lock_(lock), isQuick_(RwlockQuickWriteLock(&lock))
    {
        if (!isQuick_) {
            XelRwlockWriteLock(&lock_);
        }
    }
    ~ShortWriteGuard()
    {
        if (isQuick_) {
            RwlockQuickWriteUnlock(&lock_);
        } else {
            XelRwlockWriteUnLock(&lock_);
        }
    }

private:
    XelRwlock& lock_;
    bool isQuick_;
};

class SpinGuard : NoCopy
{
public:
    explicit SpinGuard(XelSpinlock& lock) : lock_(lock) { XelSpinlockLock(&lock_); }
    ~SpinGuard() { XelSpinlockUnLock(&lock_); }

private:
    XelSpinlock& lock_;
};

class MutexGuard : NoCopy
{
public:
    explicit MutexGuard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t& mutex_;
};

#endif // XEL_COMMON_LOCK_GUARD_H
