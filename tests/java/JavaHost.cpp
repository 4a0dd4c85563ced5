// Driving HostShell.
#include "JavaHost.h"

#include <fstream>
#include <sstream>

#include <dirent.h>
#include <signal.h>

#include "Isolation.h"
#include "WaitUntil.h"

namespace {

std::size_t CountEntries(const std::string& sFolder) {
    std::size_t nEntries = 0;
    DIR* pFolder = ::opendir(sFolder.c_str());
    while (pFolder != nullptr && ::readdir(pFolder) != nullptr) {
        ++nEntries;
    }
    if (pFolder != nullptr) {
        ::closedir(pFolder);
    }
    return nEntries;
}

std::vector<std::string> Split(const std::string& sText, char cSeparator) {
    std::vector<std::string> vsPieces;
    std::istringstream stream(sText);
    for (std::string sPiece; std::getline(stream, sPiece, cSeparator);) {
        vsPieces.push_back(sPiece);
    }
    return vsPieces;
}

#ifdef NFSLIB_JAVA
constexpr const char* kJava = NFSLIB_JAVA;
#else
constexpr const char* kJava = nullptr;
#endif

}  // namespace

std::vector<std::string> ComplaintsIn(const std::string& sOutput) {
    const std::vector<std::string> vsLines = Split(sOutput, '\n');
    std::vector<std::string> vsComplaints;
    for (std::size_t i = 0; i < vsLines.size(); ++i) {
        const std::string& sLine = vsLines[i];
        const bool bComplaint = sLine.find("WARNING in native method") != std::string::npos ||
                                sLine.find("FATAL ERROR in native method") != std::string::npos ||
                                sLine.find("WARNING: JNI") != std::string::npos ||
                                sLine.find("A fatal error has been detected") != std::string::npos;
        // The frame below says whose native method it was; the machine's own are not ours to answer for.
        const std::string sFrame = i + 1 < vsLines.size() ? vsLines[i + 1] : "";
        if (bComplaint && sFrame.find("at java.") == std::string::npos && sFrame.find("at jdk.") == std::string::npos &&
            sFrame.find("at sun.") == std::string::npos) {
            vsComplaints.push_back(std::string(sLine).append(" | ").append(sFrame));
        }
    }
    return vsComplaints;
}

void JavaTest::SetUp() {
    if (kJava == nullptr) {
        GTEST_SKIP() << "no JDK: javac and java are missing (package default-jdk-headless)";
    }
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
}

JavaHost::JavaHost(const std::vector<std::string>& vsOptions) {
    // A small machine: quick to start, and a leak shows early.
    std::vector<std::string> vsArguments = {
        kJava,          "-Xcheck:jni",      "-Xmx64m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
        "-Xshare:auto", "-XX:-UsePerfData", "-cp",     NFSLIB_JAVA_CLASSES};
    vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
    vsArguments.insert(vsArguments.end(), {"hosttest.HostShell", NFSLIB_LIBRARY});
    m_pProcess = std::make_unique<ChildProcess>(vsArguments);
}

JavaHost::~JavaHost() {
    if (m_pProcess != nullptr) {
        Quit();
    }
}

std::string JavaHost::Do(const std::vector<std::string>& vsFields) {
    std::string sLine;
    for (const std::string& sField : vsFields) {
        sLine += (sLine.empty() ? "" : "\t") + sField;
    }
    m_pProcess->Send(sLine + "\n");
    const std::string sMark = "<<" + std::to_string(++m_nCommands) + ">>";
    // The answer is whole when the line's end is there as well.
    if (!m_pProcess->WaitFor(sMark) || !m_pProcess->WaitFor("\n")) {
        ADD_FAILURE() << "no answer to: " << sLine << "\n" << m_pProcess->Output();
        return "!no answer";
    }
    const std::string& sOutput = m_pProcess->Output();
    const std::size_t iStart = sOutput.find(sMark) + sMark.size();
    return sOutput.substr(iStart, sOutput.find('\n', iStart) - iStart);
}

std::string JavaHost::Join(const std::string& sThread, std::chrono::milliseconds limit) {
    return Do({"join", sThread, std::to_string(limit.count())});
}

std::string JavaHost::Initial(const std::string& sHost, const std::string& sID, int iAccessMode, int iLogControl) {
    New(sHost);
    std::string sHandle = Call(sHost, "initial", sID, iAccessMode, iLogControl);
    EXPECT_TRUE(sHandle != "0" && sHandle.find('!') == std::string::npos) << sHandle;
    return sHandle;
}

std::string JavaHost::Serve(const std::string& sHost, const std::string& sFolder, int iLogControl) {
    std::string sHandle = Initial(sHost, "host", 0, iLogControl);
    EXPECT_EQ(Call(sHost, "startRemoteController", sHandle), "true");
    EXPECT_EQ(Call(sHost, "startServer", sHandle, 0, 0, false), "true");
    EXPECT_EQ(Call(sHost, "addMountPoint", sHandle, sFolder, "data"), "true");
    Start("loop", sHost, "receiveCallbackLoop", sHandle, -1);
    EXPECT_TRUE(WaitForEvent(sHost, "isInterrupted()")) << "the lasting callback is installed";
    return sHandle;
}

void JavaHost::StopServing(const std::string& sHost, const std::string& sHandle) {
    EXPECT_EQ(Do({"answer", sHost, "isInterrupted", "true"}), "ok");
    EXPECT_EQ(Join("loop"), "false") << "the loop always returns false";
    EXPECT_EQ(Call(sHost, "stopServer", sHandle), "void");
    EXPECT_EQ(Call(sHost, "isServerRunning", sHandle), "false");
    EXPECT_EQ(Call(sHost, "stopRemoteController", sHandle), "void");
    EXPECT_EQ(Call(sHost, "terminate", sHandle), "void");
}

std::vector<std::string> JavaHost::Events(const std::string& sHost) {
    return Split(Do({"events", sHost}), '\t');
}

std::vector<std::string> JavaHost::Notifications(const std::string& sHost) {
    std::vector<std::string> vsEvents = Events(sHost);
    std::erase_if(vsEvents, [](const std::string& sEvent) { return sEvent.starts_with("log"); });
    return vsEvents;
}

bool JavaHost::WaitForEvent(const std::string& sHost, const std::string& sEvent) {
    std::string sSeen;
    const bool bCame = WaitUntil([&] {
        const std::vector<std::string> vsEvents = Events(sHost);
        std::for_each(vsEvents.begin(), vsEvents.end(), [&](const std::string& sOne) { sSeen += sOne + "\n"; });
        return std::find(vsEvents.begin(), vsEvents.end(), sEvent) != vsEvents.end();
    });
    EXPECT_TRUE(bCame) << "expected " << sEvent << " but saw\n" << sSeen;
    return bCame;
}

int JavaHost::GlobalReferences() {
    m_pProcess->Signal(SIGQUIT);  // a thread dump, with the count at its end
    if (!m_pProcess->WaitFor("JNI global refs: ") || !m_pProcess->WaitFor(",")) {
        ADD_FAILURE() << "no count of global references in\n" << m_pProcess->Output();
        return -1;
    }
    const std::string& sOutput = m_pProcess->Output();
    return std::stoi(sOutput.substr(sOutput.rfind("JNI global refs: ") + 17));
}

std::size_t JavaHost::Threads() const {
    return CountEntries("/proc/" + std::to_string(m_pProcess->GetPid()) + "/task");
}

std::size_t JavaHost::Descriptors() const {
    return CountEntries("/proc/" + std::to_string(m_pProcess->GetPid()) + "/fd");
}

std::size_t JavaHost::ResidentKiB() const {
    std::ifstream status("/proc/" + std::to_string(m_pProcess->GetPid()) + "/status");
    for (std::string sLine; std::getline(status, sLine);) {
        if (sLine.starts_with("VmRSS:")) {
            return std::stoul(sLine.substr(6));
        }
    }
    return 0;
}

std::string JavaHost::Quit() {
    if (m_pProcess->IsRunning()) {
        m_pProcess->Send("quit\n");
    }
    return WaitForEnd(0);
}

std::string JavaHost::WaitForEnd(int iStatus) {
    const std::unique_ptr<ChildProcess> pProcess = std::move(m_pProcess);
    EXPECT_EQ(pProcess->Wait(), iStatus) << pProcess->Output();
    std::string sOutput = pProcess->Output();
    EXPECT_EQ(ComplaintsIn(sOutput), std::vector<std::string>()) << sOutput;
    return sOutput;
}
