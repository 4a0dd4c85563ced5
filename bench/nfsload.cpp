// nfsload: loads running NFS servers over loopback, in turns, checks every reply, and prints speed and latencies;
// beside a bareserver also the ratio to that. See LoadOptions.cpp for its options.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sched.h>

#include "ListingRun.h"
#include "LoadFolder.h"
#include "LoadOptions.h"
#include "Measurement.h"
#include "Peer.h"
#include "Report.h"
#include "RunProgress.h"

namespace {

using Peers = std::vector<std::unique_ptr<Peer>>;

void StayOnProcessor(int iProcessor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(iProcessor), &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0) {
        throw std::runtime_error("processor " + std::to_string(iProcessor) + " is not to be had");
    }
}

Peers MakePeers(const LoadOptions& options, const LoadFolder& folder) {
    Peers vpPeers;
    for (const PeerAddress& address : options.vPeers) {
        const Peer* pExample = address.IsBare() ? vpPeers.front().get() : nullptr;
        vpPeers.push_back(std::make_unique<Peer>(address, folder, pExample));
    }
    return vpPeers;
}

/// All servers in turns, of which each is the first equally often. A round before the others counts for nothing.
std::vector<Measurement> MeasureRow(const LoadOptions& options, const LoadShape& shape, const Peers& vpPeers,
                                    std::size_t iRow, RunProgress* pProgress) {
    std::vector<Measurement> vMeasurements(vpPeers.size());
    std::vector<std::unique_ptr<LoadSession>> vpSessions;
    std::vector<std::uint32_t> vIgnored;
    const std::string& sRow = vpPeers.front()->GetRows()[iRow].sName;
    try {
        for (std::size_t i = 0; i < vpPeers.size(); ++i) {
            vMeasurements[i].sServer = vpPeers[i]->GetAddress().sName;
            vMeasurements[i].bBare = vpPeers[i]->GetAddress().IsBare();
            vpSessions.push_back(vpPeers[i]->Open(iRow, shape));
            vpSessions.back()->Run(options.roundTime / 4, &vIgnored);
        }
        for (int iRound = 0; iRound < options.nRounds; ++iRound) {
            for (std::size_t i = 0; i < vpPeers.size(); ++i) {
                const std::size_t iTurn = (i + static_cast<std::size_t>(iRound)) % vpPeers.size();
                Measurement& measurement = vMeasurements[iTurn];
                measurement.vRounds.push_back(vpSessions[iTurn]->Run(options.roundTime, &measurement.vLatencies));
                pProgress->Step(shape.sName + ", " + sRow + ", round " + std::to_string(iRound + 1));
            }
        }
    } catch (const std::exception& error) {
        throw std::runtime_error(shape.sName + ", " + sRow + ": " + error.what());
    }
    return vMeasurements;
}

std::vector<std::size_t> ChosenRows(const LoadOptions& options, const std::vector<Row>& vRows) {
    std::vector<std::size_t> viRows;
    for (std::size_t i = 0; i < vRows.size(); ++i) {
        if (options.rows.empty() || options.rows.contains(vRows[i].sName)) {
            viRows.push_back(i);
        }
    }
    if (viRows.empty() || (!options.rows.empty() && viRows.size() != options.rows.size())) {
        throw std::runtime_error("a row of that name does not exist");
    }
    return viRows;
}

void MeasureRows(const LoadOptions& options) {
    const LoadFolder folder(options.sFolder);
    const Peers vpPeers = MakePeers(options, folder);
    const std::vector<std::size_t> viRows = ChosenRows(options, vpPeers.front()->GetRows());
    RunProgress progress(options.vShapes.size() * viRows.size() * static_cast<std::size_t>(options.nRounds) *
                         vpPeers.size());
    const Report report(options.sCsv);
    for (const LoadShape& shape : options.vShapes) {
        if (shape.iProcessor >= 0) {
            StayOnProcessor(shape.iProcessor);
        }
        progress.Clear();
        report.BeginShape(shape);
        for (const std::size_t iRow : viRows) {
            std::vector<Measurement> vMeasurements = MeasureRow(options, shape, vpPeers, iRow, &progress);
            for (Measurement& measurement : vMeasurements) {
                measurement.SortLatencies();
            }
            progress.Clear();
            report.AddRow(shape, vpPeers.front()->GetRows()[iRow], vMeasurements);
        }
    }
}

/// Lists a large folder at every NFS server, in turns. A listing before the others has the servers give out handles.
void MeasureListings(const LoadOptions& options) {
    const LoadFolder folder(options.sFolder);
    const std::string sName = folder.GetListName() + "-large";
    const LargeFolder large(folder.PathOf(sName), options.nListed);
    Peers vpPeers;
    std::vector<std::string> vsHandles;
    for (const PeerAddress& address : options.vPeers) {
        if (!address.IsBare()) {
            vpPeers.push_back(std::make_unique<Peer>(address, folder, nullptr));
            vsHandles.push_back(vpPeers.back()->Lookup(sName));
        }
    }
    if (options.vShapes.front().iProcessor >= 0) {
        StayOnProcessor(options.vShapes.front().iProcessor);
    }
    std::vector<std::vector<double>> vvdSpeeds(vpPeers.size());
    for (int iRound = -1; iRound < options.nRounds; ++iRound) {
        for (std::size_t i = 0; i < vpPeers.size(); ++i) {
            const double dSeconds = ListFolder(vpPeers[i]->GetAddress().iNfsPort, vsHandles[i], options.nListed);
            if (iRound >= 0) {
                vvdSpeeds[i].push_back(static_cast<double>(options.nListed) / dSeconds);
            }
        }
    }
    const Report report(options.sCsv);
    for (std::size_t i = 0; i < vpPeers.size(); ++i) {
        report.AddListing(vpPeers[i]->GetAddress().sName, options.nListed, vvdSpeeds[i]);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const LoadOptions options = ParseLoadOptions(argc, argv);
    try {
        if (options.nListed != 0) {
            MeasureListings(options);
        } else {
            MeasureRows(options);
        }
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "nfsload: %s\n", error.what());
        return 1;
    }
    return 0;
}
