#include "Probe.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t kNewFileMode = 0644;

/// How long to sleep between two looks at a file that somebody else makes, in microseconds.
constexpr useconds_t kPause = 50'000;

}  // namespace

void FailWithErrno(const std::string& sWhat, const std::string& sPath) {
    throw ProbeError(sWhat + " " + sPath + ": " + std::strerror(errno));
}

ProbeFile::ProbeFile(std::string sPath, int iFlags)
    : m_sPath(std::move(sPath)), m_iNumber(::open(m_sPath.c_str(), iFlags | O_CLOEXEC, kNewFileMode)) {
    if (m_iNumber < 0) {
        FailWithErrno("open", m_sPath);
    }
}

ProbeFile::~ProbeFile() {
    if (m_iNumber >= 0) {
        ::close(m_iNumber);
    }
}

std::uint64_t ProbeFile::Size() const {
    struct stat status {};
    if (::fstat(m_iNumber, &status) != 0) {
        FailWithErrno("stat", m_sPath);
    }
    return static_cast<std::uint64_t>(status.st_size);
}

void ProbeFile::Close() {
    if (::close(std::exchange(m_iNumber, -1)) != 0) {
        FailWithErrno("close", m_sPath);
    }
}

void WaitForFile(const std::string& sPath) {
    while (::access(sPath.c_str(), F_OK) != 0) {
        ::usleep(kPause);
    }
}

std::string Arguments::Text() {
    if (m_Texts.empty()) {
        throw ProbeError("an argument is missing");
    }
    const std::string sText = m_Texts.front();
    m_Texts = m_Texts.subspan(1);
    return sText;
}

std::uint64_t Arguments::Number() {
    const std::string sText = Text();
    char* pcEnd = nullptr;
    const std::uint64_t iNumber = std::strtoull(sText.c_str(), &pcEnd, 10);
    if (sText.empty() || *pcEnd != '\0') {
        throw ProbeError("no number: " + sText);
    }
    return iNumber;
}

bool Arguments::Has(const char* pcWord) {
    if (m_Texts.empty() || std::strcmp(m_Texts.front(), pcWord) != 0) {
        return false;
    }
    m_Texts = m_Texts.subspan(1);
    return true;
}
