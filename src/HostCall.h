// CHostCall: one call of a native method.
#pragma once

#include <array>
#include <exception>
#include <memory>

#include "HostController.h"
#include "Limits.h"
#include "jni.h"

/// Finds the controller behind the handle, keeps it for the length of the call, and, unless the controller has a
/// callback already, lends it one for the calling object, so that what the call logs goes to that object.
class CHostCall {
public:
    CHostCall(JNIEnv* pEnv, jobject jObj, jlong iHandle);
    ~CHostCall();
    CHostCall(const CHostCall&) = delete;
    CHostCall& operator=(const CHostCall&) = delete;

    /// Null for the handle 0 and for one that is not in use: the method answers with its zero value.
    CNfsMain* Main() const { return m_pMain.get(); }

    /// A share that keeps the controller for work that outlives the call.
    std::shared_ptr<CNfsMain> Share() const { return m_pMain; }

    /// The reason buffer of the operation, empty at first.
    char* Reason() { return m_vcReason.data(); }
    /// The result of an operation that throws on failure: raises java/io/IOException with the reason.
    jboolean OrThrow(bool bSuccess);

    /// True while this thread is inside any native method.
    static bool IsInsideCall();

private:
    JNIEnv* m_pEnv;
    jobject m_jObj;
    std::shared_ptr<CHostController> m_pController;
    std::shared_ptr<CNfsMain> m_pMain;
    std::shared_ptr<CCallback> m_pTemporary;  ///< null where another callback served already
    std::array<char, kReasonBufferSize> m_vcReason{};
};

/// Raises java/lang/InternalError; for the failures no operation speaks of (memory, threads).
void ThrowInternalError(JNIEnv* pEnv, const std::exception& error);

/// Runs the body of a native method on a handle. `body` gets the call and the controller; without a controller, or
/// after a C++ exception, which must not reach the virtual machine, the answer is `none`.
template <typename Result, typename Body>
Result RunHostCall(JNIEnv* pEnv, jobject jObj, jlong iHandle, Result none, const Body& body) {
    try {
        CHostCall call(pEnv, jObj, iHandle);
        return call.Main() != nullptr ? body(call, *call.Main()) : none;
    } catch (const std::exception& error) {
        ThrowInternalError(pEnv, error);
        return none;
    }
}

/// The same for a method without a result.
template <typename Body>
void RunHostCall(JNIEnv* pEnv, jobject jObj, jlong iHandle, const Body& body) {
    RunHostCall(pEnv, jObj, iHandle, 0, [&body](CHostCall& call, CNfsMain& main) {
        body(call, main);
        return 0;
    });
}
