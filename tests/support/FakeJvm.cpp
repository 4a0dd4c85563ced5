// The fake virtual machine: objects, references, threads, and the two function tables.
#include "FakeJvm.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

/// An object: a class, a String, a host or an exception.
struct Object {
    std::string sClass;
    std::u16string sText;
    HostMethods methods;
};

}  // namespace

/// One thread's environment.
struct ThreadEnv {
    JNIEnv_ env{};
    FakeJvm::Impl* pImpl = nullptr;
    std::thread::id thread;
    int nFrames = 0;
    std::shared_ptr<Object> pPending;
};

/// A reference is the address of one of these; local ones belong to a thread and its frame.
struct Reference {
    std::shared_ptr<Object> pObject;
    ThreadEnv* pOwner = nullptr;  ///< null: global
    int iFrame = 0;
};

struct Method {
    std::string sClass;
    std::string sKey;  ///< name and signature
    std::string sSignature;
};

struct FakeJvm::Impl {
    JavaVM_ vm{};
    JNIInvokeInterface_ vmTable{};
    JNINativeInterface_ envTable{};

    mutable std::recursive_mutex mutex;
    std::map<std::thread::id, std::unique_ptr<ThreadEnv>> mThreads;
    std::map<const void*, std::unique_ptr<Reference>> mReferences;
    std::map<std::string, std::unique_ptr<Method>> mMethods;
    std::vector<std::string> vsViolations;
    int nAttachments = 0;
    int nDetachRequests = 0;

    bool bNoVm = false;
    bool bRefuseAttach = false;
    jint iGetEnvResult = JNI_OK;
    int nFailString = 0;
    bool bFailFindClass = false;
    bool bQuiet = false;

    static Impl& Of(JNIEnv* pEnv) { return *reinterpret_cast<ThreadEnv*>(pEnv)->pImpl; }
    static Impl& Of(JavaVM* pVM) { return *reinterpret_cast<Impl*>(pVM); }
    static ThreadEnv& Thread(JNIEnv* pEnv) { return *reinterpret_cast<ThreadEnv*>(pEnv); }

    void Violate(const std::string& sText) { vsViolations.push_back(sText); }

    /// The rules for every call: on its own attached thread, and, but for a few, with no exception pending.
    ThreadEnv& Check(JNIEnv* pEnv, const char* pcCall, bool bPendingAllowed = false) {
        const auto it = mThreads.find(std::this_thread::get_id());
        if (it == mThreads.end() || &it->second->env != pEnv) {
            Violate(std::string(pcCall) + " with an environment that is not this thread's");
        } else if (!bPendingAllowed && it->second->pPending != nullptr) {
            Violate(std::string(pcCall) + " with " + it->second->pPending->sClass + " pending");
        }
        return Thread(pEnv);
    }

    ThreadEnv& AddThread() {
        auto& pThread = mThreads[std::this_thread::get_id()];
        pThread = std::make_unique<ThreadEnv>();
        pThread->env.functions = &envTable;
        pThread->pImpl = this;
        pThread->thread = std::this_thread::get_id();
        return *pThread;
    }

    void DropLocals(const ThreadEnv& thread, int iFrame) {
        std::erase_if(mReferences, [&](const auto& entry) {
            return entry.second->pOwner == &thread && entry.second->iFrame >= iFrame;
        });
    }

    template <typename Ref>
    Ref NewReference(std::shared_ptr<Object> pObject, ThreadEnv* pOwner) {
        auto pReference =
            std::make_unique<Reference>(Reference{std::move(pObject), pOwner, pOwner != nullptr ? pOwner->nFrames : 0});
        const void* pvKey = pReference.get();
        mReferences[pvKey] = std::move(pReference);
        return static_cast<Ref>(static_cast<void*>(const_cast<void*>(pvKey)));
    }

    std::shared_ptr<Object> Resolve(const void* pvReference, const char* pcCall) {
        const auto it = mReferences.find(pvReference);
        if (it == mReferences.end()) {
            Violate(std::string(pcCall) + " with a dead or null reference");
            return std::make_shared<Object>();
        }
        const ThreadEnv* pOwner = it->second->pOwner;
        if (pOwner != nullptr && pOwner->thread != std::this_thread::get_id()) {
            Violate(std::string(pcCall) + " with another thread's local reference");
        }
        return it->second->pObject;
    }

    void Delete(const void* pvReference, bool bGlobal, const char* pcCall) {
        const auto it = mReferences.find(pvReference);
        if (it == mReferences.end() || (it->second->pOwner == nullptr) != bGlobal) {
            Violate(std::string(pcCall) + " of no such reference");
            return;
        }
        mReferences.erase(it);
    }

    static void Raise(ThreadEnv& thread, const std::string& sClass, const std::u16string& sText = {}) {
        thread.pPending = std::make_shared<Object>(Object{sClass, sText, {}});
    }

    HostAnswer Call(JNIEnv* pEnv, jobject jObj, jmethodID iMethod, const jvalue* pArguments, const char* pcCall);

    void FillTables();
};

using Impl = FakeJvm::Impl;
using Lock = std::lock_guard<std::recursive_mutex>;

/// Takes the arguments apart by the signature and calls the host's method without the lock held.
HostAnswer FakeJvm::Impl::Call(JNIEnv* pEnv, jobject jObj, jmethodID iMethod, const jvalue* pArguments,
                               const char* pcCall) {
    std::function<HostAnswer(const std::vector<HostArgument>&)> method;
    std::vector<HostArgument> vArguments;
    {
        const Lock lock(mutex);
        Check(pEnv, pcCall);
        const auto* pMethod = reinterpret_cast<const Method*>(iMethod);
        const std::shared_ptr<Object> pObject = Resolve(jObj, pcCall);
        method = pObject->methods.at(pMethod->sKey);
        for (std::size_t i = 1; pMethod->sSignature[i] != ')'; ++i) {
            HostArgument argument;
            argument.value = pArguments[vArguments.size()];
            if (pMethod->sSignature[i] == 'L') {
                i = pMethod->sSignature.find(';', i);
                argument.bNull = argument.value.l == nullptr;
                argument.sText = argument.bNull ? u"" : Resolve(argument.value.l, pcCall)->sText;
            }
            vArguments.push_back(argument);
        }
        ++Thread(pEnv).nFrames;
    }
    HostAnswer answer = method(vArguments);
    const Lock lock(mutex);
    ThreadEnv& thread = Thread(pEnv);
    DropLocals(thread, thread.nFrames);
    --thread.nFrames;
    if (!answer.sThrows.empty()) {
        Raise(thread, answer.sThrows);
    }
    return answer;
}

void FakeJvm::Impl::FillTables() {
    vmTable.GetEnv = [](JavaVM* pVM, void** ppvEnv, jint iVersion) -> jint {
        Impl& impl = Of(pVM);
        const Lock lock(impl.mutex);
        if (iVersion != JNI_VERSION_1_4) {
            impl.Violate("GetEnv for another version than 1.4");
        }
        const auto it = impl.mThreads.find(std::this_thread::get_id());
        if (impl.iGetEnvResult != JNI_OK || it == impl.mThreads.end()) {
            *ppvEnv = nullptr;
            return impl.iGetEnvResult != JNI_OK ? impl.iGetEnvResult : JNI_EDETACHED;
        }
        *ppvEnv = &it->second->env;
        return JNI_OK;
    };
    vmTable.AttachCurrentThread = [](JavaVM* pVM, void** ppvEnv, void*) -> jint {
        Impl& impl = Of(pVM);
        const Lock lock(impl.mutex);
        if (impl.bRefuseAttach) {
            return JNI_ERR;
        }
        ++impl.nAttachments;
        *ppvEnv = &impl.AddThread().env;
        return JNI_OK;
    };
    vmTable.DetachCurrentThread = [](JavaVM* pVM) -> jint {
        Impl& impl = Of(pVM);
        const Lock lock(impl.mutex);
        ++impl.nDetachRequests;
        const auto it = impl.mThreads.find(std::this_thread::get_id());
        if (it == impl.mThreads.end()) {
            return JNI_OK;
        }
        if (it->second->nFrames > 0) {
            return JNI_ERR;
        }
        impl.DropLocals(*it->second, 0);
        impl.mThreads.erase(it);
        return JNI_OK;
    };

    envTable.GetJavaVM = [](JNIEnv* pEnv, JavaVM** ppVM) -> jint {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        *ppVM = impl.bNoVm ? nullptr : &impl.vm;
        return JNI_OK;
    };
    envTable.FindClass = [](JNIEnv* pEnv, const char* pcName) -> jclass {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "FindClass");
        if (impl.bFailFindClass) {
            Raise(thread, "java/lang/NoClassDefFoundError");
            return nullptr;
        }
        return impl.NewReference<jclass>(std::make_shared<Object>(Object{pcName, {}, {}}), &thread);
    };
    envTable.GetObjectClass = [](JNIEnv* pEnv, jobject jObj) -> jclass {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "GetObjectClass");
        return impl.NewReference<jclass>(impl.Resolve(jObj, "GetObjectClass"), &thread);
    };
    envTable.GetMethodID = [](JNIEnv* pEnv, jclass jClass, const char* pcName, const char* pcSignature) -> jmethodID {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "GetMethodID");
        const std::shared_ptr<Object> pClass = impl.Resolve(jClass, "GetMethodID");
        const std::string sKey = std::string(pcName) + pcSignature;
        if (!pClass->methods.contains(sKey) && std::strcmp(pcName, "<init>") != 0) {
            Raise(thread, "java/lang/NoSuchMethodError");
            return nullptr;
        }
        auto& pMethod = impl.mMethods[pClass->sClass + "." + sKey];
        if (pMethod == nullptr) {
            pMethod = std::make_unique<Method>(Method{pClass->sClass, sKey, pcSignature});
        }
        return reinterpret_cast<jmethodID>(pMethod.get());
    };
    envTable.CallVoidMethodA = [](JNIEnv* pEnv, jobject jObj, jmethodID iMethod, const jvalue* pArguments) {
        Of(pEnv).Call(pEnv, jObj, iMethod, pArguments, "CallVoidMethodA");
    };
    envTable.CallIntMethodA = [](JNIEnv* pEnv, jobject jObj, jmethodID iMethod, const jvalue* pArguments) -> jint {
        return Of(pEnv).Call(pEnv, jObj, iMethod, pArguments, "CallIntMethodA").iValue;
    };
    envTable.CallBooleanMethodA = [](JNIEnv* pEnv, jobject jObj, jmethodID iMethod,
                                     const jvalue* pArguments) -> jboolean {
        return static_cast<jboolean>(Of(pEnv).Call(pEnv, jObj, iMethod, pArguments, "CallBooleanMethodA").iValue);
    };
    envTable.NewObjectA = [](JNIEnv* pEnv, jclass jClass, jmethodID, const jvalue* pArguments) -> jobject {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "NewObjectA");
        const std::string sClass = impl.Resolve(jClass, "NewObjectA")->sClass;
        std::u16string sText = pArguments->l != nullptr ? impl.Resolve(pArguments->l, "NewObjectA")->sText : u"";
        return impl.NewReference<jobject>(std::make_shared<Object>(Object{sClass, std::move(sText), {}}), &thread);
    };

    envTable.Throw = [](JNIEnv* pEnv, jthrowable jException) -> jint {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "Throw");
        thread.pPending = impl.Resolve(jException, "Throw");
        return JNI_OK;
    };
    envTable.ThrowNew = [](JNIEnv* pEnv, jclass jClass, const char* pcText) -> jint {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "ThrowNew");
        Raise(thread, impl.Resolve(jClass, "ThrowNew")->sClass, std::u16string(pcText, pcText + std::strlen(pcText)));
        return JNI_OK;
    };
    envTable.ExceptionOccurred = [](JNIEnv* pEnv) -> jthrowable {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "ExceptionOccurred", true);
        return thread.pPending != nullptr ? impl.NewReference<jthrowable>(thread.pPending, &thread) : nullptr;
    };
    envTable.ExceptionDescribe = [](JNIEnv* pEnv) {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        const ThreadEnv& thread = impl.Check(pEnv, "ExceptionDescribe", true);
        if (!impl.bQuiet) {
            std::fprintf(stderr, "Exception in a fake thread: %s\n",
                         thread.pPending != nullptr ? thread.pPending->sClass.c_str() : "none");
        }
    };
    envTable.ExceptionClear = [](JNIEnv* pEnv) {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "ExceptionClear", true).pPending.reset();
    };
    envTable.ExceptionCheck = [](JNIEnv* pEnv) -> jboolean {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        return impl.Check(pEnv, "ExceptionCheck", true).pPending != nullptr ? JNI_TRUE : JNI_FALSE;
    };

    envTable.NewGlobalRef = [](JNIEnv* pEnv, jobject jObj) -> jobject {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "NewGlobalRef");
        return impl.NewReference<jobject>(impl.Resolve(jObj, "NewGlobalRef"), nullptr);
    };
    envTable.DeleteGlobalRef = [](JNIEnv* pEnv, jobject jObj) {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "DeleteGlobalRef", true);
        impl.Delete(jObj, true, "DeleteGlobalRef");
    };
    envTable.DeleteLocalRef = [](JNIEnv* pEnv, jobject jObj) {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "DeleteLocalRef", true);
        impl.Delete(jObj, false, "DeleteLocalRef");
    };

    envTable.NewString = [](JNIEnv* pEnv, const jchar* pUnits, jsize nUnits) -> jstring {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        ThreadEnv& thread = impl.Check(pEnv, "NewString");
        if (impl.nFailString > 0 && --impl.nFailString == 0) {
            Raise(thread, "java/lang/OutOfMemoryError");
            return nullptr;
        }
        return impl.NewReference<jstring>(
            std::make_shared<Object>(Object{"java/lang/String", std::u16string(pUnits, pUnits + nUnits), {}}), &thread);
    };
    envTable.GetStringLength = [](JNIEnv* pEnv, jstring jText) -> jsize {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "GetStringLength");
        return static_cast<jsize>(impl.Resolve(jText, "GetStringLength")->sText.size());
    };
    envTable.GetStringRegion = [](JNIEnv* pEnv, jstring jText, jsize iStart, jsize nUnits, jchar* pUnits) {
        Impl& impl = Of(pEnv);
        const Lock lock(impl.mutex);
        impl.Check(pEnv, "GetStringRegion");
        const std::u16string sText = impl.Resolve(jText, "GetStringRegion")->sText;
        if (iStart < 0 || static_cast<std::size_t>(iStart) + static_cast<std::size_t>(nUnits) > sText.size()) {
            impl.Violate("GetStringRegion beyond the end");
            return;
        }
        for (jsize i = 0; i < nUnits; ++i) {
            pUnits[i] = static_cast<jchar>(sText[static_cast<std::size_t>(iStart) + static_cast<std::size_t>(i)]);
        }
    };
}

FakeJvm::FakeJvm() : m_pImpl(std::make_unique<Impl>()) {
    m_pImpl->FillTables();
    m_pImpl->vm.functions = &m_pImpl->vmTable;
}

FakeJvm::~FakeJvm() = default;

JavaVM* FakeJvm::Vm() {
    return &m_pImpl->vm;
}

JNIEnv* FakeJvm::EnterJava() {
    const Lock lock(m_pImpl->mutex);
    const auto it = m_pImpl->mThreads.find(std::this_thread::get_id());
    ThreadEnv& thread = it != m_pImpl->mThreads.end() ? *it->second : m_pImpl->AddThread();
    ++thread.nFrames;
    return &thread.env;
}

void FakeJvm::LeaveJava() {
    const Lock lock(m_pImpl->mutex);
    const auto it = m_pImpl->mThreads.find(std::this_thread::get_id());
    ThreadEnv& thread = *it->second;
    m_pImpl->DropLocals(thread, thread.nFrames);
    if (--thread.nFrames == 0 && thread.pPending == nullptr) {
        m_pImpl->mThreads.erase(it);
    }
}

jobject FakeJvm::NewHost(HostMethods methods) {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->NewReference<jobject>(std::make_shared<Object>(Object{"Host", {}, std::move(methods)}),
                                          m_pImpl->mThreads.at(std::this_thread::get_id()).get());
}

jstring FakeJvm::NewText(const std::u16string& sText) {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->NewReference<jstring>(std::make_shared<Object>(Object{"java/lang/String", sText, {}}),
                                          m_pImpl->mThreads.at(std::this_thread::get_id()).get());
}

std::string FakeJvm::TakeException() {
    const Lock lock(m_pImpl->mutex);
    const auto it = m_pImpl->mThreads.find(std::this_thread::get_id());
    if (it == m_pImpl->mThreads.end() || it->second->pPending == nullptr) {
        return "";
    }
    const std::shared_ptr<Object> pPending = std::move(it->second->pPending);
    it->second->pPending.reset();
    std::string sText = pPending->sClass;
    if (!pPending->sText.empty()) {
        sText += ": ";
        for (const char16_t cUnit : pPending->sText) {
            sText += cUnit < 0x80 ? static_cast<char>(cUnit) : '?';
        }
    }
    return sText;
}

std::u16string FakeJvm::TextOf(jstring jText) {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->Resolve(jText, "TextOf")->sText;
}

std::size_t FakeJvm::GlobalReferences() const {
    const Lock lock(m_pImpl->mutex);
    std::size_t nFound = 0;
    for (const auto& [pvKey, pReference] : m_pImpl->mReferences) {
        nFound += pReference->pOwner == nullptr ? 1 : 0;
    }
    return nFound;
}

std::size_t FakeJvm::LocalReferences() const {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->mReferences.size() - GlobalReferences();
}

std::size_t FakeJvm::AttachedThreads() const {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->mThreads.size();
}

int FakeJvm::Attachments() const {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->nAttachments;
}

int FakeJvm::DetachRequests() const {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->nDetachRequests;
}

std::vector<std::string> FakeJvm::Violations() const {
    const Lock lock(m_pImpl->mutex);
    return m_pImpl->vsViolations;
}

void FakeJvm::SetNoVm(bool bNoVm) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->bNoVm = bNoVm;
}

void FakeJvm::SetRefuseAttach(bool bRefuse) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->bRefuseAttach = bRefuse;
}

void FakeJvm::SetGetEnvResult(jint iResult) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->iGetEnvResult = iResult;
}

void FakeJvm::SetFailString(int nth) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->nFailString = nth;
}

void FakeJvm::SetQuiet(bool bQuiet) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->bQuiet = bQuiet;
}
void FakeJvm::SetFailFindClass(bool bFail) {
    const Lock lock(m_pImpl->mutex);
    m_pImpl->bFailFindClass = bFail;
}
