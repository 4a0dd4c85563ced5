// How a call of the system went: the line about it, and the text of its failure.
#pragma once

#include "Log.h"
#include "Reason.h"

/// In the place of errno: the call was refused without being made, as its descriptor was -1.
inline constexpr int kBadDescriptor = -1;

/// The text of a failed call, written to the caller's reason buffer (which may be null) too.
class CFailureText {
public:
    CFailureText(int iError, char* pcStatus) : m_bRefused(iError == kBadDescriptor), m_Text(iError) {
        WriteReason(pcStatus, "%s", Get());
    }
    const char* Get() const { return m_bRefused ? "Bad file descriptor" : m_Text.Get(); }

private:
    bool m_bRefused;
    CSystemErrorText m_Text;
};

/// The line about a call that went well, at file-access level, or, with its error, the reason and the line about one
/// that failed: NFS_LOG_CALL(log, iFile != -1, errno, pcStatus, "[%s] OS open file \"%s\"",
/// "[%s] OS open file \"%s\". Error=%s", pcPath). The text of the error is the last value of the failure's line.
#define NFS_LOG_CALL(log, success, error, status, line, failure, ...)                 \
    do {                                                                              \
        if (success) {                                                                \
            NFS_LOG_INFO(log, kLogFileAccess, line __VA_OPT__(, ) __VA_ARGS__);       \
        } else {                                                                      \
            const CFailureText nfsFailure(error, status);                             \
            NFS_LOG_ERROR(log, failure __VA_OPT__(, ) __VA_ARGS__, nfsFailure.Get()); \
        }                                                                             \
    } while (false)
