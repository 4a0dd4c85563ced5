// Clients that try to get out of their export by names and by links that lie in it, made on the host: over sockets, as
// root, with the whole server in between. Whatever is answered, nothing of the trees that are not theirs is told, made,
// changed or removed. (By handles and listings: ContainmentHandlesTest.cpp. While links are swapped:
// ContainmentRaceTest.cpp.)
#include <filesystem>

#include <gtest/gtest.h>

#include "ContainmentFixture.h"

namespace {

class ContainmentTest : public ContainmentFixture {};

TEST_F(ContainmentTest, NamesLeadNowhereElse) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        const std::string sUp = Beside(*pTree);
        for (const std::string& sName :
             {sUp, sUp + "/", sUp + "/file", sUp + "/dir", sUp + "/empty", sUp + "/new", sUp + "/new/",
              sUp + "/dir/new", "./" + sUp + "/file", "missing/../" + sUp + "/new", "/" + sUp + "//new",
              sUp + "/empty/.", sUp + "/dir/../empty", "../../" + pTree->Path().substr(1) + "/new",
              pTree->Path() + "/new", "myDir/../" + sUp + "/file", "mine/../" + sUp + "/file"}) {
            SCOPED_TRACE(sName);
            Attack(m_sRoot, sName);
        }
    }
    for (const char* pcName : {"..", "../", "../..", "../../", ".", "", "/", "..//..", "../."}) {
        SCOPED_TRACE(pcName);
        Attack(m_sRoot, pcName);
    }
    EXPECT_TRUE(std::filesystem::is_directory(Folder().Path()));
    EXPECT_TRUE(WasRefusedAsAnothers());
}

TEST_F(ContainmentTest, NamesThatAreCutReachNothing) {
    const std::string sUp = Beside(m_Outside);
    const std::string sNul("\0", 1);
    for (const std::string& sName :
         {sUp + "/file" + sNul, sUp + "/empty" + sNul + "x", sNul, sNul + sUp + "/file", "x" + sNul + "/../" + sUp,
          std::string(256, 'x'), std::string(4095, 'x'), std::string(4096, 'x'), std::string(70000, 'x'),
          sUp + "/" + std::string(4090, '/') + "file", std::string(4000, '/') + sUp + "/file"}) {
        SCOPED_TRACE(sName.substr(0, 60) + " of " + std::to_string(sName.size()));
        Attack(m_sRoot, sName);
    }
}

// To a folder, a file, nothing; absolute, relative, over other links; in circles.
TEST_F(ContainmentTest, LinksLeadNowhereElse) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        const std::string sUp = Beside(*pTree);
        const std::map<std::string, std::string> links{{"dir", pTree->Path()},
                                                       {"file", *pTree / "file"},
                                                       {"empty", *pTree / "empty"},
                                                       {"relative", sUp + "/file"},
                                                       {"dangling", *pTree / "new"},
                                                       {"danglingRelative", sUp + "/new"},
                                                       {"chain", "dangling"},
                                                       {"deep", "dir/dir"},
                                                       {"self", "self"},
                                                       {"there", "back"},
                                                       {"back", "there"},
                                                       {"up", ".."}};
        for (const auto& [sName, sTarget] : links) {
            for (const char* pcBehind : {"", "/", "/.", "/file", "/empty", "/new", "/dir/new", "/.."}) {
                for (const auto& [sLink, sLinkTarget] : links) {
                    std::filesystem::remove_all(Folder() / sLink);
                    Link(sLinkTarget, sLink);
                }
                SCOPED_TRACE(sName + pcBehind);
                Attack(m_sRoot, sName + pcBehind);
            }
        }
    }
}

// What fails is told to have failed.
TEST_F(ContainmentTest, AnswersSayThatNothingWasDone) {
    Link(m_Outside.Path(), "link");
    MakeOwn();
    std::string sHandle;
    for (const std::string& sFolder : {Beside(m_Outside), Beside(m_Other), std::string("link")}) {
        SCOPED_TRACE(sFolder);
        EXPECT_NE(m_pClient->Lookup(m_sRoot, sFolder + "/file", sHandle), 0U);
        EXPECT_NE(m_pClient->Create(m_sRoot, sFolder + "/new", sHandle), 0U);
        EXPECT_NE(m_pClient->Mkdir(m_sRoot, sFolder + "/new", sHandle), 0U);
        EXPECT_NE(m_pClient->Remove(m_sRoot, sFolder + "/file"), 0U);
        EXPECT_NE(m_pClient->Rmdir(m_sRoot, sFolder + "/empty"), 0U);
        EXPECT_NE(m_pClient->Rename(m_sRoot, "mine", m_sRoot, sFolder + "/stolen"), 0U);
        EXPECT_NE(m_pClient->Rename(m_sRoot, sFolder + "/file", m_sRoot, "stolen"), 0U);
    }
    EXPECT_NE(m_pClient->Lookup(m_sRoot, "..", sHandle), 0U);
    EXPECT_NE(m_pClient->Mkdir(m_sRoot, "../new", sHandle), 0U);
    EXPECT_EQ(ReadWholeFile(Folder() / "mine"), "mine");
}

// In the folder as a whole: what a listing tells of each entry, links among them.
TEST_F(ContainmentTest, ListingsTellNothingOfWhatLinksLeadTo) {
    for (const TempFolder* pTree : {&m_Outside, &m_Other}) {
        Link(pTree->Path(), "dir" + pTree->Path().substr(pTree->Path().size() - 6));
        Link(*pTree / "file", "file" + pTree->Path().substr(pTree->Path().size() - 6));
    }
    AttackHandle(m_sRoot);
}

TEST_F(ContainmentTest, RenamesAcrossExportsMoveNothing) {
    std::string sTheirDir;
    ASSERT_EQ(m_pOwner->Lookup(m_sOther, "dir", sTheirDir), 0U);
    MakeOwn();
    const std::string sUp = Beside(m_Other);
    for (const char* pcOwn : {"mine", "myDir"}) {
        for (const auto& [sDir, sName] : std::vector<std::pair<std::string, std::string>>{{m_sOther, "new"},
                                                                                          {m_sOther, "file"},
                                                                                          {m_sOther, "empty"},
                                                                                          {sTheirDir, "new"},
                                                                                          {sTheirDir, "file"},
                                                                                          {m_sRoot, sUp + "/new"},
                                                                                          {m_sRoot, sUp + "/file"},
                                                                                          {m_sRoot, sUp}}) {
            SCOPED_TRACE(std::string(pcOwn) + " and " + sName);
            EXPECT_NE(m_pClient->Rename(m_sRoot, pcOwn, sDir, sName), 0U) << "into it";
            EXPECT_NE(m_pClient->Rename(sDir, sName, m_sRoot, pcOwn), 0U) << "out of it";
            EXPECT_NE(m_pClient->Rename(sDir, sName, m_sRoot, "stolen"), 0U) << "out of it";
            EXPECT_NE(m_pOwner->Rename(m_sOther, "file", m_sRoot, pcOwn), 0U) << "by the owner, into the client's";
        }
    }
    EXPECT_EQ(ReadWholeFile(Folder() / "mine"), "mine");
    EXPECT_TRUE(std::filesystem::is_directory(Folder() / "myDir"));
}

}  // namespace
