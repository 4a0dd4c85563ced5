// Native methods: redirected files and cached descriptors.
#include "NfsJNI.h"

#include "HostCall.h"
#include "JniText.h"
#include "NfsMain.h"

void NFSLIB_NATIVE(openRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath, jlong iSize,
                                       jboolean bCreateInfoFile, jint iInfoFileSegmentSizeMB,
                                       jint iInfoFileCheckPointSizeMB) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        main.OpenRedirectedFile(path.Get(), iSize, bCreateInfoFile != JNI_FALSE, iInfoFileSegmentSizeMB,
                                iInfoFileCheckPointSizeMB);
    });
}

void NFSLIB_NATIVE(closeRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        main.CloseRedirectedFile(path.Get());
    });
}

void NFSLIB_NATIVE(closeAllRedirectedFiles)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        main.CloseAllRedirectedFiles(path.Get());
    });
}

void NFSLIB_NATIVE(addRedirectedFileSegment)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath, jstring jSrcPath,
                                             jlong iSrcFileOffset, jlong iOffset, jlong iLength) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall& call, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        const CJniText srcPath(pEnv, jSrcPath);
        call.OrThrow(
            main.AddRedirectedFileSegment(path.Get(), srcPath.Get(), iSrcFileOffset, iOffset, iLength, call.Reason()));
    });
}

void NFSLIB_NATIVE(exportRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                         jstring jExportPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        const CJniText exportPath(pEnv, jExportPath);
        main.ExportRedirectedFile(path.Get(), exportPath.Get());
    });
}

void NFSLIB_NATIVE(exportRedirectedFileInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                             jstring jExportPath, jboolean bMergeRange) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        const CJniText exportPath(pEnv, jExportPath);
        main.ExportRedirectedFileInfo(path.Get(), exportPath.Get(), bMergeRange != JNI_FALSE);
    });
}

void NFSLIB_NATIVE(closeOpenedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        main.CloseCachedFileHandle(path.Get());
    });
}

void NFSLIB_NATIVE(closeAllOpenedFiles)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath) {
    RunHostCall(pEnv, jObj, iHandle, [&](CHostCall&, CNfsMain& main) {
        const CJniText path(pEnv, jPath);
        main.CloseAllCachedFileHandles(path.Get());
    });
}
