// Log lines and notifications on their way out: host callback, file logger, standard output.
#include "Log.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Callback.h"
#include "FakeJvm.h"
#include "FileLogger.h"
#include "HostMethodNames.h"
#include "TempFolder.h"
#include "Utilities.h"
#include "UtilitiesFixture.h"

namespace {

/// Standard output goes to a pipe from construction to the end.
class OutputPipe {
public:
    OutputPipe() {
        std::fflush(stdout);
        m_iSaved = ::dup(STDOUT_FILENO);
        EXPECT_EQ(::pipe2(m_viPipe, O_CLOEXEC), 0);
        ::dup2(m_viPipe[1], STDOUT_FILENO);
    }
    ~OutputPipe() { Restore(); }
    OutputPipe(const OutputPipe&) = delete;
    OutputPipe& operator=(const OutputPipe&) = delete;

    /// What can be read by now, without flushing anything.
    std::string ReadNow() {
        std::string sText;
        pollfd readable{m_viPipe[0], POLLIN, 0};
        while (::poll(&readable, 1, 0) == 1) {
            char vcBuffer[4096];
            const ssize_t nRead = ::read(m_viPipe[0], vcBuffer, sizeof(vcBuffer));
            if (nRead <= 0) {
                break;
            }
            sText.append(vcBuffer, static_cast<std::size_t>(nRead));
        }
        return sText;
    }
    int ReadEnd() const { return m_viPipe[0]; }
    void Restore() {
        if (m_iSaved != -1) {
            std::fflush(stdout);
            ::dup2(m_iSaved, STDOUT_FILENO);
            for (const int iFile : {m_iSaved, m_viPipe[0], m_viPipe[1]}) {
                ::close(iFile);
            }
            m_iSaved = -1;
        }
    }
    /// Ends the writing side, so that a reader comes to its end.
    void EndOutput() {
        std::fflush(stdout);
        ::dup2(m_iSaved, STDOUT_FILENO);
        ::close(m_viPipe[1]);
        m_viPipe[1] = -1;
    }

private:
    int m_iSaved = -1;
    int m_viPipe[2] = {-1, -1};
};

class LogTest : public testing::Test {
protected:
    TempFolder m_Folder;
    CUtilities m_Utilities;
    CRuntimeParam m_Param{"10.0.0.5", 1023};
};

TEST_F(LogTest, LinesGoToStandardOutputAtOnceWithLevelAndID) {
    OutputPipe pipe;
    m_Utilities.LogInfo(&m_Param, "%s", "hello");
    EXPECT_EQ(pipe.ReadNow(), "[info] (10.0.0.5) hello\n");
    m_Utilities.LogError(&m_Param, "%s %d", "hello", 7);
    EXPECT_EQ(pipe.ReadNow(), "[erro] (10.0.0.5) hello 7\n");
    m_Utilities.LogRaw(&m_Param, "%s", "hello");
    EXPECT_EQ(pipe.ReadNow(), "hello") << "no line end is added";
}

TEST_F(LogTest, PlainFormsPrintTheirTextAsItIs) {
    OutputPipe pipe;
    m_Utilities.LogInfo(&m_Param, "100%s %d");
    m_Utilities.LogError(&m_Param, "100%n");
    m_Utilities.LogRaw(&m_Param, "%%\n");
    EXPECT_EQ(pipe.ReadNow(), "[info] (10.0.0.5) 100%s %d\n[erro] (10.0.0.5) 100%n\n%%\n");
}

TEST_F(LogTest, RouterTakesAnID) {
    OutputPipe pipe;
    m_Utilities.LogInfo("someone", "a%s");
    m_Utilities.LogError("", "b");
    m_Utilities.LogRaw("someone", "c\n");
    EXPECT_EQ(pipe.ReadNow(), "[info] (someone) a%s\n[erro] () b\nc\n");
}

TEST_F(LogTest, LongMessagesAreCutAt2047Characters) {
    const std::string sLong(5000, 'x');
    OutputPipe pipe;
    m_Utilities.LogInfo(&m_Param, "%s", sLong.c_str());
    EXPECT_EQ(pipe.ReadNow(), "[info] (10.0.0.5) " + std::string(2047, 'x') + "\n");
    m_Utilities.LogRaw(&m_Param, "%s", sLong.c_str());
    EXPECT_EQ(pipe.ReadNow(), std::string(2047, 'x'));
}

// Each thread logs its own letter: a line of two letters would be two lines in one.
TEST_F(LogTest, LinesOfSeveralThreadsStayWhole) {
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    OutputPipe pipe;
    std::string sOutput;
    std::thread reader([&] {
        char vcBuffer[65536];
        ssize_t nRead = 0;
        while ((nRead = ::read(pipe.ReadEnd(), vcBuffer, sizeof(vcBuffer))) > 0) {
            sOutput.append(vcBuffer, static_cast<std::size_t>(nRead));
        }
    });
    std::vector<std::thread> vWriters;
    for (int iThread = 0; iThread < kThreads; ++iThread) {
        vWriters.emplace_back([this, iThread] {
            const std::string sText(static_cast<std::size_t>(200 + iThread), static_cast<char>('a' + iThread));
            for (int iLine = 0; iLine < kLines; ++iLine) {
                m_Utilities.LogInfo(&m_Param, "%s", sText.c_str());
            }
        });
    }
    for (std::thread& writer : vWriters) {
        writer.join();
    }
    pipe.EndOutput();
    reader.join();
    int nLines = 0;
    std::size_t iBegin = 0;
    for (std::size_t iEnd = sOutput.find('\n'); iEnd != std::string::npos; iEnd = sOutput.find('\n', iBegin)) {
        const std::string sLine = sOutput.substr(iBegin, iEnd - iBegin);
        ASSERT_TRUE(sLine.starts_with("[info] (10.0.0.5) ")) << sLine;
        const std::string sText = sLine.substr(std::strlen("[info] (10.0.0.5) "));
        ASSERT_FALSE(sText.empty());
        ASSERT_EQ(sText, std::string(static_cast<std::size_t>(200 + sText[0] - 'a'), sText[0]));
        ++nLines;
        iBegin = iEnd + 1;
    }
    EXPECT_EQ(nLines, kThreads * kLines);
}

TEST_F(LogTest, FileLoggerTakesLinesBeforeStandardOutput) {
    CFileLogger logger((m_Folder / "log").c_str());
    m_Utilities.SetFileLogger(&logger);
    EXPECT_EQ(m_Utilities.GetFileLogger(), &logger);
    OutputPipe pipe;
    m_Utilities.LogInfo(&m_Param, "%s", "not open yet");
    EXPECT_EQ(pipe.ReadNow(), "[info] (10.0.0.5) not open yet\n") << "a logger that writes nothing passes lines on";
    ASSERT_TRUE(logger.Open(0));
    m_Utilities.LogInfo(&m_Param, "%s", "one");
    m_Utilities.LogError(&m_Param, "%s", "two");
    m_Utilities.LogRaw(&m_Param, "%s", "three");
    EXPECT_EQ(pipe.ReadNow(), "");
    logger.Close();
    pipe.Restore();
    const std::string sFile = ReadWholeFile(m_Folder / "log");
    EXPECT_THAT(sFile, testing::HasSubstr("][info] one\n"));
    EXPECT_THAT(sFile, testing::HasSubstr("][error] two\n"));
    EXPECT_THAT(sFile, testing::HasSubstr("] three\n"));
}

TEST_F(LogTest, EachKindOfLineHasItsOwnHostMethod) {
    FakeJvm jvm;
    std::vector<std::u16string> vTexts;
    const auto take = [&vTexts](const std::u16string& sMethod) {
        return [&vTexts, sMethod](const std::vector<HostArgument>& vArguments) {
            vTexts.push_back(sMethod + u" " + vArguments[0].sText + u": " + vArguments[1].sText);
            return HostAnswer{};
        };
    };
    JNIEnv* pEnv = jvm.EnterJava();
    m_Utilities.SetCallback(std::make_shared<CCallback>(
        pEnv,
        jvm.NewHost({{kHostLogInfo, take(u"info")}, {kHostLogError, take(u"error")}, {kHostLogRaw, take(u"raw")}})));
    jvm.LeaveJava();
    OutputPipe pipe;
    m_Utilities.LogInfo(&m_Param, "%s", "one");
    m_Utilities.LogError(&m_Param, "%s", "two");
    m_Utilities.LogRaw(&m_Param, "%s", "three");
    EXPECT_EQ(pipe.ReadNow(), "");
    pipe.Restore();
    EXPECT_EQ(vTexts,
              (std::vector<std::u16string>{u"info 10.0.0.5: one", u"error 10.0.0.5: two", u"raw 10.0.0.5: three"}));
    m_Utilities.SetCallback(nullptr);
}

TEST_F(LogTest, CallbackTakesLinesBeforeTheFileLoggerAndMayDecline) {
    FakeJvm jvm;
    std::vector<std::u16string> vTexts;
    std::shared_ptr<CCallback> pCallback;
    JNIEnv* pEnv = jvm.EnterJava();
    pCallback = std::make_shared<CCallback>(  // a host that has no method for errors
        pEnv, jvm.NewHost({{kHostLogInfo, [&vTexts](const std::vector<HostArgument>& vArguments) {
                                vTexts.push_back(vArguments[0].sText + u": " + vArguments[1].sText);
                                return HostAnswer{};
                            }}}));
    jvm.LeaveJava();

    CFileLogger logger((m_Folder / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_Utilities.SetFileLogger(&logger);
    m_Utilities.SetCallback(pCallback);
    EXPECT_EQ(m_Utilities.GetCallback(), pCallback);
    m_Utilities.LogInfo(&m_Param, "%s", "taken");
    m_Utilities.LogError(&m_Param, "%s", "declined");
    logger.Close();
    OutputPipe pipe;
    m_Utilities.LogError(&m_Param, "%s", "declined by both");
    EXPECT_EQ(pipe.ReadNow(), "[erro] (10.0.0.5) declined by both\n");
    pipe.Restore();
    EXPECT_EQ(vTexts, std::vector<std::u16string>{u"10.0.0.5: taken"});
    const std::string sFile = ReadWholeFile(m_Folder / "log");
    EXPECT_THAT(sFile, testing::EndsWith("][error] declined\n"));
    EXPECT_THAT(sFile, testing::Not(testing::HasSubstr("taken")));

    m_Utilities.SetCallback(nullptr);
    EXPECT_EQ(m_Utilities.GetCallback(), nullptr);
}

TEST_F(LogTest, NotificationsWithoutAHostAnswerMinusOne) {
    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, true, 2, true, 3), -1);
    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), -1);
    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/f", "/g"), -1);
    EXPECT_EQ(m_Utilities.LogWriteRedirectedFile(&m_Param, "/f", 1, SEEK_SET, 2), -1);
}

TEST_F(LogTest, NotificationsTakeTheirArgumentsToTheHostAndReturnItsAnswer) {
    FakeJvm jvm;
    std::vector<HostArgument> vSeen;
    const auto answer = [&vSeen](int iAnswer) {
        return [&vSeen, iAnswer](const std::vector<HostArgument>& vArguments) {
            vSeen = vArguments;
            return HostAnswer{iAnswer};
        };
    };
    JNIEnv* pEnv = jvm.EnterJava();
    m_Utilities.SetCallback(std::make_shared<CCallback>(pEnv, jvm.NewHost({{kHostRemove, answer(42)},
                                                                           {kHostRename, answer(43)},
                                                                           {kHostWrite, answer(44)},
                                                                           {kHostUpdate, answer(45)}})));
    jvm.LeaveJava();

    EXPECT_EQ(m_Utilities.LogRemoveRedirectedFile(&m_Param, "/f"), 42);
    ASSERT_EQ(vSeen.size(), 2U);
    EXPECT_EQ(vSeen[0].sText, u"10.0.0.5");
    EXPECT_EQ(vSeen[1].sText, u"/f");

    EXPECT_EQ(m_Utilities.LogRenameRedirectedFile(&m_Param, "/from", "/to"), 43);
    ASSERT_EQ(vSeen.size(), 3U);
    EXPECT_EQ(vSeen[0].sText, u"10.0.0.5");
    EXPECT_EQ(vSeen[1].sText, u"/from");
    EXPECT_EQ(vSeen[2].sText, u"/to");

    EXPECT_EQ(m_Utilities.LogWriteRedirectedFile(&m_Param, "/f", 1ULL << 40, SEEK_CUR, 17), 44);
    ASSERT_EQ(vSeen.size(), 5U);
    EXPECT_EQ(vSeen[0].sText, u"10.0.0.5");
    EXPECT_EQ(vSeen[1].sText, u"/f");
    EXPECT_EQ(vSeen[2].value.j, 1LL << 40);
    EXPECT_EQ(vSeen[3].value.i, SEEK_CUR);
    EXPECT_EQ(vSeen[4].value.i, 17);

    EXPECT_EQ(m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/f", true, 1, false, 2, true, 3), 45);
    ASSERT_EQ(vSeen.size(), 8U);
    EXPECT_EQ(vSeen[0].sText, u"10.0.0.5");
    EXPECT_EQ(vSeen[1].sText, u"/f");
    EXPECT_EQ(vSeen[2].value.z, JNI_TRUE);
    EXPECT_EQ(vSeen[3].value.j, 1);
    EXPECT_EQ(vSeen[4].value.z, JNI_FALSE);
    EXPECT_EQ(vSeen[5].value.j, 2);
    EXPECT_EQ(vSeen[6].value.z, JNI_TRUE);
    EXPECT_EQ(vSeen[7].value.j, 3);
    m_Utilities.SetCallback(nullptr);
}

}  // namespace
