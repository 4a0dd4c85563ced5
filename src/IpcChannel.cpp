// Names of the local sockets that processes reach each other by.
#include "IpcChannel.h"

#include <cstdio>

void GetIpcChannel(const char* pcID, char* pcChannel) {
    std::snprintf(pcChannel, kIpcChannelBufferSize, "%s%s%s%s", "/tmp/", "nfs-", pcID != nullptr ? pcID : "", "");
}
