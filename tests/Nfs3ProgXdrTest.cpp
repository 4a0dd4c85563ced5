// NFS version 3 types on the wire: every type at its exact size.
#include "Nfs3Prog.h"

#include <cstring>

#include <gtest/gtest.h>

#include "DataException.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "Xdr.h"

namespace {

/// Decodes a value from bytes, all of which it has to consume; a single byte less has to throw.
template <class... Arguments>
void Decode(const std::string& sBytes, Arguments... arguments) {
    CInputStream shorter;
    std::memcpy(shorter.GetFreeBuffer(), sBytes.data(), sBytes.size() - 1);
    shorter.AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()) - 1);
    EXPECT_THROW(CNfs3Prog::Read(&shorter, arguments...), CDataTruncatedExpt);
    CInputStream input;
    std::memcpy(input.GetFreeBuffer(), sBytes.data(), sBytes.size());
    input.AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
    CNfs3Prog::Read(&input, arguments...);
    EXPECT_EQ(input.GetFilledBufferSize(), 0U) << "left of " << Hex(sBytes);
}

template <class... Arguments>
std::string Encode(Arguments... arguments) {
    COutputStream output;
    CNfs3Prog::Write(&output, arguments...);
    return {output.GetBuffer(), output.GetBufferSize()};
}

fattr3 MakeAttributes() {
    fattr3 attributes;
    attributes.type = 1;
    attributes.mode = 2;
    attributes.nlink = 3;
    attributes.uid = 4;
    attributes.gid = 5;
    attributes.size = 0x600000006;
    attributes.used = 0x700000007;
    attributes.rdev = {8, 9};
    attributes.fsid = 0xA0000000A;
    attributes.fileid = 0xB0000000B;
    attributes.atime = {12, 13};
    attributes.mtime = {14, 15};
    attributes.ctime = {16, 17};
    return attributes;
}

const std::string kAttributes = XdrBuilder()
                                    .U32(1)
                                    .U32(2)
                                    .U32(3)
                                    .U32(4)
                                    .U32(5)
                                    .U64(0x600000006)
                                    .U64(0x700000007)
                                    .U32(8)
                                    .U32(9)
                                    .U64(0xA0000000A)
                                    .U64(0xB0000000B)
                                    .U32(12)
                                    .U32(13)
                                    .U32(14)
                                    .U32(15)
                                    .U32(16)
                                    .U32(17)
                                    .Bytes();

TEST(Nfs3ProgXdrTest, NumbersRoundTrip) {
    unsigned int iValue = 0;
    unsigned long lValue = 0;
    Decode(Encode(0x01020304U), &iValue);
    EXPECT_EQ(iValue, 0x01020304U);
    Decode(Encode(0x0102030405060708UL), &lValue);
    EXPECT_EQ(lValue, 0x0102030405060708UL);
    EXPECT_EQ(Hex(Encode(0x01020304U)), "01 02 03 04 ");
}

TEST(Nfs3ProgXdrTest, OnlyOneIsTrue) {
    for (const unsigned int iWord : {0U, 1U, 2U, 0x01000000U, 0xFFFFFFFFU}) {
        bool bValue = iWord != 1;
        Decode(Encode(iWord), &bValue);
        EXPECT_EQ(bValue, iWord == 1) << iWord;
    }
    EXPECT_EQ(Hex(Encode(true)), "00 00 00 01 ");
    EXPECT_EQ(Hex(Encode(false)), "00 00 00 00 ");
}

TEST(Nfs3ProgXdrTest, TimeRoundTrips) {
    nfstime3 time;
    Decode(Encode(nfstime3{1, 2}), &time);
    EXPECT_EQ(time.seconds, 1U);
    EXPECT_EQ(time.nseconds, 2U);
}

TEST(Nfs3ProgXdrTest, OpaqueIsNotCopiedAndItsPaddingIsConsumed) {
    CInputStream input;
    const std::string sBytes = XdrBuilder().Opaque("hello").Bytes();
    ASSERT_EQ(sBytes.size(), 12U);
    std::memcpy(input.GetFreeBuffer(), sBytes.data(), sBytes.size());
    input.AddFilledBufferSize(12);
    const char* pcData = input.GetCurrentBuffer() + 4;
    opaque data;
    CNfs3Prog::Read(&input, &data);
    EXPECT_EQ(data.pBuf, pcData);
    EXPECT_EQ(data.iBufLen, 5U);
    EXPECT_EQ(input.GetFilledBufferSize(), 0U);
}

TEST(Nfs3ProgXdrTest, OpaqueOfEveryPaddingRoundTrips) {
    for (std::size_t i = 0; i < 9; ++i) {
        const std::string sText = std::string("abcdefghi").substr(0, i);
        const opaque data{sText.data(), static_cast<unsigned int>(i)};
        EXPECT_EQ(Hex(Encode(data, false)), Hex(XdrBuilder().Opaque(sText).Bytes()));
        EXPECT_EQ(Hex(Encode(data, true)), Hex(XdrBuilder().U32(static_cast<std::uint32_t>(i)).Bytes()));
        COpaquePath path;
        Decode(Encode(COpaquePath{sText}, false), &path, false);
        EXPECT_EQ(path.sPath, sText);
        EXPECT_EQ(Encode(COpaquePath{sText}, true).size(), 4U);
    }
}

TEST(Nfs3ProgXdrTest, OpaqueOfHugeLengthIsTruncated) {
    for (const unsigned int iLength : {5U, 4096U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU, 0xFFFFFFFFU}) {
        const std::string sBytes = XdrBuilder().U32(iLength).Raw("abcd").Bytes();
        CInputStream input;
        std::memcpy(input.GetFreeBuffer(), sBytes.data(), sBytes.size());
        input.AddFilledBufferSize(8);
        opaque data;
        EXPECT_THROW(CNfs3Prog::Read(&input, &data), CDataTruncatedExpt) << iLength;
    }
}

TEST(Nfs3ProgXdrTest, SkippedTextLeavesThePathAsItWas) {
    COpaquePath path;
    Decode(XdrBuilder().Opaque("consumed").Bytes(), &path, true);
    EXPECT_EQ(path.sPath, "");
}

TEST(Nfs3ProgXdrTest, TextOf4096BytesIsConsumedAndTakenAsEmpty) {
    COpaquePath path{"before"};
    Decode(XdrBuilder().Opaque(std::string(4095, 'x')).Bytes(), &path, false);
    EXPECT_EQ(path.sPath.size(), 4095U);
    for (const std::size_t iSize : {4096U, 4097U, 100000U}) {
        path.sPath = "before";
        Decode(XdrBuilder().Opaque(std::string(iSize, 'x')).Bytes(), &path, false);
        EXPECT_EQ(path.sPath, "") << iSize;
    }
}

TEST(Nfs3ProgXdrTest, TextEndsAtItsFirstZeroByte) {
    COpaquePath path;
    Decode(XdrBuilder().Opaque(std::string("ab\0cd", 5)).Bytes(), &path, false);
    EXPECT_EQ(path.sPath, "ab");
}

TEST(Nfs3ProgXdrTest, TextThatIsNotTakenAsSentIsTold) {
    const auto read = [](const std::string& sText) {
        const std::string sBytes = XdrBuilder().Opaque(sText).Bytes();
        CInputStream input;
        std::memcpy(input.GetFreeBuffer(), sBytes.data(), sBytes.size());
        input.AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
        COpaquePath path;
        return CNfs3Prog::Read(&input, &path, false);
    };
    EXPECT_TRUE(read(""));
    EXPECT_TRUE(read("name"));
    EXPECT_TRUE(read(std::string(4095, 'x')));
    EXPECT_FALSE(read(std::string(4096, 'x')));
    EXPECT_FALSE(read(std::string("\0", 1)));
    EXPECT_FALSE(read(std::string("name\0", 5)));
}

TEST(Nfs3ProgXdrTest, SetAttributesReadsOnlyWhatIsSet) {
    sattr3 attributes;
    attributes.mode.mode = 99;
    Decode(std::string(24, '\0'), &attributes, false);
    EXPECT_FALSE(attributes.SetsAnything());
    EXPECT_EQ(attributes.mode.mode, 0U);

    Decode(XdrBuilder()
               .U32(1)
               .U32(0644)
               .U32(1)
               .U32(10)
               .U32(1)
               .U32(11)
               .U32(1)
               .U64(0x100000000)
               .U32(2)
               .U32(21)
               .U32(22)
               .U32(2)
               .U32(31)
               .U32(32)
               .Bytes(),
           &attributes, false);
    EXPECT_TRUE(attributes.mode.set_it && attributes.uid.set_it && attributes.gid.set_it && attributes.size.set_it);
    EXPECT_EQ(attributes.mode.mode, 0644U);
    EXPECT_EQ(attributes.uid.uid, 10U);
    EXPECT_EQ(attributes.gid.gid, 11U);
    EXPECT_EQ(attributes.size.size, 0x100000000UL);
    EXPECT_EQ(attributes.atime.set_it, 2U);
    EXPECT_EQ(attributes.atime.atime.seconds, 21U);
    EXPECT_EQ(attributes.atime.atime.nseconds, 22U);
    EXPECT_EQ(attributes.mtime.mtime.seconds, 31U);
    EXPECT_EQ(attributes.mtime.mtime.nseconds, 32U);
}

TEST(Nfs3ProgXdrTest, ServerTimeIsSetWithNoTimeBehindIt) {
    sattr3 attributes;
    Decode(XdrBuilder().U32(0).U32(0).U32(0).U32(0).U32(1).U32(3).Bytes(), &attributes, false);
    EXPECT_EQ(attributes.atime.set_it, 1U);
    EXPECT_EQ(attributes.mtime.set_it, 3U) << "as sent";
    EXPECT_EQ(attributes.atime.atime.seconds, 0U);
    EXPECT_TRUE(attributes.SetsAnything());
}

TEST(Nfs3ProgXdrTest, SkippedSetAttributesAreConsumedAndNotSet) {
    sattr3 attributes;
    Decode(XdrBuilder().U32(1).U32(0644).U32(0).U32(1).U32(11).U32(1).U64(5).U32(2).U32(21).U32(22).U32(1).Bytes(),
           &attributes, true);
    EXPECT_FALSE(attributes.SetsAnything());
    EXPECT_EQ(attributes.mode.mode, 0U);
}

TEST(Nfs3ProgXdrTest, GuardTimeIsReadOnlyWhenChecked) {
    sattrguard3 guard{true, {1, 2}};
    Decode(XdrBuilder().U32(0).Bytes(), &guard);
    EXPECT_FALSE(guard.check);
    EXPECT_EQ(guard.obj_ctime.seconds, 0U);
    Decode(XdrBuilder().U32(1).U32(5).U32(6).Bytes(), &guard);
    EXPECT_TRUE(guard.check);
    EXPECT_EQ(guard.obj_ctime.seconds, 5U);
    EXPECT_EQ(guard.obj_ctime.nseconds, 6U);
}

TEST(Nfs3ProgXdrTest, CreateHowReadsByItsMode) {
    createhow3 how;
    for (const unsigned int iMode : {0U, 1U}) {
        Decode(XdrBuilder().U32(iMode).U32(1).U32(0600).Raw(std::string(20, '\0')).Bytes(), &how);
        EXPECT_EQ(how.mode, iMode);
        EXPECT_EQ(how.obj_attributes.mode.mode, 0600U);
    }
    Decode(XdrBuilder().U32(2).U64(0x1122334455667788).Bytes(), &how);
    EXPECT_EQ(how.verf, 0x1122334455667788UL);
    EXPECT_FALSE(how.obj_attributes.SetsAnything());
    Decode(XdrBuilder().U32(3).Bytes(), &how);
    EXPECT_EQ(how.mode, 3U);
    EXPECT_EQ(how.verf, 0UL);
}

TEST(Nfs3ProgXdrTest, NodeDataReadsByItsType) {
    const std::string sMode = XdrBuilder().U32(1).U32(0600).Raw(std::string(20, '\0')).Bytes();
    mknoddata3 data;
    for (const unsigned int iType : {3U, 4U}) {
        const std::string sBytes = XdrBuilder().U32(iType).Raw(sMode).U32(7).U32(8).Bytes();
        Decode(sBytes, &data, false);
        EXPECT_EQ(data.type, iType);
        EXPECT_EQ(data.dev_attributes.mode.mode, 0600U);
        EXPECT_EQ(data.dev_spec.specdata2, 8U);
        Decode(sBytes, &data, true);
        EXPECT_FALSE(data.dev_attributes.SetsAnything());
        EXPECT_EQ(data.dev_spec.specdata1, 0U);
    }
    for (const unsigned int iType : {6U, 7U}) {
        Decode(XdrBuilder().U32(iType).Raw(sMode).Bytes(), &data, false);
        EXPECT_EQ(data.pipe_attributes.mode.mode, 0600U);
    }
    for (const unsigned int iType : {0U, 1U, 2U, 5U, 8U, 0xFFFFFFFFU}) {
        Decode(XdrBuilder().U32(iType).Bytes(), &data, false);
        EXPECT_EQ(data.type, iType);
    }
}

TEST(Nfs3ProgXdrTest, AttributesAre84Bytes) {
    EXPECT_EQ(Hex(Encode(MakeAttributes())), Hex(kAttributes));
    EXPECT_EQ(kAttributes.size(), 84U);
}

TEST(Nfs3ProgXdrTest, HandleIsSentWhole) {
    nfs_fh3 handle;
    std::memset(handle.cHandle, 'h', sizeof(handle.cHandle));
    EXPECT_EQ(Hex(Encode(handle, false)), Hex(XdrBuilder().Opaque(std::string(56, 'h')).Bytes()));
    EXPECT_EQ(Hex(Encode(handle, true)), Hex(XdrBuilder().U32(56).Bytes()));
    EXPECT_EQ(Hex(Encode(post_op_fh3{true, handle})), Hex(XdrBuilder().U32(1).Opaque(std::string(56, 'h')).Bytes()));
    EXPECT_EQ(Hex(Encode(post_op_fh3{false, handle})), Hex(XdrBuilder().U32(0).Bytes()));
}

TEST(Nfs3ProgXdrTest, AttributesFollowOnlyWhenTheyAreThere) {
    EXPECT_EQ(Hex(Encode(post_op_attr{true, MakeAttributes()})), Hex(XdrBuilder().U32(1).Raw(kAttributes).Bytes()));
    EXPECT_EQ(Hex(Encode(post_op_attr{false, MakeAttributes()})), Hex(XdrBuilder().U32(0).Bytes()));
    const wcc_attr before{0x100000002, {3, 4}, {5, 6}};
    const std::string sBefore = XdrBuilder().U64(0x100000002).U32(3).U32(4).U32(5).U32(6).Bytes();
    EXPECT_EQ(Hex(Encode(before)), Hex(sBefore));
    EXPECT_EQ(Hex(Encode(pre_op_attr{true, before})), Hex(XdrBuilder().U32(1).Raw(sBefore).Bytes()));
    EXPECT_EQ(Hex(Encode(pre_op_attr{false, before})), Hex(XdrBuilder().U32(0).Bytes()));
    EXPECT_EQ(Hex(Encode(wcc_data{{true, before}, {true, MakeAttributes()}})),
              Hex(XdrBuilder().U32(1).Raw(sBefore).U32(1).Raw(kAttributes).Bytes()));
    EXPECT_EQ(Hex(Encode(wcc_data{})), Hex(XdrBuilder().U64(0).Bytes()));
    EXPECT_EQ(Hex(Encode(specdata3{1, 2})), Hex(XdrBuilder().U32(1).U32(2).Bytes()));
}

}  // namespace
