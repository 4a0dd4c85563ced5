// What a program that says nothing of versions and procedures accepts: any.
#include "RpcProg.h"

unsigned int CRpcProg::GetVersion() {
    return 0xFFFFFFFFU;
}

unsigned int CRpcProg::GetMaxSupportProc() {
    return 0xFFFFFFFFU;
}
