// Follows links by hand: a regular expression would take longer for the tables of a document than all else.
#include "DocumentLinks.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <sstream>

#include "TempFolder.h"

namespace {

namespace fs = std::filesystem;

/// The lines of a document that are none of an example's.
std::vector<std::string> LinesOutsideFences(std::string_view sDocument) {
    std::vector<std::string> vsLines;
    std::istringstream text{std::string(sDocument)};
    bool bFence = false;
    for (std::string sLine; std::getline(text, sLine);) {
        if (sLine.starts_with("```")) {
            bFence = !bFence;
        } else if (!bFence) {
            vsLines.push_back(sLine);
        }
    }
    return vsLines;
}

/// The text of a heading: "### Text". Empty for any other line.
std::string HeadingText(const std::string& sLine) {
    const std::size_t iText = sLine.find_first_not_of('#');
    const bool bHeading = iText != std::string::npos && iText > 0 && sLine[iText] == ' ';
    return bHeading ? sLine.substr(iText + 1) : "";
}

std::string AnchorOf(const std::string& sHeading) {
    std::string sAnchor;
    for (const char c : sHeading) {
        const auto iChar = static_cast<unsigned char>(c);
        if (std::isalnum(iChar) != 0 || c == '-' || c == '_') {
            sAnchor += static_cast<char>(std::tolower(iChar));
        } else if (c == ' ') {
            sAnchor += '-';
        }
    }
    return sAnchor;
}

/// The path, seen from the document, and the heading behind "#".
struct Target {
    fs::path path;
    std::string sAnchor;
};

Target Resolve(const fs::path& document, const std::string& sLink) {
    const std::size_t iMark = std::min(sLink.find('#'), sLink.size());
    const std::string sPath = sLink.substr(0, iMark);
    return {sPath.empty() ? document : document.parent_path() / sPath,
            iMark < sLink.size() ? sLink.substr(iMark + 1) : ""};
}

bool IsDocument(const fs::path& path) {
    return path.extension() == ".md";
}

bool IsPassedOver(const fs::directory_entry& entry) {
    const std::string sName = entry.path().filename();
    return entry.is_directory() && (sName.starts_with(".") || sName.starts_with("build"));
}

std::map<fs::path, std::string> ReadDocuments(const std::string& sFolder) {
    std::map<fs::path, std::string> documents;
    for (auto it = fs::recursive_directory_iterator(sFolder); it != fs::recursive_directory_iterator(); ++it) {
        if (IsPassedOver(*it)) {
            it.disable_recursion_pending();
        } else if (IsDocument(it->path())) {
            documents[it->path()] = ReadWholeFile(it->path());
        }
    }
    return documents;
}

bool HasHeading(const Target& target) {
    return target.sAnchor.empty() ||
           (IsDocument(target.path) && HeadingAnchors(ReadWholeFile(target.path)).contains(target.sAnchor));
}

}  // namespace

std::vector<std::string> LinkTargets(std::string_view sDocument) {
    static constexpr std::string_view kLink = "](";
    std::vector<std::string> vsTargets;
    for (const std::string& sLine : LinesOutsideFences(sDocument)) {
        for (std::size_t iLink = sLine.find(kLink); iLink != std::string::npos; iLink = sLine.find(kLink, iLink)) {
            iLink += kLink.size();
            const std::string sTarget = sLine.substr(iLink, sLine.find(')', iLink) - iLink);
            if (sTarget.find(':') == std::string::npos) {
                vsTargets.push_back(sTarget);
            }
        }
    }
    return vsTargets;
}

std::set<std::string> HeadingAnchors(std::string_view sDocument) {
    std::map<std::string, int> counts;
    std::set<std::string> anchors;
    for (const std::string& sLine : LinesOutsideFences(sDocument)) {
        if (const std::string sText = HeadingText(sLine); !sText.empty()) {
            const std::string sAnchor = AnchorOf(sText);
            const int nEarlier = counts[sAnchor]++;
            anchors.insert(nEarlier == 0 ? sAnchor : sAnchor + "-" + std::to_string(nEarlier));
        }
    }
    return anchors;
}

std::vector<std::string> BrokenLinks(const std::string& sFolder) {
    std::vector<std::string> vsBroken;
    for (const auto& [path, sDocument] : ReadDocuments(sFolder)) {
        const std::string sName = fs::relative(path, sFolder);
        for (const std::string& sLink : LinkTargets(sDocument)) {
            const Target target = Resolve(path, sLink);
            if (!fs::exists(target.path)) {
                vsBroken.push_back(sName + ": there is no " + sLink);
            } else if (!HasHeading(target)) {
                vsBroken.push_back(sName + ": there is no heading " + sLink);
            }
        }
    }
    return vsBroken;
}
