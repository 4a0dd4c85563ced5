// What an operator asks for.
#include "OptionsFuzz.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <optional>
#include <sstream>
#include <vector>

#include <arpa/inet.h>
#include <unistd.h>

#include "AccessFile.h"
#include "ConsoleOptions.h"
#include "Limits.h"
#include "ServerIdentity.h"
#include "TempFolder.h"
#include "ToolLines.h"

namespace {

constexpr std::array<const char*, 4> kExports{"fuzz", "a", "none", "*"};
constexpr std::array<const char*, 5> kAddresses{"10.0.0.1", "10.0.0.255", "192.168.7.9", "255.255.255.255", "0.0.0.0"};

/// One rule as nfslib-access(5) tells it, read plainly.
struct PlainRule {
    std::string sExport;
    std::vector<std::string> vsClients;
    AccessGrant grant;
};

std::uint32_t ToNumber(const std::string& sAddress) {
    in_addr address{};
    ::inet_pton(AF_INET, sAddress.c_str(), &address);
    return ntohl(address.s_addr);
}

/// An address or a network, bit by bit.
bool IsClient(const std::string& sText) {
    const std::size_t iSlash = sText.find('/');
    in_addr address{};
    if (::inet_pton(AF_INET, sText.substr(0, iSlash).c_str(), &address) != 1) {
        return false;
    }
    if (iSlash == std::string::npos) {
        return true;
    }
    const std::string sBits = sText.substr(iSlash + 1);
    for (unsigned int nBits = 0; nBits <= 32; ++nBits) {
        if (sBits == std::to_string(nBits)) {
            const std::uint64_t iSize = std::uint64_t{1} << (32 - nBits);
            return ntohl(address.s_addr) % iSize == 0;
        }
    }
    return false;
}

bool Holds(const std::string& sClient, std::uint32_t iAddress) {
    const std::size_t iSlash = sClient.find('/');
    const unsigned int nBits =
        iSlash == std::string::npos ? 32 : static_cast<unsigned int>(std::stoul(sClient.substr(iSlash + 1)));
    const std::uint64_t iSize = std::uint64_t{1} << (32 - nBits);
    const std::uint64_t iFirst = ToNumber(sClient.substr(0, iSlash));
    return iAddress >= iFirst && iAddress < iFirst + iSize;
}

std::optional<AccessGrant> ReadRights(const std::string& sText) {
    const bool bShared = sText.ends_with(",shared");
    const std::string sRight = bShared ? sText.substr(0, sText.size() - 7) : sText;
    if (sText == "none") {
        return AccessGrant{};
    }
    if (sRight != "ro" && sRight != "rw") {
        return std::nullopt;
    }
    return AccessGrant{sRight == "ro" ? AccessRight::kReadOnly : AccessRight::kReadWrite, bShared};
}

/// The words in front of a comment, which begins a word.
std::vector<std::string> ReadWords(const std::string& sLine) {
    std::vector<std::string> vsWords{""};
    for (const char c : sLine) {
        if (c == '#' && vsWords.back().empty()) {
            break;
        }
        if (c != ' ' && c != '\t') {
            vsWords.back() += c;
        } else if (!vsWords.back().empty()) {
            vsWords.emplace_back();
        }
    }
    if (vsWords.back().empty()) {
        vsWords.pop_back();
    }
    return vsWords;
}

std::optional<PlainRule> ReadRule(const std::vector<std::string>& vsWords) {
    if (vsWords.size() != 3 || vsWords[0].find('/') != std::string::npos) {
        return std::nullopt;
    }
    const std::optional<AccessGrant> grant = ReadRights(vsWords[2]);
    if (!grant) {
        return std::nullopt;
    }
    PlainRule rule{vsWords[0], {""}, *grant};
    for (const char c : vsWords[1]) {
        if (c == ',') {
            rule.vsClients.emplace_back();
        } else {
            rule.vsClients.back() += c;
        }
    }
    for (const std::string& sClient : rule.vsClients) {
        if (!IsClient(sClient)) {
            return std::nullopt;
        }
    }
    return rule;
}

/// Nothing for a text with a wrong line.
std::optional<std::vector<PlainRule>> ReadRules(const std::string& sText) {
    std::vector<PlainRule> vRules;
    std::istringstream lines(sText);
    for (std::string sLine; std::getline(lines, sLine);) {
        if (sLine.find('\0') != std::string::npos) {
            return std::nullopt;
        }
        const std::vector<std::string> vsWords = ReadWords(sLine);
        if (vsWords.empty()) {
            continue;
        }
        const std::optional<PlainRule> rule = ReadRule(vsWords);
        if (!rule) {
            return std::nullopt;
        }
        vRules.push_back(*rule);
    }
    return vRules;
}

AccessGrant Decide(const std::vector<PlainRule>& vRules, const std::string& sExport, const std::string& sAddress) {
    for (const PlainRule& rule : vRules) {
        for (const std::string& sClient : rule.vsClients) {
            if ((rule.sExport == "*" || rule.sExport == sExport) && Holds(sClient, ToNumber(sAddress))) {
                return rule.grant;
            }
        }
    }
    return {};
}

}  // namespace

std::string OptionsFuzzWorld::Run(std::string_view sInput) {
    if (sInput.empty()) {
        return "";
    }
    const std::string sText(sInput.substr(1));
    switch (static_cast<unsigned char>(sInput[0]) % 7) {
        case 0:
            return RunCommandLine(sText);
        case 1:
            return RunEnvironment(sText);
        case 2:
            return RunAccessFile(sText);
        case 3:
            return RunPidFile(sText);
        case 4:
            return RunBindAddress(sText);
        case 5:
            return RunToolLine(sText, true);
        default:
            return RunToolLine(sText, false);
    }
}

std::string OptionsFuzzWorld::RunCommandLine(const std::string& sText) {
    ConsoleOptions options;
    const std::optional<int> iStatus = options.Parse(m_Console, "fuzz", sText.substr(0, kMaxCommandLine).c_str());
    if (iStatus) {
        CountReached(*iStatus == 0 ? "command line: usage" : "command line: refused");
        return *iStatus == 0 || *iStatus == 1 ? "" : "an exit status that there is not";
    }
    CountReached(options.bShutdownMode ? "command line: shutdown"
                 : options.bQueryMode  ? "command line: query"
                 : options.bTestMode   ? "command line: test"
                                       : "command line: serve");
    const bool bMode = options.iAccessMode == kAccessModeInternal || options.iAccessMode == kAccessModeServer ||
                       options.iAccessMode == kAccessModeClient;
    if (!bMode || options.sID.size() > kMaxID || options.sTestPath.size() >= kPathBufferSize) {
        return "options that cannot be used";
    }
    return "";
}

std::string OptionsFuzzWorld::RunEnvironment(const std::string& sText) {
    std::istringstream lines(sText);
    std::list<std::string> vsVariables;  // the environment's own, until they are taken out of it
    for (const ServerOptionName& name : GetServerOptionNames()) {
        std::string sLine;
        std::getline(lines, sLine);
        vsVariables.push_back(std::string(name.pcVariable) + "=" + sLine);
        ::putenv(vsVariables.back().data());
    }
    const ServerOptions options = ServerOptions::FromEnvironment();
    std::string sFailure;
    for (const ServerOptionName& name : GetServerOptionNames()) {
        const char* pcValue = std::getenv(name.pcVariable);
        const std::string sValue = pcValue != nullptr ? pcValue : "";
        ::unsetenv(name.pcVariable);
        if (name.pFlag != nullptr ? options.*name.pFlag != (sValue == "1") : options.*name.pText != sValue) {
            sFailure = std::string(name.pcVariable) + " was not taken as it is";
        }
    }
    if (!sFailure.empty()) {
        return sFailure;
    }
    CountReached("environment");
    return "";
}

std::string OptionsFuzzWorld::RunAccessFile(const std::string& sText) {
    const std::string sPath = m_sFolder + "/access";
    WriteWholeFile(sPath, sText);
    CAccessFile file(sPath);
    char vcReason[kReasonBufferSize] = "";
    const bool bLoaded = file.Load(vcReason);
    const std::optional<std::vector<PlainRule>> rules = ReadRules(sText);
    if (bLoaded != rules.has_value()) {
        return bLoaded ? "an access file with a wrong line was taken" : std::string("refused: ") + vcReason;
    }
    CountReached(bLoaded ? "access file" : "access file: refused");
    if (!bLoaded) {
        const std::string sReason = vcReason;
        return !sReason.empty() && sReason.find('\n') == std::string::npos ? "" : "a reason of no or many lines";
    }
    for (const char* pcExport : kExports) {
        for (const char* pcAddress : kAddresses) {
            if (!(file.GetRules().Find(pcExport, pcAddress) == Decide(*rules, pcExport, pcAddress))) {
                return std::string("other rights than the text gives: ") + pcExport + " " + pcAddress;
            }
        }
    }
    return file.GetRules().GetCount() == rules->size() ? "" : "another number of rules";
}

std::string OptionsFuzzWorld::RunPidFile(const std::string& sText) {
    const std::string sPath = m_sFolder + "/pid";
    WriteWholeFile(sPath, sText);
    char vcReason[kReasonBufferSize] = "";
    if (!m_Console.CreatePidFile(sPath.c_str(), 0, vcReason)) {
        CountReached("pid file: of a living process");
        const bool bUntouched = ReadWholeFile(sPath) == sText;
        const bool bSaid = std::string(vcReason).ends_with("is still running");
        ::unlink(sPath.c_str());
        return bUntouched && bSaid ? "" : std::string("a pid file was refused: ") + vcReason;
    }
    CountReached("pid file");
    const bool bOurs = ReadWholeFile(sPath) == std::to_string(::getpid()) + "\n";
    m_Console.RemovePidFile(sPath.c_str(), 0);
    return bOurs && ::access(sPath.c_str(), F_OK) != 0 ? "" : "a pid file was not taken over, or stayed";
}

std::string OptionsFuzzWorld::RunBindAddress(const std::string& sText) {
    ServerOptions options;
    options.sBindAddress = sText;
    std::uint32_t iAddress = 1;
    char vcReason[kReasonBufferSize] = "";
    if (options.GetBindAddress(&iAddress, vcReason)) {
        CountReached("bind address");
        return iAddress == 0 || iAddress == ToNumber(sText.substr(0, sText.find('\0'))) ? "" : "another address";
    }
    CountReached("bind address: refused");
    return vcReason[0] != '\0' ? "" : "refused without a reason";
}

std::string OptionsFuzzWorld::RunToolLine(const std::string& sText, bool bMap) {
    std::istringstream lines(sText);
    std::vector<std::string> vsWords;
    for (std::string sLine; std::getline(lines, sLine);) {
        vsWords.emplace_back(sLine.c_str());  // an argument ends at a NUL
    }
    const ReachedReport report = [this](std::string_view sWhat) { CountReached(sWhat); };
    return bMap ? JudgeMapLine(vsWords, report) : JudgeGetLine(vsWords, report);
}
