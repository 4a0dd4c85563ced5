// What the tests of nfsget share.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "ServerFixture.h"
#include "Trees.h"

class NfsgetTest : public ServerFixture {
protected:
    static std::string Program() { return BuildTree() + "/bin/nfsget"; }

    static RunResult Run(std::vector<std::string> vsArguments) {
        vsArguments.insert(vsArguments.begin(), Program());
        return RunProgram(vsArguments);
    }

    /// Waits until a file of the export holds a text, while the client that writes it runs.
    void AwaitContent(const std::string& sName, const std::string& sContent, ChildProcess& client) {
        while (client.IsRunning() &&
               !(std::filesystem::exists(Folder() / sName) && ReadWholeFile(Folder() / sName) == sContent)) {
            ::usleep(1000);
        }
        ASSERT_TRUE(client.IsRunning()) << client.Output();
    }
    /// A text of at least so many bytes in which every place differs from its surroundings.
    static std::string Numbers(std::size_t nSize) {
        std::string sText;
        for (int i = 0; sText.size() < nSize; ++i) {
            sText += std::to_string(i) + "\n";
        }
        return sText;
    }
    static ino_t Identity(const std::string& sPath) {
        struct stat state {};
        EXPECT_EQ(::stat(sPath.c_str(), &state), 0);
        return state.st_ino;
    }

    /// Every run ends with an unmount.
    void ExpectUnmounted() { EXPECT_EQ(Server().GetMountInfo(true, false), 0) << "the export is still bound"; }
};
