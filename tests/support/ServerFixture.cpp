// A whole server inside the test process.
#include "ServerFixture.h"

#include "Isolation.h"
#include "Utilities.h"

void ServerFixture::SetUp() {
    if (!IsIsolated()) {
        GTEST_SKIP() << kNotIsolated;
    }
    m_pFolder = std::make_unique<TempFolder>();
    m_pServer = std::make_unique<CapturingNfsMain>("test", CRuntimeParam::kLogError, &m_Log);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(m_pServer->Initial(vcReason)) << vcReason;
    Start();
}

void ServerFixture::TearDown() {
    if (m_pServer) {
        m_pServer->StopServer();
        m_pServer->Terminate();
        m_pServer.reset();
    }
    m_pFolder.reset();
}

void ServerFixture::Start(bool bReadOnly) {
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(m_pServer->StartServer(0, 0, 0, 0, bReadOnly, vcReason)) << vcReason << "\n" << m_Log.Dump();
    Export(m_pFolder->Path(), kExportName);
}

void ServerFixture::Export(const std::string& sPath, const std::string& sName) {
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(m_pServer->AddMountPoint(sPath.c_str(), sName.c_str(), vcReason)) << vcReason;
}

std::string ServerFixture::MountRoot(NfsClient& client, const std::string& sName) {
    const std::optional<std::string> sHandle = client.Mnt(sName);
    EXPECT_TRUE(sHandle.has_value()) << "MNT of \"" << sName << "\": status " << client.GetMountStatus() << "\n"
                                     << m_Log.Dump();
    return sHandle.value_or("");
}
