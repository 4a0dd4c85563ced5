// The host of a session's world.
#include "SessionHost.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <utility>

#include "Callback.h"
#include "HostMethodNames.h"
#include "IpcPeer.h"
#include "Limits.h"
#include "RedirectedFile.h"
#include "SessionCalls.h"
#include "TellingUtilities.h"

namespace {

/// A path that a local user's link leads elsewhere is no place for the host's info file, and none that it exports.
bool IsPlain(const char* pcPath) {
    std::error_code ignored;
    return std::filesystem::weakly_canonical(pcPath, ignored) == std::filesystem::path(pcPath);
}

constexpr std::int64_t kMiB = 1048576;
constexpr std::int64_t kMaxSegment = 64 * kMiB;  ///< as many records as an info file gets at once
constexpr std::int64_t kMaxExport = 4 * kMiB;

constexpr const char* kExportFolders[] = {"", "/folder", "/other", "/none"};
constexpr const char* kExportNames[] = {"fuzz", "inner", "other", "a/b", "a b", ""};
constexpr const char* kSources[] = {"/host/a", "/host/b", "/host/missing", ""};
constexpr std::int64_t kFileSizes[] = {0, 1, 4096, kMiB, 3 * kMiB, std::int64_t{1} << 41U, INT64_MAX, -1};
constexpr std::int64_t kOffsets[] = {0, 1, 10, 500, 4096, kMiB, std::int64_t{1} << 40U, INT64_MAX, -1, INT64_MIN};

template <std::size_t n>
void SetText(char (&cField)[n], const std::string& sText) {
    std::memcpy(cField, sText.data(), std::min(sText.size(), n));
}

}  // namespace

// ---- The controller

SessionMain::SessionMain(std::string sFolder, std::function<void(std::string_view)> tell)
    : m_sFolder(std::move(sFolder)), m_Tell(std::move(tell)) {
    CNfsMain::InitMemberVaribles("fuzz", ~0);
}

std::unique_ptr<CUtilities> SessionMain::CreateUtilities() {
    return std::make_unique<TellingUtilities>(m_Tell);
}

/// Of the export, or of the host's own folder.
bool SessionMain::IsMine(const char* pcPath) const {
    const std::string_view sPath(pcPath != nullptr ? pcPath : "");
    return sPath.starts_with(m_sFolder + "/") && sPath.find("..") == std::string_view::npos;
}

bool SessionMain::StartServer(int /*iMountPort*/, int /*iNfsPort*/, unsigned int /*iUId*/, unsigned int /*iGId*/,
                              bool bReadOnly, char* pcStatus) {
    std::strcpy(pcStatus, "no sockets here");  // NOLINT: fits
    return bReadOnly;
}

bool SessionMain::AddMountPoint(const char* pcPath, const char* pcName, const char* pcIpcID, char* pcStatus) {
    return IsMine(pcPath) && IsPlain(pcPath) && CNfsMain::AddMountPoint(pcPath, pcName, pcIpcID, pcStatus);
}

void SessionMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bInfo, int iSegmentMB,
                                     int iCheckPointMB) {
    if (IsMine(pcPath)) {
        CNfsMain::OpenRedirectedFile(pcPath, iSize, bInfo && IsPlain(pcPath), iSegmentMB, iCheckPointMB);
    }
}

bool SessionMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSource, long long iSourceOffset,
                                           long long iOffset, long long iLength, char* pcStatus) {
    const bool bKnown = pcSource == nullptr || *pcSource == '\0' || IsMine(pcSource);
    return bKnown && CNfsMain::AddRedirectedFileSegment(pcPath, pcSource, iSourceOffset, iOffset,
                                                        std::min<long long>(iLength, kMaxSegment), pcStatus);
}

void SessionMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    const auto pFile = GetUtilities()->GetRedirectedFile(pcPath);
    if (pFile && pFile->GetFileSize() <= kMaxExport && IsMine(pcExportPath)) {
        CNfsMain::ExportRedirectedFile(pcPath, pcExportPath);
    }
}

void SessionMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMerge) {
    if (IsMine(pcExportPath)) {
        CNfsMain::ExportRedirectedFileInfo(pcPath, pcExportPath, bMerge);
    }
}

void SessionMain::RunTestMode(CRuntimeParam* /*pParam*/, const char* /*pcPath*/, long long /*iSize*/) {}

int SessionMain::ExecuteSystemCmd(CRuntimeParam* /*pParam*/, const char* /*pcCmd*/, bool /*bLog*/) {
    return -1;
}

bool SessionMain::AddNetDeviceCredential(const char* /*pcPath*/, const char* /*pcUser*/, const char* /*pcPwd*/) {
    return true;
}

bool SessionMain::RemoveNetDeviceCredential(const char* /*pcPath*/) {
    return false;
}

// ---- What the host answers

SessionHost::SessionHost(SessionMain* pMain, std::string sFolder, std::function<void(std::string_view)> tell)
    : m_pMain(pMain), m_sFolder(std::move(sFolder)), m_Tell(std::move(tell)), m_Server(pMain) {
    m_Jvm.SetQuiet(true);
    const JavaFrame java(m_Jvm);
    m_pMain->SetCallback(std::make_shared<CCallback>(java.Env(), m_Jvm.NewHost(MakeMethods())));
}

SessionHost::~SessionHost() {
    m_pMain->SetCallback(nullptr);
}

HostMethods SessionHost::MakeMethods() {
    HostMethods methods;
    for (const char* pcMethod : {kHostUpdate, kHostRemove, kHostRename, kHostWrite}) {
        const std::string sWhat = "host: " + std::string(pcMethod, std::strchr(pcMethod, '('));
        methods[pcMethod] = [this, sWhat](const std::vector<HostArgument>& vArguments) {
            return Answer(sWhat.c_str(), vArguments);
        };
    }
    for (const char* pcMethod : {kHostLogInfo, kHostLogError, kHostLogRaw}) {
        methods[pcMethod] = [](const std::vector<HostArgument>&) { return HostAnswer{}; };
    }
    return methods;
}

void SessionHost::ChooseAnswer(SessionScript& script) {
    m_iAnswer = script.Byte();
    m_iDeed = script.Byte();
}

/// Called from within a client's call.
HostAnswer SessionHost::Answer(const char* pcWhat, const std::vector<HostArgument>& vArguments) {
    m_Tell(pcWhat);
    switch (m_iDeed % 6) {
        case 1:
            m_pMain->CloseAllRedirectedFiles(m_sFolder.c_str());
            break;
        case 2:
            m_pMain->RemoveMountPoint(PathOf("").c_str());
            break;
        case 3:
            m_pMain->OpenRedirectedFile(PathOf("/disk").c_str(), kMiB, false, 0, 0);
            break;
        case 4:
            m_pMain->CloseAllCachedFileHandles("");
            break;
        default:
            break;
    }
    constexpr int kAnswers[] = {0, -1, 1, 5, 70000, INT32_MAX, INT32_MIN};
    if (m_iAnswer >= 0xF0) {
        return {.sThrows = "java/lang/RuntimeException"};
    }
    const bool bAsAsked = m_iAnswer >= 0x80 && vArguments.size() == 5;  // a write, all of it
    return {.iValue = bAsAsked ? vArguments[4].value.i : kAnswers[m_iAnswer % std::size(kAnswers)]};
}

std::string SessionHost::JudgeJvm() const {
    const std::vector<std::string> vsViolations = m_Jvm.Violations();
    if (!vsViolations.empty()) {
        return "the virtual machine: " + vsViolations.front();
    }
    return m_Jvm.GlobalReferences() == 1 && m_Jvm.LocalReferences() == 0 ? "" : "references into the host are left";
}

// ---- What the host asks

std::string SessionHost::PathOf(std::string_view sName) const {
    return m_sFolder + "/session/export" + std::string(sName);
}

std::string SessionHost::Prepare() {
    IpcRequest_AddMountPoint mount{};
    SetText(mount.cLocalMountFolder, PathOf(""));
    SetText(mount.cExportName, "fuzz");
    IpcRequest_OpenRedirectedFile open{};
    SetText(open.cPath, PathOf("/disk"));
    open.iSize = kMiB;
    IpcRequest_AddRedirectedFileSegment segment{};
    SetText(segment.cPath, PathOf("/disk"));
    SetText(segment.cSrcPath, m_sFolder + "/host/a");
    segment.iLength = 500;
    IpcRequest_AddRedirectedFileSegment more = segment;
    SetText(more.cSrcPath, m_sFolder + "/host/b");
    more.iOffset = 500;
    const std::string vsFailures[] = {Send(mount, kIpcAddMountPoint), Send(open, kIpcOpenRedirectedFile),
                                      Send(segment, kIpcAddRedirectedFileSegment),
                                      Send(more, kIpcAddRedirectedFileSegment)};
    const auto itFailure = std::ranges::find_if(vsFailures, [](const std::string& s) { return !s.empty(); });
    const LogArgu tag{"fuzz"};
    for (const char* pcName : {"", "/file", "/folder", "/folder/entry", "/disk", "/other"}) {
        m_pMain->GetUtilities()->GetFileID(m_pMain->GetRuntimeParam(), &tag, PathOf(pcName).c_str());
    }
    return itFailure == std::end(vsFailures) ? "" : *itFailure;
}

std::string SessionHost::Request(SessionScript& script) {
    const unsigned int iType = script.Below(32) + 1;
    const unsigned int iCut = script.Byte();
    const std::size_t nCut = iCut >= 0xF0 ? (iCut - 0xF0) * 64 + 1 : 0;
    if (iType >= kIpcOpenRedirectedFile && iType <= kIpcCloseAllCachedFileHandles) {
        return RequestRedirected(script, iType, nCut);
    }
    return RequestOther(script, iType, nCut);
}

std::string SessionHost::RequestRedirected(SessionScript& script, unsigned int iType, std::size_t nCut) {
    const std::string sPath = PathOf(std::string("/") + ChooseSessionName(script));
    switch (iType) {
        case kIpcOpenRedirectedFile: {
            IpcRequest_OpenRedirectedFile record{};
            SetText(record.cPath, sPath);
            record.iSize = script.OneOf(kFileSizes);
            record.bCreateInfoFile = static_cast<IpcBool>(script.Byte() & 1U);
            record.iInfoFileSegmentSizeMB = static_cast<std::int32_t>(script.Byte() % 3);
            record.iInfoFileCheckPointSizeMB = static_cast<std::int32_t>(script.Byte() % 3);
            return Send(record, static_cast<int>(iType), nCut);
        }
        case kIpcAddRedirectedFileSegment: {
            IpcRequest_AddRedirectedFileSegment record{};
            SetText(record.cPath, sPath);
            const std::string sSource = script.OneOf(kSources);
            SetText(record.cSrcPath, sSource.empty() ? "" : m_sFolder + sSource);
            record.iSrcFileOffset = script.OneOf(kOffsets);
            record.iOffset = script.OneOf(kOffsets);
            record.iLength = script.OneOf(kOffsets);
            return Send(record, static_cast<int>(iType), nCut);
        }
        case kIpcExportRedirectedFile:
        case kIpcExportRedirectedFileInfo: {
            IpcRequest_ExportRedirectedFileInfo record{};
            SetText(record.cPath, sPath);
            SetText(record.cExportPath, m_sFolder + "/host/out");
            record.bMergeRange = static_cast<IpcBool>(script.Byte());
            return Send(record, static_cast<int>(iType), nCut);
        }
        default: {
            IpcRequest_CloseRedirectedFile record{};
            SetText(record.cPath, sPath);
            return Send(record, static_cast<int>(iType), nCut);
        }
    }
}

/// All other types: what stands behind the header is a path, a name, or the script's own bytes.
std::string SessionHost::RequestOther(SessionScript& script, unsigned int iType, std::size_t nCut) {
    const auto iRequest = static_cast<int>(iType);
    if (iType == kIpcAddMountPoint || iType == kIpcRemoveMountPoint) {
        IpcRequest_AddMountPoint record{};
        SetText(record.cLocalMountFolder, PathOf(script.OneOf(kExportFolders)));
        SetText(record.cExportName, script.OneOf(kExportNames));
        return Send(record, iRequest, nCut);
    }
    if (iType == kIpcSetLogControl) {
        IpcRequest_SetLogControl record{};
        record.iLogControl = (script.Byte() & 1U) != 0 ? ~0 : CRuntimeParam::kLogProcFuncName;
        return Send(record, iRequest, nCut);
    }
    if (iType == kIpcRunQuickTestMode) {
        IpcRequest_RunQuickTestMode record{};
        SetText(record.cPath, PathOf(std::string("/") + ChooseSessionName(script)));
        return Send(record, iRequest, nCut);
    }
    IpcDataBuf body{};
    const std::string_view sBytes = script.Bytes();
    std::copy(sBytes.begin(), sBytes.end(), body.cBuf + sizeof(Ipc_Header));
    return Send(body.cBuf, GetIpcRecordLength(kIpcGroupRequest, iRequest), iRequest, nCut);
}

std::string SessionHost::RawRecord(SessionScript& script) {
    auto pInst = std::make_unique<IpcDataInst>();
    const std::string_view sBytes = script.Bytes();
    std::copy(sBytes.begin(), sBytes.end(), pInst->request.cBuf);
    pInst->request.lDataLen = static_cast<std::int64_t>(sBytes.size());
    return Dispatch(pInst.get());
}

/// As a record arrives: what was cut off is zero.
std::string SessionHost::Send(const void* pvRecord, std::size_t nRecord, int iType, std::size_t nCut) {
    auto pInst = std::make_unique<IpcDataInst>();
    const std::size_t nSent = nCut == 0 ? nRecord : std::min(nCut, nRecord);
    std::string sRecord(static_cast<const char*>(pvRecord), nRecord);
    const Ipc_Header header{kIpcGroupRequest, iType, "1.4"};
    std::memcpy(sRecord.data(), &header, sizeof(header));
    std::copy_n(sRecord.begin(), nSent, pInst->request.cBuf);
    pInst->request.lDataLen = static_cast<std::int64_t>(nSent);
    if (nSent >= sizeof(header)) {
        m_Tell("request " + std::to_string(iType));
    }
    return Dispatch(pInst.get());
}

std::string SessionHost::Dispatch(IpcDataInst* pInst) {
    const LogArgu tag{"fuzz"};
    m_Server.ParseData(&tag, pInst);
    const std::string_view sReply(pInst->reply.cBuf, sizeof(pInst->reply.cBuf));
    const bool bWhole = I32At(sReply, 0) == kIpcGroupReply && static_cast<std::size_t>(pInst->reply.lDataLen) ==
                                                                  GetIpcRecordLength(kIpcGroupReply, I32At(sReply, 4));
    return bWhole ? "" : "a record was not answered with one whole reply";
}
