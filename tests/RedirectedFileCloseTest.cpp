// CRedirectedFile: closing, also while reads are under way.
#include "RedirectedFile.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "RedirectedFileFixture.h"

namespace {

class RedirectedFileCloseTest : public RedirectedFileFixture {};

// ---- Closing

TEST_F(RedirectedFileCloseTest, CloseClosesInfoFileAndSourcesOnce) {
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

TEST_F(RedirectedFileCloseTest, ClosedFileReadsNothingAndTakesNothing) {
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

TEST_F(RedirectedFileCloseTest, ReadsThatACloseOvertakesLeaveNoDescriptorInTheCache) {
    LogArgu tag{"test"};
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
        m_Utilities.CloseAllCachedFileHandles(&m_Param, &tag);
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

class RedirectedFileOvertakenTest : public RedirectedFileFixture {
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

TEST_F(RedirectedFileOvertakenTest, ReadThatFindsItselfClosedFailsInsteadOfDeliveringZeros) {
    m_Read.Open(&m_Param, 200, 1, nullptr, 0, 0);
    AddTo(A(), 0, 100);
    const auto read = ReadClosedAt("[RedirectedFile.Read] Segment", 50);
    EXPECT_EQ(read.iResult, -1);
    EXPECT_FALSE(read.bEof);
    EXPECT_EQ(m_Read.GetPos(), 0);
    EXPECT_EQ(LinesWith("OS open file"), "") << "nothing is opened behind the closing";
}

TEST_F(RedirectedFileOvertakenTest, ReadUnderWayEndsWithWhatItHas) {
    m_Read.Open(&m_Param, 200, 1, nullptr, 0, 0);
    AddTo(A(), 0, 100);
    EXPECT_EQ(ReadClosedAt("[RedirectedFile.Read] OS read file", 150).sData, SourceBytes('A', 0, 100))
        << "no zeros for what an empty map does not cover";
}

TEST_F(RedirectedFileOvertakenTest, SearchOfTheInfoFileEndsAtItsNextRecord) {
    WriteRecords(std::vector<Segment>(100, Segment{-1, 0, 500, 10}));
    m_Read.Open(&m_Param, 1000, 1, Info().c_str(), 0, 0);
    EXPECT_EQ(ReadClosedAt("[RedirectedFile.GetSegment] OS read file", 50).iResult, -1);
    const std::string sReads = LinesWith("OS read file");
    EXPECT_EQ(std::count(sReads.begin(), sReads.end(), '\n'), 1) << sReads;
}

}  // namespace
