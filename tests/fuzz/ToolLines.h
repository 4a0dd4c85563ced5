// The tools' command lines, read twice.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// Told what a command line came to.
using ReachedReport = std::function<void(std::string_view sWhat)>;

/// Lets nfsmap read the words behind its name, and a plain reading of the same: empty if both take or both refuse them,
/// with a reason, and come to the same; else what went wrong.
std::string JudgeMapLine(const std::vector<std::string>& vsWords, const ReachedReport& report);
/// The same for nfsget.
std::string JudgeGetLine(const std::vector<std::string>& vsWords, const ReachedReport& report);

/// The commands of nfsget, as JudgeGetLine reports them behind "nfsget: ".
std::vector<std::string> GetToolCommands();
