// The log file and its rotation.
#include "FileLogger.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LeakGuard.h"
#include "SoftLimit.h"
#include "TempFolder.h"

namespace {

class FileLoggerTest : public testing::Test {
protected:
    std::unique_ptr<CFileLogger> Open(const std::string& sPath, long long iMaxLogSize = 0) {
        auto pLogger = std::make_unique<CFileLogger>(sPath.c_str());
        pLogger->SetMaxLogSize(iMaxLogSize);
        EXPECT_TRUE(pLogger->Open(0));
        return pLogger;
    }
    static bool Exists(const std::string& sPath) {
        struct stat attributes {};
        return ::stat(sPath.c_str(), &attributes) == 0;
    }
    /// A file's lines without their time stamps.
    static std::vector<std::string> Lines(const std::string& sPath) {
        std::istringstream text(ReadWholeFile(sPath));
        std::vector<std::string> vLines;
        for (std::string sLine; std::getline(text, sLine);) {
            vLines.push_back(sLine.substr(sizeof("[2025/01/02 03:04:05]") - 1));
        }
        return vLines;
    }

    /// A path below something that is no folder; even root cannot open it.
    std::string MakeFileInTheWay() {
        WriteWholeFile(m_Folder / "file", "");
        return m_Folder / "file/log";
    }

    LeakGuard m_Guard;
    TempFolder m_Folder;
    std::string m_sLog = m_Folder / "log";
};

TEST_F(FileLoggerTest, LinesCarryLocalTimeAndLevel) {
    ASSERT_EQ(::setenv("TZ", "UTC-5", 1), 0);
    ::tzset();
    auto pLogger = Open(m_sLog);
    EXPECT_TRUE(pLogger->LogInfo("one"));
    EXPECT_TRUE(pLogger->LogError("two"));
    EXPECT_TRUE(pLogger->LogRaw("three"));
    pLogger->Close();
    const std::time_t iNow = std::time(nullptr);
    ::unsetenv("TZ");
    ::tzset();
    const std::string sText = ReadWholeFile(m_sLog);
    const std::string sTime = "\\[[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\]";
    EXPECT_THAT(sText,
                testing::MatchesRegex(sTime + "\\[info\\] one\n" + sTime + "\\[error\\] two\n" + sTime + " three\n"));
    // The stamp, read back as local time five hours ahead, is now.
    std::tm stamp{};
    ASSERT_NE(::strptime(sText.c_str(), "[%Y/%m/%d %H:%M:%S]", &stamp), nullptr);
    EXPECT_NEAR(static_cast<double>(::timegm(&stamp) - 5 * 3600), static_cast<double>(iNow), 60.0);
}

// As logrotate does with "copytruncate".
TEST_F(FileLoggerTest, AFileThatIsEmptiedFromOutsideGoesOnAtItsBeginning) {
    for (const bool bThere : {false, true}) {
        const std::string sLog = m_Folder / (bThere ? "there" : "fresh");
        if (bThere) {
            WriteWholeFile(sLog, "[2025/01/02 03:04:05][info] earlier\n");
        }
        auto pLogger = Open(sLog);
        EXPECT_TRUE(pLogger->LogInfo("one"));
        ASSERT_EQ(::truncate(sLog.c_str(), 0), 0);
        EXPECT_TRUE(pLogger->LogInfo("two"));
        EXPECT_EQ(Lines(sLog), std::vector<std::string>{"[info] two"}) << sLog;
        pLogger->Close();
    }
    auto pLogger = Open(m_sLog, 1);
    EXPECT_TRUE(pLogger->LogInfo("aside"));
    EXPECT_TRUE(pLogger->LogInfo("in a file that rotation made"));
    pLogger->SetMaxLogSize(CFileLogger::kDefaultMaxLogSize);
    ASSERT_EQ(::truncate(m_sLog.c_str(), 0), 0);
    EXPECT_TRUE(pLogger->LogInfo("two"));
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] two"});
}

TEST_F(FileLoggerTest, NothingIsWrittenUnlessOpen) {
    CFileLogger logger(m_sLog.c_str());
    EXPECT_FALSE(logger.LogInfo("x"));
    EXPECT_FALSE(logger.LogError("x"));
    EXPECT_FALSE(logger.LogRaw("x"));
    EXPECT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.Open(0)) << "open already";
    EXPECT_TRUE(logger.LogInfo("x"));
    logger.Close();
    logger.Close();
    EXPECT_FALSE(logger.LogInfo("y"));
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] x"});
}

TEST_F(FileLoggerTest, ExistingFileIsAppendedTo) {
    WriteWholeFile(m_sLog, "[2025/01/02 03:04:05] earlier\n");
    auto pLogger = Open(m_sLog);
    pLogger->LogInfo("later");
    pLogger->Close();
    EXPECT_EQ(Lines(m_sLog), (std::vector<std::string>{" earlier", "[info] later"}));
}

TEST_F(FileLoggerTest, MissingFoldersAreMade) {
    const std::string sLog = m_Folder / "a/b/log";
    auto pLogger = Open(sLog);
    pLogger->LogInfo("x");
    pLogger->Close();
    EXPECT_EQ(Lines(sLog).size(), 1U);
}

TEST_F(FileLoggerTest, LimitIsThirtyTwoMebibytesUnlessSetAboveZero) {
    CFileLogger logger(m_sLog.c_str());
    EXPECT_EQ(logger.GetMaxLogSize(), 33554432);
    logger.SetMaxLogSize(0);
    logger.SetMaxLogSize(-5);
    EXPECT_EQ(logger.GetMaxLogSize(), 33554432);
    logger.SetMaxLogSize(1);
    EXPECT_EQ(logger.GetMaxLogSize(), 1);
}

// A line of 50 characters and a limit of 100: every third line finds the file full.
TEST_F(FileLoggerTest, FileThatReachedTheLimitIsMovedAsideBeforeTheNextLine) {
    auto pLogger = Open(m_sLog, 100);
    const std::string sMessage(50 - sizeof("[2025/01/02 03:04:05][info] ") + 1 - 1, 'x');
    for (int iLine = 0; iLine < 5; ++iLine) {
        EXPECT_TRUE(pLogger->LogInfo(sMessage.c_str()));
    }
    pLogger->Close();
    EXPECT_EQ(ReadWholeFile(m_sLog + ".1").size(), 100U);
    EXPECT_EQ(ReadWholeFile(m_sLog + ".2").size(), 100U);
    EXPECT_EQ(ReadWholeFile(m_sLog).size(), 50U);
    EXPECT_FALSE(Exists(m_sLog + ".3"));
}

TEST_F(FileLoggerTest, TakenNamesAreSteppedOverAndTheCounterGoesOn) {
    WriteWholeFile(m_sLog + ".1", "mine");
    auto pLogger = Open(m_sLog, 1);
    pLogger->LogInfo("a");
    pLogger->LogInfo("b");
    pLogger->LogInfo("c");
    pLogger->Close();
    EXPECT_EQ(ReadWholeFile(m_sLog + ".1"), "mine");
    EXPECT_EQ(Lines(m_sLog + ".2"), std::vector<std::string>{"[info] a"});
    EXPECT_EQ(Lines(m_sLog + ".3"), std::vector<std::string>{"[info] b"});
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] c"});
}

TEST_F(FileLoggerTest, CounterIsNotResetByClosing) {
    auto pLogger = Open(m_sLog, 1);
    pLogger->LogInfo("a");
    pLogger->LogInfo("b");
    pLogger->Close();
    ASSERT_EQ(::unlink((m_sLog + ".1").c_str()), 0);
    ASSERT_TRUE(pLogger->Open(0));
    pLogger->LogInfo("c");  // appended: an opened file counts from the first line on
    pLogger->LogInfo("d");
    pLogger->Close();
    EXPECT_FALSE(Exists(m_sLog + ".1"));
    EXPECT_EQ(Lines(m_sLog + ".2"), (std::vector<std::string>{"[info] b", "[info] c"}));
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] d"});
}

TEST_F(FileLoggerTest, LongLinesAreCutButKeepTheirEnd) {
    auto pLogger = Open(m_sLog);
    EXPECT_TRUE(pLogger->LogInfo(std::string(5000, 'x').c_str()));
    EXPECT_TRUE(pLogger->LogInfo("next"));
    pLogger->Close();
    const std::vector<std::string> vLines = Lines(m_sLog);
    ASSERT_EQ(vLines.size(), 2U);
    EXPECT_EQ(vLines[0], "[info] " + std::string(2047 - 1 - sizeof("[2025/01/02 03:04:05][info] ") + 1, 'x'));
    EXPECT_EQ(vLines[1], "[info] next");
}

TEST_F(FileLoggerTest, FailedOpenIsReportedOnStandardOutputWithAnEmptyID) {
    const std::string sLog = MakeFileInTheWay();
    CFileLogger logger(sLog.c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_EQ(sOutput, "[erro] () [CFileLogger.Open] OS create file \"" + sLog +
                           "\". Error=Not a directory (20)\n"
                           "[erro] () Fail to create log file \"" +
                           sLog + "\". Reason=Not a directory (20)\n");
    EXPECT_FALSE(logger.LogInfo("x"));
}

TEST_F(FileLoggerTest, CallersLogControlShowsTheStepsOfOpeningOnly) {
    CFileLogger logger(m_sLog.c_str());
    testing::internal::CaptureStdout();
    EXPECT_TRUE(logger.Open(256));
    logger.LogInfo("x");
    logger.Close();
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_THAT(sOutput, testing::HasSubstr("[info] () [CFileLogger.Open] OS splited path \"" + m_sLog + "\" into "));
    EXPECT_THAT(sOutput, testing::EndsWith("[info] () [CFileLogger.Open] OS create file \"" + m_sLog + "\"\n"));
}

TEST_F(FileLoggerTest, FailedRotationLeavesTheLoggerClosed) {
    auto pLogger = Open(m_sLog, 1);
    pLogger->LogInfo("a");
    ASSERT_EQ(::unlink(m_sLog.c_str()), 0);  // nothing is there to be renamed
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pLogger->LogInfo("b"));
    EXPECT_FALSE(pLogger->LogInfo("c"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[erro] () [CFileLogger.LogMessage] OS rename file from \"" +
                                                          m_sLog + "\" to \"" + m_sLog +
                                                          ".1\". Error=No such file or directory (2)\n");
    EXPECT_TRUE(pLogger->Open(0));
    EXPECT_TRUE(pLogger->LogInfo("d"));
    pLogger->Close();
}

TEST_F(FileLoggerTest, RotationThatCannotBeginANewFileLeavesTheLoggerClosed) {
    auto pLogger = Open(m_sLog, 1);
    pLogger->LogInfo("a");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(WithoutDescriptors([&] { return pLogger->LogInfo("b"); }));
    EXPECT_FALSE(pLogger->LogInfo("c")) << "closed";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[erro] () [CFileLogger.LogMessage] OS create file \"" + m_sLog + "\". Error=Too many open files (24)\n");
    EXPECT_FALSE(Exists(m_sLog));
    EXPECT_EQ(Lines(m_sLog + ".1"), std::vector<std::string>{"[info] a"});
    EXPECT_TRUE(pLogger->Open(0));
    EXPECT_TRUE(pLogger->LogInfo("d"));
    pLogger->Close();
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] d"});
}

// The full device takes no byte: each line is the caller's to put elsewhere, and the logger stays open.
TEST_F(FileLoggerTest, FailedWriteIsReportedAndLeavesTheLineToTheCaller) {
    auto pLogger = Open("/dev/full", 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pLogger->LogInfo("a"));
    EXPECT_FALSE(pLogger->LogRaw("b"));
    const std::string sLine =
        "\\[erro\\] \\(\\) \\[CFileLogger.LogMessage\\] OS write file \\([0-9]+\\). Error=No space left on device "
        "\\(28\\)\n";
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::MatchesRegex(sLine + sLine));
    pLogger->Close();
}

// A line that was begun in the file is not written a second time elsewhere.
TEST_F(FileLoggerTest, LineThatIsWrittenInPartCountsAsWritten) {
    auto pLogger = Open(m_sLog);
    testing::internal::CaptureStdout();
    bool bWritten = false;
    {
        const SoftLimit tenBytes(RLIMIT_FSIZE, 10);
        bWritten = pLogger->LogInfo("x");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(bWritten);
    pLogger->Close();
    EXPECT_EQ(ReadWholeFile(m_sLog).size(), 10U);
}

// What is in the file before it is opened does not count: the position is taken, which appending moves.
TEST_F(FileLoggerTest, FullFileIsNotMovedAsideBeforeItsFirstLine) {
    WriteWholeFile(m_sLog, std::string(150, 'x') + "\n");
    auto pLogger = Open(m_sLog, 100);
    EXPECT_TRUE(pLogger->LogInfo("appended"));
    EXPECT_FALSE(Exists(m_sLog + ".1"));
    EXPECT_TRUE(pLogger->LogInfo("next"));
    pLogger->Close();
    EXPECT_THAT(ReadWholeFile(m_sLog + ".1"), testing::EndsWith("[info] appended\n"));
    EXPECT_EQ(Lines(m_sLog), std::vector<std::string>{"[info] next"});
}

TEST_F(FileLoggerTest, LinesOfSeveralThreadsAreWholeAcrossRotations) {
    auto pLogger = Open(m_sLog, 4000);
    std::vector<std::thread> vThreads;
    for (int iThread = 0; iThread < 4; ++iThread) {
        vThreads.emplace_back([&pLogger, iThread] {
            const std::string sText(40, static_cast<char>('a' + iThread));
            for (int iLine = 0; iLine < 250; ++iLine) {
                EXPECT_TRUE(pLogger->LogInfo(sText.c_str()));
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    pLogger->Close();
    std::vector<std::string> vLines = Lines(m_sLog);
    for (int iFile = 1; Exists(m_sLog + "." + std::to_string(iFile)); ++iFile) {
        const std::vector<std::string> vRotated = Lines(m_sLog + "." + std::to_string(iFile));
        vLines.insert(vLines.end(), vRotated.begin(), vRotated.end());
    }
    EXPECT_EQ(vLines.size(), 1000U);
    for (const std::string& sLine : vLines) {
        ASSERT_EQ(sLine, "[info] " + std::string(40, sLine.back()));
    }
}

}  // namespace
