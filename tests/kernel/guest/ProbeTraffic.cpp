// The probe's command that makes a file as a capture of network traffic is one: calls of NFS version 3 as they stand on
// the wire (RFC 5531, RFC 1813), at all alignments, between bytes that mean nothing. Whoever copies such a file copies
// calls inside the data of a WRITE.
#include "Probe.h"

#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "Pattern.h"

namespace {

constexpr std::uint32_t kLastFragment = 0x80000000U;
constexpr std::uint32_t kNfsProgram = 100003;
constexpr std::uint32_t kWrite = 7;
constexpr std::uint32_t kRemove = 12;
constexpr std::uint32_t kFileSync = 2;
constexpr std::uint32_t kHandleSize = 64;
constexpr std::uint32_t kUnixCredentials = 1;

/// A server's handles are small numbers: one of these names the export's root, others name files in it.
constexpr std::uint32_t kHandles = 8;

/// A few megabytes of traffic.
constexpr std::size_t kRounds = 512;
constexpr std::size_t kLongestGap = 1500;

void AddWord(std::string& sBytes, std::uint32_t iWord) {
    for (int iShift = 24; iShift >= 0; iShift -= 8) {
        sBytes += static_cast<char>((iWord >> iShift) & 0xFFU);
    }
}

void AddOpaque(std::string& sBytes, const std::string& sOpaque) {
    AddWord(sBytes, static_cast<std::uint32_t>(sOpaque.size()));
    sBytes += sOpaque;
    sBytes.append((4 - sOpaque.size() % 4) % 4, '\0');
}

/// The handle with this number in its first four bytes, least significant first.
std::string Handle(std::uint32_t iNumber) {
    std::string sHandle(kHandleSize, '\0');
    sHandle[0] = static_cast<char>(iNumber);
    return sHandle;
}

std::string Call(std::uint32_t iProcedure, const std::string& sArguments, bool bUnixCredentials) {
    std::string sCall;
    for (const std::uint32_t iWord : {0x5EED0000U + iProcedure, 0U, 2U, kNfsProgram, 3U, iProcedure}) {
        AddWord(sCall, iWord);
    }
    if (bUnixCredentials) {
        AddWord(sCall, kUnixCredentials);
        AddOpaque(sCall, std::string(20, '\0'));  // stamp, no machine name, user 0, group 0, no further groups
    } else {
        AddWord(sCall, 0);
        AddWord(sCall, 0);
    }
    AddWord(sCall, 0);  // verifier
    AddWord(sCall, 0);
    sCall += sArguments;
    std::string sRecord;
    AddWord(sRecord, kLastFragment + static_cast<std::uint32_t>(sCall.size()));
    return sRecord + sCall;
}

std::string RemoveArguments(std::uint32_t iHandle, const std::string& sName) {
    std::string sArguments;
    AddOpaque(sArguments, Handle(iHandle));
    AddOpaque(sArguments, sName);
    return sArguments;
}

std::string WriteArguments(std::uint32_t iHandle, const std::string& sData) {
    std::string sArguments;
    AddOpaque(sArguments, Handle(iHandle));
    AddWord(sArguments, 0);  // offset, its upper half
    AddWord(sArguments, 0);
    AddWord(sArguments, static_cast<std::uint32_t>(sData.size()));
    AddWord(sArguments, kFileSync);
    AddOpaque(sArguments, sData);
    return sArguments;
}

}  // namespace

void WriteTraffic(Arguments arguments) {
    const std::string sPath = arguments.Text();
    const std::string sVictim = arguments.Text();
    std::string sBytes;
    for (std::size_t iRound = 0; iRound < kRounds; ++iRound) {
        std::string sGap(iRound * 37 % kLongestGap, '\0');
        FillPattern(sGap, iRound, 0);
        sBytes += sGap;
        for (std::uint32_t iHandle = 0; iHandle < kHandles; ++iHandle) {
            sBytes += Call(kRemove, RemoveArguments(iHandle, sVictim), iRound % 2 == 0);
            sBytes += Call(kWrite, WriteArguments(iHandle, "overwritten by a call inside a file"), iRound % 2 == 0);
        }
    }
    ProbeFile file(sPath, O_WRONLY | O_CREAT | O_TRUNC);
    if (::write(file.Number(), sBytes.data(), sBytes.size()) != static_cast<ssize_t>(sBytes.size())) {
        FailWithErrno("write", sPath);
    }
    file.Close();
}
