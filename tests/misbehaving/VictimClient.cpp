// A client that is there to be killed: takes its export over from the one before it, and writes block after block to a
// file, each filled with a number of its own, until its end. It tells of each block that the server acknowledged.
//
// victim_client ADDRESS EXPORT FILE FIRST
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <unistd.h>

#include "NfsClient.h"

namespace {

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kBlocks = 64;

void Work(char** ppcArguments) {
    NfsClient client(Transport::kTcp, ppcArguments[1]);
    client.Umnt(ppcArguments[2]);  // whoever had it before is dead
    const std::string sRoot = client.Mnt(ppcArguments[2]).value();
    std::string sFile;
    if (client.Create(sRoot, ppcArguments[3], sFile) != 0) {
        throw std::runtime_error("no file");
    }
    client.Mount().Close();
    for (std::uint32_t i = static_cast<std::uint32_t>(std::strtoul(ppcArguments[4], nullptr, 10));; ++i) {
        const std::uint64_t iPlace = static_cast<std::uint64_t>(i % kBlocks) * kBlock;
        XdrBuilder block;
        for (std::uint32_t iByte = 0; iByte < kBlock; iByte += 4) {
            block.U32(i);
        }
        std::uint32_t iCount = 0;
        if (client.Write(sFile, iPlace, block.Bytes(), iCount) != 0 || iCount != kBlock) {
            throw std::runtime_error("no block");
        }
        const std::string sTold = std::to_string(i) + "\n";
        if (::write(STDOUT_FILENO, sTold.data(), sTold.size()) < 0) {
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    try {
        Work(argv);
    } catch (const std::exception& error) {
        std::printf("!%s\n", error.what());
        return 1;
    }
    return 0;
}
