// Attaching, detaching, and exceptions.
#include "JniThread.h"

#include <cstdio>

#include <pthread.h>

namespace {

/// Whether this thread is inside a call into the host that attached it.
thread_local bool t_bLibraryThread = false;

}  // namespace

CJniThread::CJniThread(JavaVM* pVM) : m_pVM(pVM) {
    void* pvEnv = nullptr;
    jint iResult = pVM->GetEnv(&pvEnv, JNI_VERSION_1_4);
    if (iResult == JNI_EDETACHED) {
        iResult = pVM->AttachCurrentThread(&pvEnv, nullptr);
        m_bAttached = iResult == JNI_OK;
        if (!m_bAttached) {
            std::printf("GetEnv: fail to attach thread (%lu)\n", static_cast<unsigned long>(::pthread_self()));
        }
    }
    m_pEnv = iResult == JNI_OK ? static_cast<JNIEnv*>(pvEnv) : nullptr;
    t_bLibraryThread = t_bLibraryThread || m_bAttached;
}

CJniThread::~CJniThread() {
    if (m_pEnv != nullptr) {
        m_pVM->DetachCurrentThread();  // refused on a thread with Java frames, as intended
    }
    if (m_bAttached) {
        t_bLibraryThread = false;
    }
}

bool CJniThread::IsLibraryThread() {
    return t_bLibraryThread;
}

CJniPendingException::CJniPendingException(JNIEnv* pEnv) : m_pEnv(pEnv), m_jException(pEnv->ExceptionOccurred()) {
    if (m_jException != nullptr) {
        m_pEnv->ExceptionClear();
    }
}

CJniPendingException::~CJniPendingException() {
    if (m_jException != nullptr) {
        m_pEnv->Throw(m_jException);
        m_pEnv->DeleteLocalRef(m_jException);
    }
}

bool DescribeAndClearException(JNIEnv* pEnv) {
    if (!pEnv->ExceptionCheck()) {
        return false;
    }
    pEnv->ExceptionDescribe();
    pEnv->ExceptionClear();
    return true;
}
