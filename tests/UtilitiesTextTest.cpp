// Paths and texts.
#include <climits>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

class UtilitiesTextTest : public UtilitiesFixture {
protected:
    std::string GetCanonical(const std::string& sPath) {
        char vcOut[kPathBufferSize];
        m_Utilities.GetCanonicalPath(&m_Param, &m_Tag, vcOut, sPath.c_str());
        return vcOut;
    }
    static std::vector<std::string> Split(const char* pcText, char cSeparator) {
        std::vector<std::string> vPieces;
        CUtilities::SplitIntoVector(pcText, cSeparator, vPieces);
        return vPieces;
    }
    static std::string Printable(unsigned long long iBytes) {
        char vcText[32];
        CUtilities::GetPrintableFileSize(iBytes, vcText);
        return vcText;
    }
    using Pieces = std::vector<std::string>;
};

TEST_F(UtilitiesTextTest, CanonicalPathResolvesLinksAndDots) {
    MakeFile("file", "");
    ASSERT_EQ(::symlink("file", (m_Folder / "link").c_str()), 0);
    EXPECT_EQ(GetCanonical(m_Folder.Path() + "/./link"), m_Folder / "file");
    EXPECT_EQ(TakeLog('i'), Pieces{"[Test] Get canonical path successfully: " + (m_Folder / "file")});
}

TEST_F(UtilitiesTextTest, PathThatDoesNotExistIsReturnedUnchanged) {
    const std::string sPath = m_Folder.Path() + "/no/../such//file/";
    EXPECT_EQ(GetCanonical(sPath), sPath);
    EXPECT_EQ(TakeLog('i'), Pieces{"[Test] Fail to get canonical path from non-exist path: " + sPath});
}

TEST_F(UtilitiesTextTest, CanonicalPathIsSilentWithoutGeneralInfo) {
    m_Param.SetLogControl(~CRuntimeParam::kLogGeneralInfo);
    GetCanonical("/tmp");
    GetCanonical("/no/such/file");
    EXPECT_EQ(TakeLog(), Pieces());
}

TEST_F(UtilitiesTextTest, CanonicalPathMayBeResolvedInPlace) {
    char vcPath[kPathBufferSize];
    std::snprintf(vcPath, sizeof(vcPath), "%s/.", m_Folder.Path().c_str());
    m_Utilities.GetCanonicalPath(&m_Param, &m_Tag, vcPath, vcPath);
    EXPECT_EQ(vcPath, m_Folder.Path());
    std::snprintf(vcPath, sizeof(vcPath), "no/such/file");
    m_Utilities.GetCanonicalPath(&m_Param, &m_Tag, vcPath, vcPath);
    EXPECT_STREQ(vcPath, "no/such/file");
}

TEST_F(UtilitiesTextTest, CanonicalPathNeverOverrunsItsBuffer) {
    const std::string sLong = "/" + std::string(9000, 'x');
    EXPECT_EQ(GetCanonical(sLong), "") << "its beginning would be another path";
    EXPECT_EQ(TakeLog('i')[0].size(), kMessageBufferSize - 1) << "the log line is cut, too";
    EXPECT_EQ(GetCanonical(""), "");
    char vcOut[kPathBufferSize] = "x";
    m_Utilities.GetCanonicalPath(&m_Param, &m_Tag, vcOut, nullptr);
    EXPECT_STREQ(vcOut, "");
}

TEST_F(UtilitiesTextTest, CanonicalTextIsThePathAsGivenWhereItDoesNotFit) {
    const auto get = [this](const char* pcPath) {
        return m_Utilities.GetCanonicalText({&m_Utilities, &m_Param, &m_Tag}, pcPath);
    };
    EXPECT_EQ(get((m_Folder.Path() + "/.").c_str()), m_Folder.Path());
    for (const std::size_t nLength : {kPathBufferSize - 1, kPathBufferSize, std::size_t{9000}}) {
        const std::string sLong = "/" + std::string(nLength - 1, 'x');
        EXPECT_EQ(get(sLong.c_str()), sLong);
    }
    EXPECT_EQ(get(""), "");
    EXPECT_EQ(get(nullptr), "");
}

TEST_F(UtilitiesTextTest, PathToCompareEndsInOneSlashUnlessEmpty) {
    for (const auto& [pcGiven, pcExpected] : {std::pair{"", ""}, {"/", "/"}, {"/a", "/a/"}, {"/a/", "/a/"}}) {
        char vcPath[kPathBufferSize];
        std::snprintf(vcPath, sizeof(vcPath), "%s", pcGiven);
        CUtilities::SetPathToCompare(vcPath);
        EXPECT_STREQ(vcPath, pcExpected);
        std::string sPath = pcGiven;
        CUtilities::SetPathToCompare(sPath);
        EXPECT_EQ(sPath, pcExpected);
    }
}

TEST_F(UtilitiesTextTest, PathToCompareStopsAtTheEndOfItsBuffer) {
    std::string sBuffer(kPathBufferSize - 1, 'x');
    CUtilities::SetPathToCompare(sBuffer.data());
    EXPECT_EQ(sBuffer, std::string(kPathBufferSize - 1, 'x'));
}

TEST_F(UtilitiesTextTest, SplittingKeepsEmptyPiecesButATrailingOne) {
    EXPECT_EQ(Split("a b", ' '), (Pieces{"a", "b"}));
    EXPECT_EQ(Split("a", ' '), Pieces{"a"});
    EXPECT_EQ(Split(" a", ' '), (Pieces{"", "a"}));
    EXPECT_EQ(Split("a  b", ' '), (Pieces{"a", "", "b"}));
    EXPECT_EQ(Split("a b ", ' '), (Pieces{"a", "b"}));
    EXPECT_EQ(Split("a  ", ' '), (Pieces{"a", ""}));
    EXPECT_EQ(Split("/a/b", '/'), (Pieces{"", "a", "b"}));
    EXPECT_EQ(Split(" ", ' '), Pieces{""});
    EXPECT_EQ(Split("", ' '), Pieces());
    EXPECT_EQ(Split(nullptr, ' '), Pieces());
}

TEST_F(UtilitiesTextTest, SplittingAppends) {
    Pieces vPieces{"before"};
    CUtilities::SplitIntoVector("a=b", '=', vPieces);
    EXPECT_EQ(vPieces, (Pieces{"before", "a", "b"}));
}

TEST_F(UtilitiesTextTest, PrintableSizeMovesOnStrictlyAboveOneUnit) {
    EXPECT_EQ(Printable(0), "0.0B");
    EXPECT_EQ(Printable(1), "1.0B");
    EXPECT_EQ(Printable(1023), "1023.0B");
    EXPECT_EQ(Printable(1024), "1024.0B");
    EXPECT_EQ(Printable(1025), "1.0KB");
    EXPECT_EQ(Printable(1536), "1.5KB");
    EXPECT_EQ(Printable(2048), "2.0KB");
    EXPECT_EQ(Printable(1048576), "1024.0KB");
    EXPECT_EQ(Printable(1ULL << 21), "2.0MB");
    EXPECT_EQ(Printable(1ULL << 31), "2.0GB");
    EXPECT_EQ(Printable(1ULL << 41), "2.0TB");
    EXPECT_EQ(Printable(1ULL << 51), "2.0PB");
    EXPECT_EQ(Printable(1ULL << 60), "1024.0PB");
    EXPECT_EQ(Printable(1ULL << 61), "2.0EB");
    EXPECT_EQ(Printable(ULLONG_MAX), "16.0EB");
}

TEST_F(UtilitiesTextTest, TimeCountsMillisecondsSince1970) {
    const auto iBefore = static_cast<unsigned long long>(std::time(nullptr)) * 1000;
    const unsigned long long iNow = CUtilities::GetCurrentSystemTimeInMilliseconds();
    EXPECT_GE(iNow, iBefore);
    EXPECT_LT(iNow, iBefore + 60000);
}

}  // namespace
