// Names of the local sockets that processes reach each other by.
#include "IpcChannel.h"

#include <cstdio>

#include "Texts.h"

void GetIpcChannel(const char* pcID, char* pcChannel) {
    std::snprintf(pcChannel, kIpcChannelBufferSize, "%s%s%s%s", "/tmp/", "nfs-", OrEmpty(pcID), "");
}
