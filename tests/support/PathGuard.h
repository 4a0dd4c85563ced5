// Commands that exist for the length of a test.
#pragma once

#include <cstdlib>
#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TempFolder.h"

/// Puts a folder in front of PATH for the scope.
class PathGuard {
public:
    explicit PathGuard(const std::string& sFolder) : m_sOld(Current()) {
        ::setenv("PATH", (sFolder + ":" + m_sOld).c_str(), 1);
    }
    ~PathGuard() { ::setenv("PATH", m_sOld.c_str(), 1); }
    PathGuard(const PathGuard&) = delete;
    PathGuard& operator=(const PathGuard&) = delete;

private:
    static std::string Current() {
        const char* pcPath = std::getenv("PATH");
        return pcPath == nullptr ? "/usr/bin:/bin" : pcPath;
    }

    std::string m_sOld;
};

/// Makes a shell script.
inline void InstallCommand(const std::string& sPath, const std::string& sBody) {
    WriteWholeFile(sPath, "#!/bin/sh\n" + sBody + "\n");
    ASSERT_EQ(::chmod(sPath.c_str(), 0755), 0);
}

/// The commands behind the credentials of network devices.
inline constexpr const char* kAddCredentialCommand = "Add_Net_Device_Credential_Command_Not_Defined";
inline constexpr const char* kRemoveCredentialCommand = "Remove_Net_Device_Credential_Command_Not_Defined";
