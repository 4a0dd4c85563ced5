// What nfsload was told to do.
#pragma once

#include <chrono>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "LoadShape.h"
#include "Peer.h"

/// The settings of one run.
struct LoadOptions {
    std::string sFolder;
    std::vector<PeerAddress> vPeers;  ///< the first is an NFS server, which ratios are told of
    std::vector<LoadShape> vShapes;
    std::set<std::string> rows;  ///< empty: all
    int nRounds = 15;
    std::chrono::milliseconds roundTime{200};
    bool bSingly = false;
    std::size_t nListed = 0;  ///< files in a folder that is listed instead of running rows
    std::string sCsv;         ///< file to append to, or empty
};

/// Ends the program with a usage text when the command line is wrong.
LoadOptions ParseLoadOptions(int argc, char** argv);
