// Every log line of a redirected file, in its order, beside an emulation that goes through the same steps.
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
#include <unistd.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "RedirectedFile.h"
#include "TempFolder.h"

namespace {

using Lines = std::vector<std::string>;

constexpr std::int64_t kMiB = 1 << 20;

std::string Text(std::int64_t iNumber) {
    return std::to_string(iNumber);
}

/// The redirected file as described: what it logs and delivers. Descriptors go by their paths. Its sources are read as
/// they lie on disk; its info file lies here.
class DescribedFile {
public:
    DescribedFile(std::int64_t iSize, int iId, std::string sInfo, int iCutMiB, int iCheckPointMiB, bool bExported)
        : m_iSize(iSize),
          m_iId(iId),
          m_sInfo(std::move(sInfo)),
          m_iCut((iCutMiB > 0 ? iCutMiB : 32) * kMiB),
          m_iCheckPoint((iCheckPointMiB > 0 ? iCheckPointMiB : 1024) * kMiB),
          m_bExported(bExported) {
        Log("Open", "id=" + Text(m_iId) + ", size=" + Text(m_iSize) + " (path=" + m_sInfo + ")");
    }

    bool AddSegment(const std::string& sSource, std::int64_t iFox, std::int64_t iOx, std::int64_t iLen) {
        const std::string sGivenFox = Text(iFox);
        const std::string sGivenOx = Text(iOx);
        std::int64_t iSource = -1;
        if (!sSource.empty()) {
            const auto it = std::find(m_vSources.begin(), m_vSources.end(), sSource);
            iSource = it - m_vSources.begin();
            if (it == m_vSources.end()) {
                m_vSources.push_back(sSource);
            }
        }
        Log("AddSegment", "Reference src (" + Text(m_iId) + "): " + (sSource.empty() ? "Null" : sSource));
        if (!(iOx < m_iSize)) {
            return false;
        }
        if (!(iOx + iLen < m_iSize)) {
            iLen = m_iSize - iOx;
        }
        const std::string sClipped = Text(iLen);
        if (!Take("AddSegment", m_sInfo, true)) {
            m_vMap.push_back({iSource, iFox, iOx, iLen});
        } else {
            Log("AddSegment", "OS seek file (" + m_sInfo + ")");
            const std::int64_t b = m_iCut * (iOx / m_iCut);
            if (b < iOx && b + m_iCut - iOx < iLen) {
                const std::int64_t iPiece = b + m_iCut - iOx;
                Record({iSource, iFox, iOx, iPiece});
                iFox += iPiece;
                iOx += iPiece;
                iLen -= iPiece;
            }
            for (; iLen > m_iCut; iFox += m_iCut, iOx += m_iCut, iLen -= m_iCut) {
                Record({iSource, iFox, iOx, m_iCut});
            }
            if (iLen > 0) {
                Record({iSource, iFox, iOx, iLen});
            }
        }
        Log("AddSegment",
            "Segment id=" + Text(m_iId) + ", fox=" + sGivenFox + ", ox=" + sGivenOx + ", len=" + sClipped);
        return true;
    }

    int Read(std::int64_t iOffset, std::int64_t iLen, std::string& sOut, bool& bEof) {
        const int n = ReadInner(iOffset, iLen, sOut);
        if (n >= 0) {
            m_iPos = iOffset + n;
        }
        bEof = m_iPos >= m_iSize;
        Log("Read",
            std::string("Eof=") + (bEof ? "true" : "false") + ", ox=" + Text(m_iPos) + ", size=" + Text(m_iSize));
        return bEof && n < 0 ? 0 : n;
    }

    std::string Export(const std::string& sOut) {
        std::string sContent;
        Begin("Export", "Content", sOut);
        std::int64_t iOffset = 0;
        for (bool bEof = false; !bEof;) {
            std::string sBlock;
            const int n = Read(iOffset, 65536, sBlock, bEof);
            if (n < 0) {
                break;
            }
            Write("Export");
            Log("Export", "Write ox:" + Text(iOffset) + ", r:" + Text(n) + ", w:" + Text(m_bExported ? n : -1));
            sContent += sBlock;
            iOffset += n;
        }
        End("Export", sOut);
        return m_bExported ? sContent : "";
    }

    std::string ExportInfo(const std::string& sOut, bool bMerged) {
        std::string sDump;
        const auto line = [&](const std::string& sLine) {
            Write("ExportInfo");
            sDump += sLine + "\n";
        };
        Begin("ExportInfo", "Info", sOut);
        for (const auto& [iPlace, iOx] : m_vCheckPoints) {
            line("--> CheckPoint Segment fox=" + Text(iPlace) + ", ox=" + Text(iOx));
        }
        if (!m_vCheckPoints.empty()) {
            line("-------------------");
        }
        const auto segment = [&](const Entry& entry) {
            line((bMerged ? "--> Merged Segment path=" : "Segment path=") + Source(entry) +
                 ", fox=" + Text(entry.iFox) + ", ox=" + Text(entry.iOx) + ", len=" + Text(entry.iLen));
        };
        Entry merged{0, 0, 0, 0};
        bool bFirst = true;
        GetSegment(0);
        while (m_iCursor >= 0) {
            const Entry entry = Current();
            if (!bMerged) {
                segment(entry);
            } else if (!bFirst && entry.iSource == merged.iSource) {
                merged.iLen += entry.iLen;
            } else {
                if (!bFirst) {
                    segment(merged);
                }
                merged = entry;
            }
            bFirst = false;
            GetNextSegment();
        }
        if (bMerged) {
            segment(merged);
        }
        End("ExportInfo", sOut);
        return m_bExported ? sDump : "";
    }

    void Close() {
        Drop("Close", m_sInfo);
        for (const std::string& sSource : m_vSources) {
            Drop("Close", sSource);
        }
    }

    Lines TakeLog() { return std::exchange(m_vLog, {}); }
    std::vector<std::string> OpenPaths() const {
        std::vector<std::string> vPaths;
        for (const auto& [sPath, bOpen] : m_mCache) {
            if (bOpen) {
                vPaths.push_back(sPath);
            }
        }
        return vPaths;
    }

private:
    struct Entry {
        std::int64_t iSource, iFox, iOx, iLen;
    };

    void Log(const std::string& sTag, const std::string& sText) {
        m_vLog.push_back("[RedirectedFile." + sTag + "] " + sText);
    }

    /// Takes a descriptor from the cache.
    bool Take(const std::string& sTag, const std::string& sPath, bool bReadWrite) {
        if (sPath.empty()) {
            return false;
        }
        bool& bOpen = m_mCache[sPath];
        if (!bOpen) {
            const bool bWrite = bReadWrite || m_bExported;
            Log(sTag, std::string("open ") + (bWrite ? "read/write" : "read only") + " mode " + sPath);
            struct stat status {};
            std::string sError;
            if (::stat(sPath.c_str(), &status) != 0) {
                sError = ". Error=No such file or directory (2)";
            } else if (S_ISDIR(status.st_mode) && bWrite) {
                sError = ". Error=Is a directory (21)";
            }
            bOpen = sError.empty();
            Log(sTag, "OS open file \"" + sPath + "\"" + sError);
        }
        return bOpen;
    }

    void Drop(const std::string& sTag, const std::string& sPath) {
        if (const auto it = m_mCache.find(sPath); it != m_mCache.end()) {
            Log(sTag, "OS close file \"" + sPath + "\"" + (it->second ? "" : ". Error=Bad file descriptor"));
            m_mCache.erase(it);
        }
    }

    void Record(const Entry& entry) {
        if (entry.iOx >= 1 && entry.iOx % m_iCheckPoint == 0) {
            Log("CreateCheckPointSegment", "OS tell file (" + m_sInfo + ")");
            m_vCheckPoints.emplace_back(static_cast<std::int64_t>(m_vMap.size()) * 32, entry.iOx);
        }
        Log("AddSegment", "OS write file (" + m_sInfo + ")");
        m_vMap.push_back(entry);
    }

    void GetSegment(std::int64_t iOff) {
        m_iCursor = -1;
        std::int64_t p = 0;
        const bool bInfo = Take("GetSegment", m_sInfo, false);
        if (bInfo) {
            p = iOff / m_iCut * 32;
            if (m_iCheckPoint <= iOff) {
                for (auto it = m_vCheckPoints.rbegin(); it != m_vCheckPoints.rend(); ++it) {
                    if (it->second <= iOff) {
                        p = (iOff - it->second) / m_iCut * 32 + it->first;
                        break;
                    }
                }
            }
            Log("GetSegment", "OS seek file (" + m_sInfo + ")");
        }
        for (std::int64_t i = p / 32;; ++i) {
            if (bInfo) {
                Log("GetSegment", "OS read file (" + m_sInfo + ")");  // one that finds the end, too
            }
            if (i >= static_cast<std::int64_t>(m_vMap.size())) {
                return;
            }
            const Entry& entry = m_vMap[static_cast<std::size_t>(i)];
            if (entry.iOx <= iOff && iOff < entry.iOx + entry.iLen) {
                m_iCursor = i;
                return;
            }
        }
    }

    void GetNextSegment() {
        if (m_iCursor < 0) {
            return;
        }
        if (Take("GetNextSegment", m_sInfo, false)) {
            Log("GetNextSegment", "OS read file (" + m_sInfo + ")");
        }
        if (++m_iCursor >= static_cast<std::int64_t>(m_vMap.size())) {
            m_iCursor = -1;
        }
    }

    Entry Current() const { return m_vMap[static_cast<std::size_t>(m_iCursor)]; }

    std::string Source(const Entry& entry) const {
        return entry.iSource >= 0 && entry.iSource < static_cast<std::int64_t>(m_vSources.size())
                   ? m_vSources[static_cast<std::size_t>(entry.iSource)]
                   : "Null";
    }

    int ReadInner(std::int64_t iOff, std::int64_t iLen, std::string& sOut) {
        if (iOff >= m_iSize) {
            return -1;
        }
        std::int64_t iPos = iOff;
        std::int64_t iDone = 0;
        GetSegment(iPos);
        while (iDone < iLen) {
            if (m_iCursor < 0) {
                if (m_iPos < m_iSize) {
                    const std::int64_t iZeros = std::min(m_iSize - iPos, iLen);
                    sOut.append(static_cast<std::size_t>(iZeros), '\0');
                    iDone += iZeros;
                }
                break;
            }
            const Entry entry = Current();
            if (entry.iOx > iPos) {
                Log("Read", "Fill missing segment len:" + Text(entry.iOx - iPos));
                iPos = entry.iOx;
            }
            const std::int64_t iWithin = iPos - entry.iOx;
            std::int64_t iCount = iLen - iDone;
            if (entry.iLen - iWithin <= iCount) {
                iCount = entry.iLen - iWithin;
                GetNextSegment();
            }
            Log("Read", "Segment (" + Text(m_iId) + ") path:" + Source(entry) + ", fox:" + Text(iOff) +
                            ", len:" + Text(iCount) + " (seek:" + Text(entry.iFox + iWithin) + ")");
            std::string sRead(static_cast<std::size_t>(iCount), '\0');
            if (Source(entry) != "Null" && Take("Read", Source(entry), false)) {
                Log("Read", "OS seek file (" + Source(entry) + ")");
                struct stat status {};
                if (::stat(Source(entry).c_str(), &status) != 0 || S_ISDIR(status.st_mode)) {
                    Log("Read", "OS read file (" + Source(entry) + "). Error=Is a directory (21)");
                    break;
                }
                Log("Read", "OS read file (" + Source(entry) + ")");
                const std::string sFile = ReadWholeFile(Source(entry));
                const auto iFrom = std::min<std::size_t>(static_cast<std::size_t>(entry.iFox + iWithin), sFile.size());
                sRead = sFile.substr(iFrom, static_cast<std::size_t>(iCount));
            }
            sOut += sRead;
            iDone += static_cast<std::int64_t>(sRead.size());
            iPos += static_cast<std::int64_t>(sRead.size());
            if (static_cast<std::int64_t>(sRead.size()) < iCount) {
                break;  // a read never loops without progress
            }
        }
        return static_cast<int>(iDone);
    }

    void Begin(const std::string& sTag, const std::string& sWhat, const std::string& sOut) {
        Take(sTag, sOut, false);
        Log(sTag, sWhat + " to file: " + sOut + " (fid=#)");
    }
    void Write(const std::string& sTag) {
        Log(sTag, std::string("OS write file (#)") + (m_bExported ? "" : ". Error=Bad file descriptor (9)"));
    }
    void End(const std::string& sTag, const std::string& sOut) { Drop(sTag, sOut); }

    std::int64_t m_iSize;
    int m_iId;
    std::string m_sInfo;
    std::int64_t m_iCut;
    std::int64_t m_iCheckPoint;
    bool m_bExported;
    std::int64_t m_iPos = 0;
    std::int64_t m_iCursor = -1;
    std::vector<std::string> m_vSources;
    std::vector<Entry> m_vMap;
    std::vector<std::pair<std::int64_t, std::int64_t>> m_vCheckPoints;  ///< place in the info file, virtual offset
    std::map<std::string, bool> m_mCache;                               ///< is it open, or did opening fail?
    Lines m_vLog;
};

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
            LogArgu logArgu{"test"};
            m_Utilities.AddMountInfo(&m_Param, &logArgu, m_Folder.Path().c_str(), "data", "", nullptr);
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

    void CompareLog(DescribedFile& described) {
        std::map<std::string, std::string> mNames;
        m_Param.SetLogControl(0);
        for (const std::string& sPath : described.OpenPaths()) {
            LogArgu logArgu{"test"};
            const CCachedFile file = m_Utilities.GetCachedFileHandle(&m_Param, &logArgu, sPath.c_str(), false);
            mNames[std::to_string(file.Get())] = sPath;
        }
        m_Param.SetLogControl(kBits);
        Lines vSeen;
        for (const std::string& sLine : m_Log.Texts()) {
            vSeen.push_back(NameDescriptor(sLine, mNames));
        }
        m_Log.Clear();
        const Lines vExpected = described.TakeLog();
        const auto differ = std::mismatch(vSeen.begin(), vSeen.end(), vExpected.begin(), vExpected.end());
        ASSERT_TRUE(differ.first == vSeen.end() && differ.second == vExpected.end())
            << "line " << differ.first - vSeen.begin()
            << "\nexpected: " << (differ.second == vExpected.end() ? "nothing" : *differ.second)
            << "\nseen:     " << (differ.first == vSeen.end() ? "nothing" : *differ.first);
    }

    static constexpr int kBits =
        CRuntimeParam::kLogError | CRuntimeParam::kLogRedirectFile | CRuntimeParam::kLogFileAccess;

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{"host", kBits};
    std::mt19937_64 m_Random;
};

TEST_P(RedirectedLogTest, EveryLineIsTheDescribedOneInItsPlace) {
    const std::int64_t iMax = GetParam().iMaxSegment;
    const std::string sInfo = GetParam().bInfoFile ? m_Folder / "info" : "";
    const std::string sOut = m_Folder / "out";
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
        DescribedFile described(iSize, 3, sInfo, iCut, iCheckPoint, GetParam().bExported);
        ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "opening";

        std::vector<std::int64_t> vEdges{0};
        std::int64_t iNext = Pick(0, 3) == 0 ? Pick(1, iMax) : 0;
        for (int i = 0; i < nSegments; ++i) {
            const std::string sSource = PickSource();
            const std::int64_t iFox = Pick(0, 29000);
            const std::int64_t iLen = Pick(1, iMax);
            ASSERT_EQ(file.AddSegment(&m_Param, sSource.c_str(), iFox, iNext, iLen, nullptr),
                      described.AddSegment(sSource, iFox, iNext, iLen));
            ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "adding segment " << i << " at " << iNext;
            vEdges.push_back(std::min(iNext, iSize));
            iNext += iLen;
            vEdges.push_back(std::min(iNext, iSize));
            iNext += Pick(0, 3) == 0 ? Pick(1, iMax) : 0;
        }
        const auto pickEdge = [&] {
            return vEdges[static_cast<std::size_t>(Pick(0, static_cast<std::int64_t>(vEdges.size()) - 1))];
        };
        for (int i = 0; i < 20; ++i) {
            const std::int64_t iOffset = Pick(0, 3) == 0 ? pickEdge() : Pick(0, iSize + 5);
            std::int64_t iLen = Pick(0, 4) == 0 ? Pick(0, 70000) : Pick(0, std::min<std::int64_t>(2 * iMax, 20000));
            // Half of the reads end where a segment does, if one is near.
            const std::int64_t iToEdge = pickEdge() - iOffset;
            if (Pick(0, 1) == 0 && iToEdge >= 0 && iToEdge <= 70000) {
                iLen = iToEdge;
            }
            std::string sBuffer(CRedirectedFile::GetReadRoom(static_cast<unsigned int>(iLen)) + 1, '#');
            bool bEof = false;
            const int iRead = file.Read(&m_Param, static_cast<unsigned long long>(iOffset), sBuffer.data(),
                                        static_cast<unsigned int>(iLen), &bEof);
            std::string sExpected;
            bool bExpectedEof = false;
            ASSERT_EQ(iRead, described.Read(iOffset, iLen, sExpected, bExpectedEof));
            ASSERT_EQ(bEof, bExpectedEof);
            ASSERT_TRUE(sBuffer.substr(0, sExpected.size()) == sExpected);
            ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "reading " << iLen << " at " << iOffset;
        }
        for (const bool bMerged : {false, true}) {
            WriteWholeFile(sOut, "");
            file.ExportInfo(&m_Param, sOut.c_str(), bMerged);
            ASSERT_EQ(described.ExportInfo(sOut, bMerged), ReadWholeFile(sOut));
            ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "dumping the map";
        }
        file.Close(&m_Param);
        described.Close();
        ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "closing";
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
        DescribedFile described(iSize, 3, sInfo, 0, 0, GetParam().bExported);
        std::int64_t iNext = Pick(0, 3) == 0 ? Pick(1, 9000) : 0;
        for (int i = 0; i < 30; ++i) {
            const std::int64_t iLen = Pick(1, 15000);
            const std::string sSource = Pick(0, 9) == 0 ? "" : m_Folder / "b";
            file.AddSegment(&m_Param, sSource.c_str(), i, iNext, iLen, nullptr);
            described.AddSegment(sSource, i, iNext, iLen);
            iNext += iLen + (Pick(0, 4) == 0 ? Pick(1, 30000) : 0);
        }
        file.Export(&m_Param, sOut.c_str());
        ASSERT_TRUE(described.Export(sOut) == ReadWholeFile(sOut));
        ASSERT_NO_FATAL_FAILURE(CompareLog(described));
        file.Close(&m_Param);
        described.Close();
        ASSERT_NO_FATAL_FAILURE(CompareLog(described)) << "closing";
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
