// The doors that fuzzers come in by.
#include "FuzzEntries.h"

#include <algorithm>

#include "ConsoleCommands.h"
#include "ConsoleFuzz.h"
#include "ConsoleOptions.h"
#include "InfoFuzz.h"
#include "IpcFuzz.h"
#include "IpcMessages.h"
#include "MountProg.h"
#include "Nfs3Prog.h"
#include "OptionsFuzz.h"
#include "PortmapProg.h"
#include "RpcFuzz.h"
#include "SessionFuzz.h"
#include "ToolLines.h"
#include "Xdr.h"

namespace {

/// Every record that a group has, as "PREFIXn".
void AddRecords(std::vector<std::string>& vsNames, const std::string& sPrefix, int iGroup) {
    for (int iType = 1; GetKnownIpcType(iGroup, iType) == iType; ++iType) {
        vsNames.push_back(sPrefix + std::to_string(iType));
    }
}

// ---- RPC

FuzzVocabulary MakeRpcVocabulary() {
    FuzzVocabulary vocabulary{.nHead = 2, .vsWords = {}};
    for (const char* pcName : {"..", ".", "/", "../secret", "../export", "file", "folder", "entry", "folder/entry",
                               "link", "link/secret", "fuzz", ""}) {
        vocabulary.vsWords.push_back(XdrBuilder().Opaque(pcName).Bytes());
    }
    for (std::uint32_t i = 0; i < 22; ++i) {  // another procedure's number
        vocabulary.vsWords.push_back(XdrBuilder().U32(100003).U32(3).U32(i).Bytes());
    }
    return vocabulary;
}

template <class Program>
void AddProcedures(std::vector<std::string>& vsNames) {
    for (const auto& procedure : Program::GetProcedures()) {
        vsNames.emplace_back(procedure.pcTag);
    }
}

/// Every procedure of every program.
std::vector<std::string> MakeRpcWanted() {
    std::vector<std::string> vsNames;
    AddProcedures<CNfs3Prog>(vsNames);
    AddProcedures<CMountProg>(vsNames);
    AddProcedures<CPortmapProg>(vsNames);
    return vsNames;
}

// ---- Remote control

FuzzVocabulary MakeIpcVocabulary() {
    FuzzVocabulary vocabulary{.nHead = 0, .vsWords = {"/tmp", "/", "..", "%s%n", std::string(300, 'x')}};
    for (int i = 0; i < 40; ++i) {  // another type
        vocabulary.vsWords.push_back({'\2', '\0', '\0', '\0', static_cast<char>(i), '\0', '\0', '\0'});
    }
    return vocabulary;
}

std::vector<std::string> MakeIpcWanted() {
    std::vector<std::string> vsNames;
    AddRecords(vsNames, "request ", kIpcGroupRequest);
    AddRecords(vsNames, "callback ", kIpcGroupCallback);
    return vsNames;
}

// ---- Info files

FuzzVocabulary MakeInfoVocabulary() {
    FuzzVocabulary vocabulary{
        .nHead = 2,
        .vsWords = {"Segment path=", "--> Merged Segment path=", "--> CheckPoint Segment ", "-------------------\n",
                    ", fox=", ", ox=", ", len=", "Null", "18446744073709551615", "9223372036854775808", "\n"}};
    vocabulary.vsWords.push_back(std::string(8, '\0'));
    vocabulary.vsWords.push_back(std::string(8, '\xFF'));
    vocabulary.vsWords.push_back(std::string(7, '\xFF') + '\x7F');
    return vocabulary;
}

std::vector<std::string> MakeInfoWanted() {
    return {"open",           "add segment",          "check point",
            "no check point", "read refused",         "read of a source",
            "read of zeros",  "read of nothing",      "step along the records",
            "dump",           "empty dump",           "export",
            "nfsmap: a dump", "nfsmap: an info file", "nfsmap: refused"};
}

// ---- The console

FuzzVocabulary MakeConsoleVocabulary() {
    FuzzVocabulary vocabulary{
        .nHead = 2, .vsWords = {"\n", "\ndebug\n", "quit\n", "=", "/tmp", " ", "-1", "99999999999999999999", "%n%s"}};
    for (const ConsoleCommand& command : GetConsoleCommands()) {
        vocabulary.vsWords.push_back(std::string("\n") + command.pcKeyword);
    }
    return vocabulary;
}

std::vector<std::string> MakeConsoleWanted() {
    std::vector<std::string> vsNames{"empty line", "unknown command"};
    for (const ConsoleCommand& command : GetConsoleCommands()) {
        vsNames.push_back(std::string("command ") + command.pcKeyword);
    }
    return vsNames;
}

// ---- An operator's settings

FuzzVocabulary MakeOptionsVocabulary() {
    FuzzVocabulary vocabulary{.nHead = 1,
                              .vsWords = {"\n",      "\t",       " ",         "#",           ",",
                                          "/",       "*",        "rw",        "ro",          "none",
                                          ",shared", "10.0.0.1", "0.0.0.0/0", "10.0.0.0/24", "255.255.255.255/32",
                                          "fuzz",    "/33",      "/00",       "1",           "99999999999999999999",
                                          "int",     "svr",      "cli",       "/tmp=5"}};
    for (const char* pcOption : {kOptionHelp, kOptionShutdown, kOptionQuery, kOptionTest, kOptionID, kOptionLog,
                                 kOptionMode, kOptionLogFile, kOptionPidFile}) {
        vocabulary.vsWords.push_back(std::string("\n") + pcOption + "\n");
    }
    for (const ServerOptionName& name : GetServerOptionNames()) {
        vocabulary.vsWords.push_back(std::string("\n") + name.pcOption + "\n");
    }
    for (const char* pcWord : {"--at",
                               "--svg",
                               "--summary",
                               "--check",
                               "--size",
                               "--info",
                               "--segment-size",
                               "--checkpoint-size",
                               "-p",
                               "-m",
                               "--resume",
                               "--",
                               "-",
                               "0x",
                               "0x7fffffffffffffff",
                               "010",
                               "+1",
                               "1K",
                               "8388607T",
                               "65535",
                               "65536",
                               "h:e",
                               "h:e/f",
                               "h:e/d/",
                               ":",
                               ".."}) {
        vocabulary.vsWords.push_back(std::string("\n") + pcWord + "\n");
    }
    for (const std::string& sCommand : GetToolCommands()) {
        vocabulary.vsWords.push_back("\n" + sCommand + "\n");
    }
    return vocabulary;
}

std::vector<std::string> MakeOptionsWanted() {
    std::vector<std::string> vsNames{"command line: usage",
                                     "command line: refused",
                                     "command line: shutdown",
                                     "command line: query",
                                     "command line: test",
                                     "command line: serve",
                                     "environment",
                                     "access file",
                                     "access file: refused",
                                     "pid file",
                                     "pid file: of a living process",
                                     "bind address",
                                     "bind address: refused",
                                     "nfsmap: taken",
                                     "nfsmap: refused",
                                     "nfsget: refused"};
    for (const std::string& sCommand : GetToolCommands()) {
        vsNames.push_back("nfsget: " + sCommand);
    }
    return vsNames;
}

// ---- Whole sessions

FuzzVocabulary MakeSessionVocabulary() {
    FuzzVocabulary vocabulary{.nHead = 1, .vsWords = {}};
    for (int i = 0; i < 23; ++i) {  // calls on the first handles, and heard
        const auto cProcedure = static_cast<char>(i);
        vocabulary.vsWords.push_back({'\1', '\0', cProcedure, '\1', '\0', '\4', '\5', '\0'});
        vocabulary.vsWords.push_back({'\1', '\1', cProcedure, '\4', '\0', '\1', '\6', '\0', '\x11'});
    }
    for (int i = 0; i < 32; ++i) {  // what a host asks for
        vocabulary.vsWords.push_back({'\x8', '\0', static_cast<char>(i), '\0', '\4'});
    }
    for (int i = 0; i < 8; ++i) {  // and a local user does
        vocabulary.vsWords.push_back({'\x8', '\5', '\4', static_cast<char>(i)});
    }
    return vocabulary;
}

std::vector<std::string> MakeSessionWanted() {
    std::vector<std::string> vsNames = MakeRpcWanted();
    AddRecords(vsNames, "request ", kIpcGroupRequest);
    for (const char* pcName :
         {"step: connect", "step: call", "step: bytes", "step: hear some", "step: hear one", "step: hear all in turns",
          "step: hang up", "step: host asks", "step: host sends bytes", "step: host answers otherwise",
          "step: local user", "host: setRedirectedFileAttributes", "host: removeRedirectedFile",
          "host: renameRedirectedFile", "host: writeRedirectedFile"}) {
        vsNames.emplace_back(pcName);
    }
    return vsNames;
}

// ---- All

template <class Target>
std::unique_ptr<FuzzTarget> MakeTarget(const std::string& sFolder) {
    return std::make_unique<Target>(sFolder);
}

std::unique_ptr<FuzzTarget> MakeIpcTarget(const std::string& sFolder) {
    return std::make_unique<IpcFuzzWorld>(sFolder + "/channel");
}

constexpr FuzzEntry kEntries[] = {
    {"rpc", "corpus", MakeRpcVocabulary, MakeTarget<RpcFuzzWorld>, MakeRpcWanted},
    {"ipc", "corpus-ipc", MakeIpcVocabulary, MakeIpcTarget, MakeIpcWanted},
    {"info", "corpus-info", MakeInfoVocabulary, MakeTarget<InfoFuzzWorld>, MakeInfoWanted},
    {"console", "corpus-console", MakeConsoleVocabulary, MakeTarget<ConsoleFuzzWorld>, MakeConsoleWanted},
    {"options", "corpus-options", MakeOptionsVocabulary, MakeTarget<OptionsFuzzWorld>, MakeOptionsWanted},
    {"session", "corpus-session", MakeSessionVocabulary, MakeTarget<SessionFuzzWorld>, MakeSessionWanted},
};

}  // namespace

std::span<const FuzzEntry> GetFuzzEntries() {
    return kEntries;
}

const FuzzEntry* FindFuzzEntry(std::string_view sName) {
    const auto itEntry = std::ranges::find_if(kEntries, [&](const FuzzEntry& entry) { return sName == entry.pcName; });
    return itEntry == std::end(kEntries) ? nullptr : &*itEntry;
}
