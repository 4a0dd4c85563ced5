// CRedirectedFile: lookups and reads, of a map in memory and through an info file.
#include "RedirectedFile.h"

#include <climits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RedirectedFileFixture.h"

namespace {

class RedirectedFileReadTest : public RedirectedFileFixture {};

// ---- Reading

TEST_F(RedirectedFileReadTest, FileWithoutSegmentsReadsAsZerosUntilAReadReachedTheEnd) {
    OpenInMemory(100);
    auto read = Read(20, 30);
    EXPECT_EQ(read.sData, Zeros(30));
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 50);
    read = Read(20, 200);
    EXPECT_EQ(read.sData, Zeros(80));
    EXPECT_TRUE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 100);
    read = Read(20, 30);
    EXPECT_EQ(read.iResult, 0) << "the position was at the end";
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 20);
    EXPECT_EQ(Read(20, 30).iResult, 30);
}

TEST_F(RedirectedFileReadTest, ReadRunsFromOneSegmentIntoTheNext) {
    OpenInMemory(200);
    Add(A(), 10, 0, 100);
    Add(B(), 500, 100, 100);
    const auto read = Read(90, 30);
    EXPECT_EQ(read.sData, SourceBytes('A', 100, 10) + SourceBytes('B', 500, 20));
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 120);
}

TEST_F(RedirectedFileReadTest, EndOfFileIsToldWhenAReadEndsExactlyThere) {
    OpenInMemory(200);
    Add(A(), 0, 0, 200);
    EXPECT_FALSE(Read(0, 199).bEof);
    EXPECT_TRUE(Read(100, 100).bEof);
    EXPECT_TRUE(Read(100, 150).bEof);
}

TEST_F(RedirectedFileReadTest, ReadAtTheSizeFailsUnlessTheEndWasReached) {
    OpenInMemory(100);
    Add(A(), 0, 0, 100);
    auto read = Read(100, 10);
    EXPECT_EQ(read.iResult, -1);
    EXPECT_FALSE(read.bEof);
    Read(90, 10);
    read = Read(100, 10);
    EXPECT_EQ(read.iResult, 0);
    EXPECT_TRUE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 100) << "a failed read does not move it";
}

TEST_F(RedirectedFileReadTest, HoleMetInsideAReadIsSkippedAndLeavesNoTrace) {
    OpenInMemory(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 300, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + SourceBytes('B', 0, 40));
    EXPECT_EQ(m_File.GetPos(), 140) << "counts the bytes delivered, not those passed over";
    EXPECT_EQ(LinesWith("Fill missing"), "[RedirectedFile.Read] Fill missing segment len:200\n");
}

TEST_F(RedirectedFileReadTest, HoleOfTerabytesIsFilledOnlyWithinTheBuffer) {
    OpenInMemory(LLONG_MAX);
    Add(A(), 0, 0, 100);
    Add(B(), 0, LLONG_MAX - 50, 50);
    const auto read = Read(90, 60);
    // 10 from A, 50 from B, and not one byte of the hole.
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + SourceBytes('B', 0, 50));
}

TEST_F(RedirectedFileReadTest, ReadThatBeginsInAHoleGivesZerosAndPullsNothingForward) {
    OpenInMemory(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 300, 100);
    EXPECT_EQ(Read(200, 50).sData, Zeros(50));
    EXPECT_EQ(Read(290, 50).sData, Zeros(50)) << "also where a segment begins within the range";
}

TEST_F(RedirectedFileReadTest, GapAtTheTailGivesZerosForTheWholeLengthAskedFor) {
    OpenInMemory(1000);
    Add(A(), 0, 0, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.iResult, 60) << "10 bytes and then zeros for 50, not for the 40 that remain";
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + Zeros(50));
    EXPECT_EQ(m_File.GetPos(), 150);
}

TEST_F(RedirectedFileReadTest, GapAtTheTailEndsWithTheFile) {
    OpenInMemory(120);
    Add(A(), 0, 0, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + Zeros(20));
    EXPECT_TRUE(read.bEof);
}

TEST_F(RedirectedFileReadTest, GapAtTheTailIsNotFilledOnceTheEndWasReached) {
    OpenInMemory(120);
    Add(A(), 0, 0, 100);
    Read(110, 10);
    EXPECT_EQ(Read(90, 50).sData, SourceBytes('A', 90, 10));
}

TEST_F(RedirectedFileReadTest, ReadOfNoBytesDeliversNoneAndSetsThePosition) {
    OpenInMemory(100);
    Add(A(), 0, 0, 100);
    const auto read = Read(40, 0);
    EXPECT_EQ(read.iResult, 0);
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 40);
}

TEST_F(RedirectedFileReadTest, SegmentWithoutSourceReadsAsZeros) {
    OpenInMemory(100);
    Add("", 12345, 0, 50);
    Add(B(), 0, 50, 50);
    EXPECT_EQ(Read(40, 20).sData, Zeros(10) + SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileReadTest, SourceThatCannotBeOpenedReadsAsZeros) {
    OpenInMemory(100);
    Add(m_Folder / "missing", 0, 0, 50);
    Add(B(), 0, 50, 50);
    EXPECT_EQ(Read(40, 20).sData, Zeros(10) + SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileReadTest, SourceThatEndsEarlyEndsTheRead) {
    OpenInMemory(2000);
    Add(A(), 900, 0, 500);
    Add(B(), 0, 500, 500);
    auto read = Read(50, 700);
    EXPECT_EQ(read.sData, SourceBytes('A', 950, 50));
    EXPECT_FALSE(read.bEof);
    read = Read(100, 100);
    EXPECT_EQ(read.iResult, 0) << "no progress, and no endless loop";
}

TEST_F(RedirectedFileReadTest, SourceThatShrankEndsTheReadWhereItEndsNow) {
    OpenInMemory(1000);
    Add(A(), 0, 0, 1000);
    EXPECT_EQ(Read(0, 1000).iResult, 1000);
    ASSERT_EQ(::truncate(A().c_str(), 300), 0);
    EXPECT_EQ(Read(0, 1000).sData, SourceBytes('A', 0, 300));
}

TEST_F(RedirectedFileReadTest, SourceThatCannotBeReadEndsTheRead) {
    OpenInMemory(200);
    Add(A(), 0, 0, 100);
    Add(m_Folder.Path(), 0, 100, 100);  // a directory opens, but does not read
    EXPECT_EQ(Read(50, 100).sData, SourceBytes('A', 50, 50));
    EXPECT_NE(LinesWith("OS read file").find("Error=Is a directory (21)"), std::string::npos) << m_Log.Dump();
}

TEST_F(RedirectedFileReadTest, NegativePlaceInASourceFailsTheSeekAndEndsTheRead) {
    OpenInMemory(200);
    Add(A(), 0, 0, 100);
    Add(B(), -50, 100, 100);
    EXPECT_EQ(Read(50, 100).sData, SourceBytes('A', 50, 50));
}

TEST_F(RedirectedFileReadTest, NegativePlaceOfASegmentWithoutSourceDoesNotMatter) {
    OpenInMemory(200);
    Add("", -50, 0, 100);
    EXPECT_EQ(Read(0, 100).sData, Zeros(100));
}

TEST_F(RedirectedFileReadTest, ReadLogsSegmentsAndEndOfFile) {
    OpenInMemory(150);
    Add(A(), 10, 0, 100);
    Add("", 7, 100, 50);
    m_Log.Clear();
    Read(90, 60);
    EXPECT_EQ(LinesWith("[RedirectedFile.Read] Segment") + LinesWith("Eof"),
              "[RedirectedFile.Read] Segment (5) path:" + A() +
                  ", fox:90, len:10 (seek:100)\n"
                  "[RedirectedFile.Read] Segment (5) path:Null, fox:90, len:50 (seek:7)\n"
                  "[RedirectedFile.Read] Eof=true, ox=150, size=150\n");
}

TEST_F(RedirectedFileReadTest, ReadAtATebibyteOfASparseSource) {
    const long long iFar = kMiB * kMiB + 12345;
    const int iFile = ::open(A().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::pwrite(iFile, "far away", 8, iFar), 8);
    ::close(iFile);
    OpenInMemory(2 * iFar);
    Add(A(), 0, 0, 2 * iFar);
    EXPECT_EQ(Read(static_cast<unsigned long long>(iFar), 8).sData, "far away");
}

TEST_F(RedirectedFileReadTest, FirstSegmentAddedWinsWhereSegmentsOverlap) {
    OpenInMemory(300);
    Add(A(), 0, 100, 100);
    Add(B(), 0, 50, 200);
    EXPECT_EQ(Read(120, 10).sData, SourceBytes('A', 20, 10));
    EXPECT_EQ(Read(60, 10).sData, SourceBytes('B', 10, 10));
    // The walk goes on in the order of adding: from A's end into the middle of B.
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 150, 10));
}

TEST_F(RedirectedFileReadTest, SegmentsInTheWalkThatLieBeforeThePositionArePassedOver) {
    OpenInMemory(300);
    Add(A(), 0, 100, 100);
    Add(B(), 0, 0, 100);
    Add(B(), 700, 200, 100);
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 700, 10));
}

TEST_F(RedirectedFileReadTest, EmptySegmentsCoverNothingAndArePassedOver) {
    OpenInMemory(300);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 0);
    Add(B(), 500, 100, 100);
    EXPECT_EQ(Read(90, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 500, 10));
    EXPECT_EQ(Read(100, 10).sData, SourceBytes('B', 500, 10));
}

// ---- Reading through an info file

TEST_F(RedirectedFileReadTest, InfoFileReadsAsTheMapInMemoryDoes) {
    OpenWithInfoFile(400);
    Add(A(), 10, 0, 100);
    Add(B(), 500, 100, 100);
    Add("", 0, 300, 50);
    EXPECT_EQ(Read(90, 30).sData, SourceBytes('A', 100, 10) + SourceBytes('B', 500, 20));
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('B', 590, 10) + Zeros(10));
    EXPECT_EQ(Read(340, 20).iResult, 10 + 20) << "zeros for the whole length behind the last segment";
    EXPECT_EQ(Read(250, 10).sData, Zeros(10));
}

TEST_F(RedirectedFileReadTest, LookupLogsOneSeekAndOneReadForEachRecord) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    Add(A(), 0, 100, 100);
    Add(A(), 0, 200, 100);
    ProcSegment cursor;
    m_Log.Clear();
    m_File.GetSegment(&m_Param, 250, &cursor);
    ASSERT_GE(cursor.index, 0);
    EXPECT_EQ(cursor.segment.iOffset, 200);
    const auto vTexts = m_Log.Texts();
    ASSERT_EQ(vTexts.size(), 4U) << m_Log.Dump();
    EXPECT_TRUE(vTexts[0].starts_with("[RedirectedFile.GetSegment] OS seek file ("));
    for (std::size_t i = 1; i < 4; ++i) {
        EXPECT_TRUE(vTexts[i].starts_with("[RedirectedFile.GetSegment] OS read file ("));
    }
    m_Log.Clear();
    m_File.GetNextSegment(&m_Param, &cursor);
    EXPECT_EQ(cursor.index, -1);
    ASSERT_EQ(m_Log.Texts().size(), 1U) << m_Log.Dump();
    EXPECT_TRUE(m_Log.Texts()[0].starts_with("[RedirectedFile.GetNextSegment] OS read file ("));
}

TEST_F(RedirectedFileReadTest, AppendingLogsOneSeekAndOneWriteForEachRecord) {
    OpenWithInfoFile(100 * kMiB, 1, 2);
    m_Log.Clear();
    Add(A(), 0, kMiB, 2 * kMiB);
    std::string sSteps;
    for (const std::string& sText : m_Log.Texts()) {
        for (const char* pcStep : {"OS seek file", "OS tell file", "OS write file"}) {
            if (sText.find(pcStep) != std::string::npos) {
                sSteps += sText.substr(0, sText.find(" (")) + "\n";
            }
        }
    }
    EXPECT_EQ(sSteps,
              "[RedirectedFile.AddSegment] OS seek file\n"
              "[RedirectedFile.AddSegment] OS write file\n"
              "[RedirectedFile.CreateCheckPointSegment] OS tell file\n"
              "[RedirectedFile.AddSegment] OS write file\n");
}

// The guess from the file's start falls late for a map with a gap; the one from a check point does not.
TEST_F(RedirectedFileReadTest, CheckPointServesFromItsOwnOffsetOn) {
    OpenWithInfoFile(8 * kMiB, 1, 2);
    Add(A(), 0, 2 * kMiB, 100);
    Add(B(), 0, 3 * kMiB, 100);
    EXPECT_EQ(Read(2 * kMiB - 10, 10).sData, Zeros(10)) << "the guess is the second record";
    EXPECT_EQ(Read(2 * kMiB, 10).sData, SourceBytes('A', 0, 10));
    EXPECT_EQ(Read(2 * kMiB + 10, 10).sData, SourceBytes('A', 10, 10));
    EXPECT_EQ(Read(3 * kMiB, 10).sData, SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileReadTest, WalkDoesNotRelyOnTheDescriptorsPosition) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 100);
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 0, &cursor);
    LogArgu tag{"test"};
    const CCachedFile file = m_Utilities.GetCachedFileHandle(&m_Param, &tag, Info().c_str(), false);
    ::lseek(file, 0, SEEK_END);
    m_File.GetNextSegment(&m_Param, &cursor);
    ASSERT_GE(cursor.index, 0);
    EXPECT_EQ(cursor.segment.iSource, 1);
    ::lseek(file, 1, SEEK_SET);
    EXPECT_TRUE(Add(A(), 0, 200, 100));
    EXPECT_EQ(InfoRecords().size(), 3U) << "appended at the end all the same";
}

TEST_F(RedirectedFileReadTest, CursorWithoutSegmentDoesNotMove) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    ProcSegment cursor;
    m_File.GetNextSegment(&m_Param, &cursor);
    EXPECT_EQ(cursor.index, -1);
}

TEST_F(RedirectedFileReadTest, RecordCutShortEndsTheSearch) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 100);
    ASSERT_EQ(::truncate(Info().c_str(), 63), 0);
    EXPECT_EQ(Read(0, 100).sData, SourceBytes('A', 0, 100));
    EXPECT_EQ(Read(100, 50).sData, Zeros(50));
}

TEST_F(RedirectedFileReadTest, GarbageInTheInfoFileDoesNoHarm) {
    std::string sGarbage;
    unsigned int iState = 12345;
    for (int i = 0; i < 100000; ++i) {
        iState = iState * 1664525 + 1013904223;
        sGarbage += static_cast<char>(iState >> 24);
    }
    WriteWholeFile(Info(), sGarbage);
    OpenWithInfoFile(1000000, 1, 1);
    for (unsigned long long iOffset : {0ULL, 1ULL, 999999ULL, 500000ULL}) {
        const auto read = Read(iOffset, 4096);
        EXPECT_LE(read.iResult, 8192) << "at " << iOffset;
    }
    EXPECT_TRUE(Add(A(), 0, 0, 100));
}

TEST_F(RedirectedFileReadTest, RecordsWithExtremeFieldsDoNoHarm) {
    const std::vector<long long> viExtremes = {LLONG_MIN, LLONG_MIN + 1, -1, 0, 1, 50, LLONG_MAX - 1, LLONG_MAX};
    m_Param.SetLogControl(CRuntimeParam::kLogRedirectFile);
    OpenWithInfoFile(100, 1, 1);
    Add(A(), 0, 0, 0);  // registers source 0
    for (const long long iSource : {-5LL, 0LL, LLONG_MAX}) {
        for (const long long iFileOffset : viExtremes) {
            std::vector<Segment> vRecords{{0, 0, 0, 10}};
            for (const long long iOffset : viExtremes) {
                for (const long long iLength : viExtremes) {
                    vRecords.push_back({iSource, iFileOffset, iOffset, iLength});
                }
            }
            WriteRecords(vRecords);
            for (const unsigned int iLen : {1U, 60U, 200U}) {
                EXPECT_LE(Read(0, iLen).iResult, static_cast<int>(2 * iLen));
                EXPECT_LE(Read(50, iLen).iResult, static_cast<int>(2 * iLen));
                EXPECT_LE(Read(99, iLen).iResult, static_cast<int>(2 * iLen));
            }
        }
    }
}

TEST_F(RedirectedFileReadTest, InfoFileLargerThanTheMapIsSearchedToItsEnd) {
    m_Param.SetLogControl(0);
    std::vector<Segment> vRecords(50000, Segment{-1, 0, 0, 10});
    vRecords.push_back({0, 0, 40, 10});
    WriteRecords(vRecords);
    OpenWithInfoFile(100);
    Add(A(), 0, 100, 1);  // registers source 0
    EXPECT_EQ(Read(40, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileReadTest, InfoFileThatIsADirectoryMakesTheMapStayInMemory) {
    m_File.Open(&m_Param, 100, 1, m_Folder.Path().c_str(), 0, 0);
    EXPECT_TRUE(Add(A(), 0, 0, 100));
    EXPECT_EQ(Read(0, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileReadTest, MissingInfoFileIsLoggedAtEachStepOfAWalk) {
    ::unlink(Info().c_str());
    OpenWithInfoFile(200);
    Add(A(), 0, 0, 100);
    Add(A(), 100, 100, 100);
    m_Log.Clear();
    EXPECT_EQ(Read(95, 10).sData, SourceBytes('A', 95, 10));
    const std::string sFailure = "OS open file \"" + Info() + "\". Error=No such file or directory (2)\n";
    EXPECT_EQ(LinesWith("OS open file \"" + Info()),
              "[RedirectedFile.GetSegment] " + sFailure + "[RedirectedFile.GetNextSegment] " + sFailure);
}

TEST_F(RedirectedFileReadTest, SegmentAddedWhileTheInfoFileWasMissingIsFoundLater) {
    ::unlink(Info().c_str());
    OpenWithInfoFile(200);
    EXPECT_TRUE(Add(A(), 0, 0, 60));
    EXPECT_TRUE(Add(A(), 500, 60, 40));
    WriteWholeFile(Info(), "");
    EXPECT_TRUE(Add(B(), 0, 100, 100));
    EXPECT_EQ(InfoRecords().size(), 1U);
    EXPECT_EQ(Read(50, 20).sData, SourceBytes('A', 50, 10) + SourceBytes('A', 500, 10));
    EXPECT_EQ(Read(150, 10).sData, SourceBytes('B', 50, 10));
}

TEST_F(RedirectedFileReadTest, ReadGoesOnFromTheInfoFileIntoWhatWasAddedWhileItWasMissing) {
    OpenWithInfoFile(100);
    Add(A(), 0, 0, 40);
    const std::string sAside = m_Folder / "aside";
    ASSERT_EQ(std::rename(Info().c_str(), sAside.c_str()), 0);
    LogArgu tag{"test"};
    m_Utilities.CloseCachedFileHandle(&m_Param, &tag, Info().c_str());
    Add(B(), 0, 40, 40);
    Add(A(), 500, 80, 20);
    ASSERT_EQ(std::rename(sAside.c_str(), Info().c_str()), 0);
    EXPECT_EQ(Read(30, 60).sData, SourceBytes('A', 30, 10) + SourceBytes('B', 0, 40) + SourceBytes('A', 500, 10));
}

TEST_F(RedirectedFileReadTest, InfoFileThatWasReadFirstIsWrittenAllTheSame) {
    OpenWithInfoFile(200);
    EXPECT_EQ(Read(0, 10).sData, Zeros(10));  // outside every export this opens it read only
    EXPECT_TRUE(Add(A(), 0, 0, 100));
    EXPECT_EQ(InfoRecords().size(), 1U);
    EXPECT_EQ(Read(0, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileReadTest, FullDiskUnderTheInfoFileEndsAnEndlessSegment) {
    m_Param.SetLogControl(0);
    m_File.Open(&m_Param, LLONG_MAX, 1, "/dev/full", 1, 1);
    EXPECT_TRUE(Add("", 0, 0, LLONG_MAX));
}

TEST_F(RedirectedFileReadTest, InfoFileThatNeverEndsDoesNotHoldUpReads) {
    m_Param.SetLogControl(0);
    m_File.Open(&m_Param, 1000, 1, "/dev/zero", 1, 1);
    EXPECT_EQ(Read(40, 10).sData, Zeros(10));
    WriteWholeFile(m_Folder / "dump", "");
    m_File.ExportInfo(&m_Param, (m_Folder / "dump").c_str(), false);
    EXPECT_EQ(ReadWholeFile(m_Folder / "dump"), "") << "no record covers the start";
}

}  // namespace
