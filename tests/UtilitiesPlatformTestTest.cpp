// The platform test and the quick test: every line, in order.
#include "Utilities.h"

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "Isolation.h"
#include "LogCapture.h"
#include "SoftLimit.h"
#include "TempFolder.h"

namespace {

using Lines = std::vector<std::string>;

class PlatformTest : public testing::Test {
protected:
    /// Runs the test with no log bit set and returns its information lines.
    Lines Run(const std::string& sPath, long long iSize) {
        m_Log.Clear();
        m_Utilities.RunTestMode(&m_Param, sPath.c_str(), iSize);
        EXPECT_EQ(m_Log.Texts('e'), Lines{}) << "no error line without its bit";
        return m_Log.Texts('i');
    }

    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"tester", 0};
    TempFolder m_Folder;
};

/// The lines of one read-write chunk.
Lines ChunkLines(const std::string& sPosition, const std::string& sLength) {
    return {"[ OK ] File seek to position " + sPosition + ".", "[ OK ] Write data with length " + sLength + ".",
            "[ OK ] Move pointer to position " + sPosition + ".", "[ OK ] Read data with length " + sLength + ".",
            "[ OK ] Verify data with size " + sLength + "."};
}

void Append(Lines& vsLines, const Lines& vsMore) {
    vsLines.insert(vsLines.end(), vsMore.begin(), vsMore.end());
}

/// The lines of a good run behind the file system's figures, for a target folder and a file size.
Lines GoodFileSteps(const std::string& sTarget, long long iSize, const Lines& vsFirstChunk,
                    const Lines& vsSecondChunk) {
    const std::string sFolder = sTarget + "/_test";
    const std::string sFile = "\"" + sFolder + "/test.bak\"";
    const std::string sSecond = "\"" + sFolder + "/test.bak2\"";
    Lines vsLines{"",
                  "-------------------------------- FILE IO ---------------------------------",
                  "[ OK ] Create directory \"" + sFolder + "\".",
                  "[ OK ] Create file " + sFile + ".",
                  "[ OK ] Close file " + sFile + ".",
                  "[ OK ] Enlarge file " + sFile + " size to " + std::to_string(iSize + 1024) + ".",
                  "[ OK ] Verify file size.",
                  "[ OK ] Close file " + sFile + ".",
                  "[ OK ] Shrink file " + sFile + " size to " + std::to_string(iSize) + ".",
                  "[ OK ] Verify file size.",
                  "[ OK ] Close file " + sFile + ".",
                  "[ OK ] Open file " + sFile + "."};
    Append(vsLines, vsFirstChunk);
    Append(vsLines, vsSecondChunk);
    Append(vsLines,
           {"[ OK ] Get file stat from file " + sFile + ".", "[ OK ] Set file mode 8124 to file " + sFile + ".",
            "[ OK ] Get file mode from file " + sFile + ".", "[ OK ] Verify file mode 8124 from file " + sFile + ".",
            "[ OK ] Set file mode 81A4 to file " + sFile + ".", "[ OK ] Get file mode from file " + sFile + ".",
            "[ OK ] Verify file mode 81A4 from file " + sFile + ".", "[ OK ] Close file " + sFile + ".",
            "[ OK ] Rename file from " + sFile + " to " + sSecond + ".", "[ OK ] Remove file " + sSecond + ".",
            "[ OK ] Remove directory \"" + sFolder + "\".",
            "================================ END TEST ================================"});
    return vsLines;
}

/// Lines of the head and the figures: 5 and 9.
constexpr std::size_t kHeadLines = 4;
constexpr std::size_t kFigureLines = 9;

Lines From(const Lines& vsLines, std::size_t iFirst) {
    return {vsLines.begin() + static_cast<std::ptrdiff_t>(std::min(iFirst, vsLines.size())), vsLines.end()};
}

class UmaskGuard {
public:
    UmaskGuard() : m_iOld(::umask(022)) {}
    ~UmaskGuard() { ::umask(m_iOld); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t m_iOld;
};

}  // namespace

TEST_F(PlatformTest, GoodRunPrintsTheseLinesAndLeavesNothing) {
    const UmaskGuard umaskGuard;
    const Lines vsLines = Run(m_Folder.Path(), 5000);
    ASSERT_GT(vsLines.size(), kHeadLines + kFigureLines);
    const std::string sFolder = m_Folder.Path() + "/_test";
    EXPECT_EQ(Lines(vsLines.begin(), vsLines.begin() + kHeadLines),
              (Lines{"=============================== START TEST ===============================",
                     " >> Directory : \"" + sFolder + "\"", " >> File      : \"" + sFolder + "/test.bak\"", ""}));
    EXPECT_EQ(From(vsLines, kHeadLines + kFigureLines),
              GoodFileSteps(m_Folder.Path(), 5000, ChunkLines("0", "2047"), ChunkLines("2953", "2047")));
    EXPECT_NE(::access(sFolder.c_str(), F_OK), 0) << "the test directory is gone";
}

TEST_F(PlatformTest, FileSystemFiguresStandInForty) {
    const Lines vsLines = Run(m_Folder.Path(), 10);
    ASSERT_GT(vsLines.size(), kHeadLines + kFigureLines);
    const std::string sTime = "Current time (in milliseconds)          : ";
    EXPECT_EQ(vsLines[4], "------------------------ ATTRIBUTES of file system -----------------------");
    EXPECT_EQ(vsLines[5].substr(0, sTime.size()), sTime);
    const char* const vpcSizes[] = {"Maximum File Size", "Total Disk Space", "Free Disk Space",
                                    "Free Disk Space To Caller"};
    for (std::size_t i = 0; i < std::size(vpcSizes); ++i) {
        std::string sTitle = vpcSizes[i];
        sTitle.resize(40, ' ');
        EXPECT_EQ(vsLines[6 + i].substr(0, 42), sTitle + ": ");
        EXPECT_TRUE(vsLines[6 + i].ends_with("B")) << vsLines[6 + i];
    }
    const char* const vpcSlots[] = {"Total File Slots", "Free File Slots", "Free File Slots To Caller"};
    for (std::size_t i = 0; i < std::size(vpcSlots); ++i) {
        std::string sTitle = vpcSlots[i];
        sTitle.resize(40, ' ');
        const std::string& sLine = vsLines[10 + i];
        EXPECT_EQ(sLine.substr(0, 42), sTitle + ": ");
        const unsigned long long nDecimal = std::stoull(sLine.substr(42));
        const std::string sHex = sLine.substr(sLine.find('(') + 1);
        EXPECT_EQ(std::stoull(sHex, nullptr, 16), nDecimal) << sLine;
        EXPECT_EQ(sLine.find_first_of("abcdef", sLine.find('(')), std::string::npos) << "capital digits: " << sLine;
    }
}

// On a small file system of its own, which nobody else uses and which is partly full, so that figures differ.
TEST_F(PlatformTest, FiguresAreThoseOfTheTarget) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    const std::string sSmall = m_Folder / "small";
    ASSERT_EQ(::mkdir(sSmall.c_str(), 0755), 0);
    ASSERT_EQ(::mount("none", sSmall.c_str(), "tmpfs", 0, "size=1m,nr_inodes=100"), 0);
    WriteWholeFile(sSmall + "/filler", std::string(400000, 'x'));
    const char* pcPath = sSmall.c_str();
    const auto size = [](const char* pcTitle, unsigned long long iBytes) {
        char vcSize[32];
        CUtilities::GetPrintableFileSize(iBytes, vcSize);
        return std::string(pcTitle) + ": " + vcSize;
    };
    const auto slots = [](const char* pcTitle, unsigned long long nSlots) {
        std::ostringstream text;
        text << pcTitle << ": " << nSlots << "(" << std::hex << std::uppercase << nSlots << ")";
        return text.str();
    };
    const Lines vsExpected{
        size("Maximum File Size                       ", CUtilities::GetMaxFileSize(pcPath)),
        size("Total Disk Space                        ", CUtilities::GetTotalDiskSpace(pcPath)),
        size("Free Disk Space                         ", CUtilities::GetFreeDiskSpace(pcPath)),
        size("Free Disk Space To Caller               ", CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath)),
        slots("Total File Slots                        ", CUtilities::GetTotalFileSlots(pcPath)),
        slots("Free File Slots                         ", CUtilities::GetFreeFileSlots(pcPath)),
        slots("Free File Slots To Caller               ", CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath))};
    const unsigned long long iBefore = CUtilities::GetCurrentSystemTimeInMilliseconds();
    const Lines vsLines = Run(sSmall, 10);
    const unsigned long long iAfter = CUtilities::GetCurrentSystemTimeInMilliseconds();
    EXPECT_EQ(::umount2(pcPath, MNT_DETACH), 0);
    ASSERT_GT(vsLines.size(), 13U);
    const std::string sTime = "Current time (in milliseconds)          : ";
    ASSERT_TRUE(vsLines[5].starts_with(sTime)) << vsLines[5];
    EXPECT_GE(std::stoull(vsLines[5].substr(sTime.size())), iBefore);
    EXPECT_LE(std::stoull(vsLines[5].substr(sTime.size())), iAfter);
    EXPECT_EQ(vsExpected[1], "Total Disk Space                        : 1024.0KB");
    EXPECT_EQ(Lines(vsLines.begin() + 6, vsLines.begin() + 13), vsExpected);
}

TEST_F(PlatformTest, SmallFileIsOneChunkTwice) {
    const UmaskGuard umaskGuard;
    const Lines vsLines = Run(m_Folder.Path(), 10);
    EXPECT_EQ(From(vsLines, kHeadLines + kFigureLines),
              GoodFileSteps(m_Folder.Path(), 10, ChunkLines("0", "10"), ChunkLines("0", "10")));
}

TEST_F(PlatformTest, FileOfOneByteWorks) {
    const UmaskGuard umaskGuard;
    EXPECT_EQ(From(Run(m_Folder.Path(), 1), kHeadLines + kFigureLines),
              GoodFileSteps(m_Folder.Path(), 1, ChunkLines("0", "1"), ChunkLines("0", "1")));
}

TEST_F(PlatformTest, TrailingSlashAndLinksAreResolved) {
    const std::string sLink = m_Folder / "link";
    const std::string sReal = m_Folder / "real";
    ASSERT_EQ(::mkdir(sReal.c_str(), 0755), 0);
    ASSERT_EQ(::symlink(sReal.c_str(), sLink.c_str()), 0);
    const Lines vsLines = Run(sLink + "/", 100);
    ASSERT_GT(vsLines.size(), 2U);
    EXPECT_EQ(vsLines[1], " >> Directory : \"" + sReal + "/_test\"");
}

TEST_F(PlatformTest, EmptyPathIsRefused) {
    EXPECT_EQ(Run("", 10), Lines{"Cannot start platrorm test. Error=Target directory is NULL"});
    m_Log.Clear();
    m_Utilities.RunTestMode(&m_Param, nullptr, 10);
    EXPECT_EQ(m_Log.Texts('i'), Lines{"Cannot start platrorm test. Error=Target directory is NULL"});
}

/// Its beginning names a folder that exists.
TEST_F(PlatformTest, TargetWhosePathDoesNotFitIsRefused) {
    std::string sLong = m_Folder.Path();
    sLong.resize(kPathBufferSize - 1, '/');
    const Lines vsLines = Run(sLong + "/.", 10);
    ASSERT_EQ(vsLines.size(), 1U);
    EXPECT_TRUE(vsLines[0].starts_with("Cannot start platrorm test. Error=Fail to access directory \"" +
                                       m_Folder.Path() + "//"))
        << vsLines[0];
}

TEST_F(PlatformTest, SizeOfZeroOrLessIsRefused) {
    EXPECT_EQ(Run(m_Folder.Path(), 0), Lines{"Cannot start platrorm test. Error=File size is ZERO"});
    EXPECT_EQ(Run(m_Folder.Path(), -1), Lines{"Cannot start platrorm test. Error=File size is ZERO"});
}

TEST_F(PlatformTest, MissingTargetIsRefused) {
    const std::string sMissing = m_Folder / "missing";
    EXPECT_EQ(Run(sMissing, 10),
              Lines{"Cannot start platrorm test. Error=Fail to access directory \"" + sMissing + "\" (ErrCode=2)"});
}

TEST_F(PlatformTest, ExistingTestDirectoryIsRefusedAndLeftAlone) {
    const std::string sTest = m_Folder / "_test";
    ASSERT_EQ(::mkdir(sTest.c_str(), 0755), 0);
    WriteWholeFile(sTest + "/test.bak", "precious");
    EXPECT_EQ(Run(m_Folder.Path(), 10),
              Lines{"Cannot start platrorm test. Error=Test directory \"" + sTest + "\" already exist"});
    EXPECT_EQ(ReadWholeFile(sTest + "/test.bak"), "precious");
}

TEST_F(PlatformTest, EveryStepIsTriedAndReportedWhereNothingWorks) {
    // A target that is no directory: nothing can be made below it, whoever runs this.
    const std::string sTarget = m_Folder / "file";
    WriteWholeFile(sTarget, "x");
    const std::string sFolder = sTarget + "/_test";
    const std::string sFile = "\"" + sFolder + "/test.bak\"";
    const std::string sSecond = "\"" + sFolder + "/test.bak2\"";
    const Lines vsChunk{"[FAIL] File seek to position 0. Error=File seek failed",
                        "[FAIL] Write data with length 10. Error=File write failed",
                        "[FAIL] Move pointer to position 0. Error=File seek failed",
                        "[FAIL] Read data with length 10. Error=File read failed",
                        "[FAIL] Verify data with size 10. Error=Data content not match"};
    Lines vsExpected{"-------------------------------- FILE IO ---------------------------------",
                     "[FAIL] Create directory \"" + sFolder + "\". Error=Not a directory (20)",
                     "[FAIL] Create file " + sFile + ". Error=Not a directory (20)",
                     "[FAIL] Close file " + sFile + ". Error=Bad file descriptor",
                     "[FAIL] Enlarge file " + sFile + " size to 1034. Error=Open file failed",
                     "[FAIL] Verify file size. Error=Size not match (current size = 0)",
                     "[FAIL] Close file " + sFile + ". Error=Bad file descriptor",
                     "[FAIL] Shrink file " + sFile + " size to 10. Error=Open file failed",
                     "[FAIL] Verify file size. Error=Size not match (current size = 0)",
                     "[FAIL] Close file " + sFile + ". Error=Bad file descriptor",
                     "[FAIL] Open file " + sFile + ". Error=Not a directory (20)"};
    Append(vsExpected, vsChunk);
    Append(vsExpected, vsChunk);
    Append(vsExpected,
           {"[FAIL] Get file stat from file " + sFile + ". Error=Not a directory (20)",
            "[FAIL] Set file mode 8124 to file " + sFile + ". Error=Set file mode failed",
            "[FAIL] Get file mode from file " + sFile + ". Error=Get file mode failed",
            "[FAIL] Verify file mode 8124 from file " + sFile + ". Error=File mode not match (current file mode = 0)",
            "[FAIL] Set file mode 0 to file " + sFile + ". Error=Set file mode failed",
            "[FAIL] Get file mode from file " + sFile + ". Error=Get file mode failed",
            "[FAIL] Verify file mode 0 from file " + sFile + ". Error=File mode not match (current file mode = 0)",
            "[FAIL] Close file " + sFile + ". Error=Bad file descriptor",
            "[FAIL] Rename file from " + sFile + " to " + sSecond + ". Error=Not a directory (20)",
            "[FAIL] Remove file " + sSecond + ". Error=Not a directory (20)",
            "[FAIL] Remove directory \"" + sFolder + "\". Error=Not a directory (20)",
            "================================ END TEST ================================"});
    EXPECT_EQ(From(Run(sTarget, 10), kHeadLines + kFigureLines + 1), vsExpected);
    EXPECT_EQ(ReadWholeFile(sTarget), "x");
}

TEST_F(PlatformTest, FailedCallsAreLoggedBeforeTheirStepsWithTheErrorBit) {
    const std::string sTarget = m_Folder / "file";
    WriteWholeFile(sTarget, "x");
    CRuntimeParam param{"tester", CRuntimeParam::kLogError};
    m_Utilities.RunTestMode(&param, sTarget.c_str(), 10);
    const std::string sFolder = sTarget + "/_test";
    const std::vector<LogLine> vLines = m_Log.Lines();
    std::size_t iFirst = 0;
    while (iFirst < vLines.size() && vLines[iFirst].cKind != 'e') {
        ++iFirst;
    }
    ASSERT_LT(iFirst + 6, vLines.size());
    const auto at = [&](std::size_t i) { return vLines[iFirst + i].sText; };
    EXPECT_EQ(at(0),
              "[Utilities.RunTestMode] OS create folder \"" + sFolder + "\" (mode = 493). Error=Not a directory (20)");
    EXPECT_EQ(at(1), "[FAIL] Create directory \"" + sFolder + "\". Error=Not a directory (20)");
    EXPECT_EQ(at(2), "[Utilities.RunTestMode] OS create file \"" + sFolder + "/test.bak\". Error=Not a directory (20)");
    EXPECT_EQ(at(3), "[FAIL] Create file \"" + sFolder + "/test.bak\". Error=Not a directory (20)");
    EXPECT_EQ(at(4), "[Utilities.RunTestMode] OS close file \"" + sFolder + "/test.bak\". Error=Bad file descriptor");
    EXPECT_EQ(at(5), "[FAIL] Close file \"" + sFolder + "/test.bak\". Error=Bad file descriptor");
    EXPECT_EQ(vLines.back().sText, "================================ END TEST ================================");
    EXPECT_EQ(vLines[vLines.size() - 2].cKind, 'i') << "the clean-up is silent";
}

TEST_F(PlatformTest, MissingRightsShowInTheFirstStep) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give up its rights in a child";
    }
    const std::string sTarget = m_Folder / "others";
    ASSERT_EQ(::mkdir(sTarget.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(m_Folder.Path().c_str(), 0755), 0);
    const pid_t iChild = ::fork();
    if (iChild == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            ::_exit(2);
        }
        const std::string sLine = "[FAIL] Create directory \"" + sTarget + "/_test\". Error=Permission denied (13)";
        m_Utilities.RunTestMode(&m_Param, sTarget.c_str(), 10);
        ::_exit(m_Log.Has(sLine, 'i') ? 0 : 1);
    }
    int iStatus = 0;
    ASSERT_EQ(::waitpid(iChild, &iStatus, 0), iChild);
    if (WEXITSTATUS(iStatus) == 2) {
        GTEST_SKIP() << "no second user to change to in this user namespace";
    }
    EXPECT_EQ(WEXITSTATUS(iStatus), 0) << "another line than expected";
}

TEST_F(PlatformTest, FileSizeBeyondWhatTheFileSystemTakesFailsItsStepsOnly) {
    const Lines vsLines = Run(m_Folder.Path(), 9223372036854775807LL);
    const std::string sFile = "\"" + (m_Folder / "_test") + "/test.bak\"";
    EXPECT_TRUE(
        m_Log.Has("[FAIL] Enlarge file " + sFile + " size to -9223372036854774785. Error=Set file size failed", 'i'))
        << m_Log.Dump();
    EXPECT_EQ(vsLines.back(), "================================ END TEST ================================");
    EXPECT_NE(::access((m_Folder / "_test").c_str(), F_OK), 0) << "the test directory is gone";
}

TEST_F(PlatformTest, NamesWithFormatCharactersAreShownAsTheyAre) {
    const std::string sTarget = m_Folder / "%s%n%d";
    ASSERT_EQ(::mkdir(sTarget.c_str(), 0755), 0);
    const Lines vsLines = Run(sTarget, 10);
    ASSERT_GT(vsLines.size(), 2U);
    EXPECT_EQ(vsLines[1], " >> Directory : \"" + sTarget + "/_test\"");
}

// ---- Single steps

namespace {

/// Does something once as soon as a certain information line has come: what the step behind it then finds is known.
class MeddlingUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CUtilities::RunTestReadWriteFile;

    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        if (m_Action && m_sTrigger == pcMessage) {
            std::exchange(m_Action, nullptr)();
        }
    }
    void On(const std::string& sTrigger, std::function<void()> action) {
        m_sTrigger = sTrigger;
        m_Action = std::move(action);
    }
    bool IsWaiting() const { return m_Action != nullptr; }

private:
    std::string m_sTrigger;
    std::function<void()> m_Action;
};

class PlatformTestSteps : public PlatformTest {
protected:
    /// Runs the whole test on the scratch folder with 10 bytes while somebody meddles. The step's own lines; those of
    /// the file access are only there to be waited for.
    Lines Meddle(const std::string& sTrigger, const std::function<void()>& action) {
        m_Log.Clear();
        m_Meddling.On(sTrigger, action);
        CRuntimeParam param{"tester", CRuntimeParam::kLogFileAccess};
        m_Meddling.RunTestMode(&param, m_Folder.Path().c_str(), 10);
        EXPECT_FALSE(m_Meddling.IsWaiting()) << "never logged: " << sTrigger << "\n" << m_Log.Dump();
        EXPECT_NE(::access(m_sTest.c_str(), F_OK), 0) << "the test directory is gone";
        return m_Log.Texts('i');
    }
    bool Has(const std::string& sLine) const { return m_Log.Has(sLine, 'i'); }
    static std::string Tagged(const std::string& sText) { return "[Utilities.RunTestMode] " + sText; }
    /// The lines of a chunk on an open file.
    Lines ReadWrite(int iFile, unsigned long long iPosition, unsigned long long iSize) {
        LogArgu tag{"Test"};
        m_Log.Clear();
        m_Meddling.RunTestReadWriteFile(&m_Param, &tag, iFile, iPosition, iSize);
        return m_Log.Texts('i');
    }
    CDescriptor Open(const std::string& sPath) { return CDescriptor(::open(sPath.c_str(), O_RDWR | O_CLOEXEC)); }

    MeddlingUtilities m_Meddling{&m_Log};
    std::string m_sTest = m_Folder / "_test";
    std::string m_sFile = m_sTest + "/test.bak";
    std::string m_sQuoted = "\"" + m_sFile + "\"";
};

}  // namespace

TEST_F(PlatformTestSteps, WhatWasMadeMustExist) {
    Meddle(Tagged("OS create folder \"" + m_sTest + "\" (mode = 493)"), [&] { ::rmdir(m_sTest.c_str()); });
    EXPECT_TRUE(Has("[FAIL] Create directory \"" + m_sTest + "\". Error=Directory not exist")) << m_Log.Dump();
    Meddle(Tagged("OS create file " + m_sQuoted), [&] { ::unlink(m_sFile.c_str()); });
    EXPECT_TRUE(Has("[FAIL] Create file " + m_sQuoted + ". Error=File not exist")) << m_Log.Dump();
    EXPECT_TRUE(Has("[ OK ] Close file " + m_sQuoted + ".")) << m_Log.Dump();
}

TEST_F(PlatformTestSteps, WhatWasRemovedMustBeGone) {
    Meddle(Tagged("OS remove folder \"" + m_sTest + "\""), [&] { ::mkdir(m_sTest.c_str(), 0755); });
    EXPECT_TRUE(Has("[FAIL] Remove directory \"" + m_sTest + "\". Error=Directory still exist")) << m_Log.Dump();
}

TEST_F(PlatformTestSteps, SizeThatWasSetMustBeThere) {
    Meddle(Tagged("OS set file file " + m_sQuoted), [&] { EXPECT_EQ(::truncate(m_sFile.c_str(), 7), 0); });
    EXPECT_TRUE(Has("[ OK ] Enlarge file " + m_sQuoted + " size to 1034.")) << m_Log.Dump();
    EXPECT_TRUE(Has("[FAIL] Verify file size. Error=Size not match (current size = 7)")) << m_Log.Dump();
}

TEST_F(PlatformTestSteps, ModeThatWasSetMustBeThere) {
    Meddle(Tagged("OS set file mode " + m_sQuoted + " (mode = 33060)"),
           [&] { EXPECT_EQ(::chmod(m_sFile.c_str(), 0600), 0); });
    EXPECT_TRUE(Has("[ OK ] Set file mode 8124 to file " + m_sQuoted + ".")) << m_Log.Dump();
    EXPECT_TRUE(Has("[FAIL] Verify file mode 8124 from file " + m_sQuoted +
                    ". Error=File mode not match (current file mode = 8180)"))
        << m_Log.Dump();
}

TEST_F(PlatformTestSteps, WhatIsLeftIsRemovedInTheEndWithoutALine) {
    const Lines vsLines = Meddle("[ OK ] Remove file \"" + m_sFile + "2\".", [&] {
        WriteWholeFile(m_sFile, "x");
        WriteWholeFile(m_sFile + "2", "x");
    });
    ASSERT_GT(vsLines.size(), 2U);
    EXPECT_EQ(Lines(vsLines.end() - 2, vsLines.end()),
              (Lines{"[FAIL] Remove directory \"" + m_sTest + "\". Error=Directory not empty (39)",
                     "================================ END TEST ================================"}));
}

TEST_F(PlatformTestSteps, ChunkHoldsLettersFromAToTheBackquoteAtItsPosition) {
    const std::string sLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`";
    std::string sChunk;
    while (sChunk.size() < 2047) {
        sChunk += sLetters;
    }
    sChunk.resize(2047);
    const std::string sPath = m_Folder / "file";
    for (const auto& [iPosition, iStart] :
         {std::pair{0ULL, 0ULL}, {100, 100}, {2953, 2953}, {2954, 2953}, {5000, 2953}}) {
        WriteWholeFile(sPath, std::string(5000, '.'));
        EXPECT_EQ(ReadWrite(Open(sPath).Get(), iPosition, 5000), ChunkLines(std::to_string(iStart), "2047"));
        std::string sExpected(5000, '.');
        EXPECT_EQ(ReadWholeFile(sPath), sExpected.replace(iStart, sChunk.size(), sChunk)) << iPosition;
    }
}

// The null device stands at 0 wherever it is sent, takes everything and gives nothing.
TEST_F(PlatformTestSteps, PositionAndLengthAreTold) {
    EXPECT_EQ(ReadWrite(Open("/dev/null").Get(), 100, 5000),
              (Lines{"[FAIL] File seek to position 100. Error=Position not match (current pos = 0)",
                     "[ OK ] Write data with length 2047.",
                     "[FAIL] Move pointer to position 100. Error=Position not match (current pos = 0)",
                     "[FAIL] Read data with length 2047. Error=Data lenght not match (read length = 0)",
                     "[FAIL] Verify data with size 2047. Error=Data content not match"}));
}

TEST_F(PlatformTestSteps, ShortWriteIsTold) {
    const std::string sPath = m_Folder / "file";
    WriteWholeFile(sPath, "");
    const CDescriptor file = Open(sPath);
    Lines vsLines;
    {
        const SoftLimit fiveBytes(RLIMIT_FSIZE, 5);
        vsLines = ReadWrite(file.Get(), 0, 10);
    }
    EXPECT_EQ(vsLines, (Lines{"[ OK ] File seek to position 0.",
                              "[FAIL] Write data with length 10. Error=Data lenght not match (write length = 5)",
                              "[ OK ] Move pointer to position 0.",
                              "[FAIL] Read data with length 10. Error=Data lenght not match (read length = 5)",
                              "[FAIL] Verify data with size 10. Error=Data content not match"}));
}

// ---- Quick test

namespace {

class QuickTest : public PlatformTest {
protected:
    bool Quick(CRuntimeParam* pParam, const char* pcPath, int iMode) {
        m_Log.Clear();
        m_vcReason[0] = '\0';
        return m_Utilities.RunQuickTestMode(pParam, pcPath, iMode, m_vcReason);
    }

    char m_vcReason[kReasonBufferSize] = "";
    CRuntimeParam m_Talkative{"tester", CRuntimeParam::kLogGeneralInfo};
};

}  // namespace

TEST_F(QuickTest, ExistingPathPassesSilently) {
    EXPECT_TRUE(Quick(&m_Param, m_Folder.Path().c_str(), 0)) << m_vcReason;
    EXPECT_EQ(m_Log.Texts(), Lines{});
}

TEST_F(QuickTest, MissingPathFailsWithTheErrorCode) {
    EXPECT_FALSE(Quick(&m_Param, (m_Folder / "missing").c_str(), 0));
    EXPECT_STREQ(m_vcReason, "ErrCode=2");
    EXPECT_EQ(m_Log.Texts(), Lines{});
}

TEST_F(QuickTest, PathThatDoesNotFitFails) {
    std::string sLong = m_Folder.Path();
    sLong.resize(kPathBufferSize - 1, '/');
    EXPECT_TRUE(Quick(&m_Param, sLong.c_str(), 0)) << m_vcReason;
    EXPECT_FALSE(Quick(&m_Param, (sLong + "/.").c_str(), 0)) << "its beginning names a folder that exists";
    EXPECT_STREQ(m_vcReason, "ErrCode=36");
}

TEST_F(QuickTest, MissingPathIsLoggedAsItsPath) {
    const std::string sMissing = m_Folder / "missing";
    EXPECT_FALSE(Quick(&m_Talkative, sMissing.c_str(), 0));
    EXPECT_EQ(m_Log.Texts(),
              (Lines{"[Utilities.RunQuickTestMode] Fail to get canonical path from non-exist path: " + sMissing,
                     "Quick exist test failed. Error=\"" + sMissing + "\""}));
}

TEST_F(QuickTest, EmptyPathIsAnInvalidArgument) {
    for (const char* pcPath : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(Quick(&m_Talkative, pcPath, 0));
        EXPECT_STREQ(m_vcReason, "Invalid argument");
        EXPECT_EQ(m_Log.Texts(), Lines{"Quick test failed. Error=\"Invalid argument\""});
        EXPECT_FALSE(Quick(&m_Param, pcPath, 0));
        EXPECT_EQ(m_Log.Texts(), Lines{}) << "silent without the general bit";
    }
}

TEST_F(QuickTest, MissingParameterIsAnInvalidArgument) {
    EXPECT_FALSE(Quick(nullptr, m_Folder.Path().c_str(), 0));
    EXPECT_STREQ(m_vcReason, "Invalid argument");
}

TEST_F(QuickTest, OtherModesAreUnknown) {
    EXPECT_FALSE(Quick(&m_Param, m_Folder.Path().c_str(), 1));
    EXPECT_STREQ(m_vcReason, "Unknown mode (1)");
    EXPECT_FALSE(Quick(&m_Param, m_Folder.Path().c_str(), -7));
    EXPECT_STREQ(m_vcReason, "Unknown mode (-7)");
}
