// The methods of a host that the library calls, by name and signature.
#pragma once

inline constexpr const char* kHostLogInfo = "logInfo(Ljava/lang/String;Ljava/lang/String;)V";
inline constexpr const char* kHostLogError = "logError(Ljava/lang/String;Ljava/lang/String;)V";
inline constexpr const char* kHostLogRaw = "logRaw(Ljava/lang/String;Ljava/lang/String;)V";
inline constexpr const char* kHostUpdate = "setRedirectedFileAttributes(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I";
inline constexpr const char* kHostRemove = "removeRedirectedFile(Ljava/lang/String;Ljava/lang/String;)I";
inline constexpr const char* kHostRename =
    "renameRedirectedFile(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I";
inline constexpr const char* kHostWrite = "writeRedirectedFile(Ljava/lang/String;Ljava/lang/String;JII)I";
inline constexpr const char* kHostIsInterrupted = "isInterrupted()Z";
