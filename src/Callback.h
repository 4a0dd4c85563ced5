// CCallback: the library's way back into the host, a Java object of the class that loaded the library.
#pragma once

#include "jni.h"

/// One host object and the calls into it: log lines, the interruption test, the redirected-file notifications.
///
/// Any thread may call any operation at any time; nothing changes between construction and destruction. Every call
/// attaches the thread to the virtual machine if it must, and asks for its detachment afterwards. A host method that
/// throws, or that the host's class lacks, counts as a host that did not answer: what it threw is described on standard
/// error and cleared. Null texts reach the host as null, malformed UTF-8 with replacement characters (U+FFFD).
/// Shared ownership (CUtilities::SetCallback) keeps the object alive for calls in flight.
class CCallback {
public:
    /// For the object of the calling native method. Keeps a global reference to it.
    CCallback(JNIEnv* pEnv, jobject jObj);
    /// Frees the global reference, on whatever thread that happens.
    virtual ~CCallback();
    CCallback(const CCallback&) = delete;
    CCallback& operator=(const CCallback&) = delete;

    /// Log lines: true if the host took the line.
    bool LogInfo(const char* pcID, const char* pcMessage) const;
    bool LogError(const char* pcID, const char* pcMessage) const;
    bool LogRaw(const char* pcID, const char* pcMessage) const;

    /// What a client did to a redirected file (times in seconds since 1970). The host's answer, or -1 without one.
    int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize, unsigned long long iSize,
                                       bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long lLastModifiedTimeSec) const;
    int RemoveRedirectedFile(const char* pcID, const char* pcPath) const;
    int RenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo) const;
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen) const;

    /// Does the host want the waiting loop to end? False unless it says so.
    bool IsInterrupted() const;

    /// Raises a java/io/IOException in the calling thread; the host sees it when the native method returns.
    void ThrowIOException(const char* pcText) const;

private:
    bool Log(const char* pcMethod, const char* pcID, const char* pcMessage) const;

    JavaVM* m_jVM = nullptr;   ///< null when the environment had none
    jobject m_jObj = nullptr;  ///< a global reference; null without a virtual machine
};
