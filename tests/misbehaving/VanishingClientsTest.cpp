// Clients that vanish in the middle of a call: behind half a record, behind the call, while the host is asked about it,
// in the middle of the reply; in order or by a reset, more of them than there are connections. What had not come in
// whole is not done, nothing is done in half, and the next client finds a connection free.
#include <condition_variable>
#include <mutex>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ServerFixture.h"
#include "WaitUntil.h"

namespace {

constexpr int kLives = 2 * CNfsMain::kMaxNfsConnections;
constexpr std::size_t kBlock = 16384;  ///< the most that one WRITE stores

/// How a connection ends.
enum class Farewell { kClosed, kReset };

/// Closes a connection as the kernel does for a process that is gone; or, as for a machine that has forgotten it, with
/// a reset.
void Vanish(RpcClient& connection, Farewell farewell) {
    if (farewell == Farewell::kReset) {
        const linger now{1, 0};
        EXPECT_EQ(::setsockopt(connection.GetSocket(), SOL_SOCKET, SO_LINGER, &now, sizeof(now)), 0);
    }
    connection.Close();
}

class VanishingClientsTest : public ServerFixture, public testing::WithParamInterface<Farewell> {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        WriteWholeFile(Folder() / "file", std::string(kBlock, 'o'));
        m_pOther = std::make_unique<NfsClient>();
        m_sRoot = MountRoot(*m_pOther);
        ASSERT_EQ(m_pOther->Lookup(m_sRoot, "file", m_sFile), 0U);
    }
    void TearDown() override {
        if (m_pOther) {
            ExpectServed();
        }
        m_pOther.reset();
        ServerFixture::TearDown();
    }

    /// Another client's calls are answered, and as many connections as ever are to be had.
    void ExpectServed() {
        Fattr3 attributes;
        EXPECT_EQ(m_pOther->Getattr(m_sRoot, attributes), 0U);
        std::vector<std::unique_ptr<RpcClient>> vpMore;
        for (int i = 1; i < CNfsMain::kMaxNfsConnections; ++i) {
            vpMore.push_back(std::make_unique<RpcClient>(Transport::kTcp, 2049));
            EXPECT_EQ(vpMore.back()->Call(kNfsProgram, 3, kNfsNull, "").iAcceptStatus, kAcceptSuccess);
        }
    }
    static std::string MakeCall(std::uint32_t iProcedure, const XdrBuilder& arguments) {
        RpcCall call;
        call.iProgram = kNfsProgram;
        call.iProcedure = iProcedure;
        call.sArguments = arguments.Bytes();
        return call.Bytes(Transport::kTcp);
    }
    std::string MakeWrite(char cFill) const {
        const XdrBuilder arguments =
            XdrBuilder().Opaque(m_sFile).U64(0).U32(kBlock).U32(2).Opaque(std::string(kBlock, cFill));
        return MakeCall(kNfsWrite, arguments);
    }

    std::unique_ptr<NfsClient> m_pOther;
    std::string m_sRoot;
    std::string m_sFile;
};

INSTANTIATE_TEST_SUITE_P(Farewells, VanishingClientsTest, testing::Values(Farewell::kClosed, Farewell::kReset),
                         [](const auto& farewell) { return farewell.param == Farewell::kClosed ? "Closed" : "Reset"; });

TEST_P(VanishingClientsTest, BehindPartOfARecordNothingIsDone) {
    const std::string sCall = MakeWrite('x');
    for (int i = 0; i < kLives; ++i) {
        RpcClient connection(Transport::kTcp, 2049);
        // From within the mark to all but the last byte.
        const std::size_t iCut = 2 + (sCall.size() - 3) * static_cast<std::size_t>(i) / (kLives - 1);
        connection.Send(std::string_view(sCall).substr(0, iCut));
        Vanish(connection, GetParam());
        EXPECT_TRUE(ReadWholeFile(Folder() / "file") == std::string(kBlock, 'o')) << "cut at " << iCut;
    }
    ExpectServed();
    EXPECT_TRUE(ReadWholeFile(Folder() / "file") == std::string(kBlock, 'o'));
}

TEST_P(VanishingClientsTest, BehindTheCallItIsDoneWhollyOrNotAtAll) {
    for (int i = 0; i < kLives; ++i) {
        const char cFill = static_cast<char>('A' + i);
        RpcClient connection(Transport::kTcp, 2049);
        connection.Send(MakeWrite(cFill));
        Vanish(connection, GetParam());
        ExpectServed();
        const std::string sContent = ReadWholeFile(Folder() / "file");
        EXPECT_EQ(sContent.find_first_not_of(sContent.front()), std::string::npos) << "half a block is there";
        ASSERT_EQ(sContent.size(), kBlock);
    }
}

// A reply of 16 KiB of which a few bytes are taken, with many more behind it.
TEST_P(VanishingClientsTest, InTheMiddleOfRepliesNobodyElseIsHurt) {
    std::string sCalls;
    for (int i = 0; i < 800; ++i) {
        sCalls += MakeCall(kNfsRead, XdrBuilder().Opaque(m_sFile).U64(0).U32(kBlock));
    }
    for (int i = 0; i < kLives; ++i) {
        RpcClient connection(Transport::kTcp, 2049);
        connection.Send(sCalls);
        connection.ReceiveBytes(static_cast<std::size_t>(1 + 97 * i));
        Vanish(connection, GetParam());
        ExpectServed();
    }
}

// The host is asked about a write to a redirected file and has not answered when the client goes.
TEST_P(VanishingClientsTest, WhileTheHostIsAskedItsAnswerHoldsAndTheNextIsServed) {
    std::mutex mutex;
    std::condition_variable changed;
    int nAsked = 0;
    bool bAnswer = false;
    m_Log.SetHost([&](const Notification& notification) {
        std::unique_lock lock(mutex);
        ++nAsked;
        changed.notify_all();
        changed.wait(lock, [&] { return bAnswer; });
        return static_cast<int>(notification.iLen);
    });
    Server().OpenRedirectedFile((Folder() / "file").c_str(), kBlock, false, 0, 0);
    {
        RpcClient connection(Transport::kTcp, 2049);
        connection.Send(MakeWrite('x'));
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return nAsked == 1; }));
        lock.unlock();
        Vanish(connection, GetParam());
        lock.lock();
        bAnswer = true;
        changed.notify_all();
    }
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pOther->Write(m_sFile, 0, std::string(10, 'y'), iCount), 0U);
    EXPECT_EQ(iCount, 10U);
    EXPECT_EQ(nAsked, 2);
    m_Log.SetHost(nullptr);
}

}  // namespace
