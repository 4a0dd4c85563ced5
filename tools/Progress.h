// A line on the terminal that tells how far a transfer is.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// Tells bytes, rate and time left on standard error, from the first second on, where that is a terminal that nothing
/// else is written to. The line is gone when the object is.
class Progress {
public:
    /// A transfer of so many bytes, if that is known. bQuiet: the terminal gets the data itself.
    Progress(std::optional<std::uint64_t> oiTotal, bool bQuiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// So many bytes of the total are there that need no transfer.
    void Skip(std::uint64_t iBytes);
    void Advance(std::uint64_t iBytes);
    /// Renews the line if it is time to; called at least a few times a second.
    void Show();

    /// The line's text for a moment of a transfer.
    static std::string Line(std::uint64_t iDone, std::optional<std::uint64_t> oiTotal, std::uint64_t iMoved,
                            std::chrono::duration<double> elapsed);

private:
    using Clock = std::chrono::steady_clock;

    std::optional<std::uint64_t> m_oiTotal;
    bool m_bShown;
    std::uint64_t m_iDone = 0;   ///< of the total
    std::uint64_t m_iMoved = 0;  ///< since the start
    Clock::time_point m_tStart = Clock::now();
    Clock::time_point m_tNext = m_tStart + std::chrono::seconds(1);
    bool m_bLine = false;  ///< whether a line stands on the terminal
};
