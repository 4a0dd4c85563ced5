// Strict readers of the forms in which a server's figures come: what they do not take, no collector has to.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// Every value of a JSON text (RFC 8259), by its path: "sizes.exports", "procedures[3].seconds.p50". Texts come without
/// their quotes, with their escapes resolved. Throws std::runtime_error for a text that is not JSON, or that has a
/// member twice.
std::map<std::string, std::string> ReadJson(std::string_view sText);

/// A text in the exposition format 0.0.4, and what promtool would say of it.
struct PrometheusText {
    std::map<std::string, std::string> mTypes;    ///< by metric
    std::map<std::string, std::string> mSamples;  ///< by name and labels as they stand: "nfslib_x{program=\"nfs\"}"

    /// Throws std::runtime_error, with the line, unless: each metric has its HELP and its TYPE line, in this order,
    /// once, and in front of its samples, which stand together; names, labels, escapes and numbers are well-formed; no
    /// sample stands there twice; counters end in "_total" and nothing else does; each histogram has buckets of
    /// ascending ends and counts, the last one of +Inf, which is its count, and a sum.
    static PrometheusText Parse(std::string_view sText);

    /// A sample as a number; throws std::out_of_range if it is not there.
    double Get(const std::string& sSample) const { return std::stod(mSamples.at(sSample)); }
};
