// The native methods of com.norvo.kbt.quickspin.nfs.NfsLibNative.
//
// Each forwards to the controller behind the handle (CNfsMain and its kin). The handle 0, and one that is not in use,
// is answered with false, 0 or nothing unless said otherwise. Methods with a reason raise java/io/IOException with it
// and return false. Null Strings reach the controller as null texts. Methods are described by the controller.
#pragma once

#include "jni.h"

/// The exported name of a native method.
#define NFSLIB_NATIVE(method) Java_com_norvo_kbt_quickspin_nfs_NfsLibNative_##method

extern "C" {

// ---- Life of a controller, start and stop, the waiting loop (NfsJNILifecycle.cpp)

/// 0, with an exception, if the controller cannot be made ready.
JNIEXPORT jlong JNICALL NFSLIB_NATIVE(initial)(JNIEnv* pEnv, jobject jObj, jstring jLogID, jint iAccessMode,
                                               jint iLogControl);
/// Ends and deletes the controller; the handle is out of use at once.
JNIEXPORT void JNICALL NFSLIB_NATIVE(terminate)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(isServerRunning)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(startRemoteController)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT void JNICALL NFSLIB_NATIVE(stopRemoteController)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(startServer)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jint iMountPort,
                                                      jint iNfsPort, jboolean bReadOnly);
JNIEXPORT void JNICALL NFSLIB_NATIVE(stopServer)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
/// Keeps a lasting callback for the calling object until the host says "interrupted" or the seconds are over (a
/// negative number never is). Always false.
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(receiveCallbackLoop)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                              jint iLifeTimeInSec);

// ---- Exports and sessions (NfsJNIExports.cpp)

JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(addMountPoint)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                        jstring jLocalMountPath, jstring jExportName);
JNIEXPORT void JNICALL NFSLIB_NATIVE(removeMountPoint)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                       jstring jLocalMountPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(addSession)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID,
                                                 jstring jLocalMountPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(removeSession)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jSessionID);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(isSessionExists)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                          jstring jSessionID);
/// Asks this process's own table, whatever the access mode.
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(isLocalSessionExists)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                               jstring jSessionID);
JNIEXPORT jint JNICALL NFSLIB_NATIVE(getMountInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                   jboolean bClientMountedOnly, jboolean bPrintDetails);
JNIEXPORT jint JNICALL NFSLIB_NATIVE(getSessionInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jboolean bPrintDetails);

// ---- Redirected files and cached descriptors (NfsJNIRedirected.cpp)

JNIEXPORT void JNICALL NFSLIB_NATIVE(openRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                                         jlong iSize, jboolean bCreateInfoFile,
                                                         jint iInfoFileSegmentSizeMB, jint iInfoFileCheckPointSizeMB);
JNIEXPORT void JNICALL NFSLIB_NATIVE(closeRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(closeAllRedirectedFiles)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(addRedirectedFileSegment)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                                               jstring jSrcPath, jlong iSrcFileOffset, jlong iOffset,
                                                               jlong iLength);
JNIEXPORT void JNICALL NFSLIB_NATIVE(exportRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                                           jstring jExportPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(exportRedirectedFileInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                                               jstring jExportPath, jboolean bMergeRange);
JNIEXPORT void JNICALL NFSLIB_NATIVE(closeOpenedFile)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath);
JNIEXPORT void JNICALL NFSLIB_NATIVE(closeAllOpenedFiles)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath);

// ---- Log control, identity, tests, datastores, network devices (NfsJNIAdmin.cpp)

JNIEXPORT void JNICALL NFSLIB_NATIVE(setLogControl)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jint iLogControl);
/// "Not Defined" without a controller.
JNIEXPORT jstring JNICALL NFSLIB_NATIVE(getVersion)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
/// "Unknown" without a controller.
JNIEXPORT jstring JNICALL NFSLIB_NATIVE(getDescription)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
/// -1 without a controller.
JNIEXPORT jint JNICALL NFSLIB_NATIVE(getAccessMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT jint JNICALL NFSLIB_NATIVE(getServerStatus)(JNIEnv* pEnv, jobject jObj, jlong iHandle);
JNIEXPORT void JNICALL NFSLIB_NATIVE(runTestMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jDirPath,
                                                  jlong iFileSize);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(runQuickTestMode)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jPath,
                                                           jint iMode);
JNIEXPORT void JNICALL NFSLIB_NATIVE(addVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle, jstring jDatastoreMoid,
                                                     jstring jHost, jstring jPort, jstring jUser, jstring jPwd);
JNIEXPORT void JNICALL NFSLIB_NATIVE(removeVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                        jstring jDatastoreMoid);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(addNetDeviceCredential)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                                 jstring jPath, jstring jUser, jstring jPwd);
JNIEXPORT jboolean JNICALL NFSLIB_NATIVE(removeNetDeviceCredential)(JNIEnv* pEnv, jobject jObj, jlong iHandle,
                                                                    jstring jPath);

}  // extern "C"
