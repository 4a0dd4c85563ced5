// The host of a session's world: what it asks of the server, and what it answers when it is asked.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "FakeJvm.h"
#include "IpcServer.h"
#include "NfsMain.h"
#include "SessionScript.h"

/// A controller without sockets, whose registries are real. What would leave the world's folder, last for ever or fill
/// the disk is not done: it belongs to the host, which has no reason to harm itself.
class SessionMain : public CNfsMain {
public:
    /// Told of the procedures that calls come to.
    SessionMain(std::string sFolder, std::function<void(std::string_view)> tell);

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId, bool bReadOnly,
                     char* pcStatus) override;
    void StopServer() override {}
    bool AddMountPoint(const char* pcPath, const char* pcName, const char* pcIpcID, char* pcStatus) override;
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bInfo, int iSegmentMB,
                            int iCheckPointMB) override;
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSource, long long iSourceOffset, long long iOffset,
                                  long long iLength, char* pcStatus) override;
    void ExportRedirectedFile(const char* pcPath, const char* pcExportPath) override;
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath, bool bMerge) override;
    void RunTestMode(CRuntimeParam* pParam, const char* pcPath, long long iSize) override;
    int ExecuteSystemCmd(CRuntimeParam* pParam, const char* pcCmd, bool bLog) override;
    bool AddNetDeviceCredential(const char* pcPath, const char* pcUser, const char* pcPwd) override;
    bool RemoveNetDeviceCredential(const char* pcPath) override;

    using CNfsMain::AddMountPoint;
    using CNfsMain::ExecuteSystemCmd;
    using CNfsMain::RunTestMode;

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override;

private:
    bool IsMine(const char* pcPath) const;

    std::string m_sFolder;
    std::function<void(std::string_view)> m_Tell;
};

/// A host that steers a SessionMain by records of the remote control, and answers notifications as it is told to.
class SessionHost {
public:
    /// The controller outlives the host. The folder holds "session/export" and the host's sources in "host". Told of
    /// what happens, by name.
    SessionHost(SessionMain* pMain, std::string sFolder, std::function<void(std::string_view)> tell);
    ~SessionHost();
    SessionHost(const SessionHost&) = delete;
    SessionHost& operator=(const SessionHost&) = delete;

    /// How it answers from now on, and what it does to the server before it answers.
    void ChooseAnswer(SessionScript& script);
    /// One request about what the world has, cut short if the script says so. Empty if it was answered whole.
    std::string Request(SessionScript& script);
    /// Bytes for a record.
    std::string RawRecord(SessionScript& script);
    /// Makes the usual things: an export with a redirected file of two segments.
    std::string Prepare();
    /// What the virtual machine has to complain of; empty for nothing.
    std::string JudgeJvm() const;

private:
    HostMethods MakeMethods();
    HostAnswer Answer(const char* pcWhat, const std::vector<HostArgument>& vArguments);
    std::string Send(const void* pvRecord, std::size_t nRecord, int iType, std::size_t nCut);
    template <class Record>
    std::string Send(const Record& record, int iType, std::size_t nCut = 0) {
        return Send(&record, sizeof(record), iType, nCut);
    }
    std::string Dispatch(IpcDataInst* pInst);
    std::string RequestRedirected(SessionScript& script, unsigned int iKind, std::size_t nCut);
    std::string RequestOther(SessionScript& script, unsigned int iType, std::size_t nCut);
    std::string PathOf(std::string_view sName) const;

    SessionMain* m_pMain;
    std::string m_sFolder;
    std::function<void(std::string_view)> m_Tell;
    FakeJvm m_Jvm;
    CIpcServer m_Server;
    unsigned int m_iAnswer = 0;
    unsigned int m_iDeed = 0;
};
