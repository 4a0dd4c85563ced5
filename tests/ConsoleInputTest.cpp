// CConsoleInput: lines from whatever standard input is, without waiting.
#include "ConsoleInput.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "TempFolder.h"

namespace {

void WriteAll(int iFile, std::string_view sText) {
    ASSERT_EQ(::write(iFile, sText.data(), sText.size()), static_cast<ssize_t>(sText.size()));
}

/// Takes every line that is ready.
std::vector<std::string> TakeLines(CConsoleInput& input) {
    std::vector<std::string> vsLines;
    while (input.IsLineReady()) {
        vsLines.push_back(input.TakeLine());
    }
    return vsLines;
}

using Lines = std::vector<std::string>;

class ConsoleInputPipe : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> viEnds{};
        ASSERT_EQ(::pipe2(viEnds.data(), O_CLOEXEC), 0);
        m_Reader = CDescriptor(viEnds[0]);
        m_Writer = CDescriptor(viEnds[1]);
    }
    void Send(std::string_view sText) { WriteAll(m_Writer.Get(), sText); }

    CDescriptor m_Reader;
    CDescriptor m_Writer;
};

}  // namespace

TEST_F(ConsoleInputPipe, NothingIsReadyWhileNothingCame) {
    CConsoleInput input(m_Reader.Get());
    EXPECT_FALSE(input.IsLineReady());
    EXPECT_EQ(input.TakeLine(), "");
}

TEST_F(ConsoleInputPipe, LineComesWithoutItsLineFeed) {
    CConsoleInput input(m_Reader.Get());
    Send("status\n");
    EXPECT_EQ(TakeLines(input), Lines{"status"});
}

TEST_F(ConsoleInputPipe, SeveralLinesOfOneWriteAreAllHandedOut) {
    CConsoleInput input(m_Reader.Get());
    Send("debug\nstart\n\nquit\n");
    EXPECT_EQ(TakeLines(input), (Lines{"debug", "start", "", "quit"}));
}

TEST_F(ConsoleInputPipe, LineInPiecesIsHandedOutWhenItIsWhole) {
    CConsoleInput input(m_Reader.Get());
    Send("sta");
    EXPECT_FALSE(input.IsLineReady());
    Send("tus");
    EXPECT_FALSE(input.IsLineReady());
    Send("\nhe");
    EXPECT_EQ(TakeLines(input), Lines{"status"});
    Send("lp\n");
    EXPECT_EQ(TakeLines(input), Lines{"help"});
}

TEST_F(ConsoleInputPipe, LastLineWithoutLineFeedCountsWhenTheWriterIsGone) {
    CConsoleInput input(m_Reader.Get());
    Send("help\nquit");
    EXPECT_EQ(TakeLines(input), Lines{"help"});
    m_Writer.Close();
    EXPECT_EQ(TakeLines(input), Lines{"quit"});
    EXPECT_FALSE(input.IsLineReady()) << "the end of the input is no line";
}

TEST_F(ConsoleInputPipe, LineOf4095CharactersIsOneLine) {
    CConsoleInput input(m_Reader.Get());
    const std::string sLine(4095, 'x');
    Send(sLine + "\nnext\n");
    const Lines vsLines = TakeLines(input);
    ASSERT_EQ(vsLines.size(), 2U);
    EXPECT_EQ(vsLines[0].size(), 4095U);
    EXPECT_EQ(vsLines[1], "next");
}

TEST_F(ConsoleInputPipe, LongerLineComesInPiecesOf4095) {
    CConsoleInput input(m_Reader.Get());
    Send(std::string(4095, 'x') + "rest\n");
    const Lines vsLines = TakeLines(input);
    ASSERT_EQ(vsLines.size(), 2U);
    EXPECT_EQ(vsLines[0], std::string(4095, 'x'));
    EXPECT_EQ(vsLines[1], "rest");
}

TEST_F(ConsoleInputPipe, PieceOf4095IsHandedOutBeforeItsLineEnds) {
    CConsoleInput input(m_Reader.Get());
    Send(std::string(5000, 'x'));
    ASSERT_TRUE(input.IsLineReady());
    EXPECT_EQ(input.TakeLine().size(), 4095U);
    EXPECT_FALSE(input.IsLineReady());
    Send("\n");
    EXPECT_EQ(TakeLines(input), Lines{std::string(905, 'x')});
}

TEST_F(ConsoleInputPipe, DescriptorFlagsStayAsTheyWere) {
    CConsoleInput input(m_Reader.Get());
    const int iFlags = ::fcntl(m_Reader.Get(), F_GETFL);
    Send("x\n");
    EXPECT_EQ(TakeLines(input), Lines{"x"});
    EXPECT_EQ(::fcntl(m_Reader.Get(), F_GETFL), iFlags);
}

TEST(ConsoleInput, NullDeviceNeverHasALine) {
    const CDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    CConsoleInput input(file.Get());
    EXPECT_FALSE(input.IsLineReady());
    EXPECT_FALSE(input.IsLineReady());
}

TEST(ConsoleInput, ClosedDescriptorNeverHasALine) {
    CConsoleInput input(-1);
    EXPECT_FALSE(input.IsLineReady());
    EXPECT_EQ(input.TakeLine(), "");
}

TEST(ConsoleInput, FileIsReadToItsEndAndOn) {
    const TempFolder folder;
    const std::string sPath = folder / "commands";
    WriteWholeFile(sPath, "debug\nstart");
    const CDescriptor file(::open(sPath.c_str(), O_RDONLY | O_CLOEXEC));
    CConsoleInput input(file.Get());
    EXPECT_EQ(TakeLines(input), (Lines{"debug", "start"}));
    const CDescriptor appender(::open(sPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    WriteAll(appender.Get(), "quit\n");
    EXPECT_EQ(TakeLines(input), Lines{"quit"});
}

TEST(ConsoleInput, NamedPipeServesOneWriterAfterTheOther) {
    const TempFolder folder;
    const std::string sPath = folder / "fifo";
    ASSERT_EQ(::mkfifo(sPath.c_str(), 0600), 0);
    const CDescriptor reader(::open(sPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    CConsoleInput input(reader.Get());
    EXPECT_FALSE(input.IsLineReady()) << "no writer yet";
    for (const char* pcLine : {"first", "second"}) {
        const CDescriptor writer(::open(sPath.c_str(), O_WRONLY | O_CLOEXEC));
        WriteAll(writer.Get(), std::string(pcLine) + "\n");
        EXPECT_EQ(TakeLines(input), Lines{pcLine});
    }
    EXPECT_FALSE(input.IsLineReady());
}
