// The plan of src/ as three places tell it: the lists of wings, the sources, and docs/architecture.md.
#pragma once

#include <map>
#include <string>
#include <vector>

/// File names without their folder, each with its text.
using Sources = std::map<std::string, std::string>;

/// One wing, and the files (or, in the document, the names without ending) that are said to stand in it.
struct Wing {
    std::string sName;
    std::vector<std::string> vsMembers;
};
/// The lowest first.
using Wings = std::vector<Wing>;

/// From lines "name: file file ...".
Wings WingsOfLists(const std::string& sLists);
/// From the document: headings "### Name" under "## The nine wings", and table rows that begin with "| `Member` |".
Wings WingsOfDocument(const std::string& sDocument);

// Each of the following returns what is wrong, one sentence per fault, and nothing if all is well.

/// Files without a wing, files with two, and names without a file.
std::vector<std::string> MisplacedFiles(const Wings& wings, const Sources& sources);
/// Includes of a file in a later wing.
std::vector<std::string> UpwardIncludes(const Wings& wings, const Sources& sources);
/// Wings and files that the document tells otherwise than the lists, or not at all.
std::vector<std::string> UntrueTables(const Wings& wings, const Wings& document);
/// Mutexes that the document's section "## Locks" does not name as `Class::member`, and those that it names although
/// there are none.
std::vector<std::string> UntrueLocks(const Sources& sources, const std::string& sDocument);
