// Opening regular files, and nothing else, by path.
#include "RegularFile.h"

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "LeakGuard.h"
#include "SoftLimit.h"
#include "TempFolder.h"

namespace {

class RegularFileTest : public testing::Test {
protected:
    CDescriptor Open(const std::string& sName, int iFlags = O_RDONLY, PathLinks links = PathLinks::kRefused) const {
        return CDescriptor(OpenRegularFile((m_Folder / sName).c_str(), iFlags, links));
    }
    CDescriptor Create(const std::string& sName) const {
        return CDescriptor(CreateRegularFile((m_Folder / sName).c_str(), 0640));
    }

    LeakGuard m_Leaks;
    TempFolder m_Folder;
};

TEST_F(RegularFileTest, RegularFileIsOpenedAsAsked) {
    WriteWholeFile(m_Folder / "f", "x");
    const CDescriptor reader = Open("f");
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_EQ(::fcntl(reader.Get(), F_GETFL) & (O_ACCMODE | O_PATH), O_RDONLY);
    EXPECT_EQ(::fcntl(reader.Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(Open("f", O_RDWR).Get(), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_FALSE(Open("none").IsOpen());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(RegularFileTest, LinksAreFollowedOnlyWhereThatIsWanted) {
    WriteWholeFile(m_Folder / "f", "x");
    ASSERT_EQ(::symlink("f", (m_Folder / "link").c_str()), 0);
    EXPECT_FALSE(Open("link").IsOpen());
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(Open("link", O_RDWR, PathLinks::kFollowed).IsOpen());
}

TEST_F(RegularFileTest, NothingElseIsOpened) {
    ASSERT_EQ(::mkdir((m_Folder / "dir").c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo((m_Folder / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod((m_Folder / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_FALSE(Open("dir").IsOpen());
    EXPECT_EQ(errno, EISDIR);
    for (const char* pcName : {"fifo", "socket"}) {
        EXPECT_FALSE(Open(pcName).IsOpen()) << pcName;
        EXPECT_EQ(errno, EOPNOTSUPP) << pcName;
        EXPECT_FALSE(Create(pcName).IsOpen()) << pcName;
        EXPECT_EQ(errno, EOPNOTSUPP) << pcName;
    }
    EXPECT_EQ(OpenRegularFile("/dev/null", O_RDWR, PathLinks::kFollowed), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST_F(RegularFileTest, FileIsMadeOrOpenedAsItIs) {
    EXPECT_TRUE(Create("f").IsOpen());
    struct stat status {};
    ASSERT_EQ(::stat((m_Folder / "f").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U & ~022U);
    WriteWholeFile(m_Folder / "f", "kept");
    EXPECT_TRUE(Create("f").IsOpen());
    EXPECT_EQ(ReadWholeFile(m_Folder / "f"), "kept");
    EXPECT_FALSE(Create("none/f").IsOpen());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(Create(".").IsOpen());
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(RegularFileTest, FileIsMadeWhereALinkPointsTo) {
    ASSERT_EQ(::symlink("target", (m_Folder / "link").c_str()), 0);
    EXPECT_TRUE(Create("link").IsOpen());
    EXPECT_EQ(ReadWholeFile(m_Folder / "target"), "");
    EXPECT_TRUE(Create("link").IsOpen()) << "it leads to a file now";
}

TEST_F(RegularFileTest, OneFreeDescriptorIsEnough) {
    WriteWholeFile(m_Folder / "f", "x");
    const rlim_t nOneFree = GetLimitForFree(1);
    const SoftLimit limit(RLIMIT_NOFILE, nOneFree);
    EXPECT_TRUE(Open("f", O_RDWR).IsOpen());
    EXPECT_TRUE(Create("f").IsOpen());
}

// ---- Links of one's own, and strangers'

class OwnLinksTest : public RegularFileTest {
protected:
    static constexpr uid_t kStranger = 12345;

    void SetUp() override { WriteWholeFile(m_Folder / "f", "x"); }
    void MakeLink(const std::string& sTarget, const std::string& sName, uid_t iOwner) const {
        ASSERT_EQ(::symlink(sTarget.c_str(), (m_Folder / sName).c_str()), 0);
        ASSERT_EQ(::lchown((m_Folder / sName).c_str(), iOwner, 0), 0);
    }
    CDescriptor OpenOwn(const std::string& sName, int iFlags = O_RDWR) const {
        return CDescriptor(OpenByOwnLinks((m_Folder / sName).c_str(), iFlags));
    }
    bool IsF(const CDescriptor& file) const {
        struct stat opened {};
        struct stat f {};
        return ::fstat(file.Get(), &opened) == 0 && ::stat((m_Folder / "f").c_str(), &f) == 0 &&
               FileIdentity(opened) == FileIdentity(f);
    }
};

TEST_F(OwnLinksTest, OwnLinksAreFollowedFromOneToTheNext) {
    ASSERT_EQ(::mkdir((m_Folder / "dir").c_str(), 0755), 0);
    MakeLink("../f", "dir/up", 0);
    MakeLink("dir/up", "link", ::geteuid());
    MakeLink(m_Folder / "link", "whole", 0);
    EXPECT_TRUE(IsF(OpenOwn("f")));
    EXPECT_TRUE(IsF(OpenOwn("link")));
    EXPECT_TRUE(IsF(OpenOwn("whole", O_RDONLY)));
}

TEST_F(OwnLinksTest, StrangersLinkIsNotFollowedWhereverItStandsInTheRow) {
    MakeLink("f", "strange", kStranger);
    MakeLink("strange", "own", 0);
    for (const int iFlags : {O_RDONLY, O_RDWR}) {
        for (const char* pcName : {"strange", "own"}) {
            EXPECT_FALSE(OpenOwn(pcName, iFlags).IsOpen()) << pcName;
            EXPECT_EQ(errno, EACCES) << pcName;
        }
    }
}

TEST_F(OwnLinksTest, LinksInARingAndToNothingFailAsTheyDo) {
    MakeLink("ring", "ring", 0);
    MakeLink("none", "dangling", 0);
    EXPECT_FALSE(OpenOwn("ring").IsOpen());
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(OpenOwn("ring/f").IsOpen());
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(OpenOwn("dangling").IsOpen());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(OpenOwn("none").IsOpen());
    EXPECT_EQ(errno, ENOENT);
}

// A FIFO that takes a file's place at any moment is never opened: its writer would be let go.
TEST_F(RegularFileTest, FifoThatComesAndGoesIsNeverOpened) {
    const std::string sPath = m_Folder / "f";
    const std::string sFile = m_Folder / "file";
    const std::string sFifo = m_Folder / "fifo";
    WriteWholeFile(sFile, "x");
    ASSERT_EQ(::mkfifo(sFifo.c_str(), 0600), 0);
    ASSERT_EQ(::link(sFile.c_str(), sPath.c_str()), 0);
    const CDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_NE(::inotify_add_watch(watch.Get(), sFifo.c_str(), IN_OPEN), -1);
    std::atomic<bool> bEnd{false};
    std::thread swapper([&] {
        const std::string sNext = m_Folder / "next";
        while (!bEnd) {
            for (const std::string& sSource : {sFifo, sFile}) {
                EXPECT_EQ(::link(sSource.c_str(), sNext.c_str()), 0);
                EXPECT_EQ(::rename(sNext.c_str(), sPath.c_str()), 0);
            }
        }
    });
    int nOpened = 0;
    int nRefused = 0;
    for (int iTry = 0; iTry < 200000 && (iTry < 2000 || nOpened == 0 || nRefused == 0); ++iTry) {
        const CDescriptor file = iTry % 2 == 0 ? Open("f", O_RDWR) : Create("f");
        ++(file.IsOpen() ? nOpened : nRefused);
        if (file.IsOpen()) {
            struct stat status {};
            EXPECT_TRUE(::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode));
        }
    }
    bEnd = true;
    swapper.join();
    EXPECT_GT(nOpened, 0);
    EXPECT_GT(nRefused, 0);
    char vcEvents[4096];
    EXPECT_EQ(::read(watch.Get(), vcEvents, sizeof(vcEvents)), -1) << "the FIFO was opened";
}

}  // namespace
