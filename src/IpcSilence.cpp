// A receiver of callbacks that hangs or is not there.
#include "IpcSilence.h"

#include <cerrno>
#include <utility>

CIpcSilence::CIpcSilence(std::string sChannel, std::optional<IpcChannelFile> file, CIpcSocket connection)
    : m_sChannel(std::move(sChannel)), m_File(file), m_Connection(std::move(connection)) {}

CIpcSilence CIpcSilence::OfAbsent(std::string sChannel, std::optional<IpcChannelFile> file) {
    CIpcSilence silence(std::move(sChannel), file, CIpcSocket());
    silence.m_bAbsent = true;
    return silence;
}

bool CIpcSilence::HasEnded() {
    if (FindIpcChannelFile(m_sChannel.c_str()) != m_File) {
        return true;
    }
    if (m_Connection.IsOpen()) {
        return m_Connection.IsReadable();
    }
    if (m_bAbsent && !m_File) {
        return false;
    }
    CIpcSocket attempt;
    if (attempt.Create() != 0) {
        return false;  // no descriptor to be had: nor would there be one for a callback
    }
    const int iError = attempt.TryConnect(m_sChannel.c_str());
    return m_bAbsent ? iError == 0 || iError == EAGAIN : iError != EAGAIN;
}
