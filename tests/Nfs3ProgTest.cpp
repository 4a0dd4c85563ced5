// The frame of the NFS version 3 program: every number is answered, short arguments harm nothing, common log lines.
#include <gmock/gmock.h>

#include "Nfs3ProgFixture.h"
#include "NfsProg.h"
#include "ThrowingUtilities.h"

namespace {

using testing::IsEmpty;
using Lines = std::vector<std::string>;

using Nfs3ProgTest = Nfs3ProgFixture;

/// Complete arguments of a procedure, on the exported folder, that change as much as the procedure can.
std::string WholeArguments(unsigned int iProc, const std::string& sDir) {
    const std::string sNone(24, '\0');
    const std::string sMode = XdrBuilder().U32(1).U32(0700).Raw(std::string(20, '\0')).Bytes();
    XdrBuilder handle;
    handle.Opaque(sDir);
    XdrBuilder named;
    named.Opaque(sDir).Opaque("entry");
    switch (iProc) {
        case kNfsNull:
            return "";
        case kNfsSetattr:
            return handle.Raw(sMode).U32(0).Bytes();
        case kNfsLookup:
        case kNfsRemove:
        case kNfsRmdir:
            return named.Bytes();
        case kNfsAccess:
            return handle.U32(0x3F).Bytes();
        case kNfsRead:
        case kNfsCommit:
            return handle.U64(0).U32(100).Bytes();
        case kNfsWrite:
            return handle.U64(0).U32(5).U32(2).Opaque("hello").Bytes();
        case kNfsCreate:
            return named.U32(0).Raw(sNone).Bytes();
        case kNfsMkdir:
            return named.Raw(sMode).Bytes();
        case kNfsSymlink:
            return named.Raw(sMode).Opaque("target").Bytes();
        case kNfsMknod:
            return named.U32(3).Raw(sMode).U32(1).U32(2).Bytes();
        case kNfsRename:
            return named.Opaque(sDir).Opaque("other").Bytes();
        case kNfsLink:
            return handle.Opaque(sDir).Opaque("entry").Bytes();
        case kNfsReaddir:
            return handle.U64(0).U64(0).U32(100).Bytes();
        case kNfsReaddirplus:
            return handle.U64(0).U64(0).U32(100).U32(100).Bytes();
        default:
            return handle.Bytes();
    }
}

TEST_F(Nfs3ProgTest, SpeaksVersion3WithTwentyTwoProcedures) {
    EXPECT_EQ(m_Prog.GetVersion(), 3U);
    EXPECT_EQ(m_Prog.GetMaxSupportProc(), 22U);
}

TEST_F(Nfs3ProgTest, EveryNumberIsAnswered) {
    EXPECT_EQ(CNfs3Prog::GetProcedures().size(), 22U);
    for (unsigned int i = 0; i < 22; ++i) {
        Call(i, WholeArguments(i, Handle()));
        EXPECT_EQ(m_iResult, kProgHandled) << CNfs3Prog::GetProcedures()[i].pcTag;
    }
}

TEST_F(Nfs3ProgTest, EveryNumberLogsItsOwnName) {
    constexpr const char* kNames[] = {"NULL",   "GETATTR", "SETATTR",  "LOOKUP", "ACCESS",  "READLINK",
                                      "READ",   "WRITE",   "CREATE",   "MKDIR",  "SYMLINK", "MKNOD",
                                      "REMOVE", "RMDIR",   "RENAME",   "LINK",   "READDIR", "READDIRPLUS",
                                      "FSSTAT", "FSINFO",  "PATHCONF", "COMMIT"};
    SetLog(CRuntimeParam::kLogProcFuncName);
    for (unsigned int i = 0; i < 22; ++i) {
        Call(i, WholeArguments(i, m_sForged));
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.Process]", std::string("[Nfs3Prog.Procedure") + kNames[i] + "]"}));
    }
}

TEST_F(Nfs3ProgTest, EveryProcedureButNullLogsItsStatusLast) {
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    for (unsigned int i = 1; i < 22; ++i) {
        const std::string sReply = Call(i, WholeArguments(i, m_sForged));
        EXPECT_EQ(TakeLog().back(), "[" + std::string(CNfs3Prog::GetProcedures()[i].pcTag) +
                                        "] End stat=" + std::to_string(WordAt(sReply, 0)));
    }
    Call(kNfsNull, "");
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Nfs3ProgTest, ProceduresBeyondTheLastAreNotAvailable) {
    SetLog(CRuntimeParam::kLogProcFuncName);
    for (const unsigned int iProc : {22U, 23U, 1000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Call(iProc, ""), "");
        EXPECT_EQ(m_iResult, kProgNotImplemented) << iProc;
        EXPECT_EQ(TakeLog(), (Lines{"[Nfs3Prog.Process]", "[Nfs3Prog.ProcedureNOIMP]"}));
    }
}

TEST_F(Nfs3ProgTest, NullAnswersNothing) {
    EXPECT_EQ(Call(kNfsNull, ""), "");
    EXPECT_EQ(m_iResult, kProgHandled);
}

TEST_F(Nfs3ProgTest, CallCutAnywhereIsTruncatedAndChangesNothing) {
    for (unsigned int iProc = 1; iProc < 22; ++iProc) {
        const std::string sWhole = WholeArguments(iProc, Handle());
        for (std::size_t i = 0; i < sWhole.size(); ++i) {
            EXPECT_EQ(Call(iProc, sWhole.substr(0, i)), "") << "procedure " << iProc << " cut at " << i;
            EXPECT_EQ(m_iResult, kProgTruncated) << "procedure " << iProc << " cut at " << i;
        }
    }
    EXPECT_EQ(WordAt(Call(kNfsReaddir, WholeArguments(kNfsReaddir, Handle())), 100), 0U) << "the folder is empty";
    struct stat status {};
    ASSERT_EQ(::stat(m_Folder.Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U) << "as it was made";
}

TEST_F(Nfs3ProgTest, TruncationIsLoggedAsAnError) {
    SetLog(CRuntimeParam::kLogError);
    Call(kNfsGetattr, XdrBuilder().U32(56).Raw("12345").Bytes());
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{LogLine{'e', kClientID, "[Nfs3Prog.Process] Data is truncated.Missing 51 data"}}));
}

TEST_F(Nfs3ProgTest, UnexpectedExceptionIsGarbageArgumentsAndLoggedAsAnError) {
    ThrowingUtilities utilities(&m_Log);
    CNfs3Prog prog(&utilities);
    ProcessParam param;
    param.iProc = kNfsAccess;
    param.pRuntimeParam = &m_Param;
    for (const bool bLogError : {true, false}) {
        const std::string sArguments = WholeArguments(kNfsAccess, Handle());
        m_Input.ResetBuffer();
        std::copy(sArguments.begin(), sArguments.end(), m_Input.GetFreeBuffer());
        m_Input.AddFilledBufferSize(static_cast<unsigned int>(sArguments.size()));
        SetLog(CRuntimeParam::kLogProcFuncArgu | (bLogError ? CRuntimeParam::kLogError : 0));
        EXPECT_EQ(prog.Process(&m_Input, &m_Output, &param), kProgGarbageArgs);
        std::vector<LogLine> vLines = m_Log.Lines();
        m_Log.Clear();
        ASSERT_EQ(vLines.empty(), !bLogError);
        if (bLogError) {
            EXPECT_EQ(vLines.back(), (LogLine{'e', kClientID, "[Nfs3Prog.Process] Unknown exception"}));
        }
    }
}

TEST_F(Nfs3ProgTest, EveryLineUnderTheErrorBitIsAnErrorLine) {
    SetLog(CRuntimeParam::kLogError);
    for (unsigned int i = 1; i < 22; ++i) {
        m_Log.Clear();
        Call(i, WholeArguments(i, m_sForged));
        EXPECT_FALSE(m_Log.Texts('e').empty()) << "procedure " << i;
        EXPECT_EQ(m_Log.Texts('e'), m_Log.Texts()) << "procedure " << i;
    }
    m_Log.Clear();
    Call(kNfsRead, WholeArguments(kNfsRead, Handle()));
    Call(kNfsWrite, WholeArguments(kNfsWrite, Handle()));
    const std::string sSize = XdrBuilder().U32(0).U32(0).U32(0).U32(1).U64(5).U32(0).U32(0).Bytes();
    Call(kNfsSetattr, XdrBuilder().Opaque(Handle()).Raw(sSize).U32(0));
    Call(kNfsSetattr, XdrBuilder().Opaque(Handle()).Raw(sSize).U32(1).U32(5).U32(0));
    EXPECT_GE(m_Log.Texts('e').size(), 5U) << m_Log.Dump();
    EXPECT_EQ(m_Log.Texts('e'), m_Log.Texts()) << "a folder can be neither read nor written nor cut";
}

TEST_F(Nfs3ProgTest, EveryLineUnderTheOtherBitsIsAnInformationLine) {
    SetLog(~CRuntimeParam::kLogError);
    for (const std::string& sHandle : {Handle(), m_sForged}) {
        for (unsigned int i = 0; i < 23; ++i) {
            m_Log.Clear();
            Call(i, WholeArguments(i, sHandle));
            EXPECT_FALSE(m_Log.Texts('i').empty()) << "procedure " << i;
            EXPECT_EQ(m_Log.Texts('i'), m_Log.Texts()) << "procedure " << i;
        }
    }
}

TEST_F(Nfs3ProgTest, WhatFollowsACallIsLeftForTheNext) {
    WriteWholeFile(Path("file"), "content");
    for (unsigned int iProc = 0; iProc < 22; ++iProc) {
        for (const std::string& sHandle : {Handle(), m_sForged, std::string(), std::string("ab")}) {
            CallWithMoreBehind(iProc, WholeArguments(iProc, sHandle), "next call");
            EXPECT_EQ(m_Input.GetFilledBufferSize(), 9U) << "procedure " << iProc << " handle " << Hex(sHandle);
        }
    }
}

TEST_F(Nfs3ProgTest, WithoutUtilitiesNothingIsAvailable) {
    CNfs3Prog prog(nullptr);
    ProcessParam param;
    param.pRuntimeParam = &m_Param;
    SetLog(0x3FF);
    EXPECT_EQ(prog.Process(&m_Input, &m_Output, &param), kProgNotImplemented);
}

// ---- Who a call is done for

TEST_F(Nfs3ProgTest, CallCarriesTheNameAndIpcIdOfItsExport) {
    Call(kNfsGetattr, XdrBuilder().Opaque(Handle()));
    EXPECT_STREQ(m_Param.GetID(), kExportName);
    EXPECT_STREQ(m_Param.GetIpcID(), kIpcID);
}

TEST_F(Nfs3ProgTest, CallOnNoExportKeepsItsClientAndSaysSo) {
    SetLog(CRuntimeParam::kLogError);
    ExpectBareFailure(Call(kNfsGetattr, XdrBuilder().Opaque(m_sForged)), 5, 0);
    EXPECT_STREQ(m_Param.GetID(), kClientID);
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{LogLine{'e', kClientID, "[Nfs3Prog.ProcedureGETATTR] Path record not found"}}));
}

TEST_F(Nfs3ProgTest, CheckPathOfNoPathIsStale) {
    ProcessParam param;
    param.pRuntimeParam = &m_Param;
    EXPECT_EQ(m_Prog.CheckPath(&param, &m_Tag, nullptr, false), 70U);
    EXPECT_EQ(m_Prog.CheckPath(&param, &m_Tag, nullptr, true), 70U);
    EXPECT_EQ(m_Prog.CheckPath(&param, &m_Tag, "/no/such/path", false), 0U);
    EXPECT_EQ(m_Prog.CheckPath(&param, &m_Tag, "/no/such/path", true), 5U);
    EXPECT_EQ(m_Prog.CheckPath(&param, &m_Tag, m_Folder.Path().c_str(), true), 0U);
}

// ---- The choice of the program by version

class NfsProgTest : public Nfs3ProgFixture {
protected:
    int Process(CNfsProg& prog, unsigned int iVersion, unsigned int iProc, const std::string& sArguments = "") {
        m_Input.ResetBuffer();
        m_Output.ResetBuffer();
        std::copy(sArguments.begin(), sArguments.end(), m_Input.GetFreeBuffer());
        m_Input.AddFilledBufferSize(static_cast<unsigned int>(sArguments.size()));
        ProcessParam param;
        param.iVersion = iVersion;
        param.iProc = iProc;
        param.pRuntimeParam = &m_Param;
        return prog.Process(&m_Input, &m_Output, &param);
    }
};

TEST_F(NfsProgTest, OtherVersionsAreNotAvailable) {
    CNfsProg prog(&m_Utilities);
    for (const unsigned int iVersion : {0U, 1U, 2U, 4U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Process(prog, iVersion, kNfsNull), kProgNotImplemented) << iVersion;
    }
    EXPECT_EQ(Process(prog, 3, kNfsNull), kProgHandled);
    EXPECT_EQ(Process(prog, 2, kNfsNull), kProgNotImplemented);
}

TEST_F(NfsProgTest, AnswersForVersionAndProceduresComeWithTheFirstCall) {
    CNfsProg prog(&m_Utilities);
    EXPECT_EQ(prog.GetVersion(), 0xFFFFFFFFU);
    EXPECT_EQ(prog.GetMaxSupportProc(), 0xFFFFFFFFU);
    Process(prog, 2, kNfsNull);
    EXPECT_EQ(prog.GetVersion(), 0xFFFFFFFFU) << "a refused call makes no program";
    Process(prog, 3, kNfsNull);
    EXPECT_EQ(prog.GetVersion(), 3U);
    EXPECT_EQ(prog.GetMaxSupportProc(), 22U);
}

TEST_F(NfsProgTest, ReadOnlyIsPassedOnBeforeAndAfterTheFirstCall) {
    CNfsProg prog(&m_Utilities);
    const std::string sArguments = DirOp("new").U32(0).Raw(m_sNoAttributes).Bytes();
    prog.SetUserID(1000, 1000);
    prog.SetReadOnly(true);
    EXPECT_EQ(Process(prog, 3, kNfsCreate, sArguments), kProgHandled);
    EXPECT_EQ(WordAt({m_Output.GetBuffer(), m_Output.GetBufferSize()}, 0), 13U);
    prog.SetUserID(0, 0);
    prog.SetReadOnly(false);
    EXPECT_EQ(Process(prog, 3, kNfsCreate, sArguments), kProgHandled);
    EXPECT_EQ(WordAt({m_Output.GetBuffer(), m_Output.GetBufferSize()}, 0), 0U);
}

}  // namespace
