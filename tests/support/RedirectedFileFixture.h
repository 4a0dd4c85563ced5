// A redirected file with two sources and an empty info file.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RedirectedFile.h"
#include "TempFolder.h"

inline constexpr long long kMiB = 1048576;
inline constexpr int kAllLogs = 1023;

/// One byte of the source named by a letter, different at every offset a test uses.
inline char SourceByte(char cSource, long long iOffset) {
    return static_cast<char>(cSource + iOffset * 7 + iOffset / 251);
}

inline std::string SourceBytes(char cSource, long long iOffset, long long iLength) {
    std::string sBytes;
    for (long long i = 0; i < iLength; ++i) {
        sBytes += SourceByte(cSource, iOffset + i);
    }
    return sBytes;
}

inline std::string Zeros(std::size_t n) {
    return std::string(n, '\0');
}

struct ReadResult {
    int iResult;
    bool bEof;
    std::string sData;
};

class RedirectedFileFixture : public testing::Test {
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
    std::string LinesWith(const std::string& sPart) const { return m_Log.LinesWith(sPart); }

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", kAllLogs};
    CRedirectedFile m_File{&m_Utilities};
    char m_vcReason[kReasonBufferSize] = "";
};
