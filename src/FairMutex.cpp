// Waiting in order, and handing over.
#include "FairMutex.h"

void CFairMutex::lock() {
    std::unique_lock state(m_hMutexState);
    if (!m_bLocked) {
        m_bLocked = true;
        return;
    }
    const auto itWaiter = m_Waiters.emplace(m_Waiters.end());
    itWaiter->since = Clock::now();
    m_nWaiters.store(m_Waiters.size(), std::memory_order_relaxed);
    // Woken without being the owner: the mutex is free, unless somebody else has been faster.
    while (!itWaiter->bOwner && m_bLocked) {
        itWaiter->wake.wait(state);
    }
    m_bLocked = true;
    m_Waiters.erase(itWaiter);
    m_nWaiters.store(m_Waiters.size(), std::memory_order_relaxed);
}

void CFairMutex::unlock() {
    const std::lock_guard state(m_hMutexState);
    if (IsFirstDue()) {
        m_Waiters.front().bOwner = true;  // and the mutex stays locked
    } else {
        m_bLocked = false;
    }
    if (!m_Waiters.empty()) {
        m_Waiters.front().wake.notify_one();
    }
}

bool CFairMutex::IsDue() const {
    if (GetWaiterCount() == 0) {
        return false;
    }
    const std::lock_guard state(m_hMutexState);
    return IsFirstDue();
}

bool CFairMutex::IsFirstDue() const {
    return !m_Waiters.empty() && Clock::now() - m_Waiters.front().since >= kPatience;
}
