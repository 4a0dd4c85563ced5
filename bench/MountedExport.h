// An export mounted by the load.
#pragma once

#include <string>

/// The export is ours from construction to the end of the scope. Everything throws std::runtime_error, or WrongReply
/// where the server refuses; a failed unmount is only reported.
class MountedExport {
public:
    MountedExport(int iMountPort, int iNfsPort, const std::string& sExport);
    ~MountedExport();
    MountedExport(const MountedExport&) = delete;
    MountedExport& operator=(const MountedExport&) = delete;

    const std::string& GetRootHandle() const { return m_sRootHandle; }
    /// The handle of an entry of the root.
    std::string Lookup(const std::string& sName) const;

private:
    int m_iMountSocket;
    int m_iNfsPort;
    std::string m_sExport;
    std::string m_sRootHandle;
};
