// CHostAnswers: what hosts answered when they were told what clients did to redirected files.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// Counts the notifications of one controller, to the host of this process and to remote parties alike. Any thread may
/// call anything. Nothing is locked, so that a host that hangs keeps nobody from reading.
class CHostAnswers {
public:
    enum Kind : std::size_t { kWrite, kAttributes, kRemove, kRename, kKinds };

    struct Figures {
        const char* pcKind;
        std::uint64_t nGranted = 0;     ///< a WRITE by a byte count, 0 included, all else by 0
        std::uint64_t nRefused = 0;     ///< by any other answer
        std::uint64_t nUnanswered = 0;  ///< -1: no host, none that answered in time, or a host that says so itself
        std::uint64_t nUnderWay = 0;    ///< asked, and not answered yet
    };

    /// Asks, by calling, and counts. Returns the answer.
    template <typename Question>
    int Ask(Kind kind, const Question& question) {
        const UnderWay underWay(m_vCounters[kind]);
        const int iAnswer = question();
        Count(kind, iAnswer);
        return iAnswer;
    }
    std::array<Figures, kKinds> Read() const;

private:
    struct Counters {
        std::atomic<std::uint64_t> nGranted{0};
        std::atomic<std::uint64_t> nRefused{0};
        std::atomic<std::uint64_t> nUnanswered{0};
        std::atomic<std::uint64_t> nUnderWay{0};
    };
    class UnderWay {
    public:
        explicit UnderWay(Counters& counters) : m_Counters(counters) { ++m_Counters.nUnderWay; }
        ~UnderWay() { --m_Counters.nUnderWay; }
        UnderWay(const UnderWay&) = delete;
        UnderWay& operator=(const UnderWay&) = delete;

    private:
        Counters& m_Counters;
    };

    void Count(Kind kind, int iAnswer);

    std::array<Counters, kKinds> m_vCounters;
};
