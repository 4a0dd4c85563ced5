// The probe's commands on one file: content of a pattern, written and checked in all the ways a program has.
#include "Probe.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <span>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Pattern.h"

namespace {

/// What O_DIRECT asks of memory, offsets and lengths.
constexpr std::size_t kAlignment = 4096;

/// The longest piece that CheckAtRandom reads.
constexpr std::size_t kLongestRandomRead = 200'000;

struct Free {
    void operator()(char* pcMemory) const { std::free(pcMemory); }
};

/// Memory that O_DIRECT takes.
class Block {
public:
    explicit Block(std::size_t iSize)
        : m_iSize(std::max<std::size_t>(iSize, 1)),
          m_Memory(static_cast<char*>(std::aligned_alloc(kAlignment, RoundUp(m_iSize)))) {
        if (m_Memory == nullptr) {
            throw ProbeError("no memory");
        }
    }
    std::span<char> All() { return {m_Memory.get(), m_iSize}; }

private:
    static std::size_t RoundUp(std::size_t iSize) { return (iSize + kAlignment - 1) / kAlignment * kAlignment; }

    std::size_t m_iSize;
    std::unique_ptr<char, Free> m_Memory;
};

[[noreturn]] void FailAt(const ProbeFile& file, std::uint64_t iOffset, const std::string& sWhat) {
    throw ProbeError(file.Path() + " at byte " + std::to_string(iOffset) + ": " + sWhat);
}

void WriteAll(const ProbeFile& file, std::span<const char> bytes, std::uint64_t iOffset, bool bAppend) {
    while (!bytes.empty()) {
        const ssize_t iWritten = bAppend
                                     ? ::write(file.Number(), bytes.data(), bytes.size())
                                     : ::pwrite(file.Number(), bytes.data(), bytes.size(), static_cast<off_t>(iOffset));
        if (iWritten <= 0) {
            FailWithErrno("write", file.Path());
        }
        bytes = bytes.subspan(static_cast<std::size_t>(iWritten));
        iOffset += static_cast<std::uint64_t>(iWritten);
    }
}

/// Reads from an offset until the memory is full or the file ends; how much came.
std::size_t ReadAll(const ProbeFile& file, std::span<char> memory, std::uint64_t iOffset) {
    std::size_t iRead = 0;
    while (iRead < memory.size()) {
        const ssize_t iPart =
            ::pread(file.Number(), memory.data() + iRead, memory.size() - iRead, static_cast<off_t>(iOffset + iRead));
        if (iPart < 0) {
            FailWithErrno("read", file.Path());
        }
        if (iPart == 0) {
            break;
        }
        iRead += static_cast<std::size_t>(iPart);
    }
    return iRead;
}

void ExpectPattern(const ProbeFile& file, std::span<const char> bytes, std::uint64_t iSeed, std::uint64_t iOffset) {
    const std::size_t iRight = MatchPattern(bytes, iSeed, iOffset);
    if (iRight < bytes.size()) {
        FailAt(file, iOffset + iRight, "wrong content");
    }
}

void ExpectSize(const ProbeFile& file, std::uint64_t iSize) {
    if (file.Size() != iSize) {
        throw ProbeError(file.Path() + " has " + std::to_string(file.Size()) + " bytes instead of " +
                         std::to_string(iSize));
    }
}

/// A file of a known size, mapped as a whole and shared.
class Mapping {
public:
    Mapping(const ProbeFile& file, std::size_t iSize, int iProtection) : m_iSize(iSize) {
        void* pvMemory = ::mmap(nullptr, iSize, iProtection, MAP_SHARED, file.Number(), 0);
        if (pvMemory == MAP_FAILED) {
            FailWithErrno("mmap", file.Path());
        }
        m_pcMemory = static_cast<char*>(pvMemory);
    }
    ~Mapping() { ::munmap(m_pcMemory, m_iSize); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    std::span<char> All() const { return {m_pcMemory, m_iSize}; }

private:
    char* m_pcMemory = nullptr;
    std::size_t m_iSize;
};

}  // namespace

void WriteFile(Arguments arguments) {
    const std::string sPath = arguments.Text();
    std::uint64_t iOffset = arguments.Number();
    const std::uint64_t iEnd = iOffset + arguments.Number();
    Block block(arguments.Number());
    const std::uint64_t iSeed = arguments.Number();
    const int iDirect = arguments.Has("direct") ? O_DIRECT : 0;
    const bool bAppend = arguments.Has("append");
    ProbeFile file(sPath, O_WRONLY | O_CREAT | iDirect | (bAppend ? O_APPEND : 0));
    while (iOffset < iEnd) {
        const auto part = block.All().first(std::min<std::uint64_t>(block.All().size(), iEnd - iOffset));
        FillPattern(part, iSeed, iOffset);
        WriteAll(file, part, iOffset, bAppend);
        iOffset += part.size();
    }
    file.Close();
}

void AppendLater(Arguments arguments) {
    ProbeFile file(arguments.Text(), O_WRONLY | O_APPEND);
    const std::string sLine = arguments.Text() + "\n";
    ProbeFile(arguments.Text(), O_WRONLY | O_CREAT).Close();
    WaitForFile(arguments.Text());
    WriteAll(file, sLine, 0, true);
    if (::fsync(file.Number()) != 0) {
        FailWithErrno("fsync", file.Path());
    }
    file.Close();
}

void CheckFile(Arguments arguments) {
    const std::string sPath = arguments.Text();
    const std::uint64_t iSize = arguments.Number();
    Block block(arguments.Number());
    const std::uint64_t iSeed = arguments.Number();
    const ProbeFile file(sPath, O_RDONLY | (arguments.Has("direct") ? O_DIRECT : 0));
    ExpectSize(file, iSize);
    std::uint64_t iOffset = 0;
    std::size_t iRead = 0;
    do {
        iRead = ReadAll(file, block.All(), iOffset);
        ExpectPattern(file, block.All().first(iRead), iSeed, iOffset);
        iOffset += iRead;
    } while (iRead == block.All().size());
    if (iOffset != iSize) {
        FailAt(file, iOffset, "the file ends here instead of at " + std::to_string(iSize));
    }
}

void CheckAtRandom(Arguments arguments) {
    const std::string sPath = arguments.Text();
    const std::uint64_t iSize = arguments.Number();
    std::uint64_t iCount = arguments.Number();
    const std::uint64_t iSeed = arguments.Number();
    const bool bDirect = arguments.Has("direct");
    const ProbeFile file(sPath, O_RDONLY | (bDirect ? O_DIRECT : 0));
    ExpectSize(file, iSize);
    Block block(kLongestRandomRead);
    const std::uint64_t iUnit = bDirect ? kAlignment : 1;
    std::mt19937_64 random(iSeed);
    for (; iCount > 0; --iCount) {
        const std::uint64_t iOffset = random() % iSize / iUnit * iUnit;
        const std::uint64_t iLength = std::max(random() % kLongestRandomRead / iUnit * iUnit, iUnit);
        const auto part = block.All().first(iLength);
        const std::size_t iRead = ReadAll(file, part, iOffset);
        if (iRead != std::min(iLength, iSize - iOffset)) {
            FailAt(file, iOffset, "a read of " + std::to_string(iLength) + " gave " + std::to_string(iRead));
        }
        ExpectPattern(file, part.first(iRead), iSeed, iOffset);
    }
}

void WriteMapped(Arguments arguments) {
    const std::string sPath = arguments.Text();
    const std::size_t iSize = arguments.Number();
    const std::uint64_t iSeed = arguments.Number();
    ProbeFile file(sPath, O_RDWR | O_CREAT);
    if (::ftruncate(file.Number(), static_cast<off_t>(iSize)) != 0) {
        FailWithErrno("truncate", sPath);
    }
    {
        const Mapping mapping(file, iSize, PROT_READ | PROT_WRITE);
        // Page by page in no order, as a data base would.
        std::vector<std::size_t> vPages((iSize + kAlignment - 1) / kAlignment);
        std::iota(vPages.begin(), vPages.end(), 0);
        std::shuffle(vPages.begin(), vPages.end(), std::mt19937_64(iSeed));
        for (const std::size_t iPage : vPages) {
            const std::size_t iStart = iPage * kAlignment;
            FillPattern(mapping.All().subspan(iStart, std::min(kAlignment, iSize - iStart)), iSeed, iStart);
        }
        if (msync(mapping.All().data(), iSize, MS_SYNC) != 0) {
            FailWithErrno("msync", sPath);
        }
    }
    file.Close();
}

void CheckMapped(Arguments arguments) {
    const std::string sPath = arguments.Text();
    const std::size_t iSize = arguments.Number();
    const std::uint64_t iSeed = arguments.Number();
    const ProbeFile file(sPath, O_RDONLY);
    ExpectSize(file, iSize);
    ExpectPattern(file, Mapping(file, iSize, PROT_READ).All(), iSeed, 0);
}
