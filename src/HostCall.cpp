// What every native method does around its work.
#include "HostCall.h"

#include "Callback.h"
#include "JniLocalRef.h"
#include "NfsMain.h"

namespace {

/// Native methods that this thread is inside of.
thread_local int t_nCalls = 0;

}  // namespace

CHostCall::CHostCall(JNIEnv* pEnv, jobject jObj, jlong iHandle)
    : m_pEnv(pEnv), m_jObj(jObj), m_pController(CHostController::Find(iHandle)) {
    if (m_pController != nullptr) {
        m_pMain = m_pController->Enter();
    }
    if (m_pMain != nullptr && m_pMain->GetCallback() == nullptr) {
        m_pTemporary = std::make_shared<CCallback>(pEnv, jObj);
        m_pController->InstallCallback(*m_pMain, m_pTemporary);
    }
    ++t_nCalls;
}

CHostCall::~CHostCall() {
    if (m_pTemporary != nullptr) {
        m_pController->UninstallCallback(*m_pMain, m_pTemporary);
    }
    --t_nCalls;
}

jboolean CHostCall::OrThrow(bool bSuccess) {
    if (bSuccess) {
        return JNI_TRUE;
    }
    std::shared_ptr<CCallback> pCallback = m_pMain->GetCallback();
    if (pCallback == nullptr) {
        pCallback = std::make_shared<CCallback>(m_pEnv, m_jObj);
    }
    pCallback->ThrowIOException(m_vcReason.data());
    return JNI_FALSE;
}

bool CHostCall::IsInsideCall() {
    return t_nCalls > 0;
}

void ThrowInternalError(JNIEnv* pEnv, const std::exception& error) {
    if (pEnv->ExceptionCheck()) {
        return;
    }
    const CJniLocalRef<jclass> clazz(pEnv, pEnv->FindClass("java/lang/InternalError"));
    if (clazz.Get() != nullptr) {
        pEnv->functions->ThrowNew(pEnv, clazz.Get(), error.what());
    }
}
