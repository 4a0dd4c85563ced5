// An external server in a process of its own, steered by a client in this one.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "Isolation.h"
#include "LeakGuard.h"
#include "Limits.h"
#include "NfsClient.h"
#include "NfsIpcClientMain.h"
#include "TempFolder.h"

inline constexpr char kServerChannel[] = "/tmp/nfs-server";

/// The server runs and serves an empty folder as the export "exp", which the client added. The client's host answers
/// as the test tells it. Fails the test that leaks a thread, a descriptor or a file.
class IpcProcesses : public testing::Test {
protected:
    static constexpr const char* kClientID = "client";

    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pServer = std::make_unique<ConsoleProcess>(std::vector<std::string>{"-md", "svr", "-id", "srv"});
        ASSERT_TRUE(m_pServer->WaitForPrompt()) << m_pServer->Output();
        m_pClient = std::make_unique<CNfsIpcClientMain>(kClientID, 0);
        m_pClient->SetCallback(m_Host.Callback());
        ASSERT_TRUE(m_pClient->Initial(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pClient->StartRemoteController(m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pClient->StartServer(0, 0, 0, 0, false, m_vcReason)) << m_vcReason;
        ASSERT_TRUE(m_pClient->AddMountPoint(m_pFolder->Path().c_str(), "exp", m_vcReason)) << m_vcReason;
    }

    void TearDown() override {
        if (m_pClient) {
            m_pClient->StopRemoteController();
            m_pClient->Terminate();
            m_pClient->SetCallback(nullptr);
            m_pClient.reset();
        }
        if (m_pServer && m_pServer->IsRunning()) {
            EXPECT_EQ(m_pServer->Quit(), 0) << m_pServer->Output();
        }
        m_pServer.reset();
        m_pFolder.reset();
    }

private:
    LeakGuard m_Leaks;

protected:
    FakeHost m_Host;
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<ConsoleProcess> m_pServer;
    std::unique_ptr<CNfsIpcClientMain> m_pClient;
    char m_vcReason[kReasonBufferSize] = "";
};
