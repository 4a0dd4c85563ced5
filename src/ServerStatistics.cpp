// The sizes of a server, with their names.
#include "ServerStatistics.h"

#include "OpenedFiles.h"

std::vector<StatisticsSize> GetStatisticsSizes(const ServerStatistics& statistics) {
    const RegistryFigures& held = statistics.registries;
    const CCallStatistics::ReplyFigures& replies = statistics.keptReplies;
    std::vector<StatisticsSize> vSizes = {
        {"exports", "exports", "Exports", held.nExports},
        {"mounted_exports", "mounted exports", "Exports that a client has mounted", held.nMountedExports},
        {"sessions", "sessions", "Sessions that a host has registered", held.nSessions},
        {"known_paths", "known paths", "Paths that have a file handle", held.nKnownPaths},
        {"cached_descriptors", "cached descriptors", "Entries of the cache of open descriptors",
         held.nCachedDescriptors},
        {"cached_descriptors_limit", "cached descriptors, at most",
         "Entries that the cache of open descriptors can hold", COpenedFiles::kMaxFiles},
        {"listings", "kept listings", "Directory listings kept for clients in the middle of them", held.nListings},
        {"listing_bytes", "kept listings, bytes", "Memory of the kept directory listings", held.nListingBytes},
        {"kept_replies", "kept replies", "Replies kept for datagrams that may be repeated", replies.nReplies},
        {"kept_reply_bytes", "kept replies, bytes", "Memory of the kept replies and of their calls", replies.nBytes},
        {"redirected_files", "redirected files", "Open redirected files", held.nRedirectedFiles},
        {"redirected_segments", "their segments", "Segments of the open redirected files", held.nSegments},
        {"redirected_map_bytes", "their maps, bytes", "Memory of the maps of the open redirected files",
         held.nMapBytes},
    };
    if (statistics.receivers) {
        const ReceiverFigures& receivers = *statistics.receivers;
        vSizes.insert(
            vSizes.end(),
            {{"receivers", "receivers", "Remote processes with callbacks under way, waiting or failed",
              receivers.nReceivers},
             {"receivers_hanging", "receivers that hang", "Remote processes that did not answer in time",
              receivers.nHanging},
             {"receivers_absent", "receivers not reached", "Remote processes that could not be reached",
              receivers.nAbsent},
             {"receiver_lines", "lines for receivers", "Log lines that wait for remote processes",
              receivers.nWaitingLines},
             {"receiver_line_bytes", "lines for receivers, bytes", "Memory of the lines that wait for remote processes",
              receivers.nWaitingBytes},
             {"receiver_dropped_lines", "lines dropped, untold",
              "Log lines that remote processes did not take and have not been told of", receivers.nDroppedLines}});
    }
    return vSizes;
}
