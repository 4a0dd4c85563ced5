// Every callback: the record as bytes in, what the host of the receiving process is told, the reply as bytes out.
#include "IpcServer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeHost.h"
#include "IpcPeer.h"
#include "NfsIpcClientMain.h"

namespace {

class IpcServerCallbackTest : public testing::Test {
protected:
    std::string Serve(const std::string& sRecord) {
        IpcDataInst inst{};
        sRecord.copy(inst.request.cBuf, sizeof(inst.request.cBuf));
        inst.request.lDataLen = static_cast<std::int64_t>(sRecord.size());
        LogArgu tag{"Test"};
        m_Server.ParseData(&tag, &inst);
        return std::string(inst.reply.cBuf, static_cast<std::size_t>(inst.reply.lDataLen));
    }
    std::string Serve(const RawRecord& record) { return Serve(record.Bytes()); }

    /// The one notification the host got.
    Notification TheNotification() {
        const std::vector<Notification> v = m_Host.Log().Notifications();
        EXPECT_EQ(v.size(), 1U);
        return v.empty() ? Notification{} : v[0];
    }

    FakeHost m_Host;
    CNfsIpcClientMain m_Controller{"client", 0};
    CIpcServer m_Server{&m_Controller};
};

TEST_F(IpcServerCallbackTest, LogLinesReachTheHostUnderTheirIDWhateverTheLogBits) {
    m_Controller.SetCallback(m_Host.Callback());
    const std::vector<std::pair<int, char>> vKinds = {{1, 'i'}, {2, 'e'}, {3, 'r'}, {0, 'i'}, {4, 'i'}, {-1, 'i'}};
    for (const auto& [iType, cKind] : vKinds) {
        m_Host.Log().Clear();
        EXPECT_EQ(Difference(RawBoolReply(true),
                             Serve(RawCallback(1, 2324).Text(16, "10.0.0.5").Text(272, "100% of it").I32(2320, iType))),
                  "");
        EXPECT_EQ(m_Host.Log().Lines(), (std::vector<LogLine>{{cKind, "10.0.0.5", "100% of it"}})) << "type " << iType;
    }
    m_Controller.SetCallback(nullptr);
}

TEST_F(IpcServerCallbackTest, LogLinesWithoutAHostArePrinted) {
    testing::internal::CaptureStdout();
    Serve(RawCallback(1, 2324).Text(16, "10.0.0.5").Text(272, "hello").I32(2320, 1));
    Serve(RawCallback(1, 2324).Text(16, "10.0.0.5").Text(272, "oh").I32(2320, 2));
    Serve(RawCallback(1, 2324).Text(16, "10.0.0.5").Text(272, "raw\n").I32(2320, 3));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[info] (10.0.0.5) hello\n[erro] (10.0.0.5) oh\nraw\n");
}

TEST_F(IpcServerCallbackTest, AnUnterminatedLogLineEndsWithItsField) {
    m_Controller.SetCallback(m_Host.Callback());
    Serve(RawCallback(1, 2324).Text(16, std::string(256, 'i')).Text(272, std::string(2048, 'm')).I32(2320, 2));
    ASSERT_EQ(m_Host.Log().Lines().size(), 1U);
    EXPECT_EQ(m_Host.Log().Lines()[0].sID, std::string(256, 'i'));
    EXPECT_EQ(m_Host.Log().Lines()[0].sText, std::string(2048, 'm'));
    m_Controller.SetCallback(nullptr);
}

TEST_F(IpcServerCallbackTest, AttributesReachTheHostAndItsAnswerGoesBack) {
    m_Controller.SetCallback(m_Host.Callback());
    m_Host.Log().SetHost([](const Notification&) { return 17; });
    EXPECT_EQ(Difference(RawIntReply(17), Serve(RawCallback(2, 1344)
                                                    .Text(16, "exp")
                                                    .Text(272, "/f")
                                                    .Byte(1296, 1)
                                                    .U64(1304, 0x8000000000000001U)
                                                    .Byte(1312, 0)
                                                    .U64(1320, 77)
                                                    .Byte(1328, 0xfe)
                                                    .U64(1336, 0xffffffffU))),
              "");
    const Notification seen = TheNotification();
    EXPECT_EQ(seen.sOperation, "update");
    EXPECT_EQ(seen.sID, "exp");
    EXPECT_EQ(seen.sPath, "/f");
    EXPECT_TRUE(seen.bSize);
    EXPECT_EQ(seen.iSize, 0x8000000000000001U);
    EXPECT_FALSE(seen.bAccessTime);
    EXPECT_EQ(seen.lAccessTimeSec, 77U);
    EXPECT_TRUE(seen.bLastModifiedTime);
    EXPECT_EQ(seen.lLastModifiedTimeSec, 0xffffffffU);
    m_Controller.SetCallback(nullptr);
}

TEST_F(IpcServerCallbackTest, RemovalRenameAndWriteReachTheHostAndItsAnswerGoesBack) {
    m_Controller.SetCallback(m_Host.Callback());
    m_Host.Log().SetHost([](const Notification&) { return -5; });

    EXPECT_EQ(Difference(RawIntReply(-5), Serve(RawCallback(3, 1296).Text(16, "exp").Text(272, "/f"))), "");
    EXPECT_EQ(TheNotification().sOperation, "remove");
    EXPECT_EQ(TheNotification().sPath, "/f");

    m_Host.Log().Clear();
    EXPECT_EQ(Difference(RawIntReply(-5), Serve(RawCallback(4, 2320).Text(16, "exp").Text(272, "/f").Text(1296, "/g"))),
              "");
    EXPECT_EQ(TheNotification().sOperation, "rename");
    EXPECT_EQ(TheNotification().sPath, "/f");
    EXPECT_EQ(TheNotification().sPathTo, "/g");

    m_Host.Log().Clear();
    EXPECT_EQ(Difference(RawIntReply(-5), Serve(RawCallback(5, 1312)
                                                    .Text(16, "exp")
                                                    .Text(272, "/f")
                                                    .U64(1296, 1ULL << 41)
                                                    .I32(1304, -2)
                                                    .I32(1308, 512))),
              "");
    EXPECT_EQ(TheNotification().sOperation, "write");
    EXPECT_EQ(TheNotification().iSeek, 1ULL << 41);
    EXPECT_EQ(TheNotification().iSeekType, -2);
    EXPECT_EQ(TheNotification().iLen, 512U);
    m_Controller.SetCallback(nullptr);
}

TEST_F(IpcServerCallbackTest, WithoutAHostNotificationsAreAnsweredMinusOne) {
    EXPECT_EQ(Difference(RawIntReply(-1), Serve(RawCallback(2, 1344))), "");
    EXPECT_EQ(Difference(RawIntReply(-1), Serve(RawCallback(3, 1296))), "");
    EXPECT_EQ(Difference(RawIntReply(-1), Serve(RawCallback(4, 2320))), "");
    EXPECT_EQ(Difference(RawIntReply(-1), Serve(RawCallback(5, 1312))), "");
}

TEST_F(IpcServerCallbackTest, CallbacksCutShortAreServedWithZerosForWhatIsMissing) {
    m_Controller.SetCallback(m_Host.Callback());
    for (int iType = 1; iType <= 5; ++iType) {
        const std::string sRecord = RawCallback(iType, 2324).Text(16, std::string(2308, '\xff')).Bytes();
        for (const std::size_t iLength : {16U, 17U, 272U, 1295U, 1297U, 1311U}) {
            EXPECT_EQ(Serve(sRecord.substr(0, iLength)).size(), 20U) << "type " << iType << ", length " << iLength;
        }
    }
    m_Controller.SetCallback(nullptr);
}

}  // namespace
