// A client that tries to get out of its export, and what tells whether it did.
#include "ContainmentFixture.h"

#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t kExclusive = 2;
constexpr std::uint32_t kFifo = 7;
constexpr std::uint32_t kUpdateAll = 0x3F;
constexpr std::uint32_t kFileSync = 2;

/// The procedures that take one handle and nothing else of a path.
const std::map<std::uint32_t, std::string>& TailsOfCallsOnHandles() {
    XdrBuilder attributes;
    Sattr3 sattr;
    sattr.iMode = 0777;
    sattr.iSize = 0;
    sattr.mtime = {1, 0};
    sattr.Write(attributes);
    attributes.Bool(false);
    static const std::map<std::uint32_t, std::string> kTails{
        {kNfsGetattr, ""},
        {kNfsAccess, XdrBuilder().U32(kUpdateAll).Bytes()},
        {kNfsReadlink, ""},
        {kNfsRead, XdrBuilder().U64(0).U32(100).Bytes()},
        {kNfsWrite, XdrBuilder().U64(0).U32(11).U32(kFileSync).Opaque("overwritten").Bytes()},
        {kNfsReaddir, XdrBuilder().U64(0).U64(0).U32(4096).Bytes()},
        {kNfsReaddirplus, XdrBuilder().U64(0).U64(0).U32(4096).U32(32768).Bytes()},
        {kNfsFsstat, ""},
        {kNfsFsinfo, ""},
        {kNfsPathconf, ""},
        {kNfsCommit, XdrBuilder().U64(0).U32(0).Bytes()},
        {kNfsSetattr, attributes.Bytes()}};
    return kTails;
}

/// The procedures that make something under a name, behind the name.
std::vector<std::pair<std::uint32_t, std::string>> TailsOfCallsOnNames() {
    XdrBuilder cut;  // empties what it finds
    Sattr3 empty;
    empty.iSize = 0;
    cut.U32(0);
    empty.Write(cut);
    XdrBuilder symlink;
    Sattr3().Write(symlink);
    symlink.Opaque("/");
    XdrBuilder fifo;
    fifo.U32(kFifo);
    Sattr3().Write(fifo);
    return {{kNfsCreate, XdrBuilder().U32(kExclusive).U64(7).Bytes()},
            {kNfsCreate, cut.Bytes()},
            {kNfsSymlink, symlink.Bytes()},
            {kNfsMknod, fifo.Bytes()}};
}

std::string DescribeEntry(const std::string& sPath) {
    struct stat status {};
    EXPECT_EQ(::lstat(sPath.c_str(), &status), 0) << sPath;
    const std::string sContent = S_ISREG(status.st_mode)   ? ReadWholeFile(sPath)
                                 : S_ISLNK(status.st_mode) ? std::filesystem::read_symlink(sPath).string()
                                                           : "";
    const auto text = [](auto number) { return std::to_string(number) + " "; };
    return text(status.st_ino) + text(status.st_mode) + text(status.st_uid) + text(status.st_nlink) +
           text(status.st_mtim.tv_sec) + text(status.st_mtim.tv_nsec) + text(status.st_ctim.tv_sec) +
           text(status.st_ctim.tv_nsec) + sContent;
}

}  // namespace

// ---- What tells whether it did

Watch::Watch() : m_Queue(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

void Watch::Add(const std::string& sPath) {
    constexpr std::uint32_t kEvents =
        IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE | IN_MOVE_SELF;
    EXPECT_NE(::inotify_add_watch(m_Queue.Get(), sPath.c_str(), kEvents), -1) << sPath;
}

void Watch::AddTree(const std::string& sTree) {
    Add(sTree);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sTree)) {
        Add(entry.path());
    }
    Take();  // what looking for them left
}

std::set<std::string> Watch::Take() {
    std::set<std::string> events;
    alignas(inotify_event) char vcEvents[65536];
    for (ssize_t nBytes = 0; (nBytes = ::read(m_Queue.Get(), vcEvents, sizeof(vcEvents))) > 0;) {
        for (const char* pc = vcEvents; pc < vcEvents + nBytes;) {
            const auto* pEvent = reinterpret_cast<const inotify_event*>(pc);
            char vcText[32];
            std::snprintf(vcText, sizeof(vcText), "%x ", pEvent->mask);
            events.insert(vcText + (pEvent->len > 0 ? std::string(pEvent->name) : std::string()));
            pc += sizeof(inotify_event) + pEvent->len;
        }
    }
    return events;
}

std::map<std::string, std::string> Picture(const std::string& sTree) {
    std::map<std::string, std::string> picture;
    picture[sTree] = DescribeEntry(sTree);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sTree)) {
        picture[entry.path()] = DescribeEntry(entry.path());
    }
    return picture;
}

void SetSecretTimes(const std::string& sTree) {
    const timespec vTimes[] = {{kSecretTime, 0}, {kSecretTime, 0}};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sTree)) {
        EXPECT_EQ(::utimensat(AT_FDCWD, entry.path().c_str(), vTimes, AT_SYMLINK_NOFOLLOW), 0) << entry.path();
    }
    EXPECT_EQ(::utimensat(AT_FDCWD, sTree.c_str(), vTimes, AT_SYMLINK_NOFOLLOW), 0) << sTree;
}

std::unique_ptr<NfsClient> MakeSpiedClient(const char* pcAddress, Transport transport) {
    auto pClient = std::make_unique<NfsClient>(transport, pcAddress);
    const std::string sTime = XdrBuilder().U32(kSecretTime).Bytes();
    pClient->Nfs().ShowReplies([sTime](const std::string& sReply) {
        for (const std::string& sHidden : {std::string(kSecret), std::string(kSecretName), sTime}) {
            EXPECT_EQ(sReply.find(sHidden), std::string::npos) << Hex(sHidden) << " was told in " << Hex(sReply);
        }
    });
    return pClient;
}

// ---- The fixture

void ContainmentFixture::SetUp() {
    ServerFixture::SetUp();
    if (IsSkipped()) {
        return;
    }
    FillSecret(m_Outside.Path());
    FillSecret(m_Other.Path());
    Export(m_Other.Path(), "other");
    m_pOwner = std::make_unique<NfsClient>(Transport::kTcp, kOtherClient);
    m_sOther = MountRoot(*m_pOwner, "other");
    m_pClient = MakeSpiedClient(kClient);
    m_sRoot = MountRoot(*m_pClient);
    Guard(m_Outside.Path());
    Guard(m_Other.Path());
    m_Watch.AddTree(m_Outside.Path());
}

void ContainmentFixture::TearDown() {
    if (m_pClient) {
        ExpectUntouched();
    }
    m_pClient.reset();
    m_pOwner.reset();
    ServerFixture::TearDown();
}

void ContainmentFixture::FillSecret(const std::string& sTree) {
    std::filesystem::create_directories(sTree + "/dir");
    std::filesystem::create_directories(sTree + "/empty");
    for (const std::string sName : {"/file", "/dir/file", "/dir/top.secret", "/top.secret"}) {
        WriteWholeFile(sTree + sName, std::string(kSecret) + " at all");
    }
    SetSecretTimes(sTree);
}

void ContainmentFixture::Guard(const std::string& sTree) {
    m_Guarded[sTree] = Picture(sTree);
}

void ContainmentFixture::ExpectUntouched() {
    EXPECT_THAT(m_Watch.Take(), testing::IsEmpty()) << "something outside was opened or changed";
    for (const auto& [sTree, picture] : m_Guarded) {
        EXPECT_EQ(Picture(sTree), picture) << sTree << " has changed";
    }
    m_Watch.Take();  // what taking the pictures left
}

// ---- The attacks

void ContainmentFixture::MakeOwn() {
    WriteWholeFile(Folder() / "mine", "mine");
    ::mkdir((Folder() / "myDir").c_str(), 0755);
    std::string sHandle;
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "mine", sHandle), 0U);
    EXPECT_EQ(m_pClient->Lookup(m_sRoot, "myDir", sHandle), 0U);
}

void ContainmentFixture::Attack(const std::string& sDir, const std::string& sName) {
    MakeOwn();
    std::string sHandle;
    if (m_pClient->Lookup(sDir, sName, sHandle) == 0) {
        AttackHandle(sHandle);
    }
    m_pClient->Create(sDir, sName, sHandle);
    for (const auto& [iProcedure, sTail] : TailsOfCallsOnNames()) {
        m_pClient->Nfs().Call(kNfsProgram, 3, iProcedure, XdrBuilder().Opaque(sDir).Opaque(sName).Raw(sTail).Bytes());
    }
    m_pClient->Mkdir(sDir, sName, sHandle);
    m_pClient->Remove(sDir, sName);
    m_pClient->Rmdir(sDir, sName);
    AttackWithOwn(sDir, sName);
}

void ContainmentFixture::AttackWithOwn(const std::string& sDir, const std::string& sName) {
    m_pClient->Rename(sDir, sName, m_sRoot, "stolen");
    EXPECT_FALSE(std::filesystem::exists(Folder() / "stolen/file")) << sName;
    m_pClient->Rename(m_sRoot, "mine", sDir, sName);
    m_pClient->Rename(m_sRoot, "myDir", sDir, sName);
    std::string sMine;
    m_pClient->Lookup(m_sRoot, "mine", sMine);
    m_pClient->Nfs().Call(kNfsProgram, 3, kNfsLink, XdrBuilder().Opaque(sMine).Opaque(sDir).Opaque(sName).Bytes());
    m_pClient->Remove(m_sRoot, "stolen");
}

std::map<std::uint32_t, std::uint32_t> ContainmentFixture::AttackHandle(NfsClient& client, const std::string& sHandle) {
    std::map<std::uint32_t, std::uint32_t> statuses;
    for (const auto& [iProcedure, sTail] : TailsOfCallsOnHandles()) {
        const std::string sArguments = XdrBuilder().Opaque(sHandle).Raw(sTail).Bytes();
        const RpcReply reply = client.Nfs().Call(kNfsProgram, 3, iProcedure, sArguments);
        if (reply.iAcceptStatus == kAcceptSuccess) {
            statuses[iProcedure] = WordAt(reply.sBody, 0);
        }
    }
    const std::string sLink = XdrBuilder().Opaque(sHandle).Opaque(m_sRoot).Opaque("linked").Bytes();
    client.Nfs().Call(kNfsProgram, 3, kNfsLink, sLink);
    return statuses;
}

void ContainmentFixture::ExpectRefused(NfsClient& client, const std::string& sHandle) {
    for (const auto& [iProcedure, iStatus] : AttackHandle(client, sHandle)) {
        EXPECT_NE(iStatus, 0U) << "procedure " << iProcedure << " serves " << Hex(sHandle);
    }
}

void ContainmentFixture::Link(const std::string& sTarget, const std::string& sName) const {
    ASSERT_EQ(::symlink(sTarget.c_str(), (Folder() / sName).c_str()), 0) << sName;
}

std::string ContainmentFixture::Beside(const TempFolder& folder) {
    return "../" + std::filesystem::path(folder.Path()).filename().string();
}

std::string ContainmentFixture::MakeHandle(std::uint32_t iID, std::size_t iSize) {
    std::string sHandle(iSize, '\0');
    for (std::size_t i = 0; i < 4 && i < iSize; ++i) {
        sHandle[i] = static_cast<char>(iID >> (8 * i));
    }
    return sHandle;
}

bool ContainmentFixture::WasRefusedAsAnothers() const {
    for (const std::string& sLine : m_Log.Texts('e')) {
        if (sLine.ends_with("Export \"other\" is mounted by 127.0.0.2")) {
            return true;
        }
    }
    return false;
}
