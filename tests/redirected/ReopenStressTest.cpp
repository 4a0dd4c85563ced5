// A host that opens its redirected files anew while clients use them: no call falls through to the file on disk.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "RedirectedFile.h"
#include "ServerFixture.h"

namespace {

constexpr std::uint32_t kNfsOk = 0;
constexpr std::uint64_t kSize = 65536;
constexpr int kSegments = 50;
constexpr std::chrono::milliseconds kDuration(1500);

/// What the host does to open the file anew.
struct Reopening {
    const char* pcName;
    bool bInfoFile;
    int nSegments;
};

std::ostream& operator<<(std::ostream& stream, const Reopening& reopening) {
    return stream << reopening.pcName;
}

/// Sources hold 'S', clients write 'W', and the file on disk holds 'D' where it is no info file.
class ReopenStressTest : public ServerFixture, public testing::WithParamInterface<Reopening> {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        WriteWholeFile(Source(), std::string(kSize, 'S'));
        WriteWholeFile(Disk(), DiskContent());
        Log().SetHost([this](const Notification& notification) {
            ++m_nTold;
            return notification.sOperation == "write" ? static_cast<int>(notification.iLen) : 0;
        });
        Server().SetLogControl(0);
        Reopen();
        m_pClient = std::make_unique<NfsClient>();
        m_sRoot = MountRoot(*m_pClient);
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sDisk), kNfsOk);
        m_Host = std::thread([this] {
            while (!m_bStop) {
                Reopen();
                ++m_nReopened;
            }
        });
    }
    void TearDown() override {
        Stop();
        m_pClient.reset();
        ServerFixture::TearDown();
    }
    void Stop() {
        m_bStop = true;
        if (m_Host.joinable()) {
            m_Host.join();
        }
    }

    std::string Disk() const { return Folder() / "disk"; }
    std::string Source() const { return m_Sources / "source"; }
    static std::string DiskContent() { return GetParam().bInfoFile ? "" : std::string(kSize / 2, 'D'); }

    void Reopen() {
        Server().OpenRedirectedFile(Disk().c_str(), kSize, GetParam().bInfoFile, 0, 0);
        const auto nPiece = static_cast<long long>(kSize) / kSegments;
        for (int i = 0; i < GetParam().nSegments; ++i) {
            Server().AddRedirectedFileSegment(Disk().c_str(), Source().c_str(), 0, i * nPiece, nPiece, nullptr);
        }
    }
    static bool IsTimeLeft(std::chrono::steady_clock::time_point begin) {
        return std::chrono::steady_clock::now() - begin < kDuration;
    }

    TempFolder m_Sources;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot, m_sDisk;
    std::atomic<long> m_nTold{0};
    std::atomic<long> m_nReopened{0};
    std::atomic<bool> m_bStop{false};
    std::thread m_Host;
};

class ReopenedFileTest : public ReopenStressTest {};

TEST_P(ReopenedFileTest, IsNeverTheFileOnDiskForAnyCall) {
    const auto begin = std::chrono::steady_clock::now();
    long nAnswered = 0;
    while (IsTimeLeft(begin)) {
        std::uint32_t iCount = 0;
        ASSERT_EQ(m_pClient->Write(m_sDisk, 16, std::string(100, 'W'), iCount), kNfsOk);
        ++nAnswered;
        Fattr3 attributes;
        ASSERT_EQ(m_pClient->Getattr(m_sDisk, attributes), kNfsOk);
        ASSERT_EQ(attributes.iSize, kSize);
        std::string sData;
        bool bEof = false;
        ASSERT_EQ(m_pClient->Read(m_sDisk, 0, 4096, sData, bEof), kNfsOk) << "after " << m_nReopened;
        ASSERT_EQ(sData.find_first_not_of(std::string("S\0", 2)), std::string::npos) << "neither source nor zeros";
        Sattr3 size;
        size.iSize = 7;
        ASSERT_EQ(m_pClient->Setattr(m_sDisk, size), kNfsOk);
        ++nAnswered;
    }
    Stop();
    EXPECT_EQ(m_nTold, nAnswered) << "acknowledged, but the host was not told";
    EXPECT_GT(m_nReopened, 10);
    const std::string sOnDisk = ReadWholeFile(Disk());
    if (GetParam().bInfoFile) {
        EXPECT_EQ(sOnDisk.size() % 32, 0U);
        EXPECT_EQ(sOnDisk.find('W'), std::string::npos);
    } else {
        EXPECT_TRUE(sOnDisk == DiskContent());
    }
    RecordProperty("reopened", std::to_string(m_nReopened));
}

TEST_P(ReopenedFileTest, IsRemovedAsARedirectedFile) {
    const auto begin = std::chrono::steady_clock::now();
    long nRemoved = 0;
    while (IsTimeLeft(begin)) {
        ASSERT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfsOk);
        ++nRemoved;
        ASSERT_EQ(m_nTold, nRemoved) << "the host was not told";
        WriteWholeFile(Disk(), DiskContent());
        while (!Utilities().GetRedirectedFile(Disk().c_str())) {
            std::this_thread::yield();
        }
    }
    EXPECT_GT(nRemoved, 10);
}

TEST_P(ReopenedFileTest, IsRenamedAsARedirectedFile) {
    const std::string sMoved = Folder() / "moved";
    const auto begin = std::chrono::steady_clock::now();
    long nRenamed = 0;
    while (IsTimeLeft(begin)) {
        std::string sHandle;
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "disk", sHandle), kNfsOk);
        ASSERT_EQ(m_pClient->Rename(m_sRoot, "disk", m_sRoot, "moved"), kNfsOk);
        ++nRenamed;
        ASSERT_EQ(m_nTold, nRenamed) << "the host was not told";
        ASSERT_NE(Utilities().GetRedirectedFile(sMoved.c_str()), nullptr);
        Server().CloseRedirectedFile(sMoved.c_str());
        ASSERT_EQ(::unlink(sMoved.c_str()), 0);
        WriteWholeFile(Disk(), DiskContent());
        while (!Utilities().GetRedirectedFile(Disk().c_str())) {
            std::this_thread::yield();
        }
    }
    EXPECT_GT(nRenamed, 10);
}

INSTANTIATE_TEST_SUITE_P(Maps, ReopenedFileTest,
                         testing::Values(Reopening{"Empty", false, 0}, Reopening{"InMemory", false, kSegments},
                                         Reopening{"InfoFile", true, kSegments}),
                         [](const auto& instance) { return instance.param.pcName; });

// ---- The registry alone, without the wire's pace

/// Where one thread is adding to a file that another one opens anew, and a third adds to the new one at once.
class ReopenedInfoFileTest : public testing::Test {
protected:
    static constexpr long long kEarlier = 1;
    static constexpr long long kNew = 2;

    std::shared_ptr<CRedirectedFile> Open() {
        return m_Utilities.OpenRedirectedFile(&m_Param, m_sPath.c_str(), 1 << 20, true, 1, 1);
    }
    /// Which file each record was added to.
    std::vector<long long> Records() const {
        const std::string sBytes = ReadWholeFile(m_sPath);
        EXPECT_EQ(sBytes.size() % sizeof(Segment), 0U);
        std::vector<Segment> vRecords(sBytes.size() / sizeof(Segment));
        std::memcpy(static_cast<void*>(vRecords.data()), sBytes.data(), vRecords.size() * sizeof(Segment));
        std::vector<long long> vOwners;
        std::ranges::transform(vRecords, std::back_inserter(vOwners), &Segment::iFileOffset);
        return vOwners;
    }

    TempFolder m_Folder;
    std::string m_sPath = m_Folder / "disk";
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", 0};
};

TEST_F(ReopenedInfoFileTest, RecordsOfTheEarlierFileNeverFollowThoseOfTheNewOne) {
    const auto begin = std::chrono::steady_clock::now();
    int nRounds = 0;
    for (; std::chrono::steady_clock::now() - begin < kDuration; ++nRounds) {
        WriteWholeFile(m_sPath, "");
        const auto pEarlier = Open();
        std::thread earlierAdder([&] {
            CRuntimeParam param("earlier", 0);
            while (pEarlier->AddSegment(&param, nullptr, kEarlier, 0, 1, nullptr)) {
            }
        });
        std::thread newAdder([&] {
            CRuntimeParam param("new", 0);
            auto pFile = pEarlier;
            while (pFile == pEarlier) {
                pFile = m_Utilities.GetRedirectedFile(m_sPath.c_str());
            }
            EXPECT_TRUE(pFile && pFile->AddSegment(&param, nullptr, kNew, 0, 1, nullptr));
        });
        const auto pNew = Open();
        EXPECT_TRUE(pEarlier->IsClosed());
        newAdder.join();
        earlierAdder.join();
        const std::vector<long long> vOwners = Records();
        ASSERT_TRUE(std::ranges::is_sorted(vOwners)) << "after " << nRounds << " rounds";
        ASSERT_EQ(std::ranges::count(vOwners, kNew), 1);
        EXPECT_TRUE(pNew->AddSegment(&m_Param, nullptr, kNew, 1, 1, nullptr)) << "its info file is still its own";
        ASSERT_EQ(std::ranges::count(Records(), kNew), 2);
    }
    EXPECT_GT(nRounds, 10);
}

/// A reader that holds the earlier file is answered by the new one, not cut short and not by the disk.
TEST_F(ReopenedInfoFileTest, ReadsGoOnWhileTheFileIsOpenedAnew) {
    const std::string sSource = m_Folder / "source";
    WriteWholeFile(sSource, std::string(1 << 20, 'S'));
    WriteWholeFile(m_sPath, "");
    Open();
    ASSERT_TRUE(
        m_Utilities.AddRedirectedFileSegment(&m_Param, m_sPath.c_str(), sSource.c_str(), 0, 0, 1 << 20, nullptr));
    // The one record stays in the info file; all that a new file lacks is the number of its source.
    std::atomic<bool> bStop{false};
    std::atomic<long> nReads{0};
    std::vector<std::thread> vReaders;
    for (int i = 0; i < 2; ++i) {
        vReaders.emplace_back([&] {
            CRuntimeParam param("reader", 0);
            LogArgu tag{"test"};
            std::vector<char> vcBuffer(CRedirectedFile::GetReadRoom(4096));
            while (!bStop) {
                bool bEof = true;
                EXPECT_EQ(
                    m_Utilities.ReadFile(&param, &tag, m_sPath.c_str(), 1000, SEEK_SET, vcBuffer.data(), 4096, &bEof),
                    4096);
                EXPECT_FALSE(bEof);
                bStop = bStop || HasFailure();
                ++nReads;
            }
        });
    }
    const auto begin = std::chrono::steady_clock::now();
    long nOpened = 0;
    while (!bStop && std::chrono::steady_clock::now() - begin < kDuration) {
        const auto pFile = Open();
        pFile->AddSegment(&m_Param, sSource.c_str(), 0, 1 << 20, 1, nullptr);  // refused, but numbers the source
        ++nOpened;
    }
    bStop = true;
    for (std::thread& reader : vReaders) {
        reader.join();
    }
    EXPECT_GT(nReads, 10);
    EXPECT_GT(nOpened, 10);
}

}  // namespace
