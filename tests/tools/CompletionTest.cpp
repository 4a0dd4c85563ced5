// Bash's completion of the programs' command lines, typed at a shell on a terminal.
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

/// A shell that knows the completions; in place of the programs it has functions that show what they are given.
class CompletionTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(m_Folder / "one dir");
        WriteWholeFile(m_Folder / "one dir/two words", "");
        std::filesystem::create_directory(m_Folder / "get");
        std::string sSetup = "PS1='$ '\ncd '" + m_Folder.Path() + "'\n";
        for (const char* pcTool : {"nfsget", "nfsmap", "nfsconsole"}) {
            sSetup += ". '" + SourceTree() + "/packaging/completion/" + pcTool + "'\n";
            sSetup += std::string(pcTool) + "() { printf 'args:'; printf '<%s>' \"$@\"; echo .; }\n";
        }
        WriteWholeFile(m_Folder / "setup", sSetup);
        ChildOptions options;
        options.bTerminal = true;
        options.vEnvironment = {{"INPUTRC", "/dev/null"}, {"HISTFILE", ""}, {"TERM", "dumb"}, {"LC_ALL", "C"}};
        m_pShell = std::make_unique<ChildProcess>(
            std::vector<std::string>{"bash", "--noprofile", "--rcfile", m_Folder / "setup", "-i"}, options);
        ASSERT_TRUE(m_pShell->WaitFor("$ ")) << m_pShell->Output();
    }

    /// What the program is given when the line is typed, tabulators with it.
    std::string Type(const std::string& sLine) {
        m_pShell->Send(sLine + "\n");
        EXPECT_TRUE(m_pShell->WaitFor("args:")) << m_pShell->Output();
        const std::size_t iBegin = m_pShell->Output().size() - m_pShell->Unread().size();
        EXPECT_TRUE(m_pShell->WaitFor(".\n")) << m_pShell->Output();
        const std::size_t iEnd = m_pShell->Output().find(".\n", iBegin);
        return m_pShell->Output().substr(iBegin, iEnd - iBegin);
    }

    TempFolder m_Folder;
    std::unique_ptr<ChildProcess> m_pShell;
};

TEST_F(CompletionTest, AFolderWithABlankIsOneArgumentThatGoesOn) {
    EXPECT_EQ(Type("nfsmap on\ttw\t"), "<one dir/two words>");
    EXPECT_EQ(Type("nfsmap --svg on\ttw\t"), "<--svg><one dir/two words>");
    EXPECT_EQ(Type("nfsget put on\ttw\t"), "<put><one dir/two words>");
    for (const char* pcOption : {"-logfile", "-pidfile", "-access", "-stats"}) {
        EXPECT_EQ(Type("nfsconsole " + std::string(pcOption) + " on\ttw\t"),
                  "<" + std::string(pcOption) + "><one dir/two words>");
    }
    EXPECT_EQ(Type("nfsconsole -test on\t=5"), "<-test><one dir/=5>");
}

TEST_F(CompletionTest, ACommandIsOneAlsoWhereAFolderHasItsName) {
    EXPECT_EQ(Type("nfsget ge\tx"), "<get><x>");
}

TEST_F(CompletionTest, NothingIsOfferedForAPortOrAPlaceOnAServer) {
    EXPECT_EQ(Type("nfsget -p li\tst"), "<-p><list>");
    EXPECT_EQ(Type("nfsget -m li\tst"), "<-m><list>");
    EXPECT_EQ(Type("nfsget -p 2049 li\tx"), "<-p><2049><list><x>");
    EXPECT_EQ(Type("nfsget put - 127.0.0.1:on\te"), "<put><-><127.0.0.1:one>");
    EXPECT_EQ(Type("nfsget list on\te"), "<list><one>");
    EXPECT_EQ(Type("nfsconsole -test /tmp=-sh\to"), "<-test></tmp=-sho>");
}

}  // namespace
