// SegmentMap: the layout it makes is the one that reads find.
#include "SegmentMap.h"

#include <ctime>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MapPicture.h"
#include "RedirectedFileFixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Lines = std::vector<std::string>;

bool operator==(const Stretch& left, const Stretch& right) {
    return left.iFrom == right.iFrom && left.iTo == right.iTo && left.iSegment == right.iSegment &&
           left.bOverlap == right.bOverlap;
}

constexpr std::size_t kHole = Stretch::kNoSegment;

SegmentMap FromRecords(const std::vector<Segment>& vRecords, const std::string& sBehind = "") {
    std::string sContent(reinterpret_cast<const char*>(vRecords.data()), vRecords.size() * kSegmentRecordSize);
    return SegmentMap::Parse(sContent + sBehind, SegmentMap::Form::kInfoFile);
}

TEST(SegmentMapTest, EmptyFileIsAnEmptyMap) {
    const SegmentMap map = SegmentMap::Parse("", SegmentMap::Form::kGuess);
    EXPECT_EQ(map.GetSegments().size(), 0U);
    EXPECT_EQ(map.GetEnd(), 0);
    EXPECT_TRUE(map.MakeStretches(0).empty());
    EXPECT_EQ(map.MakeStretches(10).size(), 1U) << "one hole";
}

TEST(SegmentMapTest, OfOverlappingSegmentsTheOneAddedFirstHolds) {
    const SegmentMap map = FromRecords({{0, 0, 10, 20}, {1, 0, 20, 20}, {2, 0, 0, 100}});
    const std::vector<Stretch> vStretches = map.MakeStretches(100);
    ASSERT_EQ(vStretches.size(), 4U);
    EXPECT_TRUE(vStretches[0] == (Stretch{0, 10, 2, false}));
    EXPECT_TRUE(vStretches[1] == (Stretch{10, 30, 0, true}));
    EXPECT_TRUE(vStretches[2] == (Stretch{30, 40, 1, true}));
    EXPECT_TRUE(vStretches[3] == (Stretch{40, 100, 2, false}));
}

TEST(SegmentMapTest, HolesAreToldInFrontBetweenAndBehind) {
    const SegmentMap map = FromRecords({{0, 0, 10, 10}, {0, 10, 30, 10}});
    const std::vector<Stretch> vStretches = map.MakeStretches(50);
    ASSERT_EQ(vStretches.size(), 5U);
    EXPECT_TRUE(vStretches[0] == (Stretch{0, 10, kHole, false}));
    EXPECT_TRUE(vStretches[2] == (Stretch{20, 30, kHole, false}));
    EXPECT_TRUE(vStretches[4] == (Stretch{40, 50, kHole, false}));
}

TEST(SegmentMapTest, SegmentsAreCutAtTheSizeGiven) {
    const SegmentMap map = FromRecords({{0, 0, 0, 10}, {0, 0, 10, 100}, {0, 0, 200, 5}});
    const std::vector<Stretch> vStretches = map.MakeStretches(50);
    ASSERT_EQ(vStretches.size(), 2U);
    EXPECT_TRUE(vStretches[1] == (Stretch{10, 50, 1, false}));
}

TEST(SegmentMapTest, DamagedRecordsDoNoHarm) {
    const SegmentMap map = FromRecords(
        {{-5, -1, INT64_MAX, INT64_MAX}, {0, INT64_MAX, -10, 5}, {0, 0, INT64_MIN, INT64_MIN}, {0, 0, 0, 0}}, "odd");
    EXPECT_EQ(map.GetTail(), 3U);
    EXPECT_EQ(map.MakeStretches(100).size(), 1U) << "a hole";
    const LaidOutMap laidOut(map, map.GetEnd());
    EXPECT_FALSE(Summarize(laidOut, {}).bComplete);
    EXPECT_FALSE(DrawMap(laidOut, "damaged", {0, INT64_MAX}).empty());
}

TEST(SegmentMapTest, FilesOfAnotherKindAreRefused) {
    EXPECT_THROW(SegmentMap::Parse(std::string(64, 'x'), SegmentMap::Form::kGuess), MapError);
    EXPECT_THROW(SegmentMap::Parse("Segment path=/a, fox=1, ox=2", SegmentMap::Form::kGuess), MapError);
    EXPECT_THROW(SegmentMap::Parse("--> nothing of ours\n", SegmentMap::Form::kGuess), MapError);
    EXPECT_THROW(
        SegmentMap::Parse("Segment path=/a, fox=99999999999999999999, ox=2, len=3\n", SegmentMap::Form::kGuess),
        MapError);
}

TEST(SegmentMapTest, NamesInADumpMayHoldAnything) {
    const SegmentMap map = SegmentMap::Parse(
        "--> CheckPoint Segment fox=0, ox=1073741824\n-------------------\n"
        "Segment path=/a, fox=1, ox=2, len=3, fox=4, ox=0, len=6\n"
        "Segment path=/two\nlines, fox=7, ox=6, len=9\n"
        "Segment path=Null, fox=0, ox=15, len=1\n",
        SegmentMap::Form::kGuess);
    EXPECT_EQ(map.GetForm(), SegmentMap::Form::kInfoDump);
    EXPECT_EQ(map.GetSources(), (Lines{"/a, fox=1, ox=2, len=3", "/two\nlines"}));
    ASSERT_EQ(map.GetSegments().size(), 3U);
    EXPECT_EQ(map.GetSegments()[0].iFileOffset, 4);
    EXPECT_EQ(map.GetSegments()[1].iOffset, 6);
    EXPECT_EQ(map.GetSegments()[2].iSource, -1);
}

TEST(SegmentMapTest, PictureEscapesNames) {
    const SegmentMap map =
        SegmentMap::Parse("Segment path=/<a>&\"\x01, fox=0, ox=0, len=6\n", SegmentMap::Form::kInfoDump);
    const std::string sPicture = DrawMap(LaidOutMap(map, 6), "<title>", {});
    EXPECT_THAT(sPicture, HasSubstr("/&lt;a&gt;&amp;&quot;?"));
    EXPECT_THAT(sPicture, HasSubstr("&lt;title&gt;"));
}

TEST(SegmentMapTest, PictureIsUtf8WhateverStandsInNames) {
    const SegmentMap map = SegmentMap::Parse(
        "Segment path=/\xC3\xA4\xFF\xE2\x82\xAC\xC3(\xED\xA0\x80\xEF\xBF\xBF\xF0\x9F\x98\x80\xE2\x82, fox=0, ox=0, "
        "len=6\n",
        SegmentMap::Form::kInfoDump);
    const std::string sPicture = DrawMap(LaidOutMap(map, 6), "\x80title", {0});
    EXPECT_THAT(sPicture, HasSubstr(">?title<"));
    const std::string sName = "/\xC3\xA4?\xE2\x82\xAC?(????\xF0\x9F\x98\x80??";
    EXPECT_THAT(sPicture, HasSubstr(">" + sName + "<")) << "the band";
    EXPECT_THAT(sPicture, HasSubstr("0: " + sName + " at 0")) << "the mark";
}

TEST(SegmentMapTest, PictureOfManySegmentsStaysSmallAndShowsTheOneHole) {
    std::vector<Segment> vRecords;
    for (int i = 0; i < 100000; ++i) {
        vRecords.push_back({i % 30, i * kMiB, (i + (i >= 50000 ? 1 : 0)) * kMiB, kMiB});
    }
    const SegmentMap map = FromRecords(vRecords);
    const std::string sPicture = DrawMap(LaidOutMap(map, map.GetEnd()), "many", {});
    EXPECT_LT(sPicture.size(), 1500000U);
    const std::size_t iHole = sPicture.find("fill=\"url(#hole)\"");
    EXPECT_NE(sPicture.find("fill=\"url(#hole)\"", iHole + 1), std::string::npos) << "only the legend shows a hole";
}

TEST(SegmentMapTest, SizesArePrintedInBinaryUnits) {
    EXPECT_EQ(FormatSize(0), "0 B");
    EXPECT_EQ(FormatSize(1023), "1023 B");
    EXPECT_EQ(FormatSize(1536), "1.5 KiB");
    EXPECT_EQ(FormatSize(INT64_MAX), "8.0 EiB");
}

// ---- Large maps

/// Records that are check points all, at multiples of these steps.
constexpr SearchSteps kSteps{kMiB, 8 * kMiB};

/// Where the server's search for an offset begins, by the walk from the last check point back.
std::int64_t WalkBack(const std::vector<Segment>& vRecords, std::int64_t iOffset) {
    for (std::size_t i = vRecords.size(); iOffset >= kSteps.iCheckPointSize && i-- > 0;) {
        const std::int64_t iPoint = vRecords[i].iOffset;
        if (iPoint >= 1 && iPoint % kSteps.iCheckPointSize == 0 && iPoint <= iOffset) {
            return (iOffset - iPoint) / kSteps.iSegmentSize + static_cast<std::int64_t>(i);
        }
    }
    return iOffset / kSteps.iSegmentSize;
}

TEST(SegmentMapTest, CheckPointsInAnyOrderAreTakenAsAWalkBackTakesThem) {
    std::mt19937 random(7);
    std::size_t nLost = 0;
    for (int iMap = 0; iMap < 200; ++iMap) {
        std::vector<Segment> vRecords;
        for (int i = 0; i < 60; ++i) {
            const auto iOffset = static_cast<std::int64_t>(random() % 500) * (random() % 2 == 0 ? kMiB : 8 * kMiB);
            vRecords.push_back({0, 0, iOffset, 1 + static_cast<std::int64_t>(random() % (12 * kMiB))});
        }
        const std::vector<std::size_t> viLost = FromRecords(vRecords).FindUnreachable(kSteps);
        for (std::size_t i = 0; i < vRecords.size(); ++i) {
            const Segment& record = vRecords[i];
            const bool bLost =
                std::max(WalkBack(vRecords, record.iOffset), WalkBack(vRecords, record.iOffset + record.iLength - 1)) >
                static_cast<std::int64_t>(i);
            EXPECT_EQ(std::ranges::find(viLost, i) != viLost.end(), bLost) << "map " << iMap << ", record " << i;
        }
        nLost += viLost.size();
    }
    EXPECT_GT(nLost, 1000U) << "the test wants maps that lose records";
}

/// Seconds of the processor that something takes, the best of three.
template <class Action>
double Time(Action action) {
    double fBest = 1e9;
    for (int iRound = 0; iRound < 3; ++iRound) {
        const std::clock_t start = std::clock();
        action();
        fBest = std::min(fBest, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    }
    return fBest;
}

/// Does what is done to something of this size take sixteen times as long for sixteen times the size, and not 256
/// times?
template <class Make, class Use>
void ExpectLinear(int nSize, Make make, Use use) {
    const auto small = make(nSize);
    const auto large = make(16 * nSize);
    const double fSmall = Time([&] { use(small); });
    const double fLarge = Time([&] { use(large); });
    EXPECT_LT(fLarge, fSmall * 80) << "small " << fSmall << " s, large " << fLarge << " s";
}

TEST(LargeMapTest, TimeToFindLostRecordsGrowsAsTheirNumber) {
    const auto make = [](int nRecords) {
        std::vector<Segment> vRecords;
        for (int i = 0; i < nRecords; ++i) {
            vRecords.push_back({0, 0, i * kSteps.iCheckPointSize, 1});
        }
        return FromRecords(vRecords);
    };
    ExpectLinear(4000, make, [](const SegmentMap& map) { EXPECT_TRUE(map.FindUnreachable(kSteps).empty()); });
}

TEST(LargeMapTest, TimeToReadANameOfManyLinesGrowsAsTheirNumber) {
    const auto make = [](int nLines) {
        std::string sDump = "Segment path=";
        for (int i = 0; i < nLines; ++i) {
            sDump += "line\n";
        }
        return sDump + ", fox=0, ox=0, len=1\n";
    };
    ExpectLinear(2000, make, [](const std::string& sDump) {
        EXPECT_EQ(SegmentMap::Parse(sDump, SegmentMap::Form::kInfoDump).GetSegments().size(), 1U);
    });
}

TEST(LargeMapTest, TimeToReadManySourcesGrowsAsTheirNumber) {
    const auto make = [](int nSources) {
        std::string sDump;
        for (int i = 0; i < nSources; ++i) {
            sDump += "Segment path=/" + std::to_string(1000000 + i) + ", fox=0, ox=" + std::to_string(i) + ", len=1\n";
        }
        return sDump;
    };
    ExpectLinear(1000, make, [](const std::string& sDump) {
        const SegmentMap map = SegmentMap::Parse(sDump, SegmentMap::Form::kInfoDump);
        EXPECT_EQ(map.GetSources().size(), map.GetSegments().size());
        EXPECT_EQ(map.GetSegments().back().iSource, static_cast<std::int64_t>(map.GetSources().size()) - 1);
    });
}

/// The server's own maps beside what nfsmap makes of their files.
class SegmentMapAgainstServerTest : public RedirectedFileFixture {
protected:
    static constexpr long long kSize = 96 * kMiB;

    /// Segments of at most 3 MiB that do not overlap; some out of order, some left out.
    void AddRandomSegments(unsigned int iSeed) {
        std::mt19937 random(iSeed);
        std::vector<Segment> vSegments;
        for (long long iOffset = 0; iOffset < kSize;) {
            const long long nLength = 1 + static_cast<long long>(random() % (3 * kMiB));
            if (random() % 8 != 0) {
                vSegments.push_back({static_cast<long long>(random() % 2), 0, iOffset, nLength});
            }
            iOffset += nLength;
        }
        for (int i = 0; i < 4; ++i) {
            std::swap(vSegments[random() % vSegments.size()], vSegments[random() % vSegments.size()]);
        }
        for (const Segment& segment : vSegments) {
            ASSERT_TRUE(Add(segment.iSource == 0 ? A() : B(), segment.iFileOffset, segment.iOffset, segment.iLength));
        }
    }

    ProcSegment Find(long long iOffset) {
        ProcSegment found;
        m_File.GetSegment(&m_Param, iOffset, &found);
        return found;
    }
};

class SegmentMapSeedTest : public SegmentMapAgainstServerTest, public testing::WithParamInterface<unsigned int> {};

TEST_P(SegmentMapSeedTest, RecordsThatTheServerDoesNotFindAreToldAndNoOthers) {
    constexpr int kSegmentMiB = 1;
    constexpr int kCheckPointMiB = 8;
    m_Param.SetLogControl(0);
    OpenWithInfoFile(kSize, kSegmentMiB, kCheckPointMiB);
    AddRandomSegments(GetParam());
    const SegmentMap map = SegmentMap::Load(Info(), SegmentMap::Form::kInfoFile);
    const auto viLost = map.FindUnreachable({kSegmentMiB * kMiB, kCheckPointMiB * kMiB});
    EXPECT_GT(viLost.size(), 0U) << "the test wants a map that loses records";
    for (std::size_t i = 0; i < map.GetSegments().size(); ++i) {
        const Segment& record = map.GetSegments()[i];
        const ProcSegment found = Find(record.iOffset);
        const bool bFound = found.index >= 0 && Find(record.iOffset + record.iLength - 1).index >= 0;
        EXPECT_EQ(bFound, std::ranges::find(viLost, i) == viLost.end()) << "record " << i;
        if (bFound) {
            EXPECT_EQ(found.segment.iOffset, record.iOffset);
            EXPECT_EQ(found.segment.iFileOffset, record.iFileOffset);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Maps, SegmentMapSeedTest, testing::Range(1U, 6U));

TEST_F(SegmentMapAgainstServerTest, StretchesOfADumpAreWhatReadsDeliver) {
    constexpr long long kSmall = 900;
    OpenInMemory(kSmall);
    ASSERT_TRUE(Add(A(), 10, 0, 300));
    ASSERT_TRUE(Add(B(), 0, 200, 300));
    ASSERT_TRUE(Add("", 0, 500, 100));
    ASSERT_TRUE(Add(A(), 500, 550, 350));
    const std::string sOut = m_Folder / "dump";
    WriteWholeFile(sOut, "");
    LogArgu tag{"test"};
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), "data", "", nullptr));
    m_File.ExportInfo(&m_Param, sOut.c_str(), false);

    const SegmentMap map = SegmentMap::Load(sOut, SegmentMap::Form::kGuess);
    const LaidOutMap laidOut(map, kSmall);
    EXPECT_THAT(map.GetSources(), ElementsAre(A(), B()));
    for (const Stretch& stretch : laidOut.vStretches) {
        const std::string sExpected =
            laidOut.IsZeros(stretch)
                ? Zeros(1)
                : ReadWholeFile(laidOut.GetSourceName(stretch))
                      .substr(static_cast<std::size_t>(laidOut.GetSourceOffset(stretch, stretch.iFrom)), 1);
        EXPECT_EQ(Read(static_cast<unsigned long long>(stretch.iFrom), 1).sData, sExpected) << stretch.iFrom;
    }
}

}  // namespace
