// The calls into the host object.
#include "Callback.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <optional>

#include "JniLocalRef.h"
#include "JniText.h"
#include "JniThread.h"

namespace {

constexpr const char* kLogSignature = "(Ljava/lang/String;Ljava/lang/String;)V";

jvalue BooleanArgument(bool bValue) {
    jvalue value{};
    value.z = bValue ? JNI_TRUE : JNI_FALSE;
    return value;
}

jvalue IntArgument(int iValue) {
    jvalue value{};
    value.i = iValue;
    return value;
}

/// The host has no unsigned long: the bits are what counts.
jvalue LongArgument(unsigned long long iValue) {
    jvalue value{};
    value.j = static_cast<jlong>(iValue);
    return value;
}

/// String arguments of one call; their references go with the scope.
template <std::size_t kCount>
class HostStrings {
public:
    HostStrings(JNIEnv* pEnv, const std::array<const char*, kCount>& vTexts) {
        for (std::size_t i = 0; i < kCount && m_bComplete; ++i) {
            m_vRefs[i].emplace(pEnv, NewHostString(pEnv, vTexts[i]));
            m_bComplete = vTexts[i] == nullptr || m_vRefs[i]->Get() != nullptr;
        }
    }

    /// False when the host is out of memory.
    bool IsComplete() const { return m_bComplete; }

    jvalue operator[](std::size_t i) const {
        jvalue value{};
        value.l = m_vRefs[i]->Get();
        return value;
    }

private:
    std::array<std::optional<CJniLocalRef<jstring>>, kCount> m_vRefs;
    bool m_bComplete = true;
};

/// A method of the host object, ready to be called on this thread.
struct HostMethod {
    JNIEnv* pEnv;
    jobject jObj;
    jmethodID iMethod;
};

/// The one road into the host: attach, look up, call, clear up, ask for detachment. `call` makes the call itself and
/// is given the method; the failure value stands for a host that could not be asked or that threw.
template <typename Result, typename Call>
Result CallHost(JavaVM* pVM, jobject jObj, const char* pcMethod, const char* pcSignature, Result failure,
                const Call& call) {
    if (pVM == nullptr || jObj == nullptr) {
        return failure;
    }
    const CJniThread thread(pVM);
    JNIEnv* pEnv = thread.Env();
    if (pEnv == nullptr) {
        return failure;
    }
    const CJniPendingException outer(pEnv);
    const CJniLocalRef<jclass> clazz(pEnv, pEnv->GetObjectClass(jObj));
    jmethodID iMethod = pEnv->GetMethodID(clazz.Get(), pcMethod, pcSignature);
    if (iMethod == nullptr) {
        pEnv->ExceptionClear();  // NoSuchMethodError: the host does not want these
        return failure;
    }
    const Result result = call(HostMethod{pEnv, jObj, iMethod});
    return DescribeAndClearException(pEnv) ? failure : result;
}

/// Calls a notification method: (ID, texts..., further arguments) to int.
template <std::size_t kTexts, std::size_t kOthers>
int Notify(JavaVM* pVM, jobject jObj, const char* pcMethod, const char* pcSignature,
           const std::array<const char*, kTexts>& vTexts, const std::array<jvalue, kOthers>& vOthers) {
    return CallHost(pVM, jObj, pcMethod, pcSignature, -1, [&](const HostMethod& method) -> int {
        const HostStrings<kTexts> strings(method.pEnv, vTexts);
        if (!strings.IsComplete()) {
            return -1;
        }
        std::array<jvalue, kTexts + kOthers> vArguments{};
        for (std::size_t i = 0; i < kTexts; ++i) {
            vArguments[i] = strings[i];
        }
        for (std::size_t i = 0; i < kOthers; ++i) {
            vArguments[kTexts + i] = vOthers[i];
        }
        return method.pEnv->CallIntMethodA(method.jObj, method.iMethod, vArguments.data());
    });
}

/// Raises the exception; whatever goes wrong on the way leaves an exception of its own, which serves as well.
void ThrowNewIOException(JNIEnv* pEnv, const char* pcText) {
    const CJniLocalRef<jclass> clazz(pEnv, pEnv->FindClass("java/io/IOException"));
    if (clazz.Get() == nullptr) {
        return;
    }
    jmethodID iConstructor = pEnv->GetMethodID(clazz.Get(), "<init>", "(Ljava/lang/String;)V");
    if (iConstructor == nullptr) {
        return;
    }
    const CJniLocalRef<jstring> text(pEnv, NewHostString(pEnv, pcText));
    if (pcText != nullptr && text.Get() == nullptr) {
        return;
    }
    jvalue argument{};
    argument.l = text.Get();
    const CJniLocalRef<jobject> exception(pEnv, pEnv->NewObjectA(clazz.Get(), iConstructor, &argument));
    if (!pEnv->ExceptionCheck() && exception.Get() != nullptr) {
        pEnv->Throw(static_cast<jthrowable>(exception.Get()));
    }
}

}  // namespace

CCallback::CCallback(JNIEnv* pEnv, jobject jObj) {
    if (pEnv->GetJavaVM(&m_jVM) != JNI_OK) {
        m_jVM = nullptr;
    }
    if (m_jVM == nullptr) {
        std::printf("[Callback::Constructor] vm = NULL\n");
        return;
    }
    m_jObj = pEnv->NewGlobalRef(jObj);
}

CCallback::~CCallback() {
    if (m_jObj == nullptr) {
        return;
    }
    const CJniThread thread(m_jVM);
    if (thread.Env() != nullptr) {
        thread.Env()->DeleteGlobalRef(m_jObj);
    }
}

bool CCallback::LogInfo(const char* pcID, const char* pcMessage) const {
    return Log("logInfo", pcID, pcMessage);
}

bool CCallback::LogError(const char* pcID, const char* pcMessage) const {
    return Log("logError", pcID, pcMessage);
}

bool CCallback::LogRaw(const char* pcID, const char* pcMessage) const {
    return Log("logRaw", pcID, pcMessage);
}

bool CCallback::Log(const char* pcMethod, const char* pcID, const char* pcMessage) const {
    return CallHost(m_jVM, m_jObj, pcMethod, kLogSignature, false, [&](const HostMethod& method) {
        const HostStrings<2> strings(method.pEnv, {pcID, pcMessage});
        if (!strings.IsComplete()) {
            return false;
        }
        const std::array<jvalue, 2> vArguments = {strings[0], strings[1]};
        method.pEnv->CallVoidMethodA(method.jObj, method.iMethod, vArguments.data());
        return true;
    });
}

int CCallback::UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                              unsigned long long iSize, bool bAccessTime, unsigned long lAccessTimeSec,
                                              bool bLastModifiedTime, unsigned long lLastModifiedTimeSec) const {
    return Notify<2, 6>(
        m_jVM, m_jObj, "setRedirectedFileAttributes", "(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I", {pcID, pcPath},
        {BooleanArgument(bSize), LongArgument(iSize), BooleanArgument(bAccessTime), LongArgument(lAccessTimeSec),
         BooleanArgument(bLastModifiedTime), LongArgument(lLastModifiedTimeSec)});
}

int CCallback::RemoveRedirectedFile(const char* pcID, const char* pcPath) const {
    return Notify<2, 0>(m_jVM, m_jObj, "removeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;)I",
                        {pcID, pcPath}, {});
}

int CCallback::RenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo) const {
    return Notify<3, 0>(m_jVM, m_jObj, "renameRedirectedFile",
                        "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I", {pcID, pcPathFrom, pcPathTo}, {});
}

int CCallback::WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek, int iSeekType,
                                   unsigned int iLen) const {
    return Notify<2, 3>(m_jVM, m_jObj, "writeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;JII)I",
                        {pcID, pcPath},
                        {LongArgument(iSeek), IntArgument(iSeekType), IntArgument(static_cast<int>(iLen))});
}

bool CCallback::IsInterrupted() const {
    return CallHost(m_jVM, m_jObj, "isInterrupted", "()Z", false, [](const HostMethod& method) {
        return method.pEnv->CallBooleanMethodA(method.jObj, method.iMethod, nullptr) != JNI_FALSE;
    });
}

void CCallback::ThrowIOException(const char* pcText) const {
    if (m_jVM == nullptr) {
        return;
    }
    const CJniThread thread(m_jVM);
    if (thread.Env() != nullptr && !thread.Env()->ExceptionCheck()) {
        ThrowNewIOException(thread.Env(), pcText);
    }
}
