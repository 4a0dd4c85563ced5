// Every request: the record as bytes in, the controller's operation with its arguments, the reply as bytes out.
#include "IpcServer.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcPeer.h"
#include "RecordingNfsMain.h"

namespace {

using Lines = std::vector<std::string>;

/// The server's own log control, which operations for a requester inherit.
constexpr int kLogControl = 1;

class IpcServerRequestTest : public testing::Test {
protected:
    std::string Serve(const RawRecord& record) {
        m_Record.Clear();
        IpcDataInst inst{};
        record.Bytes().copy(inst.request.cBuf, sizeof(inst.request.cBuf));
        inst.request.lDataLen = static_cast<std::int64_t>(record.Bytes().size());
        LogArgu tag{"Test"};
        m_Server.ParseData(&tag, &inst);
        return std::string(inst.reply.cBuf, static_cast<std::size_t>(inst.reply.lDataLen));
    }

    /// An operation that is called as said and answered as said.
    void Expect(const RawRecord& record, const std::string& sCall, const std::string& sReply) {
        SCOPED_TRACE(sCall);
        EXPECT_EQ(Difference(sReply, Serve(record)), "");
        EXPECT_EQ(m_Record.Calls(), Lines{sCall});
    }

    /// The same for one whose reply is true whatever the operation says.
    void ExpectAlwaysTrue(const RawRecord& record, const std::string& sCall) {
        for (const bool bAnswer : {true, false}) {
            m_Record.m_bAnswer = bAnswer;
            Expect(record, sCall, RawBoolReply(true));
        }
    }

    /// The same for one that answers a reason when it fails.
    void ExpectWithReason(const RawRecord& record, const std::string& sCall) {
        m_Record.m_bAnswer = true;
        Expect(record, sCall, RawBoolReply(true));
        m_Record.m_bAnswer = false;
        Expect(record, sCall, RawTextReply(4, "just because"));
        m_Record.m_sReason.clear();
        Expect(record, sCall, RawTextReply(4, ""));
        m_Record.m_sReason = "just because";
    }

    /// The same for one that answers a bool.
    void ExpectBool(const RawRecord& record, const std::string& sCall) {
        for (const bool bAnswer : {true, false}) {
            m_Record.m_bAnswer = bAnswer;
            Expect(record, sCall, RawBoolReply(bAnswer));
        }
    }

    /// The same for one that answers a number.
    void ExpectInt(const RawRecord& record, const std::string& sCall) {
        for (const int iAnswer : {0, -1, 4711}) {
            m_Record.m_iAnswer = iAnswer;
            Expect(record, sCall, RawIntReply(iAnswer));
        }
    }

    LogCapture m_Log;
    ControllerRecord m_Record;
    RecordingNfsMain m_Controller{"srv", kLogControl, &m_Record, &m_Log};
    CIpcServer m_Server{&m_Controller};
};

TEST_F(IpcServerRequestTest, VersionAndDescriptionAreTexts) {
    EXPECT_EQ(Difference(RawTextReply(5, "1.4"), Serve(RawRequest(1, 16))), "");
    EXPECT_EQ(Difference(RawTextReply(5, "a recorder"), Serve(RawRequest(2, 16))), "");
}

TEST_F(IpcServerRequestTest, IsServerRunningAnswersWhatTheControllerSays) {
    ExpectBool(RawRequest(3, 16), "IsServerRunning()");
}

TEST_F(IpcServerRequestTest, StartServerCarriesPortsOwnersAndReadOnlyAndAnswersAReason) {
    ExpectWithReason(RawRequest(4, 36).I32(16, 1058).I32(20, -2049).I32(24, -1).I32(28, 65534).Byte(32, 1),
                     "StartServer(1058, -2049, 4294967295, 65534, true)");
}

TEST_F(IpcServerRequestTest, AddMountPointCarriesTheRequestersID) {
    ExpectWithReason(RawRequest(5, 1552).Text(16, "/folder").Text(1040, "name").Text(1296, "client"),
                     R"(AddMountPoint("/folder", "name", "client"))");
}

TEST_F(IpcServerRequestTest, RemoveMountPointCarriesItsPathAndAlwaysSucceeds) {
    ExpectAlwaysTrue(RawRequest(6, 1040).Text(16, "/folder"), R"(RemoveMountPoint("/folder"))");
}

TEST_F(IpcServerRequestTest, SessionsAreAddedRemovedAndAskedForByTheirID) {
    ExpectAlwaysTrue(RawRequest(7, 1296).Text(16, "s1").Text(272, "/folder"), R"(AddSessionInfo("s1", "/folder"))");
    ExpectAlwaysTrue(RawRequest(8, 272).Text(16, "s1"), R"(RemoveSessionInfo("s1"))");
    ExpectBool(RawRequest(9, 272).Text(16, "s1"), R"(IsSessionExists("s1"))");
}

TEST_F(IpcServerRequestTest, OpenRedirectedFileCarriesItsSizesAndWhetherThereIsAnInfoFile) {
    ExpectAlwaysTrue(
        RawRequest(10, 1064).Text(16, "/f").U64(1040, 0x7fffffffffffffffU).Byte(1048, 1).I32(1052, 12).I32(1056, -3),
        R"(OpenRedirectedFile("/f", 9223372036854775807, true, 12, -3))");
}

TEST_F(IpcServerRequestTest, OperationsOnAPathCarryItAndAlwaysSucceed) {
    ExpectAlwaysTrue(RawRequest(11, 1040).Text(16, "/f"), R"(CloseRedirectedFile("/f"))");
    ExpectAlwaysTrue(RawRequest(12, 1040).Text(16, "/d"), R"(CloseAllRedirectedFiles("/d"))");
    ExpectAlwaysTrue(RawRequest(16, 1040).Text(16, "/f"), R"(CloseCachedFileHandle("/f"))");
    ExpectAlwaysTrue(RawRequest(17, 1040).Text(16, "/d"), R"(CloseAllCachedFileHandles("/d"))");
}

TEST_F(IpcServerRequestTest, ASegmentCarriesItsSourceAndThreeNumbersOf64Bits) {
    ExpectWithReason(RawRequest(13, 2088)
                         .Text(16, "/f")
                         .Text(1040, "/src")
                         .U64(2064, 1)
                         .U64(2072, static_cast<std::uint64_t>(-2))
                         .U64(2080, 1ULL << 40),
                     R"(AddRedirectedFileSegment("/f", "/src", 1, -2, 1099511627776))");
}

TEST_F(IpcServerRequestTest, ExportsOfRedirectedFilesCarryBothPathsAndAlwaysSucceed) {
    ExpectAlwaysTrue(RawRequest(14, 2064).Text(16, "/f").Text(1040, "/out"), R"(ExportRedirectedFile("/f", "/out"))");
    ExpectAlwaysTrue(RawRequest(15, 2068).Text(16, "/f").Text(1040, "/out").Byte(2064, 1),
                     R"(ExportRedirectedFileInfo("/f", "/out", true))");
}

TEST_F(IpcServerRequestTest, SetLogControlCarriesEveryBit) {
    ExpectAlwaysTrue(RawRequest(18, 20).I32(16, -1), "SetLogControl(-1)");
}

TEST_F(IpcServerRequestTest, ListingsRunForTheRequester) {
    ExpectInt(RawRequest(19, 276).Text(16, "client").Byte(272, 1), "GetMountInfo(srv/client/1, true, false)");
    ExpectInt(RawRequest(19, 276).Text(16, "client").Byte(273, 1), "GetMountInfo(srv/client/1, false, true)");
    ExpectInt(RawRequest(20, 276).Text(16, "client").Byte(272, 1), "GetSessionInfo(srv/client/1, true)");
    ExpectInt(RawRequest(25, 276).Text(16, "client").Byte(272, 1), "GetVSphereInfo(srv/client/1, true)");
    ExpectInt(RawRequest(30, 276).Text(16, "client").Byte(272, 1), "GetNetDeviceCredential(srv/client/1, true)");
    ExpectInt(RawRequest(20, 276), "GetSessionInfo(srv//1, false)");
}

TEST_F(IpcServerRequestTest, RunTestModeRunsForTheRequesterWithASizeOf64Bits) {
    ExpectAlwaysTrue(RawRequest(21, 3352).Text(16, "client").Text(272, "/dir").U64(3344, 5000000000U),
                     R"(RunTestMode(srv/client/1, "/dir", 5000000000))");
}

TEST_F(IpcServerRequestTest, GetServerStatusAnswersTheControllersNumber) {
    ExpectInt(RawRequest(23, 16), "GetServerStatus()");
}

TEST_F(IpcServerRequestTest, SetDebugActionEnabledCarriesItsFlagAndAlwaysSucceeds) {
    ExpectAlwaysTrue(RawRequest(24, 20).Byte(16, 1), "SetDebugActionEnabled(true)");
    ExpectAlwaysTrue(RawRequest(24, 20).Byte(16, 0), "SetDebugActionEnabled(false)");
}

TEST_F(IpcServerRequestTest, DatastoresAreAddedWithFiveTextsAndRemovedByTheirMoid) {
    ExpectAlwaysTrue(
        RawRequest(26, 1296).Text(16, "moid").Text(272, "host").Text(528, "443").Text(784, "user").Text(1040, "pwd"),
        R"(AddVSphereInfo("moid", "host", "443", "user", "pwd"))");
    ExpectAlwaysTrue(RawRequest(27, 272).Text(16, "moid"), R"(RemoveVSphereInfo("moid"))");
}

TEST_F(IpcServerRequestTest, RunQuickTestModeRunsForTheRequesterAndAnswersAReason) {
    ExpectWithReason(RawRequest(28, 1300).Text(16, "client").Text(272, "/p").I32(1296, 2),
                     R"(RunQuickTestMode(srv/client/1, "/p", 2))");
}

TEST_F(IpcServerRequestTest, ExecuteSystemCmdAlwaysLogsGeneralInformation) {
    ExpectInt(RawRequest(29, 1300).Text(16, "client").Text(272, "echo hi").Byte(1296, 1),
              R"(ExecuteSystemCmd(srv/client/3, "echo hi", true))");
}

TEST_F(IpcServerRequestTest, NetworkDeviceCredentialsCarryTheirTextsAndAnswerWhatTheControllerSays) {
    ExpectBool(RawRequest(31, 1552).Text(16, "//dev").Text(1040, "user").Text(1295, "pwd"),
               R"(AddNetDeviceCredential("//dev", "user", "pwd"))");
    ExpectBool(RawRequest(32, 1040).Text(16, "//dev"), R"(RemoveNetDeviceCredential("//dev"))");
}

TEST_F(IpcServerRequestTest, AnyByteButZeroIsTrue) {
    for (const int iByte : {1, 2, 0x80, 0xff}) {
        const auto cByte = static_cast<unsigned char>(iByte);
        ExpectAlwaysTrue(RawRequest(24, 20).Byte(16, cByte), "SetDebugActionEnabled(true)");
        ExpectAlwaysTrue(RawRequest(15, 2068).Byte(2064, cByte), R"(ExportRedirectedFileInfo("", "", true))");
        m_Record.m_bAnswer = true;
        Expect(RawRequest(4, 36).Byte(32, cByte).Byte(33, 0xff), "StartServer(0, 0, 0, 0, true)", RawBoolReply(true));
    }
    ExpectAlwaysTrue(RawRequest(24, 20).Byte(17, 0xff), "SetDebugActionEnabled(false)");
}

TEST_F(IpcServerRequestTest, AReasonAsLongAsItsBufferComesWhole) {
    m_Record.m_bAnswer = false;
    m_Record.m_sReason = std::string(2047, 'r');
    EXPECT_EQ(Difference(RawTextReply(4, std::string(2047, 'r')), Serve(RawRequest(4, 36))), "");
}

/// Whatever comes is answered with one whole reply record.
TEST_F(IpcServerRequestTest, RandomRecordsAreAnswered) {
    std::mt19937 random(4711);
    testing::internal::CaptureStdout();  // log callbacks end up there
    for (int i = 0; i < 3000; ++i) {
        std::string sRecord(1 + random() % 4096, '\0');
        for (char& cByte : sRecord) {
            cByte = static_cast<char>(random());
        }
        RawRecord record(static_cast<std::int32_t>(1 + random() % 4), static_cast<std::int32_t>(random() % 36), 16);
        sRecord.replace(0, std::min<std::size_t>(8, sRecord.size()), record.Bytes(), 0,
                        std::min<std::size_t>(8, sRecord.size()));
        IpcDataInst inst{};
        sRecord.copy(inst.request.cBuf, sizeof(inst.request.cBuf));
        inst.request.lDataLen = static_cast<std::int64_t>(sRecord.size());
        LogArgu tag{"Test"};
        m_Server.ParseData(&tag, &inst);
        ASSERT_EQ(I32At(std::string_view(inst.reply.cBuf, 16), 0), 1) << "round " << i;
        ASSERT_EQ(static_cast<std::size_t>(inst.reply.lDataLen),
                  GetIpcRecordLength(1, I32At(std::string_view(inst.reply.cBuf, 16), 4)));
    }
    testing::internal::GetCapturedStdout();
}

}  // namespace
