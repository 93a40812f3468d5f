#ifndef TSE_CORE_THREAD_ANNOTATIONS_H
#define TSE_CORE_THREAD_ANNOTATIONS_H

// What guards what, in a form clang checks under -Wthread-safety: a member
// marked TSE_GUARDED_BY(lock_) may only be touched while lock_ is held.
// Other compilers read the annotations as the comments they also are.
// libstdc++'s mutexes carry no annotations, so the locks here wrap them.

#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define TSE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TSE_THREAD_ANNOTATION(x)
#endif

#define TSE_CAPABILITY(x) TSE_THREAD_ANNOTATION(capability(x))
#define TSE_SCOPED_CAPABILITY TSE_THREAD_ANNOTATION(scoped_lockable)
#define TSE_GUARDED_BY(x) TSE_THREAD_ANNOTATION(guarded_by(x))
#define TSE_REQUIRES(...) TSE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TSE_ACQUIRE(...) TSE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TSE_ACQUIRE_SHARED(...) TSE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TSE_RELEASE(...) TSE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TSE_RELEASE_SHARED(...) TSE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TSE_EXCLUDES(...) TSE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace tse {

class TSE_CAPABILITY("mutex") Mutex {
public:
    void lock() TSE_ACQUIRE() { mutex_.lock(); }
    void unlock() TSE_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

// Many readers or one writer.
class TSE_CAPABILITY("mutex") SharedMutex {
public:
    void lock() TSE_ACQUIRE() { mutex_.lock(); }
    void unlock() TSE_RELEASE() { mutex_.unlock(); }
    void lock_shared() TSE_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() TSE_RELEASE_SHARED() { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

// Holds a lock for its scope.
template <typename M>
class TSE_SCOPED_CAPABILITY ExclusiveLock {
public:
    explicit ExclusiveLock(M& mutex) TSE_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ExclusiveLock() TSE_RELEASE() { mutex_.unlock(); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    M& mutex_;
};

// Holds a shared lock for its scope.
class TSE_SCOPED_CAPABILITY SharedLock {
public:
    explicit SharedLock(SharedMutex& mutex) TSE_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
    ~SharedLock() TSE_RELEASE() { mutex_.unlock_shared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    SharedMutex& mutex_;
};

}  // namespace tse

#endif
