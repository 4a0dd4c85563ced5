// How the calls of a row are made.
#pragma once

#include <string>

/// One way to load a server.
struct LoadShape {
    std::string sName = "one";
    int nConnections = 1;
    int nDepth = 1;        ///< calls in flight on each connection, at most 256
    bool bSingly = false;  ///< each call leaves by itself, also when others are due at the same time
    int iProcessor = -1;   ///< where the load runs (-1: anywhere)
};
