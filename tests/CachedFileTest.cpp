// Shared descriptors: open as long as anybody uses them.
#include "CachedFile.h"

#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

int OpenNull() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool IsOpenDescriptor(int iFile) {
    return ::fcntl(iFile, F_GETFD) != -1;
}

TEST(CachedFileTest, EmptyOneReadsAsMinusOne) {
    const CCachedFile file;
    EXPECT_EQ(file.Get(), -1);
    EXPECT_EQ(static_cast<int>(file), -1);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(CCachedFile(-1).IsOpen());
}

TEST(CachedFileTest, LastShareClosesTheDescriptor) {
    const int iFile = OpenNull();
    {
        CCachedFile second;
        {
            const CCachedFile first(iFile);
            EXPECT_EQ(first.Get(), iFile);
            second = first;
        }
        EXPECT_TRUE(IsOpenDescriptor(iFile));
    }
    EXPECT_FALSE(IsOpenDescriptor(iFile));
}

TEST(CachedFileTest, LastShareCanBeGivenUpForClosing) {
    const int iFile = OpenNull();
    CCachedFile file(iFile);
    EXPECT_EQ(file.ReleaseIfLast(), iFile);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_TRUE(IsOpenDescriptor(iFile));
    EXPECT_EQ(::close(iFile), 0);
}

TEST(CachedFileTest, GivingUpASharedDescriptorLeavesItToTheOthers) {
    const int iFile = OpenNull();
    CCachedFile file(iFile);
    {
        const CCachedFile user = file;
        EXPECT_EQ(file.ReleaseIfLast(), -1);
        EXPECT_EQ(user.Get(), iFile);
        EXPECT_TRUE(IsOpenDescriptor(iFile));
    }
    EXPECT_FALSE(IsOpenDescriptor(iFile));
}

TEST(CachedFileTest, GivingUpAnEmptyOneGivesNothing) {
    CCachedFile file;
    EXPECT_EQ(file.ReleaseIfLast(), -1);
}

TEST(CachedFileTest, PositionIsTakenOnce) {
    const CCachedFile file(OpenNull());
    EXPECT_EQ(file.TakePosition(), -1);
    file.LeavePosition(4096);
    const CCachedFile copy = file;
    EXPECT_EQ(copy.TakePosition(), 4096);
    EXPECT_EQ(file.TakePosition(), -1);
}

// Whoever is last closes, exactly once, while others take and drop shares.
TEST(CachedFileTest, SharesMayBeDroppedByManyThreads) {
    for (int iRound = 0; iRound < 50; ++iRound) {
        const int iFile = OpenNull();
        ASSERT_NE(iFile, -1);
        CCachedFile file(iFile);
        std::vector<std::thread> vUsers;
        for (int iUser = 0; iUser < 4; ++iUser) {
            vUsers.emplace_back([user = file] { EXPECT_NE(::fcntl(user.Get(), F_GETFD), -1); });
        }
        const int iLast = file.ReleaseIfLast();
        if (iLast != -1) {
            EXPECT_EQ(::close(iLast), 0);
        }
        for (std::thread& user : vUsers) {
            user.join();
        }
        EXPECT_FALSE(IsOpenDescriptor(iFile));
    }
}

}  // namespace
