// CBeforeAsking: what a thread has to do before it asks a host.
#pragma once

#include <functional>

/// A host that is told or asked something may take its time over it, and so may a disk. While an object of this class
/// lives, its action is done on its thread before each such call: replies that wait to be sent with later ones leave
/// then, as nobody can say when the later ones will come.
///
/// A thread's objects nest; the innermost one's action is done.
class CBeforeAsking {
public:
    /// Where it is worth a question whether there is anything to do, the second says so; always without one.
    explicit CBeforeAsking(std::function<void()> action, std::function<bool()> isNeeded = {});
    ~CBeforeAsking();
    CBeforeAsking(const CBeforeAsking&) = delete;
    CBeforeAsking& operator=(const CBeforeAsking&) = delete;

    /// For whoever is about to call a host, or another process that speaks for one, or to wait for a disk.
    static void Run();
    /// True if it would do anything: then who may have to wait finds out first whether he has to.
    static bool IsNeeded();

private:
    static thread_local CBeforeAsking* t_pInnermost;

    const std::function<void()> m_Action;
    const std::function<bool()> m_IsNeeded;
    CBeforeAsking* const m_pOuter;  ///< null for a thread's outermost
};
