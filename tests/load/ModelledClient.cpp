// The work of a ModelledClient.
#include "ModelledClient.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kMostFiles = 12;
constexpr std::size_t kLargestFile = 200000;
constexpr std::size_t kLargestWrite = 16384;
constexpr std::size_t kLargestRead = 65536;
constexpr std::size_t kRemountEvery = 50;
constexpr std::chrono::seconds kPatience{60};

/// What is wrong with the server: ends the run.
class WrongAnswer : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The run is over, in the middle of something.
class Stopped : public std::exception {};

/// A content with bytes written into it.
std::string Overwrite(std::string sContent, std::size_t iOffset, std::string_view sData) {
    if (sContent.size() < iOffset + sData.size()) {
        sContent.resize(iOffset + sData.size(), '\0');
    }
    std::copy(sData.begin(), sData.end(), sContent.begin() + static_cast<std::ptrdiff_t>(iOffset));
    return sContent;
}

}  // namespace

ModelledClient::ModelledClient(ModelledWorld world, std::unique_ptr<ExportFiles> pCalls, std::uint32_t iSeed)
    : m_World(std::move(world)), m_Random(iSeed), m_pCalls(std::move(pCalls)) {}

std::string ModelledClient::Run(const std::atomic<bool>& bStop) {
    m_pbStop = &bStop;
    try {
        Recover();
        while (!bStop) {
            ++m_nWork;
            WorkOnce();
            if (m_World.pause.count() > 0) {
                std::this_thread::sleep_for(m_World.pause);
            }
        }
    } catch (const WrongAnswer& wrong) {
        return m_World.sExport + ": " + wrong.what();
    } catch (const Stopped&) {
    }
    return "";
}

void ModelledClient::WorkOnce() {
    const std::size_t iWork = Below(20);
    if (m_Files.empty() || (iWork == 0 && m_Files.size() < kMostFiles)) {
        return Create();
    }
    const File file = std::next(m_Files.begin(), static_cast<std::ptrdiff_t>(Below(m_Files.size())));
    if (m_iQuestion < m_pCalls->GetQuestionCount()) {  // each of them once before all else
        return AskNext();
    }
    switch (iWork) {
        case 1:
            return Cut(file);
        case 2:
            return Rename(file);
        case 3:
            return Remove(file);
        case 4:
            return List();
        case 5:
            return MakeFolder();
        case 6:
            return ReadDisk();
        case 7:
            return WriteDisk();
        case 8:
            return ReadHosted();
        case 9:
            return GetSize(file);
        case 10:
        case 11:
            return AskNext();
        case 12:
        case 13:
        case 14:
            return Write(file);
        default:
            return Below(kRemountEvery) == 0 ? Recover() : Read(file);
    }
}

// ---- The pieces of work

void ModelledClient::Create() {
    const std::string sName = MakeName();
    if (Try([&] { return m_pCalls->Create(sName); })) {
        m_Files[sName] = "";
    } else if (Exists(sName)) {
        m_Files[sName] = "";
        Require(ReadWhole(sName).empty(), sName + " was made with something in it");
    }
}

void ModelledClient::Write(File file) {
    const std::size_t iOffset = Below(std::min(file->second.size() + 5000, kLargestFile));
    const std::string sData = MakeContent(1 + Below(kLargestWrite));
    const std::string sNew = Overwrite(file->second, iOffset, sData);
    const std::string sName = file->first;
    std::size_t nWritten = 0;
    if (TryOn(sName, [&] { return m_pCalls->Write(sName, iOffset, sData, nWritten); })) {
        Require(nWritten == sData.size(), sName + ": only " + std::to_string(nWritten) + " bytes were written");
        m_Files[sName] = sNew;
    } else {
        Settle(sName, sNew);
    }
}

void ModelledClient::Read(File file) {
    const std::size_t iOffset = Below(file->second.size() + 100);
    const std::size_t nCount = 1 + Below(kLargestRead);
    Piece piece;
    if (TryOn(file->first, [&] { return m_pCalls->Read(file->first, iOffset, nCount, piece); })) {
        const std::string sExpected =
            iOffset < file->second.size() ? file->second.substr(iOffset, nCount) : std::string();
        const bool bEnd = iOffset + nCount >= file->second.size();
        Require(piece.sData == sExpected, file->first + ": wrong bytes at " + std::to_string(iOffset));
        Require(piece.bEof.value_or(bEnd) == bEnd, file->first + ": wrong end of file");
    }
}

void ModelledClient::GetSize(File file) {
    std::uint64_t nBytes = 0;
    if (TryOn(file->first, [&] { return m_pCalls->GetSize(file->first, nBytes); })) {
        Require(nBytes == file->second.size(), file->first + ": a size of " + std::to_string(nBytes));
    }
}

void ModelledClient::Cut(File file) {
    const std::string sName = file->first;
    std::string sNew = file->second;
    sNew.resize(Below(kLargestFile / 2), '\0');
    if (TryOn(sName, [&] { return m_pCalls->Cut(sName, sNew.size()); })) {
        m_Files[sName] = sNew;
    } else {
        Settle(sName, sNew);
    }
}

// Onto a new name, or in the place of another file.
void ModelledClient::Rename(File file) {
    const std::string sFrom = file->first;
    const File other = std::next(m_Files.begin(), static_cast<std::ptrdiff_t>(Below(m_Files.size())));
    const std::string sTo = other->first == sFrom || Below(2) == 0 ? MakeName() : other->first;
    if (!TryOn(sFrom, [&] { return m_pCalls->Find(sFrom); })) {  // RENAME answers by what has a handle
        return;
    }
    const bool bDone = Try([&] { return m_pCalls->Rename(sFrom, sTo); });
    if (bDone || !Exists(sFrom)) {
        m_Files[sTo] = std::move(m_Files[sFrom]);
        m_Files.erase(sFrom);
    }
}

void ModelledClient::Remove(File file) {
    const std::string sName = file->first;
    const bool bDone = Try([&] { return m_pCalls->Remove(sName); });
    if (bDone || !Exists(sName)) {
        m_Files.erase(sName);
    }
}

void ModelledClient::List() {
    std::vector<std::string> vsNames;
    if (!Try([&] { return m_pCalls->List(vsNames); })) {
        return;
    }
    std::vector<std::string> vsExpected = {"disk", "hosted"};
    for (const auto& [sName, sContent] : m_Files) {
        vsExpected.push_back(sName);
    }
    std::sort(vsNames.begin(), vsNames.end());
    std::sort(vsExpected.begin(), vsExpected.end());
    Require(vsNames == vsExpected, "a listing of " + std::to_string(vsNames.size()) + " names where " +
                                       std::to_string(vsExpected.size()) + " are");
}

void ModelledClient::MakeFolder() {
    static_cast<void>(Try([&] { return m_pCalls->MakeFolder("folder"); }));
    static_cast<void>(Try([&] {
        const int iStatus = m_pCalls->RemoveFolder("folder");
        return iStatus == ENOENT ? 0 : iStatus;
    }));
    while (Exists("folder")) {
        static_cast<void>(Try([&] { return m_pCalls->RemoveFolder("folder"); }));
    }
}

void ModelledClient::ReadDisk() {
    const std::size_t iOffset = Below(m_World.sDisk.size());
    const std::size_t nCount = 1 + Below(kLargestRead);
    Piece piece;
    if (TryOn("disk", [&] { return m_pCalls->Read("disk", iOffset, nCount, piece); })) {
        Require(piece.sData == m_World.sDisk.substr(iOffset, nCount),
                "disk: wrong bytes at " + std::to_string(iOffset));
    }
}

// The host says how much it takes of it: all.
void ModelledClient::WriteDisk() {
    const std::string sData = MakeContent(1 + Below(kLargestWrite));
    std::size_t nWritten = 0;
    if (TryOn("disk", [&] { return m_pCalls->Write("disk", 0, sData, nWritten); })) {
        Require(nWritten == sData.size(), "disk: the host took all, and the client was told another number");
    }
}

// A file that the host replaces as a whole: each version holds one letter. A handle of the version before may be
// answered with that version or the next, never with both.
void ModelledClient::ReadHosted() {
    Piece piece;
    if (TryOn("hosted", [&] { return m_pCalls->Read("hosted", 0, kLargestRead, piece); })) {
        Require(!piece.sData.empty() && piece.sData.find_first_not_of(piece.sData[0]) == std::string::npos,
                "hosted: a mixture of two versions");
    }
}

void ModelledClient::AskNext() {
    const std::string sName = m_Files.begin()->first;
    std::string sWrong;
    const bool bAnswered = Try([&] {
        const bool bRight = m_pCalls->Ask(m_iQuestion % m_pCalls->GetQuestionCount(), sName, sWrong);
        // A client that can still look something up has not lost its connection.
        const int iStatus = bRight ? 0 : m_pCalls->Find("disk");
        Require(bRight || iStatus != 0, sWrong);
        return iStatus;
    });
    m_iQuestion += bAnswered ? 1 : 0;
}

// ---- Calls that fail

bool ModelledClient::Try(const std::function<int()>& call) {
    std::string sHow;
    try {
        const int iStatus = call();
        if (iStatus == 0) {
            return true;
        }
        sHow = "answered " + std::to_string(iStatus);
    } catch (const WrongAnswer&) {
        throw;
    } catch (const std::exception& lost) {  // the connection is gone
        sHow = lost.what();
    }
    Require(m_World.pEpochs->nStopping > m_iServer, "a call to a server that goes on failed: " + sHow);
    Recover();
    return false;
}

bool ModelledClient::TryOn(const std::string& sName, const std::function<int()>& call) {
    return Try([&] {
        const int iStatus = call();
        Require(iStatus != ENOENT, sName + " is gone");
        return iStatus;
    });
}

/// Mounts anew, for as long as it takes the server to come back.
void ModelledClient::Recover() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!Mount()) {
        if (*m_pbStop) {
            throw Stopped();
        }
        Require(std::chrono::steady_clock::now() < end, "the server does not come back");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool ModelledClient::Mount() {
    static std::mutex hOneAfterTheOther;
    const std::lock_guard lock(hOneAfterTheOther);
    m_iServer = m_World.pEpochs->nStopped;
    try {
        return m_pCalls->Mount() == 0 && m_pCalls->Find("disk") == 0;
    } catch (const std::exception&) {
        return false;
    }
}

bool ModelledClient::Exists(const std::string& sName) {
    int iStatus = 0;
    while (!Try([&] {
        iStatus = m_pCalls->Find(sName);
        return iStatus == ENOENT ? 0 : iStatus;
    })) {
    }
    return iStatus == 0;
}

std::string ModelledClient::ReadWhole(const std::string& sName) {
    std::string sAll;
    for (;;) {
        Piece piece;
        if (!TryOn(sName, [&] { return m_pCalls->Read(sName, sAll.size(), kLargestRead, piece); })) {
            sAll.clear();
        } else if (piece.sData.empty()) {
            return sAll;
        } else {
            sAll += piece.sData;
        }
    }
}

/// Nobody knows whether a file has its old content or the other one: looks, and takes what it finds.
void ModelledClient::Settle(const std::string& sName, const std::string& sOther) {
    std::string sSeen = ReadWhole(sName);
    Require(sSeen == m_Files[sName] || sSeen == sOther,
            sName + ": after a call that failed it holds neither what was before nor what was to be");
    m_Files[sName] = std::move(sSeen);
}

void ModelledClient::Require(bool bHolds, const std::string& sWhat) const {
    if (!bHolds) {
        throw WrongAnswer(sWhat);
    }
}

/// A name that no file has at the moment. There are few: each name that a server has ever seen costs it memory.
std::string ModelledClient::MakeName() {
    std::string sName;
    do {
        sName = "file-" + std::to_string(Below(4 * kMostFiles));
    } while (m_Files.contains(sName));
    return sName;
}

std::string ModelledClient::MakeContent(std::size_t nBytes) {
    std::string sContent(nBytes, '\0');
    std::uint32_t iState = static_cast<std::uint32_t>(m_Random()) | 1U;
    for (char& c : sContent) {
        iState = iState * 1664525U + 1013904223U;
        c = static_cast<char>(iState >> 24U);
    }
    return sContent;
}
