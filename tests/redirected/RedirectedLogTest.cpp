// Every log line of a redirected file, in its order, is the reference model's.
//
// The reads of RedirectedModelTest run without logs; with them an info file is walked record by record.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RedirectedFile.h"
#include "ReferenceModel.h"
#include "TempFolder.h"

namespace {

using Lines = std::vector<std::string>;

constexpr std::int64_t kMiB = 1 << 20;

/// Lets descriptors go by their paths; "#" for one that is not known (any more).
std::string NameDescriptor(const std::string& sLine, const std::map<std::string, std::string>& mNames) {
    for (const char* pcBefore : {" file (", "(fid="}) {
        const std::size_t iPlace = sLine.find(pcBefore);
        if (iPlace == std::string::npos) {
            continue;
        }
        const std::size_t iFrom = iPlace + std::strlen(pcBefore);
        const std::size_t iTo = sLine.find(')', iFrom);
        const auto itName = mNames.find(sLine.substr(iFrom, iTo - iFrom));
        return sLine.substr(0, iFrom) + (itName == mNames.end() ? "#" : itName->second) + sLine.substr(iTo);
    }
    return sLine;
}

struct LogCase {
    const char* pcName;
    bool bInfoFile;
    bool bExported;
    std::int64_t iMaxSegment;
};

std::ostream& operator<<(std::ostream& out, const LogCase& kind) {
    return out << kind.pcName;
}

class RedirectedLogTest : public testing::TestWithParam<LogCase> {
protected:
    void SetUp() override {
        for (const char* pcName : {"a", "b"}) {
            std::string sContent;
            for (int i = 0; i < 30000; ++i) {
                sContent += static_cast<char>(*pcName + i * 7 + i / 251);
            }
            WriteWholeFile(m_Folder / pcName, sContent);
        }
        ASSERT_EQ(::mkdir((m_Folder / "folder").c_str(), 0755), 0);
        if (GetParam().bExported) {
            LogArgu tag{"test"};
            m_Utilities.AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), "data", "", nullptr);
        }
        m_Log.Clear();
    }

    std::int64_t Pick(std::int64_t iFrom, std::int64_t iTo) {
        return std::uniform_int_distribution<std::int64_t>(iFrom, std::max(iFrom, iTo))(m_Random);
    }

    /// Sources of content most of the time; also none, a missing one, one that cannot be read.
    std::string PickSource() {
        switch (Pick(0, 14)) {
            case 0:
                return "";
            case 1:
                return m_Folder / "missing";
            case 2:
                return m_Folder / "folder";
            default:
                return m_Folder / (Pick(0, 1) == 0 ? "a" : "b");
        }
    }

    void CompareLog(ReferenceModel& model) {
        std::map<std::string, std::string> mNames;
        m_Param.SetLogControl(0);
        for (const std::string& sPath : model.OpenPaths()) {
            LogArgu tag{"test"};
            const CCachedFile file = m_Utilities.GetCachedFileHandle(&m_Param, &tag, sPath.c_str(), false);
            mNames[std::to_string(file.Get())] = sPath;
        }
        m_Param.SetLogControl(kBits);
        Lines vSeen;
        for (const std::string& sLine : m_Log.Texts()) {
            vSeen.push_back(NameDescriptor(sLine, mNames));
        }
        m_Log.Clear();
        const Lines vExpected = model.TakeLog();
        const auto differ = std::mismatch(vSeen.begin(), vSeen.end(), vExpected.begin(), vExpected.end());
        ASSERT_TRUE(differ.first == vSeen.end() && differ.second == vExpected.end())
            << "line " << differ.first - vSeen.begin()
            << "\nexpected: " << (differ.second == vExpected.end() ? "nothing" : *differ.second)
            << "\nseen:     " << (differ.first == vSeen.end() ? "nothing" : *differ.first);
    }

    // The steps of a test, each taken by a file and its model.

    /// One behind the other, some with a hole in front; where they begin and end is kept, none beyond the size.
    void AddSegments(CRedirectedFile& file, ReferenceModel& model, int nSegments, std::int64_t iSize) {
        const std::int64_t iMax = GetParam().iMaxSegment;
        std::int64_t iNext = Pick(0, 3) == 0 ? Pick(1, iMax) : 0;
        m_vEdges = {0};
        for (int i = 0; i < nSegments; ++i) {
            const std::string sSource = PickSource();
            const std::int64_t iFox = Pick(0, 29000);
            const std::int64_t iLen = Pick(1, iMax);
            ASSERT_EQ(file.AddSegment(&m_Param, sSource.c_str(), iFox, iNext, iLen, nullptr),
                      model.AddSegment(sSource, iFox, iNext, iLen));
            ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "adding segment " << i << " at " << iNext;
            m_vEdges.push_back(std::min(iNext, iSize));
            iNext += iLen;
            m_vEdges.push_back(std::min(iNext, iSize));
            iNext += Pick(0, 3) == 0 ? Pick(1, iMax) : 0;
        }
    }
    std::int64_t PickEdge() {
        return m_vEdges[static_cast<std::size_t>(Pick(0, static_cast<std::int64_t>(m_vEdges.size()) - 1))];
    }
    void ReadSomewhere(CRedirectedFile& file, ReferenceModel& model, std::int64_t iSize) {
        const std::int64_t iOffset = Pick(0, 3) == 0 ? PickEdge() : Pick(0, iSize + 5);
        std::int64_t iLen =
            Pick(0, 4) == 0 ? Pick(0, 70000) : Pick(0, std::min<std::int64_t>(2 * GetParam().iMaxSegment, 20000));
        // Half of the reads end where a segment does, if one is near.
        const std::int64_t iToEdge = PickEdge() - iOffset;
        if (Pick(0, 1) == 0 && iToEdge >= 0 && iToEdge <= 70000) {
            iLen = iToEdge;
        }
        std::string sBuffer(CRedirectedFile::GetReadRoom(static_cast<unsigned int>(iLen)) + 1, '#');
        bool bEof = false;
        const int iRead = file.Read(&m_Param, static_cast<unsigned long long>(iOffset), sBuffer.data(),
                                    static_cast<unsigned int>(iLen), &bEof);
        const ModelRead expected = model.Read(iOffset, iLen);
        ASSERT_EQ(iRead, expected.iResult);
        ASSERT_EQ(bEof, expected.bEof);
        ASSERT_TRUE(sBuffer.substr(0, expected.sData.size()) == expected.sData);
        ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "reading " << iLen << " at " << iOffset;
    }
    void DumpMap(CRedirectedFile& file, ReferenceModel& model, bool bMerged) {
        const std::string sOut = m_Folder / "out";
        WriteWholeFile(sOut, "");
        file.ExportInfo(&m_Param, sOut.c_str(), bMerged);
        ASSERT_EQ(model.ExportInfo(sOut, bMerged), ReadWholeFile(sOut));
        ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "dumping the map";
    }

    static constexpr int kBits =
        CRuntimeParam::kLogError | CRuntimeParam::kLogRedirectFile | CRuntimeParam::kLogFileAccess;

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", kBits};
    std::mt19937_64 m_Random;
    std::vector<std::int64_t> m_vEdges;
};

TEST_P(RedirectedLogTest, EveryLineIsTheDescribedOneInItsPlace) {
    const std::int64_t iMax = GetParam().iMaxSegment;
    const std::string sInfo = GetParam().bInfoFile ? m_Folder / "info" : "";
    for (unsigned int iSeed = 1; iSeed <= 40; ++iSeed) {
        SCOPED_TRACE("seed " + std::to_string(iSeed));
        m_Random.seed(iSeed);
        if (!sInfo.empty()) {
            WriteWholeFile(sInfo, "");
        }
        const int nSegments = static_cast<int>(Pick(1, 25));
        const std::int64_t iSize = Pick(1, iMax * nSegments * 2 / 3);
        const int iCut = static_cast<int>(Pick(0, 3));
        const int iCheckPoint = static_cast<int>(Pick(0, 2)) * iCut;
        CRedirectedFile file(&m_Utilities);
        file.Open(&m_Param, iSize, 3, sInfo.empty() ? nullptr : sInfo.c_str(), iCut, iCheckPoint);
        ReferenceModel model({iSize, 3, sInfo, iCut, iCheckPoint, GetParam().bExported, true});
        ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "opening";

        ASSERT_NO_FATAL_FAILURE(AddSegments(file, model, nSegments, iSize));
        for (int i = 0; i < 20; ++i) {
            ASSERT_NO_FATAL_FAILURE(ReadSomewhere(file, model, iSize));
        }
        for (const bool bMerged : {false, true}) {
            ASSERT_NO_FATAL_FAILURE(DumpMap(file, model, bMerged));
        }
        file.Close(&m_Param);
        model.Close();
        ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "closing";
    }
}

// Only sources that never end before their segments do: an export of those has no end of its own.
TEST_P(RedirectedLogTest, ExportLogsItsReadsAndWrites) {
    const std::string sInfo = GetParam().bInfoFile ? m_Folder / "info" : "";
    const std::string sOut = m_Folder / "out";
    for (unsigned int iSeed = 1; iSeed <= 10; ++iSeed) {
        SCOPED_TRACE("seed " + std::to_string(iSeed));
        m_Random.seed(iSeed);
        if (!sInfo.empty()) {
            WriteWholeFile(sInfo, "");
        }
        WriteWholeFile(sOut, "");
        const std::int64_t iSize = Pick(1, 400000);
        CRedirectedFile file(&m_Utilities);
        file.Open(&m_Param, iSize, 3, sInfo.empty() ? nullptr : sInfo.c_str(), 0, 0);
        ReferenceModel model({iSize, 3, sInfo, 0, 0, GetParam().bExported, true});
        std::int64_t iNext = Pick(0, 3) == 0 ? Pick(1, 9000) : 0;
        for (int i = 0; i < 30; ++i) {
            const std::int64_t iLen = Pick(1, 15000);
            const std::string sSource = Pick(0, 9) == 0 ? "" : m_Folder / "b";
            file.AddSegment(&m_Param, sSource.c_str(), i, iNext, iLen, nullptr);
            model.AddSegment(sSource, i, iNext, iLen);
            iNext += iLen + (Pick(0, 4) == 0 ? Pick(1, 30000) : 0);
        }
        file.Export(&m_Param, sOut.c_str());
        ASSERT_TRUE(model.Export(sOut) == ReadWholeFile(sOut));
        ASSERT_NO_FATAL_FAILURE(CompareLog(model));
        file.Close(&m_Param);
        model.Close();
        ASSERT_NO_FATAL_FAILURE(CompareLog(model)) << "closing";
    }
}

INSTANTIATE_TEST_SUITE_P(Logs, RedirectedLogTest,
                         testing::Values(LogCase{"Memory", false, false, 4000},
                                         LogCase{"MemoryExported", false, true, 4000},
                                         LogCase{"InfoFile", true, false, 4000},
                                         LogCase{"InfoFileExported", true, true, 4000},
                                         LogCase{"InfoFileCut", true, true, 5 * kMiB}),
                         [](const auto& kind) { return std::string(kind.param.pcName); });

}  // namespace
