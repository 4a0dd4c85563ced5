// nfsmap: draws the map of a redirected file, from its info file or its info dump.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "MapOptions.h"
#include "MapPicture.h"
#include "MapReport.h"
#include "SegmentMap.h"

namespace {

constexpr int kExitIncomplete = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 3;

constexpr const char* kUsage =
    "usage: nfsmap [OPTION...] FILE\n"
    "Tells what stands where in a redirected file. FILE is its info file, or a dump that the host had written of its\n"
    "map. Prints a table of the whole file in virtual order, and what is wrong with the map.\n"
    "  --at OFFSET           tell of this offset alone; can be given several times\n"
    "  --svg PICTURE         draw the map into a file, with the offsets given by --at marked\n"
    "  --summary             no table\n"
    "  --check               print nothing while the map is whole; exit status 1 if it is not\n"
    "  --size BYTES          the file's size (default: the end of the last segment)\n"
    "  --info, --dump        what FILE is (default: judged by its first bytes)\n"
    "  --segment-size MIB    of an info file, as the host opened it (32)\n"
    "  --checkpoint-size MIB likewise (1024)\n"
    "Offsets and sizes take K, M, G or T behind the number, and 0x in front of it.\n"
    "Exit status: 0 done, 1 with --check if the map is not whole, 2 wrong usage, 3 failed.\n";

[[noreturn]] void FailToPrint() {
    throw MapError(std::string("standard output: ") + std::strerror(errno));
}

// A text larger than the stream's buffer is written at once, and its failure is not told again by a flush.
void Print(const std::string& sText) {
    if (std::fputs(sText.c_str(), stdout) == EOF) {
        FailToPrint();
    }
}

void WritePicture(const MapOptions& options, const LaidOutMap& laidOut) {
    std::error_code missing;  // one that is not there yet is another file
    if (std::filesystem::equivalent(options.sFile, options.sPicture, missing)) {
        throw MapError("\"" + options.sPicture + "\": this is the map itself");
    }
    const std::string sTitle = options.sFile.substr(options.sFile.rfind('/') + 1);
    std::ofstream file(options.sPicture, std::ios::binary | std::ios::trunc);
    file << DrawMap(laidOut, sTitle, options.viOffsets);
    file.close();
    if (!file) {
        throw MapError("\"" + options.sPicture + "\": cannot be written");
    }
}

int Show(const MapOptions& options) {
    const SegmentMap map = SegmentMap::Load(options.sFile, options.form);
    const LaidOutMap laidOut(map, options.iSize.value_or(map.GetEnd()));
    const MapSummary summary = Summarize(laidOut, options.steps);
    if (!options.sPicture.empty()) {
        WritePicture(options, laidOut);
    }
    if (options.bCheck) {
        Print(summary.bComplete ? "" : summary.sText);
        return summary.bComplete ? 0 : kExitIncomplete;
    }
    for (const std::int64_t iOffset : options.viOffsets) {
        Print(DescribeOffset(laidOut, iOffset));
    }
    if (options.viOffsets.empty()) {
        const std::string sTable = options.bSummaryOnly ? "" : MakeTable(laidOut) + "\n";
        Print(sTable + summary.sText);
    }
    return 0;
}

int Run(const std::vector<std::string>& vsArguments) {
    int iStatus = 0;
    if (vsArguments.size() == 1 && vsArguments[0] == "--help") {
        Print(kUsage);
    } else {
        iStatus = Show(MapOptions::Parse(vsArguments));
    }
    if (std::fflush(stdout) != 0) {
        FailToPrint();
    }
    return iStatus;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        std::fprintf(stderr, "%snfsmap: %s\n", kUsage, error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nfsmap: %s\n", error.what());
        return kExitFailed;
    }
}
