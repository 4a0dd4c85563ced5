// Listeners for sockets under test.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

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

/// True as soon as the condition holds; false when the limit is over.
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
