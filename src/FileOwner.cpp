// The party that is told what clients do to a file.
#include "FileOwner.h"

#include <cstring>

#include "Utilities.h"

CFileOwner::CFileOwner(CUtilities* pUtilities, const CRuntimeParam* pCaller, const char* pcPath)
    : m_Param(pCaller->GetID(), pCaller->GetLogControl()) {
    m_Param.SetIpcID(pCaller->GetIpcID());
    // The search says nothing of its own: the call's lines about its path have gone out.
    CSilentParam silent;
    const LogArgu logArgu{"FileOwner"};
    MountInfo mountInfo;
    if (pUtilities->GetMountInfoByPath(&silent, &logArgu, pcPath, &mountInfo)) {
        m_Param.SetID(mountInfo.sExportName.c_str());
        m_Param.SetIpcID(mountInfo.sIcpID.c_str());
    }
}

bool CFileOwner::IsSameParty(const CFileOwner& other) const {
    return std::strcmp(m_Param.GetIpcID(), other.m_Param.GetIpcID()) == 0;
}
