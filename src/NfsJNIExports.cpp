// Native methods: exports and sessions.
#include "NfsJNI.h"

#include "HostCall.h"
#include "JniText.h"
#include "NfsMain.h"

jboolean NFSLIB_NATIVE(addMountPoint)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jLocalMountPath,
                                      jstring jExportName) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall& call, CNfsMain& main) -> jboolean {
        const CJniText path(pEnv, jLocalMountPath);
        const CJniText exportName(pEnv, jExportName);
        return call.OrThrow(main.AddMountPoint(path.Get(), exportName.Get(), call.Reason()));
    });
}

void NFSLIB_NATIVE(removeMountPoint)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jLocalMountPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jLocalMountPath);
        main.RemoveMountPoint(path.Get());
    });
}

void NFSLIB_NATIVE(addSession)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID, jstring jLocalMountPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText sessionID(pEnv, jSessionID);
        const CJniText path(pEnv, jLocalMountPath);
        main.AddSessionInfo(sessionID.Get(), path.Get());
    });
}

void NFSLIB_NATIVE(removeSession)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText sessionID(pEnv, jSessionID);
        main.RemoveSessionInfo(sessionID.Get());
    });
}

jboolean NFSLIB_NATIVE(isSessionExists)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall&, CNfsMain& main) -> jboolean {
        const CJniText sessionID(pEnv, jSessionID);
        return main.IsSessionExists(sessionID.Get());
    });
}

jboolean NFSLIB_NATIVE(isLocalSessionExists)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID) {
    return RunHostCall(pEnv, jObj, iHandle, jboolean{JNI_FALSE}, [&](CHostCall&, CNfsMain& main) -> jboolean {
        const CJniText sessionID(pEnv, jSessionID);
        return main.IsLocalSessionExists(sessionID.Get());
    });
}

jint NFSLIB_NATIVE(getMountInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jboolean bClientMountedOnly,
                                 jboolean bPrintDetails) {
    return RunHostCall(pEnv, jObj, iHandle, jint{0}, [&](CHostCall&, CNfsMain& main) -> jint {
        return main.GetMountInfo(bClientMountedOnly != JNI_FALSE, bPrintDetails != JNI_FALSE);
    });
}

jint NFSLIB_NATIVE(getSessionInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jboolean bPrintDetails) {
    return RunHostCall(pEnv, jObj, iHandle, jint{0}, [&](CHostCall&, CNfsMain& main) -> jint {
        return main.GetSessionInfo(bPrintDetails != JNI_FALSE);
    });
}
