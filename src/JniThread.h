// The calling thread as the virtual machine knows it.
#pragma once

#include "jni.h"

/// The current thread's environment for the length of one call into the host.
///
/// A thread that is not attached to the virtual machine is attached first. At the end detachment is asked for, whether
/// or not this call attached: a thread with Java frames below it (the host's own, or one of ours that the host called
/// back from) is refused by the virtual machine and stays attached; any other has nothing left to do there.
class CJniThread {
public:
    explicit CJniThread(JavaVM* pVM);
    ~CJniThread();
    CJniThread(const CJniThread&) = delete;
    CJniThread& operator=(const CJniThread&) = delete;

    /// Null if the thread could not be attached (said on standard output).
    JNIEnv* Env() const { return m_pEnv; }

    /// True on a thread of the library's own while it is inside a call into the host: whoever asks was called, in the
    /// end, by a host method that a socket thread or the remote-control thread is waiting for.
    static bool IsLibraryThread();

private:
    JavaVM* m_pVM;
    JNIEnv* m_pEnv = nullptr;
    bool m_bAttached = false;
};

/// Sets an exception that is already pending aside, so that calls can be made, and raises it again at the end.
class CJniPendingException {
public:
    explicit CJniPendingException(JNIEnv* pEnv);
    ~CJniPendingException();
    CJniPendingException(const CJniPendingException&) = delete;
    CJniPendingException& operator=(const CJniPendingException&) = delete;

private:
    JNIEnv* m_pEnv;
    jthrowable m_jException = nullptr;
};

/// If the call just made raised an exception: describes it on standard error, clears it and returns true.
bool DescribeAndClearException(JNIEnv* pEnv);
