// Reading an access file's rules, and finding the one that decides.
#include "AccessRules.h"

#include <algorithm>
#include <cctype>

#include "Ipv4Address.h"
#include "Reason.h"
#include "Texts.h"

namespace {

constexpr const char* kAllExports = "*";
constexpr char kComment = '#';
constexpr std::size_t kWordsOfRule = 3;
constexpr unsigned int kAddressBits = 32;

/// A wrong word is shown in a reason up to this length.
constexpr std::size_t kShownLength = 64;

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

/// The words of a line, up to its comment.
std::vector<std::string> SplitLine(std::string_view sLine) {
    std::vector<std::string> vsWords;
    for (std::size_t i = 0; i < sLine.size();) {
        if (IsBlank(sLine[i])) {
            ++i;
            continue;
        }
        if (sLine[i] == kComment) {
            break;
        }
        const auto itEnd = std::find_if(sLine.begin() + static_cast<std::ptrdiff_t>(i), sLine.end(), IsBlank);
        const auto iEnd = static_cast<std::size_t>(itEnd - sLine.begin());
        vsWords.emplace_back(sLine.substr(i, iEnd - i));
        i = iEnd;
    }
    return vsWords;
}

/// A word as a reason shows it: one line, and no longer than need be.
std::string Show(const std::string& sWord) {
    std::string sShown = sWord.substr(0, kShownLength);
    std::ranges::replace_if(
        sShown, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return sShown + (sWord.size() > kShownLength ? "..." : "");
}

/// The number of bits behind a network's slash; nothing for a text that is none of 0 to 32.
std::optional<unsigned int> ParsePrefix(const std::string& sText) {
    const bool bDigits =
        !sText.empty() && sText.size() <= 2 && std::ranges::all_of(sText, [](char c) { return c >= '0' && c <= '9'; });
    if (!bDigits || (sText.size() == 2 && sText[0] == '0')) {
        return std::nullopt;
    }
    const auto nBits = static_cast<unsigned int>(std::stoul(sText));
    return nBits <= kAddressBits ? std::optional(nBits) : std::nullopt;
}

std::uint32_t MakeMask(unsigned int nBits) {
    return nBits == 0 ? 0 : ~std::uint32_t{0} << (kAddressBits - nBits);
}

}  // namespace

// ---- Reading

std::optional<CAccessRules> CAccessRules::Parse(std::string_view sText, std::string* psReason) {
    CAccessRules rules;
    std::string sReason;
    for (std::size_t iBegin = 0, iLine = 1; iBegin < sText.size(); ++iLine) {
        const std::size_t iEnd = std::min(sText.find('\n', iBegin), sText.size());
        if (!rules.AddLine(sText.substr(iBegin, iEnd - iBegin), &sReason)) {
            *psReason = FormatText("line %zu: %s", iLine, sReason.c_str());
            return std::nullopt;
        }
        iBegin = iEnd + 1;
    }
    return rules;
}

bool CAccessRules::AddLine(std::string_view sLine, std::string* psReason) {
    if (sLine.find('\0') != std::string_view::npos) {
        *psReason = "holds a NUL character";
        return false;
    }
    const std::vector<std::string> vsWords = SplitLine(sLine);
    if (vsWords.empty()) {
        return true;
    }
    if (vsWords.size() < kWordsOfRule) {
        *psReason = FormatText("wants an export, clients and rights, and has %s",
                               vsWords.size() == 1 ? "the first alone" : "no rights");
        return false;
    }
    if (vsWords.size() > kWordsOfRule) {
        *psReason = FormatText("has \"%s\" behind the rights", Show(vsWords[kWordsOfRule]).c_str());
        return false;
    }
    return AddRule(vsWords, psReason);
}

bool CAccessRules::AddRule(const std::vector<std::string>& vsWords, std::string* psReason) {
    const std::string& sExport = vsWords[0];
    if (sExport.find('/') != std::string::npos) {
        *psReason = FormatText("\"%s\" is no export's name: it holds a slash", Show(sExport).c_str());
        return false;
    }
    Entry entry;
    entry.iRule = m_nRules;
    if (!ParseRights(vsWords[2], &entry.grant)) {
        *psReason =
            FormatText("\"%s\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\"", Show(vsWords[2]).c_str());
        return false;
    }
    Entries& entries = sExport == kAllExports ? m_OfAll : m_OfExport[sExport];
    // A comma at the end leaves an empty piece, which is no address.
    std::vector<std::string> vsClients;
    AppendPieces((vsWords[1] + ",").c_str(), ',', vsClients);
    for (const std::string& sClient : vsClients) {
        if (!ParseClient(sClient, &entry, psReason)) {
            return false;
        }
        entries.push_back(entry);
    }
    ++m_nRules;
    return true;
}

bool CAccessRules::ParseClient(const std::string& sClient, Entry* pEntry, std::string* psReason) {
    const std::size_t iSlash = sClient.find('/');
    const bool bNetwork = iSlash != std::string::npos;
    const std::optional<std::uint32_t> iAddress = ParseIpv4Address(sClient.substr(0, iSlash).c_str());
    if (!iAddress) {
        *psReason = FormatText("\"%s\" is no IPv4 address", Show(sClient.substr(0, iSlash)).c_str());
        return false;
    }
    const std::optional<unsigned int> nBits = bNetwork ? ParsePrefix(sClient.substr(iSlash + 1)) : kAddressBits;
    if (!nBits) {
        *psReason = FormatText("\"%s\" has no number from 0 to 32 behind its slash", Show(sClient).c_str());
        return false;
    }
    pEntry->iNetwork = *iAddress;
    pEntry->iMask = MakeMask(*nBits);
    if ((*iAddress & ~pEntry->iMask) != 0) {
        *psReason = FormatText("\"%s\" is an address in a network, not a network", Show(sClient).c_str());
        return false;
    }
    return true;
}

bool CAccessRules::ParseRights(const std::string& sRights, AccessGrant* pGrant) {
    if (sRights == "none") {
        *pGrant = {AccessRight::kNone, false};
    } else if (sRights == "ro" || sRights == "ro,shared") {
        *pGrant = {AccessRight::kReadOnly, sRights != "ro"};
    } else if (sRights == "rw" || sRights == "rw,shared") {
        *pGrant = {AccessRight::kReadWrite, sRights != "rw"};
    } else {
        return false;
    }
    return true;
}

// ---- Asking

const CAccessRules::Entry* CAccessRules::FindEntry(const Entries& entries, std::uint32_t iAddress) {
    const auto itEntry = std::ranges::find_if(
        entries, [iAddress](const Entry& entry) { return (iAddress & entry.iMask) == entry.iNetwork; });
    return itEntry != entries.end() ? &*itEntry : nullptr;
}

AccessGrant CAccessRules::Find(std::string_view sExport, std::uint32_t iAddress) const {
    const auto itOwn = m_OfExport.find(sExport);
    const Entry* pOwn = itOwn != m_OfExport.end() ? FindEntry(itOwn->second, iAddress) : nullptr;
    const Entry* pOfAll = FindEntry(m_OfAll, iAddress);
    if (pOwn == nullptr || (pOfAll != nullptr && pOfAll->iRule < pOwn->iRule)) {
        return pOfAll != nullptr ? pOfAll->grant : AccessGrant{};
    }
    return pOwn->grant;
}

AccessGrant CAccessRules::Find(std::string_view sExport, const char* pcAddress) const {
    const std::optional<std::uint32_t> iAddress = ParseIpv4Address(pcAddress);
    return iAddress ? Find(sExport, *iAddress) : AccessGrant{};
}
