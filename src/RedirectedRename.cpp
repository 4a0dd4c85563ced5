// What a client's RENAME does to redirected files.
#include "RedirectedRename.h"

#include <algorithm>

#include "FileOwner.h"
#include "RedirectedFile.h"
#include "Utilities.h"

CRedirectedRename::CRedirectedRename(CUtilities* pUtilities, CRuntimeParam* pCaller)
    : m_pUtilities(pUtilities), m_pCaller(pCaller) {}

void CRedirectedRename::Move(const char* pcPathFrom, const char* pcPathTo) {
    const auto vBelow = m_pUtilities->GetRenamesBelow(pcPathFrom, pcPathTo);
    MoveOne(pcPathFrom, pcPathTo);
    for (const auto& [sFrom, sTo] : vBelow) {
        MoveOne(sFrom, sTo);
    }
}

void CRedirectedRename::MoveOne(const std::string& sFrom, const std::string& sTo) {
    if (!m_pUtilities->RenameRedirectedFile(m_pCaller, sFrom.c_str(), sTo.c_str())) {
        return;  // the host has closed it meanwhile, and has nothing to be asked
    }
    const std::size_t iFile = m_vFiles.size();
    m_vFiles.push_back({sFrom, sTo});
    m_vQuestions.push_back({iFile, false, false});
    const CFileOwner oldOwner(m_pUtilities, m_pCaller, sFrom.c_str());
    const CFileOwner newOwner(m_pUtilities, m_pCaller, sTo.c_str());
    if (!oldOwner.IsSameParty(newOwner)) {
        m_vQuestions.push_back({iFile, true, false});
    }
}

bool CRedirectedRename::Ask() {
    while (m_nAsked < m_vQuestions.size()) {
        if (!AskOne(m_vQuestions[m_nAsked++])) {
            return false;
        }
    }
    return true;
}

void CRedirectedRename::AskRest() {
    while (m_nAsked < m_vQuestions.size()) {
        AskOne(m_vQuestions[m_nAsked++]);
    }
}

bool CRedirectedRename::AskOne(Question& question) {
    const Renamed& file = m_vFiles[question.iFile];
    CFileOwner owner(m_pUtilities, m_pCaller, (question.bNewOwner ? file.sTo : file.sFrom).c_str());
    question.bAgreed = TellOf(owner.GetParam(), file.sFrom, file.sTo) == 0;
    return question.bAgreed;
}

bool CRedirectedRename::CanMoveBack() const {
    return std::ranges::none_of(m_vFiles, [this](const Renamed& file) {
        return m_pUtilities->GetRedirectedFile(file.sFrom.c_str()) != nullptr;
    });
}

/// Those that agreed believe in the new path: they are told of a rename from there to the old one, the last first.
/// What they answer changes nothing any more.
void CRedirectedRename::MoveBack() {
    for (const Renamed& file : m_vFiles) {
        m_pUtilities->RenameRedirectedFile(m_pCaller, file.sTo.c_str(), file.sFrom.c_str());
    }
    for (std::size_t i = m_nAsked; i > 0; --i) {
        const Question& question = m_vQuestions[i - 1];
        if (question.bAgreed) {
            const Renamed& file = m_vFiles[question.iFile];
            CFileOwner owner(m_pUtilities, m_pCaller, (question.bNewOwner ? file.sTo : file.sFrom).c_str());
            TellOf(owner.GetParam(), file.sTo, file.sFrom);
        }
    }
}

/// Returns the owner's answer.
int CRedirectedRename::TellOf(CRuntimeParam* pOwner, const std::string& sFrom, const std::string& sTo) {
    return m_pUtilities->GetHostAnswers().Ask(CHostAnswers::kRename, [&] {
        return m_pUtilities->LogRenameRedirectedFile(pOwner, sFrom.c_str(), sTo.c_str());
    });
}
