// Clients read while the host adds, exports, dumps, closes and reopens: every byte is checked.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "RedirectedFile.h"
#include "ServerFixture.h"
#include "WaitUntil.h"

namespace {

constexpr std::int64_t kSourceSize = 2 << 20;
constexpr unsigned int kMaxRead = 65536;  ///< what one NFS READ brings

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kDefaultSeconds = 8;
#else
constexpr int kDefaultSeconds = 30;
#endif

/// NFSLIB_STRESS_SECONDS shortens or prolongs the test.
std::chrono::seconds Duration() {
    const char* pcSeconds = std::getenv("NFSLIB_STRESS_SECONDS");
    return std::chrono::seconds(pcSeconds != nullptr ? std::max(1, std::atoi(pcSeconds)) : kDefaultSeconds);
}

/// A map without gaps over three sources whose bytes the test knows.
class Layout {
public:
    struct Piece {
        std::size_t iSource;
        std::int64_t iFileOffset, iOffset, iLength;
    };

    Layout(const std::vector<std::string>& vsContents, std::int64_t iMaxPiece, int nPieces, unsigned int iSeed) {
        std::mt19937_64 random(iSeed);
        for (int i = 0; i < nPieces; ++i) {
            const auto iLength = static_cast<std::int64_t>(1 + random() % static_cast<std::uint64_t>(iMaxPiece));
            const std::size_t iSource = random() % vsContents.size();
            const auto iFileOffset =
                static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(kSourceSize - iLength));
            vPieces.push_back({iSource, iFileOffset, GetSize(), iLength});
            sContent +=
                vsContents[iSource].substr(static_cast<std::size_t>(iFileOffset), static_cast<std::size_t>(iLength));
        }
    }
    std::int64_t GetSize() const { return static_cast<std::int64_t>(sContent.size()); }

    std::vector<Piece> vPieces;
    std::string sContent;
};

/// What a read brought; a failed one has no bytes.
struct Answer {
    bool bFailed = false;
    bool bEof = false;
    std::string sData;
};

class RedirectedStressTest : public ServerFixture {
protected:
    using Reader = std::function<Answer(const std::string& sName, std::int64_t iOffset, unsigned int iLen)>;

    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::mt19937_64 random(42);
        for (int i = 0; i < 3; ++i) {
            std::string sContent(kSourceSize, '\0');
            // No zero byte: a zero in a result is then never a source's.
            std::generate(sContent.begin(), sContent.end(), [&] { return static_cast<char>(1 + random() % 255); });
            m_vsSources.push_back(m_Sources / std::to_string(i));
            WriteWholeFile(m_vsSources.back(), sContent);
            m_vsContents.push_back(std::move(sContent));
        }
        m_pSteady = std::make_unique<Layout>(m_vsContents, 100000, 100, 1);
        m_pGrowing = std::make_unique<Layout>(m_vsContents, 2000, 20000, 2);
        m_pReopened = std::make_unique<Layout>(m_vsContents, 60000, 30, 3);
        for (const char* pcName : {"steady-info", "twin", "steady-memory", "growing-info", "growing-memory",
                                   "reopened-info", "reopened-memory", "out", "dump"}) {
            WriteWholeFile(Path(pcName), "");
        }
        OpenSteady();
        Open("growing-info", true, m_pGrowing->GetSize());
        Open("growing-memory", false, m_pGrowing->GetSize());
    }

    std::string Path(const std::string& sName) const { return Folder() / sName; }

    void Open(const std::string& sName, bool bInfoFile, std::int64_t iSize) {
        Server().OpenRedirectedFile(Path(sName).c_str(), iSize, bInfoFile, 1, 2);
    }
    void Add(const std::string& sName, const Layout::Piece& piece) {
        char vcReason[kReasonBufferSize] = "";
        if (!Server().AddRedirectedFileSegment(Path(sName).c_str(), m_vsSources[piece.iSource].c_str(),
                                               piece.iFileOffset, piece.iOffset, piece.iLength, vcReason)) {
            Fail("adding to " + sName + ": " + vcReason);
        }
    }
    /// Gives the sources their numbers: a segment at the size is refused, but its source is registered.
    void NumberSources(const std::string& sName, std::int64_t iSize) {
        for (const std::string& sSource : m_vsSources) {
            Server().AddRedirectedFileSegment(Path(sName).c_str(), sSource.c_str(), 0, iSize, 1, nullptr);
        }
    }

    /// Two files on one info file (under two names), one of them with check points, and the same map in memory.
    void OpenSteady() {
        Open("steady-info", true, m_pSteady->GetSize());
        Open("steady-memory", false, m_pSteady->GetSize());
        NumberSources("steady-info", m_pSteady->GetSize());
        for (const Layout::Piece& piece : m_pSteady->vPieces) {
            Add("steady-info", piece);
            Add("steady-memory", piece);
        }
        EXPECT_EQ(::unlink(Path("twin").c_str()), 0);
        EXPECT_EQ(::link(Path("steady-info").c_str(), Path("twin").c_str()), 0);
        Utilities().RenameRedirectedFile(Server().GetRuntimeParam(), Path("steady-info").c_str(), Path("twin").c_str());
        Open("steady-info", true, m_pSteady->GetSize());
        NumberSources("steady-info", m_pSteady->GetSize());
    }

    // ---- Checking

    void Fail(const std::string& sText) {
        const std::lock_guard lock(m_FailureMutex);
        if (m_sFailure.empty()) {
            m_sFailure = sText;
        }
        m_bStop = true;
    }

    /// All of it, to the byte.
    void CheckExact(const Layout& layout, const std::string& sWhat, std::int64_t iOffset, unsigned int iLen,
                    const Answer& answer) {
        const std::string sExpected = layout.sContent.substr(static_cast<std::size_t>(iOffset), iLen);
        if (answer.bFailed || answer.sData != sExpected) {
            Fail(sWhat + ": " + std::to_string(answer.sData.size()) + " bytes instead of " +
                 std::to_string(sExpected.size()) + (answer.bFailed ? ", failed" : ", or other ones"));
        }
        if (answer.bEof != (iOffset + static_cast<std::int64_t>(sExpected.size()) >= layout.GetSize())) {
            Fail(sWhat + ": end of file is " + std::to_string(answer.bEof));
        }
    }

    /// The map was there up to iKnown at least; behind what was there follow zeros for the gap at the tail.
    void CheckPartial(const Layout& layout, const std::string& sWhat, std::int64_t iOffset, std::int64_t iKnown,
                      const Answer& answer) {
        const std::string sExpected = layout.sContent.substr(static_cast<std::size_t>(iOffset), answer.sData.size());
        const auto differ = std::mismatch(sExpected.begin(), sExpected.end(), answer.sData.begin(), answer.sData.end());
        const bool bZeros = std::all_of(differ.second, answer.sData.end(), [](char c) { return c == '\0'; });
        const std::int64_t iGood = differ.second - answer.sData.begin();
        if (answer.bFailed || !bZeros || iGood < iKnown) {
            Fail(sWhat + ": " + std::to_string(iGood) + " good bytes of " + std::to_string(answer.sData.size()) +
                 ", known " + std::to_string(iKnown) + (bZeros ? "" : ", then foreign ones"));
        }
    }

    /// A file that is closed and reopened: parts of it, or nothing, or what lies on disk under its path.
    void CheckReopened(const std::string& sWhat, std::int64_t iOffset, const Answer& answer, const std::string& sDisk) {
        const auto iStart = std::min(static_cast<std::size_t>(iOffset), sDisk.size());
        if (!answer.bFailed && sDisk.compare(iStart, answer.sData.size(), answer.sData) != 0) {
            CheckPartial(*m_pReopened, sWhat, iOffset, 0, answer);
        }
    }

    // ---- Clients

    void ReadUntilStopped(const Reader& read, unsigned int iSeed) {
        std::mt19937_64 random(iSeed);
        while (!m_bStop) {
            switch (random() % 4) {
                case 0:
                case 1: {
                    const char* const vpcNames[] = {"steady-info", "twin", "steady-memory"};
                    ReadSteady(read, vpcNames[random() % 3], random);
                    break;
                }
                case 2:
                    ReadGrowing(read, random() % 2 == 0, random);
                    break;
                default:
                    ReadReopened(read, random() % 2 == 0, random);
            }
            ++m_nReads;
        }
    }

    static std::int64_t PickOffset(std::int64_t iSize, std::mt19937_64& random) {
        return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(iSize));
    }
    static unsigned int PickLength(std::mt19937_64& random) {
        return static_cast<unsigned int>(1 + random() % (random() % 2 == 0 ? 5000 : kMaxRead));
    }

    void ReadSteady(const Reader& read, const std::string& sName, std::mt19937_64& random) {
        const std::int64_t iOffset = PickOffset(m_pSteady->GetSize(), random);
        const unsigned int iLen = PickLength(random);
        CheckExact(*m_pSteady, sName + " at " + std::to_string(iOffset) + ", length " + std::to_string(iLen), iOffset,
                   iLen, read(sName, iOffset, iLen));
    }

    void ReadGrowing(const Reader& read, bool bInfoFile, std::mt19937_64& random) {
        const std::int64_t iCovered = m_iCovered;
        if (iCovered == 0) {
            return;
        }
        const std::string sName = bInfoFile ? "growing-info" : "growing-memory";
        const std::int64_t iOffset = PickOffset(iCovered, random);
        const unsigned int iLen = PickLength(random);
        CheckPartial(*m_pGrowing, sName + " at " + std::to_string(iOffset), iOffset,
                     std::min<std::int64_t>(iCovered - iOffset, iLen), read(sName, iOffset, iLen));
    }

    void ReadReopened(const Reader& read, bool bInfoFile, std::mt19937_64& random) {
        const std::string sName = bInfoFile ? "reopened-info" : "reopened-memory";
        const std::int64_t iOffset = PickOffset(random() % 2 == 0 ? 1000 : m_pReopened->GetSize(), random);
        CheckReopened(sName + " at " + std::to_string(iOffset), iOffset, read(sName, iOffset, PickLength(random)),
                      bInfoFile ? m_sReopenedRecords : "");
    }

    /// One of the clients on the wire.
    void RunNfsClient(unsigned int iSeed) {
        NfsClient client;
        const std::string sRoot = m_sRoot;
        std::map<std::string, std::string> mHandles;
        ReadUntilStopped(
            [&](const std::string& sName, std::int64_t iOffset, unsigned int iLen) {
                std::string& sHandle = mHandles[sName];
                Answer answer;
                if (sHandle.empty() && client.Lookup(sRoot, sName, sHandle) != 0) {
                    Fail("no handle for " + sName);
                }
                answer.bFailed =
                    client.Read(sHandle, static_cast<std::uint64_t>(iOffset), iLen, answer.sData, answer.bEof) != 0;
                return answer;
            },
            iSeed);
    }

    /// As the NFS threads do, but several at a time.
    void RunDirectReader(unsigned int iSeed) {
        CRuntimeParam param("reader", 0);
        LogArgu tag{"stress"};
        std::vector<char> vcBuffer(CRedirectedFile::GetReadRoom(kMaxRead));
        ReadUntilStopped(
            [&](const std::string& sName, std::int64_t iOffset, unsigned int iLen) {
                Answer answer;
                const int iRead =
                    Utilities().ReadFile(&param, &tag, Path(sName).c_str(), static_cast<std::uint64_t>(iOffset),
                                         SEEK_SET, vcBuffer.data(), iLen, &answer.bEof);
                answer.bFailed = iRead < 0;
                answer.sData.assign(vcBuffer.data(), static_cast<std::size_t>(std::max(iRead, 0)));
                return answer;
            },
            iSeed);
    }

    // ---- The host

    void RunGrowing() {
        const auto step = Duration() * 900 / 1000 / m_pGrowing->vPieces.size();
        for (const Layout::Piece& piece : m_pGrowing->vPieces) {
            if (m_bStop) {
                return;
            }
            Add("growing-info", piece);
            Add("growing-memory", piece);
            m_iCovered = piece.iOffset + piece.iLength;
            std::this_thread::sleep_for(step);  // paces the growth over the whole test
        }
    }

    void RunReopening() {
        // The same records each time: what a client may see of the file on disk while it is not open.
        while (!m_bStop) {
            for (const bool bInfoFile : {true, false}) {
                const std::string sName = bInfoFile ? "reopened-info" : "reopened-memory";
                Server().CloseRedirectedFile(Path(sName).c_str());
                EXPECT_EQ(::truncate(Path(sName).c_str(), 0), 0);
                Open(sName, bInfoFile, m_pReopened->GetSize());
                NumberSources(sName, m_pReopened->GetSize());
                for (const Layout::Piece& piece : m_pReopened->vPieces) {
                    Add(sName, piece);
                }
            }
            ++m_nReopened;
            std::this_thread::yield();
        }
    }

    void RunExporting() {
        int iTurn = 0;
        while (!m_bStop) {
            const char* const vpcNames[] = {"steady-info", "twin", "steady-memory"};
            const std::string sName = vpcNames[iTurn++ % 3];
            EXPECT_EQ(::truncate(Path("out").c_str(), 0), 0);
            EXPECT_EQ(::truncate(Path("dump").c_str(), 0), 0);
            Server().ExportRedirectedFile(Path(sName).c_str(), Path("out").c_str());
            if (ReadWholeFile(Path("out")) != m_pSteady->sContent) {
                Fail("export of " + sName);
            }
            Server().ExportRedirectedFileInfo(Path(sName).c_str(), Path("dump").c_str(), iTurn % 2 == 0);
            CheckDump(sName, iTurn % 2 == 0);
            ++m_nExports;
        }
    }

    void CheckDump(const std::string& sName, bool bMerged) {
        const std::string sDump = ReadWholeFile(Path("dump"));
        const std::string sLast = sDump.substr(sDump.rfind("Segment path="));
        const Layout::Piece& last = m_pSteady->vPieces.back();
        if (!sLast.starts_with("Segment path=" + m_vsSources[last.iSource] + ", fox=") ||
            (!bMerged && !sLast.ends_with(", len=" + std::to_string(LastRecordLength(sName)) + "\n"))) {
            Fail("dump of " + sName + " ends with " + sLast);
        }
    }

    /// Records of an info file are cut at multiples of 1 MiB.
    std::int64_t LastRecordLength(const std::string& sName) const {
        const Layout::Piece& last = m_pSteady->vPieces.back();
        if (sName == "steady-memory") {
            return last.iLength;
        }
        const std::int64_t iCut = (last.iOffset + last.iLength - 1) / 1048576 * 1048576;
        return last.iOffset + last.iLength - std::max(iCut, last.iOffset);
    }

    void RunClosingDescriptors() {
        std::mt19937_64 random(77);
        while (!m_bStop) {
            switch (random() % 4) {
                case 0:
                    Server().CloseCachedFileHandle(m_vsSources[random() % 3].c_str());
                    break;
                case 1:
                    Server().CloseCachedFileHandle(Path("steady-info").c_str());
                    break;
                case 2:
                    Server().CloseAllCachedFileHandles(m_Sources.Path().c_str());
                    break;
                default:
                    Server().CloseAllCachedFileHandles(Folder().Path().c_str());
            }
            ++m_nClosed;
            std::this_thread::sleep_for(std::chrono::microseconds(200));  // leaves the cache something to do
        }
    }

    TempFolder m_Sources;
    std::vector<std::string> m_vsSources;
    std::vector<std::string> m_vsContents;
    std::unique_ptr<Layout> m_pSteady;
    std::unique_ptr<Layout> m_pGrowing;
    std::unique_ptr<Layout> m_pReopened;
    std::string m_sReopenedRecords;
    std::string m_sRoot;

    std::atomic<bool> m_bStop{false};
    std::atomic<std::int64_t> m_iCovered{0};
    std::atomic<long> m_nReads{0};
    std::atomic<long> m_nReopened{0};
    std::atomic<long> m_nExports{0};
    std::atomic<long> m_nClosed{0};
    std::mutex m_FailureMutex;
    std::string m_sFailure;
};

TEST_F(RedirectedStressTest, EveryByteIsRightWhateverTheHostDoesMeanwhile) {
    Server().SetLogControl(0);
    Open("reopened-info", true, m_pReopened->GetSize());
    NumberSources("reopened-info", m_pReopened->GetSize());
    for (const Layout::Piece& piece : m_pReopened->vPieces) {
        Add("reopened-info", piece);
    }
    m_sReopenedRecords = ReadWholeFile(Path("reopened-info"));
    NfsClient client;
    m_sRoot = MountRoot(client);

    std::vector<std::thread> vThreads;
    vThreads.emplace_back([this] { RunNfsClient(1); });
    vThreads.emplace_back([this] { RunNfsClient(2); });
    vThreads.emplace_back([this] { RunDirectReader(3); });
    vThreads.emplace_back([this] { RunDirectReader(4); });
    vThreads.emplace_back([this] { RunGrowing(); });
    vThreads.emplace_back([this] { RunReopening(); });
    vThreads.emplace_back([this] { RunExporting(); });
    vThreads.emplace_back([this] { RunClosingDescriptors(); });

    WaitUntil([this] { return m_bStop.load(); }, Duration());  // until a reader fails, or the test's time is over
    m_bStop = true;
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(m_sFailure, "");
    EXPECT_GT(m_nReads, 100);
    EXPECT_GT(m_nReopened, 1);
    EXPECT_GT(m_nExports, 1);
    EXPECT_GT(m_nClosed, 10);
    EXPECT_GT(m_iCovered, 0);
    std::printf("%ld reads, %ld reopenings, %ld exports, %ld descriptors closed\n", m_nReads.load(), m_nReopened.load(),
                m_nExports.load(), m_nClosed.load());
}

}  // namespace
