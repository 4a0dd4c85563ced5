// A whole server inside the test process.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "LeakGuard.h"
#include "LogCapture.h"
#include "NfsClient.h"
#include "NfsMain.h"
#include "TempFolder.h"

/// CNfsMain whose log lines and notifications go to a LogCapture.
class CapturingNfsMain : public CNfsMain {
public:
    CapturingNfsMain(const char* pcLogID, int iLogControl, LogCapture* pCapture) : m_pCapture(pCapture) {
        CNfsMain::InitMemberVaribles(pcLogID, iLogControl);
    }

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override { return std::make_unique<CaptureUtilities>(m_pCapture); }

private:
    LogCapture* m_pCapture;
};

/// Serves an empty folder as the export "data" on the default ports (portmapper 111, NFS 2049, MOUNT 1058). Fails the
/// test that leaks a thread, a descriptor or a file. Skips aloud where the process has no network of its own.
class ServerFixture : public testing::Test {
protected:
    static constexpr const char* kExportName = "data";

    void SetUp() override;
    void TearDown() override;

    CNfsMain& Server() { return *m_pServer; }
    CUtilities& Utilities() { return *m_pServer->GetUtilities(); }
    LogCapture& Log() { return m_Log; }
    /// The exported folder.
    const TempFolder& Folder() const { return *m_pFolder; }
    /// Starts again after Server().StopServer(), with the export "data".
    void Start(bool bReadOnly = false);
    /// Exports a folder under a name; fails the test if that is refused.
    void Export(const std::string& sPath, const std::string& sName);
    /// Mounts and returns the root handle; fails the test (and returns "") if that is refused.
    std::string MountRoot(NfsClient& client, const std::string& sName = kExportName);

private:
    LeakGuard m_Leaks;

protected:
    LogCapture m_Log;
    std::unique_ptr<TempFolder> m_pFolder;
    std::unique_ptr<CNfsMain> m_pServer;
};
