// What both XDR streams share.
#include "SocketStream.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "InputStream.h"
#include "OutputStream.h"

TEST(SocketStream, TheBufferHoldsOneMebibyte) {
    EXPECT_EQ(CSocketStream::GetMaxBufferSize(), 1048576U);
    EXPECT_EQ(CInputStream().GetFreeBufferSize(), 1048576U);
    EXPECT_EQ(COutputStream().GetFreeBufferSize(), 1048576U);
}

TEST(SocketStream, ReverseByteOrderReadsABigEndianWordAtAnyAddress) {
    const unsigned char cBytes[] = {0xFF, 0x00, 0x01, 0x86, 0xA3, 0xFF, 0x80};
    const auto word = [&](int i) {
        return CSocketStream::ReverseByteOrder(reinterpret_cast<const unsigned int*>(cBytes + i));
    };
    EXPECT_EQ(word(1), 100003U);
    EXPECT_EQ(word(0), 0xFF000186U);
    EXPECT_EQ(word(3), 0x86A3FF80U);
}

TEST(SocketStream, AFreshBufferIsZero) {
    CInputStream input;
    input.AddFilledBufferSize(input.GetMaxBufferSize());
    const char* pcBytes = input.GetFilledBuffer(0, input.GetMaxBufferSize());
    ASSERT_NE(pcBytes, nullptr);
    EXPECT_EQ(pcBytes[0], 0);
    EXPECT_EQ(std::memcmp(pcBytes, pcBytes + 1, input.GetMaxBufferSize() - 1), 0);
}

// Nothing but the time that the kernel's copies take would tell.
TEST(SocketStream, ABufferBeginsOnAPage) {
    constexpr std::uintptr_t kPage = 4096;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(CInputStream().GetCurrentBuffer()) % kPage, 0U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(COutputStream().GetCurrentBuffer()) % kPage, 0U);
}

// The kernel refuses to write from where the process may not read, and tells so.
TEST(SocketStream, WhatLiesBehindABufferCannotBeTouched) {
    COutputStream output;
    const char* pcEnd = output.GetBuffer() + COutputStream::GetMaxBufferSize();
    int iPipe[2];
    ASSERT_EQ(::pipe2(iPipe, O_CLOEXEC), 0);
    EXPECT_EQ(::write(iPipe[1], pcEnd - 1, 1), 1);
    EXPECT_EQ(::write(iPipe[1], pcEnd, 1), -1);
    EXPECT_EQ(errno, EFAULT);
    ::close(iPipe[0]);
    ::close(iPipe[1]);
}
