// The local end of a get.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include "LocalFile.h"

/// Where a get puts what comes: the standard output, or a device or pipe, which is written into as it is, or an
/// ordinary file, which is replaced when all has come. It is looked at before anything is asked for, so that what
/// cannot be written to is known in time.
class LocalTarget {
public:
    /// Looks, and opens what is written into as it is; "-" is the standard output. Waits for a named pipe's reader as
    /// long as it takes. Throws NfsError, Interrupted.
    LocalTarget(const std::string& sPath, int iInterrupt);

    /// What is written into as it is; none for an ordinary file.
    const LocalFile* Stream() const { return m_pStream.get(); }
    /// The ordinary file's name: what a symbolic link leads to.
    const std::string& Path() const { return m_sPath; }
    /// The name of what has come of it so far, in the same directory. Every run makes the same one.
    std::string PartPath() const;
    /// Gives what has come of it the permissions of the file that is to be replaced.
    void Protect(LocalFile& part) const;

private:
    void FollowLink();

    std::string m_sPath;
    std::optional<mode_t> m_oiMode;  ///< the permissions of the file that is there already
    std::unique_ptr<LocalFile> m_pStream;
};
