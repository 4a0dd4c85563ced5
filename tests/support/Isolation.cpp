// Namespaces for one test process.
#include "Isolation.h"

#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Trees.h"

namespace {

bool g_bIsolated = false;

bool WriteText(const char* pcPath, const std::string& sText) {
    const int iFile = ::open(pcPath, O_WRONLY | O_CLOEXEC);
    if (iFile < 0) {
        return false;
    }
    const bool bOk = ::write(iFile, sText.data(), sText.size()) == static_cast<ssize_t>(sText.size());
    ::close(iFile);
    return bOk;
}

bool RaiseLoopback() {
    const int iSocket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool bOk = ::ioctl(iSocket, SIOCSIFFLAGS, &request) == 0;
    ::close(iSocket);
    return bOk;
}

void MakeFolders(const std::string& sPath) {
    for (std::size_t i = sPath.find('/', 1); i != std::string::npos; i = sPath.find('/', i + 1)) {
        ::mkdir(sPath.substr(0, i).c_str(), 0755);
    }
    ::mkdir(sPath.c_str(), 0755);
}

/// An empty tmpfs over a folder. A tree that lies below the folder (the build or the sources) stays visible.
bool MountEmpty(const std::string& sFolder) {
    const std::string vTrees[] = {SourceTree(), BuildTree()};
    int viTrees[2];
    for (int i = 0; i < 2; ++i) {
        viTrees[i] = vTrees[i].starts_with(sFolder + "/") ? ::open(vTrees[i].c_str(), O_PATH | O_CLOEXEC) : -1;
    }
    bool bOk = ::mount("none", sFolder.c_str(), "tmpfs", 0, "mode=1777") == 0;
    for (int i = 0; i < 2; ++i) {
        if (viTrees[i] >= 0) {
            MakeFolders(vTrees[i]);
            const std::string sFrom = "/proc/self/fd/" + std::to_string(viTrees[i]);
            bOk = bOk && ::mount(sFrom.c_str(), vTrees[i].c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
            ::close(viTrees[i]);
        }
    }
    return bOk;
}

}  // namespace

const char* IsolateProcess() {
    const uid_t iUser = ::getuid();
    const gid_t iGroup = ::getgid();
    if (::geteuid() != 0) {
        if (::unshare(CLONE_NEWUSER) != 0) {
            return "no user namespace";
        }
        WriteText("/proc/self/setgroups", "deny");
        WriteText("/proc/self/uid_map", "0 " + std::to_string(iUser) + " 1\n");
        WriteText("/proc/self/gid_map", "0 " + std::to_string(iGroup) + " 1\n");
    }
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        return "no network and mount namespaces";
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "mounts cannot be made private";
    }
    if (!RaiseLoopback()) {
        return "loopback cannot be brought up";
    }
    if (!MountEmpty("/tmp") || !MountEmpty("/run")) {
        return "/tmp and /run cannot be mounted anew";
    }
    g_bIsolated = true;
    return nullptr;
}

bool IsIsolated() {
    return g_bIsolated;
}
