// SPDX-License-Identifier: MIT
//
// A mutex whose use clang checks at compile time (-Wthread-safety): GUARDED_BY names the lock of a
// variable, REQUIRES the locks that a caller holds, EXCLUDES the locks that a caller must not hold.

#pragma once

#include <mutex>

#if defined(__clang__)
#define TARNVALE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TARNVALE_THREAD_ANNOTATION(x)
#endif

#define GUARDED_BY(x) TARNVALE_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) TARNVALE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TARNVALE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace tarnvale::support {

class TARNVALE_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    void lock() TARNVALE_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    void unlock() TARNVALE_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a Mutex for a scope.
class TARNVALE_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) TARNVALE_THREAD_ANNOTATION(acquire_capability(mutex))
        : mutex_(mutex) {
        mutex_.lock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() TARNVALE_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

private:
    Mutex& mutex_;
};

}  // namespace tarnvale::support
