// CVSphereWebController: runs the datastore tool that stands beside the running program.
#pragma once

#include <string>

#include "ThreadAnnotations.h"

/// Unmounts NFS datastores from vSphere hosts through the command-line tool VcDatastoreCtlLinX64, which is looked for
/// in the folder of the running program's file. Any thread may call; one tool runs at a time.
class CVSphereWebController {
public:
    CVSphereWebController() = default;
    virtual ~CVSphereWebController() = default;
    CVSphereWebController(const CVSphereWebController&) = delete;
    CVSphereWebController& operator=(const CVSphereWebController&) = delete;

    /// Removes one datastore from its host and waits until the tool has ended; its result is ignored. Does nothing
    /// when an argument is null or empty.
    void RemoveSession(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                       const char* pcPwd);

private:
    /// Held while the tool runs.
    Mutex m_hMutexTool;
};
