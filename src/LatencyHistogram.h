// CLatencyHistogram: how long calls took, counted in buckets that grow with the time.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

/// What a histogram has counted, as of one moment. Times in nanoseconds.
struct LatencyFigures {
    std::vector<std::uint64_t> vnCalls;  ///< by bucket of CLatencyHistogram; empty where there is no call
    std::uint64_t nCalls = 0;            ///< of all buckets
    std::uint64_t lSum = 0;
    std::uint64_t lMax = 0;

    /// The time within which that part of the calls (above 0, up to 1) was done: the upper end of the bucket that the
    /// call of that rank lies in, and no more than the longest. So it is at most a sixteenth (and 16 ns) too long,
    /// never too short. 0 without calls.
    std::uint64_t GetPercentile(double dPart) const;
    /// How many calls took no longer. Exact where a bucket ends there, as at each power of two from 256 ns on.
    std::uint64_t CountUpTo(std::uint64_t lTime) const;
};

/// A log-linear histogram: 16 buckets for each doubling of the time, so that each holds times that differ by no more
/// than a sixteenth, from 16 ns to 18 minutes; the last one holds what is longer, too.
///
/// One thread at a time adds (the RPC server's mutex sees to that), so that adding needs no locked instruction; any
/// thread reads meanwhile, and may see a call in one of the figures and not yet in another.
class CLatencyHistogram {
public:
    /// The number of buckets for each doubling, as a power of two.
    static constexpr unsigned int kPartBits = 4;
    static constexpr std::size_t kParts = std::size_t{1} << kPartBits;
    /// The width of the first buckets in nanoseconds, as a power of two.
    static constexpr unsigned int kUnitBits = 4;
    /// Doublings behind the first kParts buckets.
    static constexpr std::size_t kDoublings = 32;
    static constexpr std::size_t kBuckets = kParts * (1 + kDoublings);

    void Add(std::uint64_t lNanoseconds);
    LatencyFigures Read() const;

    /// The bucket of a time; each holds what is above the end of the one before it, up to and including its own end.
    static std::size_t GetBucket(std::uint64_t lNanoseconds);
    static std::uint64_t GetEnd(std::size_t iBucket);

private:
    // Read and written in this order by each call: what all calls touch stands together.
    std::atomic<std::uint64_t> m_lSum{0};
    std::atomic<std::uint64_t> m_lMax{0};
    std::array<std::atomic<std::uint64_t>, kBuckets> m_vnCalls{};
};

/// Adds to a counter that one thread at a time changes and any may read.
inline void AddAlone(std::atomic<std::uint64_t>& counter, std::uint64_t n) {
    counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}
