// What a program that says nothing of versions and procedures accepts: any, and none changes anything.
#include "RpcProg.h"

#include "RpcNumbers.h"

unsigned int CRpcProg::GetVersion() {
    return kAnyNumber;
}

unsigned int CRpcProg::GetMaxSupportProc() {
    return kAnyNumber;
}

bool CRpcProg::IsModifying(unsigned int /*iVersion*/, unsigned int /*iProc*/) {
    return false;
}
