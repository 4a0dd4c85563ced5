// Layouts and numbers of ONC RPC version 2 messages (RFC 5531, section 9; record marking: section 11).
#pragma once

/// An authentication item, without its body.
struct OPAQUE_AUTH {
    unsigned int lFlavor;
    unsigned int lLength;
};

/// The head of a call in a datagram. On the wire, where each word is big-endian, the credential's body stands between
/// cred and verf, and the verifier's body behind verf.
struct RPC_HEADER {
    unsigned int lXID;
    unsigned int lMsg;
    unsigned int lRpcvers;
    unsigned int lProg;
    unsigned int lVers;
    unsigned int lProc;
    OPAQUE_AUTH cred;
    OPAQUE_AUTH verf;
};
static_assert(sizeof(RPC_HEADER) == 40);

/// The head of a call in a stream: the record mark and the same fields.
struct RPC_STM_HEADER {
    unsigned int lHeader;
    RPC_HEADER call;
};
static_assert(sizeof(RPC_STM_HEADER) == 44);

inline constexpr unsigned int kRpcReply = 1;     ///< message type
inline constexpr unsigned int kMsgAccepted = 0;  ///< reply status
// Accept statuses.
inline constexpr unsigned int kRpcSuccess = 0;
inline constexpr unsigned int kProgUnavail = 1;
inline constexpr unsigned int kProcUnavail = 3;
inline constexpr unsigned int kGarbageArgs = 4;

/// Added to the length of a reply in a stream, mark included, gives its record mark: the last-fragment bit and the
/// length without the mark.
inline constexpr unsigned int kReplyMarkOffset = 0x7FFFFFFCU;
