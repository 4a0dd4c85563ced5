// A server without a network, in a world that every run finds the same.
#include "PiecesWorld.h"

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <stdexcept>

#include <sys/stat.h>

#include "Limits.h"
#include "MountProg.h"
#include "NfsClient.h"
#include "NfsProg.h"
#include "PortmapProg.h"
#include "RpcServer.h"

namespace fs = std::filesystem;

PiecesWorld::PiecesWorld() {
    Restart();
}

PiecesWorld::~PiecesWorld() = default;

void PiecesWorld::Restart() {
    if (m_bTouched) {
        MakePiecesContent(m_Folder.Path());
        m_bTouched = false;
    }
    m_pUtilities = std::make_unique<CaptureUtilities>(&m_Log);
    LogArgu tag{"pieces"};
    char vcReason[kReasonBufferSize] = "";
    if (!m_pUtilities->AddMountInfo(&m_Param, &tag, m_Folder.Path().c_str(), kExportName, "", vcReason)) {
        throw std::runtime_error(vcReason);
    }
    unsigned int iID = kRoot;
    for (const char* pcName : {"", "/file", "/dir", "/dir/entry"}) {
        if (m_pUtilities->GetFileID(&m_Param, &tag, (m_Folder.Path() + pcName).c_str()) != iID++) {
            throw std::runtime_error("not the ID that was expected");
        }
    }
    m_pPortmapProg = std::make_unique<CPortmapProg>(m_pUtilities.get());
    m_pPortmapProg->Set(kNfsProgram, 2049);
    m_pMountProg = std::make_unique<CMountProg>(m_pUtilities.get());
    m_pNfsProg = std::make_unique<CNfsProg>(m_pUtilities.get());
    m_pServer = std::make_unique<CRpcServer>(m_pUtilities.get(), &m_Param);
    m_pServer->Set(kPortmapProgram, m_pPortmapProg.get());
    m_pServer->Set(kMountProgram, m_pMountProg.get());
    m_pServer->Set(kNfsProgram, m_pNfsProg.get());
}

std::unique_ptr<CapturingSocket> PiecesWorld::Connect(unsigned long lProgram) const {
    return std::make_unique<CapturingSocket>(CSocket::kStream, lProgram);
}

std::string PiecesWorld::State() {
    MountInfo info;
    LogArgu tag{"pieces"};
    m_pUtilities->GetMountInfoByPath(&m_Param, &tag, m_Folder.Path().c_str(), &info);
    return "mounted by " + info.sRemoteIpAddr + "\n" + FolderState(m_Folder.Path());
}

void MakePiecesContent(const std::string& sFolder) {
    for (const auto& entry : fs::directory_iterator(sFolder)) {
        fs::remove_all(entry.path());
    }
    WriteWholeFile(sFolder + "/file", "0123456789abcdefghijklmnopqrstuvwxyz!?,;");
    fs::create_directory(sFolder + "/dir");
    WriteWholeFile(sFolder + "/dir/entry", "entry");
    fs::create_directory(sFolder + "/empty");
}

std::string FolderState(const std::string& sFolder) {
    std::vector<std::string> vsLines;
    for (const auto& entry : fs::recursive_directory_iterator(sFolder)) {
        struct stat status {};
        if (::lstat(entry.path().c_str(), &status) != 0) {
            throw std::runtime_error("an entry vanished");
        }
        std::string sLine = entry.path().string() + " mode " + std::to_string(status.st_mode);
        if (S_ISREG(status.st_mode)) {
            sLine += " content " + ReadWholeFile(entry.path().string());
        }
        vsLines.push_back(sLine + "\n");
    }
    std::sort(vsLines.begin(), vsLines.end());
    return std::accumulate(vsLines.begin(), vsLines.end(), std::string());
}

std::vector<std::string> SplitRecords(std::string_view sStream) {
    std::vector<std::string> vsRecords;
    while (!sStream.empty()) {
        if (sStream.size() < 4 || (WordAt(sStream, 0) & 0x80000000U) == 0) {
            throw std::runtime_error("no record: " + Hex(sStream.substr(0, 64)));
        }
        const std::size_t nSize = 4 + (WordAt(sStream, 0) & 0x7FFFFFFFU);
        if (sStream.size() < nSize) {
            throw std::runtime_error("a record cut short: " + Hex(sStream.substr(0, 64)));
        }
        vsRecords.emplace_back(sStream.substr(0, nSize));
        sStream.remove_prefix(nSize);
    }
    return vsRecords;
}

// ---- What differs from run to run

namespace {

/// Walks over a reply and blanks what it is told to.
class Blanker {
public:
    Blanker(std::string* psReply, std::size_t iPosition) : m_psReply(psReply), m_iPosition(iPosition) {}

    std::uint32_t Word() {
        const std::uint32_t iWord = WordAt(*m_psReply, m_iPosition);
        m_iPosition += 4;
        return iWord;
    }
    void Skip(std::size_t n) { m_iPosition += n; }
    void Blank(std::size_t n) {
        m_psReply->replace(m_iPosition, n, n, '\0');
        m_iPosition += n;
    }
    void Opaque() { Skip((Word() + 3) / 4 * 4); }
    /// fattr3: inode number and times.
    void Attributes() {
        Skip(52);
        Blank(32);
    }
    void PostOpAttributes() {
        if (Word() != 0) {
            Attributes();
        }
    }
    void PostOpHandle() {
        if (Word() != 0) {
            Opaque();
        }
    }

private:
    std::string* m_psReply;
    std::size_t m_iPosition;
};

void BlankEntries(Blanker& blanker) {
    while (blanker.Word() != 0) {
        blanker.Skip(8);  // ID
        blanker.Opaque();
        blanker.Skip(8);  // cookie
        blanker.PostOpAttributes();
        blanker.PostOpHandle();
    }
}

}  // namespace

std::string Normalised(std::uint32_t iProgram, std::uint32_t iProcedure, std::string sRecord) {
    constexpr std::size_t kResult = 28;  // behind mark, head and accept status
    constexpr std::size_t kAcceptStatus = 24;
    if (iProgram != kNfsProgram || sRecord.size() < kResult + 4 || WordAt(sRecord, kAcceptStatus) != kAcceptSuccess ||
        WordAt(sRecord, kResult) != 0) {
        return sRecord;
    }
    Blanker blanker(&sRecord, kResult + 4);
    switch (iProcedure) {
        case kNfsGetattr:
            blanker.Attributes();
            break;
        case kNfsLookup:
            blanker.Opaque();
            blanker.PostOpAttributes();
            break;
        case kNfsAccess:
        case kNfsReaddir:
        case kNfsFsinfo:
            blanker.PostOpAttributes();
            break;
        case kNfsReaddirplus:
            blanker.PostOpAttributes();
            blanker.Skip(8);  // verifier
            BlankEntries(blanker);
            break;
        case kNfsFsstat:
            blanker.PostOpAttributes();
            blanker.Blank(48);
            break;
        case kNfsCreate:
        case kNfsMkdir:
            blanker.PostOpHandle();
            blanker.PostOpAttributes();
            break;
        case kNfsWrite:
            blanker.Skip(16);  // no attributes, count, how it was committed
            blanker.Blank(8);
            break;
        default:
            break;
    }
    return sRecord;
}
