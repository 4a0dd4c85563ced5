// A shared, open file descriptor.
#pragma once

#include <atomic>
#include <memory>

#include "ThreadAnnotations.h"

/// An open descriptor that the descriptor cache and every operation using it share: it stays open, and stays the
/// same file, until the last of them lets go of it. An empty object stands for "no descriptor" and reads as -1.
///
/// Copies are cheap and may be handed between threads; one object is used by one thread at a time.
class CCachedFile {
public:
    CCachedFile() = default;
    /// Takes over the descriptor; -1 gives an empty object.
    explicit CCachedFile(int iFile);

    /// The descriptor, or -1. Valid while this object, or a copy, lives.
    int Get() const { return m_pOpened ? m_pOpened->iFile.load(std::memory_order_relaxed) : -1; }
    operator int() const { return Get(); }  // NOLINT: reads like the descriptor it stands for
    bool IsOpen() const { return Get() != -1; }

    /// Gives the descriptor up for closing if nobody else shares it: returns it (the caller closes it) and empties
    /// this object. Otherwise only drops this share and returns -1; the last user closes it then.
    int ReleaseIfLast();

    /// Guards the file position for a seek and the transfer that follows. Only for an open object.
    RegistryMutex& GetPositionMutex() const { return m_pOpened->hMutexPosition; }

    /// Positioned writes do not move the descriptor's own position: this notes where they would have left it, for a
    /// seek from there. Only for an open object.
    void LeavePosition(long long iPosition) const {
        m_pOpened->iLeftPosition.store(iPosition, std::memory_order_relaxed);
    }
    /// What LeavePosition noted last, forgotten now; -1 for nothing: the descriptor's own position holds.
    long long TakePosition() const { return m_pOpened->iLeftPosition.exchange(-1, std::memory_order_relaxed); }

    /// False once the file system is known to have no reads that wait for no disk. Only for an open object.
    bool HasQuickReads() const { return m_pOpened->bQuickReads.load(std::memory_order_relaxed); }
    void SetNoQuickReads() const { m_pOpened->bQuickReads.store(false, std::memory_order_relaxed); }

private:
    struct Opened {
        explicit Opened(int iFileOpened) : iFile(iFileOpened) {}
        ~Opened();
        Opened(const Opened&) = delete;
        Opened& operator=(const Opened&) = delete;
        std::atomic<int> iFile;
        std::atomic<long long> iLeftPosition{-1};
        std::atomic<bool> bQuickReads{true};
        RegistryMutex hMutexPosition;
    };
    std::shared_ptr<Opened> m_pOpened;
};
