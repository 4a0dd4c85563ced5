// Starts of servers and clients on one machine, one at a time.
#include "IpcStartLock.h"

#include <chrono>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>

#include "Paths.h"

namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kPause{2};

}  // namespace

CIpcStartLock::CIpcStartLock(const char* pcChannel)
    : m_Folder(CDescriptor::AboveStandard(
          CDescriptor(::open(std::string(GetFolderPart(pcChannel)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)))) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (m_Folder.IsOpen() && ::flock(m_Folder.Get(), LOCK_EX | LOCK_NB) != 0 &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPause);
    }
}
