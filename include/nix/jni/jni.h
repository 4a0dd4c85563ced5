/*
 * The Java Native Interface, version 1.4: types, constants and function tables, as far as a native library needs them.
 *
 * A declaration of a binary interface: the order of the slots is the interface. Later versions of the interface append
 * slots behind the last one of a table; they are left out here, and nothing may rely on a table's size.
 * A test compiles this header and a JDK's own and compares every type, constant, offset and signature.
 */
#ifndef NFSLIB_JNI_H
#define NFSLIB_JNI_H

#include <stdarg.h>

#define JNIEXPORT __attribute__((visibility("default")))
#define JNIIMPORT __attribute__((visibility("default")))
#define JNICALL

/* ---- Primitive types (LP64) ---------------------------------------------------------------------------------- */

typedef unsigned char jboolean;
typedef signed char jbyte;
typedef unsigned short jchar;
typedef short jshort;
typedef int jint;
typedef long jlong;
typedef float jfloat;
typedef double jdouble;
typedef jint jsize;

/* ---- References ---------------------------------------------------------------------------------------------- */

#ifdef __cplusplus

class _jobject {};
class _jclass : public _jobject {};
class _jthrowable : public _jobject {};
class _jstring : public _jobject {};
class _jarray : public _jobject {};
class _jbooleanArray : public _jarray {};
class _jbyteArray : public _jarray {};
class _jcharArray : public _jarray {};
class _jshortArray : public _jarray {};
class _jintArray : public _jarray {};
class _jlongArray : public _jarray {};
class _jfloatArray : public _jarray {};
class _jdoubleArray : public _jarray {};
class _jobjectArray : public _jarray {};

typedef _jobject* jobject;
typedef _jclass* jclass;
typedef _jthrowable* jthrowable;
typedef _jstring* jstring;
typedef _jarray* jarray;
typedef _jbooleanArray* jbooleanArray;
typedef _jbyteArray* jbyteArray;
typedef _jcharArray* jcharArray;
typedef _jshortArray* jshortArray;
typedef _jintArray* jintArray;
typedef _jlongArray* jlongArray;
typedef _jfloatArray* jfloatArray;
typedef _jdoubleArray* jdoubleArray;
typedef _jobjectArray* jobjectArray;

#else

struct _jobject;
typedef struct _jobject* jobject;
typedef jobject jclass;
typedef jobject jthrowable;
typedef jobject jstring;
typedef jobject jarray;
typedef jarray jbooleanArray;
typedef jarray jbyteArray;
typedef jarray jcharArray;
typedef jarray jshortArray;
typedef jarray jintArray;
typedef jarray jlongArray;
typedef jarray jfloatArray;
typedef jarray jdoubleArray;
typedef jarray jobjectArray;

#endif

typedef jobject jweak;

struct _jfieldID;
typedef struct _jfieldID* jfieldID;
struct _jmethodID;
typedef struct _jmethodID* jmethodID;

/* One argument of a method called through an argument array. */
typedef union jvalue {
    jboolean z;
    jbyte b;
    jchar c;
    jshort s;
    jint i;
    jlong j;
    jfloat f;
    jdouble d;
    jobject l;
} jvalue;

/* ---- Constants ------------------------------------------------------------------------------------------------ */

#define JNI_FALSE 0
#define JNI_TRUE 1

#define JNI_OK 0           /* success */
#define JNI_ERR (-1)       /* unknown error */
#define JNI_EDETACHED (-2) /* the thread is not attached to the virtual machine */
#define JNI_EVERSION (-3)  /* the version is not supported */
#define JNI_ENOMEM (-4)    /* not enough memory */
#define JNI_EEXIST (-5)    /* a virtual machine exists already */
#define JNI_EINVAL (-6)    /* invalid arguments */

#define JNI_COMMIT 1 /* Release<Type>ArrayElements: copy back, keep the buffer */
#define JNI_ABORT 2  /* Release<Type>ArrayElements: free the buffer, copy nothing back */

#define JNI_VERSION_1_1 0x00010001
#define JNI_VERSION_1_2 0x00010002
#define JNI_VERSION_1_4 0x00010004

/* ---- Records -------------------------------------------------------------------------------------------------- */

typedef struct {
    char* name;
    char* signature;
    void* fnPtr;
} JNINativeMethod;

typedef struct JavaVMOption {
    char* optionString; /* in the platform's default encoding */
    void* extraInfo;
} JavaVMOption;

typedef struct JavaVMInitArgs {
    jint version;
    jint nOptions;
    JavaVMOption* options;
    jboolean ignoreUnrecognized;
} JavaVMInitArgs;

typedef struct JavaVMAttachArgs {
    jint version;
    char* name;    /* the thread's name in modified UTF-8, or null */
    jobject group; /* a global reference to its ThreadGroup, or null */
} JavaVMAttachArgs;

struct JNINativeInterface_;
struct JNIInvokeInterface_;
struct JNIEnv_;
struct JavaVM_;

#ifdef __cplusplus
typedef JNIEnv_ JNIEnv;
typedef JavaVM_ JavaVM;
#else
typedef const struct JNINativeInterface_* JNIEnv;
typedef const struct JNIInvokeInterface_* JavaVM;
#endif

/* ---- The function table of a thread's environment --------------------------------------------------------------
 *
 * Families of functions that differ only in a type are told by a macro each; one line is one slot or one family. */

/* Call<Name>Method, with the arguments as "...", va_list and array. The rest is what stands before the method ID. */
#define NFSLIB_JNI_CALL(KIND, NAME, TYPE, ...)                                                           \
    TYPE(JNICALL* Call##KIND##NAME##Method)(JNIEnv * env, __VA_ARGS__, jmethodID method, ...);           \
    TYPE(JNICALL* Call##KIND##NAME##MethodV)(JNIEnv * env, __VA_ARGS__, jmethodID method, va_list args); \
    TYPE(JNICALL* Call##KIND##NAME##MethodA)(JNIEnv * env, __VA_ARGS__, jmethodID method, const jvalue* args);

#define NFSLIB_JNI_CALLS(KIND, ...)                       \
    NFSLIB_JNI_CALL(KIND, Object, jobject, __VA_ARGS__)   \
    NFSLIB_JNI_CALL(KIND, Boolean, jboolean, __VA_ARGS__) \
    NFSLIB_JNI_CALL(KIND, Byte, jbyte, __VA_ARGS__)       \
    NFSLIB_JNI_CALL(KIND, Char, jchar, __VA_ARGS__)       \
    NFSLIB_JNI_CALL(KIND, Short, jshort, __VA_ARGS__)     \
    NFSLIB_JNI_CALL(KIND, Int, jint, __VA_ARGS__)         \
    NFSLIB_JNI_CALL(KIND, Long, jlong, __VA_ARGS__)       \
    NFSLIB_JNI_CALL(KIND, Float, jfloat, __VA_ARGS__)     \
    NFSLIB_JNI_CALL(KIND, Double, jdouble, __VA_ARGS__)   \
    NFSLIB_JNI_CALL(KIND, Void, void, __VA_ARGS__)

#define NFSLIB_JNI_GET_FIELD(KIND, NAME, TYPE, HOLDER) \
    TYPE(JNICALL* Get##KIND##NAME##Field)(JNIEnv * env, HOLDER holder, jfieldID field);
#define NFSLIB_JNI_SET_FIELD(KIND, NAME, TYPE, HOLDER) \
    void(JNICALL * Set##KIND##NAME##Field)(JNIEnv * env, HOLDER holder, jfieldID field, TYPE value);

#define NFSLIB_JNI_FIELDS(SLOT, KIND, HOLDER) \
    SLOT(KIND, Object, jobject, HOLDER)       \
    SLOT(KIND, Boolean, jboolean, HOLDER)     \
    SLOT(KIND, Byte, jbyte, HOLDER)           \
    SLOT(KIND, Char, jchar, HOLDER)           \
    SLOT(KIND, Short, jshort, HOLDER)         \
    SLOT(KIND, Int, jint, HOLDER)             \
    SLOT(KIND, Long, jlong, HOLDER)           \
    SLOT(KIND, Float, jfloat, HOLDER)         \
    SLOT(KIND, Double, jdouble, HOLDER)

#define NFSLIB_JNI_NEW_ARRAY(NAME, TYPE, ARRAY) ARRAY(JNICALL* New##NAME##Array)(JNIEnv * env, jsize length);
#define NFSLIB_JNI_GET_ELEMENTS(NAME, TYPE, ARRAY) \
    TYPE*(JNICALL * Get##NAME##ArrayElements)(JNIEnv * env, ARRAY array, jboolean * isCopy);
#define NFSLIB_JNI_RELEASE_ELEMENTS(NAME, TYPE, ARRAY) \
    void(JNICALL * Release##NAME##ArrayElements)(JNIEnv * env, ARRAY array, TYPE * elements, jint mode);
#define NFSLIB_JNI_GET_REGION(NAME, TYPE, ARRAY) \
    void(JNICALL * Get##NAME##ArrayRegion)(JNIEnv * env, ARRAY array, jsize start, jsize length, TYPE * buffer);
#define NFSLIB_JNI_SET_REGION(NAME, TYPE, ARRAY) \
    void(JNICALL * Set##NAME##ArrayRegion)(JNIEnv * env, ARRAY array, jsize start, jsize length, const TYPE* buffer);

#define NFSLIB_JNI_ARRAYS(SLOT)            \
    SLOT(Boolean, jboolean, jbooleanArray) \
    SLOT(Byte, jbyte, jbyteArray)          \
    SLOT(Char, jchar, jcharArray)          \
    SLOT(Short, jshort, jshortArray)       \
    SLOT(Int, jint, jintArray)             \
    SLOT(Long, jlong, jlongArray)          \
    SLOT(Float, jfloat, jfloatArray)       \
    SLOT(Double, jdouble, jdoubleArray)

/* clang-format off */
struct JNINativeInterface_ {
    void* reserved0;
    void* reserved1;
    void* reserved2;
    void* reserved3;

    jint (JNICALL* GetVersion)(JNIEnv* env);

    /* Classes and reflection. */
    jclass (JNICALL* DefineClass)(JNIEnv* env, const char* name, jobject loader, const jbyte* bytes, jsize length);
    jclass (JNICALL* FindClass)(JNIEnv* env, const char* name);
    jmethodID (JNICALL* FromReflectedMethod)(JNIEnv* env, jobject method);
    jfieldID (JNICALL* FromReflectedField)(JNIEnv* env, jobject field);
    jobject (JNICALL* ToReflectedMethod)(JNIEnv* env, jclass clazz, jmethodID method, jboolean isStatic);
    jclass (JNICALL* GetSuperclass)(JNIEnv* env, jclass clazz);
    jboolean (JNICALL* IsAssignableFrom)(JNIEnv* env, jclass from, jclass to);
    jobject (JNICALL* ToReflectedField)(JNIEnv* env, jclass clazz, jfieldID field, jboolean isStatic);

    /* Exceptions. */
    jint (JNICALL* Throw)(JNIEnv* env, jthrowable exception);
    jint (JNICALL* ThrowNew)(JNIEnv* env, jclass clazz, const char* message);
    jthrowable (JNICALL* ExceptionOccurred)(JNIEnv* env);
    void (JNICALL* ExceptionDescribe)(JNIEnv* env);
    void (JNICALL* ExceptionClear)(JNIEnv* env);
    void (JNICALL* FatalError)(JNIEnv* env, const char* message);

    /* References. */
    jint (JNICALL* PushLocalFrame)(JNIEnv* env, jint capacity);
    jobject (JNICALL* PopLocalFrame)(JNIEnv* env, jobject result);
    jobject (JNICALL* NewGlobalRef)(JNIEnv* env, jobject object);
    void (JNICALL* DeleteGlobalRef)(JNIEnv* env, jobject reference);
    void (JNICALL* DeleteLocalRef)(JNIEnv* env, jobject reference);
    jboolean (JNICALL* IsSameObject)(JNIEnv* env, jobject first, jobject second);
    jobject (JNICALL* NewLocalRef)(JNIEnv* env, jobject reference);
    jint (JNICALL* EnsureLocalCapacity)(JNIEnv* env, jint capacity);

    /* Objects. */
    jobject (JNICALL* AllocObject)(JNIEnv* env, jclass clazz);
    jobject (JNICALL* NewObject)(JNIEnv* env, jclass clazz, jmethodID method, ...);
    jobject (JNICALL* NewObjectV)(JNIEnv* env, jclass clazz, jmethodID method, va_list args);
    jobject (JNICALL* NewObjectA)(JNIEnv* env, jclass clazz, jmethodID method, const jvalue* args);
    jclass (JNICALL* GetObjectClass)(JNIEnv* env, jobject object);
    jboolean (JNICALL* IsInstanceOf)(JNIEnv* env, jobject object, jclass clazz);

    /* Instance methods, the same without dynamic dispatch, and instance fields. */
    jmethodID (JNICALL* GetMethodID)(JNIEnv* env, jclass clazz, const char* name, const char* signature);
    NFSLIB_JNI_CALLS(, jobject object)
    NFSLIB_JNI_CALLS(Nonvirtual, jobject object, jclass clazz)
    jfieldID (JNICALL* GetFieldID)(JNIEnv* env, jclass clazz, const char* name, const char* signature);
    NFSLIB_JNI_FIELDS(NFSLIB_JNI_GET_FIELD, , jobject)
    NFSLIB_JNI_FIELDS(NFSLIB_JNI_SET_FIELD, , jobject)

    /* Class methods and fields. */
    jmethodID (JNICALL* GetStaticMethodID)(JNIEnv* env, jclass clazz, const char* name, const char* signature);
    NFSLIB_JNI_CALLS(Static, jclass clazz)
    jfieldID (JNICALL* GetStaticFieldID)(JNIEnv* env, jclass clazz, const char* name, const char* signature);
    NFSLIB_JNI_FIELDS(NFSLIB_JNI_GET_FIELD, Static, jclass)
    NFSLIB_JNI_FIELDS(NFSLIB_JNI_SET_FIELD, Static, jclass)

    /* Strings: UTF-16, then modified UTF-8. */
    jstring (JNICALL* NewString)(JNIEnv* env, const jchar* chars, jsize length);
    jsize (JNICALL* GetStringLength)(JNIEnv* env, jstring string);
    const jchar* (JNICALL* GetStringChars)(JNIEnv* env, jstring string, jboolean* isCopy);
    void (JNICALL* ReleaseStringChars)(JNIEnv* env, jstring string, const jchar* chars);
    jstring (JNICALL* NewStringUTF)(JNIEnv* env, const char* text);
    jsize (JNICALL* GetStringUTFLength)(JNIEnv* env, jstring string);
    const char* (JNICALL* GetStringUTFChars)(JNIEnv* env, jstring string, jboolean* isCopy);
    void (JNICALL* ReleaseStringUTFChars)(JNIEnv* env, jstring string, const char* chars);

    /* Arrays. */
    jsize (JNICALL* GetArrayLength)(JNIEnv* env, jarray array);
    jobjectArray (JNICALL* NewObjectArray)(JNIEnv* env, jsize length, jclass clazz, jobject initial);
    jobject (JNICALL* GetObjectArrayElement)(JNIEnv* env, jobjectArray array, jsize index);
    void (JNICALL* SetObjectArrayElement)(JNIEnv* env, jobjectArray array, jsize index, jobject value);
    NFSLIB_JNI_ARRAYS(NFSLIB_JNI_NEW_ARRAY)
    NFSLIB_JNI_ARRAYS(NFSLIB_JNI_GET_ELEMENTS)
    NFSLIB_JNI_ARRAYS(NFSLIB_JNI_RELEASE_ELEMENTS)
    NFSLIB_JNI_ARRAYS(NFSLIB_JNI_GET_REGION)
    NFSLIB_JNI_ARRAYS(NFSLIB_JNI_SET_REGION)

    /* Native methods, monitors, the virtual machine. */
    jint (JNICALL* RegisterNatives)(JNIEnv* env, jclass clazz, const JNINativeMethod* methods, jint count);
    jint (JNICALL* UnregisterNatives)(JNIEnv* env, jclass clazz);
    jint (JNICALL* MonitorEnter)(JNIEnv* env, jobject object);
    jint (JNICALL* MonitorExit)(JNIEnv* env, jobject object);
    jint (JNICALL* GetJavaVM)(JNIEnv* env, JavaVM** vm);

    /* Since 1.2. */
    void (JNICALL* GetStringRegion)(JNIEnv* env, jstring string, jsize start, jsize length, jchar* buffer);
    void (JNICALL* GetStringUTFRegion)(JNIEnv* env, jstring string, jsize start, jsize length, char* buffer);
    void* (JNICALL* GetPrimitiveArrayCritical)(JNIEnv* env, jarray array, jboolean* isCopy);
    void (JNICALL* ReleasePrimitiveArrayCritical)(JNIEnv* env, jarray array, void* elements, jint mode);
    const jchar* (JNICALL* GetStringCritical)(JNIEnv* env, jstring string, jboolean* isCopy);
    void (JNICALL* ReleaseStringCritical)(JNIEnv* env, jstring string, const jchar* chars);
    jweak (JNICALL* NewWeakGlobalRef)(JNIEnv* env, jobject object);
    void (JNICALL* DeleteWeakGlobalRef)(JNIEnv* env, jweak reference);
    jboolean (JNICALL* ExceptionCheck)(JNIEnv* env);

    /* Since 1.4. */
    jobject (JNICALL* NewDirectByteBuffer)(JNIEnv* env, void* address, jlong capacity);
    void* (JNICALL* GetDirectBufferAddress)(JNIEnv* env, jobject buffer);
    jlong (JNICALL* GetDirectBufferCapacity)(JNIEnv* env, jobject buffer);
};

/* ---- The function table of the virtual machine ----------------------------------------------------------------- */

struct JNIInvokeInterface_ {
    void* reserved0;
    void* reserved1;
    void* reserved2;

    jint (JNICALL* DestroyJavaVM)(JavaVM* vm);
    jint (JNICALL* AttachCurrentThread)(JavaVM* vm, void** env, void* args);
    jint (JNICALL* DetachCurrentThread)(JavaVM* vm);
    jint (JNICALL* GetEnv)(JavaVM* vm, void** env, jint version);
    jint (JNICALL* AttachCurrentThreadAsDaemon)(JavaVM* vm, void** env, void* args);
};
/* clang-format on */

#undef NFSLIB_JNI_CALL
#undef NFSLIB_JNI_CALLS
#undef NFSLIB_JNI_GET_FIELD
#undef NFSLIB_JNI_SET_FIELD
#undef NFSLIB_JNI_FIELDS
#undef NFSLIB_JNI_NEW_ARRAY
#undef NFSLIB_JNI_GET_ELEMENTS
#undef NFSLIB_JNI_RELEASE_ELEMENTS
#undef NFSLIB_JNI_GET_REGION
#undef NFSLIB_JNI_SET_REGION
#undef NFSLIB_JNI_ARRAYS

/* ---- The handles --------------------------------------------------------------------------------------------- */

/* A thread's environment; valid on that thread only. In C++ with the calls this library makes as members. */
struct JNIEnv_ {
    const struct JNINativeInterface_* functions;
#ifdef __cplusplus
    jclass FindClass(const char* name) {
        return functions->FindClass(this, name);
    }
    jclass GetObjectClass(jobject object) {
        return functions->GetObjectClass(this, object);
    }
    jmethodID GetMethodID(jclass clazz, const char* name, const char* signature) {
        return functions->GetMethodID(this, clazz, name, signature);
    }
    jobject NewObjectA(jclass clazz, jmethodID method, const jvalue* args) {
        return functions->NewObjectA(this, clazz, method, args);
    }
    jboolean CallBooleanMethodA(jobject object, jmethodID method, const jvalue* args) {
        return functions->CallBooleanMethodA(this, object, method, args);
    }
    jint CallIntMethodA(jobject object, jmethodID method, const jvalue* args) {
        return functions->CallIntMethodA(this, object, method, args);
    }
    void CallVoidMethodA(jobject object, jmethodID method, const jvalue* args) {
        functions->CallVoidMethodA(this, object, method, args);
    }

    jint Throw(jthrowable exception) {
        return functions->Throw(this, exception);
    }
    jthrowable ExceptionOccurred() {
        return functions->ExceptionOccurred(this);
    }
    void ExceptionDescribe() {
        functions->ExceptionDescribe(this);
    }
    void ExceptionClear() {
        functions->ExceptionClear(this);
    }
    jboolean ExceptionCheck() {
        return functions->ExceptionCheck(this);
    }

    jobject NewGlobalRef(jobject object) {
        return functions->NewGlobalRef(this, object);
    }
    void DeleteGlobalRef(jobject reference) {
        functions->DeleteGlobalRef(this, reference);
    }
    void DeleteLocalRef(jobject reference) {
        functions->DeleteLocalRef(this, reference);
    }

    jstring NewString(const jchar* chars, jsize length) {
        return functions->NewString(this, chars, length);
    }
    jsize GetStringLength(jstring string) {
        return functions->GetStringLength(this, string);
    }
    void GetStringRegion(jstring string, jsize start, jsize length, jchar* buffer) {
        functions->GetStringRegion(this, string, start, length, buffer);
    }

    jint GetJavaVM(JavaVM** vm) {
        return functions->GetJavaVM(this, vm);
    }
#endif
};

/* The virtual machine; valid on every thread. */
struct JavaVM_ {
    const struct JNIInvokeInterface_* functions;
#ifdef __cplusplus
    jint DestroyJavaVM() {
        return functions->DestroyJavaVM(this);
    }
    jint AttachCurrentThread(void** env, void* args) {
        return functions->AttachCurrentThread(this, env, args);
    }
    jint DetachCurrentThread() {
        return functions->DetachCurrentThread(this);
    }
    jint GetEnv(void** env, jint version) {
        return functions->GetEnv(this, env, version);
    }
#endif
};

#ifdef __cplusplus
extern "C" {
#endif

/* Offered by the virtual machine's library. */
JNIIMPORT jint JNICALL JNI_GetDefaultJavaVMInitArgs(void* args);
JNIIMPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* args);
JNIIMPORT jint JNICALL JNI_GetCreatedJavaVMs(JavaVM** vms, jsize length, jsize* count);

/* Offered by a native library that wants to be told. */
JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void* reserved);
JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void* reserved);

#ifdef __cplusplus
}
#endif

#endif
