// CListing: the names of a directory while clients list it, and the positions they were handed out at.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "NameList.h"
#include "PathProbe.h"

/// One entry of a reply.
struct ListedEntry {
    std::string sName;
    unsigned long lCookie = 0;  ///< its position: where the listing goes on behind it
    FoundStatus found;          ///< what the look at it told
};

/// Looks at an entry as the reply is made. False if it is gone; fills the status if it can be had.
using EntryLook = std::function<bool(const char* pcName, FoundStatus* pStatus)>;

/// One reading of a directory, and how far it has been handed out.
///
/// A position is the number of entries handed out up to there. What was handed out once keeps its position for the
/// listing's life, so that whoever got a cookie goes on exactly behind it, also twice, and also where several walks
/// over the directory overlap:
///
///  - The first m_nKept places hold what was handed out, in the order of its positions. One that is gone by now is
///    passed over and leaves its position unused.
///  - The places from m_iPending on hold what nobody has been shown yet. One of them gets the next position when it is
///    handed out; one that is gone by then never had any.
///  - A new reading replaces what is pending. Names handed out keep their positions; all others follow in the order of
///    that reading. A name that is not read any more leaves its place but no other one its position, so that the
///    listing is as long as the reading, however many entries came and went before.
///
/// It cannot be seen which walk a call belongs to: the cookie is all there is. What is known is where the walks stand
/// that have not come to the end: the cookies that replies ended with and no call has gone on from.
///
/// Names stand for entries: a file that another one was renamed onto counts as the same entry. Not thread-safe.
class CListing {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::steady_clock::duration;

    /// The names in reading order, the first of which (at most all) count as handed out.
    explicit CListing(CNameList names, std::size_t nHandedOut = 0);

    std::size_t GetHandedOut() const { return m_nHandedOut; }
    /// Appends the entries behind a position, at most as many as given. False if the names ended before that. The
    /// position is at most GetHandedOut().
    bool Show(std::size_t iPosition, std::size_t nMost, const EntryLook& look, std::vector<ListedEntry>* pvEntries);
    /// Takes in a new reading of the directory.
    void Refresh(const CNameList& names);
    std::size_t GetMemory() const;

    // ---- Where walks stand

    /// A call went on from one position, and its reply ended at another, or with the end of the directory.
    void NoteReply(std::size_t iFrom, std::optional<std::size_t> iTo, Time now);
    /// Does a walk wait at this position?
    bool HasWalkAt(std::size_t iPosition) const;
    /// Does any walk wait that came there within the given time?
    bool HasWalk(Time now, Duration idle);

private:
    struct WaitingWalk {
        std::size_t iPosition;
        Time since;
    };
    /// As many are remembered; more of them than this are left behind by callers that never list to the end.
    static constexpr std::size_t kMaxWalks = 256;

    /// Has every position its place: the entry with cookie n that before n?
    bool IsGapless() const { return m_nKept == m_nHandedOut; }
    std::size_t GetPosition(std::size_t iPlace) const { return IsGapless() ? iPlace + 1 : m_vPositions[iPlace]; }
    std::size_t FindPlaceBehind(std::size_t iPosition) const;
    bool ShowPlace(std::size_t iPlace, std::size_t iPosition, const EntryLook& look,
                   std::vector<ListedEntry>* pvEntries) const;
    bool HandOutNext(const EntryLook& look, std::vector<ListedEntry>* pvEntries);

    CNameList m_Names;
    std::vector<std::size_t> m_vPositions;  ///< of the first m_nKept places, rising; empty without gaps
    std::size_t m_nKept;                    ///< at most m_nHandedOut
    std::size_t m_nHandedOut;               ///< the highest position
    std::size_t m_iPending;                 ///< from m_nKept to the list's size
    std::vector<WaitingWalk> m_vWalks;      ///< the longest waiting first
};
