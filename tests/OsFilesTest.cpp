// The wrappers of system calls: results, log lines, error texts.
#include "OsFiles.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SoftLimit.h"
#include "UtilitiesFixture.h"

namespace {

class OsFilesTest : public UtilitiesFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override { m_Param.SetLogControl(CRuntimeParam::kLogError | CRuntimeParam::kLogFileAccess); }

    int OpenFile(const std::string& sPath, int iFlags = O_RDWR) {
        const int iFile = m_Utilities.OS_FileOpen(&m_Param, &m_Tag, sPath.c_str(), iFlags, false, m_vcReason);
        m_Log.Clear();
        return iFile;
    }
    void Close(int iFile) { m_Utilities.OS_FileClose(&m_Param, &m_Tag, iFile, "", nullptr); }
    static unsigned int ModeOf(const std::string& sPath) {
        struct stat attributes {};
        EXPECT_EQ(::stat(sPath.c_str(), &attributes), 0) << sPath;
        return attributes.st_mode & 07777U;
    }
    /// One failure: the line, and the error text in the reason buffer.
    void ExpectFailure(const std::string& sLine, const std::string& sError) {
        EXPECT_EQ(TakeLog('e'), Lines{"[Test] " + sLine + ". Error=" + sError});
        EXPECT_EQ(m_vcReason, sError);
        m_vcReason[0] = '\0';
    }
};

constexpr const char* kNone = "/no/such/file";
constexpr const char* kNoEntry = "No such file or directory (2)";

TEST_F(OsFilesTest, CreateMakesAFileAndKeepsAnExistingOnesContent) {
    const mode_t iMask = ::umask(022);
    const std::string sFile = m_Folder / "f";
    const int iFile = m_Utilities.OS_FileCreate(&m_Param, &m_Tag, sFile.c_str(), nullptr);
    ::umask(iMask);
    ASSERT_NE(iFile, -1);
    EXPECT_EQ(TakeLog(), Lines{"[Test] OS create file \"" + sFile + "\""});
    EXPECT_EQ(ModeOf(sFile), 0644U) << "0666 less the mask";
    EXPECT_EQ(::fcntl(iFile, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(m_Utilities.OS_FileWrite(&m_Param, &m_Tag, iFile, "abc", 3, nullptr), 3);
    Close(iFile);
    const int iAgain = m_Utilities.OS_FileCreate(&m_Param, &m_Tag, sFile.c_str(), nullptr);
    Close(iAgain);
    EXPECT_EQ(ReadWholeFile(sFile), "abc");
}

TEST_F(OsFilesTest, FailuresOfCallsByPathAreLoggedAndExplained) {
    const std::string sQuoted = " \"" + std::string(kNone) + "\"";
    EXPECT_EQ(m_Utilities.OS_FileCreate(&m_Param, &m_Tag, kNone, m_vcReason), -1);
    ExpectFailure("OS create file" + sQuoted, kNoEntry);
    EXPECT_EQ(m_Utilities.OS_FileRemove(&m_Param, &m_Tag, kNone, m_vcReason), -1);
    ExpectFailure("OS remove file" + sQuoted, kNoEntry);
    EXPECT_EQ(m_Utilities.OS_FileRename(&m_Param, &m_Tag, kNone, "/to", m_vcReason), -1);
    ExpectFailure("OS rename file from" + sQuoted + " to \"/to\"", kNoEntry);
    EXPECT_EQ(m_Utilities.OS_FileOpen(&m_Param, &m_Tag, kNone, O_RDONLY, true, m_vcReason), -1);
    ExpectFailure("OS open file" + sQuoted, kNoEntry);
    EXPECT_EQ(m_Utilities.OS_FolderCreate(&m_Param, &m_Tag, kNone, 0755, m_vcReason), -1);
    ExpectFailure("OS create folder" + sQuoted + " (mode = 493)", kNoEntry);
    EXPECT_EQ(m_Utilities.OS_FolderRemove(&m_Param, &m_Tag, kNone, m_vcReason), -1);
    ExpectFailure("OS remove folder" + sQuoted, kNoEntry);
    EXPECT_EQ(m_Utilities.OS_SetFileMode(&m_Param, &m_Tag, kNone, 0600, m_vcReason), -1);
    ExpectFailure("OS set file mode" + sQuoted + " (mode = 384)", kNoEntry);
    EXPECT_FALSE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, kNone, 5, m_vcReason));
    ExpectFailure("OS set file file" + sQuoted, kNoEntry);
    struct stat attributes {};
    EXPECT_EQ(m_Utilities.OS_GetFileStat(&m_Param, &m_Tag, kNone, &attributes, m_vcReason), -1);
    ExpectFailure("OS get file stat" + sQuoted, kNoEntry);
}

TEST_F(OsFilesTest, FailuresWithoutReasonBufferAndErrorBitAreSilent) {
    m_Param.SetLogControl(0);
    EXPECT_EQ(m_Utilities.OS_FileCreate(&m_Param, &m_Tag, kNone, nullptr), -1);
    EXPECT_EQ(m_Utilities.OS_FileRead(&m_Param, &m_Tag, -1, nullptr, 0, nullptr), -1);
    EXPECT_FALSE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, kNone, 5, nullptr));
    EXPECT_FALSE(m_Utilities.OS_IsFileExists(kNone, nullptr));
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(OsFilesTest, SuccessesAreLogged) {
    const std::string sFile = MakeFile("f", "abc");
    const std::string sTo = m_Folder / "g";
    const std::string sFolder = m_Folder / "d";
    struct stat attributes {};
    EXPECT_EQ(m_Utilities.OS_GetFileStat(&m_Param, &m_Tag, sFile.c_str(), &attributes, nullptr), 0);
    EXPECT_EQ(attributes.st_size, 3);
    EXPECT_EQ(m_Utilities.OS_SetFileMode(&m_Param, &m_Tag, sFile.c_str(), 0640, nullptr), 0);
    EXPECT_EQ(ModeOf(sFile), 0640U);
    EXPECT_EQ(m_Utilities.OS_FileRename(&m_Param, &m_Tag, sFile.c_str(), sTo.c_str(), nullptr), 0);
    EXPECT_EQ(m_Utilities.OS_FileRemove(&m_Param, &m_Tag, sTo.c_str(), nullptr), 0);
    EXPECT_EQ(m_Utilities.OS_FolderCreate(&m_Param, &m_Tag, sFolder.c_str(), 0700, nullptr), 0);
    EXPECT_EQ(ModeOf(sFolder), 0700U);
    EXPECT_EQ(m_Utilities.OS_FolderRemove(&m_Param, &m_Tag, sFolder.c_str(), nullptr), 0);
    EXPECT_EQ(TakeLog('i'), (Lines{
                                "[Test] OS get file stat \"" + sFile + "\"",
                                "[Test] OS set file mode \"" + sFile + "\" (mode = 416)",
                                "[Test] OS rename file from \"" + sFile + "\" to \"" + sTo + "\"",
                                "[Test] OS remove file \"" + sTo + "\"",
                                "[Test] OS create folder \"" + sFolder + "\" (mode = 448)",
                                "[Test] OS remove folder \"" + sFolder + "\"",
                            }));
}

TEST_F(OsFilesTest, StatDoesNotFollowLinks) {
    ASSERT_EQ(::symlink("nowhere", (m_Folder / "link").c_str()), 0);
    struct stat attributes {};
    EXPECT_EQ(m_Utilities.OS_GetFileStat(&m_Param, &m_Tag, (m_Folder / "link").c_str(), &attributes, nullptr), 0);
    EXPECT_TRUE(S_ISLNK(attributes.st_mode));
    EXPECT_FALSE(m_Utilities.OS_IsFileExists((m_Folder / "link").c_str(), nullptr)) << "existence does";
}

TEST_F(OsFilesTest, ExistenceIsSilentAndExplainsItsErrorNumber) {
    EXPECT_TRUE(m_Utilities.OS_IsFileExists(m_Folder.Path().c_str(), m_vcReason));
    EXPECT_STREQ(m_vcReason, "");
    EXPECT_FALSE(m_Utilities.OS_IsFileExists(kNone, m_vcReason));
    EXPECT_STREQ(m_vcReason, "ErrCode=2");
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(OsFilesTest, DescriptorOfMinusOneIsRefusedWithoutASystemCall) {
    const char* pcError = "Bad file descriptor";
    char vcBuffer[4];
    errno = 0;
    EXPECT_EQ(m_Utilities.OS_FileRead(&m_Param, &m_Tag, -1, vcBuffer, 4, m_vcReason), -1);
    ExpectFailure("OS read file (-1)", pcError);
    EXPECT_EQ(m_Utilities.OS_FileWrite(&m_Param, &m_Tag, -1, vcBuffer, 4, m_vcReason), -1);
    ExpectFailure("OS write file (-1)", pcError);
    EXPECT_EQ(m_Utilities.OS_FileSeek(&m_Param, &m_Tag, -1, 0, SEEK_SET, m_vcReason), -1);
    ExpectFailure("OS seek file (-1)", pcError);
    EXPECT_EQ(m_Utilities.OS_FileTell(&m_Param, &m_Tag, -1, m_vcReason), -1);
    ExpectFailure("OS tell file (-1)", pcError);
    EXPECT_EQ(m_Utilities.OS_FileClose(&m_Param, &m_Tag, -1, "/x", m_vcReason), -1);
    ExpectFailure("OS close file \"/x\"", pcError);
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, CCachedFile(), 0, vcBuffer, 4, m_vcReason), -1);
    ExpectFailure("OS seek file (-1)", pcError);
    EXPECT_EQ(m_Utilities.OS_FileWriteAt(&m_Param, &m_Tag, CCachedFile(), 0, vcBuffer, 4, m_vcReason), -1);
    ExpectFailure("OS seek file (-1)", pcError);
    EXPECT_EQ(errno, 0) << "a system call would have set it";
}

TEST_F(OsFilesTest, ClosedDescriptorIsExplainedByTheSystem) {
    constexpr int kClosed = 987;
    EXPECT_EQ(m_Utilities.OS_FileTell(&m_Param, &m_Tag, kClosed, m_vcReason), -1);
    ExpectFailure("OS tell file (987)", "Bad file descriptor (9)");
    EXPECT_EQ(m_Utilities.OS_FileClose(&m_Param, &m_Tag, kClosed, "/x", m_vcReason), -1);
    ExpectFailure("OS close file \"/x\"", "Bad file descriptor (9)");
}

TEST_F(OsFilesTest, FileIsReadAndWrittenWhereItWasSought) {
    const int iFile = OpenFile(MakeFile("f", "0123456789"));
    const std::string sNumber = "(" + std::to_string(iFile) + ")";
    char vcBuffer[16] = "";
    EXPECT_EQ(m_Utilities.OS_FileSeek(&m_Param, &m_Tag, iFile, 4, SEEK_SET, nullptr), 4);
    EXPECT_EQ(m_Utilities.OS_FileRead(&m_Param, &m_Tag, iFile, vcBuffer, 3, nullptr), 3);
    EXPECT_STREQ(vcBuffer, "456");
    EXPECT_EQ(m_Utilities.OS_FileTell(&m_Param, &m_Tag, iFile, nullptr), 7);
    EXPECT_EQ(m_Utilities.OS_FileWrite(&m_Param, &m_Tag, iFile, "xy", 2, nullptr), 2);
    EXPECT_EQ(m_Utilities.OS_FileSeek(&m_Param, &m_Tag, iFile, -1, SEEK_END, nullptr), 9);
    EXPECT_EQ(m_Utilities.OS_FileClose(&m_Param, &m_Tag, iFile, "/name", nullptr), 0);
    EXPECT_EQ(TakeLog('i'), (Lines{"[Test] OS seek file " + sNumber, "[Test] OS read file " + sNumber,
                                   "[Test] OS tell file " + sNumber, "[Test] OS write file " + sNumber,
                                   "[Test] OS seek file " + sNumber, "[Test] OS close file \"/name\""}));
    EXPECT_EQ(ReadWholeFile(m_Folder / "f"), "0123456xy9");
}

TEST_F(OsFilesTest, SeekToANegativeOffsetFails) {
    const int iFile = OpenFile(MakeFile("f", "0123456789"));
    EXPECT_EQ(m_Utilities.OS_FileSeek(&m_Param, &m_Tag, iFile, -1, SEEK_SET, m_vcReason), -1);
    ExpectFailure("OS seek file (" + std::to_string(iFile) + ")", "Invalid argument (22)");
    Close(iFile);
}

TEST_F(OsFilesTest, TransferAtAnOffsetLogsSeekAndTransfer) {
    const CCachedFile file(OpenFile(MakeFile("f", "0123456789")));
    const std::string sNumber = "(" + std::to_string(file.Get()) + ")";
    char vcBuffer[16] = "";
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, file, 8, vcBuffer, 16, nullptr), 2);
    EXPECT_STREQ(vcBuffer, "89");
    EXPECT_EQ(m_Utilities.OS_FileWriteAt(&m_Param, &m_Tag, file, 12, "x", 1, nullptr), 1);
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, file, 50, vcBuffer, 16, nullptr), 0);
    EXPECT_EQ(TakeLog(), (Lines{"[Test] OS seek file " + sNumber, "[Test] OS read file " + sNumber,
                                "[Test] OS seek file " + sNumber, "[Test] OS write file " + sNumber,
                                "[Test] OS seek file " + sNumber, "[Test] OS read file " + sNumber}));
    EXPECT_EQ(ReadWholeFile(m_Folder / "f"), std::string("0123456789\0\0x", 13));
}

TEST_F(OsFilesTest, FailedTransferAtAnOffsetNamesTheStepThatFailed) {
    const CCachedFile file(OpenFile(MakeFile("f", "0123456789"), O_RDONLY));
    const std::string sNumber = "(" + std::to_string(file.Get()) + ")";
    char vcBuffer[16] = "";
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, file, -2, vcBuffer, 16, m_vcReason), -1);
    ExpectFailure("OS seek file " + sNumber, "Invalid argument (22)");
    EXPECT_EQ(m_Utilities.OS_FileWriteAt(&m_Param, &m_Tag, file, -2, vcBuffer, 16, m_vcReason), -1);
    ExpectFailure("OS seek file " + sNumber, "Invalid argument (22)");
    m_Log.Clear();
    EXPECT_EQ(m_Utilities.OS_FileWriteAt(&m_Param, &m_Tag, file, 2, vcBuffer, 16, m_vcReason), -1);
    EXPECT_EQ(TakeLog(), (Lines{"[Test] OS seek file " + sNumber,
                                "[Test] OS write file " + sNumber + ". Error=Bad file descriptor (9)"}));
    const CCachedFile folder(OpenFile(m_Folder.Path(), O_RDONLY));
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, folder, 0, vcBuffer, 16, m_vcReason), -1);
    ExpectFailure("OS read file (" + std::to_string(folder.Get()) + ")", "Is a directory (21)");
}

// Some file systems read nothing there, but all the same refuse to seek.
TEST_F(OsFilesTest, OffsetThatTheFileSystemCannotAddressFailsAsASeek) {
    constexpr long long kFar = 1LL << 62;
    // This program's own file: it lies on disk, where the tests' folder may lie in memory and have no such limit.
    const CCachedFile file(OpenFile("/proc/self/exe", O_RDONLY));
    const bool bAddressed = ::lseek(file.Get(), kFar, SEEK_SET) == kFar;
    char vcBuffer[4];
    EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, file, kFar, vcBuffer, 4, m_vcReason), bAddressed ? 0 : -1);
    if (!bAddressed) {
        ExpectFailure("OS seek file (" + std::to_string(file.Get()) + ")", "Invalid argument (22)");
    }
}

// A pipe cannot be sought; nothing may be taken out of it, and nobody waits for its other end.
TEST_F(OsFilesTest, NamedPipeNeverBlocks) {
    const std::string sPipe = m_Folder / "pipe";
    ASSERT_EQ(::mkfifo(sPipe.c_str(), 0600), 0);
    for (const int iFlags : {O_RDONLY, O_RDWR}) {
        const CCachedFile file(OpenFile(sPipe, iFlags));
        ASSERT_TRUE(file.IsOpen());
        char vcBuffer[4];
        EXPECT_EQ(m_Utilities.OS_FileReadAt(&m_Param, &m_Tag, file, 0, vcBuffer, 4, m_vcReason), -1);
        ExpectFailure("OS seek file (" + std::to_string(file.Get()) + ")", "Illegal seek (29)");
        m_Utilities.OS_FileRead(&m_Param, &m_Tag, file.Get(), vcBuffer, 4, m_vcReason);
    }
}

TEST_F(OsFilesTest, SetSizeExtendsCutsAndCreates) {
    const std::string sFile = MakeFile("f", "0123456789");
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, sFile.c_str(), 4, m_vcReason));
    EXPECT_EQ(ReadWholeFile(sFile), "0123");
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, sFile.c_str(), 6, m_vcReason));
    EXPECT_EQ(ReadWholeFile(sFile), std::string("0123\0\0", 6));
    EXPECT_EQ(TakeLog(),
              (Lines{"[Test] OS set file file \"" + sFile + "\"", "[Test] OS set file file \"" + sFile + "\""}));
    const mode_t iMask = ::umask(022);
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, (m_Folder / "new").c_str(), 3, m_vcReason));
    ::umask(iMask);
    EXPECT_EQ(ReadWholeFile(m_Folder / "new"), std::string(3, '\0'));
    EXPECT_EQ(ModeOf(m_Folder / "new"), 0755U);
}

TEST_F(OsFilesTest, SetSizeToTheSameSizeDoesAndLogsNothing) {
    const std::string sFile = MakeFile("f", "0123");
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, sFile.c_str(), 4, m_vcReason));
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(OsFilesTest, SetSizeBeyondSignedRangeFailsAndKeepsTheFile) {
    const std::string sFile = MakeFile("f", "0123");
    EXPECT_FALSE(m_Utilities.OS_SetFileSize(&m_Param, &m_Tag, sFile.c_str(), 1ULL << 63, m_vcReason));
    ExpectFailure("OS set file file \"" + sFile + "\"", "Invalid argument (22)");
    EXPECT_EQ(ReadWholeFile(sFile), "0123");
}

TEST_F(OsFilesTest, ForceOpenCreatesMissingFoldersFromTheTop) {
    const std::string sA = m_Folder / "a";
    const std::string sFile = sA + "/b/c/f";
    const mode_t iMask = ::umask(022);
    const int iFile = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, sFile.c_str(), m_vcReason);
    ::umask(iMask);
    ASSERT_NE(iFile, -1) << m_vcReason;
    Close(iFile);
    EXPECT_EQ(ModeOf(sA + "/b"), 0755U);
    std::vector<std::string> vElements;
    CUtilities::SplitIntoVector(sFile.c_str(), '/', vElements);
    Lines vExpected = {"[Test] OS splited path \"" + sFile + "\" into " + std::to_string(vElements.size()) +
                       " elements"};
    for (std::size_t iSlash = sFile.find('/', 1); iSlash != std::string::npos; iSlash = sFile.find('/', iSlash + 1)) {
        const std::string sFolder = sFile.substr(0, iSlash);
        vExpected.push_back("[Test] Check folder \"" + sFolder + "\" exists");
        if (sFolder.starts_with(sA)) {
            vExpected.push_back("[Test] Create folder \"" + sFolder + "\"");
            vExpected.push_back("[Test] OS create folder \"" + sFolder + "\" (mode = 493)");
        }
    }
    vExpected.push_back("[Test] OS create file \"" + sFile + "\"");
    vExpected.emplace_back("[Test] OS close file \"\"");
    EXPECT_EQ(TakeLog(), vExpected);
}

TEST_F(OsFilesTest, ForceOpenAppendsToAnExistingFile) {
    const std::string sFile = MakeFile("f", "abc");
    const int iFile = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, sFile.c_str(), m_vcReason);
    EXPECT_TRUE(m_Log.Has("[Test] OS open file \"" + sFile + "\""));
    EXPECT_EQ(m_Utilities.OS_FileWrite(&m_Param, &m_Tag, iFile, "def", 3, nullptr), 3);
    Close(iFile);
    EXPECT_EQ(ReadWholeFile(sFile), "abcdef");
}

// The first element of a relative path stands unchecked; deeper folders are made.
TEST_F(OsFilesTest, ForceOpenTakesRelativePaths) {
    char vcBefore[kPathBufferSize];
    ASSERT_NE(::getcwd(vcBefore, sizeof(vcBefore)), nullptr);
    ASSERT_EQ(::chdir(m_Folder.Path().c_str()), 0);
    const int iPlain = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, "plain", m_vcReason);
    const int iMissing = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, "missing/f", m_vcReason);
    EXPECT_EQ(::mkdir("top", 0755), 0);
    const int iDeep = m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, "top/deep/f", m_vcReason);
    ASSERT_EQ(::chdir(vcBefore), 0);
    EXPECT_NE(iPlain, -1);
    EXPECT_EQ(iMissing, -1);
    EXPECT_NE(iDeep, -1);
    Close(iPlain);
    Close(iDeep);
    EXPECT_TRUE(m_Utilities.OS_IsFileExists((m_Folder / "top/deep/f").c_str(), nullptr));
}

TEST_F(OsFilesTest, ForceOpenReportsTheFolderThatCannotBeMade) {
    const std::string sFile = MakeFile("f", "");
    EXPECT_EQ(m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, (sFile + "/a/b").c_str(), m_vcReason), -1);
    ExpectFailure("OS create folder \"" + sFile + "/a\" (mode = 493)", "Not a directory (20)");
    EXPECT_EQ(m_Utilities.OS_FileForceOpen(&m_Param, &m_Tag, "", m_vcReason), -1);
}

TEST_F(OsFilesTest, ErrorTextIsTheSystemsWithItsNumber) {
    char vcText[kReasonBufferSize] = "";
    CUtilities::GetLastErrorText(vcText, ENOENT);
    EXPECT_STREQ(vcText, "No such file or directory (2)");
    CUtilities::GetLastErrorText(vcText, 99999);
    EXPECT_STREQ(vcText, "Unknown error 99999 (99999)");
    CUtilities::GetLastErrorText(nullptr, ENOENT);
}

TEST_F(OsFilesTest, ErrorsAreLoggedOnlyWithTheirBit) {
    m_Param.SetLogControl(0);
    m_Utilities.OS_FileRemove(&m_Param, &m_Tag, "/no/such/file", nullptr);
    EXPECT_EQ(TakeLog(), std::vector<std::string>());
    m_Param.SetLogControl(CRuntimeParam::kLogError);
    m_Utilities.OS_FileRemove(&m_Param, &m_Tag, "/no/such/file", nullptr);
    EXPECT_EQ(TakeLog('e'),
              std::vector<std::string>{"[Test] OS remove file \"/no/such/file\". Error=No such file or directory (2)"});
}

/// One who works with files alone has nothing to free: the open is not tried again, and nobody speaks of a cache.
TEST_F(OsFilesTest, WithoutACacheRunningOutOfDescriptorsFailsAtOnce) {
    class Captured : public COsFiles {
    public:
        void LogError(CRuntimeParam* /*pRuntimeParam*/, const char* pcMessage) override {
            m_vLines.emplace_back(pcMessage);
        }
        void LogInfo(CRuntimeParam* /*pRuntimeParam*/, const char* pcMessage) override {
            m_vLines.emplace_back(pcMessage);
        }
        Lines m_vLines;
    } files;
    const std::string sFile = m_Folder / "f";
    const int iFile =
        WithoutDescriptors([&] { return files.OS_FileCreate(&m_Param, &m_Tag, sFile.c_str(), m_vcReason); });
    EXPECT_EQ(iFile, -1);
    EXPECT_EQ(files.m_vLines, Lines{"[Test] OS create file \"" + sFile + "\". Error=Too many open files (24)"});
}

}  // namespace
