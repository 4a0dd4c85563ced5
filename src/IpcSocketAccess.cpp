// Mode and group of local sockets, from texts.
#include "IpcSocketAccess.h"

#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <grp.h>
#include <unistd.h>

#include "Reason.h"
#include "ServerOptions.h"

namespace {

constexpr int kOctal = 8;
constexpr int kDecimal = 10;

/// Room for the texts of a group's record where the system names no size; groups of many members take more.
constexpr std::size_t kGroupRecordSize = 1024;
constexpr std::size_t kMaxGroupRecordSize = std::size_t{1} << 20;

/// A whole text as a number up to a limit.
std::optional<unsigned long> ToNumber(const std::string& sText, int iBase, unsigned long lMax) {
    unsigned long lValue = 0;
    const char* pcEnd = sText.data() + sText.size();
    const auto [pcStop, error] = std::from_chars(sText.data(), pcEnd, lValue, iBase);
    return error == std::errc() && pcStop == pcEnd && lValue <= lMax ? std::optional(lValue) : std::nullopt;
}

std::optional<gid_t> FindGroup(const std::string& sGroup) {
    group record{};
    group* pFound = nullptr;
    std::vector<char> vcTexts(kGroupRecordSize);
    while (::getgrnam_r(sGroup.c_str(), &record, vcTexts.data(), vcTexts.size(), &pFound) == ERANGE &&
           vcTexts.size() < kMaxGroupRecordSize) {
        vcTexts.resize(2 * vcTexts.size());
    }
    if (pFound != nullptr) {
        return pFound->gr_gid;
    }
    // The greatest number stands for "as it is".
    const auto lNumber = ToNumber(sGroup, kDecimal, std::numeric_limits<gid_t>::max() - 1);
    return lNumber ? std::optional(static_cast<gid_t>(*lNumber)) : std::nullopt;
}

}  // namespace

bool IpcSocketAccess::Set(const ServerOptions& options, char* pcReason) {
    if (!options.sSocketMode.empty()) {
        const auto lMode = ToNumber(options.sSocketMode, kOctal, kEverybody);
        if (!lMode) {
            WriteReason(pcReason, "Socket mode \"%s\" is no octal number up to 0777", options.sSocketMode.c_str());
            return false;
        }
        iMode = static_cast<mode_t>(*lMode);
    }
    if (!options.sSocketGroup.empty()) {
        const auto iFound = FindGroup(options.sSocketGroup);
        if (!iFound) {
            WriteReason(pcReason, "Socket group \"%s\" does not exist", options.sSocketGroup.c_str());
            return false;
        }
        iGroup = *iFound;
    }
    return true;
}
