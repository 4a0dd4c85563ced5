// Clients that send a call byte by byte: one on each port, at a pace that an environment variable sets. Others are
// served meanwhile as if they were not there, and in the end the call is carried out as any other.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "Opted.h"
#include "ServerFixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPrompt{200};

class SlowClientsTest : public ServerFixture {
protected:
    static std::string MakeCall(std::uint32_t iProgram, std::uint32_t iVersion, std::uint32_t iProcedure,
                                const XdrBuilder& arguments) {
        RpcCall call;
        call.iProgram = iProgram;
        call.iVersion = iVersion;
        call.iProcedure = iProcedure;
        call.sArguments = arguments.Bytes();
        return call.Bytes(Transport::kTcp);
    }
};

/// A connection that sends its call over time.
struct SlowClient {
    RpcClient connection;
    std::string sCall;
    std::size_t iSent = 0;

    bool SendByte() {
        if (iSent < sCall.size()) {
            connection.Send(std::string_view(sCall).substr(iSent++, 1));
        }
        return iSent < sCall.size();
    }
};

// NFSLIB_SLOW_MILLISECONDS=1000: one byte a second, for some three minutes.
TEST_F(SlowClientsTest, ByteByByteOnEveryPortDelaysNobodyAndIsServedInTheEnd) {
    const milliseconds pause(GetOpted("NFSLIB_SLOW_MILLISECONDS", 5));
    WriteWholeFile(Folder() / "file", "");
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sFile;
    ASSERT_EQ(client.Lookup(sRoot, "file", sFile), 0U);
    const XdrBuilder write = XdrBuilder().Opaque(sFile).U64(0).U32(20).U32(2).Opaque("twenty slow bytes !!");
    const XdrBuilder ask = XdrBuilder().U32(kNfsProgram).U32(3).U32(6).U32(0);
    SlowClient vClients[] = {{RpcClient(Transport::kTcp, 2049), MakeCall(kNfsProgram, 3, kNfsWrite, write)},
                             {RpcClient(Transport::kTcp, 1058), MakeCall(kMountProgram, 3, kMountNull, XdrBuilder())},
                             {RpcClient(Transport::kTcp, 111), MakeCall(kPortmapProgram, 2, 3, ask)}};
    milliseconds longest{0};
    int nLate = 0;
    int nCalls = 0;
    for (bool bMore = true; bMore;) {
        bMore = false;
        for (SlowClient& slow : vClients) {
            bMore = slow.SendByte() || bMore;
        }
        const auto end = steady_clock::now() + pause;
        do {
            const auto start = steady_clock::now();
            Fattr3 attributes;
            ASSERT_EQ(client.Getattr(sFile, attributes), 0U);
            EXPECT_EQ(attributes.iSize, bMore ? 0U : attributes.iSize) << "half a call has been carried out";
            const auto time = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
            longest = std::max(longest, time);
            nLate = time < kPrompt ? 0 : nLate + 1;
            EXPECT_LT(nLate, 2) << "a busy machine may delay one call, not two in a row: " << time.count() << " ms";
            ++nCalls;
            std::this_thread::sleep_for(std::min(pause, milliseconds(10)));
        } while (steady_clock::now() < end);
    }
    for (SlowClient& slow : vClients) {
        EXPECT_EQ(slow.connection.ReceiveReply().iAcceptStatus, kAcceptSuccess);
    }
    EXPECT_EQ(ReadWholeFile(Folder() / "file"), "twenty slow bytes !!");
    std::printf("%d calls beside them, the longest took %d ms\n", nCalls, static_cast<int>(longest.count()));
}

}  // namespace
