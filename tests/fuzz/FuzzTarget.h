// What every fuzzer is: something that takes bytes which others chose, and says whether it came to harm.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// A small world that lives through one input after another. Used by one thread.
class FuzzTarget {
public:
    FuzzTarget() = default;
    virtual ~FuzzTarget() = default;
    FuzzTarget(const FuzzTarget&) = delete;
    FuzzTarget& operator=(const FuzzTarget&) = delete;

    /// Feeds one input. Empty if all went as it must, else what went wrong.
    virtual std::string Run(std::string_view sInput) = 0;

    /// What the inputs have come to so far (procedures, records, commands, steps), by name, and how often.
    const std::map<std::string, std::uint64_t, std::less<>>& GetReached() const { return m_Reached; }

protected:
    void CountReached(std::string_view sWhat) {
        const auto itKnown = m_Reached.find(sWhat);
        if (itKnown != m_Reached.end()) {
            ++itKnown->second;
        } else {
            m_Reached.emplace(sWhat, 1);
        }
    }

private:
    std::map<std::string, std::uint64_t, std::less<>> m_Reached;
};
