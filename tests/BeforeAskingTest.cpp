// What is done before a host is asked or a disk waited for, and by whom: once, and before rather than after.
#include "BeforeAsking.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
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

/// From here on a file's bytes are still on the disk, as far as reads that do not want to wait are told; -1: they are
/// told the truth.
thread_local off_t t_iOnDisk = -1;

}  // namespace

/// The system's call, but for the bytes that the test says are on the disk.
extern "C" ssize_t preadv2(int iFile, const iovec* pParts, int nParts, off_t iOffset, int iFlags) {
    iovec part = pParts[0];
    if (t_iOnDisk != -1 && (iFlags & RWF_NOWAIT) != 0) {
        if (nParts != 1 || iOffset >= t_iOnDisk) {
            errno = EAGAIN;
            return -1;
        }
        part.iov_len = std::min(part.iov_len, static_cast<std::size_t>(t_iOnDisk - iOffset));
    }
    return ::preadv(iFile, &part, 1, iOffset);
}

namespace {

/// A file of which what the test says is in memory.
class BeforeReadingTest : public UtilitiesFixture {
protected:
    static constexpr unsigned int kSize = 1 << 20;

    void SetUp() override {
        for (unsigned int i = 0; i < kSize; ++i) {
            m_sContent += static_cast<char>(i % 251);
        }
        m_File = CCachedFile(::open(MakeFile("f", m_sContent).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(m_File.IsOpen());
    }
    void TearDown() override { t_iOnDisk = -1; }

    /// Reads, and expects what the file has; whether something was done before.
    bool IsDoneBeforeReading(unsigned int iOffset, unsigned int nBytes, off_t iOnDisk) {
        t_iOnDisk = iOnDisk;
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
    EXPECT_TRUE(IsDoneBeforeReading(0, 65536, 0));
    EXPECT_FALSE(IsDoneBeforeReading(0, 65536, 65536));
    EXPECT_FALSE(IsDoneBeforeReading(100, 5000, 65536));
    EXPECT_TRUE(IsDoneBeforeReading(60000, 65536, 65536)) << "the second half is not";
    EXPECT_FALSE(IsDoneBeforeReading(60000, 65536, -1));
}

TEST_F(BeforeReadingTest, ItIsNotDoneForTheEndOfAFile) {
    EXPECT_TRUE(IsDoneBeforeReading(kSize - 5000, 65536, kSize - 5000));
    EXPECT_FALSE(IsDoneBeforeReading(kSize - 5000, 65536, -1));
    EXPECT_FALSE(IsDoneBeforeReading(kSize, 65536, -1));
    EXPECT_FALSE(IsDoneBeforeReading(kSize + 10, 65536, -1));
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
