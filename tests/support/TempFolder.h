// A scratch folder that vanishes with its owner.
#pragma once

#include <string>
#include <string_view>

/// A new folder below /tmp, removed with everything in it at the end of the scope. Its path is canonical.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_sPath; }
    /// The path of an entry of the folder.
    std::string operator/(std::string_view sName) const { return m_sPath + "/" + std::string(sName); }

private:
    std::string m_sPath;
};

/// Writes a whole file, made or emptied first. Throws std::runtime_error if it cannot.
void WriteWholeFile(const std::string& sPath, std::string_view sContent);
/// Reads a whole file. Throws std::runtime_error if it cannot.
std::string ReadWholeFile(const std::string& sPath);
