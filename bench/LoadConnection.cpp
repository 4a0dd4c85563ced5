// Sending calls and judging replies.
#include "LoadConnection.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

#include "NfsMessages.h"
#include "TcpExchange.h"

namespace {

constexpr std::size_t kReceiveSize = 1U << 20U;
/// A transaction ID: the kind of the call for the bare server, the slot, and a count.
constexpr unsigned kKindShift = 24;
constexpr unsigned kSlotShift = 16;
/// How far apart the connections of a session begin.
constexpr std::uint64_t kBlocksApart = 100;

}  // namespace

LoadConnection::LoadConnection(int iSocket, const Row& row, const LoadFolder& folder, int iNumber,
                               const LoadShape& shape)
    : m_iSocket(iSocket),
      m_Row(row),
      m_Folder(folder),
      m_bSingly(shape.bSingly),
      m_vSlots(static_cast<std::size_t>(shape.nDepth)),
      m_vcReceived(kReceiveSize),
      m_iBlock(static_cast<std::uint64_t>(iNumber) * kBlocksApart),
      m_iRandom(static_cast<std::uint64_t>(iNumber) * 2 + 1) {
    for (std::size_t i = 0; i < m_vSlots.size(); ++i) {
        const std::string sName = folder.MadeName(iNumber, static_cast<int>(i));
        for (const CallKind& kind : row.vKinds) {
            m_vSlots[i].vsCalls.push_back(kind.sCall);
            if (kind.iNameAt != 0) {
                m_vSlots[i].vsCalls.back().replace(kind.iNameAt, sName.size(), sName);
            }
        }
    }
}

LoadConnection::~LoadConnection() {
    ::close(m_iSocket);
}

// ---- Calls

void LoadConnection::Begin(std::uint32_t iGeneration, std::vector<bool>* pvbWritten) {
    m_iGeneration = iGeneration;
    m_pvbWritten = pvbWritten;
    const Clock::time_point now = Clock::now();
    for (std::size_t i = 0; i < m_vSlots.size(); ++i) {
        BeginOperation(i, now);
    }
    Flush();
}

const CallKind& LoadConnection::KindOf(const Slot& slot) const {
    return m_Row.vKinds[m_Row.vOperations[slot.iOperation][slot.iStep]];
}

std::uint64_t LoadConnection::NextOffset(const CallKind& kind) {
    if (kind.nData == 0) {
        return 0;
    }
    const std::uint64_t nBlocks = kLoadSize / kind.nData;
    if (kind.bRandom) {  // xorshift: the same order in every run
        m_iRandom ^= m_iRandom << 13U;
        m_iRandom ^= m_iRandom >> 7U;
        m_iRandom ^= m_iRandom << 17U;
        return m_iRandom % nBlocks * kind.nData;
    }
    return m_iBlock++ % nBlocks * kind.nData;
}

void LoadConnection::BeginOperation(std::size_t iSlot, Clock::time_point now) {
    Slot& slot = m_vSlots[iSlot];
    slot.iOperation = m_Row.vOrder[m_iNextOperation++ % m_Row.vOrder.size()];
    slot.iStep = 0;
    slot.start = now;
    QueueCall(iSlot);
}

void LoadConnection::QueueCall(std::size_t iSlot) {
    Slot& slot = m_vSlots[iSlot];
    const CallKind& kind = KindOf(slot);
    const std::size_t iKind = m_Row.vOperations[slot.iOperation][slot.iStep];
    std::string& sCall = slot.vsCalls[iKind];
    slot.iOffset = NextOffset(kind);
    slot.iXid = static_cast<std::uint32_t>(iKind << kKindShift | iSlot << kSlotShift) | (++m_nCalls & 0xFFFFU);
    slot.bInFlight = true;
    ++m_nInFlight;
    PutWord(sCall.data() + kXidAt, slot.iXid);
    if (kind.iOffsetAt != 0) {
        PutLong(sCall.data() + kind.iOffsetAt, slot.iOffset);
    }
    m_vQueued.push_back({sCall.data(), sCall.size()});
    const std::uint64_t iEnd = slot.iOffset + (kind.work == BareWork::kWrite ? kind.nData : 0);
    for (std::uint64_t i = slot.iOffset; i < iEnd; i += Content::kBlock) {
        // sendmsg does not write to what it sends.
        m_vQueued.push_back({const_cast<char*>(m_Folder.GetContent().BlockAt(i, m_iGeneration)), Content::kBlock});
        (*m_pvbWritten)[i / Content::kBlock] = true;
    }
    if (m_bSingly) {
        Flush();
    }
}

void LoadConnection::Flush() {
    for (std::size_t iNext = 0; iNext < m_vQueued.size();) {
        msghdr message{};
        message.msg_iov = m_vQueued.data() + iNext;
        message.msg_iovlen = std::min<std::size_t>(m_vQueued.size() - iNext, IOV_MAX);
        const ssize_t nSent = ::sendmsg(m_iSocket, &message, MSG_NOSIGNAL);
        if (nSent <= 0) {
            FailWithErrno("send");
        }
        std::size_t nLeft = static_cast<std::size_t>(nSent);
        while (iNext < m_vQueued.size() && nLeft >= m_vQueued[iNext].iov_len) {
            nLeft -= m_vQueued[iNext++].iov_len;
        }
        if (nLeft > 0) {
            m_vQueued[iNext].iov_base = static_cast<char*>(m_vQueued[iNext].iov_base) + nLeft;
            m_vQueued[iNext].iov_len -= nLeft;
        }
    }
    m_vQueued.clear();
}

// ---- Replies

std::size_t LoadConnection::FindSlot(std::string_view sReply) const {
    const std::uint32_t iXid = sReply.size() < kXidAt + 4 ? 0 : WordAt(sReply.data() + kXidAt);
    const std::size_t iSlot = iXid >> kSlotShift & 0xFFU;
    if (iSlot >= m_vSlots.size() || !m_vSlots[iSlot].bInFlight || m_vSlots[iSlot].iXid != iXid) {
        throw WrongReply("a reply to no call: transaction ID " + std::to_string(iXid));
    }
    return iSlot;
}

void LoadConnection::TakeReply(std::string_view sReply, Clock::time_point now, Clock::time_point deadline,
                               std::vector<std::uint32_t>* pvLatencies) {
    const std::size_t iSlot = FindSlot(sReply);
    Slot& slot = m_vSlots[iSlot];
    KindOf(slot).Check(sReply, slot.iXid, slot.iOffset);
    slot.bInFlight = false;
    --m_nInFlight;
    if (++slot.iStep < m_Row.vOperations[slot.iOperation].size()) {
        QueueCall(iSlot);
        return;
    }
    const auto latency = std::chrono::duration_cast<std::chrono::nanoseconds>(now - slot.start);
    pvLatencies->push_back(static_cast<std::uint32_t>(latency.count()));
    if (now < deadline) {
        BeginOperation(iSlot, now);
    }
}

LoadConnection::Clock::time_point LoadConnection::Receive(Clock::time_point deadline,
                                                          std::vector<std::uint32_t>* pvLatencies) {
    const ssize_t nMore = ::recv(m_iSocket, m_vcReceived.data() + m_nReceived, m_vcReceived.size() - m_nReceived, 0);
    if (nMore == 0) {
        throw std::runtime_error("the server closed the connection");
    }
    if (nMore < 0) {
        FailWithErrno("no reply");
    }
    const Clock::time_point now = Clock::now();
    m_nReceived += static_cast<std::size_t>(nMore);
    std::size_t iNext = 0;
    while (m_nReceived - iNext >= 4) {
        const char* pcReply = m_vcReceived.data() + iNext;
        const std::size_t nBytes = 4 + (WordAt(pcReply) & ~kLastFragment);
        if (nBytes > m_vcReceived.size() || m_nInFlight == 0) {
            throw WrongReply("bytes that are no reply");
        }
        if (m_nReceived - iNext < nBytes) {
            break;
        }
        TakeReply({pcReply, nBytes}, now, deadline, pvLatencies);
        iNext += nBytes;
    }
    m_nReceived -= iNext;
    std::memmove(m_vcReceived.data(), m_vcReceived.data() + iNext, m_nReceived);
    Flush();
    return now;
}
