// Numbers found by the hash of what they stand for: open addressing, without marks for what was removed.
#include "HashIndex.h"

#include <algorithm>
#include <new>
#include <utility>

void CHashIndex::Add(std::uint32_t iHash, std::uint32_t iNumber) {
    Part& part = PartOf(iHash);
    if ((part.nUsed + 1) * 4 > part.vSlots.size() * 3) {
        try {
            part.Grow();
        } catch (const std::bad_alloc&) {
            if (part.nUsed + 1 >= part.vSlots.size()) {
                throw;
            }
        }
    }
    part.Put({iHash, iNumber});
    ++part.nUsed;
}

void CHashIndex::Remove(std::uint32_t iHash, std::uint32_t iNumber) {
    Part& part = PartOf(iHash);
    std::size_t iHole = part.HomeOf(iHash);
    while (part.vSlots[iHole].iNumber != iNumber) {
        iHole = part.After(iHole);
    }
    // What stands behind the hole moves into it, unless that lies before its home.
    for (std::size_t i = part.After(iHole); part.vSlots[i].iNumber != kNone; i = part.After(i)) {
        if (part.Distance(part.HomeOf(part.vSlots[i].iHash), i) >= part.Distance(iHole, i)) {
            part.vSlots[iHole] = part.vSlots[i];
            iHole = i;
        }
    }
    part.vSlots[iHole].iNumber = kNone;
    --part.nUsed;
}

void CHashIndex::Part::Put(Slot slot) {
    std::size_t iSlot = HomeOf(slot.iHash);
    while (vSlots[iSlot].iNumber != kNone) {
        iSlot = After(iSlot);
    }
    vSlots[iSlot] = slot;
}

void CHashIndex::Part::Grow() {
    constexpr std::size_t kFirstSize = 4;
    std::vector<Slot> vOld(std::max(kFirstSize, vSlots.size() * 2), Slot{0, kNone});
    vSlots.swap(vOld);
    for (const Slot& slot : vOld) {
        if (slot.iNumber != kNone) {
            Put(slot);
        }
    }
}
