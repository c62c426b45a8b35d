// Clang's thread-safety analysis (-Wthread-safety): which lock guards which field, checked when
// the build uses clang (scripts/test has a stage that does); with other compilers the annotations
// compile to nothing. Mutex is std::mutex with the annotations the analysis needs.
#pragma once

#include <mutex>

#if defined(__clang__)
#define LUMETRA_TSA(x) __attribute__((x))
#else
#define LUMETRA_TSA(x)
#endif

#define CAPABILITY(x) LUMETRA_TSA(capability(x))
#define SCOPED_CAPABILITY LUMETRA_TSA(scoped_lockable)
#define GUARDED_BY(x) LUMETRA_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) LUMETRA_TSA(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) LUMETRA_TSA(acquired_after(__VA_ARGS__))
#define REQUIRES(...) LUMETRA_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) LUMETRA_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) LUMETRA_TSA(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) LUMETRA_TSA(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) LUMETRA_TSA(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) LUMETRA_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS LUMETRA_TSA(no_thread_safety_analysis)

namespace lumetra {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  private:
    std::mutex mutex_;
};

// Holds a Mutex for its scope. Waitable: std::condition_variable_any takes it as its lock.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // For condition variables only: the analysis takes the lock as held throughout a wait.
    void lock() NO_THREAD_SAFETY_ANALYSIS { mutex_.lock(); }
    void unlock() NO_THREAD_SAFETY_ANALYSIS { mutex_.unlock(); }

  private:
    Mutex& mutex_;
};

}  // namespace lumetra
