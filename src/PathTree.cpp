// Paths kept as a tree of their components.
#include "PathTree.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <vector>

// ---- Paths

CPathTree::Place CPathTree::Find(std::string_view sPath) const {
    const void* pvLastSlash = ::memrchr(sPath.data(), '/', sPath.size());
    if (pvLastSlash == nullptr) {
        return FindChild(kTop, sPath);
    }
    const auto nFolder = static_cast<std::size_t>(static_cast<const char*>(pvLastSlash) - sPath.data());
    const Place iFolder = FindFolder(sPath.substr(0, nFolder));
    return iFolder == kNowhere ? kNowhere : FindChild(iFolder, sPath.substr(nFolder + 1));
}

CPathTree::Place CPathTree::FindFolder(std::string_view sFolder) const {
    if (m_iLastFolder == kNowhere || m_sLastFolder != sFolder) {
        m_iLastFolder = kNowhere;  // also if there is no memory for the text
        m_sLastFolder = sFolder;
        m_iLastFolder = FindStepByStep(sFolder);
    }
    return m_iLastFolder;
}

CPathTree::Place CPathTree::FindStepByStep(std::string_view sPath) const {
    Place iPlace = kTop;
    for (std::size_t iBegin = 0; iPlace != kNowhere;) {
        const std::size_t iEnd = sPath.find('/', iBegin);
        iPlace = FindChild(iPlace, sPath.substr(iBegin, iEnd - iBegin));
        if (iEnd == std::string_view::npos) {
            break;
        }
        iBegin = iEnd + 1;
    }
    return iPlace;
}

CPathTree::Place CPathTree::FindOrAdd(std::string_view sPath) {
    Place iPlace = kTop;
    for (std::size_t iBegin = 0;;) {
        const std::size_t iEnd = sPath.find('/', iBegin);
        const std::string_view sName = sPath.substr(iBegin, iEnd - iBegin);
        const Place iChild = FindChild(iPlace, sName);
        iPlace = iChild != kNowhere ? iChild : AddChild(iPlace, sName);
        if (iEnd == std::string_view::npos) {
            return iPlace;
        }
        iBegin = iEnd + 1;
    }
}

CPathTree::Tenant CPathTree::TakeTenant(std::string_view sPath) {
    const Place iPlace = Find(sPath);
    if (iPlace == kNowhere) {
        return kNobody;
    }
    const Tenant iTenant = std::exchange(m_vNodes[iPlace].iTenant, kNobody);
    GiveBackUnlessUsed(iPlace);
    return iTenant;
}

std::string CPathTree::GetPath(Place iPlace) const {
    std::string sPath;
    for (const char* pcBehind = ""; iPlace != kTop; iPlace = m_vNodes[iPlace].iParent, pcBehind = "/") {
        if (!IsNamed(iPlace)) {
            return {};
        }
        sPath.insert(0, pcBehind).insert(0, m_vNodes[iPlace].pcName.get());
    }
    return sPath;
}

bool CPathTree::CopyPath(Place iPlace, char* pcPath, std::size_t nSize) const {
    std::array<std::size_t, 32> vnNames;  // of the last components; what stands before them is measured twice
    std::size_t nNeeded = 0;
    std::size_t nMeasured = 0;
    for (Place i = iPlace; i != kTop; i = m_vNodes[i].iParent) {
        if (!IsNamed(i)) {
            return false;
        }
        const std::size_t nName = std::strlen(m_vNodes[i].pcName.get());
        if (nMeasured < vnNames.size()) {
            vnNames[nMeasured++] = nName;
        }
        nNeeded += nName + 1;
    }
    if (nNeeded == 0 || nNeeded > nSize) {
        return false;
    }
    // From the end to the beginning; each component ends in what stands behind it.
    char* pcEnd = pcPath + nNeeded;
    std::size_t i = 0;
    for (char cBehind = '\0'; iPlace != kTop; iPlace = m_vNodes[iPlace].iParent, cBehind = '/') {
        const char* pcName = m_vNodes[iPlace].pcName.get();
        const std::size_t nName = i < nMeasured ? vnNames[i++] : std::strlen(pcName);
        *--pcEnd = cBehind;
        pcEnd -= nName;
        std::memcpy(pcEnd, pcName, nName);  // NOLINT: what ends the name stands behind it already
    }
    return true;
}

void CPathTree::Clear() {
    m_vNodes.clear();
    m_Index.Clear();
    m_iFirstUnused = kNowhere;
    m_iLastFolder = kNowhere;
    m_vNodes.push_back({});
}

// ---- Moving

void CPathTree::MoveBelow(std::string_view sOld, std::string_view sNew, const Settle& settle) {
    const auto withoutSlash = [](std::string_view sPath) {
        return sPath.substr(0, sPath.size() - (sPath.ends_with('/') ? 1 : 0));
    };
    const Place iFolder = sOld.empty() ? kNowhere : Find(withoutSlash(sOld));
    if (iFolder == kNowhere || m_vNodes[iFolder].nChildren == 0) {
        return;
    }
    const Place iMoving = TakeOffBelow(iFolder);
    Unite(sNew.empty() ? Pair{iMoving, kTop} : ChooseOne(iMoving, FindOrAdd(withoutSlash(sNew))), settle);
}

/// Takes all that lies below a folder out of the tree, as what lies below the place that is returned: the folder's own,
/// unless that has a tenant, who stays.
CPathTree::Place CPathTree::TakeOffBelow(Place iFolder) {
    if (m_vNodes[iFolder].iTenant == kNobody) {
        const Place iParent = m_vNodes[iFolder].iParent;
        TakeOff(iFolder);
        GiveBackUnlessUsed(iParent);
        return iFolder;
    }
    const Place iMoving = TakeUnused();
    while (m_vNodes[iFolder].iFirstChild != kNowhere) {
        const Place iChild = m_vNodes[iFolder].iFirstChild;
        TakeOff(iChild);
        Hang(iChild, iMoving, std::move(m_vNodes[iChild].pcName));
    }
    return iMoving;
}

/// Of two places for one path, the first of them not in the tree, puts the one with more below it there.
CPathTree::Pair CPathTree::ChooseOne(Place iMoving, Place iStanding) {
    if (m_vNodes[iMoving].nChildren <= m_vNodes[iStanding].nChildren) {
        return {iMoving, iStanding};
    }
    const Place iParent = m_vNodes[iStanding].iParent;
    TakeOff(iStanding);
    Hang(iMoving, iParent, std::move(m_vNodes[iStanding].pcName));
    return {iStanding, iMoving};
}

/// Hangs what is below one place below another, and so on with what meets its name there.
void CPathTree::Unite(Pair pair, const Settle& settle) {
    std::vector<Pair> vUniting{pair};  // each one below the one before it
    while (!vUniting.empty()) {
        const auto [iGiven, iKept] = vUniting.back();
        const Place iChild = m_vNodes[iGiven].iFirstChild;
        if (iChild == kNowhere) {
            if (m_vNodes[iGiven].iTenant != kNobody) {
                settle(m_vNodes[iGiven].iTenant, iKept);
            }
            GiveBack(iGiven);
            vUniting.pop_back();
            continue;
        }
        TakeOff(iChild);
        const Place iMet = FindChild(iKept, m_vNodes[iChild].pcName.get());
        if (iMet == kNowhere) {
            Hang(iChild, iKept, std::move(m_vNodes[iChild].pcName));
        } else {
            vUniting.push_back(ChooseOne(iChild, iMet));
        }
    }
}

// ---- Places

CPathTree::Place CPathTree::FindChild(Place iParent, std::string_view sName) const {
    return m_Index.Find(HashOf(iParent, sName), [&](Place iPlace) {
        const char* pcName = m_vNodes[iPlace].pcName.get();
        return m_vNodes[iPlace].iParent == iParent && std::strncmp(pcName, sName.data(), sName.size()) == 0 &&
               pcName[sName.size()] == '\0';
    });
}

CPathTree::Place CPathTree::AddChild(Place iParent, std::string_view sName) {
    auto pcName = std::make_unique<char[]>(sName.size() + 1);
    std::ranges::copy(sName, pcName.get());
    const Place iPlace = TakeUnused();
    Hang(iPlace, iParent, std::move(pcName));
    return iPlace;
}

CPathTree::Place CPathTree::TakeUnused() {
    if (m_iFirstUnused == kNowhere) {
        m_vNodes.push_back({});
        return static_cast<Place>(m_vNodes.size() - 1);
    }
    const Place iPlace = m_iFirstUnused;
    m_iFirstUnused = m_vNodes[iPlace].iNextSibling;
    m_vNodes[iPlace] = {};
    return iPlace;
}

/// For a place that is not in the tree, and has none below.
void CPathTree::GiveBack(Place iPlace) {
    m_vNodes[iPlace] = {};
    m_vNodes[iPlace].iNextSibling = m_iFirstUnused;
    m_iFirstUnused = iPlace;
}

/// Gives back a place that has neither tenant nor places below, and what is above it for its sake.
void CPathTree::GiveBackUnlessUsed(Place iPlace) {
    while (iPlace != kTop && m_vNodes[iPlace].nChildren == 0 && m_vNodes[iPlace].iTenant == kNobody) {
        const Place iParent = m_vNodes[iPlace].iParent;
        TakeOff(iPlace);
        GiveBack(iPlace);
        iPlace = iParent;
    }
}

void CPathTree::Hang(Place iPlace, Place iParent, std::unique_ptr<char[]> pcName) {
    Node& node = m_vNodes[iPlace];
    Node& parent = m_vNodes[iParent];
    m_Index.Add(HashOf(iParent, pcName.get()), iPlace);
    node.pcName = std::move(pcName);
    node.iParent = iParent;
    node.iPreviousSibling = kNowhere;
    node.iNextSibling = parent.iFirstChild;
    if (parent.iFirstChild != kNowhere) {
        m_vNodes[parent.iFirstChild].iPreviousSibling = iPlace;
    }
    parent.iFirstChild = iPlace;
    ++parent.nChildren;
}

/// What is below it, and its name, stay with it.
void CPathTree::TakeOff(Place iPlace) {
    Node& node = m_vNodes[iPlace];
    Node& parent = m_vNodes[node.iParent];
    m_iLastFolder = kNowhere;
    m_Index.Remove(HashOf(node.iParent, node.pcName.get()), iPlace);
    node.iParent = kNowhere;
    --parent.nChildren;
    (node.iPreviousSibling != kNowhere ? m_vNodes[node.iPreviousSibling].iNextSibling : parent.iFirstChild) =
        node.iNextSibling;
    if (node.iNextSibling != kNowhere) {
        m_vNodes[node.iNextSibling].iPreviousSibling = node.iPreviousSibling;
    }
}

std::uint32_t CPathTree::HashOf(Place iParent, std::string_view sName) {
    constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;  // odd, its bits without a pattern
    const std::uint64_t iMixed = (std::hash<std::string_view>()(sName) ^ (iParent * kSpread)) * kSpread;
    return static_cast<std::uint32_t>(iMixed >> 32U);
}
