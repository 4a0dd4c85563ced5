// CHashIndex: numbers found by the hash of what they stand for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

/// A hash table of numbers that stand for something the caller keeps: it brings the hash, and says whether a number is
/// what it looks for. Takes eleven to twenty-two bytes for each, next to each other: mostly only the one that is looked
/// for is asked about.
///
/// Each part of the table grows by itself, from the hashes alone: nobody waits for more than one part in 256.
///
/// Not thread-safe.
class CHashIndex {
public:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    /// The number under a hash of which isIt(number) is true, or kNone.
    template <class IsIt>
    std::uint32_t Find(std::uint32_t iHash, IsIt isIt) const {
        const Part& part = PartOf(iHash);
        if (part.vSlots.empty()) {
            return kNone;
        }
        std::size_t iSlot = part.HomeOf(iHash);
        while (part.vSlots[iSlot].iNumber != kNone &&
               (part.vSlots[iSlot].iHash != iHash || !isIt(part.vSlots[iSlot].iNumber))) {
            iSlot = part.After(iSlot);
        }
        return part.vSlots[iSlot].iNumber;
    }
    /// For a number that is not there, and not kNone. A part that cannot grow for lack of memory is filled up first.
    void Add(std::uint32_t iHash, std::uint32_t iNumber);
    /// For a number that is there under that hash.
    void Remove(std::uint32_t iHash, std::uint32_t iNumber);
    void Clear() { m_vParts = {}; }

private:
    struct Slot {
        std::uint32_t iHash;
        std::uint32_t iNumber;  ///< kNone: free
    };
    /// Slots in a power of two, three quarters of them in use before there are more, and never all. A number stands in
    /// the first slot from its hash's home on that was free, and each one between is in use.
    struct Part {
        std::vector<Slot> vSlots;
        std::size_t nUsed = 0;

        std::size_t HomeOf(std::uint32_t iHash) const { return iHash & (vSlots.size() - 1); }
        std::size_t After(std::size_t iSlot) const { return (iSlot + 1) & (vSlots.size() - 1); }
        /// How far a slot is from another one before it, around the end.
        std::size_t Distance(std::size_t iFrom, std::size_t iTo) const { return (iTo - iFrom) & (vSlots.size() - 1); }
        void Put(Slot slot);
        void Grow();
    };

    static constexpr unsigned int kPartBits = 8;

    // The part by a hash's high bits, the slot by its low ones.
    Part& PartOf(std::uint32_t iHash) { return m_vParts[iHash >> (32U - kPartBits)]; }
    const Part& PartOf(std::uint32_t iHash) const { return m_vParts[iHash >> (32U - kPartBits)]; }

    std::array<Part, 1U << kPartBits> m_vParts;
};
