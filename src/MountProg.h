// CMountProg: the MOUNT program, versions 1 and 3 (RFC 1813, appendix I; RFC 1094, appendix A).
#pragma once

#include <array>
#include <string>

#include "Nfs3Types.h"
#include "ProgramFrame.h"
#include "RpcProg.h"

/// Turns an export's name into its root file handle and binds the export to the calling client, and releases it again.
///
/// Any version is answered; version 1 differs only in how the handle is sent. Keeps no state between calls: bindings
/// live in the export registry. Calls come one at a time (the RPC server's mutex).
class CMountProg : public CRpcProg {
public:
    /// Procedures 0 to 5.
    static constexpr unsigned int kProcedureCount = 6;

    using Procedure = ProcedureEntry<CMountProg>;

    explicit CMountProg(CUtilities* pUtilities);

    static const std::array<Procedure, kProcedureCount>& GetProcedures();

    int Process(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam) override;
    unsigned int GetMaxSupportProc() override;
    bool IsModifying(unsigned int iVersion, unsigned int iProc) override;

    // The handlers: decode the arguments, write the result's body, return a ProgramStatus.
    int ProcedureNULL(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureMNT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureUMNT(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pInput, COutputStream* pOutput, ProcessParam* pParam);

    /// Reads an export name. False, with its bytes left unread, for one of kPathBufferSize bytes or more; the caller
    /// says so in the call's parameters.
    bool ReadPath(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, CInputStream* pInput, COpaquePath* pPath);

private:
    bool FindRootHandle(CInputStream* pInput, ProcessParam* pParam, char* pcHandle);
    bool BindExport(ProcessParam* pParam, const std::string& sExportName, char* pcHandle);
    static void WriteRootHandle(COutputStream* pOutput, unsigned int iVersion, const char* pcHandle);
};
