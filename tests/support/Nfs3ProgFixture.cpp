// The NFS version 3 program on streams, without sockets.
#include "Nfs3ProgFixture.h"

#include <cstring>

Nfs3ProgFixture::Nfs3ProgFixture() {
    char vcReason[kReasonBufferSize] = "";
    EXPECT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, m_Folder.Path().c_str(), kExportName, kIpcID, vcReason))
        << vcReason;
}

std::string Nfs3ProgFixture::Call(unsigned int iProc, const std::string& sArguments) {
    std::string sReply = CallWithMoreBehind(iProc, sArguments, "");
    if (m_iResult == kProgHandled) {
        EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U) << "arguments left unread, procedure " << iProc;
    }
    return sReply;
}

std::string Nfs3ProgFixture::CallWithMoreBehind(unsigned int iProc, const std::string& sArguments,
                                                const std::string& sBehind) {
    const std::string sBytes = sArguments + sBehind;
    // What an earlier call left in the buffers must not show.
    m_Input.ResetBuffer();
    std::memset(m_Input.GetFreeBuffer(), 0x5A, sBytes.size() + 65536);
    std::memcpy(m_Input.GetFreeBuffer(), sBytes.data(), sBytes.size());
    m_Input.AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
    m_Output.ResetBuffer();
    std::memset(m_Output.GetBuffer(), 0xA5, 4096);

    ProcessParam param;
    param.iVersion = 3;
    param.iProc = iProc;
    param.sRemoteAddr = m_sRemoteAddr;
    param.pRuntimeParam = &m_Param;
    m_Param.SetID(m_sRemoteAddr.c_str());
    m_Param.SetIpcID("");
    m_iResult = m_pProg->Process(&m_Input, &m_Output, &param);
    EXPECT_EQ(m_Output.GetBufferIndex(), m_Output.GetBufferSize()) << "bytes behind the reply, procedure " << iProc;
    return {m_Output.GetBuffer(), m_Output.GetBufferSize()};
}

void Nfs3ProgFixture::ExpectBareFailure(const std::string& sReply, unsigned int iStatus, int nFalseWords) {
    XdrBuilder expected;
    expected.U32(iStatus);
    for (int i = 0; i < nFalseWords; ++i) {
        expected.Bool(false);
    }
    EXPECT_EQ(m_iResult, kProgHandled);
    EXPECT_EQ(Hex(sReply), Hex(expected.Bytes())) << m_Log.Dump();
}

std::string Nfs3ProgFixture::Handle(const std::string& sName) {
    return HandleOfPath(sName.empty() ? m_Folder.Path() : m_Folder / sName);
}

std::string Nfs3ProgFixture::HandleOfPath(const std::string& sPath) {
    CRuntimeParam quiet("test", 0);
    std::string sHandle(kNfs3HandleSize, '\0');
    EXPECT_TRUE(m_Utilities.GetFileHandle(&quiet, &m_Tag, sPath.c_str(), sHandle.data(), kNfs3HandleSize));
    return sHandle;
}

XdrBuilder Nfs3ProgFixture::DirOp(const std::string& sDirHandle, const std::string& sName) {
    return XdrBuilder().Opaque(sDirHandle).Opaque(sName);
}

unsigned int Nfs3ProgFixture::LookupStatus(const std::string& sName) {
    return WordAt(Call(kNfsLookup, DirOp(sName)), 0);
}

std::vector<std::string> Nfs3ProgFixture::TakeLog() {
    std::vector<std::string> vsTexts = m_Log.Texts();
    m_Log.Clear();
    return vsTexts;
}
