// The party that is told what clients do to a file.
#pragma once

#include "RuntimeParam.h"

class CUtilities;

/// Whoever added the export that a path lies in: the first in name order, where exports are nested. A path in no
/// export belongs to the party that the call is done for.
///
/// Made for one call and used by its thread.
class CFileOwner {
public:
    /// Takes the exports' mutex for a moment. The caller's parameter gives the log control.
    CFileOwner(CUtilities* pUtilities, const CRuntimeParam* pCaller, const char* pcPath);

    /// What a notification about the path is sent under: the export's name and its party's IPC ID.
    CRuntimeParam* GetParam() { return &m_Param; }
    /// Exports of one party, or both of this process's own host.
    bool IsSameParty(const CFileOwner& other) const;

private:
    CRuntimeParam m_Param;
};
