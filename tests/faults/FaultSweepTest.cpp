// One system call of the server goes wrong: the first of its kind in a fixed round of work, then the second, and so on
// to the last. Whatever a client or host is answered meanwhile, the server lives, what was acknowledged is there, the
// next call works, and nothing is kept open.
#include "Faults.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "HostSide.h"
#include "Limits.h"
#include "NfsClient.h"
#include "NfsIpcClientMain.h"
#include "ServerHoldings.h"
#include "SteeredServerFixture.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kMaxTransfer = 65536;

/// What a file must hold by what was acknowledged: bytes that are sure, and others of which nobody knows whether a call
/// that failed has written them.
class Expected {
public:
    void Acknowledge(std::size_t iOffset, std::string_view sData) {
        Reach(iOffset + sData.size());
        std::copy(sData.begin(), sData.end(), m_sBytes.begin() + static_cast<std::ptrdiff_t>(iOffset));
        std::fill_n(m_vbSure.begin() + static_cast<std::ptrdiff_t>(iOffset), sData.size(), true);
    }
    /// A write of so many bytes failed, or was cut short.
    void Doubt(std::size_t iOffset, std::size_t nBytes) {
        Reach(iOffset + nBytes);
        std::fill_n(m_vbSure.begin() + static_cast<std::ptrdiff_t>(iOffset), nBytes, false);
    }
    void Resize(std::size_t nBytes) {
        m_sBytes.resize(nBytes);
        m_vbSure.resize(nBytes, true);
    }
    std::size_t GetSize() const { return m_sBytes.size(); }
    /// Empty if those bytes of the file may be so; else where they are wrong.
    std::string Compare(std::size_t iOffset, std::string_view sSeen) const {
        for (std::size_t i = 0; i < sSeen.size() && iOffset + i < m_sBytes.size(); ++i) {
            if (m_vbSure[iOffset + i] && m_sBytes[iOffset + i] != sSeen[i]) {
                return "byte " + std::to_string(iOffset + i) + " is not what was acknowledged";
            }
        }
        return "";
    }
    /// The same for the whole file, which must be long enough.
    std::string CompareWhole(std::string_view sSeen) const {
        const auto itSure = std::find(m_vbSure.rbegin(), m_vbSure.rend(), true);
        const auto nSure = static_cast<std::size_t>(m_vbSure.rend() - itSure);
        return sSeen.size() < nSure ? "only " + std::to_string(sSeen.size()) + " bytes" : Compare(0, sSeen);
    }

private:
    void Reach(std::size_t nBytes) {
        if (nBytes > m_sBytes.size()) {
            Resize(nBytes);
        }
    }

    std::string m_sBytes;
    std::vector<bool> m_vbSure;
};

/// A text that tells by each byte where it belongs.
std::string Pattern(std::size_t nBytes, int iSeed) {
    std::string sText(nBytes, '\0');
    for (std::size_t i = 0; i < nBytes; ++i) {
        sText[i] = static_cast<char>('a' + (i / 7 + static_cast<std::size_t>(iSeed)) % 26);
    }
    return sText;
}

/// The work of one round, as a client and a host do it. Steps that fail are left behind; a lost connection is made
/// anew.
class Round {
public:
    Round(const TempFolder& folder, CNfsIpcClientMain* pHostSide, LogCapture* pHost, int iRound)
        : m_Folder(folder),
          m_pHostSide(pHostSide),
          m_pHost(pHost),
          m_iRound(iRound),
          m_sName("f" + std::to_string(iRound)) {}

    void Run() {
        Step([this] { Mount(); });
        Step([this] { ReadSeed(); });
        Step([this] { MakeFile(); });
        Step([this] { WriteFile(0, Pattern(20000, m_iRound)); });
        Step([this] { WriteFile(5000, Pattern(3000, m_iRound + 1)); });
        Step([this] { ReadFile(); });
        Step([this] { CutFile(); });
        Step([this] { List(); });
        Step([this] { Rename(); });
        Step([this] { CreateThroughLink(); });
        Step([this] { MakeAndRemoveFolder(); });
        Step([this] { ReadDisk(); });
        Step([this] { WriteDisk(); });
        Step([this] { AddSegment(); });
        Step([this] { ReadRecordedDisk(); });
        Step([this] { AskForStatus(); });
    }

    /// What the round leaves, looked at when nothing goes wrong any more.
    void Check() {
        m_pClient = std::make_unique<NfsClient>();
        m_sRoot.clear();
        Mount();
        ASSERT_NE(m_sRoot, "") << "MNT status " << m_pClient->GetMountStatus();
        ReadSeed();
        if (m_bMade) {
            CheckFile();
        }
        if (m_bSegmentAdded) {
            std::string sHandle;
            ASSERT_EQ(m_pClient->Lookup(m_sRoot, DiskName(), sHandle), kOk);
            EXPECT_EQ(ReadAll(sHandle).substr(0, 100), Pattern(100, 5)) << "a segment was accepted and lost";
        }
        m_pHostSide->CloseRedirectedFile((m_Folder / DiskName()).c_str());
        OpenRecordedDisk();
        std::string sRecorded;
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, RecordedName(), sRecorded), kOk);
        EXPECT_EQ(ReadAll(sRecorded), Pattern(100, 5)) << "opened anew";
        m_pHostSide->CloseRedirectedFile((m_Folder / RecordedName()).c_str());
        for (const std::string& sLeft : {m_sName, m_sName + "-renamed", DiskName(), RecordedName()}) {
            std::string sHandle;
            if (m_pClient->Lookup(m_sRoot, sLeft, sHandle) == kOk) {
                EXPECT_EQ(m_pClient->Remove(m_sRoot, sLeft), kOk) << sLeft;
            }
        }
        m_pClient->Umnt("exp");
        m_pClient.reset();
    }

private:
    template <typename Work>
    void Step(Work work) {
        try {
            if (!m_pClient) {
                m_pClient = std::make_unique<NfsClient>();
            }
            work();
        } catch (const std::exception&) {  // the connection is gone, and with it the reply
            m_pClient.reset();
        }
    }

    void Mount() {
        m_pClient->Umnt("exp");  // what a round before has left
        m_sRoot = m_pClient->Mnt("exp").value_or(m_sRoot);
    }
    /// Reads to the end of a file; ends early at a failure.
    std::string ReadAll(const std::string& sHandle) {
        std::string sAll;
        bool bEof = false;
        std::string sPart;
        while (!bEof && m_pClient->Read(sHandle, sAll.size(), kMaxTransfer, sPart, bEof) == kOk && !sPart.empty()) {
            sAll += sPart;
        }
        return sAll;
    }
    void ReadSeed() {
        std::string sHandle;
        std::string sData;
        bool bEof = false;
        if (m_pClient->Lookup(m_sRoot, "seed", sHandle) == kOk &&
            m_pClient->Read(sHandle, 0, kMaxTransfer, sData, bEof) == kOk) {
            EXPECT_EQ(sData, Pattern(50000, 3).substr(0, sData.size()));
            EXPECT_TRUE(!bEof || sData.size() == 50000U) << sData.size();
        }
    }
    void MakeFile() {
        std::string sHandle;
        if (m_pClient->Create(m_sRoot, m_sName, sHandle) == kOk) {
            m_bMade = true;
            m_sHandle = sHandle;
        }
    }
    void WriteFile(std::size_t iOffset, const std::string& sData) {
        for (std::size_t i = 0; m_bMade && i < sData.size();) {
            m_Expected.Doubt(iOffset + i, sData.size() - i);  // until the reply is here
            std::uint32_t nWritten = 0;
            const std::string sPart = sData.substr(i, 16384);
            if (m_pClient->Write(m_sHandle, iOffset + i, sPart, nWritten) != kOk || nWritten == 0) {
                return;
            }
            m_Expected.Acknowledge(iOffset + i, sPart.substr(0, nWritten));
            i += nWritten;
        }
    }
    void ReadFile() {
        std::string sData;
        bool bEof = false;
        if (m_bMade && m_pClient->Read(m_sHandle, 1000, kMaxTransfer, sData, bEof) == kOk) {
            EXPECT_EQ(m_Expected.Compare(1000, sData), "");
        }
    }
    void CutFile() {
        const std::size_t nShorter = m_Expected.GetSize() / 2;
        if (!m_bMade) {
            return;
        }
        Expected before = m_Expected;
        m_Expected.Doubt(nShorter, m_Expected.GetSize() - nShorter);
        Sattr3 attributes;
        attributes.iSize = nShorter;
        if (m_pClient->Setattr(m_sHandle, attributes) == kOk) {
            m_Expected = std::move(before);
            m_Expected.Resize(nShorter);
        }
    }
    void List() {
        std::vector<std::string> vsNames;
        if (m_pClient->Readdir(m_sRoot, vsNames) == kOk) {
            // A directory that cannot be opened lists as empty.
            EXPECT_TRUE(vsNames.empty() || std::count(vsNames.begin(), vsNames.end(), "seed") == 1)
                << testing::PrintToString(vsNames);
        }
    }
    void Rename() {
        m_bRenameAsked = m_bMade;
        if (m_bMade && m_pClient->Rename(m_sRoot, m_sName, m_sRoot, m_sName + "-renamed") == kOk) {
            m_bRenamed = true;
        }
    }
    /// A link that leads out of the export to nothing: whatever of it cannot be read, nothing is made there.
    void CreateThroughLink() {
        std::string sHandle;
        m_pClient->Create(m_sRoot, "out", sHandle);
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::read_symlink(m_Folder / "out")));
    }
    void MakeAndRemoveFolder() {
        std::string sHandle;
        const std::string sFolder = "d" + std::to_string(m_iRound);
        if (m_pClient->Mkdir(m_sRoot, sFolder, sHandle) == kOk) {
            EXPECT_TRUE(std::filesystem::is_directory(m_Folder / sFolder));
        }
        if (m_pClient->Rmdir(m_sRoot, sFolder) == kOk) {
            EXPECT_FALSE(std::filesystem::exists(m_Folder / sFolder));
        }
    }
    /// A source that cannot be opened reads as zeros, so those are no wrong bytes here.
    void ReadDisk() {
        std::string sHandle;
        std::string sData;
        bool bEof = false;
        if (m_pClient->Lookup(m_sRoot, "disk", sHandle) == kOk &&
            m_pClient->Read(sHandle, 0, 40000, sData, bEof) == kOk) {
            const std::string sContent = Pattern(50000, 3).substr(10000, 40000);
            for (std::size_t i = 0; i < sData.size(); ++i) {
                ASSERT_TRUE(sData[i] == sContent[i] || sData[i] == '\0') << i;
            }
        }
    }
    /// What the host is told is what the client is told that it wrote; the host takes all but one byte.
    void WriteDisk() {
        std::string sHandle;
        std::uint32_t nWritten = 0;
        m_pHost->Clear();
        if (m_pClient->Lookup(m_sRoot, "disk", sHandle) == kOk &&
            m_pClient->Write(sHandle, 700, std::string(5000, 'w'), nWritten) == kOk) {
            EXPECT_EQ(nWritten, 4999U);
            ASSERT_EQ(m_pHost->Notifications().size(), 1U);
            EXPECT_EQ(m_pHost->Notifications()[0].iSeek, 700U);
            EXPECT_EQ(m_pHost->Notifications()[0].iLen, 5000U);
        }
    }
    /// A new redirected file, whose map is in memory, and a segment; the host is told whether it holds.
    void AddSegment() {
        const std::string sDisk = m_Folder / DiskName();
        WriteWholeFile(sDisk, "");
        m_pHostSide->OpenRedirectedFile(sDisk.c_str(), 100, false, 0, 0);
        char vcReason[kReasonBufferSize] = "";
        m_bSegmentAdded =
            m_pHostSide->AddRedirectedFileSegment(sDisk.c_str(), (m_Folder / "source").c_str(), 0, 0, 100, vcReason);
        EXPECT_TRUE(m_bSegmentAdded || vcReason[0] != '\0') << "a refusal without a reason";
    }
    /// The same with a map in an info file. A record that could not be written is missing, and then zeros are read.
    void OpenRecordedDisk() {
        const std::string sDisk = m_Folder / RecordedName();
        WriteWholeFile(sDisk, "");
        m_pHostSide->OpenRedirectedFile(sDisk.c_str(), 100, true, 0, 0);
        char vcReason[kReasonBufferSize] = "";
        for (long long iOffset : {0, 50}) {
            m_pHostSide->AddRedirectedFileSegment(sDisk.c_str(), (m_Folder / "source").c_str(), iOffset, iOffset, 50,
                                                  vcReason);
        }
    }
    void ReadRecordedDisk() {
        OpenRecordedDisk();
        std::string sHandle;
        std::string sData;
        bool bEof = false;
        if (m_pClient->Lookup(m_sRoot, RecordedName(), sHandle) == kOk &&
            m_pClient->Read(sHandle, 0, kMaxTransfer, sData, bEof) == kOk) {
            const std::string sContent = Pattern(100, 5);
            ASSERT_LE(sData.size(), sContent.size());
            for (std::size_t i = 0; i < sData.size(); ++i) {
                ASSERT_TRUE(sData[i] == sContent[i] || sData[i] == '\0') << i;
            }
        }
    }
    void AskForStatus() { m_pHostSide->GetServerStatus(); }

    std::string DiskName() const { return "disk" + std::to_string(m_iRound); }
    std::string RecordedName() const { return "recorded" + std::to_string(m_iRound); }

    /// The file, under whichever of its names it may be, holds what was acknowledged: by the client and on disk.
    void CheckFile() {
        std::string sName;
        for (const std::string& sCandidate : {m_sName, m_sName + "-renamed"}) {
            std::string sHandle;
            if (m_pClient->Lookup(m_sRoot, sCandidate, sHandle) == kOk) {
                EXPECT_EQ(sName, "") << "both names";
                sName = sCandidate;
                EXPECT_EQ(m_Expected.CompareWhole(ReadAll(sHandle)), "") << "read through the server";
            }
        }
        ASSERT_NE(sName, "") << "the file is gone";
        EXPECT_TRUE(!m_bRenamed || sName != m_sName) << "an acknowledged RENAME is not done";
        EXPECT_TRUE(m_bRenameAsked || sName == m_sName);
        EXPECT_EQ(m_Expected.CompareWhole(ReadWholeFile(m_Folder / sName)), "") << "on disk";
    }

    const TempFolder& m_Folder;
    CNfsIpcClientMain* m_pHostSide;
    LogCapture* m_pHost;
    const int m_iRound;
    const std::string m_sName;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::string m_sHandle;
    Expected m_Expected;
    bool m_bMade = false;
    bool m_bRenameAsked = false;
    bool m_bRenamed = false;
    bool m_bSegmentAdded = false;
};

class FaultSweepTest : public SteeredServerFixture {
protected:
    /// No call comes as often in one round.
    static constexpr int kMostCalls = 2000;

    void SetUp() override {
        SteeredServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        WriteWholeFile(*m_pFolder / "seed", Pattern(50000, 3));
        WriteWholeFile(*m_pFolder / "source", Pattern(100, 5));
        WriteWholeFile(*m_pFolder / "disk", "");
        std::filesystem::create_symlink(*m_pElsewhere / "stolen", *m_pFolder / "out");
        Start({"-log", "33", "-logfile", *m_pElsewhere / "log"});
        ASSERT_FALSE(HasFatalFailure());
        m_pHostSide->Log().SetHost([](const Notification& told) { return static_cast<int>(told.iLen) - 1; });
        char vcReason[kReasonBufferSize] = "";
        const std::string sDisk = *m_pFolder / "disk";
        m_pHostSide->Client().OpenRedirectedFile(sDisk.c_str(), 40000, false, 0, 0);
        ASSERT_TRUE(m_pHostSide->Client().AddRedirectedFileSegment(sDisk.c_str(), (*m_pFolder / "seed").c_str(), 10000,
                                                                   0, 40000, vcReason))
            << vcReason;
    }

    Holdings GetHoldings() const { return ReadHoldings(m_pServer->GetPid()); }
    /// Has the server close what it may keep, so that its holdings can be compared.
    void Tidy() {
        m_pHostSide->Client().CloseAllCachedFileHandles(m_pFolder->Path().c_str());
        UseEachConnection();
    }

    /// One round with whatever fault is armed, and what it leaves.
    void RunOnce(int iRound) {
        Round round(*m_pFolder, &m_pHostSide->Client(), &m_pHostSide->Log(), iRound);
        round.Run();
        m_bFired = m_pFaults->Disarm();
        ASSERT_TRUE(m_pServer->IsRunning()) << m_pServer->Output();
        round.Check();
    }

    bool m_bFired = false;
};

TEST_P(FaultSweepTest, NothingAcknowledgedIsLostAndTheServerGoesOn) {
    const SweptFault& sweep = GetParam();
    ASSERT_TRUE(m_pHostSide->AwaitListing(m_pFolder->Path()));
    const std::size_t nThreads = GetHoldings().nThreads;
    RunOnce(0);
    Tidy();
    ASSERT_TRUE(WaitUntil([&] { return GetHoldings().nThreads <= nThreads; })) << testing::PrintToString(GetHoldings());
    const Holdings before = GetHoldings();
    int n = 1;
    for (m_bFired = true; m_bFired && n < kMostCalls; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        m_pFaults->Arm(sweep.call, sweep.kind, sweep.iError, n);
        RunOnce(n);
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(n, 2) << "nothing went wrong at all";
    EXPECT_FALSE(m_bFired) << "not all calls were reached";
    Tidy();
    ExpectHoldingsWithin(m_pServer->GetPid(), before);
    RecordProperty("calls", n - 2);
}

constexpr SweptFault kSweeps[] = {
    {"OpenDenied", FaultyCall::kOpen, FaultKind::kError, EACCES},
    {"OpenWithoutDescriptors", FaultyCall::kOpen, FaultKind::kError, EMFILE},
    {"Stat", FaultyCall::kStat, FaultKind::kError, EIO},
    {"Read", FaultyCall::kRead, FaultKind::kError, EIO},
    {"ShortRead", FaultyCall::kRead, FaultKind::kShort, 0},
    {"WriteOnAFullDisk", FaultyCall::kWrite, FaultKind::kError, ENOSPC},
    {"ShortWrite", FaultyCall::kWrite, FaultKind::kShort, 0},
    {"Seek", FaultyCall::kSeek, FaultKind::kError, EIO},
    {"Change", FaultyCall::kChange, FaultKind::kError, EIO},
    {"Listing", FaultyCall::kListing, FaultKind::kError, EIO},
    {"Close", FaultyCall::kClose, FaultKind::kError, EIO},
    {"Accept", FaultyCall::kAccept, FaultKind::kError, ECONNABORTED},
    {"AcceptWithoutDescriptors", FaultyCall::kAccept, FaultKind::kError, EMFILE},
    {"Connect", FaultyCall::kConnect, FaultKind::kError, ENOBUFS},
    {"Receive", FaultyCall::kReceive, FaultKind::kError, ECONNRESET},
    {"ShortReceive", FaultyCall::kReceive, FaultKind::kShort, 0},
    {"Send", FaultyCall::kSend, FaultKind::kError, ECONNRESET},
    {"ShortSend", FaultyCall::kSend, FaultKind::kShort, 0},
    {"Resolve", FaultyCall::kResolve, FaultKind::kError, EIO},
    {"Control", FaultyCall::kControl, FaultKind::kError, ENOMEM},
    {"Poll", FaultyCall::kPoll, FaultKind::kError, ENOMEM},
    {"InterruptedPoll", FaultyCall::kPoll, FaultKind::kError, EINTR},
    {"Thread", FaultyCall::kThread, FaultKind::kError, EAGAIN},
#if !defined(NFSLIB_SANITIZED)  // their allocations are their own
    {"Memory", FaultyCall::kMemory, FaultKind::kError, ENOMEM},
#endif
};

INSTANTIATE_TEST_SUITE_P(EachCall, FaultSweepTest, testing::ValuesIn(kSweeps),
                         [](const auto& sweep) { return std::string(sweep.param.pcName); });

}  // namespace
