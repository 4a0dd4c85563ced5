// Counting times in buckets, and what the buckets tell.
#include "LatencyHistogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

// ---- Buckets

std::size_t CLatencyHistogram::GetBucket(std::uint64_t lNanoseconds) {
    const std::uint64_t lUnits = (lNanoseconds == 0 ? 0 : lNanoseconds - 1) >> kUnitBits;
    if (lUnits < kParts) {
        return static_cast<std::size_t>(lUnits);
    }
    const auto iDoubling = static_cast<unsigned int>(std::bit_width(lUnits)) - 1 - kPartBits;
    const std::size_t iPart = (lUnits >> iDoubling) & (kParts - 1);
    return std::min(kParts * (1 + iDoubling) + iPart, kBuckets - 1);
}

std::uint64_t CLatencyHistogram::GetEnd(std::size_t iBucket) {
    if (iBucket < kParts) {
        return (std::uint64_t{iBucket} + 1) << kUnitBits;
    }
    const std::size_t iDoubling = iBucket / kParts - 1;
    const std::uint64_t iPart = iBucket % kParts;
    return (kParts + iPart + 1) << (iDoubling + kUnitBits);
}

void CLatencyHistogram::Add(std::uint64_t lNanoseconds) {
    AddAlone(m_lSum, lNanoseconds);
    if (lNanoseconds > m_lMax.load(std::memory_order_relaxed)) {
        m_lMax.store(lNanoseconds, std::memory_order_relaxed);
    }
    AddAlone(m_vnCalls[GetBucket(lNanoseconds)], 1);
}

LatencyFigures CLatencyHistogram::Read() const {
    LatencyFigures figures;
    figures.vnCalls.reserve(kBuckets);
    for (const auto& nCalls : m_vnCalls) {
        figures.vnCalls.push_back(nCalls.load(std::memory_order_relaxed));
        figures.nCalls += figures.vnCalls.back();
    }
    figures.lSum = m_lSum.load(std::memory_order_relaxed);
    figures.lMax = m_lMax.load(std::memory_order_relaxed);
    if (figures.nCalls == 0) {
        return {};  // if need be without the call that is being added
    }
    return figures;
}

// ---- What they tell

std::uint64_t LatencyFigures::GetPercentile(double dPart) const {
    if (nCalls == 0) {
        return 0;
    }
    const auto nRank = static_cast<std::uint64_t>(std::ceil(dPart * static_cast<double>(nCalls)));
    std::uint64_t nSeen = 0;
    for (std::size_t i = 0; i + 1 < vnCalls.size(); ++i) {
        nSeen += vnCalls[i];
        if (nSeen >= nRank) {
            return std::min(CLatencyHistogram::GetEnd(i), lMax);
        }
    }
    return lMax;
}

std::uint64_t LatencyFigures::CountUpTo(std::uint64_t lTime) const {
    std::uint64_t nSeen = 0;
    // What is in the last bucket may have taken any time.
    for (std::size_t i = 0; i + 1 < vnCalls.size() && CLatencyHistogram::GetEnd(i) <= lTime; ++i) {
        nSeen += vnCalls[i];
    }
    return nSeen;
}
