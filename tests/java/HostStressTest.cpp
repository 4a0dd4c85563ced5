// Many threads, many lives, many lines: and nothing that grows.
#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "JavaHost.h"
#include "TempFolder.h"

namespace {

class HostStressTest : public JavaTest {
protected:
    /// What a machine holds; threads of its own compilers come and go, so a few more are no leak.
    struct Holdings {
        int nGlobalReferences;
        std::size_t nThreads;
        std::size_t nDescriptors;
    };

    static Holdings HoldingsOf(JavaHost& host) { return {host.GlobalReferences(), host.Threads(), host.Descriptors()}; }

    static void ExpectNoGrowth(const Holdings& before, const Holdings& after) {
        EXPECT_LE(after.nGlobalReferences, before.nGlobalReferences + 5);
        EXPECT_LE(after.nThreads, before.nThreads + 3);
        EXPECT_LE(after.nDescriptors, before.nDescriptors + 3);
    }

    /// Exports and their pieces for HostStress.threads.
    static void MakeFolders(const TempFolder& folder) {
        for (int i = 0; i < 8; ++i) {
            const std::string sPath = folder / std::to_string(i);
            ASSERT_EQ(::mkdir(sPath.c_str(), 0755), 0);
            WriteWholeFile(sPath + "/source", std::string(1 << 19, 's'));
        }
    }
};

TEST_F(HostStressTest, EightThreadsShareAHandleUnderALastingCallback) {
    const TempFolder folder;
    const TempFolder exported;
    MakeFolders(folder);
    JavaHost host;
    const std::string sHandle = host.Serve("A", exported.Path(), 3);
    EXPECT_EQ(host.Do({"stress", "A", "threads", sHandle, folder.Path(), "100"}), "ok 800");
    host.StopServing("A", sHandle);
}

/// Not what a host should do, but it must not harm it.
TEST_F(HostStressTest, EightThreadsShareAHandleWithoutALastingCallback) {
    const TempFolder folder;
    MakeFolders(folder);
    JavaHost host;
    const std::string sHandle = host.Initial("A", "host", 0, 3);
    EXPECT_EQ(host.Do({"stress", "A", "threads", sHandle, folder.Path(), "50"}), "ok 400");
    const Holdings before = HoldingsOf(host);
    EXPECT_EQ(host.Do({"stress", "A", "threads", sHandle, folder.Path(), "50"}), "ok 400");
    ExpectNoGrowth(before, HoldingsOf(host));
    host.Call("A", "terminate", sHandle);
}

TEST_F(HostStressTest, TwoHundredLivesLeaveNothingBehind) {
    const TempFolder folder;
    WriteWholeFile(folder / "source", std::string(1 << 19, 's'));
    JavaHost host;
    host.New("A");
    EXPECT_EQ(host.Do({"stress", "A", "cycles", folder.Path(), "10"}), "ok");
    const Holdings before = HoldingsOf(host);
    EXPECT_EQ(host.Do({"stress", "A", "cycles", folder.Path(), "200"}), "ok");
    ExpectNoGrowth(before, HoldingsOf(host));
}

TEST_F(HostStressTest, AHundredThousandLinesLeaveNothingBehind) {
    const TempFolder folder;
    JavaHost host({"-Xms64m", "-XX:+AlwaysPreTouch"});  // the heap is resident from the start: what grows is not it
    const std::string sHandle = host.Initial("A", "host", 0, 1);
    for (int i = 0; i < 200; ++i) {
        const std::string sPath = folder / std::to_string(i);
        ASSERT_EQ(::mkdir(sPath.c_str(), 0755), 0);
        ASSERT_EQ(host.Call("A", "addMountPoint", sHandle, sPath, "e" + std::to_string(i)), "true");
    }
    host.Do({"record", "A", "off"});
    EXPECT_EQ(host.Do({"stress", "A", "lines", sHandle, "40000"}), "ok 40000");
    const Holdings before = HoldingsOf(host);
    const std::size_t iResident = host.ResidentKiB();
    EXPECT_EQ(host.Do({"stress", "A", "lines", sHandle, "100000"}), "ok 100000");
    ExpectNoGrowth(before, HoldingsOf(host));
    EXPECT_LE(host.ResidentKiB(), iResident + 4096) << "KiB";
    host.Call("A", "terminate", sHandle);
}

/// Threads that attach themselves to the machine for each line.
TEST_F(HostStressTest, AHundredThousandLinesOfTheLibrarysThreadsLeaveNothingBehind) {
    const TempFolder folder;
    JavaHost host({"-Xms64m", "-XX:+AlwaysPreTouch"});
    const std::string sHandle = host.Serve("A", folder.Path(), 4 | 8);
    host.Do({"record", "A", "off"});
    EXPECT_EQ(host.Do({"stress", "A", "calls", "20000"}), "ok true");
    const Holdings before = HoldingsOf(host);
    const std::size_t iResident = host.ResidentKiB();
    EXPECT_EQ(host.Do({"stress", "A", "calls", "100000"}), "ok true");
    ExpectNoGrowth(before, HoldingsOf(host));
    EXPECT_LE(host.ResidentKiB(), iResident + 8192) << "KiB";
    host.StopServing("A", sHandle);
}

}  // namespace
