// A local reference that goes with its scope.
#pragma once

#include "jni.h"

/// Owns a local reference (or null). A native method that loops would otherwise pile them up until it returns.
/// Deleting one is allowed while an exception is pending.
template <typename Reference>
class CJniLocalRef {
public:
    CJniLocalRef(JNIEnv* pEnv, Reference jRef) : m_pEnv(pEnv), m_jRef(jRef) {}
    ~CJniLocalRef() {
        if (m_jRef != nullptr) {
            m_pEnv->DeleteLocalRef(m_jRef);
        }
    }
    CJniLocalRef(const CJniLocalRef&) = delete;
    CJniLocalRef& operator=(const CJniLocalRef&) = delete;

    Reference Get() const { return m_jRef; }

private:
    JNIEnv* m_pEnv;
    Reference m_jRef;
};
