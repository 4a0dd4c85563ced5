// Ownership of descriptors and what becomes of the standard numbers.
#include "Descriptor.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LeakGuard.h"

namespace {

bool IsOpen(int iDescriptor) {
    return ::fcntl(iDescriptor, F_GETFD) != -1;
}

/// Frees descriptor 0 for the scope.
class WithoutStandardInput {
public:
    WithoutStandardInput() : m_Saved(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100)) { ::close(STDIN_FILENO); }
    ~WithoutStandardInput() { ::dup2(m_Saved.Get(), STDIN_FILENO); }
    WithoutStandardInput(const WithoutStandardInput&) = delete;
    WithoutStandardInput& operator=(const WithoutStandardInput&) = delete;

private:
    CDescriptor m_Saved;
};

}  // namespace

TEST(Descriptor, IsClosedWithItsOwner) {
    const LeakGuard leaks;
    int iDescriptor = -1;
    {
        const CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
        ASSERT_TRUE(descriptor.IsOpen());
        iDescriptor = descriptor.Get();
        EXPECT_TRUE(::fcntl(iDescriptor, F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_FALSE(IsOpen(iDescriptor));
}

TEST(Descriptor, MovesLeaveOneOwner) {
    const LeakGuard leaks;
    CDescriptor first = CDescriptor::OpenSocket(SOCK_DGRAM);
    const int iFirst = first.Get();
    CDescriptor second = CDescriptor::OpenSocket(SOCK_DGRAM);
    const int iSecond = second.Get();
    second = std::move(first);
    EXPECT_EQ(second.Get(), iFirst);
    EXPECT_FALSE(IsOpen(iSecond));
    const CDescriptor third(std::move(second));
    EXPECT_EQ(third.Get(), iFirst);
}

TEST(Descriptor, ReleaseGivesTheDescriptorUp) {
    CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
    const int iDescriptor = descriptor.Release();
    EXPECT_FALSE(descriptor.IsOpen());
    descriptor.Close();
    EXPECT_TRUE(IsOpen(iDescriptor));
    ::close(iDescriptor);
}

TEST(Descriptor, SocketsNeverTakeAStandardNumber) {
    const LeakGuard leaks;
    const WithoutStandardInput closed;
    const CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
    EXPECT_GE(descriptor.Get(), 3);
    EXPECT_FALSE(IsOpen(STDIN_FILENO));
    EXPECT_TRUE(::fcntl(descriptor.Get(), F_GETFD) & FD_CLOEXEC);
}

TEST(Descriptor, AFailureToOpenTellsTheSystemsError) {
    errno = 0;
    const CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_SEQPACKET);
    EXPECT_FALSE(descriptor.IsOpen());
    EXPECT_NE(errno, 0);
}

TEST(Descriptor, BindingPortZeroTellsThePortChosen) {
    const CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
    int iPort = 0;
    ASSERT_TRUE(descriptor.BindToPort(&iPort));
    EXPECT_GT(iPort, 0);
}

TEST(Descriptor, ThereIsNoPortBeyondSixteenBits) {
    const CDescriptor descriptor = CDescriptor::OpenSocket(SOCK_STREAM);
    for (const int iWrong : {65536, 70000, -1}) {
        int iPort = iWrong;
        EXPECT_FALSE(descriptor.BindToPort(&iPort)) << iWrong;
        EXPECT_EQ(errno, EINVAL) << iWrong;
    }
}
