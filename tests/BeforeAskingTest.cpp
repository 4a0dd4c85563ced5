// What is done before a host is asked or a disk waited for, and by whom: once, and before rather than after.
#include "BeforeAsking.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "FakeHost.h"
#include "FileLogger.h"
#include "IpcPeer.h"
#include "Isolation.h"
#include "Nfs3ProgFixture.h"
#include "UtilitiesFixture.h"
#include "UtilitiesIpcServer.h"
#include "WaitUntil.h"

namespace {

TEST(BeforeAskingTest, WithoutAnActionNothingIsDone) {
    CBeforeAsking::Run();
}

TEST(BeforeAskingTest, TheInnermostActionIsDoneAndTheOuterOneAgainAfterwards) {
    std::string sDone;
    const CBeforeAsking outer([&] { sDone += "outer "; });
    CBeforeAsking::Run();
    {
        const CBeforeAsking inner([&] { sDone += "inner "; });
        CBeforeAsking::Run();
        CBeforeAsking::Run();
    }
    CBeforeAsking::Run();
    EXPECT_EQ(sDone, "outer inner inner outer ");
}

TEST(BeforeAskingTest, ItIsNeededUnlessItSaysThatItIsNot) {
    EXPECT_FALSE(CBeforeAsking::IsNeeded());
    const CBeforeAsking outer([] {});
    EXPECT_TRUE(CBeforeAsking::IsNeeded());
    bool bNeeded = false;
    const CBeforeAsking inner([] {}, [&] { return bNeeded; });
    EXPECT_FALSE(CBeforeAsking::IsNeeded());
    bNeeded = true;
    EXPECT_TRUE(CBeforeAsking::IsNeeded());
}

TEST(BeforeAskingTest, AnActionIsItsThreadsAlone) {
    int nDone = 0;
    {
        const CBeforeAsking before([&] { ++nDone; });
        std::thread([] { CBeforeAsking::Run(); }).join();
    }
    CBeforeAsking::Run();
    EXPECT_EQ(nDone, 0);
}

// ---- Hosts

/// The fixture's own log is not asked here: its host is.
class BeforeAskingAHostTest : public testing::Test {
protected:
    /// How much the host had been told each time that the action was done.
    std::vector<std::size_t> m_vnToldBefore;
    FakeHost m_Host;
    const CBeforeAsking m_Before{
        [this] { m_vnToldBefore.push_back(m_Host.Log().Lines().size() + m_Host.Log().Notifications().size()); }};
    CUtilities m_Utilities;
    CRuntimeParam m_Param{"10.0.0.5", 0};
};

TEST_F(BeforeAskingAHostTest, ItIsDoneBeforeEachLineAndEachNotification) {
    m_Utilities.SetCallback(m_Host.Callback());
    m_Utilities.LogInfo(&m_Param, "%s", "line");
    m_Utilities.LogError(&m_Param, "%s", "line");
    m_Utilities.LogRaw(&m_Param, "%s", "line");
    m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, false, 0, false, 0);
    m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f");
    m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g");
    m_Utilities.LogWriteRedirectedFile(&m_Param, "/f", 0, SEEK_SET, 1);
    EXPECT_EQ(m_vnToldBefore, (std::vector<std::size_t>{0, 1, 2, 3, 4, 5, 6}));
    m_Utilities.SetCallback(nullptr);
}

TEST_F(BeforeAskingAHostTest, ItIsNotDoneForALogFileNorForALookAtTheCallback) {
    const TempFolder folder;
    CFileLogger logger((folder / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_Utilities.SetFileLogger(&logger);
    m_Utilities.LogInfo(&m_Param, "%s", "line");
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), -1);
    m_Utilities.SetCallback(m_Host.Callback());
    EXPECT_EQ(m_Utilities.GetCallback(), m_Host.Callback());
    EXPECT_TRUE(m_vnToldBefore.empty());
    m_Utilities.SetCallback(nullptr);
}

TEST_F(BeforeAskingAHostTest, ItIsDoneBeforeARemoteProcessIsAsked) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    FakeIpcServer client("/tmp/nfs-client", [](const std::string&) { return RawIntReply(3); });
    std::vector<std::size_t> vnAskedBefore;
    const CBeforeAsking before([&] { vnAskedBefore.push_back(client.Messages().size()); });
    CUtilitiesIpcServer utilities;
    m_Param.SetIpcID("client");
    EXPECT_EQ(utilities.LogRemoveRedirectedFile(&m_Param, "/f"), 3);
    EXPECT_EQ(utilities.LogWriteRedirectedFile(&m_Param, "/f", 0, SEEK_SET, 1), 3);
    EXPECT_EQ(vnAskedBefore, (std::vector<std::size_t>{0, 1}));
}

// ---- Disks

using BeforeAskingADiskTest = UtilitiesFixture;

TEST_F(BeforeAskingADiskTest, ItIsDoneBeforeAFileIsFlushed) {
    const CDescriptor file(::open(MakeFile("f", "content").c_str(), O_RDWR | O_CLOEXEC));
    int nDone = 0;
    const CBeforeAsking before([&] {
        ++nDone;
        EXPECT_TRUE(TakeLog().empty()) << "the line about the flush comes after it";
    });
    EXPECT_EQ(m_Utilities.OS_FileSync(&m_Param, &m_Tag, file.Get(), m_vcReason), 0);
    EXPECT_EQ(nDone, 1);
    EXPECT_EQ(m_Utilities.OS_FileSync(&m_Param, &m_Tag, -1, m_vcReason), -1);
    EXPECT_EQ(nDone, 1) << "there is nothing to wait for";
}

/// A file on a disk, of which what the test says is in memory.
class BeforeReadingTest : public UtilitiesFixture {
protected:
    static constexpr unsigned int kSize = 1 << 20;

    void SetUp() override {
        std::string sTemplate = "/var/tmp/nfslib-test-XXXXXX";  // what lies in /tmp may be in memory for good
        m_File = CCachedFile(::mkostemp(sTemplate.data(), O_CLOEXEC));
        ASSERT_TRUE(m_File.IsOpen());
        ::unlink(sTemplate.c_str());
        for (unsigned int i = 0; i < kSize; ++i) {
            m_sContent += static_cast<char>(i % 251);
        }
        ASSERT_EQ(::pwrite(m_File, m_sContent.data(), kSize, 0), kSize);
        ASSERT_EQ(::fdatasync(m_File), 0);
        ASSERT_EQ(::posix_fadvise(m_File, 0, 0, POSIX_FADV_RANDOM), 0);  // nothing is read ahead
        if (!WaitUntil([this] { return IsEvicted(); }, std::chrono::seconds(10))) {
            GTEST_SKIP() << "/var/tmp lies on a file system that never waits for a disk, or does not say so";
        }
    }
    /// The system may keep for a moment what it is asked to forget.
    bool IsEvicted() const {
        EXPECT_EQ(::posix_fadvise(m_File, 0, 0, POSIX_FADV_DONTNEED), 0);
        char cByte = 0;
        const iovec part{&cByte, 1};
        constexpr off_t viPlaces[] = {0, 60000, kSize / 2, kSize - 1};
        return std::all_of(std::begin(viPlaces), std::end(viPlaces), [&](off_t iPlace) {
            return ::preadv2(m_File, &part, 1, iPlace, RWF_NOWAIT) == -1 && errno == EAGAIN;
        });
    }
    /// Reads, and expects what the file has; whether something was done before.
    bool IsDoneBeforeReading(unsigned int iOffset, unsigned int nBytes) {
        int nDone = 0;
        const CBeforeAsking before([&] { ++nDone; });
        std::string sRead(nBytes, '?');
        const int iRead = m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, m_File, iOffset, sRead.data(), nBytes, nullptr);
        const std::string sExpected = iOffset < kSize ? m_sContent.substr(iOffset, nBytes) : "";
        EXPECT_EQ(iRead, static_cast<int>(sExpected.size()));
        EXPECT_TRUE(sRead.substr(0, sExpected.size()) == sExpected) << iOffset << " " << nBytes;
        EXPECT_LE(nDone, 1);
        return nDone > 0;
    }

    CCachedFile m_File;
    std::string m_sContent;
};

TEST_F(BeforeReadingTest, ItIsDoneWhereADiskIsWaitedForAndNotWhereTheBytesAreThere) {
    EXPECT_TRUE(IsDoneBeforeReading(0, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(0, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(100, 5000));
    EXPECT_TRUE(IsDoneBeforeReading(60000, 65536)) << "the second half is not";
    EXPECT_FALSE(IsDoneBeforeReading(60000, 65536));
}

TEST_F(BeforeReadingTest, ItIsNotDoneForTheEndOfAFile) {
    EXPECT_TRUE(IsDoneBeforeReading(kSize - 5000, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(kSize - 5000, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(kSize, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(kSize + 10, 65536));
}

using BeforeListingTest = Nfs3ProgFixture;

TEST_F(BeforeListingTest, ItIsDoneBeforeADirectoryIsOpened) {
    int nDone = 0;
    const CBeforeAsking before([&] {
        ++nDone;
        WriteWholeFile(Path("made meanwhile"), "");
    });
    const std::string sReply = Call(kNfsReaddir, XdrBuilder().Opaque(Handle()).U64(0).U64(0).U32(1));
    EXPECT_EQ(nDone, 1);
    EXPECT_NE(sReply.find("made meanwhile"), std::string::npos) << "it was read before";
}

}  // namespace
