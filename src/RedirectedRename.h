// What a client's RENAME does to redirected files.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "RuntimeParam.h"
#include "ThreadAnnotations.h"

class CUtilities;

/// The redirected files that go along in one RENAME, the one under the old path and those below it, and the questions
/// whether their owners agree. A file that changes owners raises two, to the old owner first.
///
/// The order: the disk is renamed, Move files everything under the new paths, Ask asks in path order up to the first
/// refusal. Then either MoveBack undoes it all, once the disk has been renamed back, and tells those that had agreed;
/// or AskRest tells the others what has come about.
///
/// Used by the thread of the call. Calls of other clients wait meanwhile; the host may change the registry at any time.
/// No lock is held while anybody is asked.
class CRedirectedRename {
public:
    /// Neither is owned; both outlive the object.
    CRedirectedRename(CUtilities* pUtilities, CRuntimeParam* pCaller);

    void Move(const char* pcPathFrom, const char* pcPathTo);
    /// True if everybody agreed.
    bool Ask() EXCLUDES(kRegistryLocks);
    void AskRest() EXCLUDES(kRegistryLocks);

    /// Have the old paths stayed free? A host that is asked may open one anew.
    bool CanMoveBack() const;
    void MoveBack() EXCLUDES(kRegistryLocks);

private:
    struct Renamed {
        std::string sFrom;
        std::string sTo;
    };
    struct Question {
        std::size_t iFile;
        bool bNewOwner;
        bool bAgreed;
    };

    void MoveOne(const std::string& sFrom, const std::string& sTo);
    bool AskOne(Question& question);
    int TellOf(CRuntimeParam* pOwner, const std::string& sFrom, const std::string& sTo);

    CUtilities* m_pUtilities;
    CRuntimeParam* m_pCaller;
    std::vector<Renamed> m_vFiles;
    std::vector<Question> m_vQuestions;
    std::size_t m_nAsked = 0;
};
