// What an installation gives to a host's developer: the class in a jar, the library under its name, examples that run.
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "JavaHost.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::HasSubstr;

constexpr const char* kPlainHost = R"(
import com.norvo.kbt.quickspin.nfs.NfsLibNative;

public class PlainHost extends NfsLibNative {
    public static void main(String[] args) throws Exception {
        System.loadLibrary("NfsLib");
        PlainHost host = new PlainHost();
        long handle = host.initial("plain", INTERNAL_SERVER, 0);
        System.out.println("It is the " + host.getDescription(handle));
        host.terminate(handle);
    }
})";

class InstalledHostTest : public JavaTest {
protected:
    void Install(const std::string& sPrefix, const ChildOptions& options = {}) {
        const RunResult result = RunProgram({"cmake", "--install", BuildTree(), "--prefix", sPrefix}, options);
        ASSERT_EQ(result.iStatus, 0) << result.sOutput;
    }

    const TempFolder m_Folder;
};

TEST_F(InstalledHostTest, HostFromTheJarLoadsTheInstalledLibraryByItsName) {
    const std::string sPlace = m_Folder / "place";
    Install(sPlace);
    WriteWholeFile(m_Folder / "PlainHost.java", kPlainHost);
    const std::string sClassPath = sPlace + "/share/java/nfslib.jar:" + m_Folder.Path();
    const RunResult compiled =
        RunProgram({"javac", "-cp", sClassPath, "-d", m_Folder.Path(), m_Folder / "PlainHost.java"});
    ASSERT_EQ(compiled.iStatus, 0) << compiled.sOutput;
    const RunResult host =
        RunProgram({"java", "-cp", sClassPath, "-Djava.library.path=" + sPlace + "/lib", "PlainHost"});
    EXPECT_EQ(host.iStatus, 0) << host.sOutput;
    EXPECT_THAT(host.sOutput, HasSubstr("It is the Internal NFS Server\n"));
    const RunResult documentation = RunProgram({"jar", "tf", sPlace + "/share/java/nfslib-javadoc.jar"});
    EXPECT_THAT(documentation.sOutput, HasSubstr("\ncom/norvo/kbt/quickspin/nfs/NfsLibNative.html\n"));
}

TEST_F(InstalledHostTest, LibraryInstalledUnderUsrLiesWhereAMachineLooksUnasked) {
    ChildOptions options;
    options.vEnvironment = {{"DESTDIR", m_Folder / "root"}};
    Install("/usr", options);
    EXPECT_TRUE(std::filesystem::exists(m_Folder / "root/usr/lib/libNfsLib.so"));
    const RunResult machine = RunProgram({"java", "-XshowSettings:properties", "-version"});
    EXPECT_THAT(machine.sOutput, HasSubstr("/usr/lib\n"));
}

TEST_F(InstalledHostTest, InstalledExampleRunsWithTheInstalledLibrary) {
    if (!std::filesystem::exists("/usr/sbin/mke2fs") && !std::filesystem::exists("/sbin/mke2fs")) {
        GTEST_SKIP() << "no mke2fs (package e2fsprogs)";
    }
    Install(m_Folder / "place");
    ChildOptions options;
    options.bClosedInput = true;
    const RunResult result = RunProgram({m_Folder / "place/share/doc/nfslib/examples/instant-recovery/run.sh"}, options,
                                        2 * ChildProcess::kLimit);
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_THAT(result.sOutput, HasSubstr("Original: equal, byte for byte\n"));
}

}  // namespace
