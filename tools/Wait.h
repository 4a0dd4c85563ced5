// Waiting for descriptors.
#pragma once

/// A descriptor to wait for; -1 stands for none.
struct Awaited {
    int iDescriptor = -1;
    short iEvents = 0;  ///< POLLIN, POLLOUT
};

inline constexpr int kNoInterrupt = -1;
inline constexpr int kNoLimit = -1;

/// What was ready when a wait ended.
struct Ready {
    short iFirst = 0;         ///< events of the first descriptor, 0 when the time was over before
    short iSecond = 0;        ///< of the second
    bool bInterrupt = false;  ///< whether the work is to be cut short
};

/// Waits until one of the descriptors is ready, iInterrupt becomes readable, or the time (kNoLimit: none) is over.
/// Throws NfsError if it cannot wait.
Ready WaitReady(Awaited first, Awaited second, int iInterrupt, int iMilliseconds);

/// Waits for one descriptor as long as it takes; throws Interrupted if that is cut short.
void WaitFor(Awaited awaited, int iInterrupt);
