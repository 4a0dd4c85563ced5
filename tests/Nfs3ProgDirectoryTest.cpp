// READDIR and READDIRPLUS: replies byte by byte, cookies, and directories of many sizes.
#include <gmock/gmock.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Nfs3ProgFixture.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

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
        DIR* pDir = opendir(m_Folder.Path().c_str());
        while (const dirent* pEntry = readdir(pDir)) {
            if (!CNfs3Prog::IsInVaildDirName(pEntry->d_name)) {
                vsNames.emplace_back(pEntry->d_name);
            }
        }
        closedir(pDir);
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
        XdrReader reader(CallList(bPlus, Handle(), lCookie, lVerf));
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
    const unsigned int iID = m_Utilities.GetFileID(&m_RuntimeParam, &m_LogArgu, Path("hello").c_str());
    EXPECT_EQ(Hex(sReply.substr(92)),
              Hex(XdrBuilder().U64(7).U32(1).U64(iID).Opaque("hello").U64(1).U32(0).U32(1).Bytes()));
}

TEST_F(Nfs3ProgDirectoryTest, EntryOfReaddirplusByteByByte) {
    WriteWholeFile(Path("hello"), "12345");
    const std::string sReply = CallList(true, Handle(), 0, 7);
    const unsigned int iID = m_Utilities.GetFileID(&m_RuntimeParam, &m_LogArgu, Path("hello").c_str());
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
        ASSERT_EQ(stat(Path(entry.sName).c_str(), &status), 0);
        EXPECT_EQ(entry.lFileid, m_Utilities.GetFileID(&m_RuntimeParam, &m_LogArgu, Path(entry.sName).c_str()));
        ASSERT_TRUE(entry.attributes.has_value());
        EXPECT_EQ(entry.attributes->iFileid, status.st_ino);
        EXPECT_EQ(entry.attributes->iSize, static_cast<std::uint64_t>(status.st_size));
        EXPECT_EQ(entry.sHandle, Handle(entry.sName));
    }
}

TEST_F(Nfs3ProgDirectoryTest, LinkIsListedAsItselfWithItsTargetsHandle) {
    const TempFolder other;
    mkdir(Path("dir").c_str(), 0755);
    ASSERT_EQ(symlink("dir", Path("link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", Path("dangling").c_str()), 0);
    for (const int iLog : {0, 0x3FF}) {
        SetLog(iLog);
        for (const Entry& entry : List(true, 0).vEntries) {
            ASSERT_TRUE(entry.attributes.has_value());
            EXPECT_EQ(entry.attributes->iType, entry.sName == "dir" ? 2U : 5U) << entry.sName;
            EXPECT_EQ(entry.sHandle, Handle(entry.sName == "link" ? "dir" : entry.sName)) << entry.sName;
        }
    }
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
    ASSERT_EQ(chdir(sDeep.c_str()), 0);
    while (sDeep.size() < 4080) {
        const std::string sStep(std::min<std::size_t>(200, 4090 - sDeep.size() - 1), 'd');
        ASSERT_EQ(mkdir(sStep.c_str(), 0755), 0);
        ASSERT_EQ(chdir(sStep.c_str()), 0);
        sDeep += "/" + sStep;
    }
    const std::string sName(20, 'n');
    ASSERT_EQ(mkdir(sName.c_str(), 0755), 0);
    ASSERT_EQ(chdir("/"), 0);
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
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int iNext = dup(0);
    close(iNext);
    ASSERT_EQ(WordAt(Call(kNfsRead, XdrBuilder().Opaque(Handle("file1")).U64(0).U32(1)), 0), 0U);
    const rlimit lower{static_cast<rlim_t>(iNext) + 1, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);
    const Listing listing = List(false, 0);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(listing.vEntries.size(), 3U);
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

TEST_F(Nfs3ProgDirectoryTest, LinesOfReaddir) {
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
    EXPECT_THAT(TakeLog(), ElementsAre("[Nfs3Prog.ProcedureREADDIRPLUS] Cookie=3, cookieverf=7, dircount=1, maxcount=2",
                                       "[Nfs3Prog.ProcedureREADDIRPLUS] End stat=5"));
}

// An entry's lines come in the order of its reply: ID, name, attributes, handle.
TEST_F(Nfs3ProgDirectoryTest, LinesOfAnEntry) {
    mkdir(Path("hello").c_str(), 0755);
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
            EXPECT_THAT(vsEntry, ElementsAre(sCanonical, sName, sEnd));
        }
    }
}

TEST_F(Nfs3ProgDirectoryTest, NamesThatAreNeverListed) {
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(nullptr));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName("."));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(".."));
    for (const char* pcName : {"", "...", ".a", "a.", "..a"}) {
        EXPECT_FALSE(CNfs3Prog::IsInVaildDirName(pcName)) << pcName;
    }
}

}  // namespace
