// The work of a ModelledClient.
#include "ModelledClient.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kMissing = 2;
constexpr std::size_t kMostFiles = 12;
constexpr std::size_t kLargestFile = 200000;
constexpr std::size_t kLargestWrite = 16384;
constexpr std::uint32_t kLargestRead = 65536;
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

ModelledClient::ModelledClient(ModelledWorld world, std::uint32_t iSeed) : m_World(std::move(world)), m_Random(iSeed) {}

std::string ModelledClient::Run(const std::atomic<bool>& bStop) {
    m_pbStop = &bStop;
    try {
        Recover();
        while (!bStop) {
            WorkOnce();
            if (m_World.pause.count() > 0) {
                std::this_thread::sleep_for(m_World.pause);
            }
        }
    } catch (const WrongAnswer& wrong) {
        return m_World.sExport + ": " + wrong.what();
    } catch (const Stopped&) {
    }
    m_pClient.reset();
    return "";
}

void ModelledClient::WorkOnce() {
    const std::size_t iWork = Below(16);
    if (m_Files.empty() || (iWork == 0 && m_Files.size() < kMostFiles)) {
        return Create();
    }
    const File file = std::next(m_Files.begin(), static_cast<std::ptrdiff_t>(Below(m_Files.size())));
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
        case 10:
        case 11:
            return Write(file);
        default:
            return Read(file);
    }
}

// ---- The pieces of work

void ModelledClient::Create() {
    const std::string sName = MakeName();
    std::string sHandle;
    if (Try([&] { return m_pClient->Create(m_sRoot, sName, sHandle) == kOk; })) {
        m_Handles[sName] = sHandle;
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
    std::uint32_t nWritten = 0;
    if (Try([&] { return m_pClient->Write(GetHandle(sName), iOffset, sData, nWritten) == kOk; })) {
        Require(nWritten == sData.size(), sName + ": only " + std::to_string(nWritten) + " bytes were written");
        m_Files[sName] = sNew;
    } else {
        Settle(sName, sNew);
    }
}

void ModelledClient::Read(File file) {
    const std::size_t iOffset = Below(file->second.size() + 100);
    const auto nCount = static_cast<std::uint32_t>(1 + Below(kLargestRead));
    std::string sData;
    bool bEof = false;
    if (Try([&] { return m_pClient->Read(GetHandle(file->first), iOffset, nCount, sData, bEof) == kOk; })) {
        const std::string sExpected =
            iOffset < file->second.size() ? file->second.substr(iOffset, nCount) : std::string();
        Require(sData == sExpected, file->first + ": wrong bytes at " + std::to_string(iOffset));
        Require(bEof == (iOffset + nCount >= file->second.size()), file->first + ": wrong end of file");
    }
}

void ModelledClient::Cut(File file) {
    const std::string sName = file->first;
    std::string sNew = file->second;
    sNew.resize(Below(kLargestFile / 2), '\0');
    Sattr3 attributes;
    attributes.iSize = sNew.size();
    if (Try([&] { return m_pClient->Setattr(GetHandle(sName), attributes) == kOk; })) {
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
    static_cast<void>(Try([&] { return !GetHandle(sFrom).empty(); }));  // RENAME answers by what has a handle
    const bool bDone = Try([&] { return m_pClient->Rename(m_sRoot, sFrom, m_sRoot, sTo) == kOk; });
    if (bDone || !Exists(sFrom)) {
        m_Handles.erase(sFrom);
        m_Handles.erase(sTo);
        m_Files[sTo] = std::move(m_Files[sFrom]);
        m_Files.erase(sFrom);
    }
}

void ModelledClient::Remove(File file) {
    const std::string sName = file->first;
    const bool bDone = Try([&] { return m_pClient->Remove(m_sRoot, sName) == kOk; });
    if (bDone || !Exists(sName)) {
        m_Handles.erase(sName);
        m_Files.erase(sName);
    }
}

void ModelledClient::List() {
    std::vector<std::string> vsNames;
    if (!Try([&] { return m_pClient->Readdir(m_sRoot, vsNames, 1024) == kOk; })) {
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
    std::string sHandle;
    static_cast<void>(Try([&] { return m_pClient->Mkdir(m_sRoot, "folder", sHandle) == kOk; }));
    static_cast<void>(Try([&] {
        const std::uint32_t iStatus = m_pClient->Rmdir(m_sRoot, "folder");
        return iStatus == kOk || iStatus == kMissing;
    }));
    while (Exists("folder")) {
        static_cast<void>(Try([&] { return m_pClient->Rmdir(m_sRoot, "folder") == kOk; }));
    }
}

void ModelledClient::ReadDisk() {
    const std::size_t iOffset = Below(m_World.sDisk.size());
    const auto nCount = static_cast<std::uint32_t>(1 + Below(kLargestRead));
    std::string sData;
    bool bEof = false;
    if (Try([&] { return m_pClient->Read(GetHandle("disk"), iOffset, nCount, sData, bEof) == kOk; })) {
        Require(sData == m_World.sDisk.substr(iOffset, nCount), "disk: wrong bytes at " + std::to_string(iOffset));
    }
}

// The host says how much it takes of it: all.
void ModelledClient::WriteDisk() {
    const std::string sData = MakeContent(1 + Below(kLargestWrite));
    std::uint32_t nWritten = 0;
    if (Try([&] { return m_pClient->Write(GetHandle("disk"), 0, sData, nWritten) == kOk; })) {
        Require(nWritten == sData.size(), "disk: the host took all, and the client was told another number");
    }
}

// A file that the host replaces as a whole: each version holds one letter. A handle of the version before may be
// answered with that version or the next, never with both.
void ModelledClient::ReadHosted() {
    std::string sData;
    bool bEof = false;
    if (Try([&] { return m_pClient->Read(GetHandle("hosted"), 0, kLargestRead, sData, bEof) == kOk; })) {
        Require(!sData.empty() && sData.find_first_not_of(sData[0]) == std::string::npos,
                "hosted: a mixture of two versions");
    }
}

// ---- Calls that fail

bool ModelledClient::Try(const std::function<bool()>& call) {
    try {
        ++m_nCalls;
        if (call()) {
            return true;
        }
    } catch (const WrongAnswer&) {
        throw;
    } catch (const Stopped&) {
        throw;
    } catch (const std::exception&) {  // the connection is gone
    }
    Recover();
    return false;
}

/// Mounts anew, for as long as it takes the server to come back.
void ModelledClient::Recover() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    m_Handles.clear();
    for (;;) {
        try {
            m_pClient.reset();
            m_pClient = std::make_unique<NfsClient>(Transport::kTcp, m_World.sAddress);
            m_pClient->Umnt(m_World.sExport);
            m_sRoot = m_pClient->Mnt(m_World.sExport).value_or("");
            std::string sHandle;
            if (!m_sRoot.empty() && m_pClient->Lookup(m_sRoot, "disk", sHandle) == kOk) {
                return;
            }
        } catch (const std::exception&) {
        }
        if (*m_pbStop) {
            throw Stopped();
        }
        Require(std::chrono::steady_clock::now() < end, "the server does not come back");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string ModelledClient::GetHandle(const std::string& sName) {
    std::string& sHandle = m_Handles[sName];
    if (sHandle.empty()) {
        const std::uint32_t iStatus = m_pClient->Lookup(m_sRoot, sName, sHandle);
        Require(iStatus != kMissing, sName + " is gone");
        if (iStatus != kOk) {
            throw std::runtime_error("LOOKUP fails");
        }
    }
    return sHandle;
}

bool ModelledClient::Exists(const std::string& sName) {
    std::uint32_t iStatus = kOk;
    std::string sHandle;
    while (!Try([&] {
        iStatus = m_pClient->Lookup(m_sRoot, sName, sHandle);
        return iStatus == kOk || iStatus == kMissing;
    })) {
    }
    return iStatus == kOk;
}

std::string ModelledClient::ReadWhole(const std::string& sName) {
    std::string sAll;
    bool bEof = false;
    while (!bEof) {
        std::string sPart;
        const bool bRead =
            Try([&] { return m_pClient->Read(GetHandle(sName), sAll.size(), kLargestRead, sPart, bEof) == kOk; });
        if (!bRead) {
            sAll.clear();
            bEof = false;
        } else {
            sAll += sPart;
        }
    }
    return sAll;
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
