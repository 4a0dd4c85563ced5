// How much the registries hold.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "HostAnswers.h"

/// Sizes of the registries of one controller. Each is right, but they are taken one after the other.
struct RegistryFigures {
    std::size_t nExports = 0;
    std::size_t nMountedExports = 0;  ///< those that a client has mounted
    std::size_t nSessions = 0;
    std::size_t nKnownPaths = 0;         ///< that have a file ID
    std::size_t nCachedDescriptors = 0;  ///< entries of the descriptor cache
    std::size_t nListings = 0;           ///< kept for clients in the middle of them
    std::size_t nListingBytes = 0;
    std::size_t nRedirectedFiles = 0;
    std::uint64_t nSegments = 0;  ///< of all redirected files: in memory, and records written to their info files
    std::size_t nMapBytes = 0;    ///< what their maps take in memory
    std::array<CHostAnswers::Figures, CHostAnswers::kKinds> vAnswers{};
};

/// What is known of the remote processes that callbacks go to, or have to.
struct ReceiverFigures {
    std::size_t nReceivers = 0;     ///< those of which there is something to be remembered
    std::size_t nHanging = 0;       ///< that did not answer in time, and are not asked until they do
    std::size_t nAbsent = 0;        ///< that could not be reached
    std::size_t nWaitingLines = 0;  ///< log lines that are to be sent
    std::size_t nWaitingBytes = 0;
    std::uint64_t nDroppedLines = 0;  ///< that were not taken, and of which their receivers have not been told yet
};
