// Polled line input.
#include "ConsoleInput.h"

#include <algorithm>

#include <poll.h>
#include <unistd.h>

namespace {

/// True while a terminal belongs to another job of its shell: reading it would stop this program.
bool IsTerminalOfAnotherJob(int iFile) {
    const pid_t iForeground = ::tcgetpgrp(iFile);
    return iForeground > 0 && iForeground != getpgrp();
}

}  // namespace

CConsoleInput& CConsoleInput::Standard() {
    static CConsoleInput input(STDIN_FILENO);
    return input;
}

bool CConsoleInput::IsLineReady() {
    while (!HasLine() && ReadAvailable()) {
    }
    return HasLine();
}

std::string CConsoleInput::TakeLine() {
    if (!HasLine()) {
        return {};
    }
    const std::size_t iFeed = m_sPending.find('\n');
    const std::size_t nLine = std::min({iFeed, m_sPending.size(), kMaxLine});
    std::string sLine = m_sPending.substr(0, nLine);
    m_sPending.erase(0, nLine + (nLine == iFeed ? 1 : 0));
    return sLine;
}

bool CConsoleInput::HasLine() const {
    return m_sPending.find('\n') != std::string::npos || m_sPending.size() >= kMaxLine ||
           (m_bAtEnd && !m_sPending.empty());
}

bool CConsoleInput::ReadAvailable() {
    if (!IsReadable()) {
        return false;
    }
    char vcBuffer[kMaxLine + 1];
    const ssize_t iRead = ::read(m_iFile, vcBuffer, sizeof(vcBuffer));
    m_bAtEnd = iRead == 0;
    if (iRead <= 0) {
        return false;
    }
    m_sPending.append(vcBuffer, static_cast<std::size_t>(iRead));
    return true;
}

bool CConsoleInput::IsReadable() const {
    pollfd input{m_iFile, POLLIN, 0};
    return ::poll(&input, 1, 0) == 1 && (input.revents & (POLLIN | POLLHUP)) != 0 && !IsTerminalOfAnotherJob(m_iFile);
}
