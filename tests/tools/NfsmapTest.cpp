// nfsmap, as a user runs it.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class NfsmapTest : public testing::Test {
protected:
    RunResult Run(std::vector<std::string> vsArguments) {
        vsArguments.insert(vsArguments.begin(), BuildTree() + "/bin/nfsmap");
        return RunProgram(vsArguments);
    }
    std::string MakeMap(const std::string& sContent) {
        WriteWholeFile(m_Folder / "disk.map", sContent);
        return m_Folder / "disk.map";
    }

    TempFolder m_Folder;
};

constexpr const char* kWhole =
    "Segment path=/full, fox=4096, ox=0, len=1048576\n"
    "Segment path=Null, fox=0, ox=1048576, len=1024\n";
constexpr const char* kBroken =
    "Segment path=/full, fox=0, ox=0, len=1000\n"
    "Segment path=/incr, fox=5, ox=500, len=1000\n"
    "Segment path=/full, fox=0, ox=2000, len=48\n";

TEST_F(NfsmapTest, TableAndSummaryTellTheWholeMap) {
    const RunResult result = Run({MakeMap(kBroken)});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(
        result.sOutput,
        "                from                   to     length  what stands there\n"
        "                   0                  500      500 B  /full from 0 on (segment 0)\n"
        "                 500                 1000      500 B  /full from 500 on (segment 0, others lie under it)\n"
        "                1000                 1500      500 B  /incr from 505 on (segment 1)\n"
        "                1500                 2000      500 B  hole\n"
        "                2000                 2048       48 B  /full from 0 on (segment 2)\n"
        "\n"
        "map        info dump, 3 segments, 2 sources, 2.0 KiB\n"
        "data       1.5 KiB\n"
        "zeros      0 B\n"
        "holes      1, 500 B in all; the first at 1500: name zeros by segments with an empty source\n"
        "overlaps   1, 500 B in all; the first at 500: the segment added first holds\n"
        "order      increasing\n");
}

TEST_F(NfsmapTest, OffsetsAreToldOneByOne) {
    const RunResult result = Run({"--at", "0x3E8", "--at", "1700", "--at", "2K", "--at", "1M", MakeMap(kBroken)});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput,
              "1000: /incr at 505 (segment 1, from 1000 to 1500)\n"
              "1700: hole, from 1500 to 2000\n"
              "2048: at or behind the end (2048)\n"
              "1048576: at or behind the end (2048)\n");
}

TEST_F(NfsmapTest, CheckIsSilentAboutAWholeMapAndFailsForABrokenOne) {
    RunResult result = Run({"--check", MakeMap(kWhole)});
    EXPECT_EQ(result.iStatus, 0);
    EXPECT_EQ(result.sOutput, "");
    result = Run({"--check", "--size", "2M", MakeMap(kWhole)});
    EXPECT_EQ(result.iStatus, 1) << "a hole at the end";
    result = Run({"--check", MakeMap(kBroken)});
    EXPECT_EQ(result.iStatus, 1);
    EXPECT_THAT(result.sOutput, HasSubstr("holes      1,"));
}

TEST_F(NfsmapTest, PictureShowsSourcesAndMarks) {
    const std::string sPicture = m_Folder / "disk.svg";
    const RunResult result = Run({"--svg", sPicture, "--at", "1200", "--at", "1700", MakeMap(kBroken)});
    EXPECT_EQ(result.iStatus, 0) << result.sOutput;
    const std::string sText = ReadWholeFile(sPicture);
    EXPECT_THAT(sText, StartsWith("<svg xmlns=\"http://www.w3.org/2000/svg\""));
    EXPECT_THAT(sText, testing::EndsWith("</svg>\n"));
    for (const char* pcPart : {">disk.map<", ">/full<", ">/incr<", ">A<", ">B<", "1700: hole, from 1500 to 2000"}) {
        EXPECT_THAT(sText, HasSubstr(pcPart));
    }
}

TEST_F(NfsmapTest, ThePictureInTheDocumentsIsTheOneItDraws) {
    const std::string sPictures = SourceTree() + "/docs/pictures/";
    const std::string sPicture = m_Folder / "new.svg";
    ASSERT_EQ(Run({"--svg", sPicture, "--at", "700M", "--at", "750M", sPictures + "disk.map"}).iStatus, 0);
    EXPECT_TRUE(ReadWholeFile(sPicture) == ReadWholeFile(sPictures + "disk.svg"))
        << "draw it anew: nfsmap --svg disk.svg --at 700M --at 750M disk.map";
}

TEST_F(NfsmapTest, WrongUsageEndsWithItsReason) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> vCases{
        {{}, "nfsmap: no file named\n"},
        {{"--foo"}, "nfsmap: unknown option: --foo\n"},
        {{"a", "b"}, "nfsmap: one file at a time: b\n"},
        {{"a", "--at"}, "nfsmap: no value behind --at\n"},
        {{"--at", "12Q", "a"}, "nfsmap: not a number of bytes: 12Q\n"},
        {{"--at", "-1", "a"}, "nfsmap: not a number of bytes: -1\n"},
        {{"--size", "9999999999T", "a"}, "nfsmap: not a number of bytes: 9999999999T\n"},
        {{"--segment-size", "0", "a"}, "nfsmap: must be greater than 0: 0\n"},
        {{"--at", " 5", "a"}, "nfsmap: not a number of bytes:  5\n"},
        {{"--svg", "", "a"}, "nfsmap: no value behind --svg\n"},
        {{"", "a"}, "nfsmap: a file without a name\n"}};
    for (const auto& [vsArguments, sReason] : vCases) {
        const RunResult result = Run(vsArguments);
        EXPECT_EQ(result.iStatus, 2);
        EXPECT_THAT(result.sOutput, StartsWith("usage: nfsmap"));
        EXPECT_THAT(result.sOutput, testing::EndsWith(sReason));
    }
}

TEST_F(NfsmapTest, ANumberThatBeginsWithAZeroIsDecimal) {
    EXPECT_THAT(Run({"--at", "010", MakeMap(kBroken)}).sOutput, StartsWith("10: /full at 10 "));
}

TEST_F(NfsmapTest, APictureDoesNotTakeThePlaceOfItsMap) {
    const std::string sMap = MakeMap(kWhole);
    const std::string sLink = m_Folder / "link";
    ASSERT_EQ(::symlink(sMap.c_str(), sLink.c_str()), 0);
    for (const std::string& sPicture : {sMap, sLink}) {
        const RunResult result = Run({"--svg", sPicture, sMap});
        EXPECT_EQ(result.iStatus, 3);
        EXPECT_EQ(result.sOutput, "nfsmap: \"" + sPicture + "\": this is the map itself\n");
        EXPECT_EQ(ReadWholeFile(sMap), kWhole);
    }
}

TEST_F(NfsmapTest, FilesThatCannotBeReadOrWrittenFailWithAReason) {
    RunResult result = Run({m_Folder / "missing"});
    EXPECT_EQ(result.iStatus, 3);
    EXPECT_EQ(result.sOutput, "nfsmap: \"" + (m_Folder / "missing") + "\": No such file or directory\n");
    result = Run({m_Folder.Path()});
    EXPECT_EQ(result.iStatus, 3);
    result = Run({"--svg", m_Folder / "none/disk.svg", MakeMap(kWhole)});
    EXPECT_EQ(result.iStatus, 3);
    EXPECT_THAT(result.sOutput, HasSubstr("cannot be written"));
    result = Run({"--dump", MakeMap("Segment path=/a, fox=1")});
    EXPECT_EQ(result.iStatus, 3);
    EXPECT_THAT(result.sOutput, HasSubstr("the info dump ends within a line"));
}

/// With the device as standard output that is always full.
class NfsmapOutputTest : public NfsmapTest {
protected:
    RunResult RunIntoFullDevice(const std::string& sArguments) {
        return RunProgram({"/bin/sh", "-c", BuildTree() + "/bin/nfsmap " + sArguments + " >/dev/full"});
    }
};

TEST_F(NfsmapOutputTest, AShortTableThatCannotBeWrittenIsAFailure) {
    const RunResult result = RunIntoFullDevice(MakeMap(kBroken));
    EXPECT_EQ(result.iStatus, 3);
    EXPECT_EQ(result.sOutput, "nfsmap: standard output: No space left on device\n");
}

TEST_F(NfsmapOutputTest, ALongTableThatCannotBeWrittenIsAFailure) {
    std::string sMap;
    for (int i = 0; i < 5000; ++i) {
        sMap += "Segment path=/full, fox=" + std::to_string(7 * i) + ", ox=" + std::to_string(i) + ", len=1\n";
    }
    const RunResult result = RunIntoFullDevice(MakeMap(sMap));
    EXPECT_EQ(result.iStatus, 3);
    EXPECT_EQ(result.sOutput, "nfsmap: standard output: No space left on device\n");
}

TEST_F(NfsmapOutputTest, WhateverElseCannotBeWrittenIsAFailure) {
    const std::string sMap = MakeMap(kBroken);
    for (const std::string& sArguments : {"--check " + sMap, "--at 5 " + sMap, std::string("--help")}) {
        EXPECT_EQ(RunIntoFullDevice(sArguments).iStatus, 3) << sArguments;
    }
    const std::string sClosed = BuildTree() + "/bin/nfsmap " + sMap + " >&-";
    EXPECT_EQ(RunProgram({"/bin/sh", "-c", sClosed}).iStatus, 3);
}

}  // namespace
