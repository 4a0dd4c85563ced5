// What a program that says nothing of versions and procedures accepts: any, and none changes anything.
#include "RpcProg.h"

#include "RpcNumbers.h"
#include "Utilities.h"

CRpcProg::CRpcProg(CUtilities* pUtilities) : m_pUtilities(pUtilities), m_pLog(pUtilities) {}

unsigned int CRpcProg::GetVersion() {
    return kAnyNumber;
}

unsigned int CRpcProg::GetMaxSupportProc() {
    return kAnyNumber;
}

bool CRpcProg::IsModifying(unsigned int /*iVersion*/, unsigned int /*iProc*/) {
    return false;
}
