// The console's banner and status report.
#include "ConsoleUtilities.h"

#include <cstdio>

#include "NfsMain.h"
#include "ServerIdentity.h"

namespace {

constexpr const char* kRule = "------------------------------------";

/// One block of the status report: a count, the records when there are any, an empty line behind them.
template <typename List>
void PrintList(const char* pcTitle, List list) {
    const int nRecords = list(false);
    std::printf("%s %d\n", pcTitle, nRecords);
    if (nRecords > 0) {
        list(true);
        std::printf("\n");
    }
    std::printf("%s\n", kRule);
}

}  // namespace

void CConsoleUtilities::PrintBanner(const char* pcVersion, const char* pcDescription) {
    std::printf("%s\n", kRule);
    std::printf("%s %s\n", "Execute Version:", kServerVersion);
    std::printf("%s %s\n", "Server Version:", pcVersion);
    std::printf("%s %s\n", "Server Description:", pcDescription);
    std::printf("%s\n", kRule);
}

void CConsoleUtilities::PrintNotAccessible() {
    std::printf("%s %s\n", "Server Status:", "NotAccessible");
    std::printf("%s\n", kRule);
}

void CConsoleUtilities::PrintStatus(CNfsMain* pNfsMain) {
    std::printf("%s %s\n", "Server Status:", pNfsMain->IsServerRunning() ? "Started" : "Stopped");
    std::printf("%s\n", kRule);
    PrintList("Number of Mount Point:", [&](bool bDetails) { return pNfsMain->GetMountInfo(false, bDetails); });
    PrintList("Number of Session:", [&](bool bDetails) { return pNfsMain->GetSessionInfo(bDetails); });
    PrintList("Number of mounted NFS datastore:", [&](bool bDetails) { return pNfsMain->GetVSphereInfo(bDetails); });
    PrintList("Number of Net Device info:", [&](bool bDetails) { return pNfsMain->GetNetDeviceCredential(bDetails); });
}
