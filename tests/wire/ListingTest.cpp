// Listings of a whole server: they go on where they were, on whatever connection the next call comes.
#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

class ListingWireTest : public ServerFixture, public testing::WithParamInterface<Transport> {
protected:
    void MakeFiles(int nFiles) {
        for (int i = 0; i < nFiles; ++i) {
            WriteWholeFile(Folder() / ("file" + std::to_string(i)), "");
        }
    }
    /// One READDIRPLUS from the cookie, which is moved on. The names go to vsNames; true if it was the last call.
    static bool List(NfsClient& client, const std::string& sDir, std::uint64_t& lCookie,
                     std::vector<std::string>& vsNames) {
        const XdrBuilder arguments = XdrBuilder().Opaque(sDir).U64(lCookie).U64(0).U32(4096).U32(32768);
        XdrReader reader = client.Nfs3(kNfsReaddirplus, arguments.Bytes());
        EXPECT_EQ(reader.U32(), 0U);
        EXPECT_TRUE(ReadPostOpAttr(reader).has_value());
        reader.U64();
        vsNames.clear();
        while (reader.Bool()) {
            reader.U64();
            vsNames.push_back(reader.Opaque());
            lCookie = reader.U64();
            EXPECT_TRUE(ReadPostOpAttr(reader).has_value());
            EXPECT_TRUE(ReadPostOpHandle(reader).has_value());
        }
        return reader.Bool();
    }
};

TEST_P(ListingWireTest, RemovingWhatIsListedInOnePassLeavesNothing) {
    MakeFiles(3000);
    NfsClient client(GetParam());
    const std::string sRoot = MountRoot(client);
    std::uint64_t lCookie = 0;
    int nRemoved = 0;
    for (bool bEof = false; !bEof;) {
        std::vector<std::string> vsNames;
        bEof = List(client, sRoot, lCookie, vsNames);
        for (const std::string& sName : vsNames) {
            ASSERT_EQ(client.Remove(sRoot, sName), 0U) << sName;
            ++nRemoved;
        }
    }
    EXPECT_EQ(nRemoved, 3000);
    EXPECT_EQ(::rmdir(Folder().Path().c_str()), 0) << "something is left";
    ::mkdir(Folder().Path().c_str(), 0755);
}

// Half of what is listed goes after each reply, by the host, and each call comes on a connection of its own.
TEST_P(ListingWireTest, ListingGoesOnAcrossConnections) {
    MakeFiles(480);
    NfsClient mounting(GetParam());
    const std::string sRoot = MountRoot(mounting);
    std::set<std::string> ssSeen;
    std::uint64_t lCookie = 0;
    for (bool bEof = false; !bEof;) {
        NfsClient client(GetParam());
        std::vector<std::string> vsNames;
        bEof = List(client, sRoot, lCookie, vsNames);
        for (std::size_t i = 0; i < vsNames.size(); ++i) {
            EXPECT_TRUE(ssSeen.insert(vsNames[i]).second) << vsNames[i] << " twice";
            if (i % 2 == 0) {
                ::unlink((Folder() / vsNames[i]).c_str());
            }
        }
    }
    EXPECT_EQ(ssSeen.size(), 480U);
}

INSTANTIATE_TEST_SUITE_P(Transports, ListingWireTest, testing::Values(Transport::kTcp, Transport::kUdp),
                         [](const auto& transport) { return transport.param == Transport::kTcp ? "Tcp" : "Udp"; });

}  // namespace
