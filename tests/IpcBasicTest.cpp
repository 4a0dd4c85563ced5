// Headers and the log lines about records.
#include "IpcBasic.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcPeer.h"
#include "LogCapture.h"

namespace {

std::string BytesOf(const IpcDataBuf& data) {
    return std::string(data.cBuf, static_cast<std::size_t>(data.lDataLen));
}

TEST(IpcBasicTest, HeadersCarryGroupTypeAndVersion) {
    IpcDataBuf data{};
    CIpcBasic::InitialRequestData(&data, 21);
    EXPECT_EQ(Difference(RawRequest(21, 3352).Bytes(), BytesOf(data)), "");
    data = {};
    CIpcBasic::InitialReplyData(&data, 4);
    EXPECT_EQ(Difference(RawReply(4, 2064).Bytes(), BytesOf(data)), "");
    data = {};
    CIpcBasic::InitialCallbackData(&data, 2);
    EXPECT_EQ(Difference(RawCallback(2, 1344).Bytes(), BytesOf(data)), "");
    EXPECT_EQ(BytesOf(data).substr(0, 16), std::string("\3\0\0\0\2\0\0\0"
                                                       "1.4\0\0\0\0\0",
                                                       16));
}

TEST(IpcBasicTest, UnknownTypesAreWrittenAsTypeZero) {
    IpcDataBuf data{};
    CIpcBasic::InitialRequestData(&data, 33);
    EXPECT_EQ(Difference(RawRequest(0, 16).Bytes(), BytesOf(data)), "");
    CIpcBasic::InitialReplyData(&data, -1);
    EXPECT_EQ(Difference(RawReply(0, 16).Bytes(), BytesOf(data)), "");
    CIpcBasic::InitialCallbackData(&data, 6);
    EXPECT_EQ(Difference(RawCallback(0, 16).Bytes(), BytesOf(data)), "");
}

TEST(IpcBasicTest, InitialisingLeavesTheBodyAsItIs) {
    IpcDataBuf data{};
    data.cBuf[16] = 'x';
    CIpcBasic::InitialRequestData(&data, 4);
    EXPECT_EQ(data.cBuf[16], 'x');
}

class IpcBasicLogTest : public testing::Test {
protected:
    std::vector<std::string> Print(int iLogControl, const RawRecord& record) {
        LogCapture log;
        CaptureUtilities utilities(&log);
        CRuntimeParam param("me", iLogControl);
        CIpcBasic basic(&utilities, &param);
        IpcDataBuf data{};
        record.Bytes().copy(data.cBuf, sizeof(data.cBuf));
        data.lDataLen = static_cast<std::int64_t>(record.Bytes().size());
        LogArgu tag{"Tag"};
        basic.PrintData(&tag, &data);
        return log.Texts('i');
    }
};

TEST_F(IpcBasicLogTest, RecordsAreDescribedByGroup) {
    using Lines = std::vector<std::string>;
    EXPECT_EQ(Print(64, RawRequest(4, 36)), Lines{"[Tag] Request action group (type = 4, ver = 1.4, dataLen = 36)"});
    EXPECT_EQ(Print(64, RawReply(1, 20)), Lines{"[Tag] Reply action group (type = 1, ver = 1.4, dataLen = 20)"});
    EXPECT_EQ(Print(64, RawCallback(5, 1312)),
              Lines{"[Tag] Callback action group (type = 5, ver = 1.4, dataLen = 1312)"});
    EXPECT_EQ(Print(64, RawRecord(9, -7, 16)),
              Lines{"[Tag] Unknown action group: 9 (type = -7, ver = 1.4, dataLen = 16)"});
}

TEST_F(IpcBasicLogTest, RecordsAreDescribedOnlyWhenIpcMessagesAreLogged) {
    EXPECT_TRUE(Print(0xffff & ~64, RawRequest(4, 36)).empty());
}

TEST_F(IpcBasicLogTest, AnUnterminatedVersionEndsWithItsField) {
    EXPECT_EQ(Print(64, RawRequest(1, 17).Text(8, "VVVVVVVVX")),
              std::vector<std::string>{"[Tag] Request action group (type = 1, ver = VVVVVVVV, dataLen = 17)"});
}

}  // namespace
