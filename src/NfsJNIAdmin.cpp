// Native methods: log control, identity, tests, datastores, network devices.
#include "NfsJNI.h"

#include <array>

#include "HostCall.h"
#include "JniText.h"
#include "NfsMain.h"
#include "ServerIdentity.h"

namespace {

/// A text that the controller says of itself.
jstring AskForText(JNIEnv* pEnv, jobject jObj, jlong iHandle, const char* pcNone, void (CNfsMain::*pGet)(char*)) {
    std::array<char, kIdentityBufferSize> vcText{};
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        (main.*pGet)(vcText.data());
        pcNone = nullptr;
    });
    return pEnv->ExceptionCheck() ? nullptr : NewHostString(pEnv, pcNone != nullptr ? pcNone : vcText.data());
}

}  // namespace

void NFSLIB_NATIVE(setLogControl)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jint iLogControl) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) { main.SetLogControl(iLogControl); });
}

jstring NFSLIB_NATIVE(getVersion)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return AskForText(pEnv, jObj, iHandle, "Not Defined", &CNfsMain::GetVersion);
}

jstring NFSLIB_NATIVE(getDescription)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return AskForText(pEnv, jObj, iHandle, kUnknownServer, &CNfsMain::GetDescription);
}

jint NFSLIB_NATIVE(getAccessMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return RunHostCall(pEnv, jObj, iHandle, jint{-1},
                       [&](CHostCall&, CNfsMain& main) -> jint { return main.GetAccessMode(); });
}

jint NFSLIB_NATIVE(getServerStatus)(JNIEnv* pEnv, jobject jObj, jlong iHandle) {
    return RunHostCall(pEnv, jObj, iHandle, jint{0},
                       [&](CHostCall&, CNfsMain& main) -> jint { return main.GetServerStatus(); });
}

void NFSLIB_NATIVE(runTestMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jDirPath, jlong iFileSize) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jDirPath);
        main.RunTestMode(path.Get(), iFileSize);
    });
}

jboolean NFSLIB_NATIVE(runQuickTestMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath, jint iMode) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall& call, CNfsMain& main) -> jboolean {
        const CJniText path(pEnv, jPath);
        return call.OrThrow(main.RunQuickTestMode(path.Get(), iMode, call.Reason()));
    });
}

void NFSLIB_NATIVE(addVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jDatastoreMoid, jstring jHost,
                                   jstring jPort, jstring jUser, jstring jPwd) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText moid(pEnv, jDatastoreMoid);
        const CJniText host(pEnv, jHost);
        const CJniText port(pEnv, jPort);
        const CJniText user(pEnv, jUser);
        const CJniText password(pEnv, jPwd);
        main.AddVSphereInfo(moid.Get(), host.Get(), port.Get(), user.Get(), password.Get());
    });
}

void NFSLIB_NATIVE(removeVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jDatastoreMoid) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText moid(pEnv, jDatastoreMoid);
        main.RemoveVSphereInfo(moid.Get());
    });
}

jboolean NFSLIB_NATIVE(addNetDeviceCredential)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath, jstring jUser,
                                               jstring jPwd) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall&, CNfsMain& main) -> jboolean {
        const CJniText path(pEnv, jPath);
        const CJniText user(pEnv, jUser);
        const CJniText password(pEnv, jPwd);
        return main.AddNetDeviceCredential(path.Get(), user.Get(), password.Get());
    });
}

jboolean NFSLIB_NATIVE(removeNetDeviceCredential)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall&, CNfsMain& main) -> jboolean {
        const CJniText path(pEnv, jPath);
        return main.RemoveNetDeviceCredential(path.Get());
    });
}
