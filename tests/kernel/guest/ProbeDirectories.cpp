// The probe's commands on directories: a tree to copy, and one pass of a listing with something happening in the middle
// of it.
#include "Probe.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Pattern.h"

namespace {

/// Small, so that a listing takes many calls of the kernel.
constexpr std::size_t kListBuffer = 2048;

/// Calls take with the name of each entry but "." and "..", in the order of one pass from the start to the end.
void List(const ProbeFile& folder, const std::function<void(const std::string&)>& take) {
    alignas(dirent64) char vcBuffer[kListBuffer];
    while (true) {
        const long iRead = ::syscall(SYS_getdents64, folder.Number(), vcBuffer, sizeof(vcBuffer));
        if (iRead < 0) {
            FailWithErrno("list", folder.Path());
        }
        if (iRead == 0) {
            return;
        }
        for (long iOffset = 0; iOffset < iRead;) {
            const char* pcEntry = vcBuffer + iOffset;
            unsigned short iLength = 0;
            std::memcpy(&iLength, pcEntry + offsetof(dirent64, d_reclen), sizeof(iLength));
            const std::string sName = pcEntry + offsetof(dirent64, d_name);
            if (sName != "." && sName != "..") {
                take(sName);
            }
            iOffset += iLength;
        }
    }
}

// A tree of 480 files of 0 to 40 KiB.
constexpr int kFolders = 24;
constexpr int kFilesInFolder = 20;
constexpr std::size_t kLongestFile = 40'000;

void MakeFolder(const std::string& sPath) {
    if (::mkdir(sPath.c_str(), 0755) != 0) {
        FailWithErrno("mkdir", sPath);
    }
}

}  // namespace

void MakeTree(Arguments arguments) {
    const std::string sRoot = arguments.Text();
    MakeFolder(sRoot);
    for (int iFolder = 0; iFolder < kFolders; ++iFolder) {
        const std::string sFolder = sRoot + "/folder" + std::to_string(iFolder);
        MakeFolder(sFolder);
        MakeFolder(sFolder + "/inner");
        for (int iFile = 0; iFile < kFilesInFolder; ++iFile) {
            const int iNumber = iFolder * kFilesInFolder + iFile;
            std::vector<char> vBytes(static_cast<std::size_t>(iNumber) * 2053 % kLongestFile);
            FillPattern(vBytes, static_cast<std::uint64_t>(iNumber), 0);
            const ProbeFile file(sFolder + (iFile % 2 == 0 ? "/" : "/inner/") + std::to_string(iFile),
                                 O_WRONLY | O_CREAT);
            if (::write(file.Number(), vBytes.data(), vBytes.size()) != static_cast<ssize_t>(vBytes.size())) {
                FailWithErrno("write", file.Path());
            }
        }
    }
}

void RemoveWhileListing(Arguments arguments) {
    const ProbeFile folder(arguments.Text(), O_RDONLY | O_DIRECTORY);
    std::size_t nRemoved = 0;
    List(folder, [&](const std::string& sName) {
        if (unlinkat(folder.Number(), sName.c_str(), 0) != 0) {
            FailWithErrno("unlink", folder.Path() + "/" + sName);
        }
        ++nRemoved;
    });
    std::printf("%zu removed\n", nRemoved);
}

void ListWithPause(Arguments arguments) {
    const ProbeFile folder(arguments.Text(), O_RDONLY | O_DIRECTORY);
    const std::uint64_t nBefore = arguments.Number();
    const std::string sPaused = arguments.Text();
    const std::string sGo = arguments.Text();
    std::uint64_t nListed = 0;
    List(folder, [&](const std::string& sName) {
        std::printf("%s\n", sName.c_str());
        if (++nListed == nBefore) {
            ProbeFile(sPaused, O_WRONLY | O_CREAT).Close();
            WaitForFile(sGo);
        }
    });
}
