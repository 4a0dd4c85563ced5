// CRedirectedFile: opening, adding segments, odd values, the wrappers.
#include "RedirectedFile.h"

#include <climits>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RedirectedFileFixture.h"
#include "SoftLimit.h"

namespace {

class RedirectedFileTest : public RedirectedFileFixture {};

// ---- Opening and adding

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
    LogArgu tag{"test"};
    m_Utilities.AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), "data", "", nullptr);  // for writing
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

// Who may write beside the info file could send the records into any file that the server may write.
TEST_F(RedirectedFileTest, StrangersLinkInTheInfoFilesPlaceGetsNoRecord) {
    const std::string sVictim = m_Folder / "victim";
    WriteWholeFile(sVictim, "precious");
    ::unlink(Info().c_str());
    ASSERT_EQ(::symlink(sVictim.c_str(), Info().c_str()), 0);
    ASSERT_EQ(::lchown(Info().c_str(), 12345, 12345), 0);
    OpenWithInfoFile(kMiB);
    EXPECT_TRUE(Add(A(), 0, 0, kMiB));
    EXPECT_EQ(ReadWholeFile(sVictim), "precious");
    EXPECT_EQ(Read(5, 10).sData, SourceBytes('A', 5, 10)) << "the map stays in memory";
    EXPECT_NE(LinesWith("OS open file"), "") << "the log says why";
}

TEST_F(RedirectedFileTest, LinkOfTheServersOwnLeadsToTheInfoFile) {
    const std::string sElsewhere = m_Folder / "elsewhere";
    WriteWholeFile(sElsewhere, "");
    ::unlink(Info().c_str());
    ASSERT_EQ(::symlink(sElsewhere.c_str(), Info().c_str()), 0);
    OpenWithInfoFile(kMiB);
    EXPECT_TRUE(Add(A(), 0, 0, kMiB));
    EXPECT_EQ(ReadWholeFile(sElsewhere).size(), 32U);
    EXPECT_EQ(Read(5, 10).sData, SourceBytes('A', 5, 10));
}

TEST_F(RedirectedFileTest, RecordThatIsWrittenInPartIsTakenBack) {
    ::signal(SIGXFSZ, SIG_IGN);
    OpenWithInfoFile(16 * kMiB, 1);
    EXPECT_TRUE(Add(A(), 0, 0, kMiB));
    {
        const SoftLimit limit(RLIMIT_FSIZE, 32 + 16);
        EXPECT_TRUE(Add(A(), 100, kMiB, kMiB));
    }
    EXPECT_EQ(ReadWholeFile(Info()).size(), 32U);
    EXPECT_TRUE(Add(B(), 200, 2 * kMiB, kMiB));
    const std::vector<Segment> vRecords = InfoRecords();
    ASSERT_EQ(vRecords.size(), 2U);
    EXPECT_EQ(vRecords[1].iFileOffset, 200);
    EXPECT_EQ(vRecords[1].iOffset, 2 * kMiB);
}

TEST_F(RedirectedFileTest, CheckPointMemoryOfATebibyteStaysFarBelowAMebibyte) {
    m_Param.SetLogControl(0);
    OpenWithInfoFile(kMiB * kMiB);
    EXPECT_TRUE(Add(A(), 0, 0, kMiB * kMiB));
    EXPECT_EQ(InfoRecords().size(), 32768U);
    EXPECT_EQ(m_File.GetCheckPointCount(), 1023U);
    EXPECT_LT(m_File.GetMapMemory(), 64U * 1024);
}

// ---- Odd values

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

// ---- The wrappers

TEST_F(RedirectedFileTest, WrappersTakeTheMissingDescriptorForASourceOfZeros) {
    LogArgu tag{"test"};
    char vcBuffer[4] = {1, 1, 1, 1};
    EXPECT_EQ(m_File.OS_FileRead(&m_Param, &tag, -1, vcBuffer, 3), 3);
    EXPECT_EQ(std::string(vcBuffer, 4), std::string("\0\0\0\1", 4));
    EXPECT_EQ(m_File.OS_FileSeek(&m_Param, &tag, -1, 4711, SEEK_END), 4711);
    EXPECT_EQ(m_Log.Dump(), "") << "no system call, no line";
    EXPECT_EQ(m_File.OS_FileWrite(&m_Param, &tag, -1, vcBuffer, 3), -1);
    EXPECT_EQ(m_File.OS_FileTell(&m_Param, &tag, -1), -1);
}

TEST_F(RedirectedFileTest, WrappersPassOtherDescriptorsOn) {
    LogArgu tag{"test"};
    const int iFile = ::open(A().c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(m_File.OS_FileSeek(&m_Param, &tag, iFile, 5, SEEK_SET), 5);
    char vcBuffer[4];
    EXPECT_EQ(m_File.OS_FileRead(&m_Param, &tag, iFile, vcBuffer, 4), 4);
    EXPECT_EQ(std::string(vcBuffer, 4), SourceBytes('A', 5, 4));
    EXPECT_EQ(m_File.OS_FileTell(&m_Param, &tag, iFile), 9);
    EXPECT_EQ(m_File.OS_FileWrite(&m_Param, &tag, iFile, "xy", 2), 2);
    ::close(iFile);
    EXPECT_EQ(ReadWholeFile(A()).substr(9, 2), "xy");
}

}  // namespace
