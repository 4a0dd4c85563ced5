// Mode and group of local sockets.
#include "IpcSocketAccess.h"

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcListener.h"
#include "IpcSocket.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "ServerOptions.h"
#include "TempFolder.h"

namespace {

class IpcSocketAccessTest : public testing::Test {
protected:
    /// What the options of a mode and a group make of it; the reason is left in m_vcReason.
    bool Set(const std::string& sMode, const std::string& sGroup) {
        ServerOptions options;
        options.sSocketMode = sMode;
        options.sSocketGroup = sGroup;
        m_vcReason[0] = '\0';
        m_Access = {};
        return m_Access.Set(options, m_vcReason);
    }
    struct stat Status() const {
        struct stat status {};
        EXPECT_EQ(::lstat(m_sPath.c_str(), &status), 0);
        return status;
    }

    LeakGuard m_Leaks;
    TempFolder m_Folder;
    const std::string m_sPath = m_Folder / "socket";
    IpcSocketAccess m_Access;
    char m_vcReason[kReasonBufferSize] = "";
};

// ---- Texts

TEST_F(IpcSocketAccessTest, EverybodyMayConnectUnlessAskedOtherwise) {
    EXPECT_TRUE(Set("", ""));
    EXPECT_EQ(m_Access.iMode, 0777U);
    EXPECT_EQ(m_Access.iGroup, IpcSocketAccess::kOwnGroup);
}

TEST_F(IpcSocketAccessTest, ModesAreOctal) {
    const std::pair<const char*, mode_t> vModes[] = {{"0660", 0660}, {"660", 0660},   {"0", 0},
                                                     {"0777", 0777}, {"00600", 0600}, {"7", 7}};
    for (const auto& [pcText, iMode] : vModes) {
        EXPECT_TRUE(Set(pcText, "")) << pcText << ": " << m_vcReason;
        EXPECT_EQ(m_Access.iMode, iMode) << pcText;
    }
    for (const char* pcWrong : {"8", "0o660", "0x1ff", "u=rw", "1777", "01000", "-1", "+7", " 660", "660 ", "6 60",
                                "7777777777777777777777777777"}) {
        EXPECT_FALSE(Set(pcWrong, "")) << pcWrong;
        EXPECT_EQ(m_vcReason, "Socket mode \"" + std::string(pcWrong) + "\" is no octal number up to 0777");
    }
}

TEST_F(IpcSocketAccessTest, GroupsAreNamedOrNumbered) {
    EXPECT_TRUE(Set("", "root")) << m_vcReason;
    EXPECT_EQ(m_Access.iGroup, 0U);
    EXPECT_TRUE(Set("", "4242")) << m_vcReason;
    EXPECT_EQ(m_Access.iGroup, 4242U);
    for (const char* pcWrong : {"no such group", "-1", "4294967295", "99999999999999999999", "12a", " "}) {
        EXPECT_FALSE(Set("", pcWrong)) << pcWrong;
        EXPECT_EQ(m_vcReason, "Socket group \"" + std::string(pcWrong) + "\" does not exist");
    }
}

// ---- Files

TEST_F(IpcSocketAccessTest, SocketFileHasModeAndGroupWhateverTheUmask) {
    const mode_t iUmask = ::umask(077);
    for (const mode_t iMode : {0777U, 0660U, 0600U, 0622U}) {
        CIpcListener listener;
        m_Access.iMode = iMode;
        m_Access.iGroup = ::getegid();
        EXPECT_TRUE(listener.Open(m_sPath.c_str(), m_vcReason, m_Access)) << m_vcReason;
        EXPECT_EQ(Status().st_mode, S_IFSOCK | iMode);
        EXPECT_EQ(Status().st_gid, ::getegid());
    }
    ::umask(0);
    CIpcListener listener;
    m_Access.iMode = 0640;
    EXPECT_TRUE(listener.Open(m_sPath.c_str(), m_vcReason, m_Access)) << m_vcReason;
    EXPECT_EQ(Status().st_mode, S_IFSOCK | 0640U);
    ::umask(iUmask);
}

TEST_F(IpcSocketAccessTest, SocketFileGetsTheGroupAskedFor) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give a file to a group";
    }
    ASSERT_TRUE(Set("0660", "tty")) << m_vcReason;
    CIpcListener listener;
    if (!listener.Open(m_sPath.c_str(), m_vcReason, m_Access)) {
        GTEST_SKIP() << "needs a user namespace with more than one group: " << m_vcReason;
    }
    EXPECT_EQ(Status().st_gid, m_Access.iGroup);
    EXPECT_NE(Status().st_gid, 0U);
    EXPECT_EQ(Status().st_uid, ::geteuid());
    EXPECT_EQ(Status().st_mode, S_IFSOCK | 0660U);
}

/// Runs a step as a user without rights, in a child. Its answer; nothing where there is no such user to be had.
template <typename Step>
std::optional<int> AsOrdinaryUser(const Step& step) {
    constexpr int kNoUser = 99;
    const pid_t iChild = ::fork();
    if (iChild == 0) {
        const bool bDropped = ::setgid(65534) == 0 && ::setuid(65534) == 0;
        ::_exit(bDropped ? step() : kNoUser);
    }
    int iStatus = 0;
    EXPECT_EQ(::waitpid(iChild, &iStatus, 0), iChild);
    return WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == kNoUser ? std::nullopt : std::optional(iStatus);
}

TEST_F(IpcSocketAccessTest, AGroupThatMayNotBeGivenIsRefusedAndLeavesNoFile) {
    ASSERT_EQ(::chmod(m_Folder.Path().c_str(), 0777), 0);
    const std::optional<int> iStatus = AsOrdinaryUser([this] {
        m_Access.iGroup = 0;
        CIpcListener listener;
        const bool bOpened = listener.Open(m_sPath.c_str(), m_vcReason, m_Access);
        const bool bReason =
            std::string(m_vcReason) == "Fail to give ipc server socket to group 0. Operation not permitted (1)";
        return !bOpened && bReason && ::access(m_sPath.c_str(), F_OK) != 0 ? 0 : 1;
    });
    if (!iStatus) {
        GTEST_SKIP() << "needs a second user to change to";
    }
    EXPECT_EQ(*iStatus, 0);
}

TEST_F(IpcSocketAccessTest, NobodyConnectsWhoMayNotAtNoMoment) {
    ASSERT_EQ(::chmod(m_Folder.Path().c_str(), 0777), 0);
    constexpr int kRounds = 300;
    const std::string sOver = m_Folder / "over";
    m_Access.iMode = 0600;
    std::atomic<int> nOpened{0};
    std::thread opener([&] {
        for (int i = 0; i < kRounds; ++i) {
            CIpcListener listener;
            nOpened += listener.Open(m_sPath.c_str(), nullptr, m_Access) ? 1 : 0;
        }
        WriteWholeFile(sOver, "");
    });
    const std::optional<int> iStatus = AsOrdinaryUser([&] {
        while (::access(sOver.c_str(), F_OK) != 0) {
            CIpcSocket socket;
            if (socket.Create() == 0 && socket.TryConnect(m_sPath.c_str()) == 0) {
                return 1;
            }
        }
        return 0;
    });
    opener.join();
    EXPECT_EQ(nOpened, kRounds);
    if (!iStatus) {
        GTEST_SKIP() << "needs a second user to change to";
    }
    EXPECT_EQ(*iStatus, 0);
}

}  // namespace
