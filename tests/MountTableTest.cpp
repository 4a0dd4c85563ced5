// The exports, held against the walk in name order that says which of them judges a path.
#include "MountTable.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Paths.h"

namespace {

/// What a call is told: "access NAME IPC-ID CLIENT".
std::string Tell(MountAccess access, const MountInfo& mount) {
    switch (access) {
        case MountAccess::kServed:
            return "served " + mount.sExportName + " " + mount.sIcpID + " " + mount.sRemoteIpAddr;
        case MountAccess::kHeld:
            return "held " + mount.sExportName + " " + mount.sIcpID + " " + mount.sRemoteIpAddr;
        case MountAccess::kDenied:
        case MountAccess::kNone:
            break;
    }
    return "none";
}

std::string Judge(const CMountTable& table, const std::string& sPath, const char* pcClient) {
    MountInfo told;
    const MountAccess access = table.Judge(sPath, pcClient, &told);
    EXPECT_EQ(table.Judge(sPath, pcClient, nullptr), access);
    return Tell(access, told);
}

/// The definition: all exports walked in name order.
std::string JudgeByWalking(const CMountTable::Mounts& mounts, const std::string& sPath, const char* pcClient) {
    std::vector<const MountInfo*> vHolders;
    for (const auto& [sName, mount] : mounts) {
        if (IsAtOrBelow(sPath, mount.sLocalMountPath)) {
            vHolders.push_back(&mount);
        }
    }
    if (vHolders.empty()) {
        return "none";
    }
    const MountInfo& first = *vHolders.front();
    if (pcClient == nullptr) {
        return Tell(MountAccess::kServed, first);
    }
    const MountInfo* pHeld = nullptr;
    for (const MountInfo* pHolder : vHolders) {
        if (pHolder->sRemoteIpAddr == pcClient && *pcClient != '\0') {
            pHeld = nullptr;
            break;
        }
        if (!pHolder->sRemoteIpAddr.empty() && pHeld == nullptr) {
            pHeld = pHolder;
        }
    }
    return pHeld != nullptr ? Tell(MountAccess::kHeld, {"", pHeld->sExportName, "", pHeld->sRemoteIpAddr})
                            : Tell(MountAccess::kServed, {"", first.sExportName, first.sIcpID, ""});
}

TEST(MountTableTest, ExportsAreFoundByNameAndByTheirExactPath) {
    CMountTable table;
    table.Add({"/srv/a", "x", "ipc", ""});
    ASSERT_NE(table.FindByName("x"), nullptr);
    EXPECT_EQ(table.FindByName("x")->sIcpID, "ipc");
    EXPECT_EQ(table.FindByName("y"), nullptr);
    ASSERT_NE(table.FindByPath("/srv/a"), nullptr);
    EXPECT_EQ(table.FindByPath("/srv/a")->sExportName, "x");
    EXPECT_EQ(table.FindByPath("/srv/a/"), nullptr);
    EXPECT_EQ(table.FindByPath("/srv"), nullptr);
    table.Remove(*table.FindByName("x"));
    EXPECT_EQ(table.FindByName("x"), nullptr);
    EXPECT_EQ(table.FindByPath("/srv/a"), nullptr);
    EXPECT_EQ(Judge(table, "/srv/a", nullptr), "none");
}

TEST(MountTableTest, PathsThatDifferInASlashAreTwoExports) {
    CMountTable table;
    table.Add({"/missing/", "with", "", ""});
    table.Add({"/missing", "without", "", ""});
    EXPECT_EQ(table.FindByPath("/missing/")->sExportName, "with");
    EXPECT_EQ(table.FindByPath("/missing")->sExportName, "without");
    EXPECT_EQ(Judge(table, "/missing/f", nullptr), "served with  ");
    table.Remove(*table.FindByName("with"));
    EXPECT_EQ(Judge(table, "/missing/f", nullptr), "served without  ");
}

TEST(MountTableTest, AllThatIsTakenOutIsGone) {
    CMountTable table;
    table.Add({"/", "root", "", ""});
    table.Add({"/a", "a", "", ""});
    EXPECT_EQ(table.TakeAll().size(), 2U);
    EXPECT_TRUE(table.GetAll().empty());
    EXPECT_EQ(Judge(table, "/a", nullptr), "none");
    EXPECT_EQ(Judge(table, "/", nullptr), "none");
    table.Add({"/b", "b", "", ""});
    EXPECT_EQ(Judge(table, "/b/f", nullptr), "served b  ");
}

// Random exports that come, go, and are mounted; every path is judged for every client as the walk judges it.
TEST(MountTableTest, PathsAreJudgedAsTheWalkJudgesThem) {
    const std::vector<std::string> vPaths{"",     "/",      "//",    "/a",     "/a/",     "/a//",   "/a/b",
                                          "/ab",  "/a/b/c", "/a/bc", "/a/b/",  "/a//b",   "a",      "a/b",
                                          "/a.b", "/b",     "/b/a",  "/a/b/d", "/a/b/c/", "/a/./b", "."};
    const std::vector<std::string> vNames{"a", "b", "c", "m", "n", "x", "y", "z"};
    const std::vector<const char*> vClients{nullptr, "", "10.0.0.5", "10.0.0.50", "10.0.0.6"};
    std::mt19937 random(5);
    CMountTable table;
    for (int iOperation = 0; iOperation < 3000; ++iOperation) {
        const std::string& sName = vNames[random() % vNames.size()];
        const std::string& sPath = vPaths[random() % vPaths.size()];
        MountInfo* pMount = table.FindByName(sName);
        const char* pcClient = vClients[random() % vClients.size()];
        if (pMount != nullptr && random() % 3 == 0) {
            table.Remove(*pMount);
        } else if (pMount != nullptr) {
            pMount->sRemoteIpAddr = pcClient == nullptr ? "" : pcClient;
        } else if (table.FindByPath(sPath) == nullptr) {
            table.Add({sPath, sName, "ipc-" + sName, ""});
        }
        for (const std::string& sJudged : vPaths) {
            for (const char* pcJudged : vClients) {
                ASSERT_EQ(Judge(table, sJudged, pcJudged), JudgeByWalking(table.GetAll(), sJudged, pcJudged))
                    << iOperation << " \"" << sJudged << "\" for " << (pcJudged == nullptr ? "nobody" : pcJudged);
            }
        }
    }
}

}  // namespace
