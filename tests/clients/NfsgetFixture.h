// What the tests of nfsget share.
#pragma once

#include <filesystem>
#include <fstream>
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

    static ChildOptions OnTerminal() {
        ChildOptions options;
        options.bTerminal = true;
        return options;
    }
    /// Sends a line, of less than 1000 bytes, to a put that has sent nothing yet, and waits until its progress tells
    /// that the line has been stored: what stands on disk earlier may not have been answered yet.
    static void SendAndAwait(ChildProcess& put, const std::string& sLine) {
        put.Send(sLine);
        ASSERT_TRUE(put.WaitFor("\033[K" + std::to_string(sLine.size()) + " B, ")) << put.Output();
    }
    /// Whether a process keeps a signal to itself, to take it when it suits it.
    static bool Blocks(pid_t iPid, int iSignal) {
        std::ifstream status("/proc/" + std::to_string(iPid) + "/status");
        for (std::string sLine; std::getline(status, sLine);) {
            if (sLine.starts_with("SigBlk:")) {
                return (std::stoull(sLine.substr(7), nullptr, 16) >> (iSignal - 1) & 1) != 0;
            }
        }
        return false;
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
