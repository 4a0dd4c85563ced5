// Waiting in order, and handing over.
#include "FairMutex.h"

void CFairMutex::lock() {
    std::unique_lock state(m_hMutexState);
    if (!m_bLocked) {
        m_bLocked = true;
        return;
    }
    Waiter self;
    self.since = Clock::now();
    Append(self);
    // Woken without being the owner: the mutex is free, unless somebody else has been faster.
    while (!self.bOwner && m_bLocked) {
        self.wake.wait(state);
    }
    m_bLocked = true;
    Remove(self);
}

void CFairMutex::Append(Waiter& waiter) {
    waiter.pBefore = m_pLast;
    (m_pLast != nullptr ? m_pLast->pBehind : m_pFirst) = &waiter;
    m_pLast = &waiter;
    m_nWaiters.fetch_add(1, std::memory_order_relaxed);
}

void CFairMutex::Remove(const Waiter& waiter) {
    (waiter.pBefore != nullptr ? waiter.pBefore->pBehind : m_pFirst) = waiter.pBehind;
    (waiter.pBehind != nullptr ? waiter.pBehind->pBefore : m_pLast) = waiter.pBefore;
    m_nWaiters.fetch_sub(1, std::memory_order_relaxed);
}

void CFairMutex::unlock() {
    const std::lock_guard state(m_hMutexState);
    if (IsFirstDue()) {
        m_pFirst->bOwner = true;  // and the mutex stays locked
    } else {
        m_bLocked = false;
    }
    if (m_pFirst != nullptr) {
        m_pFirst->wake.notify_one();
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
    return m_pFirst != nullptr && Clock::now() - m_pFirst->since >= kPatience;
}
