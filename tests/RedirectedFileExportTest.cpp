// CRedirectedFile: content and map written to files.
#include "RedirectedFile.h"

#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "TempFolder.h"

namespace {

class RedirectedFileExportTest : public testing::Test {
protected:
    void SetUp() override {
        WriteWholeFile(Out(), "");
        for (int i = 0; i < 300000; ++i) {
            m_sContent += static_cast<char>(i * 31 + i / 255);
        }
        WriteWholeFile(Source(), m_sContent);
        // Only files inside an export are opened for writing.
        LogArgu tag{"test"};
        ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), "data", "", nullptr));
    }

    std::string Out() const { return m_Folder / "out"; }
    std::string Source() const { return m_Folder / "source"; }
    std::string Dump(bool bMerged) {
        WriteWholeFile(Out(), "");
        m_File.ExportInfo(&m_Param, Out().c_str(), bMerged);
        return ReadWholeFile(Out());
    }
    std::string LinesWith(const std::string& sPart) const { return m_Log.LinesWith(sPart); }

    TempFolder m_Folder;
    std::string m_sContent;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", CRuntimeParam::kLogRedirectFile};
    CRedirectedFile m_File{&m_Utilities};
};

TEST_F(RedirectedFileExportTest, ContentIsWrittenInBlocksOf65536AndEndsWithTheFile) {
    m_File.Open(&m_Param, 65536 * 3, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 5, 0, 65536 * 3, nullptr);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_TRUE(ReadWholeFile(Out()) == m_sContent.substr(5, 65536 * 3));
    EXPECT_EQ(LinesWith("Write ox"),
              "[RedirectedFile.Export] Write ox:0, r:65536, w:65536\n"
              "[RedirectedFile.Export] Write ox:65536, r:65536, w:65536\n"
              "[RedirectedFile.Export] Write ox:131072, r:65536, w:65536\n");
    const std::string sHead = LinesWith("Content to file");
    EXPECT_TRUE(sHead.starts_with("[RedirectedFile.Export] Content to file: " + Out() + " (fid=")) << sHead;
}

TEST_F(RedirectedFileExportTest, LastBlockIsShort) {
    m_File.Open(&m_Param, 100000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 0, 100000, nullptr);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_TRUE(ReadWholeFile(Out()) == m_sContent.substr(0, 100000));
}

TEST_F(RedirectedFileExportTest, ContentIsWrittenAsReadsDeliverItAlsoAtHoles) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 0, 100, nullptr);
    m_File.AddSegment(&m_Param, Source().c_str(), 200, 300, 100, nullptr);
    m_File.Export(&m_Param, Out().c_str());
    // 100 bytes, the hole skipped, 100 bytes, zeros for the rest of the size behind 400; the second pass begins at
    // 800, in the gap at the tail.
    EXPECT_EQ(LinesWith("Write ox"),
              "[RedirectedFile.Export] Write ox:0, r:800, w:800\n"
              "[RedirectedFile.Export] Write ox:800, r:200, w:200\n");
    EXPECT_TRUE(ReadWholeFile(Out()) ==
                m_sContent.substr(0, 100) + m_sContent.substr(200, 100) + std::string(800, '\0'));
}

TEST_F(RedirectedFileExportTest, PassBiggerThanABlockIsWrittenWhole) {
    m_File.Open(&m_Param, 1000000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 0, 65535, nullptr);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_TRUE(LinesWith("Write ox").starts_with("[RedirectedFile.Export] Write ox:0, r:131071, w:131071\n"));
    EXPECT_TRUE(ReadWholeFile(Out()) == m_sContent.substr(0, 65535) + std::string(1000000 - 65535, '\0'));
}

TEST_F(RedirectedFileExportTest, EmptyFileWritesNothingInOnePass) {
    m_File.Open(&m_Param, 0, 2, nullptr, 0, 0);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_EQ(LinesWith("Write ox"), "[RedirectedFile.Export] Write ox:0, r:0, w:0\n");
}

TEST_F(RedirectedFileExportTest, FileOfZerosIsExportedAgainAndAgain) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    for (int i = 0; i < 2; ++i) {
        WriteWholeFile(Out(), "");
        m_File.Export(&m_Param, Out().c_str());
        EXPECT_EQ(ReadWholeFile(Out()), std::string(1000, '\0')) << "export " << i;
    }
    // The first export leaves no trace, so the second one is like it.
    EXPECT_EQ(LinesWith("Write ox"),
              "[RedirectedFile.Export] Write ox:0, r:1000, w:1000\n"
              "[RedirectedFile.Export] Write ox:0, r:1000, w:1000\n");
}

/// A gap is filled only as long as the last read did not end at the size, and that is the clients' business alone.
TEST_F(RedirectedFileExportTest, ExportChangesNothingForTheNextRead) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    WriteWholeFile(Out(), "");
    char vcBuffer[CRedirectedFile::GetReadRoom(100)];
    bool bEof = true;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(m_File.Read(&m_Param, 100, vcBuffer, 100, &bEof), 100) << i;
        EXPECT_FALSE(bEof);
        m_File.Export(&m_Param, Out().c_str());
        m_File.ExportInfo(&m_Param, Out().c_str(), true);
        EXPECT_EQ(m_File.GetPos(), 200) << i;
    }
}

/// The state in which a client's read would be answered is the one in which the export begins.
TEST_F(RedirectedFileExportTest, ExportBeginsWhereTheLastReadLeftTheFile) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    WriteWholeFile(Out(), "");
    char vcBuffer[CRedirectedFile::GetReadRoom(100)];
    bool bEof = false;
    EXPECT_EQ(m_File.Read(&m_Param, 900, vcBuffer, 100, &bEof), 100);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_EQ(LinesWith("Write ox"),
              "[RedirectedFile.Export] Write ox:0, r:0, w:0\n"
              "[RedirectedFile.Export] Write ox:0, r:1000, w:1000\n");
    EXPECT_EQ(m_File.GetPos(), 1000);
}

TEST_F(RedirectedFileExportTest, SourceThatHoldsTooLittleDoesNotMakeItRunForEver) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), static_cast<long long>(m_sContent.size()) - 10, 0, 1000, nullptr);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_EQ(ReadWholeFile(Out()), m_sContent.substr(m_sContent.size() - 10));
}

TEST_F(RedirectedFileExportTest, OutputThatDoesNotExistIsNotMade) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    const std::string sMissing = m_Folder / "missing";
    m_File.Export(&m_Param, sMissing.c_str());
    m_File.ExportInfo(&m_Param, sMissing.c_str(), false);
    EXPECT_EQ(LinesWith("file error"), "[RedirectedFile.Export] Content to file error: " + sMissing +
                                           "\n"
                                           "[RedirectedFile.ExportInfo] Info to file error: " +
                                           sMissing + "\n");
    EXPECT_NE(::access(sMissing.c_str(), F_OK), 0);
}

TEST_F(RedirectedFileExportTest, OutputOutsideEveryExportIsReadOnlyAndTheLoopGoesOn) {
    m_Param.SetLogControl(CRuntimeParam::kLogRedirectFile | CRuntimeParam::kLogError);
    m_Utilities.RemoveAllMountInfo();
    m_File.Open(&m_Param, 70000, 2, nullptr, 0, 0);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_EQ(LinesWith("Write ox"),
              "[RedirectedFile.Export] Write ox:0, r:65536, w:-1\n"
              "[RedirectedFile.Export] Write ox:65536, r:4464, w:-1\n");
    EXPECT_EQ(ReadWholeFile(Out()), "");
}

TEST_F(RedirectedFileExportTest, NothingIsLoggedWithoutTheLogBit) {
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.Export(&m_Param, Out().c_str());
    m_File.Export(&m_Param, (m_Folder / "missing").c_str());
    EXPECT_EQ(LinesWith("RedirectedFile.Export] Content") + LinesWith("Write ox"), "");
}

TEST_F(RedirectedFileExportTest, OutputsCachedDescriptorIsClosedAtTheEnd) {
    m_Param.SetLogControl(CRuntimeParam::kLogFileAccess);
    m_File.Open(&m_Param, 10, 2, nullptr, 0, 0);
    m_File.Export(&m_Param, Out().c_str());
    EXPECT_EQ(LinesWith("OS close file"), "[RedirectedFile.Export] OS close file \"" + Out() + "\"\n");
    m_Log.Clear();
    m_File.ExportInfo(&m_Param, Out().c_str(), true);
    EXPECT_EQ(LinesWith("OS close file"), "[RedirectedFile.ExportInfo] OS close file \"" + Out() + "\"\n");
}

TEST_F(RedirectedFileExportTest, OwnSourceAndOwnInfoFileAreNeverOverwritten) {
    const std::string sInfo = m_Folder / "info";
    const std::string sLink = m_Folder / "link";
    WriteWholeFile(sInfo, "");
    ASSERT_EQ(::link(Source().c_str(), sLink.c_str()), 0);
    m_File.Open(&m_Param, 1000, 2, sInfo.c_str(), 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 0, 1000, nullptr);
    const std::string sRecords = ReadWholeFile(sInfo);
    for (const std::string& sOutput : {sInfo, Source(), sLink}) {
        m_Log.Clear();
        m_File.Export(&m_Param, sOutput.c_str());
        m_File.ExportInfo(&m_Param, sOutput.c_str(), true);
        EXPECT_EQ(LinesWith("file error"), "[RedirectedFile.Export] Content to file error: " + sOutput +
                                               "\n"
                                               "[RedirectedFile.ExportInfo] Info to file error: " +
                                               sOutput + "\n");
    }
    EXPECT_EQ(ReadWholeFile(sInfo), sRecords);
    EXPECT_TRUE(ReadWholeFile(Source()) == m_sContent);
}

// ---- The map

TEST_F(RedirectedFileExportTest, DumpWithoutCheckPointsBeginsWithTheSegments) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 7, 0, 100, nullptr);
    m_File.AddSegment(&m_Param, "", 0, 100, 50, nullptr);
    EXPECT_EQ(Dump(false), "Segment path=" + Source() +
                               ", fox=7, ox=0, len=100\n"
                               "Segment path=Null, fox=0, ox=100, len=50\n");
    const std::string sHead = LinesWith("Info to file");
    EXPECT_TRUE(sHead.starts_with("[RedirectedFile.ExportInfo] Info to file: " + Out() + " (fid=")) << sHead;
}

TEST_F(RedirectedFileExportTest, MergedDumpSumsUpNeighboursFromOneSource) {
    const std::string sOther = m_Folder / "other";
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 7, 0, 100, nullptr);
    m_File.AddSegment(&m_Param, Source().c_str(), 500, 300, 50, nullptr);
    m_File.AddSegment(&m_Param, sOther.c_str(), 9, 350, 20, nullptr);
    EXPECT_EQ(Dump(true), "--> Merged Segment path=" + Source() +
                              ", fox=7, ox=0, len=150\n"
                              "--> Merged Segment path=" +
                              sOther + ", fox=9, ox=350, len=20\n");
}

TEST_F(RedirectedFileExportTest, MergedDumpOfAnEmptyMapHasOneLine) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    EXPECT_EQ(Dump(true), "--> Merged Segment path=Null, fox=0, ox=0, len=0\n");
    EXPECT_EQ(Dump(false), "");
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 1000, 1, nullptr);  // refused, but the source is known
    EXPECT_EQ(Dump(true), "--> Merged Segment path=" + Source() + ", fox=0, ox=0, len=0\n");
}

TEST_F(RedirectedFileExportTest, DumpOfAMapThatDoesNotCoverTheStartIsEmpty) {
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, Source().c_str(), 0, 10, 100, nullptr);
    EXPECT_EQ(Dump(false), "");
}

TEST_F(RedirectedFileExportTest, PathOfAnyLengthStandsInTheDumpWhole) {
    const std::string sLong = "/" + std::string(10000, 'p');
    m_File.Open(&m_Param, 1000, 2, nullptr, 0, 0);
    m_File.AddSegment(&m_Param, sLong.c_str(), 0, 0, 100, nullptr);
    EXPECT_EQ(Dump(false), "Segment path=" + sLong + ", fox=0, ox=0, len=100\n");
}

TEST_F(RedirectedFileExportTest, SegmentOfAnUnknownSourceIsNull) {
    const std::string sInfo = m_Folder / "info";
    const Segment record{77, 1, 0, 10};
    WriteWholeFile(sInfo, {reinterpret_cast<const char*>(&record), sizeof(record)});
    m_File.Open(&m_Param, 1000, 2, sInfo.c_str(), 0, 0);
    EXPECT_EQ(Dump(false), "Segment path=Null, fox=1, ox=0, len=10\n");
}

}  // namespace
