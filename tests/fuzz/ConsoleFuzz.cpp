// Lines typed at the console.
#include "ConsoleFuzz.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "ConsoleCommands.h"
#include "ConsoleInput.h"
#include "ConsoleUtilities.h"
#include "FileLogger.h"
#include "NfsMain.h"

namespace {

/// A pipe takes as much, and no user types more before it is read.
constexpr std::size_t kMaxTyped = 16384;
/// How often the log files are removed: those moved aside stay.
constexpr unsigned int kLogsPerClearing = 50;

}  // namespace

/// Keeps what it was asked to run.
class ConsoleFuzzWorld::Controller : public CNfsMain {
public:
    Controller() { CNfsMain::InitMemberVaribles("fuzz", ~0); }

    bool StartServer(int iMountPort, int /*iNfsPort*/, unsigned int /*iUId*/, unsigned int /*iGId*/, bool /*bReadOnly*/,
                     char* /*pcStatus*/) override {
        m_bServerRunning = iMountPort % 2 == 0;
        return m_bServerRunning;
    }
    void StopServer() override {}
    void RunTestMode(CRuntimeParam* /*pRuntimeParam*/, const char* pcPath, long long /*iSize*/) override {
        m_sAsked = pcPath;
    }
    int ExecuteSystemCmd(CRuntimeParam* /*pRuntimeParam*/, const char* pcCmd, bool /*bLogResult*/) override {
        m_sCommand = pcCmd;
        return -1;
    }
    // These run a command of the installation's.
    bool AddNetDeviceCredential(const char* pcPath, const char* /*pcUser*/, const char* /*pcPwd*/) override {
        m_sAsked = pcPath;
        return true;
    }
    bool RemoveNetDeviceCredential(const char* pcPath) override {
        m_sAsked = pcPath;
        return false;
    }

    std::string m_sCommand;  ///< the last shell command
    std::string m_sAsked;    ///< the path of whatever else is not done here
};

/// One input's console.
struct ConsoleFuzzWorld::Typing {
    explicit Typing(int iFile) : input(iFile) {}

    CConsoleUtilities console;
    Controller controller;
    ConsoleSession session{&console, &controller};
    CConsoleInput input;
    std::string sLine;                   ///< typed, without its end so far
    std::deque<std::string> vsExpected;  ///< lines that are to be taken
    /// The last line was as long as a line can be: it may have been taken before its end was read, which is an empty
    /// line then. Empty lines behind it are not counted.
    bool bLongest = false;
    bool bEnded = false;

    void PassEmptyLines() {
        while (bLongest && !vsExpected.empty() && vsExpected.front().empty()) {
            vsExpected.pop_front();
        }
    }
};

ConsoleFuzzWorld::ConsoleFuzzWorld(const std::string& sFolder) : m_sFolder(sFolder) {
    int viEnds[2];
    if (::pipe2(viEnds, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_Reader = CDescriptor(viEnds[0]);
    m_Writer = CDescriptor(viEnds[1]);
}

ConsoleFuzzWorld::~ConsoleFuzzWorld() = default;

std::string ConsoleFuzzWorld::Run(std::string_view sInput) {
    if (sInput.size() < 2) {
        return "";
    }
    const std::size_t nPiece = static_cast<unsigned char>(sInput[0]);
    const bool bLogFile = (static_cast<unsigned char>(sInput[1]) & 1U) != 0;
    sInput = sInput.substr(2, kMaxTyped);
    const std::string sLogs = m_sFolder + "/logs";
    if (bLogFile && m_nLogs++ % kLogsPerClearing == 0) {
        std::filesystem::remove_all(sLogs);
    }
    CFileLogger logger((sLogs + "/log").c_str());  // outlives the controller
    Typing typing(m_Reader.Get());
    if (bLogFile && logger.Open(0)) {
        typing.controller.SetFileLogger(&logger);
    }
    std::string sFailure;
    while (!sInput.empty() && sFailure.empty() && !typing.bEnded) {
        const std::string_view sPiece = sInput.substr(0, nPiece == 0 ? sInput.size() : nPiece);
        sFailure = Type(typing, sPiece);
        sInput.remove_prefix(sPiece.size());
    }
    char vcRest[4096];
    while (::read(m_Reader.Get(), vcRest, sizeof(vcRest)) > 0) {  // what was typed behind "quit"
    }
    typing.controller.SetFileLogger(nullptr);
    logger.Close();
    return sFailure;
}

std::string ConsoleFuzzWorld::Type(Typing& typing, std::string_view sBytes) {
    if (::write(m_Writer.Get(), sBytes.data(), sBytes.size()) != static_cast<ssize_t>(sBytes.size())) {
        return "the bytes were not taken";
    }
    for (const char c : sBytes) {
        if (c == '\n' || typing.sLine.size() == CConsoleInput::kMaxLine) {
            typing.vsExpected.push_back(typing.sLine);
            typing.sLine.clear();
        }
        if (c != '\n') {
            typing.sLine += c;
        }
    }
    return TakeLines(typing);
}

std::string ConsoleFuzzWorld::TakeLines(Typing& typing) {
    while (!typing.bEnded && typing.input.IsLineReady()) {
        const std::string sLine = typing.input.TakeLine();
        if (typing.vsExpected.empty() && sLine == typing.sLine && sLine.size() == CConsoleInput::kMaxLine) {
            typing.vsExpected.push_back(std::exchange(typing.sLine, ""));
        }
        typing.PassEmptyLines();
        if (!sLine.empty() || !typing.bLongest) {
            if (typing.vsExpected.empty() || sLine != typing.vsExpected.front()) {
                return "a line was not taken as it was typed";
            }
            typing.vsExpected.pop_front();
            typing.bLongest = sLine.size() == CConsoleInput::kMaxLine;
        }
        const std::string sFailure = RunLine(typing, sLine);
        if (!sFailure.empty()) {
            return sFailure;
        }
    }
    typing.PassEmptyLines();
    return typing.bEnded || typing.vsExpected.empty() ? "" : "a line was typed and not taken";
}

std::string ConsoleFuzzWorld::RunLine(Typing& typing, const std::string& sLine) {
    const std::string sText = sLine.c_str();  // a command ends at a NUL
    const bool bDebug = typing.session.bDebugMode;
    typing.controller.m_sCommand.clear();
    typing.bEnded = RunConsoleLine(typing.session, sLine.c_str()) == ConsoleNext::kEnd;
    if (typing.bEnded != (sText == "quit")) {
        return "\"quit\" did not end the loop, or something else did";
    }
    if (!typing.controller.m_sCommand.empty() && (!bDebug || "exec " + typing.controller.m_sCommand != sText)) {
        return "a shell command was run that was not asked for";
    }
    for (const ConsoleCommand& command : GetConsoleCommands()) {
        const std::string sKeyword = command.pcKeyword;
        const bool bMeant = command.bArgument ? sText.starts_with(sKeyword) && sText != sKeyword : sText == sKeyword;
        if (bMeant && (bDebug || !command.bDebugOnly)) {
            CountReached("command " + sKeyword);
            return "";
        }
    }
    CountReached(sText.empty() ? "empty line" : "unknown command");
    return "";
}
