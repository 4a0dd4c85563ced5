// Tells on standard error how far a measurement is.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// Counts rounds of equal length. On a terminal the line is renewed in place, elsewhere one goes out now and then.
class RunProgress {
public:
    explicit RunProgress(std::size_t nRounds);
    ~RunProgress();
    RunProgress(const RunProgress&) = delete;
    RunProgress& operator=(const RunProgress&) = delete;

    /// One more round is done, of what the text says.
    void Step(const std::string& sWhat);
    /// Takes the line off a terminal, so that something else can be printed.
    void Clear() const;

private:
    using Clock = std::chrono::steady_clock;

    bool m_bTerminal;
    std::size_t m_nRounds;
    std::size_t m_nDone = 0;
    Clock::time_point m_Start = Clock::now();
    Clock::time_point m_Told;
};
