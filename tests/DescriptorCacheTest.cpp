// The cache of open descriptors.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftLimit.h"
#include "UtilitiesFixture.h"
#include "WaitUntil.h"

namespace {

bool IsOpenDescriptor(int iFile) {
    return ::fcntl(iFile, F_GETFD) != -1;
}

class DescriptorCacheTest : public UtilitiesFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override { m_Param.SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogFileAccess); }

    CCachedFile Get(const std::string& sPath, bool bReadWrite = false) {
        return m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sPath.c_str(), bReadWrite);
    }
    void Close(const std::string& sPath) { m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, sPath.c_str()); }
    /// Files f0, f1, ... with their numbers as content.
    std::vector<std::string> MakeFiles(int nFiles) {
        std::vector<std::string> vPaths;
        for (int iFile = 0; iFile < nFiles; ++iFile) {
            vPaths.push_back(MakeFile("f" + std::to_string(iFile), std::to_string(iFile)));
        }
        return vPaths;
    }
};

TEST_F(DescriptorCacheTest, PathKeepsItsDescriptor) {
    const std::string sFile = MakeFile("f", "x");
    const CCachedFile first = Get(sFile);
    ASSERT_TRUE(first.IsOpen());
    EXPECT_EQ(TakeLog(), (Lines{"[Test] open read only mode " + sFile, "[Test] OS open file \"" + sFile + "\""}));
    EXPECT_EQ(Get(sFile).Get(), first.Get());
    EXPECT_EQ(TakeLog(), Lines());
    EXPECT_NE(Get(m_Folder.Path() + "/./f").Get(), first.Get()) << "keys are the paths as given";
    EXPECT_EQ(::fcntl(first.Get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(DescriptorCacheTest, FilesInExportsAreOpenedReadWriteOthersReadOnly) {
    const std::string sFile = MakeFile("f", "x");
    EXPECT_EQ(::fcntl(Get(sFile).Get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    Close(sFile);
    EXPECT_EQ(::fcntl(Get(sFile, true).Get(), F_GETFL) & O_ACCMODE, O_RDWR) << "wanted so";
    Close(sFile);
    ExportFolder();
    m_Log.Clear();
    EXPECT_EQ(::fcntl(Get(sFile).Get(), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(TakeLog()[0], "[Test] open read/write mode " + sFile);
}

TEST_F(DescriptorCacheTest, DescriptorThatIsCachedServesWhateverModeIsWanted) {
    const std::string sFile = MakeFile("f", "x");
    const int iFile = Get(sFile).Get();
    m_Log.Clear();
    EXPECT_EQ(Get(sFile, true).Get(), iFile);
    EXPECT_EQ(::fcntl(iFile, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(DescriptorCacheTest, NoPathHasNoDescriptor) {
    EXPECT_FALSE(Get("").IsOpen());
    EXPECT_FALSE(m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, nullptr, false).IsOpen());
    Close("");
    m_Utilities.CloseCachedFileHandle(&m_Param, &m_Tag, nullptr);
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, nullptr);
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, "");
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(DescriptorCacheTest, FailedOpenIsTriedAgainAtEveryRequest) {
    const std::string sFile = m_Folder / "f";
    for (int iTry = 0; iTry < 2; ++iTry) {
        EXPECT_EQ(Get(sFile).Get(), -1);
        EXPECT_EQ(TakeLog(), (Lines{"[Test] open read only mode " + sFile,
                                    "[Test] OS open file \"" + sFile + "\". Error=No such file or directory (2)"}));
    }
    MakeFile("f", "x");
    EXPECT_NE(Get(sFile).Get(), -1);
}

TEST_F(DescriptorCacheTest, ClosingAPathThatFailedToOpenReportsABadDescriptor) {
    const std::string sFile = m_Folder / "f";
    EXPECT_EQ(Get(sFile).Get(), -1);
    m_Log.Clear();
    Close(sFile);
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sFile + "\". Error=Bad file descriptor"});
    Close(sFile);
    EXPECT_EQ(TakeLog(), Lines()) << "nothing is cached any more";
}

TEST_F(DescriptorCacheTest, ClosingLogsAndClosesOnce) {
    const std::string sFile = MakeFile("f", "x");
    const int iFile = Get(sFile).Get();
    m_Log.Clear();
    Close(sFile);
    EXPECT_FALSE(IsOpenDescriptor(iFile));
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sFile + "\""});
}

TEST_F(DescriptorCacheTest, DescriptorInUseOutlivesItsClosing) {
    const std::string sFile = MakeFile("f", "before");
    CCachedFile user = Get(sFile);
    m_Log.Clear();
    Close(sFile);
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS close file \"" + sFile + "\""}) << "logged when the cache lets go";
    ASSERT_EQ(::unlink(sFile.c_str()), 0);
    MakeFile("f", "after");
    char vcBuffer[16] = "";
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, user, 0, vcBuffer, 15, nullptr), 6);
    EXPECT_STREQ(vcBuffer, "before");
    const int iFile = user.Get();
    EXPECT_NE(Get(sFile).Get(), iFile);
    m_Log.Clear();
    user = CCachedFile();
    EXPECT_FALSE(IsOpenDescriptor(iFile));
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(DescriptorCacheTest, OpeningOneMoreThanFitClosesATenthFirst) {
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(1300)) << "the hard limit of open files is below 1300";
    const std::vector<std::string> vFiles = MakeFiles(1025);
    for (int iFile = 0; iFile < 1024; ++iFile) {
        ASSERT_TRUE(Get(vFiles[static_cast<std::size_t>(iFile)]).IsOpen()) << iFile;
        if (iFile == 101) {
            WaitForTheNextSecond();  // the first 102 are the least recently used
        }
    }
    m_Log.Clear();
    ASSERT_TRUE(Get(vFiles[1024]).IsOpen());
    Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 105U);
    EXPECT_EQ(vLines[0], "[Test] Close exceeded cached file handle: 102");
    EXPECT_EQ(vLines[103], "[Test] open read only mode " + vFiles[1024]);
    EXPECT_EQ(vLines[104], "[Test] OS open file \"" + vFiles[1024] + "\"");
    for (int iFile = 0; iFile < 102; ++iFile) {
        const std::string sLine = "[Test] OS close file \"" + vFiles[static_cast<std::size_t>(iFile)] + "\"";
        EXPECT_THAT(vLines, testing::Contains(sLine));
    }
    EXPECT_TRUE(Get(vFiles[200]).IsOpen());
    EXPECT_EQ(TakeLog(), Lines()) << "still cached";
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog().size(), 923U);
}

TEST_F(DescriptorCacheTest, UseMakesAnEntryYounger) {
    const std::vector<std::string> vFiles = MakeFiles(10);
    for (const std::string& sFile : vFiles) {
        Get(sFile);
    }
    WaitForTheNextSecond();
    for (const std::string& sFile : vFiles) {
        if (sFile != vFiles[5]) {
            Get(sFile);
        }
    }
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Close exceeded cached file handle: 1", "[Test] OS close file \"" + vFiles[5] + "\""}));
}

TEST_F(DescriptorCacheTest, ClosedEntryLeavesNoAgeBehind) {
    const std::vector<std::string> vFiles = MakeFiles(10);
    Get(vFiles[5]);
    Close(vFiles[5]);
    WaitForTheNextSecond();
    for (const std::string& sFile : vFiles) {
        if (sFile != vFiles[5]) {
            Get(sFile);
        }
    }
    WaitForTheNextSecond();
    Get(vFiles[5]);
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog().size(), 2U);
    Get(vFiles[5]);
    EXPECT_EQ(TakeLog(), Lines()) << "it was evicted though it was used last";
}

TEST_F(DescriptorCacheTest, EntryOfAFailedOpenIsEvictedInItsTurn) {
    const std::string sMissing = m_Folder / "missing";
    const std::vector<std::string> vFiles = MakeFiles(9);
    Get(vFiles[0]);
    WaitForTheNextSecond();
    Get(sMissing);
    WaitForTheNextSecond();
    for (const std::string& sFile : vFiles) {
        Get(sFile);
    }
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Close exceeded cached file handle: 1",
                                "[Test] OS close file \"" + sMissing + "\". Error=Bad file descriptor"}));
    EXPECT_FALSE(Get(sMissing).IsOpen());
    EXPECT_EQ(TakeLog().size(), 2U) << "the next request tries again";
}

TEST_F(DescriptorCacheTest, WithinASecondTheTextOfTheDescriptorOrders) {
    const std::vector<std::string> vFiles = MakeFiles(30);
    std::vector<std::pair<std::string, std::string>> vOrder;  // the number as text, and the path
    std::time_t iBegin = 0;
    do {
        m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag);
        vOrder.clear();
        iBegin = std::time(nullptr);
        for (const std::string& sFile : vFiles) {
            vOrder.emplace_back(std::to_string(Get(sFile).Get()), sFile);
        }
    } while (std::time(nullptr) != iBegin);
    std::ranges::sort(vOrder);
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Close exceeded cached file handle: 3", "[Test] OS close file \"" + vOrder[0].second + "\"",
                     "[Test] OS close file \"" + vOrder[1].second + "\"",
                     "[Test] OS close file \"" + vOrder[2].second + "\""}));
}

// Once it is open, the entry of a failed open is ordered by its descriptor like every other one.
TEST_F(DescriptorCacheTest, EntryOfAFailedOpenGetsANewKeyWhenItOpens) {
    const std::string sLate = m_Folder / "late";
    const std::vector<std::string> vFiles = MakeFiles(9);
    std::vector<std::pair<std::string, std::string>> vOrder;  // the number as text, and the path
    std::time_t iBegin = 0;
    do {
        m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag);
        ::unlink(sLate.c_str());
        vOrder.clear();
        iBegin = std::time(nullptr);
        EXPECT_FALSE(Get(sLate).IsOpen());
        for (const std::string& sFile : vFiles) {
            vOrder.emplace_back(std::to_string(Get(sFile).Get()), sFile);
        }
        MakeFile("late", "");
        vOrder.emplace_back(std::to_string(Get(sLate).Get()), sLate);
    } while (std::time(nullptr) != iBegin);
    std::ranges::sort(vOrder);
    if (vOrder.front().second == sLate) {
        GTEST_SKIP() << "its descriptor is the first one in any case";
    }
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog(), (Lines{"[Test] Close exceeded cached file handle: 1",
                                "[Test] OS close file \"" + vOrder[0].second + "\""}));
}

// Failed opens leave entries that only one key of each second leads to; they must not crowd out open files for good.
TEST_F(DescriptorCacheTest, FailedOpensDoNotFillTheCacheUp) {
    const std::string sFile = MakeFile("f", "x");
    m_Param.SetLogControl(0);
    for (int iMissing = 0; iMissing < 1100; ++iMissing) {
        EXPECT_FALSE(Get(m_Folder / ("none" + std::to_string(iMissing))).IsOpen());
    }
    const CCachedFile first = Get(sFile);
    ASSERT_TRUE(first.IsOpen());
    EXPECT_FALSE(Get(m_Folder / "none").IsOpen());
    EXPECT_EQ(Get(sFile).Get(), first.Get()) << "another open evicted it";
}

TEST_F(DescriptorCacheTest, EvictionAndTheSearchForTheExportComeBeforeTheOpen) {
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(1300)) << "the hard limit of open files is below 1300";
    ExportFolder();
    const std::vector<std::string> vFiles = MakeFiles(1025);
    for (std::size_t iFile = 0; iFile < 1024; ++iFile) {
        ASSERT_TRUE(Get(vFiles[iFile]).IsOpen()) << iFile;
    }
    m_Param.SetLogControl(kLogEverything);
    m_Log.Clear();
    ASSERT_TRUE(Get(vFiles[1024]).IsOpen());
    const Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 108U);
    EXPECT_EQ(vLines[0], "[Test] Close exceeded cached file handle: 102");
    EXPECT_EQ(
        Lines(vLines.begin() + 103, vLines.end()),
        (Lines{"[Test] Path scan: \"" + vFiles[1024] + "/\" vs \"" + m_Folder.Path() + "\"",
               "[Test] Path compare: \"" + vFiles[1024] + "/\" vs \"" + m_Folder.Path() + "/\"", "[Test] Path match",
               "[Test] open read/write mode " + vFiles[1024], "[Test] OS open file \"" + vFiles[1024] + "\""}));
}

TEST_F(DescriptorCacheTest, SmallCacheIsFreedAsAWhole) {
    const std::vector<std::string> vFiles = MakeFiles(2);
    Get(vFiles[0]);
    Get(vFiles[1]);
    m_Log.Clear();
    m_Utilities.FreeCachedFileHandles(&m_Param, &m_Tag);
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Close exceeded cached file handle: ALL", "[Test] OS close file \"" + vFiles[0] + "\"",
                     "[Test] OS close file \"" + vFiles[1] + "\""}));
}

TEST_F(DescriptorCacheTest, RunningOutOfDescriptorsEvictsAndTriesAgain) {
    const std::vector<std::string> vFiles = MakeFiles(21);
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(GetLimitForFree(20)));
    for (int iFile = 0; iFile < 20; ++iFile) {
        ASSERT_TRUE(Get(vFiles[static_cast<std::size_t>(iFile)]).IsOpen()) << iFile << "\n" << m_Log.Dump();
    }
    m_Log.Clear();
    EXPECT_TRUE(Get(vFiles[20]).IsOpen());
    const Lines vLines = TakeLog();
    ASSERT_EQ(vLines.size(), 5U);
    EXPECT_EQ(vLines[1], "[Test] Close exceeded cached file handle: 2");
    EXPECT_EQ(vLines[4], "[Test] OS open file \"" + vFiles[20] + "\"");
}

TEST_F(DescriptorCacheTest, RunningOutOfDescriptorsWithNothingToEvictFails) {
    const std::string sFile = MakeFile("f", "x");
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(GetLimitForFree(0)));
    EXPECT_FALSE(Get(sFile).IsOpen());
    EXPECT_EQ(TakeLog(), (Lines{"[Test] open read only mode " + sFile, "[Test] Close exceeded cached file handle: ALL",
                                "[Test] OS open file \"" + sFile + "\". Error=Too many open files (24)"}));
}

TEST_F(DescriptorCacheTest, OpenOutsideTheCacheEvictsOnlyWhenAskedTo) {
    const std::vector<std::string> vFiles = MakeFiles(2);
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(GetLimitForFree(1)));
    ASSERT_TRUE(Get(vFiles[0]).IsOpen());
    EXPECT_EQ(m_Utilities.OS_FileOpen(&m_Param, &m_Tag, vFiles[1].c_str(), O_RDONLY, false, m_vcReason), -1);
    EXPECT_STREQ(m_vcReason, "Too many open files (24)");
    const int iFile = m_Utilities.OS_FileOpen(&m_Param, &m_Tag, vFiles[1].c_str(), O_RDONLY, true, m_vcReason);
    EXPECT_NE(iFile, -1);
    m_Utilities.OS_FileClose(&m_Param, &m_Tag, iFile, vFiles[1].c_str(), nullptr);
}

// A client that creates and writes one file after the other fills the cache and must still be able to create the next.
TEST_F(DescriptorCacheTest, FilesAreCreatedResizedAndAppendedToThoughTheCacheHoldsAllDescriptors) {
    const std::vector<std::string> vFiles = MakeFiles(2);
    const SoftLimit limit(RLIMIT_NOFILE);
    ASSERT_TRUE(limit.Set(GetLimitForFree(1)));
    ASSERT_TRUE(Get(vFiles[0]).IsOpen());
    const std::string sNew = m_Folder / "new";
    m_Log.Clear();
    EXPECT_TRUE(m_Utilities.NewFile(&m_Param, &m_Tag, sNew.c_str()));
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] Close exceeded cached file handle: ALL", "[Test] OS close file \"" + vFiles[0] + "\"",
                     "[Test] OS create file \"" + sNew + "\"", "[Test] OS close file \"" + sNew + "\""}));
    ASSERT_TRUE(Get(vFiles[1]).IsOpen());
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, sNew.c_str(), 7, m_vcReason)) << m_vcReason;
    ASSERT_TRUE(Get(vFiles[1]).IsOpen());
    const int iNew = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, sNew.c_str(), m_vcReason);
    EXPECT_NE(iNew, -1) << m_vcReason;
    m_Utilities.OS_FileClose(&m_Param, &m_Tag, iNew, sNew.c_str(), nullptr);
    EXPECT_EQ(ReadWholeFile(sNew), std::string(7, '\0'));
}

TEST_F(DescriptorCacheTest, ClosingBelowAPathEndsAtTheComponent) {
    ASSERT_EQ(::mkdir((m_Folder / "a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_Folder / "ab").c_str(), 0755), 0);
    const std::string sInside = MakeFile("a/x", "");
    const std::string sBeside = MakeFile("ab/x", "");
    const std::string sItself = m_Folder / "a";
    Get(sInside);
    Get(sBeside);
    Get(sItself);
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo | CRuntimeParam::kLogFileAccess);
    m_Log.Clear();
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, sItself.c_str());
    const std::string sCompare = "[CloseAllCachedFileHandles] Path compare: \"" + sItself + "/\" vs \"";
    EXPECT_EQ(TakeLog(), (Lines{
                             sCompare + sItself + "/\"",
                             "[Test] OS close file \"" + sItself + "\"",
                             sCompare + sInside + "/\"",  // each walk begins anew
                             "[Test] OS close file \"" + sInside + "\"",
                             sCompare + sBeside + "/\"",
                         }));
    Get(sBeside);
    EXPECT_EQ(TakeLog(), Lines()) << "still cached";
}

/// Counts the lines by how many of some files are open when they come.
class PortionCounter : public CaptureUtilities {
public:
    explicit PortionCounter(LogCapture* pCapture) : CaptureUtilities(pCapture) {}

    using CaptureUtilities::LogInfo;
    void LogInfo(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcMessage*/) override {
        ++m_mLinesByOpen[std::ranges::count_if(m_vFiles, IsOpenDescriptor)];
    }

    std::vector<int> m_vFiles;
    std::map<std::ptrdiff_t, int> m_mLinesByOpen;
};

// There is a walk for each file that is closed, each of which tells about all entries in front of it.
TEST_F(DescriptorCacheTest, LinesAboutClosingBelowAPathComeAWalkAtATime) {
    constexpr int kFiles = 40;
    m_Param.SetLogControl(0);
    PortionCounter utilities(&m_Log);
    ASSERT_EQ(::mkdir((m_Folder / "a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((m_Folder / "b").c_str(), 0755), 0);
    for (int i = 0; i < kFiles; ++i) {
        const std::string sBefore = MakeFile("a/" + std::to_string(i), "");
        const std::string sInside = MakeFile("b/" + std::to_string(i), "");
        ASSERT_TRUE(utilities.GetCachedFileHandle(&m_Param, &m_Tag, sBefore.c_str(), false).IsOpen());
        utilities.m_vFiles.push_back(utilities.GetCachedFileHandle(&m_Param, &m_Tag, sInside.c_str(), false).Get());
    }
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo | CRuntimeParam::kLogFileAccess);
    utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, (m_Folder / "b").c_str());
    EXPECT_TRUE(std::ranges::none_of(utilities.m_vFiles, IsOpenDescriptor));
    for (std::ptrdiff_t nOpen = 1; nOpen < kFiles; ++nOpen) {
        EXPECT_EQ(utilities.m_mLinesByOpen[nOpen], kFiles + 2) << "one walk and the line about closing";
    }
    EXPECT_EQ(utilities.m_mLinesByOpen[0], kFiles + 2 + kFiles) << "and the walk that found no more";
}

// Each time a line comes, somebody opens what was closed.
TEST_F(DescriptorCacheTest, ClosingBelowAPathEndsAlthoughOthersOpenAgain) {
    class Reopener : public CaptureUtilities {
    public:
        Reopener(LogCapture* pCapture, std::string sFile) : CaptureUtilities(pCapture), m_sFile(std::move(sFile)) {}

        using CaptureUtilities::LogInfo;
        void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
            CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
            CRuntimeParam silent("silent", 0);
            const LogArgu tag{"Reopener"};
            EXPECT_TRUE(GetCachedFileHandle(&silent, &tag, m_sFile.c_str(), false).IsOpen());
        }

    private:
        std::string m_sFile;
    };
    const std::string sFirst = MakeFile("0", "");
    const std::string sSecond = MakeFile("1", "");
    Reopener utilities(&m_Log, sFirst);
    m_Param.SetLogControl(0);
    const CCachedFile first = utilities.GetCachedFileHandle(&m_Param, &m_Tag, sFirst.c_str(), false);
    const int iSecond = utilities.GetCachedFileHandle(&m_Param, &m_Tag, sSecond.c_str(), false).Get();
    m_Param.SetLogControl(CRuntimeParam::kLogGeneralInfo);
    utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, m_Folder.Path().c_str());
    EXPECT_FALSE(IsOpenDescriptor(iSecond)) << "what was open before is closed";
    const CCachedFile again = utilities.GetCachedFileHandle(&m_Param, &m_Tag, sFirst.c_str(), false);
    EXPECT_NE(again.Get(), first.Get()) << "opened anew";
}

TEST_F(DescriptorCacheTest, ClosingBelowAPathNeedsNoLog) {
    const std::vector<std::string> vFiles = MakeFiles(5);
    std::vector<int> vOpened;
    for (const std::string& sFile : vFiles) {
        vOpened.push_back(Get(sFile).Get());
    }
    m_Param.SetLogControl(0);
    m_Utilities.CloseAllCachedFileHandles(&m_Param, &m_Tag, (m_Folder.Path() + "/").c_str());
    EXPECT_TRUE(std::ranges::none_of(vOpened, IsOpenDescriptor));
}

/// Readers, and others that close and rename what they read.
class DescriptorCacheRaceTest : public DescriptorCacheTest {
protected:
    static constexpr int kFiles = 24;
    static constexpr int kRounds = 400;

    void SetUp() override {
        m_Param.SetLogControl(0);
        m_vFiles = MakeFiles(kFiles);
        m_sHere = MakeFile("here", "moving");
        m_sThere = m_Folder / "there";
    }

    std::string Read(const std::string& sPath, CRuntimeParam& param) {
        const LogArgu tag{"Reader"};
        char vcBuffer[16] = "";
        bool bEof = false;
        const int iRead =
            m_Utilities.ReadFile(&param, &tag, sPath.c_str(), 0, SEEK_SET, vcBuffer, sizeof(vcBuffer), &bEof);
        return iRead < 0 ? "none" : std::string(vcBuffer, static_cast<std::size_t>(iRead));
    }
    void ReadAll() {
        CRuntimeParam param("reader", 0);
        for (int iRound = 0; iRound < kRounds; ++iRound) {
            const auto iFile = static_cast<std::size_t>(iRound % kFiles);
            EXPECT_EQ(Read(m_vFiles[iFile], param), std::to_string(iFile));
            for (const std::string& sMoving : {m_sHere, m_sThere}) {
                EXPECT_THAT(Read(sMoving, param), testing::AnyOf("moving", "none"));
            }
        }
    }
    void CloseUntilTheEnd() {
        CRuntimeParam param("closer", 0);
        const LogArgu tag{"Closer"};
        for (std::size_t iRound = 0; !m_bEnd; ++iRound) {
            m_Utilities.CloseCachedFileHandle(&param, &tag, m_vFiles[iRound % kFiles].c_str());
            m_Utilities.FreeCachedFileHandles(&param, &tag);
            if (iRound % 16 == 0) {
                m_Utilities.CloseAllCachedFileHandles(&param, &tag, m_Folder.Path().c_str());
            }
        }
    }
    void RenameUntilTheEnd() {
        CRuntimeParam param("renamer", 0);
        const LogArgu tag{"Renamer"};
        for (std::size_t iRound = 0; !m_bEnd; ++iRound) {
            const bool bThere = iRound % 2 == 0;
            m_Utilities.RenameFile(&param, &tag, (bThere ? m_sHere : m_sThere).c_str(),
                                   (bThere ? m_sThere : m_sHere).c_str());
        }
    }

    std::vector<std::string> m_vFiles;
    std::string m_sHere, m_sThere;  ///< one file that goes to and fro
    std::atomic<bool> m_bEnd{false};
};

// Readers must get the content of the path they named, or nothing, whatever happens to descriptors meanwhile.
TEST_F(DescriptorCacheRaceTest, ReadersNeverComeToAWrongFile) {
    std::thread closer([this] { CloseUntilTheEnd(); });
    std::thread renamer([this] { RenameUntilTheEnd(); });
    std::thread reader([this] { ReadAll(); });
    ReadAll();
    reader.join();
    m_bEnd = true;
    closer.join();
    renamer.join();
}

}  // namespace
