// The figures of file systems.
#include "Utilities.h"

#include <climits>

#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include "MaxFileSize.h"

namespace {

TEST(UtilitiesFileSystemTest, FiguresAreThoseOfTheFileSystem) {
    struct statvfs figures {};
    ASSERT_EQ(::statvfs("/proc", &figures), 0);  // its figures do not change between two calls
    EXPECT_EQ(CUtilities::GetTotalDiskSpace("/proc"), figures.f_frsize * figures.f_blocks);
    EXPECT_EQ(CUtilities::GetFileSystemID("/proc"), figures.f_fsid);
    ASSERT_EQ(::statvfs("/", &figures), 0);
    EXPECT_EQ(CUtilities::GetTotalDiskSpace("/"), figures.f_frsize * figures.f_blocks);
    EXPECT_EQ(CUtilities::GetTotalFileSlots("/"), figures.f_files);
    EXPECT_EQ(CUtilities::GetFileSystemID("/"), figures.f_fsid);
    EXPECT_GT(CUtilities::GetTotalDiskSpace("/"), 0U);
    EXPECT_LE(CUtilities::GetFreeDiskSpace("/"), CUtilities::GetTotalDiskSpace("/"));
    EXPECT_LE(CUtilities::GetFreeDiskSpaceAvailableToCaller("/"), CUtilities::GetTotalDiskSpace("/"));
    EXPECT_LE(CUtilities::GetFreeFileSlots("/"), CUtilities::GetTotalFileSlots("/"));
    EXPECT_LE(CUtilities::GetFreeFileSlotsAvailableToCaller("/"), CUtilities::GetTotalFileSlots("/"));
}

TEST(UtilitiesFileSystemTest, FiguresThatCannotBeHadAreAllOnes) {
    const char* pcNone = "/no/such/folder";
    EXPECT_EQ(CUtilities::GetTotalDiskSpace(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetFreeDiskSpace(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetFreeDiskSpaceAvailableToCaller(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetTotalFileSlots(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetFreeFileSlots(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetFreeFileSlotsAvailableToCaller(pcNone), ULLONG_MAX);
    EXPECT_EQ(CUtilities::GetFileSystemID(pcNone), 4U);
}

TEST(UtilitiesFileSystemTest, MaxFileSizeIsTwoTebibytesOnCommonFileSystemsAndInDoubt) {
    EXPECT_EQ(CUtilities::GetMaxFileSize("/"), 1ULL << 41);
    EXPECT_EQ(CUtilities::GetMaxFileSize("/no/such/folder"), 1ULL << 41);
}

TEST(UtilitiesFileSystemTest, MaxFileSizeGoesByTheTypeOfTheFileSystem) {
    EXPECT_EQ(GetMaxFileSizeOfType(0x52654973), 1ULL << 43) << "ReiserFS";
    EXPECT_EQ(GetMaxFileSizeOfType(0x4D44), 1ULL << 32) << "FAT";
    EXPECT_EQ(GetMaxFileSizeOfType(0xEF53), 1ULL << 41) << "ext2 to ext4";
    EXPECT_EQ(GetMaxFileSizeOfType(0), 1ULL << 41) << "unknown";
}

}  // namespace
