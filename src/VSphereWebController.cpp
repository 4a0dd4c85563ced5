// Running the datastore tool.
#include "VSphereWebController.h"

#include <cerrno>
#include <cstdio>
#include <string_view>

#include <sys/wait.h>
#include <unistd.h>

#include "Paths.h"
#include "ShellCommand.h"

namespace {

constexpr const char* kToolName = "VcDatastoreCtlLinX64";

bool IsPresent(const char* pcText) {
    return pcText != nullptr && pcText[0] != '\0';
}

/// The tool's path: the folder of the running program's file (as /proc names it), and the tool's name. Empty when
/// that file cannot be told.
std::string GetToolPath() {
    char vcLink[32];
    std::snprintf(vcLink, sizeof(vcLink), "/proc/%d/exe", ::getpid());
    char vcProgram[kPathBufferSize];
    const ssize_t iLen = ::readlink(vcLink, vcProgram, sizeof(vcProgram));
    if (iLen <= 0) {
        return {};
    }
    const std::string_view sProgram(vcProgram, static_cast<std::size_t>(iLen));
    return std::string(GetFolderPart(sProgram)) + kToolName;
}

/// The path inside double quotes, whatever characters it holds.
std::string QuotePath(const std::string& sPath) {
    std::string sOut = "\"";
    for (const char c : sPath) {
        if (c == '"' || c == '\\' || c == '$' || c == '`') {
            sOut += '\\';
        }
        sOut += c;
    }
    return sOut + "\"";
}

/// A value as the shell hands it on unchanged. An ordinary one stands as it is; one with characters that mean
/// something to the shell is quoted, so that no password or host name ever runs a command.
std::string QuoteValue(std::string_view sValue) {
    constexpr std::string_view kOrdinary = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-+=.,:/@%^";
    if (sValue.find_first_not_of(kOrdinary) == std::string_view::npos) {
        return std::string(sValue);
    }
    std::string sOut = "'";
    for (const char c : sValue) {
        if (c == '\'') {
            sOut += "'\\''";
        } else {
            sOut += c;
        }
    }
    return sOut + "'";
}

/// Runs a command line with the shell and waits for its end. Unlike system() it leaves the signal dispositions of
/// the process, which may be a host's, alone.
void RunShell(const std::string& sCommandLine) {
    constexpr int kOurOutput = -1;
    const pid_t iPid = CShellCommand::Spawn(sCommandLine.c_str(), kOurOutput);
    int iStatus = 0;
    while (iPid != -1 && ::waitpid(iPid, &iStatus, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

void CVSphereWebController::RemoveSession(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                          const char* pcUser, const char* pcPwd) {
    if (!IsPresent(pcDatastoreMoid) || !IsPresent(pcHost) || !IsPresent(pcPort) || !IsPresent(pcUser) ||
        !IsPresent(pcPwd)) {
        return;
    }
    const MutexLock lock(m_hMutexTool);
    const std::string sTool = GetToolPath();
    if (sTool.empty()) {
        return;
    }
    RunShell(QuotePath(sTool) + " -host " + QuoteValue(pcHost) + " -port " + QuoteValue(pcPort) + " -user " +
             QuoteValue(pcUser) + " -pwd " + QuoteValue(pcPwd) + " -method removeDatastore -argu " +
             QuoteValue(pcDatastoreMoid));
}
