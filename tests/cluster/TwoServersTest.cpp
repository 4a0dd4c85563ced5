// Two servers over one tree, as docs/scaling.md describes them: what they share, what they do not, and what clients see
// when one takes over the other's export.
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Isolation.h"
#include "NfsClient.h"
#include "ServerNode.h"
#include "TempFolder.h"

namespace {

constexpr std::uint32_t kNfs3Ok = 0;
constexpr std::uint32_t kNfs3ErrIo = 5;
constexpr std::uint32_t kMnt3ErrAcces = 13;

class TwoServersTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        for (const char* pcName : {"a", "b", "c"}) {
            std::filesystem::create_directory(m_Tree / pcName);
        }
        try {
            m_pFirst = std::make_unique<ServerNode>(1);
            m_pSecond = std::make_unique<ServerNode>(2);
        } catch (const std::runtime_error& error) {
            GTEST_SKIP() << "no networks for two servers: " << error.what();
        }
        m_pFirst->Export(m_Tree / "a", "a");
        m_pSecond->Export(m_Tree / "b", "b");
    }

    /// The handle of an export's root; fails the test if the mount is refused.
    static std::string Mount(NfsClient& client, const std::string& sName) {
        const auto sRoot = client.Mnt(sName);
        EXPECT_TRUE(sRoot.has_value()) << sName << ": status " << client.GetMountStatus();
        return sRoot.value_or("");
    }

    /// Makes a file in a folder and writes to it; its handle.
    static std::string Put(NfsClient& client, const std::string& sFolder, const std::string& sName,
                           const std::string& sContent) {
        std::string sFile;
        std::uint32_t iCount = 0;
        EXPECT_EQ(client.Create(sFolder, sName, sFile), kNfs3Ok);
        EXPECT_EQ(client.Write(sFile, 0, sContent, iCount), kNfs3Ok);
        EXPECT_EQ(iCount, sContent.size());
        return sFile;
    }

    static std::string Get(NfsClient& client, const std::string& sFolder, const std::string& sName) {
        std::string sFile;
        std::string sData;
        bool bEof = false;
        if (client.Lookup(sFolder, sName, sFile) != kNfs3Ok || client.Read(sFile, 0, 65536, sData, bEof) != kNfs3Ok) {
            return "cannot be read";
        }
        return sData;
    }

    const TempFolder m_Tree;
    std::unique_ptr<ServerNode> m_pFirst;
    std::unique_ptr<ServerNode> m_pSecond;
};

TEST_F(TwoServersTest, EachServesItsOwnExportsOfTheTreeThatBothHave) {
    NfsClient first = m_pFirst->Client();
    NfsClient second = m_pSecond->Client();
    const std::string sRootA = Mount(first, "a");
    const std::string sRootB = Mount(second, "b");
    Put(first, sRootA, "file", "written at the first");
    Put(second, sRootB, "file", "written at the second");
    EXPECT_EQ(ReadWholeFile(m_Tree / "a/file"), "written at the first");
    EXPECT_EQ(ReadWholeFile(m_Tree / "b/file"), "written at the second");
    EXPECT_FALSE(first.Mnt("b").has_value()) << "an export is its own server's";
    EXPECT_EQ(first.GetMountStatus(), kMnt3ErrAcces);

    // A file goes from the one server's export to the other's behind their backs, as on a cluster file system.
    EXPECT_EQ(Get(second, sRootB, "file"), "written at the second");
    std::filesystem::rename(m_Tree / "a/file", m_Tree / "b/file");
    EXPECT_EQ(Get(second, sRootB, "file"), "written at the first") << "no old descriptor, no old content";
    EXPECT_EQ(Get(first, sRootA, "file"), "cannot be read");
}

TEST_F(TwoServersTest, ServerThatTakesAnExportOverServesItAfterANewMount) {
    NfsClient before = m_pFirst->Client();
    const std::string sRoot = Mount(before, "a");
    Put(before, sRoot, "file", "written before");
    m_pFirst->Fail();

    m_pSecond->Export(m_Tree / "a", "a");
    NfsClient after = m_pSecond->Client();
    const std::string sNewRoot = Mount(after, "a");
    EXPECT_EQ(Get(after, sNewRoot, "file"), "written before");
    Put(after, sNewRoot, "file", "written afterwards");
    EXPECT_EQ(ReadWholeFile(m_Tree / "a/file"), "written afterwards");

    // The first one comes back, and gets its export again once the second has let go of it.
    m_pSecond->Withdraw(m_Tree / "a");
    Fattr3 attributes;
    EXPECT_EQ(after.Getattr(sNewRoot, attributes), kNfs3ErrIo);
    m_pFirst.reset();
    m_pFirst = std::make_unique<ServerNode>(1);
    m_pFirst->Export(m_Tree / "a", "a");
    NfsClient again = m_pFirst->Client();
    EXPECT_EQ(Get(again, Mount(again, "a"), "file"), "written afterwards");
}

// Why mounts must be renewed, and why an address must not move under living mounts: handles are numbers of one server.
TEST_F(TwoServersTest, HandlesOfTheOneServerAreNotThoseOfTheOther) {
    NfsClient before = m_pFirst->Client();
    const std::string sRoot = Mount(before, "a");
    const std::string sFile = Put(before, sRoot, "file", "of a");
    NfsClient holder = m_pSecond->OtherClient();
    Put(holder, Mount(holder, "b"), "file", "of b");
    m_pFirst->Fail();
    m_pSecond->Export(m_Tree / "a", "a");

    NfsClient client = m_pSecond->Client();
    Fattr3 attributes;
    std::uint32_t iCount = 0;
    for (const std::string& sHandle : {sRoot, sFile}) {
        EXPECT_EQ(client.Getattr(sHandle, attributes), kNfs3ErrIo) << "what another client has mounted is not reached";
        EXPECT_NE(client.Write(sHandle, 0, "from before", iCount), kNfs3Ok);
    }
    EXPECT_EQ(ReadWholeFile(m_Tree / "b/file"), "of b");

    // Once nobody holds the export, the same handle is its file: nothing tells the server that it is an old one.
    holder.Umnt("b");
    EXPECT_EQ(client.Write(sFile, 0, "hit", iCount), kNfs3Ok);
    EXPECT_EQ(ReadWholeFile(m_Tree / "b/file"), "hitb");
    EXPECT_EQ(ReadWholeFile(m_Tree / "a/file"), "of a");
}

// Why a directory belongs to one server's list only.
TEST_F(TwoServersTest, NeitherServerKnowsWhoHasMountedAtTheOther) {
    m_pFirst->Export(m_Tree / "c", "c");
    m_pSecond->Export(m_Tree / "c", "c");
    NfsClient first = m_pFirst->Client();
    NfsClient second = m_pSecond->Client();
    const std::string sAtFirst = Mount(first, "c");
    const std::string sAtSecond = Mount(second, "c");
    Put(first, sAtFirst, "file", "by the first one's client");
    Put(second, sAtSecond, "file", "BY");
    EXPECT_EQ(Get(first, sAtFirst, "file"), "BY the first one's client");
}

}  // namespace
