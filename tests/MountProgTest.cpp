// MOUNT's replies byte by byte, and its log lines.
#include "MountProg.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "InputStream.h"
#include "LogCapture.h"
#include "NfsClient.h"
#include "OutputStream.h"
#include "TempFolder.h"
#include "ThrowingUtilities.h"

namespace {

using testing::IsEmpty;
using Lines = std::vector<std::string>;

constexpr const char* kClient = "10.0.0.5";

class MountProgTest : public testing::Test {
protected:
    MountProgTest() {
        char vcReason[kReasonBufferSize] = "";
        EXPECT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, m_Folder.Path().c_str(), "data", "", vcReason))
            << vcReason;
    }

    std::string Call(unsigned int iProc, const std::string& sArguments, unsigned int iVersion = 3,
                     const char* pcClient = kClient) {
        m_Input.ResetBuffer();
        std::memcpy(m_Input.GetFreeBuffer(), sArguments.data(), sArguments.size());
        m_Input.AddFilledBufferSize(static_cast<unsigned int>(sArguments.size()));
        m_Output.ResetBuffer();
        ProcessParam param;
        param.iVersion = iVersion;
        param.iProc = iProc;
        param.sRemoteAddr = pcClient;
        param.pRuntimeParam = &m_Param;
        m_iResult = m_Prog.Process(&m_Input, &m_Output, &param);
        return {m_Output.GetBuffer(), m_Output.GetBufferSize()};
    }
    std::string Mnt(const std::string& sName, unsigned int iVersion = 3, const char* pcClient = kClient) {
        return Call(kMountMnt, XdrBuilder().Opaque(sName).Bytes(), iVersion, pcClient);
    }
    void Umnt(const std::string& sName) {
        EXPECT_EQ(Call(kMountUmnt, XdrBuilder().Opaque(sName).Bytes()), "");
        EXPECT_EQ(m_iResult, kProgHandled);
    }
    void SetLog(int iBits) { m_Param.SetLogControl(iBits); }
    /// The root's handle: the first ID that was given out.
    static std::string FirstHandle(std::size_t iSize) { return std::string(iSize, '\0'); }

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{kClient, 0};
    LogArgu m_Tag{"Test"};
    CMountProg m_Prog{&m_Utilities};
    CInputStream m_Input;
    COutputStream m_Output;
    int m_iResult = -1;
};

const std::string kRefused = XdrBuilder().U32(13).Bytes();

TEST_F(MountProgTest, NullAnswersNothing) {
    EXPECT_EQ(Call(kMountNull, ""), "");
    EXPECT_EQ(m_iResult, kProgHandled);
}

TEST_F(MountProgTest, OnlyNullMntAndUmntAreAvailable) {
    EXPECT_EQ(m_Prog.GetMaxSupportProc(), 6U);
    EXPECT_EQ(m_Prog.GetVersion(), 0xFFFFFFFFU);
    for (const unsigned int iProc : {2U, 4U, 5U, 6U, 7U, 1000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Call(iProc, ""), "") << iProc;
        EXPECT_EQ(m_iResult, kProgNotImplemented) << iProc;
    }
}

TEST_F(MountProgTest, Version3AnswersLengthHandleAndNoFlavours) {
    EXPECT_EQ(Hex(Mnt("data")), Hex(XdrBuilder().U32(0).U32(56).Raw(FirstHandle(56)).U32(0).Bytes()));
    EXPECT_EQ(m_iResult, kProgHandled);
}

TEST_F(MountProgTest, Version1Answers32BytesOfHandleWithoutLength) {
    EXPECT_EQ(Hex(Mnt("data", 1)), Hex(XdrBuilder().U32(0).Raw(FirstHandle(32)).Bytes()));
}

TEST_F(MountProgTest, EveryOtherVersionIsAnsweredLikeVersion3) {
    for (const unsigned int iVersion : {0U, 2U, 4U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Mnt("data", iVersion).size(), 68U) << iVersion;
        Umnt("data");
    }
}

TEST_F(MountProgTest, HandleCarriesTheIdInLittleEndianOrder) {
    const TempFolder second;
    ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, second.Path().c_str(), "second", "", nullptr));
    for (int i = 0; i < 258; ++i) {  // IDs 0 to 257
        m_Utilities.GetFileID(&m_Param, &m_Tag, ("/none/" + std::to_string(i)).c_str());
    }
    EXPECT_EQ(Hex(Mnt("second").substr(8, 8)), "02 01 00 00 00 00 00 00 ");
}

TEST_F(MountProgTest, MntBindsAndUmntReleases) {
    Mnt("data");
    EXPECT_TRUE(m_Utilities.IsRemoteAddrExists(kClient));
    Umnt("data");
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists(kClient));
}

TEST_F(MountProgTest, SecondMountOfTheSameExportIsRefusedEvenForItsOwnClient) {
    SetLog(CRuntimeParam::kLogError);
    Mnt("data");
    EXPECT_EQ(Hex(Mnt("data")), Hex(kRefused));
    EXPECT_EQ(m_Log.Texts('e'),
              (Lines{"[MountProg.ProcedureMNT] This mount point \"data\" already mounted by 10.0.0.5"}));
    EXPECT_EQ(Hex(Mnt("data", 3, "10.0.0.6")), Hex(kRefused));
    EXPECT_EQ(Hex(Mnt("data", 1)), Hex(kRefused)) << "version 1 as well";
}

TEST_F(MountProgTest, UnknownExportIsRefused) {
    SetLog(CRuntimeParam::kLogError);
    EXPECT_EQ(Hex(Mnt("nothing")), Hex(kRefused));
    EXPECT_EQ(m_iResult, kProgHandled);
    EXPECT_EQ(
        m_Log.Lines(),
        (std::vector<LogLine>{LogLine{'e', kClient, "[MountProg.ProcedureMNT] Undefined export name \"nothing\""}}));
}

TEST_F(MountProgTest, EmptyNameIsRefusedWithALineAtInformationLevel) {
    SetLog(CRuntimeParam::kLogError);
    EXPECT_EQ(Hex(Mnt("")), Hex(kRefused));
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{LogLine{'i', kClient, "[MountProg.ProcedureMNT] Fail to read export name"}}));
    m_Log.Clear();
    SetLog(CRuntimeParam::kLogGeneralInfo);
    Mnt("");
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{LogLine{'i', kClient, "[MountProg.ProcedureMNT] Mount FAIL"}}))
        << "the other line is gated by the error bit";
}

TEST_F(MountProgTest, MissingAddressIsRefused) {
    SetLog(CRuntimeParam::kLogError);
    EXPECT_EQ(Hex(Mnt("data", 3, "")), Hex(kRefused));
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<LogLine>{LogLine{'i', kClient, "[MountProg.ProcedureMNT] Fail to get remote address"}}));
    m_Log.Clear();
    Mnt("", 3, "");
    EXPECT_EQ(m_Log.Texts('i'), (Lines{"[MountProg.ProcedureMNT] Fail to read export name",
                                       "[MountProg.ProcedureMNT] Fail to get remote address"}));
}

TEST_F(MountProgTest, NameOf4096BytesIsRefusedAndLeftUnread) {
    EXPECT_EQ(Hex(Mnt(std::string(4096, 'x'))), Hex(kRefused));
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 4096U);
    EXPECT_EQ(Hex(Mnt(std::string(4095, 'x'))), Hex(kRefused));
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U) << "shorter ones are read";
    EXPECT_EQ(Hex(Call(kMountMnt, XdrBuilder().U32(0xFFFFFFFFU).Bytes())), Hex(kRefused)) << "huge length, no bytes";
    EXPECT_EQ(m_iResult, kProgHandled);
}

TEST_F(MountProgTest, NameThatRunsPastTheEndOfTheCallIsTruncated) {
    SetLog(CRuntimeParam::kLogError);
    const std::string sWhole = XdrBuilder().Opaque("data1").Bytes();  // with three bytes of padding
    for (std::size_t i = 0; i < sWhole.size(); ++i) {
        for (const unsigned int iProc : {kMountMnt, kMountUmnt}) {
            EXPECT_EQ(Call(iProc, sWhole.substr(0, i)), "") << i;
            EXPECT_EQ(m_iResult, kProgTruncated) << i;
        }
    }
    EXPECT_EQ(m_Log.Texts('e').front(), "[MountProg.Process] Data is truncated.Missing 4 data");
    EXPECT_EQ(m_Log.Texts('e').back(), "[MountProg.Process] Data is truncated.Missing 1 data");
    m_Log.Clear();
    SetLog(0);
    Call(kMountMnt, "");
    EXPECT_THAT(m_Log.Texts(), IsEmpty());
}

TEST_F(MountProgTest, UnexpectedExceptionIsGarbageArgumentsAndLoggedAsAnError) {
    ThrowingUtilities utilities(&m_Log);
    CMountProg prog(&utilities);
    ProcessParam param;
    param.iProc = kMountMnt;
    param.pRuntimeParam = &m_Param;
    SetLog(CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogError);
    EXPECT_EQ(prog.Process(&m_Input, &m_Output, &param), kProgGarbageArgs);
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{LogLine{'e', kClient, "[MountProg.Process] Unknown exception"}}));
    m_Log.Clear();
    SetLog(CRuntimeParam::kLogProcFuncArgu);
    EXPECT_EQ(prog.Process(&m_Input, &m_Output, &param), kProgGarbageArgs);
    EXPECT_THAT(m_Log.Lines(), IsEmpty());
}

TEST_F(MountProgTest, UmntOfAnUnknownExportIsOkAllTheSame) {
    SetLog(CRuntimeParam::kLogGeneralInfo);
    Umnt("never mounted");
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{LogLine{'i', kClient, "[MountProg.ProcedureUMNT] Umount OK"}}));
}

TEST_F(MountProgTest, UmntOfANameTooLongFailsWithAnEmptyBody) {
    SetLog(CRuntimeParam::kLogGeneralInfo);
    Umnt(std::string(4096, 'x'));
    EXPECT_EQ(m_Log.Lines(), (std::vector<LogLine>{LogLine{'i', kClient, "[MountProg.ProcedureUMNT] Umount FAIL"}}));
}

TEST_F(MountProgTest, EveryCallLogsItsProcedureItsClientAndItsPath) {
    SetLog(CRuntimeParam::kLogProcFuncName | CRuntimeParam::kLogProcFuncArgu);
    Mnt("data");
    Umnt("data");
    Call(kMountNull, "");
    Call(kMountDump, "");
    EXPECT_EQ(m_Log.Texts('i'),
              (Lines{"[MountProg.Process]", "[MountProg.ProcedureMNT]",
                     "[MountProg.ProcedureMNT] From 10.0.0.5, NFS Protocol Version=3",
                     "[MountProg.ProcedureMNT] Read path = data", "[MountProg.Process]", "[MountProg.ProcedureUMNT]",
                     "[MountProg.ProcedureUMNT] From 10.0.0.5", "[MountProg.ProcedureUMNT] Read path = data",
                     "[MountProg.Process]", "[MountProg.ProcedureNULL]", "[MountProg.Process]",
                     "[MountProg.ProcedureNOIMP]"}));
}

TEST_F(MountProgTest, EveryNumberIsAnsweredUnderTheNameInTheTable) {
    SetLog(CRuntimeParam::kLogProcFuncName);
    const auto& procedures = CMountProg::GetProcedures();
    for (unsigned int i = 0; i < procedures.size(); ++i) {
        const bool bServed = i == kMountNull || i == kMountMnt || i == kMountUmnt;
        m_Log.Clear();
        Call(i, XdrBuilder().Opaque("data").Bytes());
        EXPECT_EQ(m_iResult, bServed ? kProgHandled : kProgNotImplemented) << i;
        EXPECT_EQ(m_Log.Texts(), (Lines{"[MountProg.Process]", "[" + std::string(procedures[i].pcTag) + "]"}));
    }
}

TEST_F(MountProgTest, MountThatSucceedsIsGeneralInformation) {
    SetLog(CRuntimeParam::kLogGeneralInfo);
    Mnt("data");
    EXPECT_EQ(m_Log.Texts('i'), (Lines{"[MountProg.ProcedureMNT] Get canonical path successfully: " + m_Folder.Path(),
                                       "[MountProg.ProcedureMNT] Mount OK"}));
}

TEST_F(MountProgTest, NothingIsLoggedWithAllBitsOff) {
    Mnt("data");
    Mnt("nothing");
    Umnt("data");
    EXPECT_THAT(m_Log.Texts(), IsEmpty());
}

TEST_F(MountProgTest, WithoutUtilitiesNothingIsAvailable) {
    CMountProg prog(nullptr);
    ProcessParam param;
    param.pRuntimeParam = &m_Param;
    SetLog(0x3FF);
    EXPECT_EQ(prog.Process(&m_Input, &m_Output, &param), kProgNotImplemented);
}

}  // namespace
