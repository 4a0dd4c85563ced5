// What the test files hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Every block of 4 KiB of a file differs from its neighbours, so that data from a wrong offset is noticed, and from
/// itself in another generation, so that a write that never happened is. Block b of generation g is a stretch of one
/// small random text, which begins 8 (b + g) bytes into it: what is compared and sent stays in the processor's caches,
/// and the load costs little beside the servers.
class Content {
public:
    static constexpr std::size_t kBlock = 4096;

    Content();

    /// The block at an offset, which is a multiple of kBlock below kFileSize.
    const char* BlockAt(std::uint64_t iOffset, std::uint32_t iGeneration) const {
        return m_sText.data() + (iOffset / kBlock + iGeneration % kGenerations) * kStep;
    }
    /// True if these whole blocks stand at the offset.
    bool Matches(std::string_view sData, std::uint64_t iOffset, std::uint32_t iGeneration) const;

private:
    static constexpr std::size_t kStep = 8;
    static constexpr std::uint32_t kGenerations = 1024;

    std::string m_sText;
};

/// The part of a file that is read and written: large enough to leave the processor's caches, small enough to stay in
/// the page cache.
inline constexpr std::size_t kLoadSize = 64U << 20U;
/// The file that is read goes on behind it, so that no read meets its end.
inline constexpr std::size_t kFileSize = kLoadSize + 65536;
