// CRedirectedFile: adding segments, lookups, reads, closing.
#include "RedirectedFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "TempFolder.h"

namespace {

constexpr long long kMiB = 1048576;
constexpr int kAllLogs = 1023;

/// One byte of the source named by a letter, different at every offset a test uses.
char SourceByte(char cSource, long long iOffset) {
    return static_cast<char>(cSource + iOffset * 7 + iOffset / 251);
}

std::string SourceBytes(char cSource, long long iOffset, long long iLength) {
    std::string sBytes;
    for (long long i = 0; i < iLength; ++i) {
        sBytes += SourceByte(cSource, iOffset + i);
    }
    return sBytes;
}

std::string Zeros(std::size_t n) {
    return std::string(n, '\0');
}

struct ReadResult {
    int iResult;
    bool bEof;
    std::string sData;
};

class RedirectedFileTest : public testing::Test {
protected:
    static constexpr long long kSourceSize = 1000;

    void SetUp() override {
        WriteWholeFile(A(), SourceBytes('A', 0, kSourceSize));
        WriteWholeFile(B(), SourceBytes('B', 0, kSourceSize));
        WriteWholeFile(Info(), "");
    }

    std::string A() const { return m_Folder / "a"; }
    std::string B() const { return m_Folder / "b"; }
    std::string Info() const { return m_Folder / "info"; }

    void OpenInMemory(long long iSize) { m_File.Open(&m_Param, iSize, 5, nullptr, 0, 0); }
    void OpenWithInfoFile(long long iSize, int iSegmentMiB = 0, int iCheckPointMiB = 0) {
        m_File.Open(&m_Param, iSize, 5, Info().c_str(), iSegmentMiB, iCheckPointMiB);
    }
    bool Add(const std::string& sSource, long long iFileOffset, long long iOffset, long long iLength) {
        return m_File.AddSegment(&m_Param, sSource.c_str(), iFileOffset, iOffset, iLength, m_vcReason);
    }
    ReadResult Read(unsigned long long iOffset, unsigned int iLen) {
        ReadResult read{0, false, std::string(CRedirectedFile::GetReadRoom(iLen), '\x5A')};
        read.iResult = m_File.Read(&m_Param, iOffset, read.sData.data(), iLen, &read.bEof);
        read.sData.resize(static_cast<std::size_t>(std::max(read.iResult, 0)));
        return read;
    }
    std::vector<Segment> InfoRecords() const {
        const std::string sBytes = ReadWholeFile(Info());
        EXPECT_EQ(sBytes.size() % 32, 0U);
        std::vector<Segment> vRecords(sBytes.size() / 32);
        if (!vRecords.empty()) {
            std::memcpy(static_cast<void*>(vRecords.data()), sBytes.data(), vRecords.size() * 32);
        }
        return vRecords;
    }
    void WriteRecords(const std::vector<Segment>& vRecords) {
        WriteWholeFile(Info(), {reinterpret_cast<const char*>(vRecords.data()), vRecords.size() * 32});
    }
    std::string LinesWith(const std::string& sPart) const {
        std::string sLines;
        for (const std::string& sText : m_Log.Texts()) {
            if (sText.find(sPart) != std::string::npos) {
                sLines += sText + "\n";
            }
        }
        return sLines;
    }

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", kAllLogs};
    CRedirectedFile m_File{&m_Utilities};
    char m_vcReason[kReasonBufferSize] = "";
};

// ---- Opening and adding ------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, OpenLogsIdSizeAndInfoFile) {
    OpenWithInfoFile(4711);
    EXPECT_EQ(LinesWith("RedirectedFile.Open"), "[RedirectedFile.Open] id=5, size=4711 (path=" + Info() + ")\n");
    EXPECT_EQ(m_File.GetFileSize(), 4711);
}

TEST_F(RedirectedFileTest, OpenWithoutInfoFileLogsAnEmptyPath) {
    OpenInMemory(1);
    EXPECT_EQ(LinesWith("RedirectedFile.Open"), "[RedirectedFile.Open] id=5, size=1 (path=)\n");
}

TEST_F(RedirectedFileTest, AddingASegmentLogsItsSourceAndItsClippedLength) {
    OpenInMemory(100);
    EXPECT_TRUE(Add(A(), 10, 60, 50));
    EXPECT_TRUE(Add("", 0, 0, 60));
    EXPECT_EQ(LinesWith("RedirectedFile.AddSegment"),
              "[RedirectedFile.AddSegment] Reference src (5): " + A() +
                  "\n"
                  "[RedirectedFile.AddSegment] Segment id=5, fox=10, ox=60, len=40\n"
                  "[RedirectedFile.AddSegment] Reference src (5): Null\n"
                  "[RedirectedFile.AddSegment] Segment id=5, fox=0, ox=0, len=60\n");
}

TEST_F(RedirectedFileTest, NothingIsLoggedWithoutTheLogBit) {
    m_Param.SetLogControl(0);
    OpenInMemory(100);
    EXPECT_TRUE(Add(A(), 0, 0, 10));
    Read(0, 50);
    EXPECT_EQ(m_Log.Dump(), "");
}

TEST_F(RedirectedFileTest, SegmentAtTheSizeIsRefusedWithAReasonButItsSourceIsRegistered) {
    OpenInMemory(100);
    EXPECT_FALSE(Add(A(), 0, 100, 1));
    EXPECT_STREQ(m_vcReason, "Offset 100 is not inside the file (size = 100)");
    EXPECT_EQ(LinesWith("AddSegment"), "[RedirectedFile.AddSegment] Reference src (5): " + A() + "\n");
    // The next new source is number 1.
    EXPECT_TRUE(Add(B(), 0, 0, 1));
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 0, &cursor);
    EXPECT_EQ(cursor.segment.iSource, 1);
}

TEST_F(RedirectedFileTest, RefusedSegmentNeedsNoReasonBuffer) {
    OpenInMemory(100);
    EXPECT_FALSE(m_File.AddSegment(&m_Param, nullptr, 0, 100, 1, nullptr));
}

TEST_F(RedirectedFileTest, EqualSourcesShareOneNumber) {
    OpenInMemory(100);
    Add(A(), 0, 0, 1);
    Add(B(), 0, 1, 1);
    Add(A(), 0, 2, 1);
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 2, &cursor);
    EXPECT_EQ(cursor.segment.iSource, 0);
}

TEST_F(RedirectedFileTest, SegmentPastTheSizeIsClipped) {
    OpenInMemory(100);
    EXPECT_TRUE(Add(A(), 0, 90, 50));
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 99, &cursor);
    EXPECT_EQ(cursor.segment.iLength, 10);
}

TEST_F(RedirectedFileTest, RecordsAreCutAtMultiplesOfTheSegmentSize) {
    OpenWithInfoFile(1024 * kMiB);
    EXPECT_TRUE(Add(A(), 1000, 10 * kMiB, 100 * kMiB));
    const auto vRecords = InfoRecords();
    ASSERT_EQ(vRecords.size(), 4U);
    const long long viOffsets[] = {10, 32, 64, 96};
    const long long viLengths[] = {22, 32, 32, 14};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(vRecords[i].iSource, 0);
        EXPECT_EQ(vRecords[i].iOffset, viOffsets[i] * kMiB) << "record " << i;
        EXPECT_EQ(vRecords[i].iLength, viLengths[i] * kMiB) << "record " << i;
        EXPECT_EQ(vRecords[i].iFileOffset, 1000 + (viOffsets[i] - 10) * kMiB) << "record " << i;
    }
}

TEST_F(RedirectedFileTest, RecordOfExactlyTheSegmentSizeIsNotCut) {
    OpenWithInfoFile(1024 * kMiB);
    EXPECT_TRUE(Add(A(), 0, 32 * kMiB, 32 * kMiB));
    EXPECT_TRUE(Add(A(), 0, 65 * kMiB, 31 * kMiB));
    ASSERT_EQ(InfoRecords().size(), 2U);
}

TEST_F(RedirectedFileTest, RecordsAreLittleEndianFieldsWithoutAHeader) {
    OpenWithInfoFile(1024);
    EXPECT_TRUE(Add("", 0x0102030405060708, 3, 4));
    EXPECT_EQ(ReadWholeFile(Info()), std::string("\xff\xff\xff\xff\xff\xff\xff\xff"
                                                 "\x08\x07\x06\x05\x04\x03\x02\x01"
                                                 "\x03\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0",
                                                 32));
}

TEST_F(RedirectedFileTest, CheckPointsMarkTheRecordsAtTheirDistanceButNotTheFirst) {
    OpenWithInfoFile(16 * kMiB, 1, 2);
    EXPECT_TRUE(Add(A(), 0, 0, 5 * kMiB));
    WriteWholeFile(m_Folder / "dump", "");
    LogArgu logArgu{"test"};
    m_Utilities.AddMountInfo(&m_Param, &logArgu, m_Folder.Path().c_str(), "data", "", nullptr);  // for writing
    m_File.ExportInfo(&m_Param, (m_Folder / "dump").c_str(), true);
    EXPECT_EQ(ReadWholeFile(m_Folder / "dump"),
              "--> CheckPoint Segment fox=64, ox=2097152\n"
              "--> CheckPoint Segment fox=128, ox=4194304\n"
              "-------------------\n"
              "--> Merged Segment path=" +
                  A() + ", fox=0, ox=0, len=5242880\n");
}

TEST_F(RedirectedFileTest, RecordsFollowWhatTheInfoFileHolds) {
    WriteWholeFile(Info(), std::string(64, 'x'));
    OpenWithInfoFile(16 * kMiB, 1, 1);
    EXPECT_TRUE(Add(A(), 0, kMiB, 10));
    EXPECT_EQ(ReadWholeFile(Info()).size(), 96U);
    EXPECT_EQ(Read(kMiB, 10).sData, SourceBytes('A', 0, 10)) << "found from its check point at 64";
}

TEST_F(RedirectedFileTest, MissingInfoFileMakesTheMapStayInMemory) {
    ::unlink(Info().c_str());
    OpenWithInfoFile(100 * kMiB);
    EXPECT_TRUE(Add(A(), 0, 0, 100 * kMiB));
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 0, &cursor);
    EXPECT_EQ(cursor.segment.iLength, 100 * kMiB) << "one entry, not cut";
    EXPECT_NE(::access(Info().c_str(), F_OK), 0) << "the info file is not made";
    EXPECT_EQ(Read(5, 10).sData, SourceBytes('A', 5, 10));
}

TEST_F(RedirectedFileTest, CheckPointMemoryOfATebibyteStaysFarBelowAMebibyte) {
    m_Param.SetLogControl(0);
    OpenWithInfoFile(kMiB * kMiB);
    EXPECT_TRUE(Add(A(), 0, 0, kMiB * kMiB));
    EXPECT_EQ(InfoRecords().size(), 32768U);
    EXPECT_EQ(m_File.GetCheckPointCount(), 1023U);
    EXPECT_LT(m_File.GetMapMemory(), 64U * 1024);
}

// ---- Reading -----------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, FileWithoutSegmentsReadsAsZerosUntilAReadReachedTheEnd) {
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

TEST_F(RedirectedFileTest, ReadRunsFromOneSegmentIntoTheNext) {
    OpenInMemory(200);
    Add(A(), 10, 0, 100);
    Add(B(), 500, 100, 100);
    const auto read = Read(90, 30);
    EXPECT_EQ(read.sData, SourceBytes('A', 100, 10) + SourceBytes('B', 500, 20));
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 120);
}

TEST_F(RedirectedFileTest, EndOfFileIsToldWhenAReadEndsExactlyThere) {
    OpenInMemory(200);
    Add(A(), 0, 0, 200);
    EXPECT_FALSE(Read(0, 199).bEof);
    EXPECT_TRUE(Read(100, 100).bEof);
    EXPECT_TRUE(Read(100, 150).bEof);
}

TEST_F(RedirectedFileTest, ReadAtTheSizeFailsUnlessTheEndWasReached) {
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

TEST_F(RedirectedFileTest, HoleMetInsideAReadIsSkippedAndLeavesNoTrace) {
    OpenInMemory(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 300, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + SourceBytes('B', 0, 40));
    EXPECT_EQ(m_File.GetPos(), 140) << "counts the bytes delivered, not those passed over";
    EXPECT_EQ(LinesWith("Fill missing"), "[RedirectedFile.Read] Fill missing segment len:200\n");
}

TEST_F(RedirectedFileTest, HoleOfTerabytesIsFilledOnlyWithinTheBuffer) {
    OpenInMemory(LLONG_MAX);
    Add(A(), 0, 0, 100);
    Add(B(), 0, LLONG_MAX - 50, 50);
    const auto read = Read(90, 60);
    // 10 from A, 50 from B, and not one byte of the hole.
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + SourceBytes('B', 0, 50));
}

TEST_F(RedirectedFileTest, ReadThatBeginsInAHoleGivesZerosAndPullsNothingForward) {
    OpenInMemory(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 300, 100);
    EXPECT_EQ(Read(200, 50).sData, Zeros(50));
    EXPECT_EQ(Read(290, 50).sData, Zeros(50)) << "also where a segment begins within the range";
}

TEST_F(RedirectedFileTest, GapAtTheTailGivesZerosForTheWholeLengthAskedFor) {
    OpenInMemory(1000);
    Add(A(), 0, 0, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.iResult, 60) << "10 bytes and then zeros for 50, not for the 40 that remain";
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + Zeros(50));
    EXPECT_EQ(m_File.GetPos(), 150);
}

TEST_F(RedirectedFileTest, GapAtTheTailEndsWithTheFile) {
    OpenInMemory(120);
    Add(A(), 0, 0, 100);
    const auto read = Read(90, 50);
    EXPECT_EQ(read.sData, SourceBytes('A', 90, 10) + Zeros(20));
    EXPECT_TRUE(read.bEof);
}

TEST_F(RedirectedFileTest, GapAtTheTailIsNotFilledOnceTheEndWasReached) {
    OpenInMemory(120);
    Add(A(), 0, 0, 100);
    Read(110, 10);
    EXPECT_EQ(Read(90, 50).sData, SourceBytes('A', 90, 10));
}

TEST_F(RedirectedFileTest, ReadOfNoBytesDeliversNoneAndSetsThePosition) {
    OpenInMemory(100);
    Add(A(), 0, 0, 100);
    const auto read = Read(40, 0);
    EXPECT_EQ(read.iResult, 0);
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_File.GetPos(), 40);
}

TEST_F(RedirectedFileTest, SegmentWithoutSourceReadsAsZeros) {
    OpenInMemory(100);
    Add("", 12345, 0, 50);
    Add(B(), 0, 50, 50);
    EXPECT_EQ(Read(40, 20).sData, Zeros(10) + SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileTest, SourceThatCannotBeOpenedReadsAsZeros) {
    OpenInMemory(100);
    Add(m_Folder / "missing", 0, 0, 50);
    Add(B(), 0, 50, 50);
    EXPECT_EQ(Read(40, 20).sData, Zeros(10) + SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileTest, SourceThatEndsEarlyEndsTheRead) {
    OpenInMemory(2000);
    Add(A(), 900, 0, 500);
    Add(B(), 0, 500, 500);
    auto read = Read(50, 700);
    EXPECT_EQ(read.sData, SourceBytes('A', 950, 50));
    EXPECT_FALSE(read.bEof);
    read = Read(100, 100);
    EXPECT_EQ(read.iResult, 0) << "no progress, and no endless loop";
}

TEST_F(RedirectedFileTest, SourceThatShrankEndsTheReadWhereItEndsNow) {
    OpenInMemory(1000);
    Add(A(), 0, 0, 1000);
    EXPECT_EQ(Read(0, 1000).iResult, 1000);
    ASSERT_EQ(::truncate(A().c_str(), 300), 0);
    EXPECT_EQ(Read(0, 1000).sData, SourceBytes('A', 0, 300));
}

TEST_F(RedirectedFileTest, SourceThatCannotBeReadEndsTheRead) {
    OpenInMemory(200);
    Add(A(), 0, 0, 100);
    Add(m_Folder.Path(), 0, 100, 100);  // a directory opens, but does not read
    EXPECT_EQ(Read(50, 100).sData, SourceBytes('A', 50, 50));
    EXPECT_NE(LinesWith("OS read file").find("Error=Is a directory (21)"), std::string::npos) << m_Log.Dump();
}

TEST_F(RedirectedFileTest, NegativePlaceInASourceFailsTheSeekAndEndsTheRead) {
    OpenInMemory(200);
    Add(A(), 0, 0, 100);
    Add(B(), -50, 100, 100);
    EXPECT_EQ(Read(50, 100).sData, SourceBytes('A', 50, 50));
}

TEST_F(RedirectedFileTest, NegativePlaceOfASegmentWithoutSourceDoesNotMatter) {
    OpenInMemory(200);
    Add("", -50, 0, 100);
    EXPECT_EQ(Read(0, 100).sData, Zeros(100));
}

TEST_F(RedirectedFileTest, ReadLogsSegmentsAndEndOfFile) {
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

TEST_F(RedirectedFileTest, ReadAtATebibyteOfASparseSource) {
    const long long iFar = kMiB * kMiB + 12345;
    const int iFile = ::open(A().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::pwrite(iFile, "far away", 8, iFar), 8);
    ::close(iFile);
    OpenInMemory(2 * iFar);
    Add(A(), 0, 0, 2 * iFar);
    EXPECT_EQ(Read(static_cast<unsigned long long>(iFar), 8).sData, "far away");
}

TEST_F(RedirectedFileTest, FirstSegmentAddedWinsWhereSegmentsOverlap) {
    OpenInMemory(300);
    Add(A(), 0, 100, 100);
    Add(B(), 0, 50, 200);
    EXPECT_EQ(Read(120, 10).sData, SourceBytes('A', 20, 10));
    EXPECT_EQ(Read(60, 10).sData, SourceBytes('B', 10, 10));
    // The walk goes on in the order of adding: from A's end into the middle of B.
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 150, 10));
}

TEST_F(RedirectedFileTest, SegmentsInTheWalkThatLieBeforeThePositionArePassedOver) {
    OpenInMemory(300);
    Add(A(), 0, 100, 100);
    Add(B(), 0, 0, 100);
    Add(B(), 700, 200, 100);
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 700, 10));
}

TEST_F(RedirectedFileTest, EmptySegmentsCoverNothingAndArePassedOver) {
    OpenInMemory(300);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 0);
    Add(B(), 500, 100, 100);
    EXPECT_EQ(Read(90, 20).sData, SourceBytes('A', 90, 10) + SourceBytes('B', 500, 10));
    EXPECT_EQ(Read(100, 10).sData, SourceBytes('B', 500, 10));
}

// ---- Reading through an info file --------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, InfoFileReadsAsTheMapInMemoryDoes) {
    OpenWithInfoFile(400);
    Add(A(), 10, 0, 100);
    Add(B(), 500, 100, 100);
    Add("", 0, 300, 50);
    EXPECT_EQ(Read(90, 30).sData, SourceBytes('A', 100, 10) + SourceBytes('B', 500, 20));
    EXPECT_EQ(Read(190, 20).sData, SourceBytes('B', 590, 10) + Zeros(10));
    EXPECT_EQ(Read(340, 20).iResult, 10 + 20) << "zeros for the whole length behind the last segment";
    EXPECT_EQ(Read(250, 10).sData, Zeros(10));
}

TEST_F(RedirectedFileTest, LookupLogsOneSeekAndOneReadForEachRecord) {
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

TEST_F(RedirectedFileTest, AppendingLogsOneSeekAndOneWriteForEachRecord) {
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
TEST_F(RedirectedFileTest, CheckPointServesFromItsOwnOffsetOn) {
    OpenWithInfoFile(8 * kMiB, 1, 2);
    Add(A(), 0, 2 * kMiB, 100);
    Add(B(), 0, 3 * kMiB, 100);
    EXPECT_EQ(Read(2 * kMiB - 10, 10).sData, Zeros(10)) << "the guess is the second record";
    EXPECT_EQ(Read(2 * kMiB, 10).sData, SourceBytes('A', 0, 10));
    EXPECT_EQ(Read(2 * kMiB + 10, 10).sData, SourceBytes('A', 10, 10));
    EXPECT_EQ(Read(3 * kMiB, 10).sData, SourceBytes('B', 0, 10));
}

TEST_F(RedirectedFileTest, WalkDoesNotRelyOnTheDescriptorsPosition) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 100);
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 0, &cursor);
    LogArgu logArgu{"test"};
    const CCachedFile file = m_Utilities.GetCachedFileHandle(&m_Param, &logArgu, Info().c_str(), false);
    ::lseek(file, 0, SEEK_END);
    m_File.GetNextSegment(&m_Param, &cursor);
    ASSERT_GE(cursor.index, 0);
    EXPECT_EQ(cursor.segment.iSource, 1);
    ::lseek(file, 1, SEEK_SET);
    EXPECT_TRUE(Add(A(), 0, 200, 100));
    EXPECT_EQ(InfoRecords().size(), 3U) << "appended at the end all the same";
}

TEST_F(RedirectedFileTest, CursorWithoutSegmentDoesNotMove) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    ProcSegment cursor;
    m_File.GetNextSegment(&m_Param, &cursor);
    EXPECT_EQ(cursor.index, -1);
}

TEST_F(RedirectedFileTest, RecordCutShortEndsTheSearch) {
    OpenWithInfoFile(400);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 100);
    ASSERT_EQ(::truncate(Info().c_str(), 63), 0);
    EXPECT_EQ(Read(0, 100).sData, SourceBytes('A', 0, 100));
    EXPECT_EQ(Read(100, 50).sData, Zeros(50));
}

TEST_F(RedirectedFileTest, GarbageInTheInfoFileDoesNoHarm) {
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

TEST_F(RedirectedFileTest, RecordsWithExtremeFieldsDoNoHarm) {
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

TEST_F(RedirectedFileTest, InfoFileLargerThanTheMapIsSearchedToItsEnd) {
    m_Param.SetLogControl(0);
    std::vector<Segment> vRecords(50000, Segment{-1, 0, 0, 10});
    vRecords.push_back({0, 0, 40, 10});
    WriteRecords(vRecords);
    OpenWithInfoFile(100);
    Add(A(), 0, 100, 1);  // registers source 0
    EXPECT_EQ(Read(40, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileTest, InfoFileThatIsADirectoryMakesTheMapStayInMemory) {
    m_File.Open(&m_Param, 100, 1, m_Folder.Path().c_str(), 0, 0);
    EXPECT_TRUE(Add(A(), 0, 0, 100));
    EXPECT_EQ(Read(0, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileTest, MissingInfoFileIsLoggedAtEachStepOfAWalk) {
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

TEST_F(RedirectedFileTest, SegmentAddedWhileTheInfoFileWasMissingIsFoundLater) {
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

TEST_F(RedirectedFileTest, InfoFileThatWasReadFirstIsWrittenAllTheSame) {
    OpenWithInfoFile(200);
    EXPECT_EQ(Read(0, 10).sData, Zeros(10));  // outside every export this opens it read only
    EXPECT_TRUE(Add(A(), 0, 0, 100));
    EXPECT_EQ(InfoRecords().size(), 1U);
    EXPECT_EQ(Read(0, 10).sData, SourceBytes('A', 0, 10));
}

TEST_F(RedirectedFileTest, FullDiskUnderTheInfoFileEndsAnEndlessSegment) {
    m_Param.SetLogControl(0);
    m_File.Open(&m_Param, LLONG_MAX, 1, "/dev/full", 1, 1);
    EXPECT_TRUE(Add("", 0, 0, LLONG_MAX));
}

TEST_F(RedirectedFileTest, InfoFileThatNeverEndsDoesNotHoldUpReads) {
    m_Param.SetLogControl(0);
    m_File.Open(&m_Param, 1000, 1, "/dev/zero", 1, 1);
    EXPECT_EQ(Read(40, 10).sData, Zeros(10));
    WriteWholeFile(m_Folder / "dump", "");
    m_File.ExportInfo(&m_Param, (m_Folder / "dump").c_str(), false);
    EXPECT_EQ(ReadWholeFile(m_Folder / "dump"), "") << "no record covers the start";
}

// ---- Odd values --------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, NegativeAndZeroSizesRefuseSegmentsAndReads) {
    for (const long long iSize : {0LL, -1LL, LLONG_MIN}) {
        CRedirectedFile file(&m_Utilities);
        file.Open(&m_Param, iSize, 1, nullptr, -3, -7);
        EXPECT_FALSE(file.AddSegment(&m_Param, A().c_str(), 0, 0, 10, nullptr)) << iSize;
        char vcBuffer[20];
        bool bEof = false;
        EXPECT_EQ(file.Read(&m_Param, 0, vcBuffer, 10, &bEof), 0) << iSize;
        EXPECT_TRUE(bEof);
    }
}

TEST_F(RedirectedFileTest, OffsetsBeyondTheSignedRangeAreBeyondTheFile) {
    OpenInMemory(LLONG_MAX);
    EXPECT_EQ(Read(ULLONG_MAX, 10).iResult, -1);
    EXPECT_EQ(Read(1ULL << 63, 10).iResult, -1);
    EXPECT_EQ(Read(LLONG_MAX, 10).iResult, -1);
    EXPECT_EQ(Read(LLONG_MAX - 1, 10).sData, Zeros(1));
}

TEST_F(RedirectedFileTest, LengthThatOverflowsIsClippedAtTheSize) {
    OpenInMemory(100);
    EXPECT_TRUE(Add(A(), 0, 10, LLONG_MAX));
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 10, &cursor);
    EXPECT_EQ(cursor.segment.iLength, 90);
}

TEST_F(RedirectedFileTest, OverflowingSegmentIsRecordedInTheInfoFileUpToTheSize) {
    OpenWithInfoFile(LLONG_MAX, 1, 1);
    EXPECT_TRUE(Add(A(), LLONG_MAX - 5, LLONG_MAX - 3 * kMiB, LLONG_MAX));
    const auto vRecords = InfoRecords();
    ASSERT_FALSE(vRecords.empty());
    EXPECT_EQ(vRecords.back().iOffset + vRecords.back().iLength, LLONG_MAX);
    EXPECT_EQ(Read(LLONG_MAX - 10, 5).iResult, 0) << "that far the source does not reach";
}

TEST_F(RedirectedFileTest, NegativeLengthsAndOffsetsAreRecordedAndCoverNothingElse) {
    OpenInMemory(100);
    EXPECT_TRUE(Add(A(), 0, 50, -10));
    EXPECT_TRUE(Add(A(), 0, LLONG_MIN, LLONG_MIN));
    EXPECT_TRUE(Add(A(), 100, -10, 20));
    EXPECT_TRUE(Add(B(), 0, 10, 90));
    EXPECT_EQ(Read(45, 10).sData, SourceBytes('B', 35, 10));
    EXPECT_EQ(Read(0, 10).sData, SourceBytes('A', 110, 10)) << "the part of the third segment that is in the file";
}

TEST_F(RedirectedFileTest, NegativeLengthLeavesNoRecordInTheInfoFile) {
    OpenWithInfoFile(100);
    EXPECT_TRUE(Add(A(), 0, 50, -10));
    EXPECT_TRUE(Add(A(), 0, 50, 0));
    EXPECT_EQ(InfoRecords().size(), 0U);
}

TEST_F(RedirectedFileTest, HugePieceSizesDoNotOverflow) {
    m_File.Open(&m_Param, LLONG_MAX, 1, Info().c_str(), INT_MAX, INT_MAX);
    EXPECT_TRUE(Add(A(), 0, 0, LLONG_MAX));
    EXPECT_EQ(InfoRecords().size(), 4097U);
    EXPECT_EQ(Read(100, 10).sData, SourceBytes('A', 100, 10));
}

// ---- Closing -----------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, CloseClosesInfoFileAndSourcesOnce) {
    OpenWithInfoFile(200);
    Add(A(), 0, 0, 100);
    Add(B(), 0, 100, 100);
    Read(0, 200);
    m_Log.Clear();
    m_File.Close(&m_Param);
    EXPECT_EQ(LinesWith("OS close file"), "[RedirectedFile.Close] OS close file \"" + Info() +
                                              "\"\n"
                                              "[RedirectedFile.Close] OS close file \"" +
                                              A() +
                                              "\"\n"
                                              "[RedirectedFile.Close] OS close file \"" +
                                              B() + "\"\n");
    m_Log.Clear();
    m_File.Close(&m_Param);
    EXPECT_EQ(m_Log.Dump(), "");
}

TEST_F(RedirectedFileTest, ClosedFileReadsNothingAndTakesNothing) {
    OpenInMemory(200);
    Add(A(), 0, 0, 100);
    m_File.Close(&m_Param);
    EXPECT_EQ(Read(0, 10).iResult, -1);
    EXPECT_FALSE(Add(A(), 0, 0, 100));
    m_Log.Clear();
    ProcSegment cursor;
    m_File.GetSegment(&m_Param, 0, &cursor);
    EXPECT_EQ(cursor.index, -1);
    EXPECT_EQ(LinesWith("OS open"), "") << "nothing is opened anew";
}

TEST_F(RedirectedFileTest, ReadsThatACloseOvertakesLeaveNoDescriptorInTheCache) {
    LogArgu logArgu{"test"};
    for (int iRound = 0; iRound < 300; ++iRound) {
        m_Param.SetLogControl(0);
        WriteWholeFile(Info(), "");
        CRedirectedFile file(&m_Utilities);
        file.Open(&m_Param, 200, 1, Info().c_str(), 0, 0);
        ASSERT_TRUE(file.AddSegment(&m_Param, A().c_str(), 0, 0, 100, nullptr));
        ASSERT_TRUE(file.AddSegment(&m_Param, B().c_str(), 0, 100, 100, nullptr));
        std::atomic<int> nReads{0};
        std::thread reader([&file, &nReads] {
            CRuntimeParam param("reader", 0);
            char vcBuffer[400];
            bool bEof = false;
            for (; !file.IsClosed(); ++nReads) {
                file.Read(&param, 0, vcBuffer, 200, &bEof);
            }
        });
        while (nReads < iRound % 3) {
            std::this_thread::yield();
        }
        file.Close(&m_Param);
        reader.join();
        m_Param.SetLogControl(kAllLogs);
        m_Log.Clear();
        m_Utilities.CloseAllCachedFileHandles(&m_Param, &logArgu);
        ASSERT_EQ(m_Log.Dump(), "") << "round " << iRound;
    }
}

/// Closes a file from within a line of the log, as another thread might just then.
class ClosingUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CaptureUtilities::LogInfo;

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        if (m_pFile != nullptr && std::string(pcMessage).starts_with(m_sLine)) {
            std::exchange(m_pFile, nullptr)->Close(pRuntimeParam);
        }
    }
    void CloseAtLine(CRedirectedFile* pFile, const std::string& sLine) {
        m_sLine = sLine;
        m_pFile = pFile;
    }

private:
    CRedirectedFile* m_pFile = nullptr;
    std::string m_sLine;
};

class RedirectedFileClosingTest : public RedirectedFileTest {
protected:
    ReadResult ReadClosedAt(const std::string& sLine, unsigned int iLen) {
        m_Closing.CloseAtLine(&m_Read, sLine);
        ReadResult read{0, false, std::string(CRedirectedFile::GetReadRoom(iLen), '\x5A')};
        read.iResult = m_Read.Read(&m_Param, 0, read.sData.data(), iLen, &read.bEof);
        read.sData.resize(static_cast<std::size_t>(std::max(read.iResult, 0)));
        EXPECT_TRUE(m_Read.IsClosed());
        return read;
    }
    bool AddTo(const std::string& sSource, long long iOffset, long long iLength) {
        return m_Read.AddSegment(&m_Param, sSource.c_str(), 0, iOffset, iLength, nullptr);
    }

    ClosingUtilities m_Closing{&m_Log};
    CRedirectedFile m_Read{&m_Closing};
};

TEST_F(RedirectedFileClosingTest, ReadThatFindsItselfClosedFailsInsteadOfDeliveringZeros) {
    m_Read.Open(&m_Param, 200, 1, nullptr, 0, 0);
    AddTo(A(), 0, 100);
    const auto read = ReadClosedAt("[RedirectedFile.Read] Segment", 50);
    EXPECT_EQ(read.iResult, -1);
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_Read.GetPos(), 0);
    EXPECT_EQ(LinesWith("OS open file"), "") << "nothing is opened behind the closing";
}

TEST_F(RedirectedFileClosingTest, ReadUnderWayEndsWithWhatItHas) {
    m_Read.Open(&m_Param, 200, 1, nullptr, 0, 0);
    AddTo(A(), 0, 100);
    EXPECT_EQ(ReadClosedAt("[RedirectedFile.Read] OS read file", 150).sData, SourceBytes('A', 0, 100))
        << "no zeros for what an empty map does not cover";
}

TEST_F(RedirectedFileClosingTest, SearchOfTheInfoFileEndsAtItsNextRecord) {
    WriteRecords(std::vector<Segment>(100, Segment{-1, 0, 500, 10}));
    m_Read.Open(&m_Param, 1000, 1, Info().c_str(), 0, 0);
    EXPECT_EQ(ReadClosedAt("[RedirectedFile.GetSegment] OS read file", 50).iResult, -1);
    const std::string sReads = LinesWith("OS read file");
    EXPECT_EQ(std::count(sReads.begin(), sReads.end(), '\n'), 1) << sReads;
}

// ---- The wrappers ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, WrappersTakeTheMissingDescriptorForASourceOfZeros) {
    LogArgu logArgu{"test"};
    char vcBuffer[4] = {1, 1, 1, 1};
    EXPECT_EQ(m_File.OS_FileRead(&m_Param, &logArgu, -1, vcBuffer, 3), 3);
    EXPECT_EQ(std::string(vcBuffer, 4), std::string("\0\0\0\1", 4));
    EXPECT_EQ(m_File.OS_FileSeek(&m_Param, &logArgu, -1, 4711, SEEK_END), 4711);
    EXPECT_EQ(m_Log.Dump(), "") << "no system call, no line";
    EXPECT_EQ(m_File.OS_FileWrite(&m_Param, &logArgu, -1, vcBuffer, 3), -1);
    EXPECT_EQ(m_File.OS_FileTell(&m_Param, &logArgu, -1), -1);
}

TEST_F(RedirectedFileTest, WrappersPassOtherDescriptorsOn) {
    LogArgu logArgu{"test"};
    const int iFile = ::open(A().c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(m_File.OS_FileSeek(&m_Param, &logArgu, iFile, 5, SEEK_SET), 5);
    char vcBuffer[4];
    EXPECT_EQ(m_File.OS_FileRead(&m_Param, &logArgu, iFile, vcBuffer, 4), 4);
    EXPECT_EQ(std::string(vcBuffer, 4), SourceBytes('A', 5, 4));
    EXPECT_EQ(m_File.OS_FileTell(&m_Param, &logArgu, iFile), 9);
    EXPECT_EQ(m_File.OS_FileWrite(&m_Param, &logArgu, iFile, "xy", 2), 2);
    ::close(iFile);
    EXPECT_EQ(ReadWholeFile(A()).substr(9, 2), "xy");
}

}  // namespace
