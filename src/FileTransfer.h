// Transfers on open descriptors: a seek and its transfer in one step, and the lines that seeks and transfers leave.
#pragma once

#include "CachedFile.h"
#include "Log.h"

// A result of -1 is a failure: its error (errno, which nobody looks at otherwise) is logged and left in the reason
// buffer, which may be null. A descriptor of -1 is refused without a system call ("Bad file descriptor").

void ReportRead(const LogContext& log, int iFile, long long iRead, int iError, char* pcStatus);
void ReportWrite(const LogContext& log, int iFile, long long iWritten, int iError, char* pcStatus);
void ReportSeek(const LogContext& log, int iFile, long long iPosition, int iError, char* pcStatus);
void ReportTell(const LogContext& log, int iFile, long long iPosition, int iError, char* pcStatus);

/// Reads at an offset, with the lines of the seek and of the read. False if the seek fails; the result of the read, its
/// bytes or -1, otherwise.
/// If the bytes have to come from a disk, what is to be done before asking (CBeforeAsking) is done first.
bool ReadAt(const LogContext& log, const CCachedFile& file, long long iOffset, void* pvBuffer, unsigned int iLen,
            char* pcStatus, int* piRead);
/// Writes at an offset, likewise. The bytes written, or -1 if either fails.
int WriteAt(const LogContext& log, int iFile, long long iOffset, const void* pvBuffer, unsigned int iLen,
            char* pcStatus);
