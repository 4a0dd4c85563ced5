// What an entry's folder is, and what is done to the entry there.
#include "FolderEntry.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "LeakGuard.h"
#include "TempFolder.h"

namespace {

class FolderEntryTest : public testing::Test {
protected:
    FolderEntryTest() {
        std::filesystem::create_directory(m_Folder / "dir");
        std::filesystem::create_directory(m_Folder / "other");
        WriteWholeFile(m_Folder / "other/file", "other");
    }
    CFolderEntry Entry(const std::string& sName) const { return CFolderEntry::InItsFolder(m_Folder / sName); }
    /// Puts a link to "other" in the place of "dir", which goes on as "moved".
    void Replace() const {
        std::filesystem::rename(m_Folder / "dir", m_Folder / "moved");
        std::filesystem::create_symlink("other", m_Folder / "dir");
    }
    bool Exists(const std::string& sName) const {
        struct stat status {};
        return ::lstat((m_Folder / sName).c_str(), &status) == 0;
    }

    LeakGuard m_Leaks;
    TempFolder m_Folder;
};

TEST_F(FolderEntryTest, FolderStaysTheSameWhateverBecomesOfItsPath) {
    WriteWholeFile(m_Folder / "dir/file", "mine");
    const CFolderEntry file = Entry("dir/file");
    const CFolderEntry target = Entry("dir/renamed");
    const CFolderEntry made = Entry("dir/made");
    const CFolderEntry folder = Entry("dir/folder/");
    Replace();
    struct stat status {};
    ASSERT_TRUE(file.Look(&status));
    EXPECT_EQ(status.st_size, 4);
    EXPECT_EQ(file.RenameTo(target), 0);
    EXPECT_EQ(ReadWholeFile(m_Folder / "moved/renamed"), "mine");
    EXPECT_EQ(target.Remove(), 0);
    EXPECT_FALSE(target.Exists());
    const CDescriptor opened(made.Open(O_RDWR | O_CREAT | O_EXCL, 0600));
    EXPECT_TRUE(opened.IsOpen() && Exists("moved/made"));
    EXPECT_EQ(folder.MakeFolder(0700), 0);
    EXPECT_TRUE(Exists("moved/folder"));
    EXPECT_EQ(folder.RemoveFolder(), 0);
    EXPECT_EQ(ReadWholeFile(m_Folder / "other/file"), "other");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_Folder / "other"), {}), 1);
}

TEST_F(FolderEntryTest, NothingIsDoneThroughALinkOnTheWay) {
    Replace();
    const CFolderEntry file = Entry("dir/file");
    EXPECT_EQ(file.GetError(), ELOOP);
    struct stat status {};
    EXPECT_FALSE(file.Look(&status));
    EXPECT_EQ(file.Open(O_RDONLY), -1);
    EXPECT_EQ(file.Remove(), -1);
    EXPECT_EQ(file.RemoveFolder(), -1);
    EXPECT_EQ(Entry("dir/new").MakeFolder(0700), -1);
    EXPECT_EQ(file.RenameTo(Entry("stolen")), -1);
    EXPECT_EQ(Entry("other/file").RenameTo(file), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(ReadWholeFile(m_Folder / "other/file"), "other");
}

TEST_F(FolderEntryTest, LinkInTheLastPlaceIsNotFollowed) {
    std::filesystem::create_symlink("../other/file", m_Folder / "dir/link");
    std::filesystem::create_symlink("../other", m_Folder / "dir/way");
    struct stat status {};
    EXPECT_TRUE(Entry("dir/link").Look(&status) && S_ISLNK(status.st_mode));
    EXPECT_FALSE(Entry("dir/way/").Look(&status)) << "with a slash behind it, it is a folder or nothing";
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(Entry("dir/link").Open(O_RDWR), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(Entry("dir/way/").RemoveFolder(), -1);
    EXPECT_EQ(Entry("dir/way/").MakeFolder(0700), -1);
    EXPECT_EQ(Entry("dir/link").Remove(), 0);
    EXPECT_EQ(ReadWholeFile(m_Folder / "other/file"), "other");
}

TEST_F(FolderEntryTest, MissingFolderFailsEachOperation) {
    EXPECT_EQ(Entry("none/file").GetError(), ENOENT);
    EXPECT_EQ(Entry("other/file/below").GetError(), ENOTDIR);
    EXPECT_EQ(Entry("none/file").Remove(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(CFolderEntry::InItsFolder("").GetError(), 0);
    EXPECT_EQ(CFolderEntry::InItsFolder("/").RemoveFolder(), -1);
}

TEST_F(FolderEntryTest, FolderIsRemovedAsAFileIs) {
    EXPECT_EQ(Entry("other").Remove(), -1) << "it is not empty";
    EXPECT_EQ(Entry("dir").Remove(), 0);
    EXPECT_FALSE(Exists("dir"));
}

TEST_F(FolderEntryTest, ByItsPathAloneAnEntryIsWhereverThePathLeads) {
    Replace();
    const CFolderEntry entry((m_Folder / "dir/file").c_str());
    EXPECT_TRUE(entry.Exists());
    EXPECT_FALSE(entry.IsInItsFolder());
    EXPECT_EQ(entry.Remove(), 0);
    EXPECT_FALSE(Exists("other/file"));
}

}  // namespace
