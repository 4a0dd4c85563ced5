// What both ends of the remote control share.
#include "IpcBasic.h"

#include <cstdarg>

#include "ServerIdentity.h"
#include "Texts.h"

namespace {

void InitialData(IpcDataBuf* pData, int iGroup, int iType) {
    Ipc_Header header{};
    header.iGroup = iGroup;
    header.iType = GetKnownIpcType(iGroup, iType);
    CopyText(header.cVersion, kServerVersion);
    std::memcpy(pData->cBuf, &header, sizeof(header));
    pData->lDataLen = static_cast<std::int64_t>(GetIpcRecordLength(iGroup, iType));
}

}  // namespace

CIpcBasic::CIpcBasic(CLog* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

void CIpcBasic::InitialRequestData(IpcDataBuf* pData, int iType) {
    InitialData(pData, kIpcGroupRequest, iType);
}

void CIpcBasic::InitialReplyData(IpcDataBuf* pData, int iType) {
    InitialData(pData, kIpcGroupReply, iType);
}

void CIpcBasic::InitialCallbackData(IpcDataBuf* pData, int iType) {
    InitialData(pData, kIpcGroupCallback, iType);
}

void CIpcBasic::PrintData(const LogArgu* pLogArgu, const IpcDataBuf* pData) {
    if (!m_pRuntimeParam->IsLogIpc()) {
        return;
    }
    const auto header = GetIpcRecord<Ipc_Header>(*pData);
    CopyText(cLogBuf, header.cVersion);  // a received one may lack its end
    const auto lDataLen = static_cast<unsigned long>(pData->lDataLen);
    switch (header.iGroup) {
        case kIpcGroupRequest:
            LogInfoFormat("[%s] Request action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                          header.iType, cLogBuf, lDataLen);
            break;
        case kIpcGroupReply:
            LogInfoFormat("[%s] Reply action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                          header.iType, cLogBuf, lDataLen);
            break;
        case kIpcGroupCallback:
            LogInfoFormat("[%s] Callback action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                          header.iType, cLogBuf, lDataLen);
            break;
        default:
            LogInfoFormat("[%s] Unknown action group: %d (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                          header.iGroup, header.iType, cLogBuf, lDataLen);
            break;
    }
}

void CIpcBasic::LogInfo(const char* pcMessage) {
    m_pUtilities->LogInfo(m_pRuntimeParam, "%s", pcMessage);
}

void CIpcBasic::LogError(const char* pcMessage) {
    m_pUtilities->LogError(m_pRuntimeParam, "%s", pcMessage);
}

void CIpcBasic::LogInfoFormat(const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    m_pUtilities->LogInfoList(m_pRuntimeParam, pcFormat, arguments);
    va_end(arguments);
}

void CIpcBasic::LogErrorFormat(const char* pcFormat, ...) {
    va_list arguments;
    va_start(arguments, pcFormat);
    m_pUtilities->LogErrorList(m_pRuntimeParam, pcFormat, arguments);
    va_end(arguments);
}
