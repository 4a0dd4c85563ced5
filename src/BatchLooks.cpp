// The look that a thread keeps while it answers a batch of calls.
#include "BatchLooks.h"

thread_local CBatchLooks* CBatchLooks::t_pCurrent = nullptr;

CBatchLooks::CBatchLooks() {
    t_pCurrent = this;
}

CBatchLooks::~CBatchLooks() {
    t_pCurrent = nullptr;
}

CBatchLooks::CCall::CCall(Effect effect) : m_Effect(effect) {
    if (effect == Effect::kChanges) {
        Forget();
    }
    if (t_pCurrent != nullptr) {
        t_pCurrent->m_Effect = effect;
    }
}

CBatchLooks::CCall::~CCall() {
    if (t_pCurrent != nullptr) {
        t_pCurrent->m_bWritten = t_pCurrent->m_bWritten || m_Effect == Effect::kWrites;
        t_pCurrent->m_Effect = Effect::kNone;
    }
}

bool CBatchLooks::Find(const char* pcPath, FoundStatus* pStatus) {
    const CBatchLooks* pBatch = t_pCurrent;
    if (pBatch == nullptr || pBatch->m_sPath.empty() || pBatch->m_sPath != pcPath) {
        return false;
    }
    const bool bFits = !pBatch->m_bWritten || pBatch->m_Effect == Effect::kWrites;
    if (!bFits || Clock::now() - pBatch->m_Time > kLongest) {
        return false;
    }
    pStatus->bKnown = true;
    pStatus->status = pBatch->m_Status;
    return true;
}

void CBatchLooks::Keep(const char* pcPath, const FoundStatus& found) {
    CBatchLooks* pBatch = t_pCurrent;
    if (pBatch == nullptr || !found.bKnown || pBatch->m_Effect == Effect::kChanges) {
        return;
    }
    pBatch->m_sPath = pcPath;
    pBatch->m_Status = found.status;
    pBatch->m_Time = Clock::now();
    pBatch->m_bWritten = false;
}

void CBatchLooks::Forget() {
    if (t_pCurrent != nullptr) {
        t_pCurrent->m_sPath.clear();
    }
}
