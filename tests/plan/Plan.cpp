#include "Plan.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <regex>
#include <set>
#include <sstream>

namespace {

std::vector<std::string> Lines(const std::string& sText) {
    std::vector<std::string> vsLines;
    std::istringstream text(sText);
    for (std::string sLine; std::getline(text, sLine);) {
        vsLines.push_back(sLine);
    }
    return vsLines;
}

/// The lines from a heading "## ..." to the next.
std::vector<std::string> Section(const std::string& sDocument, const std::string& sHeading) {
    const std::vector<std::string> vsLines = Lines(sDocument);
    const auto begin = std::find(vsLines.begin(), vsLines.end(), "## " + sHeading);
    const auto isHeading = [](const std::string& sLine) { return sLine.rfind("## ", 0) == 0; };
    return begin == vsLines.end() ? std::vector<std::string>()
                                  : std::vector<std::string>(begin, std::find_if(begin + 1, vsLines.end(), isHeading));
}

std::string Stem(const std::string& sFile) {
    return sFile.substr(0, sFile.rfind('.'));
}

/// The first letter in lower case: "Host binding" is the wing "host binding".
std::string WingName(std::string sHeading) {
    sHeading[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(sHeading[0])));
    return sHeading;
}

/// Each member with the place of its wing in the list; of several, the last.
std::map<std::string, std::size_t> Places(const Wings& wings) {
    std::map<std::string, std::size_t> places;
    for (std::size_t i = 0; i < wings.size(); ++i) {
        for (const std::string& sMember : wings[i].vsMembers) {
            places[sMember] = i;
        }
    }
    return places;
}

/// The same lists with the endings taken off.
Wings Stems(Wings wings) {
    for (Wing& wing : wings) {
        std::transform(wing.vsMembers.begin(), wing.vsMembers.end(), wing.vsMembers.begin(), Stem);
    }
    return wings;
}

/// What the first group of a pattern matches, in lines that hold a sign (which spares the others a slow search).
std::vector<std::string> Matches(const std::vector<std::string>& vsLines, const char* pcSign,
                                 const std::regex& pattern) {
    std::vector<std::string> vsMatches;
    for (const std::string& sLine : vsLines) {
        if (sLine.find(pcSign) == std::string::npos) {
            continue;
        }
        for (std::sregex_iterator match(sLine.begin(), sLine.end(), pattern), end; match != end; ++match) {
            vsMatches.push_back((*match)[1]);
        }
    }
    return vsMatches;
}

/// The classes around a line, the outermost first, by their indentation.
using Enclosing = std::map<std::ptrdiff_t, std::string>;

/// "Outer::Inner::" for a line that is indented so far.
std::string Scope(const Enclosing& classes, std::ptrdiff_t iIndentation) {
    std::string sScope;
    for (auto outer = classes.begin(); outer != classes.lower_bound(iIndentation); ++outer) {
        sScope += outer->second + "::";
    }
    return sScope;
}

/// The mutexes that are members of a class: "Class::member".
std::set<std::string> MutexMembers(const Sources& sources) {
    static const std::regex kClass(R"(^( *)(?:class|struct) (?:[A-Z_]+(?:\([^)]*\))? )?(\w+)[^;]*\{)");
    static const std::regex kMutex(R"(^( +)(?:mutable )?(?:\w*Mutex|std::\w*mutex) (\w+)(?: [A-Z_]+\(.*\))?;)");
    std::set<std::string> members;
    for (const auto& [sFile, sText] : sources) {
        Enclosing classes;
        for (const std::string& sLine : Lines(sText)) {
            std::smatch match;
            // The plain searches spare nearly all lines the slow ones.
            if ((sLine.find("class ") != std::string::npos || sLine.find("struct ") != std::string::npos) &&
                std::regex_search(sLine, match, kClass)) {
                classes.erase(classes.lower_bound(match.length(1)), classes.end());
                classes[match.length(1)] = match[2];
            } else if (sLine.find("utex ") != std::string::npos && std::regex_search(sLine, match, kMutex)) {
                members.insert(Scope(classes, match.length(1)) + match[2].str());
            }
        }
    }
    members.erase("Mutex::m_Mutex");  // what all others are made of
    return members;
}

}  // namespace

Wings WingsOfLists(const std::string& sLists) {
    Wings wings;
    for (const std::string& sLine : Lines(sLists)) {
        const std::size_t iColon = sLine.find(':');
        std::istringstream files(sLine.substr(iColon + 1));
        Wing& wing = wings.emplace_back();
        wing.sName = sLine.substr(0, iColon);
        for (std::string sFile; files >> sFile;) {
            wing.vsMembers.push_back(sFile);
        }
    }
    return wings;
}

Wings WingsOfDocument(const std::string& sDocument) {
    Wings wings;
    for (const std::string& sLine : Section(sDocument, "The nine wings")) {
        if (sLine.rfind("### ", 0) == 0) {
            wings.push_back({WingName(sLine.substr(4)), {}});
        } else if (sLine.rfind("| `", 0) == 0 && !wings.empty()) {
            wings.back().vsMembers.push_back(sLine.substr(3, sLine.find('`', 3) - 3));
        }
    }
    return wings;
}

std::vector<std::string> MisplacedFiles(const Wings& wings, const Sources& sources) {
    std::vector<std::string> vsFaults;
    std::set<std::string> seen;
    for (const Wing& wing : wings) {
        for (const std::string& sFile : wing.vsMembers) {
            if (!seen.insert(sFile).second) {
                vsFaults.push_back(sFile + " stands in two wings");
            }
            if (sources.count(sFile) == 0) {
                vsFaults.push_back(sFile + " stands in the wing " + wing.sName + ", but there is no such file");
            }
        }
    }
    for (const auto& [sFile, sText] : sources) {
        if (seen.count(sFile) == 0) {
            vsFaults.push_back(sFile + " stands in no wing");
        }
    }
    return vsFaults;
}

std::vector<std::string> UpwardIncludes(const Wings& wings, const Sources& sources) {
    static const std::regex kInclude(R"re(^\s*#\s*include\s*"([^"]+)")re");
    const std::map<std::string, std::size_t> places = Places(wings);
    std::vector<std::string> vsFaults;
    for (const auto& [sFile, iPlace] : places) {
        const auto source = sources.find(sFile);
        if (source == sources.end()) {
            continue;
        }
        for (const std::string& sIncluded : Matches(Lines(source->second), "include", kInclude)) {
            const auto included = places.find(sIncluded);
            if (included != places.end() && included->second > iPlace) {
                vsFaults.push_back(sFile + " (" + wings[iPlace].sName + ") includes " + sIncluded + " (" +
                                   wings[included->second].sName + ")");
            }
        }
    }
    return vsFaults;
}

std::vector<std::string> UntrueTables(const Wings& wings, const Wings& document) {
    std::vector<std::string> vsFaults;
    const std::map<std::string, std::size_t> listed = Places(Stems(wings));
    const std::map<std::string, std::size_t> told = Places(document);
    const auto wingIn = [](const Wings& lists, const std::map<std::string, std::size_t>& places,
                           const std::string& sStem) {
        const auto place = places.find(sStem);
        return place == places.end() ? std::string("no wing") : "the wing " + lists[place->second].sName;
    };
    std::set<std::string> stems;
    for (const auto* pPlaces : {&listed, &told}) {
        for (const auto& [sStem, iPlace] : *pPlaces) {
            stems.insert(sStem);
        }
    }
    for (const std::string& sStem : stems) {
        const std::string sListed = wingIn(wings, listed, sStem);
        const std::string sTold = wingIn(document, told, sStem);
        if (sListed != sTold) {
            vsFaults.push_back(sStem + ": src/CMakeLists.txt says " + sListed + ", docs/architecture.md " + sTold);
        }
    }
    for (std::size_t i = 0; i < std::max(wings.size(), document.size()); ++i) {
        const std::string sListed = i < wings.size() ? wings[i].sName : "none";
        const std::string sTold = i < document.size() ? document[i].sName : "none";
        if (sListed != sTold) {
            vsFaults.push_back("As wing " + std::to_string(i + 1) + " src/CMakeLists.txt has " + sListed +
                               ", docs/architecture.md " + sTold);
        }
    }
    return vsFaults;
}

std::vector<std::string> UntrueLocks(const Sources& sources, const std::string& sDocument) {
    static const std::regex kNamed(R"(`((?:\w+::)+\w*[mM]utex\w*)`)");
    const std::set<std::string> members = MutexMembers(sources);
    const std::vector<std::string> vsNamed = Matches(Section(sDocument, "Locks"), "utex", kNamed);
    const std::set<std::string> named(vsNamed.begin(), vsNamed.end());
    std::vector<std::string> vsFaults;
    for (const std::string& sMember : members) {
        if (named.count(sMember) == 0) {
            vsFaults.push_back(sMember + " has no place in the lock order");
        }
    }
    for (const std::string& sMember : named) {
        if (members.count(sMember) == 0) {
            vsFaults.push_back(sMember + " has a place in the lock order, but there is no such mutex");
        }
    }
    return vsFaults;
}
