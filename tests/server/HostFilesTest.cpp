// What the host does to its files while clients use them: replaces, removes, runs, write-protects and unmounts them,
// and keeps things among them that are not to be opened.
#include <array>
#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "NfsClient.h"
#include "RuntimeParam.h"
#include "ServerFixture.h"
#include "Utilities.h"
#include "WaitUntil.h"

namespace {

using testing::IsEmpty;

/// READ and WRITE of what cannot be opened, and CREATE of it (RFC 1813: NFS3ERR_INVAL, NFS3ERR_IO).
constexpr std::uint32_t kInvalid = 22;
constexpr std::uint32_t kIoError = 5;

/// The files below a folder that this process holds open.
std::vector<std::string> OpenBelow(const std::string& sFolder) {
    std::vector<std::string> vsOpen;
    DIR* pFolder = ::opendir("/proc/self/fd");
    while (const dirent* pEntry = ::readdir(pFolder)) {
        char vcTarget[4096];
        const ssize_t nTarget =
            ::readlink((std::string("/proc/self/fd/") + pEntry->d_name).c_str(), vcTarget, sizeof(vcTarget));
        const std::string sTarget(vcTarget, nTarget > 0 ? static_cast<std::size_t>(nTarget) : 0);
        if (sTarget.starts_with(sFolder + "/")) {
            vsOpen.push_back(sTarget);
        }
    }
    ::closedir(pFolder);
    return vsOpen;
}

/// Tells whether a file was opened.
class OpenWatch {
public:
    explicit OpenWatch(const std::string& sPath) : m_Watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_NE(::inotify_add_watch(m_Watch.Get(), sPath.c_str(), IN_OPEN), -1) << sPath;
    }
    bool WasOpened() const {
        char vcEvents[4096];
        return ::read(m_Watch.Get(), vcEvents, sizeof(vcEvents)) > 0;
    }

private:
    CDescriptor m_Watch;
};

/// A file system of its own on a folder, taken off again at the end.
class FileSystem {
public:
    explicit FileSystem(std::string sFolder) : m_sFolder(std::move(sFolder)) {
        ::mkdir(m_sFolder.c_str(), 0755);
        m_bMounted = ::mount("none", m_sFolder.c_str(), "tmpfs", 0, nullptr) == 0;
        EXPECT_TRUE(m_bMounted) << m_sFolder;
    }
    ~FileSystem() {
        if (m_bMounted) {
            ::umount2(m_sFolder.c_str(), MNT_DETACH);
        }
    }
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;
    const std::string& Path() const { return m_sFolder; }
    /// Whether nothing held it.
    bool Unmount() {
        m_bMounted = m_bMounted && ::umount(m_sFolder.c_str()) != 0;
        return !m_bMounted;
    }
    bool SetReadOnly(bool bReadOnly) const {
        const unsigned long lFlags = bReadOnly ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT;
        return ::mount("none", m_sFolder.c_str(), nullptr, lFlags, nullptr) == 0;
    }

private:
    std::string m_sFolder;
    bool m_bMounted = false;
};

class HostFilesTest : public ServerFixture {
protected:
    void SetUp() override {
        ServerFixture::SetUp();
        if (!IsSkipped()) {
            m_pClient = std::make_unique<NfsClient>();
            m_sRoot = MountRoot(*m_pClient);
        }
    }
    void TearDown() override {
        m_pClient.reset();
        ServerFixture::TearDown();
    }

    std::string Path(const std::string& sName) const { return Folder() / sName; }
    std::string Lookup(const std::string& sName) { return LookupIn(m_sRoot, sName); }
    std::string LookupIn(const std::string& sDir, const std::string& sName) {
        std::string sHandle;
        EXPECT_EQ(m_pClient->Lookup(sDir, sName, sHandle), 0U) << sName;
        return sHandle;
    }
    /// The first bytes of a file, or the status as "status N".
    std::string Read(const std::string& sHandle, std::uint32_t iCount = 4096) {
        std::string sData;
        bool bEof = false;
        const std::uint32_t iStatus = m_pClient->Read(sHandle, 0, iCount, sData, bEof);
        return iStatus == 0 ? sData : "status " + std::to_string(iStatus);
    }
    std::uint32_t Write(const std::string& sHandle, const std::string& sData) {
        std::uint32_t iCount = 0;
        const std::uint32_t iStatus = m_pClient->Write(sHandle, 0, sData, iCount);
        EXPECT_TRUE(iStatus != 0 || iCount == sData.size()) << iCount;
        return iStatus;
    }
    std::uint32_t Truncate(const std::string& sHandle, std::uint64_t iSize) {
        Sattr3 attributes;
        attributes.iSize = iSize;
        return m_pClient->Setattr(sHandle, attributes);
    }
    Fattr3 Getattr(const std::string& sHandle) {
        Fattr3 attributes;
        EXPECT_EQ(m_pClient->Getattr(sHandle, attributes), 0U);
        return attributes;
    }
    /// Puts a new file in the place of another, as programs do that save in one step.
    void Replace(const std::string& sName, const std::string& sContent) const {
        WriteWholeFile(Path("new"), sContent);
        ASSERT_EQ(::rename(Path("new").c_str(), Path(sName).c_str()), 0);
    }
    /// Everything a client may try on an existing thing that is not to be opened.
    void ExpectNothingIsOpened(const std::string& sName) {
        const std::string sHandle = Lookup(sName);
        const OpenWatch watch(Path(sName));
        EXPECT_EQ(Read(sHandle), "status 22") << sName;
        EXPECT_EQ(Write(sHandle, "x"), kInvalid) << sName;
        std::string sCreated;
        EXPECT_EQ(m_pClient->Create(m_sRoot, sName, sCreated), kIoError) << sName;
        EXPECT_EQ(Truncate(sHandle, 0), kInvalid) << sName;
        Getattr(sHandle);
        EXPECT_FALSE(watch.WasOpened()) << sName;
    }

    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
};

// ---- Replaced and removed files

TEST_F(HostFilesTest, FileThatTheHostReplacedIsReadAndWrittenAsWhatItIsNow) {
    WriteWholeFile(Path("f"), "the old content");
    const std::string sHandle = Lookup("f");
    EXPECT_EQ(Read(sHandle), "the old content");
    Replace("f", "NEW");
    EXPECT_EQ(Getattr(sHandle).iSize, 3U);
    EXPECT_EQ(Read(sHandle), "NEW");
    EXPECT_EQ(OpenBelow(Folder().Path()), std::vector<std::string>{Path("f")}) << "nothing that is deleted";
    Replace("f", "again");
    EXPECT_EQ(Write(sHandle, "client"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("f")), "client");
    EXPECT_EQ(OpenBelow(Folder().Path()), std::vector<std::string>{Path("f")});
}

TEST_F(HostFilesTest, FileRemovedAndMadeAgainIsAnother) {
    WriteWholeFile(Path("f"), "old");
    const std::string sHandle = Lookup("f");
    EXPECT_EQ(Write(sHandle, "OLD"), 0U);
    ASSERT_EQ(::unlink(Path("f").c_str()), 0);
    WriteWholeFile(Path("f"), "made again");
    EXPECT_EQ(Write(sHandle, "client"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("f")), "clientgain");
    EXPECT_EQ(Read(sHandle), "clientgain");
}

TEST_F(HostFilesTest, RemovedFileIsLetGoOfAtTheNextCall) {
    WriteWholeFile(Path("f"), "content");
    const std::string sHandle = Lookup("f");
    Read(sHandle);
    EXPECT_EQ(OpenBelow(Folder().Path()).size(), 1U);
    ASSERT_EQ(::unlink(Path("f").c_str()), 0);
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(sHandle, attributes), kIoError);
    EXPECT_THAT(OpenBelow(Folder().Path()), IsEmpty());
}

TEST_F(HostFilesTest, ReplacedFileIsLetGoOfWhenItsAttributesAreAsked) {
    WriteWholeFile(Path("f"), "content");
    const std::string sHandle = Lookup("f");
    Read(sHandle);
    Replace("f", "NEW");
    EXPECT_EQ(Getattr(sHandle).iSize, 3U);
    EXPECT_THAT(OpenBelow(Folder().Path()), IsEmpty());
}

TEST_F(HostFilesTest, FileThatBecameAFolderOrAFifoIsReadNoMore) {
    WriteWholeFile(Path("f"), "content");
    const std::string sHandle = Lookup("f");
    Read(sHandle);
    ASSERT_EQ(::unlink(Path("f").c_str()), 0);
    ASSERT_EQ(::mkfifo(Path("f").c_str(), 0600), 0);
    EXPECT_EQ(Read(sHandle), "status 22");
    EXPECT_THAT(OpenBelow(Folder().Path()), IsEmpty());
    ASSERT_EQ(::unlink(Path("f").c_str()), 0);
    ASSERT_EQ(::mkdir(Path("f").c_str(), 0700), 0);
    EXPECT_EQ(Write(sHandle, "x"), kInvalid);
    EXPECT_THAT(OpenBelow(Folder().Path()), IsEmpty());
}

TEST_F(HostFilesTest, EachReadGivesOneWholeVersionAndTheLastWriteIsThere) {
    constexpr std::size_t kSize = 2000;
    constexpr int kRounds = 400;
    WriteWholeFile(Path("f"), std::string(kSize, 'a'));
    const std::string sHandle = Lookup("f");
    std::atomic<bool> bEnd{false};
    std::thread host([&] {
        for (int iVersion = 0; !bEnd; ++iVersion) {
            Replace("f", std::string(kSize, static_cast<char>('a' + iVersion % 26)));
        }
    });
    for (int iRound = 0; iRound < kRounds; ++iRound) {
        const std::string sData = Read(sHandle);
        EXPECT_EQ(sData.size(), kSize);
        EXPECT_EQ(sData, std::string(kSize, sData.empty() ? '?' : sData[0]));
    }
    bEnd = true;
    host.join();
    EXPECT_EQ(Write(sHandle, "client"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("f")).substr(0, 6), "client");
}

// ---- Redirected files' sources

TEST_F(HostFilesTest, SourceThatTheHostReplacedIsReadAsWhatItIsNow) {
    WriteWholeFile(Path("virtual"), "");
    const TempFolder sources;
    WriteWholeFile(sources / "source", "old data");
    Server().OpenRedirectedFile(Path("virtual").c_str(), 8, false, 0, 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(
        Server().AddRedirectedFileSegment(Path("virtual").c_str(), (sources / "source").c_str(), 0, 0, 8, vcReason));
    const std::string sHandle = Lookup("virtual");
    EXPECT_EQ(Read(sHandle, 8), "old data");
    WriteWholeFile(sources / "next", "new data");
    ASSERT_EQ(::rename((sources / "next").c_str(), (sources / "source").c_str()), 0);
    const auto isNew = [&] {
        const std::string sSeen = Read(sHandle, 8);
        EXPECT_TRUE(sSeen == "old data" || sSeen == "new data") << sSeen;
        return sSeen == "new data";
    };
    EXPECT_TRUE(WaitUntil(isNew)) << "within a second or so";
    EXPECT_EQ(OpenBelow(sources.Path()), std::vector<std::string>{sources / "source"});
}

// ---- Exports that go

TEST_F(HostFilesTest, FileSystemOfARemovedExportCanBeUnmounted) {
    for (int iKey = 0; iKey < 3; ++iKey) {
        FileSystem fileSystem(Path("fs"));
        WriteWholeFile(Path("fs/f"), "content");
        Export(fileSystem.Path(), "fs");
        NfsClient client;
        const std::string sHandle = LookupIn(MountRoot(client, "fs"), "f");
        EXPECT_EQ(Read(sHandle), "content");
        EXPECT_EQ(Write(sHandle, "CONTENT"), 0U);
        EXPECT_EQ(OpenBelow(fileSystem.Path()).size(), 1U);
        switch (iKey) {
            case 0:
                Server().RemoveMountPoint(fileSystem.Path().c_str());
                break;
            case 1:
                Utilities().RemoveMountInfoByExportName("fs");
                break;
            default:
                Utilities().RemoveAllMountInfo();
        }
        EXPECT_TRUE(fileSystem.Unmount()) << "the target is busy, key " << iKey;
    }
}

TEST_F(HostFilesTest, FolderThatBecomesAnExportCanBeWrittenThoughItsFileWasASource) {
    const TempFolder sources;
    WriteWholeFile(Path("virtual"), "");
    WriteWholeFile(sources / "source", "0123456789");
    Server().OpenRedirectedFile(Path("virtual").c_str(), 10, false, 0, 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(
        Server().AddRedirectedFileSegment(Path("virtual").c_str(), (sources / "source").c_str(), 0, 0, 10, vcReason));
    EXPECT_EQ(Read(Lookup("virtual"), 10), "0123456789");
    Export(sources.Path(), "sources");
    NfsClient client;
    const std::string sHandle = LookupIn(MountRoot(client, "sources"), "source");
    EXPECT_EQ(Write(sHandle, "client"), 0U);
    EXPECT_EQ(ReadWholeFile(sources / "source"), "client6789");
}

// ---- Files that refuse writers

TEST_F(HostFilesTest, ReadOnlyFileSystemIsReadAndWrittenAgainWhenItIsNoMore) {
    FileSystem fileSystem(Path("fs"));
    WriteWholeFile(Path("fs/f"), "content");
    ASSERT_TRUE(fileSystem.SetReadOnly(true));
    const std::string sHandle = LookupIn(Lookup("fs"), "f");
    EXPECT_EQ(Read(sHandle), "content");
    EXPECT_EQ(Write(sHandle, "x"), kInvalid);
    EXPECT_EQ(Read(sHandle), "content");
    EXPECT_EQ(Truncate(sHandle, 1), kInvalid);
    ASSERT_TRUE(fileSystem.SetReadOnly(false));
    EXPECT_EQ(Write(sHandle, "CLIENT"), 0U);
    EXPECT_EQ(ReadWholeFile(Path("fs/f")), "CLIENTt");
    Server().CloseAllCachedFileHandles(fileSystem.Path().c_str());
    EXPECT_TRUE(fileSystem.Unmount());
}

TEST_F(HostFilesTest, ReadOnlyBindMountIsRead) {
    ASSERT_EQ(::mkdir(Path("dir").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(Path("bound").c_str(), 0755), 0);
    WriteWholeFile(Path("dir/f"), "content");
    ASSERT_EQ(::mount(Path("dir").c_str(), Path("bound").c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, Path("bound").c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const std::string sHandle = LookupIn(Lookup("bound"), "f");
    EXPECT_EQ(Read(sHandle), "content");
    EXPECT_EQ(Write(sHandle, "x"), kInvalid);
    EXPECT_EQ(Write(LookupIn(Lookup("dir"), "f"), "X"), 0U) << "the same file by the way that may be written";
    EXPECT_EQ(Read(sHandle), "Xontent");
    Server().CloseAllCachedFileHandles(Path("bound").c_str());
    EXPECT_EQ(::umount(Path("bound").c_str()), 0);
}

TEST_F(HostFilesTest, RunningProgramIsReadAndOneThatWasLookedAtCanBeRun) {
    const std::string sProgram = ReadWholeFile("/bin/sleep");
    WriteWholeFile(Path("program"), sProgram);
    ASSERT_EQ(::chmod(Path("program").c_str(), 0755), 0);
    const std::string sHandle = Lookup("program");
    Getattr(sHandle);
    ChildProcess child({Path("program"), "1000"});
    ASSERT_TRUE(child.IsRunning());
    const std::string sLink = "/proc/" + std::to_string(child.GetPid()) + "/exe";
    ASSERT_TRUE(WaitUntil([&] {
        char vcRunning[4096];
        const ssize_t nRunning = ::readlink(sLink.c_str(), vcRunning, sizeof(vcRunning));
        return nRunning > 0 && std::string(vcRunning, static_cast<std::size_t>(nRunning)) == Path("program");
    })) << "it was looked at only, and can be run";
    EXPECT_EQ(Read(sHandle), sProgram.substr(0, 4096));
    EXPECT_EQ(Write(sHandle, "x"), kInvalid);
    EXPECT_EQ(Read(sHandle), sProgram.substr(0, 4096));
    child.Signal(SIGKILL);
    EXPECT_TRUE(child.Wait().has_value());
    EXPECT_EQ(Write(sHandle, "x"), 0U);
}

/// Does something as a service's user does, with a folder exported: the status of the process that did. Without root,
/// or another user in this user namespace, kNobodyElse.
constexpr int kNobodyElse = 2;
template <class Do>
int AsServiceUser(const std::string& sFolder, const Do& what) {
    if (::geteuid() != 0 || ::chmod(sFolder.c_str(), 0777) != 0) {
        return kNobodyElse;
    }
    const pid_t iChild = ::fork();
    if (iChild == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(kNobodyElse);
        }
        CUtilities utilities;
        CRuntimeParam param("child", 0);
        const LogArgu tag{"Child"};
        utilities.AddMountInfo(&param, &tag, sFolder.c_str(), "data", "", nullptr);
        ::_exit(what(utilities, &param, &tag) ? 0 : 1);
    }
    int iStatus = 0;
    return ::waitpid(iChild, &iStatus, 0) == iChild && WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

TEST_F(HostFilesTest, ServiceUserReadsWhatItMayNotWrite) {
    WriteWholeFile(Path("f"), "content");
    ASSERT_EQ(::chmod(Path("f").c_str(), 0444), 0);
    const auto readAndWrite = [sPath = Path("f")](CUtilities& utilities, CRuntimeParam* pParam, const LogArgu* pTag) {
        char vcBuffer[16];
        bool bEof = false;
        const int iRead =
            utilities.ReadFile(pParam, pTag, sPath.c_str(), 0, SEEK_SET, vcBuffer, sizeof(vcBuffer), &bEof);
        const int iWritten = utilities.WriteFile(pParam, pTag, sPath.c_str(), 0, SEEK_SET, "x", 1);
        return iRead == 7 && bEof && iWritten == -1;
    };
    const int iStatus = AsServiceUser(Folder().Path(), readAndWrite);
    if (iStatus == kNobodyElse) {
        GTEST_SKIP() << "needs root, and a second user, to become somebody else";
    }
    EXPECT_EQ(iStatus, 0);
    EXPECT_EQ(ReadWholeFile(Path("f")), "content");
}

// A client that makes a file nobody may write to goes on writing it, or reading one that nobody may read: cp of a
// read-only file, git, tar.
TEST_F(HostFilesTest, ServiceUserUsesFilesOfItsOwnWhateverTheirPermissions) {
    const auto make = [](CUtilities& utilities, CRuntimeParam* pParam, const LogArgu* pTag, const std::string& sPath,
                         mode_t iMode) {
        const CDescriptor file(::open(sPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        struct stat status {};
        char vcBuffer[16];
        bool bEof = false;
        const auto read = [&] {
            return utilities.ReadFile(pParam, pTag, sPath.c_str(), 0, SEEK_SET, vcBuffer, sizeof(vcBuffer), &bEof);
        };
        return ::write(file.Get(), "short", 5) == 5 && ::fchmod(file.Get(), iMode) == 0 && read() == 5 &&
               ::fstat(file.Get(), &status) == 0 && (status.st_mode & 07777U) == iMode &&
               utilities.WriteFile(pParam, pTag, sPath.c_str(), 0, SEEK_SET, "longer", 6) == 6 &&
               utilities.OS_SetFileSize(pParam, pTag, sPath.c_str(), 4, nullptr) && ::fstat(file.Get(), &status) == 0 &&
               (status.st_mode & 07777U) == iMode && status.st_size == 4;
    };
    const auto makeAll = [&](CUtilities& utilities, CRuntimeParam* pParam, const LogArgu* pTag) {
        return make(utilities, pParam, pTag, Path("r"), 0444) && make(utilities, pParam, pTag, Path("w"), 0200) &&
               make(utilities, pParam, pTag, Path("none"), 0);
    };
    const int iStatus = AsServiceUser(Folder().Path(), makeAll);
    if (iStatus == kNobodyElse) {
        GTEST_SKIP() << "needs root, and a second user, to become somebody else";
    }
    EXPECT_EQ(iStatus, 0);
    EXPECT_EQ(ReadWholeFile(Path("r")), "long");
}

// ---- What is not to be opened

TEST_F(HostFilesTest, FifosAndSocketsAreNotOpened) {
    ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod(Path("socket").c_str(), S_IFSOCK | 0600, 0), 0);
    ExpectNothingIsOpened("fifo");
    ExpectNothingIsOpened("socket");
}

TEST_F(HostFilesTest, DevicesAreNotOpened) {
    if (::mknod(Path("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0 ||
        ::mknod(Path("disk").c_str(), S_IFBLK | 0600, makedev(7, 300)) != 0) {
        GTEST_SKIP() << "no right to make a device";
    }
    ExpectNothingIsOpened("null");
    ExpectNothingIsOpened("disk");
}

TEST_F(HostFilesTest, WriterOfAFifoStaysBlocked) {
    ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
    std::atomic<bool> bReader{false};
    WaitingThread writer([&] {
        const CDescriptor fifo(::open(Path("fifo").c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_TRUE(bReader) << "let go before there was a reader";
        EXPECT_EQ(::write(fifo.Get(), "message", 7), 7);
    });
    EXPECT_TRUE(writer.WaitUntilWaiting());
    ExpectNothingIsOpened("fifo");
    EXPECT_TRUE(writer.IsWaiting());
    bReader = true;
    const CDescriptor fifo(::open(Path("fifo").c_str(), O_RDONLY | O_CLOEXEC));
    char vcMessage[8] = "";
    EXPECT_EQ(::read(fifo.Get(), vcMessage, 7), 7);
    EXPECT_STREQ(vcMessage, "message");
}

TEST_F(HostFilesTest, ListingAndLookingOpensNoFile) {
    WriteWholeFile(Path("f"), "content");
    const std::string sHandle = Lookup("f");
    const OpenWatch watch(Path("f"));
    EXPECT_EQ(Getattr(sHandle).iSize, 7U);
    EXPECT_EQ(Lookup("f"), sHandle);
    const std::string sArguments =
        XdrBuilder().Opaque(m_sRoot).U64(0).U64(0).U32(8192).U32(8192).Bytes();  // cookie, verifier, counts
    EXPECT_EQ(m_pClient->Nfs3(kNfsReaddirplus, sArguments).U32(), 0U);
    EXPECT_FALSE(watch.WasOpened());
    EXPECT_THAT(OpenBelow(Folder().Path()), IsEmpty());
    EXPECT_EQ(Read(sHandle), "content");
    EXPECT_TRUE(watch.WasOpened()) << "the watch works";
}

}  // namespace
