// Mutexes that clang's thread-safety analysis understands, and the attributes that go with them.
//
// With clang, -Wthread-safety proves that a member marked GUARDED_BY is only touched under its mutex;
// with other compilers the attributes vanish.
#pragma once

#include <mutex>

#if defined(__clang__)
#define NFSLIB_ATTRIBUTE(x) __attribute__((x))
#else
#define NFSLIB_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) NFSLIB_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY NFSLIB_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) NFSLIB_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) NFSLIB_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) NFSLIB_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) NFSLIB_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) NFSLIB_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) NFSLIB_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS NFSLIB_ATTRIBUTE(no_thread_safety_analysis)

/// A plain, non-recursive mutex.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { m_Mutex.lock(); }
    void unlock() RELEASE() { m_Mutex.unlock(); }

private:
    std::mutex m_Mutex;
};

/// What a thread has while it holds any RegistryMutex. EXCLUDES(kRegistryLocks) thus forbids what must not happen under
/// one of them, whichever it is.
class CAPABILITY("role") LockRole {};
inline constexpr LockRole kRegistryLocks;

/// A mutex under which no line goes out, and nobody is asked or told: whoever receives it may hang, or ask back.
class CAPABILITY("mutex") RegistryMutex : public Mutex {};

/// Holds a mutex from construction to the end of the scope.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.lock(); }
    explicit MutexLock(RegistryMutex& mutex) ACQUIRE(mutex, kRegistryLocks) : m_Mutex(mutex) { m_Mutex.lock(); }
    ~MutexLock() RELEASE() { m_Mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_Mutex;
};
