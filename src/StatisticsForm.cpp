// Which form is asked for, and what forms share.
#include "StatisticsForm.h"

#include <cstddef>

#include "Reason.h"
#include "Utf8.h"

StatisticsForm GetFormOfFile(std::string_view sPath) {
    if (sPath.ends_with(".json")) {
        return StatisticsForm::kJson;
    }
    return sPath.ends_with(".prom") ? StatisticsForm::kPrometheus : StatisticsForm::kTable;
}

std::optional<StatisticsForm> FindForm(std::string_view sWord) {
    if (sWord == "json") {
        return StatisticsForm::kJson;
    }
    if (sWord == "prometheus") {
        return StatisticsForm::kPrometheus;
    }
    return std::nullopt;
}

std::string ShowStatistics(const ServerStatistics& statistics, StatisticsForm form) {
    switch (form) {
        case StatisticsForm::kJson:
            return ShowJson(statistics);
        case StatisticsForm::kPrometheus:
            return ShowPrometheus(statistics);
        default:
            return ShowTable(statistics);
    }
}

std::string MakeUtf8(std::string_view sText) {
    std::string sResult;
    while (!sText.empty()) {
        const std::size_t nLength = GetUtf8Length(sText);
        sResult += nLength == 0 ? std::string_view("\xEF\xBF\xBD") : sText.substr(0, nLength);
        sText.remove_prefix(nLength == 0 ? 1 : nLength);
    }
    return sResult;
}

std::string ShowSeconds(std::uint64_t lNanoseconds) {
    constexpr std::uint64_t kNanosecondsPerSecond = 1000000000;
    std::string sText = FormatText("%llu.%09llu", static_cast<unsigned long long>(lNanoseconds / kNanosecondsPerSecond),
                                   static_cast<unsigned long long>(lNanoseconds % kNanosecondsPerSecond));
    sText.erase(sText.find_last_not_of('0') + 1);
    if (sText.back() == '.') {
        sText.pop_back();
    }
    return sText;
}
