// A virtual machine for tests that has no Java behind it: what the interface promises, and every way it can fail.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "jni.h"

/// An argument of a host method as it arrived; Strings as UTF-16 units, null kept apart.
struct HostArgument {
    jvalue value{};
    bool bNull = false;
    std::u16string sText;
};

/// What a host method does. `sThrows` not empty: it throws that class instead of answering.
struct HostAnswer {
    int iValue = 0;
    std::string sThrows = {};
};

/// Methods of a host object by name and signature, for example "isInterrupted()Z".
using HostMethods = std::map<std::string, std::function<HostAnswer(const std::vector<HostArgument>&)>>;

/// The fake. Any thread may use it. Breaches of the interface's rules (a call with an exception pending, a reference
/// used after its end or on another thread, an environment on a thread that is not attached) are collected as
/// violations; leaked references can be counted.
class FakeJvm {
public:
    FakeJvm();
    ~FakeJvm();
    FakeJvm(const FakeJvm&) = delete;
    FakeJvm& operator=(const FakeJvm&) = delete;

    JavaVM* Vm();
    /// Attaches the calling thread the way a Java thread is: it cannot be detached while it has frames.
    JNIEnv* EnterJava();
    /// The frame's local references go with it; a pending exception stays to be looked at.
    void LeaveJava();

    /// References to new objects, local to the calling thread's frame.
    jobject NewHost(HostMethods methods);
    jstring NewText(const std::u16string& sText);

    /// Class and text of the exception pending on the calling thread, and clears it; empty without one.
    std::string TakeException();
    std::u16string TextOf(jstring jText);

    std::size_t GlobalReferences() const;
    std::size_t LocalReferences() const;
    std::size_t AttachedThreads() const;
    int Attachments() const;     ///< successful AttachCurrentThread calls
    int DetachRequests() const;  ///< DetachCurrentThread calls, refused ones included
    std::vector<std::string> Violations() const;

    // What fails.
    void SetNoVm(bool bNoVm);
    void SetRefuseAttach(bool bRefuse);
    void SetGetEnvResult(jint iResult);
    /// The n-th NewString from now on (1: the next) throws OutOfMemoryError.
    void SetFailString(int nth);
    void SetFailFindClass(bool bFail);
    /// Exceptions are not described on standard error.
    void SetQuiet(bool bQuiet);

    struct Impl;  ///< the tables and what stands behind them; of no use to tests

private:
    std::unique_ptr<Impl> m_pImpl;
};

/// The calling thread as a Java thread, for a scope.
class JavaFrame {
public:
    explicit JavaFrame(FakeJvm& jvm) : m_Jvm(jvm), m_pEnv(jvm.EnterJava()) {}
    ~JavaFrame() { m_Jvm.LeaveJava(); }
    JavaFrame(const JavaFrame&) = delete;
    JavaFrame& operator=(const JavaFrame&) = delete;

    JNIEnv* Env() const { return m_pEnv; }

private:
    FakeJvm& m_Jvm;
    JNIEnv* m_pEnv;
};
