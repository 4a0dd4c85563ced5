// The order of CNfsMain's virtual operations: hosts built against it call them by their place in the table.
#include "NfsMain.h"

#include <cstddef>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "SlotOf.h"

namespace {

/// Shows the protected operations.
class Shown : public CNfsMain {
public:
    using CNfsMain::CreateUtilities;
    using CNfsMain::InitialNetwork;
    using CNfsMain::InitMemberVaribles;
    using CNfsMain::TerminateNetwork;
};

TEST(NfsMainSlotsTest, VirtualOperationsStandInTheirOrderBehindTheDestructor) {
    static_assert(std::has_virtual_destructor_v<CNfsMain>);
    using Main = CNfsMain;
    using MountWithIpcID = bool (Main::*)(const char*, const char*, const char*, char*);
    using Mount = bool (Main::*)(const char*, const char*, char*);
    using MountInfo = int (Main::*)(CRuntimeParam*, bool, bool);
    using Listing = int (Main::*)(CRuntimeParam*, bool);
    using TestMode = void (Main::*)(CRuntimeParam*, const char*, long long);
    using QuickTest = bool (Main::*)(CRuntimeParam*, const char*, int, char*);
    using Command = int (Main::*)(CRuntimeParam*, const char*, bool);
    const std::vector<std::pair<const char*, std::ptrdiff_t>> vSlots = {
        {"Initial", SlotOf(&Main::Initial)},
        {"Terminate", SlotOf(&Main::Terminate)},
        {"StartRemoteController", SlotOf(&Main::StartRemoteController)},
        {"StopRemoteController", SlotOf(&Main::StopRemoteController)},
        {"StartServer", SlotOf(&Main::StartServer)},
        {"StopServer", SlotOf(&Main::StopServer)},
        {"GetAccessMode", SlotOf(&Main::GetAccessMode)},
        {"GetVersion", SlotOf(&Main::GetVersion)},
        {"GetDescription", SlotOf(&Main::GetDescription)},
        {"IsServerRunning", SlotOf(&Main::IsServerRunning)},
        {"AddMountPoint with an IPC ID", SlotOf<MountWithIpcID>(&Main::AddMountPoint)},
        {"AddMountPoint", SlotOf<Mount>(&Main::AddMountPoint)},
        {"RemoveMountPoint", SlotOf(&Main::RemoveMountPoint)},
        {"AddSessionInfo", SlotOf(&Main::AddSessionInfo)},
        {"RemoveSessionInfo", SlotOf(&Main::RemoveSessionInfo)},
        {"IsSessionExists", SlotOf(&Main::IsSessionExists)},
        {"OpenRedirectedFile", SlotOf(&Main::OpenRedirectedFile)},
        {"CloseRedirectedFile", SlotOf(&Main::CloseRedirectedFile)},
        {"CloseAllRedirectedFiles", SlotOf(&Main::CloseAllRedirectedFiles)},
        {"AddRedirectedFileSegment", SlotOf(&Main::AddRedirectedFileSegment)},
        {"ExportRedirectedFile", SlotOf(&Main::ExportRedirectedFile)},
        {"ExportRedirectedFileInfo", SlotOf(&Main::ExportRedirectedFileInfo)},
        {"CloseCachedFileHandle", SlotOf(&Main::CloseCachedFileHandle)},
        {"CloseAllCachedFileHandles", SlotOf(&Main::CloseAllCachedFileHandles)},
        {"SetLogControl", SlotOf(&Main::SetLogControl)},
        {"GetMountInfo", SlotOf<MountInfo>(&Main::GetMountInfo)},
        {"GetSessionInfo", SlotOf<Listing>(&Main::GetSessionInfo)},
        {"RunTestMode", SlotOf<TestMode>(&Main::RunTestMode)},
        {"EnableAutoShutdown", SlotOf(&Main::EnableAutoShutdown)},
        {"RequestAutoShutdown", SlotOf(&Main::RequestAutoShutdown)},
        {"GetServerStatus", SlotOf(&Main::GetServerStatus)},
        {"SetDebugActionEnabled", SlotOf(&Main::SetDebugActionEnabled)},
        {"GetVSphereInfo", SlotOf<Listing>(&Main::GetVSphereInfo)},
        {"AddVSphereInfo", SlotOf(&Main::AddVSphereInfo)},
        {"RemoveVSphereInfo", SlotOf(&Main::RemoveVSphereInfo)},
        {"RunQuickTestMode", SlotOf<QuickTest>(&Main::RunQuickTestMode)},
        {"ExecuteSystemCmd", SlotOf<Command>(&Main::ExecuteSystemCmd)},
        {"GetNetDeviceCredential", SlotOf<Listing>(&Main::GetNetDeviceCredential)},
        {"AddNetDeviceCredential", SlotOf(&Main::AddNetDeviceCredential)},
        {"RemoveNetDeviceCredential", SlotOf(&Main::RemoveNetDeviceCredential)},
        {"InitMemberVaribles", SlotOf(&Shown::InitMemberVaribles)},
        {"CreateUtilities", SlotOf(&Shown::CreateUtilities)},
        {"InitialNetwork", SlotOf(&Shown::InitialNetwork)},
        {"TerminateNetwork", SlotOf(&Shown::TerminateNetwork)},
    };
    std::ptrdiff_t iExpected = 2;  // the destructor takes two places: with and without freeing
    for (const auto& [pcName, iSlot] : vSlots) {
        EXPECT_EQ(iSlot, iExpected++) << pcName;
    }
}

TEST(NfsMainSlotsTest, ConveniencesAreNotVirtual) {
    using Main = CNfsMain;
    const std::vector<std::pair<const char*, std::ptrdiff_t>> vSlots = {
        {"GetMountInfo", SlotOf<int (Main::*)(bool, bool)>(&Main::GetMountInfo)},
        {"GetSessionInfo", SlotOf<int (Main::*)(bool)>(&Main::GetSessionInfo)},
        {"RunTestMode", SlotOf<void (Main::*)(const char*, long long)>(&Main::RunTestMode)},
        {"GetVSphereInfo", SlotOf<int (Main::*)(bool)>(&Main::GetVSphereInfo)},
        {"RunQuickTestMode", SlotOf<bool (Main::*)(const char*, int, char*)>(&Main::RunQuickTestMode)},
        {"ExecuteSystemCmd", SlotOf<int (Main::*)(const char*, bool)>(&Main::ExecuteSystemCmd)},
        {"GetNetDeviceCredential", SlotOf<int (Main::*)(bool)>(&Main::GetNetDeviceCredential)},
        {"IsLocalSessionExists", SlotOf(&Main::IsLocalSessionExists)},
        {"IsAutoShutdownEnabled", SlotOf(&Main::IsAutoShutdownEnabled)},
        {"IsAutoShutdownRequested", SlotOf(&Main::IsAutoShutdownRequested)},
        {"SetCallback", SlotOf(&Main::SetCallback)},
        {"GetCallback", SlotOf(&Main::GetCallback)},
        {"SetFileLogger", SlotOf(&Main::SetFileLogger)},
    };
    for (const auto& [pcName, iSlot] : vSlots) {
        EXPECT_EQ(iSlot, -1) << pcName;
    }
}

}  // namespace
