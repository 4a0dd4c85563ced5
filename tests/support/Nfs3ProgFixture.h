// The NFS version 3 program on streams, without sockets.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "InputStream.h"
#include "LogCapture.h"
#include "Nfs3Prog.h"
#include "NfsClient.h"
#include "OutputStream.h"
#include "TempFolder.h"
#include "Xdr.h"

/// Exports an empty folder as "data" and hands calls to the program as the RPC server does.
class Nfs3ProgFixture : public testing::Test {
protected:
    static constexpr const char* kExportName = "data";
    static constexpr const char* kIpcID = "ipc-7";
    static constexpr const char* kClientID = "10.0.0.5";

    Nfs3ProgFixture();

    /// Runs one procedure; the program status is left in m_iResult. Returns the result written, and checks that
    /// all of the arguments was consumed.
    std::string Call(unsigned int iProc, const std::string& sArguments);
    std::string Call(unsigned int iProc, const XdrBuilder& arguments) { return Call(iProc, arguments.Bytes()); }
    /// The same with more bytes behind the arguments; returns how many of them are left unread.
    std::string CallWithMoreBehind(unsigned int iProc, const std::string& sArguments, const std::string& sBehind);

    /// The status of a reply that is the status and nothing but absent attributes: as many false words as given.
    void ExpectBareFailure(const std::string& sReply, unsigned int iStatus, int nFalseWords);

    /// The handle of an entry of the exported folder ("": the folder), made as the server makes it.
    std::string Handle(const std::string& sName = "");
    std::string HandleOfPath(const std::string& sPath);
    /// Arguments that begin with a directory handle and a name.
    XdrBuilder DirOp(const std::string& sName) { return DirOp(Handle(), sName); }
    static XdrBuilder DirOp(const std::string& sDirHandle, const std::string& sName);
    /// Calls LOOKUP for an entry of the exported folder; its status.
    unsigned int LookupStatus(const std::string& sName);

    std::string Path(const std::string& sName) const { return m_Folder / sName; }
    void SetLog(int iBits) { m_Param.SetLogControl(iBits); }
    /// All log texts since the last call of this.
    std::vector<std::string> TakeLog();

    /// A handle whose ID no path has.
    const std::string m_sForged = std::string("\x77\x77\x07\0", 4) + std::string(52, '\0');
    /// sattr3 that sets nothing.
    const std::string m_sNoAttributes = std::string(24, '\0');

    TempFolder m_Folder;
    LogCapture m_Log;
    CaptureUtilities m_Utilities{&m_Log};
    CRuntimeParam m_Param{kClientID, 0};
    LogArgu m_Tag{"Test"};
    CNfs3Prog m_Prog{&m_Utilities};
    CNfs3Prog* m_pProg = &m_Prog;  ///< the one that is called
    CInputStream m_Input;
    COutputStream m_Output;
    int m_iResult = -1;
    std::string m_sRemoteAddr = kClientID;  ///< the client whose calls these are
};
