// CAccessRules: which clients an operator's access file admits to which export, and with which rights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class AccessRight { kNone, kReadOnly, kReadWrite };

/// What a client may do in an export.
struct AccessGrant {
    AccessRight right = AccessRight::kNone;
    bool bShared = false;  ///< may mount and use the export also while another client holds it

    bool IsAdmitted() const { return right != AccessRight::kNone; }
    bool operator==(const AccessGrant&) const = default;
};

/// The rules of one access file, in its order. The first rule that names an export and holds an address decides; where
/// none does, the address is not admitted. Never changes once it is read; any thread may ask.
///
/// The form of the file is told in nfslib-access(5). In short, a rule is a line of three words: an export's name (or
/// "*" for all), addresses and networks with commas between them, and rights.
class CAccessRules {
public:
    /// Reads the text of a file. Nothing, with a reason that names the line, if one is wrong.
    static std::optional<CAccessRules> Parse(std::string_view sText, std::string* psReason);

    /// The address is in host byte order.
    AccessGrant Find(std::string_view sExport, std::uint32_t iAddress) const;
    /// The same for a dotted address; no other text is admitted.
    AccessGrant Find(std::string_view sExport, const char* pcAddress) const;

    /// The number of rules: lines that are neither empty nor a comment.
    std::size_t GetCount() const { return m_nRules; }

private:
    /// One address or network of a rule.
    struct Entry {
        std::uint32_t iNetwork = 0;
        std::uint32_t iMask = 0;
        std::size_t iRule = 0;  ///< the place of its rule in the file
        AccessGrant grant;
    };
    using Entries = std::vector<Entry>;

    static const Entry* FindEntry(const Entries& entries, std::uint32_t iAddress);
    static bool ParseClient(const std::string& sClient, Entry* pEntry, std::string* psReason);
    static bool ParseRights(const std::string& sRights, AccessGrant* pGrant);
    bool AddLine(std::string_view sLine, std::string* psReason);
    bool AddRule(const std::vector<std::string>& vsWords, std::string* psReason);

    std::size_t m_nRules = 0;
    std::map<std::string, Entries, std::less<>> m_OfExport;  ///< by name; each in the order of the file
    Entries m_OfAll;                                         ///< of the rules for all exports
};
