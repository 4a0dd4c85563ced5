// READDIR and READDIRPLUS: replies byte by byte, cookies, and directories of many sizes.
#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include <dirent.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "AccessFile.h"
#include "Isolation.h"
#include "Nfs3ProgFixture.h"
#include "SoftLimit.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;
using Lines = std::vector<std::string>;

struct Entry {
    std::uint64_t lFileid = 0;
    std::string sName;
    std::uint64_t lCookie = 0;
    std::optional<Fattr3> attributes;
    std::optional<std::string> sHandle;
};

struct Listing {
    std::uint64_t lVerf = 0;
    std::vector<Entry> vEntries;
    bool bEof = false;
};

class Nfs3ProgDirectoryTest : public Nfs3ProgFixture {
protected:
    void MakeFiles(int nFiles) {
        for (int i = 0; i < nFiles; ++i) {
            WriteWholeFile(Path("file" + std::to_string(i)), std::string(static_cast<std::size_t>(i % 10), 'x'));
        }
    }
    /// The entries in the host's order.
    std::vector<std::string> HostNames() const {
        std::vector<std::string> vsNames;
        DIR* pDir = ::opendir(m_Folder.Path().c_str());
        while (const dirent* pEntry = ::readdir(pDir)) {
            if (!CNfs3Prog::IsInVaildDirName(pEntry->d_name)) {
                vsNames.emplace_back(pEntry->d_name);
            }
        }
        ::closedir(pDir);
        return vsNames;
    }
    std::string CallList(bool bPlus, const std::string& sHandle, std::uint64_t lCookie, std::uint64_t lVerf = 0) {
        XdrBuilder arguments;
        arguments.Opaque(sHandle).U64(lCookie).U64(lVerf).U32(1);
        if (bPlus) {
            arguments.U32(2);
        }
        return Call(bPlus ? kNfsReaddirplus : kNfsReaddir, arguments);
    }
    Listing List(bool bPlus, std::uint64_t lCookie, std::uint64_t lVerf = 0) {
        return List(Handle(), bPlus, lCookie, lVerf);
    }
    Listing List(const std::string& sHandle, bool bPlus, std::uint64_t lCookie, std::uint64_t lVerf = 0) {
        XdrReader reader(CallList(bPlus, sHandle, lCookie, lVerf));
        Listing listing;
        EXPECT_EQ(reader.U32(), 0U);
        const auto attributes = ReadPostOpAttr(reader);
        EXPECT_TRUE(attributes.has_value() && attributes->iType == 2);
        listing.lVerf = reader.U64();
        while (reader.Bool()) {
            Entry entry;
            entry.lFileid = reader.U64();
            entry.sName = reader.Opaque();
            entry.lCookie = reader.U64();
            if (bPlus) {
                entry.attributes = ReadPostOpAttr(reader);
                entry.sHandle = ReadPostOpHandle(reader);
            }
            listing.vEntries.push_back(entry);
        }
        listing.bEof = reader.Bool();
        EXPECT_TRUE(reader.AtEnd()) << reader.Left() << " bytes behind the reply";
        return listing;
    }
    /// Lists the whole folder, checks cookies and the end, and returns the names.
    std::vector<std::string> ListAll(bool bPlus) {
        std::vector<std::string> vsNames;
        for (;;) {
            const Listing listing = List(bPlus, vsNames.size());
            for (const Entry& entry : listing.vEntries) {
                vsNames.push_back(entry.sName);
                EXPECT_EQ(entry.lCookie, vsNames.size());
            }
            EXPECT_EQ(listing.bEof, listing.vEntries.size() < 10);
            if (listing.bEof || vsNames.size() > 5000) {
                return vsNames;
            }
        }
    }
};

TEST_F(Nfs3ProgDirectoryTest, EmptyDirectoryEndsAtOnce) {
    for (const bool bPlus : {false, true}) {
        const std::string sReply = CallList(bPlus, Handle(), 0, 0x1122334455667788);
        ASSERT_EQ(sReply.size(), 4U + 88 + 8 + 4 + 4);
        EXPECT_EQ(Hex(sReply.substr(92)), Hex(XdrBuilder().U64(0x1122334455667788).U32(0).U32(1).Bytes()));
    }
}

TEST_F(Nfs3ProgDirectoryTest, EntryOfReaddirByteByByte) {
    WriteWholeFile(Path("hello"), "12345");
    const std::string sReply = CallList(false, Handle(), 0, 7);
    const unsigned int iID = m_Utilities.GetFileID(&m_Param, &m_Tag, Path("hello").c_str());
    EXPECT_EQ(Hex(sReply.substr(92)),
              Hex(XdrBuilder().U64(7).U32(1).U64(iID).Opaque("hello").U64(1).U32(0).U32(1).Bytes()));
}

TEST_F(Nfs3ProgDirectoryTest, EntryOfReaddirplusByteByByte) {
    WriteWholeFile(Path("hello"), "12345");
    const std::string sReply = CallList(true, Handle(), 0, 7);
    const unsigned int iID = m_Utilities.GetFileID(&m_Param, &m_Tag, Path("hello").c_str());
    ASSERT_EQ(sReply.size(), 4U + 88 + 8 + 4 + 8 + 12 + 8 + 88 + 64 + 8);
    EXPECT_EQ(Hex(sReply.substr(92, 44)),
              Hex(XdrBuilder().U64(7).U32(1).U64(iID).Opaque("hello").U64(1).U32(1).Bytes()));
    EXPECT_EQ(Hex(sReply.substr(220)), Hex(XdrBuilder().U32(1).Opaque(Handle("hello")).U32(0).U32(1).Bytes()));
}

TEST_F(Nfs3ProgDirectoryTest, TwentyFiveEntriesComeInThreeReplies) {
    MakeFiles(25);
    for (const bool bPlus : {false, true}) {
        const std::uint64_t vFirst[] = {1, 11, 21};
        const std::size_t vCount[] = {10, 10, 5};
        for (int i = 0; i < 3; ++i) {
            const Listing listing = List(bPlus, vFirst[i] - 1, 99);
            ASSERT_EQ(listing.vEntries.size(), vCount[i]);
            EXPECT_EQ(listing.vEntries.front().lCookie, vFirst[i]);
            EXPECT_EQ(listing.vEntries.back().lCookie, vFirst[i] + vCount[i] - 1);
            EXPECT_EQ(listing.bEof, i == 2);
            EXPECT_EQ(listing.lVerf, 99U);
        }
    }
}

TEST_F(Nfs3ProgDirectoryTest, TenEntriesNeedASecondCall) {
    MakeFiles(10);
    for (const bool bPlus : {false, true}) {
        EXPECT_FALSE(List(bPlus, 0).bEof);
        const Listing rest = List(bPlus, 10);
        EXPECT_TRUE(rest.bEof);
        EXPECT_TRUE(rest.vEntries.empty());
    }
}

TEST_F(Nfs3ProgDirectoryTest, EverySizeIsListedWholeInTheHostsOrder) {
    int nMade = 0;
    for (const int nFiles : {1, 9, 10, 11, 20, 1000}) {
        for (; nMade < nFiles; ++nMade) {
            WriteWholeFile(Path("entry" + std::to_string(nMade)), "");
        }
        EXPECT_EQ(ListAll(false), HostNames()) << nFiles;
        EXPECT_EQ(ListAll(true), HostNames()) << nFiles;
    }
}

TEST_F(Nfs3ProgDirectoryTest, CookieBeyondTheEndAnswersAnEmptyEnd) {
    MakeFiles(3);
    for (const std::uint64_t lCookie : {std::uint64_t{3}, std::uint64_t{4}, ~std::uint64_t{0}}) {
        const Listing listing = List(true, lCookie);
        EXPECT_TRUE(listing.vEntries.empty() && listing.bEof) << lCookie;
    }
}

TEST_F(Nfs3ProgDirectoryTest, FileidIsTheTablesIdAndNotTheInode) {
    MakeFiles(5);
    for (const Entry& entry : List(true, 0).vEntries) {
        struct stat status {};
        ASSERT_EQ(::stat(Path(entry.sName).c_str(), &status), 0);
        EXPECT_EQ(entry.lFileid, m_Utilities.GetFileID(&m_Param, &m_Tag, Path(entry.sName).c_str()));
        ASSERT_TRUE(entry.attributes.has_value());
        EXPECT_EQ(entry.attributes->iFileid, status.st_ino);
        EXPECT_EQ(entry.attributes->iSize, static_cast<std::uint64_t>(status.st_size));
        EXPECT_EQ(entry.sHandle, Handle(entry.sName));
    }
}

// Clients never see a link: an entry that is one has what LOOKUP gives for it.
TEST_F(Nfs3ProgDirectoryTest, LinkIsListedWithAttributesAndHandleOfWhatItLeadsTo) {
    ::mkdir(Path("dir").c_str(), 0755);
    WriteWholeFile(Path("dir/file"), "12345");
    ASSERT_EQ(::symlink("dir", Path("link-to-dir").c_str()), 0);
    ASSERT_EQ(::symlink("link-to-dir/file", Path("link-to-file").c_str()), 0);
    for (const int iLog : {0, 0x3FF}) {
        SetLog(iLog);
        for (const Entry& entry : List(true, 0).vEntries) {
            const bool bFile = entry.sName == "link-to-file";
            struct stat status {};
            ASSERT_EQ(::stat(Path(entry.sName).c_str(), &status), 0);
            ASSERT_TRUE(entry.attributes.has_value()) << entry.sName;
            EXPECT_EQ(entry.attributes->iType, bFile ? 1U : 2U) << entry.sName;
            EXPECT_EQ(entry.attributes->iFileid, status.st_ino) << entry.sName;
            EXPECT_EQ(entry.attributes->iSize, static_cast<std::uint64_t>(status.st_size)) << entry.sName;
            EXPECT_EQ(entry.sHandle, Handle(bFile ? "dir/file" : "dir")) << entry.sName;
        }
    }
}

TEST_F(Nfs3ProgDirectoryTest, LinkThatLeadsNowhereOrOutHasNeitherAttributesNorHandle) {
    const TempFolder other;
    WriteWholeFile(other / "secret", "x");
    ASSERT_EQ(::symlink("nowhere", Path("dangling").c_str()), 0);
    ASSERT_EQ(::symlink("circle", Path("circle").c_str()), 0);
    ASSERT_EQ(::symlink(other.Path().c_str(), Path("out").c_str()), 0);
    ASSERT_EQ(::symlink((other / "secret").c_str(), Path("out-to-file").c_str()), 0);
    for (const int iLog : {0, 0x3FF}) {
        SetLog(iLog);
        const Listing listing = List(true, 0);
        EXPECT_EQ(listing.vEntries.size(), 4U);
        for (const Entry& entry : listing.vEntries) {
            EXPECT_FALSE(entry.attributes.has_value()) << entry.sName;
            EXPECT_FALSE(entry.sHandle.has_value()) << entry.sName;
        }
        EXPECT_EQ(List(false, 0).vEntries.size(), 4U);
    }
}

TEST_F(Nfs3ProgDirectoryTest, DirectoryReachedThroughALinkGivesTheIdsOfItsFiles) {
    ::mkdir(Path("a").c_str(), 0755);
    ::mkdir(Path("a/dir").c_str(), 0755);
    WriteWholeFile(Path("a/dir/file"), "");
    const std::string sHandle = Handle("a/dir");
    // The host moves it and leaves a link: the handle's path is not the files' own any more.
    ASSERT_EQ(::rename(Path("a").c_str(), Path("b").c_str()), 0);
    ASSERT_EQ(::symlink("b", Path("a").c_str()), 0);
    XdrReader reader(CallList(false, sHandle, 0));
    ASSERT_EQ(reader.U32(), 0U);
    ReadPostOpAttr(reader);
    reader.U64();
    ASSERT_TRUE(reader.Bool());
    EXPECT_EQ(reader.U64(), m_Utilities.GetFileID(&m_Param, &m_Tag, Path("b/dir/file").c_str()));
}

TEST_F(Nfs3ProgDirectoryTest, NamesOfAnyBytesAreListed) {
    const std::string sName = "\xff\xfe \n\x01%s";
    WriteWholeFile(Path(sName), "");
    EXPECT_EQ(List(false, 0).vEntries.at(0).sName, sName);
    const std::string sLong(255, 'n');
    WriteWholeFile(Path(sLong), "");
    EXPECT_THAT(ListAll(true), testing::UnorderedElementsAre(sName, sLong));
}

TEST_F(Nfs3ProgDirectoryTest, EntryWhosePathDoesNotFitHasNoHandle) {
    // A folder whose path is just short enough, made step by step.
    std::string sDeep = m_Folder.Path();
    ASSERT_EQ(::chdir(sDeep.c_str()), 0);
    while (sDeep.size() < 4080) {
        const std::string sStep(std::min<std::size_t>(200, 4090 - sDeep.size() - 1), 'd');
        ASSERT_EQ(::mkdir(sStep.c_str(), 0755), 0);
        ASSERT_EQ(::chdir(sStep.c_str()), 0);
        sDeep += "/" + sStep;
    }
    const std::string sName(20, 'n');
    ASSERT_EQ(::mkdir(sName.c_str(), 0755), 0);
    ASSERT_EQ(::chdir("/"), 0);
    const std::string sReply = CallList(true, HandleOfPath(sDeep), 0);
    EXPECT_EQ(Hex(sReply.substr(100)),
              Hex(XdrBuilder().U32(1).U64(0xFFFFFFFFU).Opaque(sName).U64(1).U32(0).U32(0).U32(0).U32(1).Bytes()));
    ExpectBareFailure(Call(kNfsLookup, DirOp(HandleOfPath(sDeep), sName)), 2, 1);
    ExpectBareFailure(Call(kNfsRmdir, DirOp(HandleOfPath(sDeep), sName)), 2, 2);
    ExpectBareFailure(Call(kNfsMkdir, DirOp(HandleOfPath(sDeep), sName).Raw(m_sNoAttributes)), 5, 2);
}

TEST_F(Nfs3ProgDirectoryTest, ListIsNotEmptyForWantOfADescriptor) {
    // The cache holds the last descriptor there is, and gives it back.
    MakeFiles(3);
    const rlim_t nOneFree = GetLimitForFree(1);
    ASSERT_EQ(WordAt(Call(kNfsRead, XdrBuilder().Opaque(Handle("file1")).U64(0).U32(1)), 0), 0U);
    const SoftLimit limit(RLIMIT_NOFILE, nOneFree);
    EXPECT_EQ(List(false, 0).vEntries.size(), 3U);
}

TEST_F(Nfs3ProgDirectoryTest, ListOfAFileIsEmptyAndFinal) {
    WriteWholeFile(Path("file"), "");
    for (const bool bPlus : {false, true}) {
        const std::string sReply = CallList(bPlus, Handle("file"), 0, 5);
        EXPECT_EQ(WordAt(sReply, 0), 0U);
        EXPECT_EQ(Hex(sReply.substr(92)), Hex(XdrBuilder().U64(5).U32(0).U32(1).Bytes()));
    }
}

TEST_F(Nfs3ProgDirectoryTest, ListOfNothingAnswers5) {
    for (const bool bPlus : {false, true}) {
        ExpectBareFailure(CallList(bPlus, m_sForged, 0), 5, 1);
        ExpectBareFailure(CallList(bPlus, Handle("missing"), 0), 5, 1);
    }
}

TEST_F(Nfs3ProgDirectoryTest, ListingLogsItsArgumentsAndEveryEntry) {
    WriteWholeFile(Path("hello"), "");
    const std::string sRoot = Handle();
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    CallList(false, sRoot, 0, 7);
    const std::string sTag = "[Nfs3Prog.ProcedureREADDIR] ";
    std::vector<std::string> vsLog = TakeLog();
    ASSERT_EQ(vsLog.size(), 5U);
    EXPECT_EQ(vsLog[0], sTag + "Path = " + m_Folder.Path());
    EXPECT_EQ(vsLog[1], sTag + "Cookie=0, cookieverf=7, count=1");
    EXPECT_EQ(vsLog[3], sTag + "Cookie=1, name=hello");
    EXPECT_EQ(vsLog[4], sTag + "End stat=0");
    CallList(true, m_sForged, 3, 7);
    EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.ProcedureREADDIRPLUS] Cookie=3, cookieverf=7, dircount=1, maxcount=2",
                                "[Nfs3Prog.ProcedureREADDIRPLUS] End stat=5"}));
}

// An entry's lines come in the order of its reply: ID, name, attributes, handle.
TEST_F(Nfs3ProgDirectoryTest, EntryIsLoggedWithItsCanonicalPathAndByReaddirplusWithItsAttributes) {
    ::mkdir(Path("hello").c_str(), 0755);
    const std::string sRoot = Handle();
    for (const bool bPlus : {false, true}) {
        const std::string sTag = bPlus ? "[Nfs3Prog.ProcedureREADDIRPLUS] " : "[Nfs3Prog.ProcedureREADDIR] ";
        const std::string sCanonical = sTag + "Get canonical path successfully: " + Path("hello");
        SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogGeneralInfo);
        CallList(bPlus, sRoot, 0, 7);
        const std::vector<std::string> vsLog = TakeLog();
        const auto itFirst = std::find(vsLog.begin(), vsLog.end(), sCanonical);
        const std::vector<std::string> vsEntry(itFirst, vsLog.end());
        const std::string sName = sTag + "Cookie=1, name=hello";
        const std::string sEnd = sTag + "End stat=0";
        if (bPlus) {
            EXPECT_THAT(vsEntry, ElementsAre(sCanonical, sName, StartsWith(sTag + "Path=" + Path("hello") + ", type=2"),
                                             sCanonical, sEnd));
        } else {
            EXPECT_EQ(vsEntry, (Lines{sCanonical, sName, sEnd}));
        }
    }
}

// ---- Listings that go on while the directory changes

TEST_F(Nfs3ProgDirectoryTest, RemovingInOnePassRemovesEverything) {
    MakeFiles(2000);
    for (const bool bPlus : {false, true}) {
        std::uint64_t lCookie = 0;
        for (bool bEof = false; !bEof;) {
            const Listing listing = List(bPlus, lCookie);
            for (const Entry& entry : listing.vEntries) {
                ASSERT_EQ(entry.lCookie, ++lCookie);
                ASSERT_EQ(WordAt(Call(kNfsRemove, DirOp(entry.sName)), 0), 0U) << entry.sName;
            }
            bEof = listing.bEof;
        }
        EXPECT_THAT(HostNames(), IsEmpty());
        MakeFiles(25);
    }
}

// A client reads some, removes that, reads on, and both procedures may alternate.
TEST_F(Nfs3ProgDirectoryTest, WhatStaysIsListedOnceWhileOthersGoAndCome) {
    MakeFiles(200);
    std::vector<std::string> vsSeen;
    std::uint64_t lCookie = 0;
    bool bEof = false;
    for (int iCall = 0; !bEof; ++iCall) {
        const Listing listing = List(iCall % 2 == 0, lCookie);
        for (const Entry& entry : listing.vEntries) {
            EXPECT_EQ(entry.lCookie, ++lCookie);
            vsSeen.push_back(entry.sName);
        }
        bEof = listing.bEof;
        ::unlink(Path("file" + std::to_string(100 + iCall * 5)).c_str());
        WriteWholeFile(Path("new" + std::to_string(iCall)), "");
        if (iCall == 3) {
            ASSERT_EQ(::rename(Path("file1").c_str(), Path("renamed").c_str()), 0);
        }
        ASSERT_LT(iCall, 100);
    }
    for (int i = 2; i < 100; ++i) {
        EXPECT_EQ(std::ranges::count(vsSeen, "file" + std::to_string(i)), 1) << i;
    }
    EXPECT_EQ(std::ranges::count(vsSeen, "new0"), 1);
    EXPECT_EQ(std::ranges::count(vsSeen, "renamed"), 1);
    std::ranges::sort(vsSeen);
    EXPECT_EQ(std::ranges::adjacent_find(vsSeen), vsSeen.end());
}

TEST_F(Nfs3ProgDirectoryTest, WhatIsGoneWhenItsReplyIsMadeIsNotShown) {
    MakeFiles(25);
    const Listing first = List(true, 0);
    std::vector<std::string> vsExpected = HostNames();
    vsExpected.erase(vsExpected.begin(), vsExpected.begin() + 10);
    ::unlink(Path(vsExpected[3]).c_str());
    vsExpected.erase(vsExpected.begin() + 3);
    ::unlink(Path(first.vEntries[0].sName).c_str());
    const Listing second = List(true, 10);
    const Listing third = List(true, 20);
    std::vector<std::string> vsSeen;
    for (const Listing& listing : {second, third}) {
        for (const Entry& entry : listing.vEntries) {
            vsSeen.push_back(entry.sName);
            EXPECT_EQ(entry.lCookie, 10 + vsSeen.size());
        }
    }
    EXPECT_EQ(vsSeen, vsExpected);
    EXPECT_EQ(third.vEntries.size(), 4U);
    EXPECT_TRUE(third.bEof);
}

TEST_F(Nfs3ProgDirectoryTest, WhatCameMeanwhileFollowsAtTheEnd) {
    MakeFiles(20);
    const std::vector<std::string> vsBefore = HostNames();
    List(true, 0);
    for (const char* pcName : {"new1", "new2", "new3"}) {
        WriteWholeFile(Path(pcName), "");
    }
    const Listing second = List(true, 10);
    EXPECT_EQ(second.vEntries.back().sName, vsBefore[19]);
    const Listing third = List(true, 20);
    ASSERT_EQ(third.vEntries.size(), 3U);
    EXPECT_TRUE(third.bEof);
    for (const Entry& entry : third.vEntries) {
        EXPECT_THAT(entry.sName, StartsWith("new"));
    }
    // Even behind the end.
    WriteWholeFile(Path("late"), "");
    const Listing last = List(true, 23);
    ASSERT_EQ(last.vEntries.size(), 1U);
    EXPECT_EQ(last.vEntries[0].sName, "late");
    EXPECT_EQ(last.vEntries[0].lCookie, 24U);
    EXPECT_TRUE(last.bEof);
}

TEST_F(Nfs3ProgDirectoryTest, NewListingAfterAnEndedOneIsInTheHostsOrder) {
    MakeFiles(25);
    ListAll(true);
    ::unlink(Path("file3").c_str());
    ::unlink(Path("file12").c_str());
    WriteWholeFile(Path("new"), "");
    EXPECT_EQ(ListAll(true), HostNames());
}

TEST_F(Nfs3ProgDirectoryTest, ReplyThatWasLostCanBeHadAgain) {
    MakeFiles(25);
    for (const std::uint64_t lCookie : {0U, 10U, 20U}) {
        // Apart from the directory's attributes: listing it may move its access time.
        const std::string sEntries = CallList(true, Handle(), lCookie).substr(92);
        EXPECT_EQ(Hex(CallList(true, Handle(), lCookie).substr(92)), Hex(sEntries)) << lCookie;
    }
}

// A handle names a path; another directory in that place has other entries.
TEST_F(Nfs3ProgDirectoryTest, DirectoryThatWasReplacedIsReadAnew) {
    ::mkdir(Path("dir").c_str(), 0755);
    ::mkdir(Path("other").c_str(), 0755);
    for (int i = 0; i < 25; ++i) {
        WriteWholeFile(Path("dir/a" + std::to_string(i)), "");
        WriteWholeFile(Path("other/b" + std::to_string(i)), "");
    }
    const std::string sHandle = Handle("dir");
    CallList(false, sHandle, 0);
    ASSERT_EQ(::rename(Path("dir").c_str(), Path("old").c_str()), 0);
    ASSERT_EQ(::rename(Path("other").c_str(), Path("dir").c_str()), 0);
    XdrReader reader(CallList(false, sHandle, 20));
    reader.Skip(4 + 88 + 8);
    int nEntries = 0;
    for (; reader.Bool(); ++nEntries) {
        reader.U64();
        EXPECT_THAT(reader.Opaque(), StartsWith("b"));
        reader.U64();
    }
    EXPECT_EQ(nEntries, 5);
}

TEST_F(Nfs3ProgDirectoryTest, EachClientGoesOnInItsOwnListing) {
    MakeFiles(25);
    const std::vector<std::string> vsNames = HostNames();
    List(true, 0);
    for (int i = 0; i < 5; ++i) {
        ::unlink(Path(vsNames[static_cast<std::size_t>(i)]).c_str());
    }
    m_sRemoteAddr = "10.0.0.6";
    EXPECT_EQ(List(true, 10).vEntries.front().sName, vsNames[15])
        << "nothing is kept for this client: five are skipped";
    m_sRemoteAddr = kClientID;
    EXPECT_EQ(List(true, 10).vEntries.front().sName, vsNames[10]);
}

// Two processes of one client: both remove, and the second begins while the first is at work.
TEST_F(Nfs3ProgDirectoryTest, TwoWalksOfOneClientListWhatStaysOnceEach) {
    MakeFiles(100);
    struct Walk {
        std::uint64_t lCookie = 0;
        bool bEof = false;
        std::vector<std::string> vsSeen;
    };
    Walk vWalks[2];
    const auto goOn = [&](Walk& walk) {
        const Listing listing = List(true, walk.lCookie);
        for (const Entry& entry : listing.vEntries) {
            walk.lCookie = entry.lCookie;
            walk.vsSeen.push_back(entry.sName);
            if (entry.sName.ends_with('7') || entry.sName.ends_with('3')) {
                ::unlink(Path(entry.sName).c_str());
            }
        }
        walk.bEof = listing.bEof;
    };
    goOn(vWalks[0]);
    goOn(vWalks[0]);
    while (!vWalks[0].bEof || !vWalks[1].bEof) {
        for (Walk& walk : vWalks) {
            if (!walk.bEof) {
                goOn(walk);
            }
        }
    }
    for (const std::string& sName : HostNames()) {
        EXPECT_EQ(std::ranges::count(vWalks[0].vsSeen, sName), 1) << sName;
        EXPECT_EQ(std::ranges::count(vWalks[1].vsSeen, sName), 1) << sName;
    }
    EXPECT_THAT(ListAll(true), UnorderedElementsAreArray(HostNames()));
}

TEST_F(Nfs3ProgDirectoryTest, DirectoryWithMoreNamesThanAreKeptIsListedWhole) {
    CNfs3Prog prog(&m_Utilities, 2000);
    m_pProg = &prog;
    MakeFiles(300);
    EXPECT_EQ(ListAll(false), HostNames());
    EXPECT_EQ(ListAll(true), HostNames());
    List(true, 0);
    for (int i = 0; i < 300; ++i) {
        ::unlink(Path("file" + std::to_string(i)).c_str());
    }
    EXPECT_TRUE(List(true, 10).bEof);
}

// ---- Directories that cannot be read

/// Lets every reading of a directory by this thread, and by no other, fail with EIO from now on. False if the system
/// does not let it.
bool FailReadingDirectories() {
    sock_filter vFilter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getdents64, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(vFilter), vFilter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(Nfs3ProgDirectoryTest, ReadErrorAnswers5AndNoEntries) {
    MakeFiles(25);
    const std::string sRoot = Handle();
    List(true, 0);
    bool bFilter = false;
    std::thread([&] {
        bFilter = FailReadingDirectories();
        if (!bFilter) {
            return;
        }
        for (const bool bPlus : {false, true}) {
            ExpectBareFailure(CallList(bPlus, sRoot, 0), 5, 1);
            // Five entries are kept; whether more came cannot be read.
            ExpectBareFailure(CallList(bPlus, sRoot, 20), 5, 1);
        }
    }).join();
    if (!bFilter) {
        GTEST_SKIP() << "needs seccomp filters";
    }
    EXPECT_EQ(List(true, 10).vEntries.size(), 10U) << "the listing goes on where it was";
}

TEST_F(Nfs3ProgDirectoryTest, NamesThatAreNeverListed) {
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(nullptr));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName("."));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(".."));
    for (const char* pcName : {"", "...", ".a", "a.", "..a"}) {
        EXPECT_FALSE(CNfs3Prog::IsInVaildDirName(pcName)) << pcName;
    }
}

// ---- An export of the root directory

/// Runs in a thread whose root directory is the fixture's folder, exported as "root".
class Nfs3ProgRootTest : public Nfs3ProgDirectoryTest {
protected:
    void RunAtRoot(const std::function<void()>& steps) {
        std::thread thread([&] {
            ASSERT_EQ(::unshare(CLONE_FS), 0);  // the other threads keep theirs
            ASSERT_EQ(::chroot(m_Folder.Path().c_str()), 0);
            ASSERT_EQ(::chdir("/"), 0);
            Export("/", "root");
            steps();
        });
        thread.join();
    }
    void Export(const char* pcPath, const char* pcName) {
        ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, pcPath, pcName, kIpcID, nullptr));
    }
    /// Lets an access file be in force that stands in a folder below the root.
    void Allow(const char* pcRules) {
        ASSERT_EQ(::mkdir("/etc", 0755), 0);
        WriteWholeFile("/etc/access", pcRules);
        auto pFile = std::make_unique<CAccessFile>("/etc/access");
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(pFile->Load(vcReason)) << vcReason;
        m_Utilities.SetAccessFile(std::move(pFile));
    }
    /// The root's entry of a name, as READDIRPLUS shows it.
    Entry FindEntry(const std::string& sName) {
        for (const Entry& entry : List(HandleOfPath("/"), true, 0).vEntries) {
            if (entry.sName == sName) {
                return entry;
            }
        }
        ADD_FAILURE() << sName << " is not listed";
        return {};
    }
};

TEST_F(Nfs3ProgRootTest, InnerExportThatDoesNotAdmitTheClientIsShownByItsNameAlone) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    RunAtRoot([this] {
        ASSERT_EQ(::mkdir("/inner", 0755), 0);
        ASSERT_EQ(::mkdir("/open", 0755), 0);
        Export("/inner", "inner");
        Allow("root 10.0.0.5 rw\ninner 10.0.0.6 rw\n");
        for (const int iLog : {0, 0x3FF}) {
            SetLog(iLog);
            const Entry inner = FindEntry("inner");
            EXPECT_FALSE(inner.attributes.has_value());
            EXPECT_FALSE(inner.sHandle.has_value());
            EXPECT_EQ(WordAt(Call(kNfsLookup, DirOp(HandleOfPath("/"), "inner")), 0), 5U);
            const Entry open = FindEntry("open");
            EXPECT_TRUE(open.attributes.has_value());
            EXPECT_EQ(open.sHandle, HandleOfPath("/open"));
        }
    });
}

TEST_F(Nfs3ProgRootTest, RedirectedFileIsListedWithItsVirtualSize) {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    RunAtRoot([this] {
        WriteWholeFile("/virtual", "on disk");
        m_Utilities.OpenRedirectedFile(&m_Param, "/virtual", 5000000000, false, 0, 0);
        const std::string sHandle = HandleOfPath("/virtual");
        XdrReader reader(Call(kNfsGetattr, XdrBuilder().Opaque(sHandle)));
        ASSERT_EQ(reader.U32(), 0U);
        const Fattr3 told = Fattr3::Read(reader);
        EXPECT_EQ(told.iSize, 5000000000U);
        const Entry entry = FindEntry("virtual");
        EXPECT_EQ(entry.sHandle, sHandle);
        ASSERT_TRUE(entry.attributes.has_value());
        EXPECT_EQ(entry.attributes->iSize, told.iSize);
        EXPECT_EQ(entry.attributes->iUsed, told.iUsed);
    });
}

}  // namespace
