// CFairMutex: a mutex that goes to whoever has waited for a while.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "ThreadAnnotations.h"

/// A non-recursive mutex that is quick while nobody waits long, and fair where somebody does.
///
/// Who unlocks and comes again at once gets it again, which spares a change of threads for each piece of work: but only
/// as long as nobody has waited for kPatience. From then on the one who has waited longest is next, whoever else comes.
class CAPABILITY("mutex") CFairMutex {
public:
    static constexpr std::chrono::milliseconds kPatience{1};

    CFairMutex() = default;
    CFairMutex(const CFairMutex&) = delete;
    CFairMutex& operator=(const CFairMutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();
    /// For the owner between two pieces of work: has somebody waited so long that unlocking gives it to him?
    bool IsDue() const;
    /// How many threads wait just now.
    std::size_t GetWaiterCount() const { return m_nWaiters.load(std::memory_order_relaxed); }

private:
    using Clock = std::chrono::steady_clock;

    /// A thread in lock(), on whose stack it stands.
    struct Waiter {
        Clock::time_point since;
        bool bOwner = false;  ///< the mutex was handed to it
        std::condition_variable wake;
        Waiter* pBefore = nullptr;
        Waiter* pBehind = nullptr;
    };

    void Append(Waiter& waiter);
    void Remove(const Waiter& waiter);
    bool IsFirstDue() const;

    /// Guards what follows; never held while somebody waits.
    mutable std::mutex m_hMutexState;
    bool m_bLocked = false;
    Waiter* m_pFirst = nullptr;  ///< of the waiters, in the order in which they came
    Waiter* m_pLast = nullptr;
    std::atomic<std::size_t> m_nWaiters{0};  ///< how many they are, to be asked without m_hMutexState
};

/// Holds a CFairMutex from construction to the end of the scope.
class SCOPED_CAPABILITY FairMutexLock {
public:
    explicit FairMutexLock(CFairMutex& mutex) ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.lock(); }
    ~FairMutexLock() RELEASE() { m_Mutex.unlock(); }
    FairMutexLock(const FairMutexLock&) = delete;
    FairMutexLock& operator=(const FairMutexLock&) = delete;

private:
    CFairMutex& m_Mutex;
};
