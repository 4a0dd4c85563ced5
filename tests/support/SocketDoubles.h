// Listeners for sockets under test.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Socket.h"
#include "SocketListener.h"

/// Hands every receive to a function.
class FunctionListener : public ISocketListener {
public:
    explicit FunctionListener(std::function<void(CSocket*)> function) : m_Function(std::move(function)) {}
    void SocketReceived(CSocket* pSocket) override { m_Function(pSocket); }

private:
    std::function<void(CSocket*)> m_Function;
};

/// A socket without a descriptor: bytes are handed in, what is sent is kept.
class CapturingSocket : public CSocket {
public:
    using CSocket::CSocket;

    bool Send() override {
        COutputStream* pOutput = GetOutputStream();
        Keep(std::exchange(GetCollected(), "") + std::string(pOutput->GetBuffer(), pOutput->GetBufferSize()));
        pOutput->ResetBuffer();
        return m_bTakesMore;
    }
    bool Collect() override { return CollectOutput(); }
    void SendCollected() override { Keep(std::exchange(GetCollected(), "")); }
    /// As good as new, with another peer.
    void Renew(const sockaddr_in& peer) {
        SetRemoteAddr(peer);
        GetInputStream()->ResetBuffer();
        GetOutputStream()->ResetBuffer();
        GetCollected().clear();
        m_sSent.clear();
        m_vnSendings.clear();
    }
    /// From now on nothing that is sent arrives.
    void Break() { m_bTakesMore = false; }
    /// Hands bytes to a listener as the socket's thread does: in as many steps as the buffer needs. False once the
    /// socket's thread would have ended.
    bool Receive(ISocketListener* pListener, std::string_view sBytes) {
        CInputStream* pInput = GetInputStream();
        while (!sBytes.empty() && !IsStopping()) {
            pInput->ConsolidateBuffer(0);
            const auto nBytes =
                static_cast<unsigned int>(std::min<std::size_t>(sBytes.size(), pInput->GetFreeBufferSize()));
            if (nBytes == 0) {
                return false;
            }
            std::memcpy(pInput->GetFreeBuffer(), sBytes.data(), nBytes);
            pInput->AddFilledBufferSize(nBytes);
            sBytes.remove_prefix(nBytes);
            pListener->SocketReceived(this);
        }
        return !IsStopping();
    }
    const std::string& Sent() const { return m_sSent; }
    /// What was sent since the last call of this.
    std::string TakeSent() { return std::exchange(m_sSent, ""); }
    /// How many bytes each sending held.
    const std::vector<std::size_t>& Sendings() const { return m_vnSendings; }

private:
    void Keep(const std::string& sBytes) {
        if (!sBytes.empty()) {
            m_sSent += sBytes;
            m_vnSendings.push_back(sBytes.size());
        }
    }

    std::string m_sSent;
    std::vector<std::size_t> m_vnSendings;
    bool m_bTakesMore = true;
};

/// Takes the unread bytes out of a socket's input.
inline std::string TakeInput(CSocket* pSocket) {
    CInputStream* pInput = pSocket->GetInputStream();
    std::string sBytes(pInput->GetCurrentBuffer(), pInput->GetFilledBufferSize());
    pInput->Skip(pInput->GetFilledBufferSize());
    return sBytes;
}

/// Sends back what came.
inline void Echo(CSocket* pSocket) {
    const std::string sBytes = TakeInput(pSocket);
    pSocket->GetOutputStream()->Write(sBytes.data(), static_cast<unsigned int>(sBytes.size()));
    pSocket->Send();
}
