// What a program that says nothing of versions and procedures accepts: any, and none changes anything.
#include "RpcProg.h"

unsigned int CRpcProg::GetVersion() {
    return 0xFFFFFFFFU;
}

unsigned int CRpcProg::GetMaxSupportProc() {
    return 0xFFFFFFFFU;
}

bool CRpcProg::IsModifying(unsigned int /*iVersion*/, unsigned int /*iProc*/) {
    return false;
}
