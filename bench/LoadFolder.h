// The exported folder that the load works on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Content.h"

/// Makes the test files, and removes them in the end. Their names were used by no earlier run: the server keeps
/// descriptors of files that were removed behind its back.
class LoadFolder {
public:
    static constexpr int kListEntries = 25;

    /// Throws std::runtime_error.
    explicit LoadFolder(const std::string& sPath);
    ~LoadFolder();
    LoadFolder(const LoadFolder&) = delete;
    LoadFolder& operator=(const LoadFolder&) = delete;

    const std::string& GetPath() const { return m_sPath; }
    const Content& GetContent() const { return m_Content; }
    const std::string& GetReadName() const { return m_sReadName; }
    const std::string& GetWriteName() const { return m_sWriteName; }
    const std::string& GetListName() const { return m_sListName; }
    std::string PathOf(const std::string& sName) const { return m_sPath + "/" + sName; }
    /// A name to create and remove, of kNameSize bytes, for one of a connection's calls in flight.
    std::string MadeName(int iConnection, int iSlot) const;
    static constexpr std::size_t kNameSize = 29;  ///< an XDR string of this size ends in zeros

    /// Throws WrongReply unless the blocks marked as written hold this generation on disk.
    void CheckWritten(const std::vector<bool>& vbWritten, std::uint32_t iGeneration) const;

private:
    void RemoveFiles() const;

    std::string m_sPath;
    Content m_Content;
    std::string m_sReadName;
    std::string m_sWriteName;
    std::string m_sListName;
};
