// An external server whose calls can go wrong, steered by a client in this process.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Faults.h"
#include "HostSide.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "TempFolder.h"

/// Makes its folders for SetUp, after which a test fills the export and calls Start; ends the server, with success,
/// unless it has ended already.
class SteeredServerFixture : public testing::TestWithParam<SweptFault> {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pElsewhere = std::make_unique<TempFolder>();
        m_pFaults = std::make_unique<Faults>(*m_pElsewhere / "faults");
    }

    void TearDown() override {
        m_pHostSide.reset();
        if (m_pServer && m_pServer->IsRunning()) {
            EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        }
        m_pServer.reset();
        m_pFaults.reset();
        m_pElsewhere.reset();
        m_pFolder.reset();
    }

    /// Starts the server with some arguments more, and has the client start its services and export the folder as
    /// "exp".
    void Start(const std::vector<std::string>& vsMore = {}) {
        std::vector<std::string> vsArguments{"-md", "svr", "-id", "srv"};
        vsArguments.insert(vsArguments.end(), vsMore.begin(), vsMore.end());
        m_pServer = std::make_unique<ConsoleProcess>(vsArguments, m_pFaults->Surroundings());
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pHostSide = std::make_unique<HostSide>("client");
        char vcReason[kReasonBufferSize] = "";
        ASSERT_TRUE(m_pHostSide->Start(vcReason)) << vcReason;
        ASSERT_TRUE(m_pHostSide->Client().StartServer(0, 0, 0, 0, false, vcReason)) << vcReason;
        ASSERT_TRUE(m_pHostSide->Client().AddMountPoint(m_pFolder->Path().c_str(), "exp", vcReason)) << vcReason;
    }

private:
    LeakGuard m_Leaks;

protected:
    std::unique_ptr<TempFolder> m_pFolder;     ///< the export
    std::unique_ptr<TempFolder> m_pElsewhere;  ///< outside it
    std::unique_ptr<Faults> m_pFaults;
    std::unique_ptr<ConsoleProcess> m_pServer;
    std::unique_ptr<HostSide> m_pHostSide;
};
