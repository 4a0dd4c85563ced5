// The forms in which the figures of a server are shown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct ServerStatistics;

enum class StatisticsForm {
    kTable,      ///< for people
    kJson,       ///< one object (RFC 8259)
    kPrometheus  ///< the text exposition format 0.0.4
};

/// The form that a file is written in: by its name's end, ".json" or ".prom", else the table.
StatisticsForm GetFormOfFile(std::string_view sPath);
/// The form that a word asks for, "json" or "prometheus"; nothing for any other.
std::optional<StatisticsForm> FindForm(std::string_view sWord);

/// The whole text, with a line feed at its end.
std::string ShowStatistics(const ServerStatistics& statistics, StatisticsForm form);

// The single forms (StatisticsTable.cpp, StatisticsJson.cpp, StatisticsPrometheus.cpp).
std::string ShowTable(const ServerStatistics& statistics);
std::string ShowJson(const ServerStatistics& statistics);
std::string ShowPrometheus(const ServerStatistics& statistics);

// ---- What forms share

/// The text in UTF-8, with U+FFFD for each byte that has no place in it.
std::string MakeUtf8(std::string_view sText);
/// Nanoseconds as seconds, exactly, without zeros behind the last digit: "0.00000128", "3".
std::string ShowSeconds(std::uint64_t lNanoseconds);
