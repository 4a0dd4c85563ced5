// Reading the command line.
#include "LoadOptions.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <getopt.h>

namespace {

void Usage() {
    std::printf(
        "usage: nfsload --folder PATH [options] [ROW...]\n"
        "  --folder PATH      the exported folder, on this machine; test files are made in it\n"
        "  --peer NAME:NFSPORT:MOUNTPORT:EXPORT\n"
        "                     an NFS server on this machine (nfs:2049:1058:data). Given more than once, all are\n"
        "                     measured in turns, and ratios are told of the first\n"
        "  --bare PORT        a bareserver, in turns with them: it does what the first peer's calls ask\n"
        "  --shape NAME:CONNECTIONS:DEPTH[:PROCESSOR]\n"
        "                     connections, calls in flight on each, and the processor that the load stays on\n"
        "                     (one:1:1). Given more than once, the rows are run in each shape\n"
        "  --rounds N         rounds of each row, in turns between the peers; medians over the rounds count (15)\n"
        "  --milliseconds N   how long each round lasts (200)\n"
        "  --singly           each call leaves by itself; otherwise those that are due at the same time leave "
        "together\n"
        "  --csv FILE         appends the figures to a file\n"
        "  --list N           instead of the rows: lists a folder of N files by READDIRPLUS\n"
        "rows: NULL GETATTR LOOKUP ACCESS READ4K READ64K WRITE4K WRITE16K CREATE+REMOVE MIX READDIRPLUS (all)\n"
        "MIX: of 20 operations 6 GETATTR, 4 LOOKUP, 3 ACCESS, 4 READ and 2 WRITE of 4 KiB, 1 CREATE and REMOVE\n"
        "READDIRPLUS: a whole listing of 25 entries, in as many calls as the server makes of it\n"
        "Every reply is checked, and what was written is read back. Exit status 1 if anything is wrong.\n");
}

[[noreturn]] void Refuse() {
    Usage();
    std::exit(2);
}

std::vector<std::string> SplitAtColons(const char* pcText) {
    std::istringstream stream(pcText);
    std::vector<std::string> vsPieces;
    for (std::string sPiece; std::getline(stream, sPiece, ':');) {
        vsPieces.push_back(sPiece);
    }
    return vsPieces;
}

PeerAddress ParsePeer(const char* pcText) {
    const std::vector<std::string> vsPieces = SplitAtColons(pcText);
    if (vsPieces.size() != 4) {
        Refuse();
    }
    return {vsPieces[0], std::atoi(vsPieces[1].c_str()), std::atoi(vsPieces[2].c_str()), vsPieces[3]};
}

LoadShape ParseShape(const char* pcText) {
    const std::vector<std::string> vsPieces = SplitAtColons(pcText);
    if (vsPieces.size() != 3 && vsPieces.size() != 4) {
        Refuse();
    }
    const LoadShape shape{vsPieces[0], std::atoi(vsPieces[1].c_str()), std::atoi(vsPieces[2].c_str()), false,
                          vsPieces.size() == 4 ? std::atoi(vsPieces[3].c_str()) : -1};
    if (shape.nConnections < 1 || shape.nDepth < 1 || shape.nDepth > 256) {
        Refuse();
    }
    return shape;
}

enum Choice { kFolder, kPeer, kBare, kShape, kRounds, kMilliseconds, kCsv, kList, kSingly };

void TakeOption(int iChoice, const char* pcValue, LoadOptions* pParsed) {
    switch (iChoice) {
        case kFolder:
            pParsed->sFolder = pcValue;
            break;
        case kPeer:
            pParsed->vPeers.push_back(ParsePeer(pcValue));
            break;
        case kBare:
            pParsed->vPeers.push_back({"bare", std::atoi(pcValue), 0, ""});
            break;
        case kShape:
            pParsed->vShapes.push_back(ParseShape(pcValue));
            break;
        case kRounds:
            pParsed->nRounds = std::max(1, std::atoi(pcValue));
            break;
        case kMilliseconds:
            pParsed->roundTime = std::chrono::milliseconds(std::max(1, std::atoi(pcValue)));
            break;
        case kCsv:
            pParsed->sCsv = pcValue;
            break;
        case kSingly:
            pParsed->bSingly = true;
            break;
        case kList:
            pParsed->nListed = std::strtoull(pcValue, nullptr, 10);
            break;
        default:
            Refuse();
    }
}

}  // namespace

LoadOptions ParseLoadOptions(int argc, char** argv) {
    static const option options[] = {
        {"folder", 1, nullptr, kFolder}, {"peer", 1, nullptr, kPeer},     {"bare", 1, nullptr, kBare},
        {"shape", 1, nullptr, kShape},   {"rounds", 1, nullptr, kRounds}, {"milliseconds", 1, nullptr, kMilliseconds},
        {"csv", 1, nullptr, kCsv},       {"list", 1, nullptr, kList},     {"singly", 0, nullptr, kSingly},
        {nullptr, 0, nullptr, 0},
    };
    LoadOptions parsed;
    for (int iOption = 0; (iOption = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        TakeOption(iOption, optarg, &parsed);
    }
    parsed.rows.insert(argv + optind, argv + argc);
    if (parsed.vPeers.empty() || parsed.vPeers.front().IsBare()) {
        parsed.vPeers.insert(parsed.vPeers.begin(), ParsePeer("nfs:2049:1058:data"));
    }
    if (parsed.vShapes.empty()) {
        parsed.vShapes.push_back(LoadShape{});
    }
    for (LoadShape& shape : parsed.vShapes) {
        shape.bSingly = parsed.bSingly;
    }
    if (parsed.sFolder.empty()) {
        Refuse();
    }
    return parsed;
}
