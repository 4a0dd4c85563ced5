// The registry of redirected files, and what the file operations do with a redirected path.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RedirectedFile.h"
#include "RegistryFigures.h"
#include "TempFolder.h"
#include "WaitUntil.h"

namespace {

class UtilitiesRedirectedTest : public testing::Test {
protected:
    std::shared_ptr<CRedirectedFile> Open(const std::string& sPath, long long iSize = 100, bool bInfoFile = false) {
        return m_Utilities.OpenRedirectedFile(&m_Param, sPath.c_str(), iSize, bInfoFile, 0, 0);
    }
    bool IsOpen(const std::string& sPath) { return m_Utilities.GetRedirectedFile(sPath.c_str()) != nullptr; }
    std::vector<std::string> CompareLines() const {
        std::vector<std::string> vLines;
        for (const std::string& sText : m_Log.Texts()) {
            if (sText.find("Path compare") != std::string::npos) {
                vLines.push_back(sText);
            }
        }
        return vLines;
    }

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", CRuntimeParam::kLogGeneralInfo | CRuntimeParam::kLogRedirectFile};
    LogArgu m_Tag{"test"};
    char m_vcReason[kReasonBufferSize] = "";
};

TEST_F(UtilitiesRedirectedTest, OpenedFileIsFoundUnderItsPathOnly) {
    const auto pFile = Open("/e/disk", 4711);
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/e/disk"), pFile);
    EXPECT_EQ(pFile->GetFileSize(), 4711);
    EXPECT_FALSE(IsOpen("/e/dis"));
    EXPECT_FALSE(IsOpen("/e/disk/"));
    EXPECT_FALSE(IsOpen("/e//disk"));
    EXPECT_EQ(m_Utilities.GetRedirectedFile(nullptr), nullptr);
}

TEST_F(UtilitiesRedirectedTest, IdIsTheNumberOfFilesRegisteredAtThatMoment) {
    EXPECT_EQ(Open("/e/a")->GetId(), 0);
    EXPECT_EQ(Open("/e/b")->GetId(), 1);
    EXPECT_EQ(Open("/e/c")->GetId(), 2);
    EXPECT_EQ(Open("/e/a")->GetId(), 2) << "two are left when the first one is replaced";
    m_Utilities.CloseRedirectedFile(&m_Param, "/e/b");
    EXPECT_EQ(Open("/e/d")->GetId(), 2) << "IDs repeat";
}

TEST_F(UtilitiesRedirectedTest, OpeningAPathAgainClosesTheFileThatWasThere) {
    const auto pFirst = Open("/e/disk", 1);
    const auto pSecond = Open("/e/disk", 2);
    EXPECT_TRUE(pFirst->IsClosed());
    EXPECT_FALSE(pSecond->IsClosed());
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/e/disk"), pSecond);
}

/// What a host sees of it is what it saw when the earlier file was closed first.
TEST_F(UtilitiesRedirectedTest, LinesOfClosingTheEarlierFileComeBeforeThatOfOpening) {
    WriteWholeFile(m_Folder / "source", "0123456789");
    const auto pFirst = Open("/e/disk");
    pFirst->AddSegment(&m_Param, (m_Folder / "source").c_str(), 0, 0, 10, nullptr);
    char vcBuffer[20] = "";
    bool bEof = false;
    pFirst->Read(&m_Param, 0, vcBuffer, 10, &bEof);
    m_Log.Clear();
    m_Param.SetLogControl(CRuntimeParam::kLogRedirectFile | CRuntimeParam::kLogFileAccess);
    Open("/e/disk");
    EXPECT_EQ(m_Log.Texts(),
              (std::vector<std::string>{"[RedirectedFile.Close] OS close file \"" + m_Folder / "source" + "\"",
                                        "[RedirectedFile.Open] id=0, size=100 (path=)"}));
}

/// Whoever looks while the earlier file is being closed finds the new one.
TEST_F(UtilitiesRedirectedTest, NewFileIsThereBeforeTheEarlierOneIsClosed) {
    const auto pFirst = Open("/e/disk", 1);
    std::atomic<bool> bStop{false};
    std::thread looker([&] {
        while (!bStop) {
            EXPECT_TRUE(IsOpen("/e/disk"));
        }
    });
    CRuntimeParam param("host", 0);
    for (int i = 0; i < 20000; ++i) {
        m_Utilities.OpenRedirectedFile(&param, "/e/disk", i, false, 0, 0);
    }
    bStop = true;
    looker.join();
}

// ---- Many of them

/// The quickest of a few tries: what else runs on the machine does not count.
class ManyRedirectedFilesTest : public UtilitiesRedirectedTest {
protected:
    static constexpr int kTries = 3;

    using Seconds = std::chrono::duration<double>;
    template <typename Action>
    static Seconds TimeOf(Action action) {
        const auto begin = std::chrono::steady_clock::now();
        action();
        return std::chrono::steady_clock::now() - begin;
    }
    void OpenIn(const std::string& sFolder, int nFiles) {
        for (int i = 0; i < nFiles; ++i) {
            Open(sFolder + "/" + std::to_string(i));
        }
    }
    /// Adds segments to a file, each of a source that was not named before.
    Seconds TimeOfNewSources(const std::string& sPath) {
        Seconds least = Seconds::max();
        for (int iTry = 0; iTry < kTries; ++iTry) {
            least = std::min(least, TimeOf([&] {
                                 for (int i = 0; i < 300; ++i) {
                                     const std::string sSource = "/s/" + std::to_string(++m_nSources);
                                     ASSERT_TRUE(m_Utilities.AddRedirectedFileSegment(
                                         &m_Param, sPath.c_str(), sSource.c_str(), 0, i, 1, m_vcReason));
                                 }
                             }));
        }
        return least;
    }

    int m_nSources = 0;
};

TEST_F(ManyRedirectedFilesTest, NewSourceCostsAsMuchAmongThousandsAsWithOne) {
    m_Param.SetLogControl(0);
    Open("/e/disk", 1000);
    const Seconds alone = TimeOfNewSources("/e/disk");
    OpenIn("/e/others", 20000);
    const Seconds amongMany = TimeOfNewSources("/e/disk");
    EXPECT_LT(amongMany / alone, 15) << alone.count() << " s alone, " << amongMany.count() << " s among 20,000";
}

TEST_F(ManyRedirectedFilesTest, ClosingAFolderCostsAsMuchBehindThousandsAsWithoutThem) {
    constexpr int kFiles = 4000;
    m_Param.SetLogControl(0);
    Seconds alone = Seconds::max();
    Seconds behindMany = Seconds::max();
    for (int iTry = 0; iTry < kTries; ++iTry) {
        OpenIn("/e/a", kFiles);
        OpenIn("/e/b", kFiles);
        behindMany = std::min(behindMany, TimeOf([&] { m_Utilities.CloseAllRedirectedFiles(&m_Param, "/e/b"); }));
        alone = std::min(alone, TimeOf([&] { m_Utilities.CloseAllRedirectedFiles(&m_Param, "/e/a"); }));
    }
    EXPECT_LT(behindMany / alone, 15) << alone.count() << " s alone, " << behindMany.count() << " s behind 4,000";
    EXPECT_EQ(m_Utilities.GetRegistryFigures().nRedirectedFiles, 0U);
}

// ---- A host that asks back while a segment is added

/// A host that does something when a line about an added segment comes, on a thread of its own so that a test can tell
/// when that does not return.
class AskingBackUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CaptureUtilities::LogInfo;
    ~AskingBackUtilities() override {
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
    }

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        if (m_Action && std::string(pcMessage).starts_with("[RedirectedFile.AddSegment] Reference src")) {
            m_Thread = std::thread([this, action = std::exchange(m_Action, nullptr)] {
                action();
                m_bReturned = true;
            });
            m_bReturnedInTime = WaitUntil([this] { return m_bReturned.load(); }, std::chrono::seconds(10));
        }
    }
    void ActOnce(std::function<void()> action) { m_Action = std::move(action); }
    bool HasReturnedInTime() const { return m_bReturnedInTime; }

private:
    std::function<void()> m_Action;
    std::thread m_Thread;
    std::atomic<bool> m_bReturned{false};
    bool m_bReturnedInTime = false;
};

struct HugeSegmentCase {
    const char* pcName;
    bool bInfoFile;
    int iLogControl;
    std::function<void(CUtilities&, CRuntimeParam*, const char*)> action;
};

std::ostream& operator<<(std::ostream& out, const HugeSegmentCase& kind) {
    return out << kind.pcName;
}

class HugeSegmentTest : public testing::TestWithParam<HugeSegmentCase> {};

TEST_P(HugeSegmentTest, HostMayAskBackWhileItIsAdded) {
    constexpr long long kTiB = 1LL << 40;
    const TempFolder folder;
    const std::string sPath = folder / "disk";
    WriteWholeFile(sPath, "");
    LogCapture log;
    AskingBackUtilities utilities(&log);
    CRuntimeParam param("host", GetParam().iLogControl);
    utilities.OpenRedirectedFile(&param, sPath.c_str(), 4 * kTiB, GetParam().bInfoFile, 0, 0);
    utilities.ActOnce([&] {
        CRuntimeParam other("host", GetParam().iLogControl);
        GetParam().action(utilities, &other, sPath.c_str());
    });
    char vcReason[kReasonBufferSize] = "";
    EXPECT_TRUE(utilities.AddRedirectedFileSegment(&param, sPath.c_str(), nullptr, 0, 0, 3 * kTiB, vcReason))
        << vcReason;
    EXPECT_TRUE(utilities.HasReturnedInTime());
    EXPECT_EQ(ReadWholeFile(sPath).size() / 32 / 98304, GetParam().bInfoFile ? 1U : 0U) << "3 TiB in pieces of 32 MiB";
}

std::vector<HugeSegmentCase> HugeSegmentCases() {
    constexpr int kRedirect = CRuntimeParam::kLogRedirectFile;
    constexpr int kAccess = kRedirect | CRuntimeParam::kLogFileAccess;
    const auto close = [](CUtilities& utilities, CRuntimeParam* pParam, const char* pcPath) {
        utilities.CloseRedirectedFile(pParam, pcPath);
    };
    const auto closeAll = [](CUtilities& utilities, CRuntimeParam* pParam, const char*) {
        utilities.CloseAllRedirectedFiles(pParam, "/");
    };
    const auto open = [](CUtilities& utilities, CRuntimeParam* pParam, const char* pcPath) {
        utilities.OpenRedirectedFile(pParam, pcPath, 1000, false, 0, 0);
    };
    const auto add = [](CUtilities& utilities, CRuntimeParam* pParam, const char* pcPath) {
        EXPECT_TRUE(utilities.AddRedirectedFileSegment(pParam, pcPath, nullptr, 0, 0, 10, nullptr));
    };
    const auto stop = [](CUtilities& utilities, CRuntimeParam* pParam, const char*) {
        const LogArgu tag{"test"};
        utilities.Reset(pParam, &tag);
    };
    return {{"CloseInMemory", false, kAccess, close},  {"CloseAllInMemory", false, kAccess, closeAll},
            {"OpenInMemory", false, kAccess, open},    {"AddInMemory", false, kAccess, add},
            {"StopInMemory", false, kAccess, stop},    {"CloseWithInfoFile", true, kRedirect, close},
            {"AddWithInfoFile", true, kRedirect, add}, {"StopWithInfoFile", true, kRedirect, stop}};
}

INSTANTIATE_TEST_SUITE_P(AskingBack, HugeSegmentTest, testing::ValuesIn(HugeSegmentCases()),
                         [](const auto& kind) { return std::string(kind.param.pcName); });

/// Looks how far an info file is when the first line about a record comes.
class RecordWatchingUtilities : public CUtilities {
public:
    using CUtilities::LogInfo;
    explicit RecordWatchingUtilities(std::string sInfoFile) : m_sInfoFile(std::move(sInfoFile)) {}
    void LogInfo(CRuntimeParam*, const char* pcMessage) override {
        const std::string_view sLine(pcMessage);
        m_nWrites += sLine.starts_with("[RedirectedFile.AddSegment] OS write file") ? 1 : 0;
        if (m_nWrites == 1 && m_nSizeAtFirst == 0) {
            m_nSizeAtFirst = ReadWholeFile(m_sInfoFile).size();
        }
    }
    std::size_t GetWrites() const { return m_nWrites; }
    std::size_t GetSizeAtFirst() const { return m_nSizeAtFirst; }

private:
    std::string m_sInfoFile;
    std::size_t m_nWrites = 0;
    std::size_t m_nSizeAtFirst = 0;
};

/// They would take too much memory.
TEST(HugeSegmentLinesTest, LinesAboutVeryManyRecordsAreNotKept) {
    for (const std::size_t nRecords : {65536U, 65537U}) {
        const TempFolder folder;
        const std::string sPath = folder / "disk";
        WriteWholeFile(sPath, "");
        RecordWatchingUtilities utilities(sPath);
        CRuntimeParam param("host", CRuntimeParam::kLogFileAccess);
        const long long iSize = static_cast<long long>(nRecords) << 20;
        utilities.OpenRedirectedFile(&param, sPath.c_str(), iSize, true, 1, 0);
        EXPECT_TRUE(utilities.AddRedirectedFileSegment(&param, sPath.c_str(), nullptr, 0, 0, iSize, nullptr));
        EXPECT_EQ(utilities.GetWrites(), nRecords);
        EXPECT_EQ(utilities.GetSizeAtFirst(), nRecords == 65536 ? nRecords * 32 : 32);
    }
}

// ---- A redirected file as a source

TEST_F(UtilitiesRedirectedTest, RedirectedFileIsRefusedAsASourceHoweverItIsSpelled) {
    const std::string sLayer = m_Folder / "layer1";
    WriteWholeFile(sLayer, "records");
    ASSERT_EQ(::symlink(m_Folder.Path().c_str(), (m_Folder / "link").c_str()), 0);
    Open(sLayer);
    const auto pFile = Open(m_Folder / "layer2");
    for (const std::string& sSource :
         {sLayer, m_Folder / "./layer1", m_Folder.Path() + "//layer1", m_Folder / "link/layer1", m_Folder / "layer2"}) {
        EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, (m_Folder / "layer2").c_str(), sSource.c_str(), 0,
                                                          0, 10, m_vcReason));
        EXPECT_EQ(m_vcReason, "Source \"" + sSource + "\" is a redirected file");
    }
    EXPECT_FALSE(m_Log.Has("[RedirectedFile.AddSegment] Reference src (1): " + sLayer)) << "nothing is remembered";
    EXPECT_EQ(pFile->GetMapMemory(), 0U);
    EXPECT_TRUE(pFile->AddSegment(&m_Param, nullptr, 0, 0, 10, m_vcReason));
    EXPECT_TRUE(pFile->AddSegment(&m_Param, "", 0, 10, 10, m_vcReason));
}

TEST_F(UtilitiesRedirectedTest, RedirectedFileOpenedUnderALinkIsRefusedAsASourceToo) {
    const std::string sLayer = m_Folder / "layer1";
    WriteWholeFile(sLayer, "records");
    ASSERT_EQ(::symlink(m_Folder.Path().c_str(), (m_Folder / "link").c_str()), 0);
    Open(m_Folder / "link/layer1");
    Open("/e/disk");
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", sLayer.c_str(), 0, 0, 10, m_vcReason));
    m_Utilities.RenameRedirectedFile(&m_Param, (m_Folder / "link/layer1").c_str(), (m_Folder / "link/other").c_str());
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", sLayer.c_str(), 0, 0, 10, m_vcReason))
        << "renamed away";
}

TEST_F(UtilitiesRedirectedTest, SourceIsTakenAgainOnceItIsClosed) {
    const std::string sLayer = m_Folder / "layer1";
    WriteWholeFile(sLayer, "0123456789");
    Open("/e/disk");
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", sLayer.c_str(), 0, 0, 10, m_vcReason));
    Open(sLayer);
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", sLayer.c_str(), 0, 10, 10, m_vcReason))
        << "a known source, too";
    m_Utilities.CloseRedirectedFile(&m_Param, sLayer.c_str());
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", sLayer.c_str(), 0, 10, 10, m_vcReason));
}

TEST_F(UtilitiesRedirectedTest, InfoFileIsTheFileUnderThePathItself) {
    const std::string sPath = m_Folder / "disk";
    WriteWholeFile(sPath, "");
    Open(sPath, 100, true);
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), nullptr, 0, 0, 10, m_vcReason));
    EXPECT_EQ(ReadWholeFile(sPath).size(), 32U);
    EXPECT_TRUE(m_Log.Has("[RedirectedFile.Open] id=0, size=100 (path=" + sPath + ")"));
}

TEST_F(UtilitiesRedirectedTest, WithoutTheFlagThereIsNoInfoFile) {
    const std::string sPath = m_Folder / "disk";
    WriteWholeFile(sPath, "");
    Open(sPath);
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), nullptr, 0, 0, 10, m_vcReason));
    EXPECT_EQ(ReadWholeFile(sPath), "");
}

TEST_F(UtilitiesRedirectedTest, AddingToAnUnknownPathFailsWithAReason) {
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/none", "/s", 0, 0, 10, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Redirected file \"/e/none\" is not open");
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/none", "/s", 0, 0, 10, nullptr));
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, nullptr, nullptr, 0, 0, 10, m_vcReason));
}

TEST_F(UtilitiesRedirectedTest, AddingOutsideTheFileFailsWithAReason) {
    Open("/e/disk", 100);
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, "/e/disk", "/s", 0, 120, 10, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Offset 120 is not inside the file (size = 100)");
}

TEST_F(UtilitiesRedirectedTest, ReasonForALongPathIsCut) {
    const std::string sPath = "/" + std::string(5000, 'p');
    EXPECT_FALSE(m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), "/s", 0, 0, 10, m_vcReason));
    EXPECT_EQ(std::string(m_vcReason).size(), kReasonBufferSize - 1);
}

TEST_F(UtilitiesRedirectedTest, OperationsOnUnknownPathsDoNothing) {
    m_Utilities.CloseRedirectedFile(&m_Param, "/e/none");
    m_Utilities.CloseRedirectedFile(&m_Param, nullptr);
    m_Utilities.ExportRedirectedFile(&m_Param, "/e/none", "/tmp/out");
    m_Utilities.ExportRedirectedFileInfo(&m_Param, "/e/none", "/tmp/out", true);
    m_Utilities.RenameRedirectedFile(&m_Param, "/e/none", "/e/other");
    EXPECT_EQ(m_Log.Dump(), "");
}

TEST_F(UtilitiesRedirectedTest, PrefixCloseTakesWhatLiesAtOrBelowThePath) {
    for (const char* pcPath : {"/e", "/e/f", "/e/g/h", "/ef", "/d"}) {
        Open(pcPath);
    }
    m_Utilities.CloseAllRedirectedFiles(&m_Param, "/e");
    EXPECT_FALSE(IsOpen("/e"));
    EXPECT_FALSE(IsOpen("/e/f"));
    EXPECT_FALSE(IsOpen("/e/g/h"));
    EXPECT_TRUE(IsOpen("/ef"));
    EXPECT_TRUE(IsOpen("/d"));
}

TEST_F(UtilitiesRedirectedTest, PrefixCloseLogsEachCompareAndStartsOverAfterAMatch) {
    for (const char* pcPath : {"/a", "/e/f", "/z"}) {
        Open(pcPath);
    }
    m_Utilities.CloseAllRedirectedFiles(&m_Param, "/e/");
    EXPECT_EQ(CompareLines(), (std::vector<std::string>{"[CloseAllRedirectedFiles] Path compare: \"/e/\" vs \"/a/\"",
                                                        "[CloseAllRedirectedFiles] Path compare: \"/e/\" vs \"/e/f/\"",
                                                        "[CloseAllRedirectedFiles] Path compare: \"/e/\" vs \"/a/\"",
                                                        "[CloseAllRedirectedFiles] Path compare: \"/e/\" vs \"/z/\""}));
}

TEST_F(UtilitiesRedirectedTest, PrefixCloseOfAnEmptyRegistryLogsNothing) {
    m_Utilities.CloseAllRedirectedFiles(&m_Param, "/e");
    m_Utilities.CloseAllRedirectedFiles(&m_Param);
    EXPECT_EQ(m_Log.Dump(), "");
}

TEST_F(UtilitiesRedirectedTest, FullCloseClosesAll) {
    const auto pFirst = Open("/e/a");
    const auto pSecond = Open("/f/b");
    m_Utilities.CloseAllRedirectedFiles(&m_Param);
    EXPECT_TRUE(pFirst->IsClosed());
    EXPECT_TRUE(pSecond->IsClosed());
    EXPECT_FALSE(IsOpen("/e/a"));
}

TEST_F(UtilitiesRedirectedTest, ResetClosesAll) {
    const auto pFile = Open("/e/a");
    m_Utilities.Reset(&m_Param, &m_Tag);
    EXPECT_TRUE(pFile->IsClosed());
    EXPECT_FALSE(IsOpen("/e/a"));
}

TEST_F(UtilitiesRedirectedTest, RenameMovesTheObjectAndDropsTheOneThatWasThere) {
    const auto pFile = Open("/e/a");
    const auto pOther = Open("/e/b");
    m_Utilities.RenameRedirectedFile(&m_Param, "/e/a", "/e/b");
    EXPECT_FALSE(IsOpen("/e/a"));
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/e/b"), pFile);
    EXPECT_FALSE(pFile->IsClosed());
    EXPECT_TRUE(pOther->IsClosed());
}

TEST_F(UtilitiesRedirectedTest, RenameOfAnUnknownFileStillDropsTheOneThatWasThere) {
    const auto pOther = Open("/e/b");
    m_Utilities.RenameRedirectedFile(&m_Param, "/e/none", "/e/b");
    EXPECT_TRUE(pOther->IsClosed());
    EXPECT_FALSE(IsOpen("/e/b"));
}

TEST_F(UtilitiesRedirectedTest, RenameOntoItselfChangesNothing) {
    const auto pFile = Open("/e/a");
    m_Utilities.RenameRedirectedFile(&m_Param, "/e/a", "/e/a");
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/e/a"), pFile);
    EXPECT_FALSE(pFile->IsClosed());
}

/// What stands under the old path by then may be anybody's.
TEST_F(UtilitiesRedirectedTest, InfoFileOfARenamedFileIsLookedForUnderTheNewPathOnly) {
    const std::string sPath = m_Folder / "disk";
    const std::string sMoved = m_Folder / "moved";
    const std::string sSource = m_Folder / "source";
    WriteWholeFile(sSource, "0123456789");
    const auto add = [&](long long iOffset) {
        return m_Utilities.AddRedirectedFileSegment(&m_Param, sMoved.c_str(), sSource.c_str(), 0, iOffset, 10,
                                                    m_vcReason);
    };
    WriteWholeFile(sPath, "");
    const auto pFile = Open(sPath, 100, true);
    ASSERT_EQ(::rename(sPath.c_str(), sMoved.c_str()), 0);
    m_Utilities.RenameRedirectedFile(&m_Param, sPath.c_str(), sMoved.c_str());
    EXPECT_TRUE(add(0));
    EXPECT_EQ(ReadWholeFile(sMoved).size(), 32U);
    // A client makes a file under the old path, and the info file goes away.
    const std::string sForeign(32, 'x');
    WriteWholeFile(sPath, sForeign);
    ASSERT_EQ(::unlink(sMoved.c_str()), 0);
    m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sMoved.c_str());
    EXPECT_TRUE(add(10)) << "kept in memory";
    EXPECT_EQ(ReadWholeFile(sPath), sForeign);
    char vcBuffer[20] = "";
    bool bEof = false;
    EXPECT_EQ(pFile->Read(&m_Param, 10, vcBuffer, 10, &bEof), 10);
    EXPECT_EQ(std::string(vcBuffer, 10), "0123456789");
    WriteWholeFile(sMoved, "");
    m_Utilities.ExportRedirectedFile(&m_Param, sMoved.c_str(), sPath.c_str());
    EXPECT_FALSE(m_Log.Has("[RedirectedFile.Export] Content to file error: " + sPath)) << "not its own file any more";
}

TEST_F(UtilitiesRedirectedTest, InfoFileThatWasRenamedAlongIsNeverOverwritten) {
    const std::string sPath = m_Folder / "disk";
    const std::string sMoved = m_Folder / "moved";
    m_Utilities.AddMountInfo(&m_Param, &m_Tag, m_Folder.Path().c_str(), "data", "", nullptr);
    WriteWholeFile(sPath, "");
    Open(sPath, 100, true);
    ASSERT_EQ(::rename(sPath.c_str(), sMoved.c_str()), 0);
    m_Utilities.RenameRedirectedFile(&m_Param, sPath.c_str(), sMoved.c_str());
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, sMoved.c_str(), nullptr, 0, 0, 10, m_vcReason));
    const std::string sRecords = ReadWholeFile(sMoved);
    EXPECT_EQ(sRecords.size(), 32U);
    m_Utilities.ExportRedirectedFile(&m_Param, sMoved.c_str(), sMoved.c_str());
    EXPECT_TRUE(m_Log.Has("[RedirectedFile.Export] Content to file error: " + sMoved));
    EXPECT_EQ(ReadWholeFile(sMoved), sRecords);
}

TEST_F(UtilitiesRedirectedTest, FileInUseOutlivesItsClose) {
    auto pFile = Open("/e/a");
    const std::weak_ptr<CRedirectedFile> pWatch = pFile;
    m_Utilities.CloseRedirectedFile(&m_Param, "/e/a");
    EXPECT_FALSE(pWatch.expired());
    pFile.reset();
    EXPECT_TRUE(pWatch.expired());
}

TEST_F(UtilitiesRedirectedTest, OpeningOnePathFromManyThreadsLeavesOneOpenFile) {
    std::vector<std::shared_ptr<CRedirectedFile>> vFiles(64);
    std::vector<std::thread> vThreads;
    for (std::size_t iThread = 0; iThread < 4; ++iThread) {
        vThreads.emplace_back([this, &vFiles, iThread] {
            CRuntimeParam param("host", 0);
            for (std::size_t i = iThread; i < vFiles.size(); i += 4) {
                vFiles[i] = m_Utilities.OpenRedirectedFile(&param, "/e/a", 1, false, 0, 0);
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    int nOpen = 0;
    for (const auto& pFile : vFiles) {
        nOpen += pFile->IsClosed() ? 0 : 1;
    }
    EXPECT_EQ(nOpen, 1) << "the replaced ones are all closed";
}

// ---- File operations on a redirected path

TEST_F(UtilitiesRedirectedTest, SizeAndReadComeFromTheMap) {
    const std::string sPath = m_Folder / "disk";
    WriteWholeFile(m_Folder / "source", "0123456789");
    WriteWholeFile(sPath, "on disk");
    Open(sPath, 5);
    m_Utilities.AddRedirectedFileSegment(&m_Param, sPath.c_str(), (m_Folder / "source").c_str(), 3, 0, 5, nullptr);
    EXPECT_EQ(m_Utilities.GetFileSize(&m_Param, &m_Tag, sPath.c_str(), 77), 5U);
    char vcBuffer[20] = "";
    bool bEof = false;
    EXPECT_EQ(m_Utilities.ReadFile(&m_Param, &m_Tag, sPath.c_str(), 1, SEEK_SET, vcBuffer, 10, &bEof), 4);
    EXPECT_EQ(std::string(vcBuffer, 4), "4567");
    EXPECT_TRUE(bEof);
}

TEST_F(UtilitiesRedirectedTest, WriteChangesNothingAndReturnsTheHostsAnswer) {
    const std::string sPath = m_Folder / "disk";
    WriteWholeFile(sPath, "on disk");
    Open(sPath, 5);
    EXPECT_EQ(m_Utilities.WriteFile(&m_Param, &m_Tag, sPath.c_str(), 0, SEEK_SET, "data", 4), -1) << "no host";
    m_Log.SetHost([](const Notification&) { return 3; });
    EXPECT_EQ(m_Utilities.WriteFile(&m_Param, &m_Tag, sPath.c_str(), 1ULL << 40, SEEK_SET, "data", 4), 3);
    const auto vAsked = m_Log.Notifications();
    ASSERT_EQ(vAsked.size(), 2U);
    EXPECT_EQ(vAsked[1].sOperation, "write");
    EXPECT_EQ(vAsked[1].sID, "host");
    EXPECT_EQ(vAsked[1].sPath, sPath);
    EXPECT_EQ(vAsked[1].iSeek, 1ULL << 40);
    EXPECT_EQ(vAsked[1].iSeekType, SEEK_SET);
    EXPECT_EQ(vAsked[1].iLen, 4U);
    EXPECT_EQ(ReadWholeFile(sPath), "on disk");
}

TEST_F(UtilitiesRedirectedTest, HostMayUseTheRegistryWhileItIsAsked) {
    Open("/e/disk", 5);
    m_Log.SetHost([this](const Notification&) {
        EXPECT_TRUE(IsOpen("/e/disk"));
        m_Utilities.CloseRedirectedFile(&m_Param, "/e/disk");
        return 4;
    });
    EXPECT_EQ(m_Utilities.WriteFile(&m_Param, &m_Tag, "/e/disk", 0, SEEK_SET, "data", 4), 4);
    EXPECT_FALSE(IsOpen("/e/disk"));
}

TEST_F(UtilitiesRedirectedTest, AttributesAreTheHostsToGrant) {
    const std::string sPath = m_Folder / "disk";
    WriteWholeFile(sPath, "on disk");
    Open(sPath, 5);
    const auto update = [&](bool bMode, bool bSize, bool bAtime, bool bMtime) {
        return m_Utilities.UpdateFileAttributes(&m_Param, &m_Tag, sPath.c_str(), bMode, 0600, false, 0, false, 0, bSize,
                                                1234, bAtime, 11, 22, bMtime, 33, 44);
    };
    EXPECT_FALSE(update(false, true, false, false)) << "no host";
    m_Log.SetHost([](const Notification&) { return 0; });
    m_Log.Clear();
    EXPECT_TRUE(update(true, true, true, true));
    const auto vAsked = m_Log.Notifications();
    ASSERT_FALSE(vAsked.empty());
    EXPECT_EQ(vAsked.back().sOperation, "update");
    EXPECT_TRUE(vAsked.back().bSize);
    EXPECT_EQ(vAsked.back().iSize, 1234U);
    EXPECT_TRUE(vAsked.back().bAccessTime);
    EXPECT_EQ(vAsked.back().lAccessTimeSec, 11U);
    EXPECT_TRUE(vAsked.back().bLastModifiedTime);
    EXPECT_EQ(vAsked.back().lLastModifiedTimeSec, 33U);
    struct stat status {};
    ASSERT_EQ(::stat(sPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 7) << "nothing changes on disk";
    EXPECT_NE(status.st_mode & 0777U, 0600U);
    m_Log.SetHost([](const Notification&) { return 5; });
    EXPECT_FALSE(update(false, true, false, false)) << "any answer but 0 refuses";
    const std::size_t nAsked = m_Log.Notifications().size();
    EXPECT_TRUE(update(false, false, false, false)) << "nothing to set";
    EXPECT_EQ(m_Log.Notifications().size(), nAsked) << "and nobody is asked";
}

TEST_F(UtilitiesRedirectedTest, RemoveTakesTheFileAwayThenAsksTheHost) {
    const std::string sPath = m_Folder / "disk";
    for (const int iAnswer : {-1, 0, 1}) {
        WriteWholeFile(sPath, "on disk");
        Open(sPath, 5);
        m_Log.SetHost([this, &sPath, iAnswer](const Notification& asked) {
            EXPECT_EQ(asked.sOperation, "remove");
            EXPECT_EQ(asked.sPath, sPath);
            EXPECT_FALSE(IsOpen(sPath)) << "closed before the host hears of it";
            return iAnswer;
        });
        EXPECT_EQ(m_Utilities.RemoveFile(&m_Param, &m_Tag, sPath.c_str()), iAnswer == 0);
        EXPECT_NE(::access(sPath.c_str(), F_OK), 0);
        EXPECT_FALSE(IsOpen(sPath));
    }
}

TEST_F(UtilitiesRedirectedTest, RenameMovesFileAndRegistryEntryThenAsksTheHost) {
    for (const int iAnswer : {0, -1, 7}) {
        const std::string sFrom = m_Folder / "from";
        const std::string sTo = m_Folder / ("to" + std::to_string(iAnswer));
        WriteWholeFile(sFrom, "on disk");
        m_Utilities.GetFileID(&m_Param, &m_Tag, sFrom.c_str());
        const auto pFile = Open(sFrom, 5);
        m_Log.SetHost([&, iAnswer](const Notification& asked) {
            EXPECT_EQ(asked.sOperation, "rename");
            EXPECT_EQ(asked.sPath, sFrom);
            EXPECT_EQ(asked.sPathTo, sTo);
            EXPECT_TRUE(IsOpen(sTo)) << "moved before the host hears of it";
            return iAnswer;
        });
        EXPECT_EQ(m_Utilities.RenameFile(&m_Param, &m_Tag, sFrom.c_str(), sTo.c_str()), iAnswer == 0);
        const std::string& sNow = iAnswer == 0 ? sTo : sFrom;
        EXPECT_EQ(m_Utilities.GetRedirectedFile(sNow.c_str()), pFile);
        EXPECT_EQ(ReadWholeFile(sNow), "on disk");
    }
}

TEST_F(UtilitiesRedirectedTest, RenameOfAFileThatIsOnlyInTheRegistry) {
    m_Utilities.GetFileID(&m_Param, &m_Tag, "/e/virtual");
    const auto pFile = Open("/e/virtual", 5);
    m_Log.SetHost([](const Notification&) { return 0; });
    EXPECT_TRUE(m_Utilities.RenameFile(&m_Param, &m_Tag, "/e/virtual", "/e/moved"));
    EXPECT_EQ(m_Utilities.GetRedirectedFile("/e/moved"), pFile);
}

}  // namespace
