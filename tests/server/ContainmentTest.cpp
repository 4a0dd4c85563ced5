// Clients that try to get out of their export, by every way that names, links and handles offer: over sockets, as root,
// with the whole server in between. Whatever is answered, the trees that are not theirs stay as they were.
#include <filesystem>
#include <map>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

constexpr const char* kClient = "127.0.0.1";
constexpr const char* kOtherClient = "127.0.0.2";

/// Everything of a tree that a client could change: each entry's path with its type, mode, owner, links, size and what
/// it holds.
std::map<std::string, std::string> Picture(const std::string& sTree) {
    std::map<std::string, std::string> picture;
    const auto add = [&picture](const std::string& sPath) {
        struct stat status {};
        EXPECT_EQ(::lstat(sPath.c_str(), &status), 0) << sPath;
        std::string sContent = S_ISREG(status.st_mode)   ? ReadWholeFile(sPath)
                               : S_ISLNK(status.st_mode) ? std::filesystem::read_symlink(sPath).string()
                                                         : "";
        picture[sPath] = std::to_string(status.st_ino) + " " + std::to_string(status.st_mode) + " " +
                         std::to_string(status.st_uid) + " " + std::to_string(status.st_nlink) + " " +
                         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) + " " +
                         sContent;
    };
    add(sTree);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sTree)) {
        add(entry.path());
    }
    return picture;
}

/// The export "data" of the client under test; "other", which another client has mounted; and a folder that nobody
/// exports. All three lie side by side.
class ContainmentTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const std::string& sTree : {m_Outside.Path(), m_Other.Path()}) {
            ::mkdir((sTree + "/dir").c_str(), 0755);
            ::mkdir((sTree + "/empty").c_str(), 0755);
            WriteWholeFile(sTree + "/file", "not yours");
            WriteWholeFile(sTree + "/dir/file", "not yours either");
        }
        Export(m_Other.Path(), "other");
        m_pOwner = std::make_unique<NfsClient>(Transport::kTcp, kOtherClient);
        m_sOther = MountRoot(*m_pOwner, "other");
        m_pClient = std::make_unique<NfsClient>(Transport::kTcp, kClient);
        m_sRoot = MountRoot(*m_pClient);
        m_Outside0 = Picture(m_Outside.Path());
        m_Other0 = Picture(m_Other.Path());
    }
    void TearDown() override {
        if (!m_Outside0.empty()) {
            EXPECT_EQ(Picture(m_Outside.Path()), m_Outside0) << "the folder outside has changed";
            EXPECT_EQ(Picture(m_Other.Path()), m_Other0) << "the other client's export has changed";
        }
        m_pClient.reset();
        m_pOwner.reset();
        ServerFixture::TearDown();
    }

    /// A file and an empty folder of the client's own, to be renamed to where they must not go. Known by handles.
    void MakeOwn() {
        WriteWholeFile(Folder() / "mine", "mine");
        ::mkdir((Folder() / "myDir").c_str(), 0755);
        std::string sHandle;
        EXPECT_EQ(m_pClient->Lookup(m_sRoot, "mine", sHandle), 0U);
        EXPECT_EQ(m_pClient->Lookup(m_sRoot, "myDir", sHandle), 0U);
    }
    /// Every procedure that goes by a directory and a name, with that name; those that succeed are told by the trees.
    void Attack(const std::string& sDir, const std::string& sName) {
        MakeOwn();
        std::string sHandle;
        if (m_pClient->Lookup(sDir, sName, sHandle) == 0) {
            AttackHandle(sHandle);
        }
        m_pClient->Create(sDir, sName, sHandle);
        m_pClient->Nfs3(kNfsCreate, XdrBuilder().Opaque(sDir).Opaque(sName).U32(2).U64(7).Bytes());
        XdrBuilder cut;  // CREATE that would empty a file it finds
        cut.Opaque(sDir).Opaque(sName).U32(0).U32(0).U32(0).U32(0).U32(1).U64(0).U32(0).U32(0);
        m_pClient->Nfs3(kNfsCreate, cut.Bytes());
        m_pClient->Mkdir(sDir, sName, sHandle);
        m_pClient->Remove(sDir, sName);
        m_pClient->Rmdir(sDir, sName);
        m_pClient->Rename(sDir, sName, m_sRoot, "stolen");
        EXPECT_FALSE(std::filesystem::exists(Folder() / "stolen/file")) << sName;
        m_pClient->Rename(m_sRoot, "mine", sDir, sName);
        m_pClient->Rename(m_sRoot, "myDir", sDir, sName);
        m_pClient->Remove(m_sRoot, "stolen");
    }
    /// Every procedure that goes by a handle; one that names nothing of the client's must not be served.
    void AttackHandle(const std::string& sHandle) {
        std::uint32_t iCount = 0;
        std::string sData;
        bool bEof = false;
        if (m_pClient->Read(sHandle, 0, 100, sData, bEof) == 0) {
            EXPECT_THAT(sData, testing::Not(testing::StartsWith("not yours")));
        }
        m_pClient->Write(sHandle, 0, "overwritten", iCount);
        Sattr3 attributes;
        attributes.iMode = 0777;
        attributes.iSize = 0;
        m_pClient->Setattr(sHandle, attributes);
    }
    void Link(const std::string& sTarget, const std::string& sName) {
        ASSERT_EQ(::symlink(sTarget.c_str(), (Folder() / sName).c_str()), 0) << sName;
    }
    static std::string LastName(const TempFolder& folder) {
        return std::filesystem::path(folder.Path()).filename().string();
    }
    bool WasRefusedAsAnothers() {
        for (const std::string& sLine : m_Log.Texts('e')) {
            if (sLine.ends_with("Export \"other\" is mounted by 127.0.0.2")) {
                return true;
            }
        }
        return false;
    }

    TempFolder m_Outside;
    TempFolder m_Other;
    std::unique_ptr<NfsClient> m_pClient;
    std::unique_ptr<NfsClient> m_pOwner;
    std::string m_sRoot;   ///< of the client's own export
    std::string m_sOther;  ///< of the other client's
    std::map<std::string, std::string> m_Outside0;
    std::map<std::string, std::string> m_Other0;
};

TEST_F(ContainmentTest, NamesLeadNowhereElse) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        const std::string sUp = "../" + LastName(*pTree);
        for (const std::string& sName :
             {sUp, sUp + "/", sUp + "/file", sUp + "/dir", sUp + "/empty", sUp + "/new", sUp + "/new/",
              sUp + "/dir/new", "./" + sUp + "/file", "missing/../" + sUp + "/new", "/" + sUp + "//new",
              sUp + "/empty/.", sUp + "/dir/../empty", "../../" + pTree->Path().substr(1) + "/new",
              pTree->Path() + "/new"}) {
            SCOPED_TRACE(sName);
            Attack(m_sRoot, sName);
        }
    }
    for (const char* pcName : {"..", "../", "../..", "../../", ".", "", "/", "..//..", "../."}) {
        SCOPED_TRACE(pcName);
        Attack(m_sRoot, pcName);
    }
    EXPECT_TRUE(std::filesystem::is_directory(Folder().Path()));
    EXPECT_TRUE(WasRefusedAsAnothers());
}

TEST_F(ContainmentTest, NamesThatAreCutReachNothing) {
    const std::string sUp = "../" + LastName(m_Outside);
    const std::string sNul("\0", 1);
    for (const std::string& sName :
         {sUp + "/file" + sNul, sUp + "/empty" + sNul + "x", sNul, sNul + sUp + "/file", "x" + sNul + "/../" + sUp,
          std::string(256, 'x'), std::string(4095, 'x'), std::string(4096, 'x'), std::string(70000, 'x'),
          sUp + "/" + std::string(4090, '/') + "file", std::string(4000, '/') + sUp + "/file"}) {
        SCOPED_TRACE(sName.substr(0, 60) + " of " + std::to_string(sName.size()));
        Attack(m_sRoot, sName);
    }
}

TEST_F(ContainmentTest, LinksLeadNowhereElse) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        const std::string sUp = "../" + LastName(*pTree);
        const std::map<std::string, std::string> links{{"dir", pTree->Path()},       {"file", *pTree / "file"},
                                                       {"empty", *pTree / "empty"},  {"relative", sUp + "/file"},
                                                       {"dangling", *pTree / "new"}, {"danglingRelative", sUp + "/new"},
                                                       {"chain", "dangling"},        {"deep", "dir/dir"}};
        for (const auto& [sName, sTarget] : links) {
            for (const char* pcBehind : {"", "/", "/.", "/file", "/empty", "/new", "/dir/new", "/.."}) {
                for (const auto& [sLink, sLinkTarget] : links) {
                    std::filesystem::remove_all(Folder() / sLink);
                    Link(sLinkTarget, sLink);
                }
                SCOPED_TRACE(sName + pcBehind);
                Attack(m_sRoot, sName + pcBehind);
            }
        }
    }
}

// A folder that a handle stands for is replaced by a link on the host.
TEST_F(ContainmentTest, HandlesLeadNowhereElse) {
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
        AttackHandle(sFileHandle);
        for (const char* pcName : {"file", "empty", "new", "", ".", "dir/file"}) {
            SCOPED_TRACE(pcName);
            Attack(sDirHandle, pcName);
        }
        std::filesystem::remove(sDir);
    }
}

// Handles are small numbers: every one can be guessed.
TEST_F(ContainmentTest, HandlesOfAnotherClientAreOfNoUse) {
    std::string sFile;
    std::string sDir;
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "file", sFile), 0U);
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "dir", sDir), 0U);
    for (unsigned char cID = 0; cID < 32; ++cID) {
        std::string sHandle(56, '\0');
        sHandle[0] = static_cast<char>(cID);
        AttackHandle(sHandle);
    }
    for (const std::string& sHandle : {m_sOther, sDir}) {
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

TEST_F(ContainmentTest, DatagramsOfAnotherAddressAreRefusedToo) {
    NfsClient stranger(Transport::kUdp, "127.0.0.3");
    Fattr3 attributes;
    EXPECT_EQ(stranger.Getattr(m_sOther, attributes), 5U);
    EXPECT_EQ(stranger.Remove(m_sOther, "file"), 5U);
    NfsClient owner(Transport::kUdp, kOtherClient);
    EXPECT_EQ(owner.Getattr(m_sOther, attributes), 0U);
}

// A client that lived through a restart of the server holds handles that begin to name other files.
TEST_F(ContainmentTest, HandlesFromBeforeARestartReachNoOtherClientsFiles) {
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
    m_pClient = std::make_unique<NfsClient>(Transport::kTcp, kClient);
    AttackHandle(sMine);
    AttackHandle(m_sRoot);
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "file"), 5U);
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(sMine, attributes), 5U);
    // In its own export it goes on as soon as it has mounted it again.
    m_sRoot = MountRoot(*m_pClient);
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "mine", sMine), 0U);
}

TEST_F(ContainmentTest, ReleasedExportServesTheNextClient) {
    m_pOwner->Umnt("other");
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(m_sOther, attributes), 0U) << "nobody has it mounted";
    const std::string sRoot = MountRoot(*m_pClient, "other");
    EXPECT_EQ(m_pClient->Getattr(sRoot, attributes), 0U);
    EXPECT_EQ(m_pOwner->Getattr(sRoot, attributes), 5U);
}

}  // namespace
