// A host of redirected files: steers the running server from a process of its own, opens two redirected files whose
// content is the probe's pattern, taken piece by piece out of sources where the pieces lie in another order, and tells
// on standard output what clients do to them. Ends when its standard input does.
//
// redirected_host FOLDER EXPORT SIZE SEED: adds the folder as an export; "memory.img" keeps its map in memory,
// "infofile.img" in an info file.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "FakeHost.h"
#include "Limits.h"
#include "NfsIpcClientMain.h"
#include "Pattern.h"

namespace {

constexpr long long kLongestPiece = 3 << 20;
constexpr int kInfoFileSegmentMB = 1;
constexpr int kInfoFileCheckPointMB = 8;

/// A piece of the content, and where it lies in the source.
struct Piece {
    long long iOffset;
    long long iLength;
    long long iSourceOffset;
};

/// Cuts the content into pieces of odd lengths and stores them, shuffled, in the source.
std::vector<Piece> MakeSource(const std::string& sPath, long long iSize, std::uint64_t iSeed) {
    std::mt19937_64 random(iSeed);
    std::vector<Piece> vPieces;
    for (long long iOffset = 0; iOffset < iSize; iOffset += vPieces.back().iLength) {
        const long long iLength = 1 + static_cast<long long>(random() % kLongestPiece);
        vPieces.push_back({iOffset, std::min(iLength, iSize - iOffset), 0});
    }
    std::shuffle(vPieces.begin(), vPieces.end(), random);
    std::ofstream source(sPath, std::ios::binary);
    for (Piece& piece : vPieces) {
        piece.iSourceOffset = source.tellp();
        std::vector<char> vBytes(static_cast<std::size_t>(piece.iLength));
        FillPattern(vBytes, iSeed, static_cast<std::uint64_t>(piece.iOffset));
        source.write(vBytes.data(), piece.iLength);
    }
    if (!source.flush()) {
        throw std::runtime_error("cannot write " + sPath);
    }
    std::sort(vPieces.begin(), vPieces.end(), [](const Piece& a, const Piece& b) { return a.iOffset < b.iOffset; });
    return vPieces;
}

void OpenRedirected(CNfsIpcClientMain& client, const std::string& sPath, const std::string& sSource, long long iSize,
                    const std::vector<Piece>& vPieces, bool bInfoFile) {
    if (!std::ofstream(sPath)) {
        throw std::runtime_error("cannot make " + sPath);
    }
    client.OpenRedirectedFile(sPath.c_str(), iSize, bInfoFile, kInfoFileSegmentMB, kInfoFileCheckPointMB);
    char vcReason[kReasonBufferSize] = "";
    for (const Piece& piece : vPieces) {
        if (!client.AddRedirectedFileSegment(sPath.c_str(), sSource.c_str(), piece.iSourceOffset, piece.iOffset,
                                             piece.iLength, vcReason)) {
            throw std::runtime_error(vcReason);
        }
    }
}

/// Takes every write, and tells of everything.
int Answer(const Notification& told) {
    std::printf("%s %s %llu %u\n", told.sOperation.c_str(), told.sPath.c_str(),
                static_cast<unsigned long long>(told.iSeek), static_cast<unsigned int>(told.iLen));
    std::fflush(stdout);
    return told.sOperation == "write" ? static_cast<int>(told.iLen) : 0;
}

void Run(const std::string& sFolder, const std::string& sExport, long long iSize, std::uint64_t iSeed) {
    FakeHost host;
    host.Log().SetHost(Answer);
    CNfsIpcClientMain client("kernelhost", 0);
    client.SetCallback(host.Callback());
    char vcReason[kReasonBufferSize] = "";
    if (!client.Initial(vcReason) || !client.StartRemoteController(vcReason) ||
        !client.AddMountPoint(sFolder.c_str(), sExport.c_str(), vcReason)) {
        throw std::runtime_error(vcReason);
    }
    const std::string sSource = sFolder + ".source";
    const std::vector<Piece> vPieces = MakeSource(sSource, iSize, iSeed);
    OpenRedirected(client, sFolder + "/memory.img", sSource, iSize, vPieces, false);
    OpenRedirected(client, sFolder + "/infofile.img", sSource, iSize, vPieces, true);
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    client.CloseAllRedirectedFiles(sFolder.c_str());
    client.RemoveMountPoint(sFolder.c_str());
    client.StopRemoteController();
    client.Terminate();
    client.SetCallback(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: redirected_host FOLDER EXPORT SIZE SEED\n", stderr);
        return 2;
    }
    try {
        Run(argv[1], argv[2], std::stoll(argv[3]), std::stoull(argv[4]));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "redirected_host: %s\n", error.what());
        return 1;
    }
}
