// An RPC server with one program for tests, on sockets and without.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "DatagramSocket.h"
#include "InputStream.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "LogCapture.h"
#include "OutputStream.h"
#include "RpcClient.h"
#include "RpcProg.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "Socket.h"

/// How long "no reply" is waited for: what is to come first has been ruled out by other means where it matters.
inline constexpr std::chrono::milliseconds kSilence{100};

/// A program for tests: procedure 0 answers nothing, 1 answers its opaque argument, 2 is not implemented but has
/// written by then, 3 calls its arguments garbage after having written, 4 fails otherwise, 5 answers what it was told,
/// 6 answers at once and leaves its arguments unread, 7 is modifying and answers how often it was called.
class FakeProgram : public CRpcProg {
public:
    explicit FakeProgram(unsigned int iVersion = 0xFFFFFFFFU, unsigned int nProcedures = 0xFFFFFFFFU)
        : CRpcProg(nullptr), m_iVersion(iVersion), m_nProcedures(nProcedures) {}

    unsigned int GetVersion() override { return m_iVersion; }
    unsigned int GetMaxSupportProc() override { return m_nProcedures; }
    bool IsModifying(unsigned int, unsigned int iProc) override { return iProc == 7; }

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override {
        ++nCalls;
        switch (pParam->iProc) {
            case 0:
                return kProgHandled;
            case 1:
                return EchoOpaque(pInput, pOutput);
            case 2:
                pOutput->Write("left over", 9);
                return kProgNotImplemented;
            case 3:
                pOutput->Write("rest", 4);
                return kProgGarbageArgs;
            case 4:
                throw std::runtime_error("unforeseen");
            case 6:
                pParam->bArgumentsLeft = true;
                return kProgHandled;
            case 7:
                EchoOpaque(pInput, pOutput);
                pOutput->Write(static_cast<unsigned int>(nCalls));
                return kProgHandled;
            default:
                pOutput->Write(pParam->iVersion);
                pOutput->Write(pParam->sRemoteAddr.data(), static_cast<unsigned int>(pParam->sRemoteAddr.size()));
                pOutput->Write(pParam->pRuntimeParam->GetID(),
                               static_cast<unsigned int>(std::string(pParam->pRuntimeParam->GetID()).size()));
                return kProgHandled;
        }
    }

    std::atomic<int> nCalls{0};

private:
    static int EchoOpaque(CInputStream* pInput, COutputStream* pOutput) {
        unsigned int nLength = 0;
        pInput->Read(&nLength);
        pOutput->Write(nLength);
        const char* pcData = pInput->GetCurrentBuffer();
        pInput->Skip(nLength);
        pOutput->Write(pcData, nLength);
        pInput->SkipRemainOpaque(nLength);
        pOutput->WriteRemainOpaque(static_cast<int>(nLength));
        return kProgHandled;
    }

    unsigned int m_iVersion;
    unsigned int m_nProcedures;
};

class RpcServerFixture : public testing::Test {
protected:
    RpcServerFixture() {
        m_Tcp.SetListener(&m_Server);
        m_Udp.SetListener(&m_Server);
        m_Server.Set(100003, &m_Program);
    }
    ~RpcServerFixture() override {
        m_Tcp.Close();
        m_Udp.Close();
    }

    /// Opens a TCP and a UDP port for the program and connects to both.
    void Open(unsigned long lProgram = 100003) {
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(m_Tcp.Open(lProgram, 0, 3, nullptr, vcReason)) << vcReason;
        ASSERT_TRUE(m_Udp.Open(lProgram, 0, nullptr, vcReason)) << vcReason;
        m_pTcp = std::make_unique<RpcClient>(Transport::kTcp, m_Tcp.GetPort());
        m_pUdp = std::make_unique<RpcClient>(Transport::kUdp, m_Udp.GetPort());
    }

    static RpcCall Call(unsigned int iProcedure, std::string sArguments = "", unsigned int iXid = 0x01020304) {
        RpcCall call;
        call.iXid = iXid;
        call.iProgram = 100003;
        call.iProcedure = iProcedure;
        call.sArguments = std::move(sArguments);
        return call;
    }
    static std::string Opaque(std::string_view sBytes) { return XdrBuilder().Opaque(sBytes).Bytes(); }
    /// A reply as it goes over a datagram.
    static std::string Reply(unsigned int iAccept, const std::string& sBody = "", unsigned int iXid = 0x01020304) {
        return XdrBuilder().U32(iXid).U32(1).U32(0).U32(0).U32(0).U32(iAccept).Raw(sBody).Bytes();
    }
    /// The same with the record mark of a stream.
    static std::string Record(const std::string& sReply) {
        return XdrBuilder().U32(0x80000000U + static_cast<unsigned int>(sReply.size())).Raw(sReply).Bytes();
    }
    std::string TcpReceive(std::size_t nBytes) { return m_pTcp->ReceiveBytes(nBytes); }
    void ExpectTcp(const std::string& sExpected) { EXPECT_EQ(Hex(TcpReceive(sExpected.size())), Hex(sExpected)); }

    /// Hands bytes to the server as a socket's thread does.
    void Receive(CSocket& socket, const std::string& sBytes) {
        CInputStream* pInput = socket.GetInputStream();
        std::copy(sBytes.begin(), sBytes.end(), pInput->GetFreeBuffer());
        pInput->AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
        m_Server.SocketReceived(&socket);
    }
    static std::string Left(CSocket& socket) {
        return {socket.GetOutputStream()->GetBuffer(), socket.GetOutputStream()->GetBufferSize()};
    }

    LeakGuard m_Leaks;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"controller", 0};
    FakeProgram m_Program;
    CRpcServer m_Server{&m_Utilities, &m_Param};
    CServerSocket m_Tcp;
    CDatagramSocket m_Udp;
    std::unique_ptr<RpcClient> m_pTcp;
    std::unique_ptr<RpcClient> m_pUdp;
};
