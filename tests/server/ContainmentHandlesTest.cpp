// Clients that try to get out of their export by handles: guessed ones, those of other clients, of exports that are
// gone, of files that the host moved away; and by listings that go on where the folder has become another.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ContainmentFixture.h"

namespace {

/// IDs that are asked for one by one; there are a few dozen files.
constexpr std::uint32_t kCountedHandles = 5000;
/// Calls that are on their way together.
constexpr std::uint32_t kWindow = 500;
constexpr int kListed = 200;

class ContainmentHandlesTest : public ContainmentFixture {
protected:
    /// Statuses of GETATTR on the IDs from 0 on, asked for as fast as it goes.
    static std::vector<std::uint32_t> CountHandles(NfsClient& client) {
        std::vector<std::uint32_t> viStatuses;
        for (std::uint32_t iFirst = 0; iFirst < kCountedHandles; iFirst += kWindow) {
            std::string sCalls;
            for (std::uint32_t iID = iFirst; iID < iFirst + kWindow; ++iID) {
                RpcCall call;
                call.iXid = 0x10000000 + iID;
                call.iProgram = kNfsProgram;
                call.iProcedure = kNfsGetattr;
                call.sArguments = XdrBuilder().Opaque(MakeHandle(iID)).Bytes();
                sCalls += call.Bytes(Transport::kTcp);
            }
            client.Nfs().Send(sCalls);
            for (std::uint32_t i = 0; i < kWindow; ++i) {
                viStatuses.push_back(WordAt(client.Nfs().ReceiveReply().sBody, 0));
            }
        }
        return viStatuses;
    }
    /// A folder of the client's own with files "0" to "199" and a "file"; its handle.
    std::string MakeListedDir() {
        std::filesystem::create_directory(Folder() / "dir");
        for (int i = 0; i < kListed; ++i) {
            WriteWholeFile(Folder() / ("dir/" + std::to_string(i)), "mine");
        }
        std::string sDir;
        EXPECT_EQ(m_pClient->Lookup(m_sRoot, "dir", sDir), 0U);
        return sDir;
    }
    /// A part of a listing from a position on: its names, and the position behind it (0: the end). Nothing if refused.
    std::optional<std::vector<std::string>> List(bool bPlus, const std::string& sDir, std::uint64_t& iCookie) {
        XdrBuilder arguments;
        arguments.Opaque(sDir).U64(iCookie).U64(0).U32(600);
        if (bPlus) {
            arguments.U32(4096);
        }
        XdrReader reader = m_pClient->Nfs3(bPlus ? kNfsReaddirplus : kNfsReaddir, arguments.Bytes());
        const std::uint32_t iStatus = reader.U32();
        ReadPostOpAttr(reader);
        if (iStatus != 0) {
            return std::nullopt;
        }
        reader.U64();
        std::vector<std::string> vsNames;
        while (reader.Bool()) {
            reader.U64();
            vsNames.push_back(reader.Opaque());
            iCookie = reader.U64();
            if (bPlus) {
                ReadPostOpAttr(reader);
                if (const std::optional<std::string> sHandle = ReadPostOpHandle(reader)) {
                    m_vsListed.push_back(*sHandle);
                }
            }
        }
        iCookie = reader.Bool() ? 0 : iCookie;
        return vsNames;
    }

    /// What the host does to the folder that is being listed.
    std::vector<std::pair<const char*, std::function<void()>>> MakeMoves() {
        const std::string sDir = Folder() / "dir";
        const auto moveTo = [sDir](const std::string& sPath) { std::filesystem::rename(sDir, sPath); };
        return {{"moved within", [this, moveTo] { moveTo(Folder() / "moved"); }},
                {"moved out", [this, moveTo] { moveTo(m_Third / "moved"); }},
                {"a link to the twin in its place",
                 [this, moveTo] {
                     moveTo(Folder() / "moved");
                     Link(m_Third / "twin", "dir");
                 }},
                {"a link to the other client's export in its place",
                 [this, moveTo] {
                     moveTo(m_Third / "moved");
                     Link(m_Other.Path(), "dir");
                 }},
                {"a link to where it was moved",
                 [this, moveTo] {
                     moveTo(m_Third / "moved");
                     FillSecret(m_Third / "moved");
                     Link(m_Third / "moved", "dir");
                 }},
                {"its files replaced by links to the twin's", [this, sDir] {
                     for (int i = 0; i < kListed; ++i) {
                         std::filesystem::remove(sDir + "/" + std::to_string(i));
                         Link(m_Third / ("twin/" + std::to_string(i)), "dir/" + std::to_string(i));
                     }
                 }}};
    }

    std::vector<std::string> m_vsListed;  ///< handles that READDIRPLUS gave
};

// ---- Handles that are guessed

TEST_F(ContainmentHandlesTest, CountingFindsNoHandleOfAnotherClient) {
    for (const char* pcName : {"file", "dir", "empty", kSecretName}) {
        std::string sHandle;
        ASSERT_EQ(m_pOwner->Lookup(m_sOther, pcName, sHandle), 0U);
    }
    MakeOwn();
    const std::vector<std::uint32_t> viMine = CountHandles(*m_pClient);
    const auto nServed = std::count(viMine.begin(), viMine.end(), 0U);
    EXPECT_EQ(nServed, 3) << "root, \"mine\", \"myDir\"";
    auto pStranger = MakeSpiedClient(kStranger);
    const std::vector<std::uint32_t> viStranger = CountHandles(*pStranger);
    EXPECT_EQ(std::count(viStranger.begin(), viStranger.end(), 0U), 0) << "both exports are somebody's";
    for (std::uint32_t iID = 0; iID < 32; ++iID) {
        AttackHandle(MakeHandle(iID));
        ExpectRefused(*pStranger, MakeHandle(iID));
    }
}

TEST_F(ContainmentHandlesTest, HandlesOfOddLengthsAndNumbersNameNothingOfAnother) {
    std::string sFile;
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "file", sFile), 0U);
    for (const std::string& sHandle : {m_sOther, sFile}) {
        for (std::size_t iSize = 0; iSize <= 128; ++iSize) {
            std::string sOdd = sHandle;
            sOdd.resize(iSize, '\xA5');
            AttackHandle(sOdd);
        }
        for (std::size_t i = 4; i < sHandle.size(); ++i) {
            std::string sOdd = sHandle;
            sOdd[i] = '\x01';
            AttackHandle(sOdd);
        }
    }
    for (int iBit = 5; iBit < 32; ++iBit) {
        const std::uint32_t iID = 1U << static_cast<unsigned>(iBit);
        for (const std::uint32_t iNear : {iID - 1, iID, iID + 1, ~iID}) {
            ExpectRefused(*m_pClient, MakeHandle(iNear));
        }
    }
}

TEST_F(ContainmentHandlesTest, HandlesOfAnotherClientAreOfNoUse) {
    std::string sFile;
    std::string sDir;
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "file", sFile), 0U);
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "dir", sDir), 0U);
    for (const std::string& sHandle : {m_sOther, sDir, sFile}) {
        ExpectRefused(*m_pClient, sHandle);
        for (const char* pcName : {"file", "empty", "new", "", ".", ".."}) {
            SCOPED_TRACE(pcName);
            Attack(sHandle, pcName);
        }
    }
    Fattr3 attributes;
    std::vector<std::string> vsNames;
    EXPECT_EQ(m_pClient->Getattr(sFile, attributes), 5U);
    EXPECT_EQ(m_pClient->Readdir(m_sOther, vsNames), 5U);
    EXPECT_TRUE(WasRefusedAsAnothers());
    EXPECT_EQ(m_pOwner->Getattr(sFile, attributes), 0U);
}

TEST_F(ContainmentHandlesTest, DatagramsOfAnotherAddressAreRefusedToo) {
    auto pStranger = MakeSpiedClient(kStranger, Transport::kUdp);
    Fattr3 attributes;
    EXPECT_EQ(pStranger->Getattr(m_sOther, attributes), 5U);
    EXPECT_EQ(pStranger->Remove(m_sOther, "file"), 5U);
    ExpectRefused(*pStranger, m_sOther);
    NfsClient owner(Transport::kUdp, kOtherClient);
    EXPECT_EQ(owner.Getattr(m_sOther, attributes), 0U);
}

// ---- Handles of what is not there any more

// A folder that a handle stands for is replaced by a link on the host.
TEST_F(ContainmentHandlesTest, HandlesOfAFolderThatBecameALinkLeadNowhereElse) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        const std::string sDir = Folder() / "dir";
        std::filesystem::create_directory(sDir);
        WriteWholeFile(sDir + "/file", "mine");
        std::filesystem::create_directory(sDir + "/empty");
        std::string sDirHandle;
        std::string sFileHandle;
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "dir", sDirHandle), 0U);
        ASSERT_EQ(m_pClient->Lookup(sDirHandle, "file", sFileHandle), 0U);
        std::filesystem::remove_all(sDir);
        Link(pTree->Path(), "dir");
        ExpectRefused(*m_pClient, sFileHandle);
        ExpectRefused(*m_pClient, sDirHandle);
        for (const char* pcName : {"file", "empty", "new", "", ".", "dir/file"}) {
            SCOPED_TRACE(pcName);
            Attack(sDirHandle, pcName);
        }
        std::filesystem::remove(sDir);
    }
}

// The server still has them open; what they are now is none of the client's business. Nor is it when a link leads
// there.
TEST_F(ContainmentHandlesTest, HandlesOfFilesThatTheHostMovedOutOfTheExportLeadNowhere) {
    const TempFolder& elsewhere = m_Third;
    std::filesystem::create_directory(Folder() / "dir");
    std::vector<std::string> vsHandles(3);
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "dir", vsHandles[0]), 0U);
    ASSERT_EQ(m_pClient->Create(m_sRoot, "file", vsHandles[1]), 0U);
    ASSERT_EQ(m_pClient->Create(vsHandles[0], "file", vsHandles[2]), 0U);
    std::uint32_t iCount = 0;
    ASSERT_EQ(m_pClient->Write(vsHandles[1], 0, "mine", iCount), 0U);
    ASSERT_EQ(m_pClient->Write(vsHandles[2], 0, "mine", iCount), 0U);
    std::filesystem::rename(Folder() / "file", elsewhere / "file");
    std::filesystem::rename(Folder() / "dir", elsewhere / "dir");
    FillSecret(elsewhere.Path());
    Guard(elsewhere.Path());
    for (const bool bLinked : {false, true}) {
        SCOPED_TRACE(bLinked ? "a link leads there" : "nothing leads there");
        if (bLinked) {
            Link(elsewhere / "file", "file");
            Link(elsewhere / "dir", "dir");
        }
        for (const std::string& sHandle : vsHandles) {
            ExpectRefused(*m_pClient, sHandle);
        }
        Attack(vsHandles[0], "file");
        Attack(vsHandles[0], "new");
        ExpectUntouched();
    }
    Server().RemoveMountPoint(Folder().Path().c_str());
    ExpectUntouched();
}

// The export is the folder that was exported, not whatever its path leads to.
TEST_F(ContainmentHandlesTest, AnExportWhoseOwnFolderBecameALinkLeadsNowhere) {
    MakeOwn();
    std::string sMine;
    ASSERT_EQ(m_pClient->Lookup(m_sRoot, "mine", sMine), 0U);
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        std::filesystem::rename(Folder().Path(), m_Third / "moved");
        ASSERT_EQ(::symlink(pTree->Path().c_str(), Folder().Path().c_str()), 0);
        ExpectRefused(*m_pClient, m_sRoot);
        ExpectRefused(*m_pClient, sMine);
        std::string sHandle;
        EXPECT_NE(m_pClient->Lookup(m_sRoot, "file", sHandle), 0U);
        EXPECT_NE(m_pClient->Create(m_sRoot, "new", sHandle), 0U);
        EXPECT_NE(m_pClient->Mkdir(m_sRoot, "new", sHandle), 0U);
        EXPECT_NE(m_pClient->Remove(m_sRoot, "file"), 0U);
        EXPECT_NE(m_pClient->Rmdir(m_sRoot, "empty"), 0U);
        EXPECT_NE(m_pClient->Rename(m_sRoot, "file", m_sRoot, "stolen"), 0U);
        std::filesystem::remove(Folder().Path());
        std::filesystem::rename(m_Third / "moved", Folder().Path());
    }
}

TEST_F(ContainmentHandlesTest, HandlesOfARemovedExportLeadNowhere) {
    const TempFolder& removed = m_Third;
    FillSecret(removed.Path());
    Export(removed.Path(), "removed");
    NfsClient tenant(Transport::kTcp, kClient);  // may see all of it, as long as it is exported
    std::vector<std::string> vsHandles{MountRoot(tenant, "removed")};
    for (const char* pcName : {"file", "dir", "empty", kSecretName}) {
        std::string sHandle;
        ASSERT_EQ(tenant.Lookup(vsHandles[0], pcName, sHandle), 0U);
        vsHandles.push_back(sHandle);
    }
    std::string sData;
    bool bEof = false;
    ASSERT_EQ(tenant.Read(vsHandles[1], 0, 100, sData, bEof), 0U);
    std::vector<std::string> vsNames;
    ASSERT_EQ(tenant.Readdir(vsHandles[0], vsNames, 512), 0U);
    tenant.Mount().Close();
    Guard(removed.Path());
    Server().RemoveMountPoint(removed.Path().c_str());
    const auto attackAll = [&] {
        for (const std::string& sHandle : vsHandles) {
            ExpectRefused(*m_pClient, sHandle);
            for (const char* pcName : {"file", "empty", "new", "", "..", "dir/file"}) {
                Attack(sHandle, pcName);
            }
        }
    };
    attackAll();
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(vsHandles[0], attributes), 5U) << "its path belongs to no export any more";
    // Exported again, it is the next holder's.
    Export(removed.Path(), "removed");
    NfsClient next(Transport::kTcp, kOtherClient);
    MountRoot(next, "removed");
    attackAll();
    Server().RemoveMountPoint(removed.Path().c_str());
    ExpectUntouched();
}

// A client that lived through a restart of the server holds handles that begin to name other files.
TEST_F(ContainmentHandlesTest, HandlesFromBeforeARestartReachNoOtherClientsFiles) {
    std::string sMine;
    ASSERT_EQ(m_pClient->Create(m_sRoot, "mine", sMine), 0U);
    m_pClient.reset();
    m_pOwner.reset();
    Server().StopServer();
    Start();
    Export(m_Other.Path(), "other");
    m_pOwner = std::make_unique<NfsClient>(Transport::kTcp, kOtherClient);
    m_sOther = MountRoot(*m_pOwner, "other");
    for (const char* pcName : {"file", "dir", "empty"}) {
        std::string sHandle;
        ASSERT_EQ(m_pOwner->Lookup(m_sOther, pcName, sHandle), 0U);
    }
    m_pClient = MakeSpiedClient(kClient);
    AttackHandle(sMine);
    AttackHandle(m_sRoot);
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "file"), 5U);
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(sMine, attributes), 5U);
    // In its own export it goes on as soon as it has mounted it again.
    m_sRoot = MountRoot(*m_pClient);
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "mine", sMine), 0U);
}

TEST_F(ContainmentHandlesTest, ReleasedExportServesTheNextClient) {
    NfsClient next(Transport::kTcp, kClient);
    m_pOwner->Umnt("other");
    Fattr3 attributes;
    EXPECT_EQ(next.Getattr(m_sOther, attributes), 0U) << "nobody has it mounted";
    const std::string sRoot = MountRoot(next, "other");
    EXPECT_EQ(next.Getattr(sRoot, attributes), 0U);
    EXPECT_EQ(m_pOwner->Getattr(sRoot, attributes), 5U);
}

// ---- Listings that go on in a folder that has become another

// The host moves the folder away in the middle of a listing: elsewhere in the export, out of it, with the folder of
// another client or of nobody in its place, linked or moved there. The twin holds the same names.
TEST_F(ContainmentHandlesTest, ListingsThatGoOnTellNothingOfWhatTookTheFoldersPlace) {
    std::filesystem::create_directory(m_Third / "twin");
    for (int i = 0; i < kListed; ++i) {
        WriteWholeFile(m_Third / ("twin/" + std::to_string(i)), "");
    }
    FillSecret(m_Third / "twin");
    Guard(m_Third / "twin");
    for (const bool bPlus : {false, true}) {
        for (const auto& [pcMove, move] : MakeMoves()) {
            SCOPED_TRACE(std::string(bPlus ? "READDIRPLUS, " : "READDIR, ") + pcMove);
            const std::string sHandle = MakeListedDir();
            std::uint64_t iCookie = 0;
            ASSERT_GT(List(bPlus, sHandle, iCookie).value().size(), 2U);
            ASSERT_NE(iCookie, 0U) << "the listing is at its end already";
            move();
            while (iCookie != 0) {
                const std::optional<std::vector<std::string>> vsPart = List(bPlus, sHandle, iCookie);
                if (!vsPart) {
                    break;
                }
                EXPECT_THAT(*vsPart, testing::Not(testing::Contains("file"))) << "that took its place";
            }
            for (const std::string& sListed : m_vsListed) {
                AttackHandle(sListed);
            }
            ExpectUntouched();
            m_vsListed.clear();
            for (const std::string& sPath : {Folder() / "dir", Folder() / "moved", m_Third / "moved"}) {
                std::filesystem::remove_all(sPath);
            }
        }
    }
}

}  // namespace
