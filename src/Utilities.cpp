// CUtilities: coming to life, going, and starting over. The topics are told in the Utilities*.cpp files beside this
// one.
#include "Utilities.h"

#include "AccessFile.h"
#include "FileTable.h"
#include "RedirectedFile.h"
#include "VSphereWebController.h"

CUtilities::CUtilities()
    : m_pFileTable(std::make_unique<CFileTable>()),
      m_pVSphereWebController(std::make_unique<CVSphereWebController>()) {}

CUtilities::~CUtilities() = default;

void CUtilities::Reset(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu) {
    RemoveAllMountInfo(pRuntimeParam, pLogArgu);
    RemoveAllSessionInfo();
    CloseAllCachedFileHandles(pRuntimeParam, pLogArgu);
    CloseAllRedirectedFiles(pRuntimeParam);
    RemoveAllNetDeviceCredential(pRuntimeParam);
}
