// A receiver of callbacks that let one run into the time limit.
#include "IpcSilence.h"

#include <cerrno>
#include <utility>

CIpcSilence::CIpcSilence(std::string sChannel, std::optional<IpcChannelFile> file, CIpcSocket connection)
    : m_sChannel(std::move(sChannel)), m_File(file), m_Connection(std::move(connection)) {}

bool CIpcSilence::HasEnded() {
    if (FindIpcChannelFile(m_sChannel.c_str()) != m_File) {
        return true;
    }
    if (m_Connection.IsOpen()) {
        return m_Connection.IsReadable();
    }
    CIpcSocket attempt;
    if (attempt.Create() != 0) {
        return false;  // no descriptor to be had: nor would there be one for a callback
    }
    return attempt.TryConnect(m_sChannel.c_str()) != EAGAIN;
}
