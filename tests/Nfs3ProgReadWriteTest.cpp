// READ, WRITE and COMMIT: replies byte by byte, log lines, and that no byte of another call shows.
#include <algorithm>
#include <utility>

#include <unistd.h>

#include <gmock/gmock.h>

#include "Nfs3ProgFixture.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

class Nfs3ProgReadWriteTest : public Nfs3ProgFixture {
protected:
    static std::string MakeContent(std::size_t iSize) {
        std::string sContent(iSize, '\0');
        for (std::size_t i = 0; i < iSize; ++i) {
            sContent[i] = static_cast<char>(i * 7 + i / 251);
        }
        return sContent;
    }
    std::string Read(const std::string& sHandle, std::uint64_t lOffset, std::uint32_t iCount) {
        return Call(kNfsRead, XdrBuilder().Opaque(sHandle).U64(lOffset).U32(iCount));
    }
    /// The reply that READ has to give.
    static std::string ReadReply(const std::string& sData, bool bEof) {
        return XdrBuilder()
            .U32(0)
            .Bool(false)
            .U32(static_cast<std::uint32_t>(sData.size()))
            .Bool(bEof)
            .Opaque(sData)
            .Bytes();
    }
    /// Compares without printing 64 KiB.
    static void ExpectReply(const std::string& sSeen, const std::string& sExpected) {
        EXPECT_EQ(sSeen.size(), sExpected.size());
        EXPECT_EQ(Hex(sSeen.substr(0, 24)), Hex(sExpected.substr(0, 24)));
        EXPECT_TRUE(sSeen == sExpected)
            << "differs at "
            << std::mismatch(sSeen.begin(), sSeen.end(), sExpected.begin(), sExpected.end()).first - sSeen.begin();
    }
    std::string Write(const std::string& sHandle, std::uint64_t lOffset, std::uint32_t iCount,
                      const std::string& sData) {
        return Call(kNfsWrite, XdrBuilder().Opaque(sHandle).U64(lOffset).U32(iCount).U32(0).Opaque(sData));
    }
    void ExpectWritten(const std::string& sReply, std::uint32_t iCount) {
        ASSERT_EQ(sReply.size(), 4U + 8 + 4 + 4 + 8) << Hex(sReply);
        EXPECT_EQ(Hex(sReply.substr(0, 20)), Hex(XdrBuilder().U32(0).U64(0).U32(iCount).U32(2).Bytes()));
    }
};

// ---- READ

TEST_F(Nfs3ProgReadWriteTest, ReadAnswersTheBytesAndTheirPadding) {
    const std::string sContent = MakeContent(100);
    WriteWholeFile(Path("file"), sContent);
    for (std::uint32_t iCount = 1; iCount < 10; ++iCount) {
        ExpectReply(Read(Handle("file"), 3, iCount), ReadReply(sContent.substr(3, iCount), false));
    }
}

TEST_F(Nfs3ProgReadWriteTest, ReadThatEndsExactlyAtTheEndReportsIt) {
    WriteWholeFile(Path("file"), "0123456789");
    ExpectReply(Read(Handle("file"), 5, 5), ReadReply("56789", true));
    ExpectReply(Read(Handle("file"), 5, 4), ReadReply("5678", false));
    ExpectReply(Read(Handle("file"), 5, 100), ReadReply("56789", true));
    ExpectReply(Read(Handle("file"), 10, 1), ReadReply("", true));
    ExpectReply(Read(Handle("file"), 1000, 1), ReadReply("", true));
}

TEST_F(Nfs3ProgReadWriteTest, ReadOf100000BytesAnswersAtMost65536) {
    const std::string sContent = MakeContent(200000);
    WriteWholeFile(Path("file"), sContent);
    ExpectReply(Read(Handle("file"), 1, 100000), ReadReply(sContent.substr(1, 65536), false));
    ExpectReply(Read(Handle("file"), 0, 65536), ReadReply(sContent.substr(0, 65536), false));
    ExpectReply(Read(Handle("file"), 134464, 100000), ReadReply(sContent.substr(134464), true));
}

TEST_F(Nfs3ProgReadWriteTest, ReadOfNothingIsAtTheEndWhereverItLies) {
    WriteWholeFile(Path("file"), "0123456789");
    for (const std::uint64_t lOffset : {std::uint64_t{0}, std::uint64_t{5}, ~std::uint64_t{0}}) {
        ExpectReply(Read(Handle("file"), lOffset, 0), ReadReply("", true));
    }
}

TEST_F(Nfs3ProgReadWriteTest, CountUpToTheFreeReplyIsTakenAndBeyondItIsRefused) {
    WriteWholeFile(Path("file"), "0123456789");
    const std::string sHandle = Handle("file");
    SetLog(CRuntimeParam::kLogError);
    constexpr std::uint32_t kFree = 1048576 - 20;  // nothing but the head of the reply stands before the data
    ExpectReply(Read(sHandle, 0, kFree), ReadReply("0123456789", true));
    EXPECT_THAT(TakeLog(), IsEmpty());
    for (const std::uint32_t iCount : {kFree + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        ExpectBareFailure(Read(sHandle, 7, iCount), 22, 1);
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureREAD] Count bigger than free buffer (path=" + Path("file") +
                                        ", offset=7 length=" + std::to_string(iCount) + ")",
                                    "[Nfs3Prog.ProcedureREAD] Read fail"}));
    }
}

TEST_F(Nfs3ProgReadWriteTest, FailedReadAnswers22AndNoByteBehindIt) {
    ::mkdir(Path("dir").c_str(), 0755);
    const std::string sHandle = Handle("dir");
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Read(sHandle, 5, 10), 22, 1);
    const std::vector<std::string> vsLog = TakeLog();
    ASSERT_GE(vsLog.size(), 2U);
    EXPECT_EQ(vsLog[vsLog.size() - 2],
              "[Nfs3Prog.ProcedureREAD] Read return -1 (path=" + Path("dir") + ", offset=5 length=10)");
    EXPECT_EQ(vsLog.back(), "[Nfs3Prog.ProcedureREAD] Read fail");
}

// What is told is what was asked of the file, not what the client asked for.
TEST_F(Nfs3ProgReadWriteTest, FailedReadTellsTheLengthItTried) {
    ::mkdir(Path("dir").c_str(), 0755);
    const std::string sHandle = Handle("dir");
    const std::string sTag = "[Nfs3Prog.ProcedureREAD] ";
    for (const auto& [iCount, pcTried] : {std::pair{65535U, "65535"}, {65536U, "65536"}, {100000U, "65536"}}) {
        SetLog(CRuntimeParam::kLogError);
        ExpectBareFailure(Read(sHandle, 5, iCount), 22, 1);
        EXPECT_THAT(TakeLog(),
                    Contains(sTag + "Read return -1 (path=" + Path("dir") + ", offset=5 length=" + pcTried + ")"));
        SetLog(CRuntimeParam::kLogProcFuncArgu);
        Read(sHandle, 5, iCount);
        EXPECT_THAT(TakeLog(), Contains(sTag + "Offset=5, length=" + std::to_string(iCount)));
    }
}

TEST_F(Nfs3ProgReadWriteTest, ReadAtAnOffsetThatIsNoneFails) {
    WriteWholeFile(Path("file"), "0123456789");
    for (const std::uint64_t lOffset : {0x8000000000000000ULL, 0xFFFFFFFFFFFFFFFFULL}) {
        ExpectBareFailure(Read(Handle("file"), lOffset, 1), 22, 1);
    }
}

TEST_F(Nfs3ProgReadWriteTest, ReadOfNothingKnownAnswers5) {
    ExpectBareFailure(Read(m_sForged, 0, 10), 5, 1);
    ExpectBareFailure(Read(Handle("missing"), 0, 10), 5, 1);
    ExpectBareFailure(Read("ab", 0, 10), 5, 1);
}

TEST_F(Nfs3ProgReadWriteTest, ReadLogsItsArgumentsAndWhatItDelivered) {
    WriteWholeFile(Path("file"), "0123456789");
    const std::string sHandle = Handle("file");
    const std::string sTag = "[Nfs3Prog.ProcedureREAD] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Read(sHandle, 2, 3);
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Path = " + Path("file"), sTag + "Offset=2, length=3", sTag + "Read=3 (eof=F)",
                                sTag + "End stat=0"}));
    Read(sHandle, 18446744073709551615ULL, 0);
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Path = " + Path("file"), sTag + "Offset=18446744073709551615, length=0",
                                sTag + "Read=0 (eof=T)", sTag + "End stat=0"}));
    Read(m_sForged, 2, 3);
    EXPECT_EQ(TakeLog(), (Lines{sTag + "End stat=5"}));
}

TEST_F(Nfs3ProgReadWriteTest, RedirectedFileMayAnswerMoreThanAsked) {
    // 10 bytes of a source, zeros behind them: a read over that border gets as many zeros as it asked for in all.
    WriteWholeFile(Path("virtual"), "");
    WriteWholeFile(Path("source"), "0123456789");
    m_Utilities.OpenRedirectedFile(&m_Param, Path("virtual").c_str(), 300000, false, 0, 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_Param, Path("virtual").c_str(), Path("source").c_str(), 0, 0,
                                                     10, vcReason))
        << vcReason;
    const std::string sReply = Read(Handle("virtual"), 0, 65536);
    const std::size_t nData = WordAt(sReply, 16);
    EXPECT_EQ(nData, 10U + 65536);
    ExpectReply(sReply, ReadReply("0123456789" + std::string(65536, '\0'), false));
    ExpectReply(Read(Handle("virtual"), 299990, 100), ReadReply(std::string(10, '\0'), true));
    EXPECT_EQ(WordAt(Read(Handle("virtual"), 300000, 1), 0), 0U) << "at its end there is nothing more to fail";
}

// ---- WRITE

TEST_F(Nfs3ProgReadWriteTest, WriteStoresAndAnswersFileSync) {
    WriteWholeFile(Path("file"), "0123456789");
    ExpectWritten(Write(Handle("file"), 2, 3, "abc"), 3);
    EXPECT_EQ(ReadWholeFile(Path("file")), "01abc56789");
    ExpectWritten(Write(Handle("file"), 12, 1, "z"), 1);
    EXPECT_EQ(ReadWholeFile(Path("file")), std::string("01abc56789\0\0z", 13));
}

TEST_F(Nfs3ProgReadWriteTest, EveryWriteCarriesTheVerifierOfTheStart) {
    WriteWholeFile(Path("file"), "");
    const std::string sFirst = Write(Handle("file"), 0, 3, "abc").substr(20);
    EXPECT_EQ(Hex(Write(Handle("file"), 0, 16384, std::string(20000, 'x')).substr(20)), Hex(sFirst));
    XdrReader reader(sFirst);
    const std::uint64_t lStart = reader.U64();
    const std::uint64_t lNow = CUtilities::GetCurrentSystemTimeInMilliseconds();
    EXPECT_LE(lStart, lNow);
    EXPECT_GT(lStart + 600000, lNow) << "milliseconds since 1970";
}

TEST_F(Nfs3ProgReadWriteTest, WriteOf20000BytesStores16384) {
    const std::string sData = MakeContent(20000);
    WriteWholeFile(Path("file"), "");
    ExpectWritten(Write(Handle("file"), 0, 20000, sData), 16384);
    EXPECT_TRUE(ReadWholeFile(Path("file")) == sData.substr(0, 16384));
}

TEST_F(Nfs3ProgReadWriteTest, CountDecidesNotTheLengthOfTheData) {
    WriteWholeFile(Path("file"), "0123456789");
    ExpectWritten(Write(Handle("file"), 0, 2, "abcdef"), 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), "ab23456789");
    ExpectWritten(Write(Handle("file"), 0, 0, "abcdef"), 0);
    EXPECT_EQ(ReadWholeFile(Path("file")), "ab23456789");
}

TEST_F(Nfs3ProgReadWriteTest, CountBeyondTheDataTakesWhatFollowsAndThenZeros) {
    WriteWholeFile(Path("file"), "");
    const std::string sArguments =
        XdrBuilder().Opaque(Handle("file")).U64(0).U32(20).U32(0).Opaque("abcde").Bytes();  // 3 bytes of padding
    CallWithMoreBehind(kNfsWrite, sArguments, "NEXT");
    EXPECT_EQ(ReadWholeFile(Path("file")), std::string("abcde\0\0\0NEXT\0\0\0\0\0\0\0\0", 20));
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 4U) << "the next call is still to be read";
    WriteWholeFile(Path("file"), "");
    ExpectWritten(Write(Handle("file"), 0, 0xFFFFFFFFU, ""), 16384);
    EXPECT_TRUE(ReadWholeFile(Path("file")) == std::string(16384, '\0')) << "never what the buffer held before";
}

TEST_F(Nfs3ProgReadWriteTest, WritePastTheMaximumFileSizeAnswers27) {
    WriteWholeFile(Path("file"), "");
    SetLog(CRuntimeParam::kLogError);
    constexpr std::uint64_t kMax = std::uint64_t{1} << 41;
    for (const std::uint64_t lOffset : {kMax - 3, kMax, kMax + 1, ~std::uint64_t{0}}) {
        ExpectBareFailure(Write(Handle("file"), lOffset, 4, "abcd"), 27, 2);
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureWRITE] Write fail"})) << lOffset;
    }
    ExpectBareFailure(Write(Handle("file"), kMax + 1, 0, ""), 27, 2);
    ExpectBareFailure(Write(Handle("file"), kMax - 20000, 20001, "abcd"), 27, 2);
    ExpectWritten(Write(Handle("file"), kMax, 0, ""), 0);
    EXPECT_EQ(ReadWholeFile(Path("file")), "");
}

TEST_F(Nfs3ProgReadWriteTest, ReadOnlyServerAnswers13EvenForAStaleHandle) {
    WriteWholeFile(Path("file"), "0123456789");
    m_Prog.SetReadOnly(true);
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Write(Handle("file"), 0, 1, "x"), 13, 2);
    EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureWRITE] Write fail"}));
    ExpectBareFailure(Write(m_sForged, 0, 1, "x"), 13, 2);
    ExpectBareFailure(Write(Handle("missing"), 0, 1, "x"), 13, 2);
    EXPECT_EQ(ReadWholeFile(Path("file")), "0123456789");
}

TEST_F(Nfs3ProgReadWriteTest, WriteToNothingKnownAnswers5) {
    ExpectBareFailure(Write(m_sForged, 0, 1, "x"), 5, 2);
    ExpectBareFailure(Write(Handle("missing"), 0, 1, "x"), 5, 2);
}

TEST_F(Nfs3ProgReadWriteTest, FailedWriteAnswers22) {
    ::mkdir(Path("dir").c_str(), 0755);
    const std::string sHandle = Handle("dir");
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Write(sHandle, 0, 1, "x"), 22, 2);
    EXPECT_EQ(TakeLog().back(), "[Nfs3Prog.ProcedureWRITE] Write fail");
}

TEST_F(Nfs3ProgReadWriteTest, WriteLogsItsArgumentsAndWhatItStored) {
    WriteWholeFile(Path("file"), "");
    const std::string sHandle = Handle("file");
    const std::string sTag = "[Nfs3Prog.ProcedureWRITE] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    Write(sHandle, 5, 2, "abc");
    EXPECT_EQ(TakeLog(), (Lines{sTag + "Path = " + Path("file"), sTag + "Offset=5, length=3, count=2", sTag + "Write=2",
                                sTag + "End stat=0"}));
}

TEST_F(Nfs3ProgReadWriteTest, WriteToARedirectedFileIsTheHostsToAnswer) {
    WriteWholeFile(Path("virtual"), "on disk");
    m_Utilities.OpenRedirectedFile(&m_Param, Path("virtual").c_str(), 100, false, 0, 0);
    ExpectBareFailure(Write(Handle("virtual"), 3, 4, "abcd"), 22, 2);
    m_Log.SetHost([](const Notification& notification) { return static_cast<int>(notification.iLen) - 1; });
    m_Log.Clear();
    ExpectWritten(Write(Handle("virtual"), 3, 4, "abcd"), 3);
    ASSERT_EQ(m_Log.Notifications().size(), 1U);
    const Notification told = m_Log.Notifications()[0];
    EXPECT_EQ(told.sOperation, "write");
    EXPECT_EQ(told.sID, kExportName);
    EXPECT_EQ(told.sIpcID, kIpcID);
    EXPECT_EQ(told.iSeek, 3U);
    EXPECT_EQ(told.iSeekType, SEEK_SET);
    EXPECT_EQ(told.iLen, 4U);
    EXPECT_EQ(ReadWholeFile(Path("virtual")), "on disk");
}

TEST_F(Nfs3ProgReadWriteTest, FailuresLogTheirReasonBeforeTheEnd) {
    ::mkdir(Path("dir").c_str(), 0755);
    const std::string sDir = Handle("dir");
    const std::string sMissing = Handle("missing");
    const std::string sRead = "[Nfs3Prog.ProcedureREAD] ";
    const std::string sWrite = "[Nfs3Prog.ProcedureWRITE] ";
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogError);
    Read(m_sForged, 5, 10);
    EXPECT_EQ(TakeLog(), (Lines{sRead + "Path record not found", sRead + "Read fail", sRead + "End stat=5"}));
    Read(sMissing, 5, 10);
    EXPECT_EQ(TakeLog(), (Lines{sRead + "Path = " + Path("missing"), sRead + "Read fail", sRead + "End stat=5"}));
    Read(sDir, 5, 0xFFFFFFFFU);
    EXPECT_EQ(TakeLog(),
              (Lines{sRead + "Path = " + Path("dir"), sRead + "Offset=5, length=4294967295",
                     sRead + "Count bigger than free buffer (path=" + Path("dir") + ", offset=5 length=4294967295)",
                     sRead + "Read fail", sRead + "End stat=22"}));
    Write(m_sForged, 5, 1, "x");
    EXPECT_EQ(TakeLog(), (Lines{sWrite + "Path record not found", sWrite + "Write fail", sWrite + "End stat=5"}));
    Write(sDir, ~std::uint64_t{0}, 1, "x");
    EXPECT_EQ(TakeLog(),
              (Lines{sWrite + "Path = " + Path("dir"), sWrite + "Offset=18446744073709551615, length=1, count=1",
                     sWrite + "Write fail", sWrite + "End stat=27"}));
    m_Prog.SetReadOnly(true);
    Write(m_sForged, 5, 1, "x");
    EXPECT_EQ(TakeLog(), (Lines{sWrite + "Path record not found", sWrite + "Write fail", sWrite + "End stat=13"}));
    Write(sDir, 5, 1, "x");
    EXPECT_EQ(TakeLog(), (Lines{sWrite + "Path = " + Path("dir"), sWrite + "Write fail", sWrite + "End stat=13"}));
}

// ---- COMMIT

TEST_F(Nfs3ProgReadWriteTest, CommitAnswers5) {
    SetLog(CRuntimeParam::kLogError);
    WriteWholeFile(Path("file"), "");
    ExpectBareFailure(Call(kNfsCommit, XdrBuilder().Opaque(Handle("file")).U64(0).U32(0)), 5, 2);
    EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureCOMMIT] Path record not found"}));
}

}  // namespace
