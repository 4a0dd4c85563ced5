// serve.sh as a user meets it, on a build that a stand-in for cmake reports.
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "Isolation.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kReady = "\"quit\" ends.";

class ServeScriptTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        if (!std::filesystem::exists(BuildTree() + "/bin/nfsget")) {
            GTEST_SKIP() << "nfsget is not built";
        }
        for (const char* pcFolder : {"tools", "build", "build/bin", "bin", "served"}) {
            std::filesystem::create_directory(m_Folder / pcFolder);
        }
        for (const char* pcFile : {"serve.sh", "tools/packages.sh"}) {
            std::filesystem::copy_file(SourceTree() + "/" + pcFile, m_Folder / pcFile);
        }
        for (const char* pcProgram : {"nfsconsole", "nfsget"}) {
            std::filesystem::create_symlink(BuildTree() + "/bin/" + pcProgram,
                                            m_Folder / ("build/bin/" + std::string(pcProgram)));
        }
        WriteWholeFile(m_Folder / "build/CMakeCache.txt", "");
        MakeProgram("dpkg-query", "printf installed");
        MakeProgram("cmake", "echo '[0/2] Re-checking globbed directories...'");
    }

    void MakeProgram(const std::string& sName, const std::string& sText) {
        const std::string sPath = m_Folder / ("bin/" + sName);
        WriteWholeFile(sPath, "#!/bin/sh\n" + sText + "\n");
        ASSERT_EQ(::chmod(sPath.c_str(), 0755), 0);
    }
    ChildOptions Options(bool bTerminal) {
        ChildOptions options;
        options.bTerminal = bTerminal;
        options.sFolder = m_Folder.Path();
        options.vEnvironment.emplace_back("PATH", (m_Folder / "bin") + ":" + std::getenv("PATH"));
        return options;
    }
    std::vector<std::string> Command() { return {m_Folder / "serve.sh", m_Folder / "served", "data"}; }

    TempFolder m_Folder;
};

TEST_F(ServeScriptTest, EndOfInputAtATerminalEndsNothing) {
    ChildProcess serve(Command(), Options(true));
    ASSERT_TRUE(serve.WaitFor(kReady)) << serve.Output();
    for (int i = 0; i < 2; ++i) {
        serve.Send("\x04");
        EXPECT_TRUE(serve.WaitFor("(\"quit\" ends the server)")) << serve.Output();
    }
    serve.Send("status\n");
    EXPECT_TRUE(serve.WaitFor("Server Status: Started")) << serve.Output();
    serve.Send("quit\n");
    EXPECT_EQ(serve.Wait(), 0) << serve.Output();
}

TEST_F(ServeScriptTest, PipedCommandsAreServedToTheLastWithoutALineEnd) {
    ChildProcess serve(Command(), Options(false));
    serve.Send("status\nquit");
    serve.CloseInput();
    EXPECT_EQ(serve.Wait(), 0) << serve.Output();
    EXPECT_THAT(serve.Output(), HasSubstr("Server Status: Started"));
}

TEST_F(ServeScriptTest, OneConnectionTooManyIsToldInASentence) {
    ChildProcess serve(Command(), Options(false));
    ASSERT_TRUE(serve.WaitFor(kReady)) << serve.Output();
    std::vector<CDescriptor> vConnections;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(2049);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 11; ++i) {
        vConnections.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ::connect(vConnections.back().Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    EXPECT_EQ(serve.Wait(), 1);
    EXPECT_THAT(serve.Output(), testing::EndsWith("serve.sh: the server ended itself: a client opened one connection "
                                                  "more than it takes (10 for NFS, 3 for MOUNT, 3 for the "
                                                  "portmapper); start it again\n"));
    EXPECT_THAT(serve.Output(), Not(HasSubstr("Aborted")));
}

TEST_F(ServeScriptTest, BuildingIsSaidWhenSomethingIsBuiltAndCountedOnATerminal) {
    const std::vector<std::string> vsBuild{m_Folder / "serve.sh", m_Folder / "served"};
    ChildProcess idle(vsBuild, Options(true));
    ASSERT_TRUE(idle.WaitFor(kReady)) << idle.Output();
    idle.Send("quit\n");
    EXPECT_EQ(idle.Wait(), 0);
    EXPECT_THAT(idle.Output(), Not(HasSubstr("Building")));
    MakeProgram("cmake", "echo '[ 12%] Building CXX object a.o'; echo '[100%] Linking CXX executable a'");
    ChildProcess busy(vsBuild, Options(true));
    ASSERT_TRUE(busy.WaitFor("Building (the first time takes a while)\n\r[ 12%] \r[100%] \r\033[K")) << busy.Output();
    ASSERT_TRUE(busy.WaitFor(kReady)) << busy.Output();
    busy.Send("quit\n");
    EXPECT_EQ(busy.Wait(), 0);
    MakeProgram("cmake", "echo 'a.cpp:1: error'; exit 1");
    const RunResult failed = RunProgram(vsBuild, Options(false));
    EXPECT_EQ(failed.iStatus, 1);
    EXPECT_THAT(failed.sOutput, HasSubstr("a.cpp:1: error\nserve.sh: the build failed; its last lines are above\n"));
}

TEST_F(ServeScriptTest, EmptyExportNameIsRefused) {
    const RunResult result = RunProgram({m_Folder / "serve.sh", m_Folder / "served", ""}, Options(false));
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_EQ(result.sOutput, "serve.sh: an export's name holds no slash, blank or equals sign: \"\"\n");
}

/// The commands of README's tour with what they print: the lines behind four blanks from the first "$ " on.
std::vector<std::pair<std::string, std::string>> ReadmeTour() {
    std::istringstream readme(ReadWholeFile(SourceTree() + "/README.md"));
    std::vector<std::pair<std::string, std::string>> vTour;
    for (std::string sLine; std::getline(readme, sLine);) {
        if (sLine.starts_with("    $ ")) {
            vTour.emplace_back(sLine.substr(6), "");
        } else if (!vTour.empty() && sLine.starts_with("    ")) {
            vTour.back().second += sLine.substr(4) + "\n";
        } else if (!vTour.empty()) {
            break;
        }
    }
    return vTour;
}

/// Without what differs between two runs: times, and the sizes of folders.
std::string Timeless(const std::string& sText) {
    static const std::regex kTime(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
    static const std::regex kFolder(R"([ \d]{12}  (\w+/))");
    return std::regex_replace(std::regex_replace(sText, kTime, "TIME"), kFolder, "SIZE  $1");
}

TEST_F(ServeScriptTest, TourOfTheReadmePrintsWhatStandsThere) {
    std::filesystem::copy_file(SourceTree() + "/LICENSE", m_Folder / "LICENSE");
    ChildProcess serve({m_Folder / "serve.sh"}, Options(false));
    ASSERT_TRUE(serve.WaitFor(kReady)) << serve.Output();
    const auto vTour = ReadmeTour();
    EXPECT_GE(vTour.size(), 4U);
    for (const auto& [sCommand, sPrinted] : vTour) {
        const RunResult result = RunProgram({"/bin/sh", "-c", sCommand}, Options(false));
        EXPECT_EQ(result.iStatus, 0) << sCommand;
        EXPECT_EQ(Timeless(result.sOutput), Timeless(sPrinted)) << sCommand;
    }
    serve.Send("quit\n");
    EXPECT_EQ(serve.Wait(), 0);
}

TEST_F(ServeScriptTest, SaysWhoMayDoWhat) {
    ChildProcess serve(Command(), Options(false));
    ASSERT_TRUE(
        serve.WaitFor("Whoever reaches the ports 111, 1058 and 2049 of this machine may read, write and delete"))
        << serve.Output();
    serve.Send("quit\n");
    EXPECT_EQ(serve.Wait(), 0);
}

}  // namespace
