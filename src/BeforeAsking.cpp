// The thread's innermost object, and its action.
#include "BeforeAsking.h"

#include <utility>

thread_local CBeforeAsking* CBeforeAsking::t_pInnermost = nullptr;

CBeforeAsking::CBeforeAsking(std::function<void()> action, std::function<bool()> isNeeded)
    : m_Action(std::move(action)), m_IsNeeded(std::move(isNeeded)), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

CBeforeAsking::~CBeforeAsking() {
    t_pInnermost = m_pOuter;
}

void CBeforeAsking::Run() {
    if (t_pInnermost != nullptr) {
        t_pInnermost->m_Action();
    }
}

bool CBeforeAsking::IsNeeded() {
    return t_pInnermost != nullptr && (!t_pInnermost->m_IsNeeded || t_pInnermost->m_IsNeeded());
}
