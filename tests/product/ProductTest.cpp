// What the build delivers: the library's symbols, what it needs, and the installed layout.
#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "DocumentLinks.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kLibrary = BuildTree() + "/lib/libNfsLib.so";

/// The native methods that a host binds by name.
constexpr const char* kNativePrefix = "Java_com_norvo_kbt_quickspin_nfs_NfsLibNative_";

RunResult RunNm(const std::vector<std::string>& vsOptions) {
    std::vector<std::string> vsArguments{"nm"};
    vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
    vsArguments.push_back(kLibrary);
    return RunProgram(vsArguments);
}

TEST(ProductTest, LibraryExportsMainAndTheNativeMethodsOnly) {
    const RunResult result = RunNm({"-D", "--defined-only"});
    ASSERT_EQ(result.iStatus, 0) << result.sOutput;
    std::istringstream lines(result.sOutput);
    bool bMain = false;
    int nNative = 0;
    std::string sAddress, sType, sName;
    while (lines >> sAddress >> sType >> sName) {
        if (sName == "main") {
            bMain = true;
        } else if (sName.rfind(kNativePrefix, 0) == 0) {
            ++nNative;
        } else {
            ADD_FAILURE() << "exported as well: " << sName;
        }
    }
    EXPECT_TRUE(bMain);
    EXPECT_GT(nNative, 0);
}

TEST(ProductTest, ConsoleAddsNothingToTheLibrary) {
    const RunResult result = RunProgram({"nm", "-D", "--defined-only", ConsoleProcess::ProgramPath()});
    ASSERT_EQ(result.iStatus, 0) << result.sOutput;
    std::istringstream lines(result.sOutput);
    std::string sAddress, sType, sName;
    while (lines >> sAddress >> sType >> sName) {
        // Only what the linker itself puts into every program.
        EXPECT_TRUE(sName == "_IO_stdin_used" || sName[0] == '_') << sName;
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(ProductTest, LibraryNeedsOnlyTheLanguagesAndTheSystemsLibrariesAndTirpc) {
    const RunResult result = RunProgram({"readelf", "-d", kLibrary});
    ASSERT_EQ(result.iStatus, 0) << result.sOutput;
    const std::set<std::string> allowed{"libtirpc.so.3", "libstdc++.so.6", "libm.so.6",
                                        "libgcc_s.so.1", "libc.so.6",      "ld-linux-x86-64.so.2"};
    std::istringstream lines(result.sOutput);
    for (std::string sLine; std::getline(lines, sLine);) {
        if (sLine.find("(NEEDED)") != std::string::npos) {
            const std::size_t iStart = sLine.find('[') + 1;
            const std::string sName = sLine.substr(iStart, sLine.find(']') - iStart);
            EXPECT_EQ(allowed.count(sName), 1U) << sName;
        }
    }
}
#endif

TEST(ProductTest, InstalledConsoleFindsItsLibraryByARelativePath) {
    const TempFolder folder;
    const RunResult installed = RunProgram({"cmake", "--install", BuildTree(), "--prefix", folder / "place"});
    ASSERT_EQ(installed.iStatus, 0) << installed.sOutput;
    EXPECT_TRUE(std::filesystem::exists(folder / "place/lib/libNfsLib.so"));
    EXPECT_TRUE(std::filesystem::exists(folder / "place/bin/nfsconsole"));
    // The whole tree may be moved, and is not found by way of the build.
    std::filesystem::rename(folder / "place", folder / "moved");
    const RunResult paths = RunProgram({"readelf", "-d", folder / "moved/bin/nfsconsole"});
    EXPECT_THAT(paths.sOutput, HasSubstr("$ORIGIN/../lib"));
    EXPECT_THAT(paths.sOutput, Not(HasSubstr(BuildTree())));
    const RunResult help = RunProgram({folder / "moved/bin/nfsconsole", "-help"});
    EXPECT_EQ(help.iStatus, 0) << help.sOutput;
    EXPECT_THAT(help.sOutput, HasSubstr("Usage: " + (folder / "moved/bin/nfsconsole") + " [-help]\n"));
}

// The place is named at installation; the build was configured with another.
TEST(ProductTest, InstalledUnitRunsWhatWasInstalled) {
    const TempFolder folder;
    const std::string sPlace = folder / "place";
    const RunResult installed = RunProgram({"cmake", "--install", BuildTree(), "--prefix", sPlace});
    ASSERT_EQ(installed.iStatus, 0) << installed.sOutput;
    const std::string sUnit = ReadWholeFile(sPlace + "/lib/systemd/system/nfsconsole.service");
    EXPECT_THAT(sUnit, HasSubstr("\nExecStart=" + sPlace + "/bin/nfsconsole -md svr "));
    EXPECT_THAT(sUnit, HasSubstr("\nExecStop=" + sPlace + "/bin/nfsconsole -shutdown\n"));
    EXPECT_THAT(sUnit, HasSubstr("\nExecReload=" + sPlace + "/libexec/nfslib/nfs-exports /etc/nfslib/exports\n"));
    EXPECT_THAT(sUnit, HasSubstr("\nEnvironment=NFSCONSOLE=" + sPlace + "/bin/nfsconsole\n"));
    EXPECT_THAT(sUnit, Not(HasSubstr("/usr/local")));
    EXPECT_THAT(sUnit, Not(HasSubstr("@NFSLIB")));
    for (const char* pcFile :
         {"libexec/nfslib/nfs-exports", "libexec/nfslib/restart-pause", "lib/sysusers.d/nfslib.conf",
          "share/man/man8/nfsconsole.8", "share/man/man5/nfslib-exports.5", "share/man/man5/nfslib-access.5",
          "share/bash-completion/completions/nfsconsole", "share/doc/nfslib/LICENSE",
          "share/doc/nfslib/docs/host-guide.md", "share/doc/nfslib/exports.example",
          "share/doc/nfslib/examples/java-host/DiskHost.java",
          "share/doc/nfslib/examples/instant-recovery/rules.txt"}) {
        EXPECT_TRUE(std::filesystem::exists(sPlace + "/" + pcFile)) << pcFile;
    }
}

TEST(ProductTest, InstalledDocumentsReachEachOther) {
    const TempFolder folder;
    const std::string sPlace = folder / "place";
    ASSERT_EQ(RunProgram({"cmake", "--install", BuildTree(), "--prefix", sPlace}).iStatus, 0);
    EXPECT_THAT(BrokenLinks(sPlace + "/share/doc/nfslib"), IsEmpty());
    const std::string sUnit = ReadWholeFile(sPlace + "/lib/systemd/system/nfsconsole.service");
    const std::string sGuide = sPlace + "/share/doc/nfslib/docs/operators-guide.md";
    EXPECT_THAT(sUnit, HasSubstr(" file:" + sGuide + "\n"));
    EXPECT_TRUE(std::filesystem::exists(sGuide));
}

// From a list of its own: the build's is that of whichever test has installed last.
TEST(ProductTest, UninstallingLeavesNoFileAndNoFolderOfOurs) {
    const TempFolder folder;
    const std::string sPlace = folder / "place";
    ASSERT_EQ(RunProgram({"cmake", "--install", BuildTree(), "--prefix", sPlace}).iStatus, 0);
    std::string sManifest;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sPlace)) {
        sManifest += entry.is_directory() ? "" : entry.path().string() + "\n";
    }
    WriteWholeFile(folder / "manifest", sManifest);
    const RunResult result =
        RunProgram({"cmake", "-DMANIFEST=" + (folder / "manifest"), "-P", SourceTree() + "/packaging/Uninstall.cmake"});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sPlace)) {
        EXPECT_TRUE(entry.is_directory()) << entry.path();
        EXPECT_THAT(entry.path().string().substr(sPlace.size()), Not(HasSubstr("nfslib")));
    }
}

TEST(ProductTest, UnitIsWellFormedAndConfined) {
    const TempFolder folder;
    if (RunProgram({"/bin/sh", "-c", "command -v systemd-analyze"}).iStatus != 0) {
        GTEST_SKIP() << "needs the package systemd";
    }
    const std::string sPlace = folder / "place";
    ASSERT_EQ(RunProgram({"cmake", "--install", BuildTree(), "--prefix", sPlace}).iStatus, 0);
    const std::string sUnit = sPlace + "/lib/systemd/system/nfsconsole.service";
    const RunResult verified = RunProgram({"systemd-analyze", "verify", "--man=no", sUnit});
    EXPECT_THAT(verified.sOutput, Not(HasSubstr("nfsconsole.service:")));
    // The threshold is in tenths: 3.0 of 10.
    const RunResult exposure =
        RunProgram({"systemd-analyze", "security", "--offline=true", "--no-pager", "--threshold=30", sUnit});
    EXPECT_EQ(exposure.iStatus, 0) << exposure.sOutput;
    EXPECT_THAT(exposure.sOutput, HasSubstr("Overall exposure level"));
}

// As the unit calls it before each start and after each end.
TEST(ProductTest, RestartPauseGrowsFromFailureToFailureUntilAStop) {
    const TempFolder folder;
    const std::string sScript = SourceTree() + "/packaging/restart-pause";
    ChildOptions surroundings;
    surroundings.vEnvironment = {{"RUNTIME_DIRECTORY", folder.Path()}, {"SERVICE_RESULT", "core-dump"}};
    const std::vector<std::pair<int, int>> vExpected = {{0, 0}, {1, 0}, {2, 2}, {3, 4}, {6, 32}, {7, 60}, {30, 60}};
    for (const auto& [nFailures, nSeconds] : vExpected) {
        SCOPED_TRACE(nFailures);
        for (int i = 0; i < nFailures; ++i) {
            EXPECT_EQ(RunProgram({sScript, "stop"}, surroundings).iStatus, 0);
        }
        ChildProcess start({sScript, "start"}, surroundings);
        if (nSeconds > 0) {
            EXPECT_TRUE(start.WaitFor("The server has ended " + std::to_string(nFailures) +
                                      " times in a row: it is started again in " + std::to_string(nSeconds) +
                                      " seconds.\n"))
                << start.Output();
            start.Signal(SIGTERM);  // as a stop of the service does
        }
        EXPECT_EQ(start.Wait(), 0);
        EXPECT_EQ(std::filesystem::exists(folder / "restarts"), nFailures == 1);
        EXPECT_EQ(start.Output().empty(), nSeconds == 0) << start.Output();
        std::filesystem::remove(folder / "restarts");
    }
}

TEST(ProductTest, ManualPagesAreWellFormed) {
    if (RunProgram({"/bin/sh", "-c", "command -v groff"}).iStatus != 0) {
        GTEST_SKIP() << "needs the package groff-base";
    }
    for (const char* pcPage : {"nfsconsole.8", "nfsget.1", "nfsmap.1", "nfslib-exports.5", "nfslib-access.5"}) {
        const RunResult result = RunProgram({"groff", "-ww", "-man", "-z", SourceTree() + "/packaging/man/" + pcPage});
        EXPECT_EQ(result.iStatus, 0) << pcPage;
        EXPECT_EQ(result.sOutput, "") << pcPage;
    }
}

// In a copy that belongs to somebody else.
TEST(ProductTest, ServeScriptTellsAnOrdinaryUserInOneLineWhatIsLacking) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give up its rights in a child";
    }
    const TempFolder folder;
    const std::vector<std::string> vsAsNobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    std::vector<std::string> vsArguments = vsAsNobody;
    vsArguments.emplace_back("true");
    if (RunProgram(vsArguments).iStatus != 0) {
        GTEST_SKIP() << "no second user to change to in this user namespace";
    }
    std::filesystem::create_directory(folder / "tools");
    std::filesystem::copy_file(SourceTree() + "/serve.sh", folder / "serve.sh");
    std::filesystem::copy_file(SourceTree() + "/tools/packages.sh", folder / "tools/packages.sh");
    for (const char* pcOpened : {"", "tools"}) {
        ASSERT_EQ(::chmod((folder / pcOpened).c_str(), 0755), 0);
    }
    const auto serve = [&](const std::vector<std::string>& vsOptions) {
        vsArguments = vsAsNobody;
        vsArguments.push_back(folder / "serve.sh");
        vsArguments.insert(vsArguments.end(), vsOptions.begin(), vsOptions.end());
        const RunResult result = RunProgram(vsArguments);
        EXPECT_EQ(result.iStatus, 1);
        return result.sOutput;
    };
    const std::string sNoRight =
        "serve.sh: the server needs port 111, for which you have no right: sudo ./serve.sh (or --check)\n";
    EXPECT_EQ(serve({}), sNoRight);
    EXPECT_EQ(serve({"/tmp", "data"}), sNoRight);
    const std::string sCannotWrite = "serve.sh: cannot write to " + folder.Path() +
                                     "/build, where it is built: run it as root, or in a clone of your own\n";
    EXPECT_EQ(serve({"--check"}), sCannotWrite);
    std::filesystem::create_directory(folder / "build");  // root has built it here
    EXPECT_EQ(serve({"--check"}), sCannotWrite);
    EXPECT_EQ(serve({"/nowhere"}), "serve.sh: no such directory: /nowhere\n");
    EXPECT_EQ(serve({"/tmp", "a/b"}), "serve.sh: an export's name holds no slash, blank or equals sign: \"a/b\"\n");
}

TEST(ProductTest, SourceTreeNamesNoMachine) {
    // A path that only one machine has breaks every other clone.
    const RunResult result = RunProgram(
        {"grep", "-rlF", SourceTree(), SourceTree() + "/src", SourceTree() + "/include", SourceTree() + "/tools"});
    EXPECT_EQ(result.iStatus, 1) << "named in: " << result.sOutput;
}

}  // namespace
