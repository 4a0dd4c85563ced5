// The thread's innermost object, and its descriptors.
#include "EndWatch.h"

thread_local const CEndWatch* CEndWatch::t_pInnermost = nullptr;

CEndWatch::CEndWatch(int iConnection, int iStop) : m_iConnection(iConnection), m_iStop(iStop), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

CEndWatch::~CEndWatch() {
    t_pInnermost = m_pOuter;
}

int CEndWatch::GetConnection() {
    return t_pInnermost != nullptr ? t_pInnermost->m_iConnection : -1;
}

int CEndWatch::GetStop() {
    return t_pInnermost != nullptr ? t_pInnermost->m_iStop : -1;
}
