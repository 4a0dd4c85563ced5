// Names of the local sockets that processes reach each other by.
#include "IpcChannel.h"

#include <cstdio>

#include <sys/stat.h>

#include "Texts.h"

void GetIpcChannel(const char* pcID, char* pcChannel) {
    std::snprintf(pcChannel, kIpcChannelBufferSize, "%s%s%s%s", "/tmp/", "nfs-", OrEmpty(pcID), "");
}

bool IpcChannelFile::operator==(const IpcChannelFile& other) const {
    return iDevice == other.iDevice && iNumber == other.iNumber && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
}

std::optional<IpcChannelFile> FindIpcChannelFile(const char* pcChannel) {
    struct stat info {};
    if (::lstat(pcChannel, &info) != 0) {
        return std::nullopt;
    }
    return IpcChannelFile{info.st_dev, info.st_ino, info.st_ctim};
}
