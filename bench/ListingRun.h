// Listing one large folder from beginning to end.
#pragma once

#include <cstddef>
#include <string>

/// A folder of empty files, made for the run and removed with it.
class LargeFolder {
public:
    /// Throws std::runtime_error.
    LargeFolder(std::string sPath, std::size_t nFiles);
    ~LargeFolder();
    LargeFolder(const LargeFolder&) = delete;
    LargeFolder& operator=(const LargeFolder&) = delete;

private:
    void RemoveFiles() const;
    std::string GetFilePath(std::size_t i) const;

    std::string m_sPath;
    std::size_t m_nFiles;
};

/// Lists a folder by READDIRPLUS, one call after the other on one connection, and returns the seconds it took. Throws
/// WrongReply unless every one of the files is listed exactly once with attributes and handle.
double ListFolder(int iNfsPort, const std::string& sHandle, std::size_t nFiles);
