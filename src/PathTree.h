// CPathTree: paths kept as a tree of their components.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "ChunkedArray.h"
#include "HashIndex.h"

/// A tree of places, one for each component of a path, under which an owner files a number, the tenant of the place. A
/// component is what stands between slashes, be it empty: every text is a path of its own, "/a", "/a/" and "a" too. Not
/// one byte of a folder's path is repeated for what lies below, and moving a folder touches nothing below.
///
/// A place has a number that stays while it is in use. Between calls each place but the top has a tenant, or places
/// below: what has neither is gone, and its number is given to a new one. (A place that FindOrAdd made has until the
/// next call to be let.)
///
/// Paths must not hold NUL bytes. Not thread-safe, not even for those who only search.
class CPathTree {
public:
    using Place = std::uint32_t;
    using Tenant = std::uint32_t;
    static constexpr Place kNowhere = UINT32_MAX;
    static constexpr Tenant kNobody = UINT32_MAX;
    /// The place above the first components, which has no path.
    static constexpr Place kTop = 0;

    /// Gives a tenant whose place is given up for another one a home there, where somebody may live already.
    using Settle = std::function<void(Tenant iTenant, Place iPlace)>;

    CPathTree() { Clear(); }

    /// kNowhere for a path that is not in the tree.
    Place Find(std::string_view sPath) const;
    Place FindOrAdd(std::string_view sPath);
    /// kNobody for kNowhere, and for a place that is there for those below it.
    Tenant GetTenant(Place iPlace) const { return iPlace == kNowhere ? kNobody : m_vNodes[iPlace].iTenant; }
    void SetTenant(Place iPlace, Tenant iTenant) { m_vNodes[iPlace].iTenant = iTenant; }
    /// Takes a path's tenant out; kNobody if it has none.
    Tenant TakeTenant(std::string_view sPath);

    /// Empty for a place that is not in the tree.
    std::string GetPath(Place iPlace) const;
    /// Writes the path with its terminator. False, and nothing is written, if that does not fit or the place is not in
    /// the tree.
    bool CopyPath(Place iPlace, char* pcPath, std::size_t nSize) const;

    /// Moves all that lies below a folder, which itself stays, to below another path. A slash at the end of either does
    /// not count; below an empty path lies nothing, and what comes there loses the slash in front.
    ///
    /// Where nothing lies there yet the time does not depend on how much is moved. Else two trees become one, which
    /// takes time for each place of the one with fewer, and settle is asked to settle tenants.
    ///
    /// When memory runs out (std::bad_alloc), what was being moved is not in the tree any more: it has no path, but
    /// never another one's.
    void MoveBelow(std::string_view sOld, std::string_view sNew, const Settle& settle);
    void Clear();

private:
    /// One place. Unused ones are chained by iNextSibling. What is not in the tree has no parent.
    struct Node {
        std::unique_ptr<char[]> pcName;
        Place iParent = kNowhere;
        Place iFirstChild = kNowhere;
        Place iNextSibling = kNowhere;
        Place iPreviousSibling = kNowhere;
        std::uint32_t nChildren = 0;
        Tenant iTenant = kNobody;
    };
    /// Two places for one path: one that is not in the tree, and is given up, and one that is and is kept.
    using Pair = std::pair<Place, Place>;

    bool IsNamed(Place iPlace) const { return iPlace != kNowhere && m_vNodes[iPlace].pcName != nullptr; }
    static std::uint32_t HashOf(Place iParent, std::string_view sName);
    Place FindFolder(std::string_view sFolder) const;
    Place FindStepByStep(std::string_view sPath) const;
    Place FindChild(Place iParent, std::string_view sName) const;
    Place AddChild(Place iParent, std::string_view sName);
    Place TakeUnused();
    void GiveBack(Place iPlace);
    void GiveBackUnlessUsed(Place iPlace);
    void Hang(Place iPlace, Place iParent, std::unique_ptr<char[]> pcName);
    void TakeOff(Place iPlace);
    Place TakeOffBelow(Place iFolder);
    Pair ChooseOne(Place iMoving, Place iStanding);
    void Unite(Pair pair, const Settle& settle);

    CChunkedArray<Node> m_vNodes;
    CHashIndex m_Index;  ///< the places in the tree by parent and name
    Place m_iFirstUnused = kNowhere;
    // The folder that was found last: most searches stay in one for a while.
    mutable std::string m_sLastFolder;
    mutable Place m_iLastFolder = kNowhere;  ///< kNowhere: none, or its path may have become another one
};
