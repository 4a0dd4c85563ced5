// Lengths and types of the records, and texts in their fields. (Their layouts are asserted at compile time.)
#include "IpcMessages.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcBasic.h"
#include "IpcChannel.h"
#include "IpcText.h"

namespace {

TEST(IpcMessagesTest, EveryRequestHasItsLength) {
    const std::vector<std::size_t> viLengths = {16,   16,   16,   36,   1552, 1040, 1296, 272, 272,  1064, 1040,
                                                1040, 2088, 2064, 2068, 1040, 1040, 20,   276, 276,  3352, 16,
                                                16,   20,   276,  1296, 272,  1300, 1300, 276, 1552, 1040};
    ASSERT_EQ(viLengths.size(), 32U);
    for (int iType = 1; iType <= 32; ++iType) {
        EXPECT_EQ(GetIpcRecordLength(2, iType), viLengths[static_cast<std::size_t>(iType - 1)]) << "type " << iType;
        EXPECT_EQ(GetKnownIpcType(2, iType), iType);
    }
}

TEST(IpcMessagesTest, EveryReplyAndCallbackHasItsLength) {
    const std::vector<std::size_t> viReplies = {20, 24, 20, 2064, 2064};
    const std::vector<std::size_t> viCallbacks = {2324, 1344, 1296, 2320, 1312};
    for (int iType = 1; iType <= 5; ++iType) {
        EXPECT_EQ(GetIpcRecordLength(1, iType), viReplies[static_cast<std::size_t>(iType - 1)]) << "reply " << iType;
        EXPECT_EQ(GetIpcRecordLength(3, iType), viCallbacks[static_cast<std::size_t>(iType - 1)])
            << "callback " << iType;
        EXPECT_EQ(GetKnownIpcType(1, iType), iType);
        EXPECT_EQ(GetKnownIpcType(3, iType), iType);
    }
}

TEST(IpcMessagesTest, UnknownTypesAndGroupsAreAHeader) {
    for (const int iGroup : {-1, 0, 1, 2, 3, 4, 0x7fffffff}) {
        for (const int iType : {-2147483647 - 1, -1, 0, 33, 34, 1000, 0x7fffffff}) {
            EXPECT_EQ(GetIpcRecordLength(iGroup, iType), 16U) << "group " << iGroup << ", type " << iType;
            EXPECT_EQ(GetKnownIpcType(iGroup, iType), 0) << "group " << iGroup << ", type " << iType;
        }
    }
    EXPECT_EQ(GetIpcRecordLength(1, 6), 16U);
    EXPECT_EQ(GetIpcRecordLength(3, 6), 16U);
}

TEST(IpcMessagesTest, AnUnterminatedTextEndsWithItsField) {
    const char cField[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(GetIpcText(cField), "abcd");
    const char cShort[4] = {'a', '\0', 'c', 'd'};
    EXPECT_EQ(GetIpcText(cShort), "a");
}

TEST(IpcMessagesTest, BytesThatDidNotComeReadAsZero) {
    IpcDataBuf data{};
    std::memset(data.cBuf, 0xff, sizeof(data.cBuf));
    data.lDataLen = 18;
    const auto record = GetIpcRecord<IpcRequest_SetLogControl>(data);
    EXPECT_EQ(record.iLogControl, 0x0000ffff);
    data.lDataLen = 0;
    EXPECT_EQ(GetIpcRecord<Ipc_Header>(data).iGroup, 0);
}

TEST(IpcMessagesTest, ChannelsAreNamedAfterTheirOwner) {
    char cChannel[kIpcChannelBufferSize];
    GetIpcChannel("server", cChannel);
    EXPECT_STREQ(cChannel, "/tmp/nfs-server");
    GetIpcChannel("cRun", cChannel);
    EXPECT_STREQ(cChannel, "/tmp/nfs-cRun");
    GetIpcChannel(std::string(400, 'x').c_str(), cChannel);
    EXPECT_EQ(std::string(cChannel), "/tmp/nfs-" + std::string(245, 'x')) << "cut at the buffer's end";
}

}  // namespace
