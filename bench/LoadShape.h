// How the calls of a row are made.
#pragma once

#include <string>

/// One way to load a server.
struct LoadShape {
    std::string sName = "one";
    int nConnections = 1;
    int nDepth = 1;       ///< calls in flight on each connection, at most 256
    int iProcessor = -1;  ///< where the load runs (-1: anywhere)
};
