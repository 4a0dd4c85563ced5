// Rounds done, and the time that is left.
#include "RunProgress.h"

#include <cstdio>

#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kOnTerminal{200};
constexpr std::chrono::milliseconds kElsewhere{5000};

}  // namespace

RunProgress::RunProgress(std::size_t nRounds) : m_bTerminal(::isatty(STDERR_FILENO) == 1), m_nRounds(nRounds) {}

RunProgress::~RunProgress() {
    Clear();
}

void RunProgress::Clear() const {
    if (m_bTerminal) {
        std::fprintf(stderr, "\r\x1B[K");
    }
}

void RunProgress::Step(const std::string& sWhat) {
    ++m_nDone;
    const Clock::time_point now = Clock::now();
    if (now - m_Told < (m_bTerminal ? kOnTerminal : kElsewhere)) {
        return;
    }
    m_Told = now;
    const double dGone = std::chrono::duration<double>(now - m_Start).count();
    const double dLeft = dGone / static_cast<double>(m_nDone) * static_cast<double>(m_nRounds - m_nDone);
    std::fprintf(stderr, "%snfsload: %s; %zu of %zu rounds, about %d:%02d left%s", m_bTerminal ? "\r" : "",
                 sWhat.c_str(), m_nDone, m_nRounds, static_cast<int>(dLeft) / 60, static_cast<int>(dLeft) % 60,
                 m_bTerminal ? "\x1B[K" : "\n");
}
