// CBatchLooks: the look at a path that the calls of one batch share.
#pragma once

#include <chrono>
#include <string>

#include "PathProbe.h"

/// Calls that came together, above all READs and WRITEs of one file, need not each look at the path they go by: a look
/// that was taken after all of them had come, and before the answer to any that goes by it, is a true answer to each.
///
/// While an object of this class lives, its thread keeps the last look that met no link. It is made when a batch has
/// been received and the mutex of the calls is taken, and gone before that is released: nobody else's call falls in
/// between. A call that may change anything forgets the look before and after; one that writes leaves the file where it
/// is, and only makes its size and times unknown. Whoever is about to ask a host forgets it too, and in any case it is
/// none after kLongest.
///
/// Without an object there is nothing to share, and nothing is kept. The descriptor of a look is never shared.
class CBatchLooks {
public:
    /// No call of a batch is to be answered by what was so much earlier.
    static constexpr std::chrono::milliseconds kLongest{1};

    CBatchLooks();
    ~CBatchLooks();
    CBatchLooks(const CBatchLooks&) = delete;
    CBatchLooks& operator=(const CBatchLooks&) = delete;

    /// What a call does to files.
    enum class Effect { kNone, kWrites, kChanges };

    /// One call of the batch, from beginning to end.
    class CCall {
    public:
        explicit CCall(Effect effect);
        ~CCall();
        CCall(const CCall&) = delete;
        CCall& operator=(const CCall&) = delete;

    private:
        const Effect m_Effect;
    };

    /// The status of what the kept look found, if it was at this path. For a call that writes, size and times may be
    /// those of before.
    static bool Find(const char* pcPath, FoundStatus* pStatus);
    /// Keeps a look at a path that holds no link.
    static void Keep(const char* pcPath, const FoundStatus& found);
    static void Forget();

private:
    using Clock = std::chrono::steady_clock;

    static thread_local CBatchLooks* t_pCurrent;

    std::string m_sPath;  ///< empty: nothing is kept
    struct stat m_Status {};
    Clock::time_point m_Time;
    bool m_bWritten = false;          ///< size and times are no longer known
    Effect m_Effect = Effect::kNone;  ///< of the call in progress
};
