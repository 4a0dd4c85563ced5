// Which form is asked for, and what forms share.
#include "StatisticsForm.h"

#include <cstddef>

#include "Reason.h"

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

namespace {

/// The length of the well-formed character that a text begins with (RFC 3629); 0 if there is none.
std::size_t GetCharacterLength(std::string_view sText) {
    const auto byteAt = [sText](std::size_t i) { return static_cast<unsigned char>(sText[i]); };
    const unsigned int iFirst = byteAt(0);
    if (iFirst < 0x80) {
        return 1;
    }
    const std::size_t nLength = iFirst >= 0xF0 ? 4 : (iFirst >= 0xE0 ? 3 : 2);
    if (iFirst < 0xC2 || iFirst > 0xF4 || sText.size() < nLength) {
        return 0;
    }
    for (std::size_t i = 1; i < nLength; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    const unsigned int iSecond = byteAt(1);
    const bool bOverlong = (iFirst == 0xE0 && iSecond < 0xA0) || (iFirst == 0xF0 && iSecond < 0x90);
    const bool bNoCharacter = (iFirst == 0xED && iSecond >= 0xA0) || (iFirst == 0xF4 && iSecond >= 0x90);
    return bOverlong || bNoCharacter ? 0 : nLength;
}

}  // namespace

std::string MakeUtf8(std::string_view sText) {
    std::string sResult;
    while (!sText.empty()) {
        const std::size_t nLength = GetCharacterLength(sText);
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
