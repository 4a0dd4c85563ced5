// The user's wish that the program ends, as a descriptor.
#pragma once

/// SIGINT, SIGTERM and SIGHUP, as far as they were not ignored from the start, no longer end the program by themselves:
/// what is under way notices them at its next wait, fails, and unmounts on its way out. One per process, made before
/// anything else.
class Interruption {
public:
    /// Throws NfsError if the signals cannot be watched.
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Readable from the first such signal on; nothing is to be read from it.
    int Get() const { return m_iSignals; }

private:
    int m_iSignals;
};
