// Making, checking and removing test files.
#include "LoadFolder.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "NfsMessages.h"
#include "TcpExchange.h"

namespace {

void WriteFile(const std::string& sPath, const Content& content, std::size_t nBytes, std::uint32_t iGeneration) {
    std::ofstream file(sPath, std::ios::binary);
    for (std::size_t i = 0; i < nBytes; i += Content::kBlock) {
        file.write(content.BlockAt(i, iGeneration), Content::kBlock);
    }
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + sPath);
    }
}

}  // namespace

LoadFolder::LoadFolder(const std::string& sPath)
    : m_sPath(sPath),
      m_sReadName("nfsload-read-" + std::to_string(::getpid())),
      m_sWriteName("nfsload-write-" + std::to_string(::getpid())),
      m_sListName("nfsload-list-" + std::to_string(::getpid())) {
    try {
        WriteFile(PathOf(m_sReadName), m_Content, kFileSize, 0);
        // Written once beforehand: the rows measure the servers, not the file system's allocation.
        WriteFile(PathOf(m_sWriteName), m_Content, kLoadSize, 0);
        ::mkdir(PathOf(m_sListName).c_str(), 0755);
        for (int i = 0; i < kListEntries; ++i) {
            std::ofstream(PathOf(m_sListName) + "/entry-" + std::to_string(i)) << i;
        }
    } catch (const std::runtime_error&) {
        RemoveFiles();
        throw;
    }
}

LoadFolder::~LoadFolder() {
    RemoveFiles();
}

void LoadFolder::RemoveFiles() const {
    ::unlink(PathOf(m_sReadName).c_str());
    ::unlink(PathOf(m_sWriteName).c_str());
    for (int i = 0; i < kListEntries; ++i) {
        ::unlink((PathOf(m_sListName) + "/entry-" + std::to_string(i)).c_str());
    }
    ::rmdir(PathOf(m_sListName).c_str());
}

std::string LoadFolder::MadeName(int iConnection, int iSlot) const {
    char cName[kNameSize + 1];
    std::snprintf(cName, sizeof(cName), "nfsload-make-%08u-%03u-%03u", static_cast<unsigned>(::getpid()) % 100000000U,
                  static_cast<unsigned>(iConnection) % 1000U, static_cast<unsigned>(iSlot) % 1000U);
    return cName;
}

void LoadFolder::CheckWritten(const std::vector<bool>& vbWritten, std::uint32_t iGeneration) const {
    const int iFile = ::open(PathOf(m_sWriteName).c_str(), O_RDONLY | O_CLOEXEC);
    if (iFile < 0) {
        FailWithErrno("cannot open " + PathOf(m_sWriteName));
    }
    std::array<char, Content::kBlock> vcBlock{};
    for (std::size_t i = 0; i < vbWritten.size(); ++i) {
        const std::uint64_t iOffset = i * Content::kBlock;
        if (!vbWritten[i]) {
            continue;
        }
        const ssize_t nRead = ::pread(iFile, vcBlock.data(), vcBlock.size(), static_cast<off_t>(iOffset));
        if (nRead != static_cast<ssize_t>(vcBlock.size()) ||
            !m_Content.Matches({vcBlock.data(), vcBlock.size()}, iOffset, iGeneration)) {
            ::close(iFile);
            throw WrongReply("the file does not hold what was written at offset " + std::to_string(iOffset));
        }
    }
    ::close(iFile);
}
