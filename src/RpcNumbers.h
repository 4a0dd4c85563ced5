// The numbers by which our RPC programs are called and found (RFC 5531; RFC 1833; RFC 1813, 2.1 and 5.0).
#pragma once

/// Programs that can be registered: kFirstProgramId and the numbers behind it. All well-known programs of our kind are
/// among them.
inline constexpr unsigned int kFirstProgramId = 100000;
inline constexpr unsigned int kProgramIdCount = 10;

inline constexpr unsigned int kPortmapProgramId = 100000;
inline constexpr unsigned int kNfsProgramId = 100003;
inline constexpr unsigned int kMountProgramId = 100005;

/// The version of NFS that is served, and under which both NFS and MOUNT are registered.
inline constexpr unsigned int kNfsVersion3 = 3;

/// What a program that takes any version, or knows no last procedure, answers when asked for it.
inline constexpr unsigned int kAnyNumber = 0xFFFFFFFFU;

/// IANA "sunrpc": where the portmapper is asked.
inline constexpr int kPortmapperPort = 111;
