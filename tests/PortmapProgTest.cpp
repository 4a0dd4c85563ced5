// The internal portmapper's answers.
#include "PortmapProg.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "InputStream.h"
#include "LogCapture.h"
#include "OutputStream.h"
#include "ThrowingUtilities.h"
#include "Xdr.h"

namespace {

class PortmapProgTest : public testing::Test {
protected:
    int Call(unsigned int iProcedure, const std::string& sArguments, int iLogControl = 0) {
        CRuntimeParam param("10.0.0.5", iLogControl);
        ProcessParam processParam{2, iProcedure, "10.0.0.5", &param};
        m_Input.ResetBuffer();
        m_Output.ResetBuffer();
        std::memcpy(m_Input.GetFreeBuffer(), sArguments.data(), sArguments.size());
        m_Input.AddFilledBufferSize(static_cast<unsigned int>(sArguments.size()));
        return m_Prog.Process(&m_Input, &m_Output, &processParam);
    }
    static std::string Getport(unsigned int iProgram, unsigned int iVersion = 3, unsigned int iProtocol = 6) {
        return XdrBuilder().U32(iProgram).U32(iVersion).U32(iProtocol).U32(0).Bytes();
    }
    std::string Body() { return {m_Output.GetBuffer(), m_Output.GetBufferSize()}; }

    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CPortmapProg m_Prog{&m_Utilities};
    CInputStream m_Input;
    COutputStream m_Output;
};

}  // namespace

TEST_F(PortmapProgTest, AcceptsAnyVersionAndProceduresZeroToFive) {
    EXPECT_EQ(m_Prog.GetVersion(), 0xFFFFFFFFU);
    EXPECT_EQ(m_Prog.GetMaxSupportProc(), 6U);
}

TEST_F(PortmapProgTest, GetportAnswersTheStoredPortWhateverVersionAndProtocol) {
    m_Prog.Set(100005, 1058);
    m_Prog.Set(100003, 2049);
    EXPECT_EQ(Call(3, Getport(100005)), 0);
    EXPECT_EQ(Body(), XdrBuilder().U32(1058).Bytes());
    EXPECT_EQ(Call(3, Getport(100005, 1, 17)), 0);
    EXPECT_EQ(Body(), XdrBuilder().U32(1058).Bytes());
    EXPECT_EQ(Call(3, Getport(100003, 77, 0)), 0);
    EXPECT_EQ(Body(), XdrBuilder().U32(2049).Bytes());
    EXPECT_EQ(m_Input.GetFilledBufferSize(), 0U) << "all arguments are consumed";
}

TEST_F(PortmapProgTest, GetportAnswersZeroForEveryProgramThatIsNotSet) {
    for (const unsigned int iProgram :
         {0U, 99999U, 100000U, 100004U, 100005U, 100009U, 100010U, 200000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Call(3, Getport(iProgram)), 0) << iProgram;
        EXPECT_EQ(Body(), XdrBuilder().U32(0).Bytes()) << iProgram;
    }
}

TEST_F(PortmapProgTest, SettingAProgramOutsideTheTableChangesNothing) {
    m_Prog.Set(99999, 1);
    m_Prog.Set(100010, 2);
    m_Prog.Set(~0UL, 3);
    for (unsigned int iProgram = 99998; iProgram < 100012; ++iProgram) {
        Call(3, Getport(iProgram));
        EXPECT_EQ(Body(), XdrBuilder().U32(0).Bytes()) << iProgram;
    }
}

TEST_F(PortmapProgTest, GetportShorterThanSixteenBytesIsTruncated) {
    const std::string sWhole = Getport(100005);
    for (std::size_t nSize = 0; nSize < sWhole.size(); ++nSize) {
        EXPECT_EQ(Call(3, sWhole.substr(0, nSize)), 3) << nSize;
        EXPECT_EQ(Body(), "") << nSize;
    }
    EXPECT_TRUE(m_Log.Lines().empty()) << m_Log.Dump();
}

TEST_F(PortmapProgTest, TruncationIsLoggedWhereErrorsAre) {
    EXPECT_EQ(Call(3, std::string(15, '\0'), CRuntimeParam::kLogError), 3);
    const LogLine expected{'e', "10.0.0.5", "[PortmapProg.Process] Data is truncated.Missing 1 data"};
    ASSERT_EQ(m_Log.Lines().size(), 1U) << m_Log.Dump();
    EXPECT_EQ(m_Log.Lines()[0], expected) << m_Log.Dump();
}

TEST_F(PortmapProgTest, UnexpectedExceptionIsGarbageArgumentsAndLoggedAsAnError) {
    ThrowingUtilities utilities(&m_Log);
    CPortmapProg prog(&utilities);
    for (const bool bLogError : {true, false}) {
        CRuntimeParam param("10.0.0.5", CRuntimeParam::kLogProcFuncName | (bLogError ? CRuntimeParam::kLogError : 0));
        ProcessParam processParam{2, 3, "10.0.0.5", &param};
        EXPECT_EQ(prog.Process(&m_Input, &m_Output, &processParam), 1);
        std::vector<std::string> expected;
        if (bLogError) {
            expected.emplace_back("[PortmapProg.Process] Unknown exception");
        }
        EXPECT_EQ(m_Log.Texts('e'), expected) << m_Log.Dump();
        m_Log.Clear();
    }
}

TEST_F(PortmapProgTest, EveryOtherProcedureIsNotAvailable) {
    for (const unsigned int iProcedure : {0U, 1U, 2U, 4U, 5U, 6U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Call(iProcedure, Getport(100005)), 2) << iProcedure;
        EXPECT_EQ(Body(), "") << iProcedure;
    }
}

TEST_F(PortmapProgTest, ProcedureNamesAndArgumentsHaveLogBitsOfTheirOwn) {
    m_Prog.Set(100003, 2049);
    Call(3, Getport(100003), CRuntimeParam::kLogProcFuncName);
    Call(0, "", CRuntimeParam::kLogProcFuncName);
    Call(3, Getport(100003), CRuntimeParam::kLogProcFuncArgu);
    const std::vector<std::string> expected{"[PortmapProg.ProcedureGETPORT]", "[PortmapProg.ProcedureNOIMP]",
                                            "[PortmapProg.ProcedureGETPORT] lProg = 100003, lPort = 2049"};
    EXPECT_EQ(m_Log.Texts('i'), expected) << m_Log.Dump();
}

TEST_F(PortmapProgTest, WithoutUtilitiesNothingIsAvailable) {
    CPortmapProg prog(nullptr);
    CRuntimeParam param("x", -1);
    ProcessParam processParam{2, 3, "x", &param};
    EXPECT_EQ(prog.Process(&m_Input, &m_Output, &processParam), 2);
}

TEST_F(PortmapProgTest, EveryNumberIsAnsweredUnderTheNameInTheTable) {
    const auto& procedures = CPortmapProg::GetProcedures();
    for (unsigned int i = 0; i < procedures.size(); ++i) {
        m_Log.Clear();
        EXPECT_EQ(Call(i, Getport(100003), CRuntimeParam::kLogProcFuncName), i == 3 ? 0 : 2) << i;
        const std::vector<std::string> expected{"[" + std::string(procedures[i].pcTag) + "]"};
        EXPECT_EQ(m_Log.Texts(), expected) << i;
    }
}
