// Reading JSON, and the text that Prometheus' collectors read.
#include "FigureReaders.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <regex>
#include <set>
#include <stdexcept>
#include <vector>

#include "StatisticsForm.h"

namespace {

void Demand(bool bHolds, const std::string& sWhat) {
    if (!bHolds) {
        throw std::runtime_error(sWhat);
    }
}

// ---- JSON

class JsonReader {
public:
    explicit JsonReader(std::string_view sText) : m_sText(sText) {}

    std::map<std::string, std::string> ReadAll() {
        ReadValue("");
        Demand(Peek() == '\0', "text behind the value at " + std::to_string(m_i));
        return m_mValues;
    }

private:
    /// The next character that is no blank; NUL at the end.
    char Peek() {
        while (m_i < m_sText.size() && std::string_view(" \t\r\n").find(m_sText[m_i]) != std::string_view::npos) {
            ++m_i;
        }
        return m_i < m_sText.size() ? m_sText[m_i] : '\0';
    }
    void Take(char c) {
        Demand(Peek() == c, std::string("no '") + c + "' at " + std::to_string(m_i));
        ++m_i;
    }
    void ReadValue(const std::string& sPath) {
        switch (Peek()) {
            case '{':
                ReadList('{', '}', [&](std::size_t) {
                    const std::string sName = ReadText();
                    Take(':');
                    ReadValue(sPath + (sPath.empty() ? "" : ".") + sName);
                });
                break;
            case '[':
                ReadList('[', ']', [&](std::size_t i) { ReadValue(sPath + "[" + std::to_string(i) + "]"); });
                break;
            case '"':
                Keep(sPath, ReadText());
                break;
            default:
                Keep(sPath, ReadWord());
        }
    }
    template <typename Element>
    void ReadList(char cBegin, char cEnd, const Element& element) {
        Take(cBegin);
        for (std::size_t i = 0; Peek() != cEnd; ++i) {
            if (i > 0) {
                Take(',');
            }
            element(i);
        }
        Take(cEnd);
    }
    std::string ReadText() {
        Take('"');
        std::string sResult;
        while (m_i < m_sText.size() && m_sText[m_i] != '"') {
            const char c = m_sText[m_i++];
            Demand(static_cast<unsigned char>(c) >= 0x20, "a control character in a text");
            sResult += c == '\\' ? ReadEscape() : c;
        }
        Demand(MakeUtf8(sResult) == sResult, "a text that is not UTF-8");
        Demand(m_i < m_sText.size(), "a text without end");
        ++m_i;
        return sResult;
    }
    char ReadEscape() {
        static const std::map<char, char> mEscapes{{'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'b', '\b'},
                                                   {'f', '\f'}, {'n', '\n'},  {'r', '\r'}, {'t', '\t'}};
        Demand(m_i < m_sText.size(), "a text without end");
        const char c = m_sText[m_i++];
        if (c != 'u') {
            Demand(mEscapes.contains(c), "an unknown escape");
            return mEscapes.at(c);
        }
        const std::string sDigits(m_sText.substr(m_i, 4));
        Demand(std::regex_match(sDigits, std::regex("00[01][0-9a-f]")), "an escape that is not needed: " + sDigits);
        m_i += 4;
        return static_cast<char>(std::stoi(sDigits, nullptr, 16));
    }
    std::string ReadWord() {
        const std::size_t iBegin = m_i;
        while (m_i < m_sText.size() &&
               (std::isalnum(m_sText[m_i]) != 0 || m_sText[m_i] == '.' || m_sText[m_i] == '-')) {
            ++m_i;
        }
        const std::string sWord(m_sText.substr(iBegin, m_i - iBegin));
        static const std::regex kWord("true|false|null|-?(0|[1-9][0-9]*)(\\.[0-9]+)?");
        Demand(std::regex_match(sWord, kWord), "no value at " + std::to_string(iBegin));
        return sWord;
    }
    void Keep(const std::string& sPath, const std::string& sValue) {
        Demand(m_mValues.emplace(sPath, sValue).second, "twice: " + sPath);
    }

    std::string_view m_sText;
    std::size_t m_i = 0;
    std::map<std::string, std::string> m_mValues;
};

// ---- Prometheus

constexpr const char* kName = "[a-zA-Z_:][a-zA-Z0-9_:]*";

double ReadNumber(const std::string& sText) {
    static const std::regex kNumber("[+-]?Inf|NaN|[+-]?[0-9]+(\\.[0-9]+)?([eE][+-]?[0-9]+)?");
    Demand(std::regex_match(sText, kNumber), "no number: " + sText);
    return sText == "+Inf" ? std::numeric_limits<double>::infinity() : std::stod(sText);
}

/// The metric that a sample belongs to: that of its name, or the histogram whose part it is.
std::string GetMetric(const PrometheusText& text, const std::string& sName) {
    for (const char* pcSuffix : {"_bucket", "_sum", "_count"}) {
        const std::string sBase = sName.substr(0, sName.size() - std::min(sName.size(), std::string(pcSuffix).size()));
        const auto itType = text.mTypes.find(sBase);
        if (sName.ends_with(pcSuffix) && itType != text.mTypes.end() && itType->second == "histogram") {
            return sBase;
        }
    }
    return sName;
}

/// The buckets of one histogram and set of labels, with what belongs to them.
struct Histogram {
    std::vector<std::pair<double, double>> vBuckets;  ///< end and count
    bool bSum = false;
    double dCount = -1;
};

/// A label's value is in quotes, and in it stand \\, \" and \n escaped.
void CheckLabels(const std::string& sLabels) {
    static const std::regex kLabels(
        R"re(\{([a-zA-Z_][a-zA-Z0-9_]*="([^"\\]|\\["\\n])*"(,[a-zA-Z_][a-zA-Z0-9_]*="([^"\\]|\\["\\n])*")*)?\})re");
    Demand(sLabels.empty() || std::regex_match(sLabels, kLabels), "labels " + sLabels);
}

void NotePart(std::map<std::string, Histogram>& mHistograms, const std::string& sMetric, const std::string& sName,
              std::string sLabels, double dValue) {
    static const std::regex kEnd(R"re(,?le="([^"]*)")re");
    std::smatch match;
    const bool bEnd = std::regex_search(sLabels, match, kEnd);
    const std::string sEnd = bEnd ? match[1].str() : "";
    sLabels = std::regex_replace(sLabels, kEnd, "");
    Histogram& histogram = mHistograms[sMetric + sLabels];
    Demand(bEnd == (sName == sMetric + "_bucket"), "a bucket has its end, and nothing else has: " + sName + sLabels);
    if (bEnd) {
        histogram.vBuckets.emplace_back(ReadNumber(sEnd), dValue);
    } else if (sName == sMetric + "_sum") {
        histogram.bSum = true;
    } else {
        Demand(sName == sMetric + "_count", "no part of a histogram: " + sName);
        histogram.dCount = dValue;
    }
}

void CheckHistogram(const std::string& sName, const Histogram& histogram) {
    Demand(histogram.bSum && !histogram.vBuckets.empty(), "a part is missing: " + sName);
    for (std::size_t i = 1; i < histogram.vBuckets.size(); ++i) {
        Demand(histogram.vBuckets[i - 1].first < histogram.vBuckets[i].first, "ends do not ascend: " + sName);
        Demand(histogram.vBuckets[i - 1].second <= histogram.vBuckets[i].second, "counts do not ascend: " + sName);
    }
    Demand(histogram.vBuckets.back().first == std::numeric_limits<double>::infinity(), "no +Inf: " + sName);
    Demand(histogram.vBuckets.back().second == histogram.dCount, "+Inf is not the count: " + sName);
}

}  // namespace

std::map<std::string, std::string> ReadJson(std::string_view sText) {
    return JsonReader(sText).ReadAll();
}

PrometheusText PrometheusText::Parse(std::string_view sText) {
    static const std::regex kHelp(std::string("# HELP (") + kName + ") ([^\\n]+)");
    static const std::regex kType(std::string("# TYPE (") + kName + ") (counter|gauge|histogram)");
    static const std::regex kSample(std::string("(") + kName + R"re()(\{.*\})? ([^ ]+))re");
    PrometheusText text;
    std::set<std::string> helps;
    std::string sCurrent;
    std::map<std::string, Histogram> mHistograms;
    Demand(sText.ends_with('\n'), "no line feed at the end");
    while (!sText.empty()) {
        const std::string sLine(sText.substr(0, sText.find('\n')));
        sText.remove_prefix(sLine.size() + 1);
        std::smatch match;
        if (std::regex_match(sLine, match, kHelp)) {
            sCurrent = match[1];
            Demand(helps.insert(sCurrent).second, "a second HELP: " + sLine);
        } else if (std::regex_match(sLine, match, kType)) {
            Demand(match[1] == sCurrent, "TYPE without its HELP: " + sLine);
            Demand(text.mTypes.emplace(match[1], match[2]).second, "a second TYPE: " + sLine);
            Demand((match[2] == "counter") == sCurrent.ends_with("_total"), "\"_total\" is for counters: " + sLine);
        } else {
            Demand(std::regex_match(sLine, match, kSample), "no line of the format: " + sLine);
            const std::string sMetric = GetMetric(text, match[1]);
            Demand(sMetric == sCurrent && text.mTypes.contains(sMetric), "a sample apart from its TYPE: " + sLine);
            CheckLabels(match[2]);
            const double dValue = ReadNumber(match[3]);
            Demand(text.mSamples.emplace(match[1].str() + match[2].str(), match[3]).second, "twice: " + sLine);
            if (text.mTypes.at(sMetric) == "histogram") {
                NotePart(mHistograms, sMetric, match[1], match[2], dValue);
            }
        }
    }
    for (const auto& [sName, histogram] : mHistograms) {
        CheckHistogram(sName, histogram);
    }
    return text;
}
