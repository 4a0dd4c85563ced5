// The links of Markdown documents, followed.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

/// Where the links of a document lead, as they are written: "file.md#heading", "#heading", "folder". Links out of the
/// tree ("https:...") and what stands between fences are left out.
std::vector<std::string> LinkTargets(std::string_view sDocument);

/// The names by which links reach the headings of a document: in lower case, blanks as hyphens, without punctuation.
/// The second heading of a name has "-1" behind it, and so on.
std::set<std::string> HeadingAnchors(std::string_view sDocument);

/// Links that lead to no file, or to no heading of one, in all documents (*.md) at and below a folder; one sentence
/// each. Folders whose names begin with "." or "build" are passed over.
std::vector<std::string> BrokenLinks(const std::string& sFolder);
