// The ways in which a ModelledClient reaches the files of its export.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What a read brought.
struct Piece {
    std::string sData;
    std::optional<bool> bEof;  ///< where the client is told
};

/// One client's calls for the files and folders in the root of one export, which names name. A call returns 0 or an
/// error number, ENOENT for what is not there; where a connection is lost it may throw a std::exception instead. One
/// thread.
class ExportFiles {
public:
    virtual ~ExportFiles() = default;

    /// Takes the export on new connections, also when it was left mounted.
    virtual int Mount() = 0;
    virtual int Find(const std::string& sName) = 0;
    virtual int GetSize(const std::string& sName, std::uint64_t& nBytes) = 0;
    virtual int Create(const std::string& sName) = 0;
    /// One WRITE, as long as the data is no longer than the server takes at once.
    virtual int Write(const std::string& sName, std::uint64_t iOffset, std::string_view sData,
                      std::size_t& nWritten) = 0;
    /// One READ, as above.
    virtual int Read(const std::string& sName, std::uint64_t iOffset, std::size_t nCount, Piece& piece) = 0;
    virtual int Cut(const std::string& sName, std::uint64_t nBytes) = 0;
    virtual int Rename(const std::string& sFrom, const std::string& sTo) = 0;
    virtual int Remove(const std::string& sName) = 0;
    virtual int MakeFolder(const std::string& sName) = 0;
    virtual int RemoveFolder(const std::string& sName) = 0;
    virtual int List(std::vector<std::string>& vsNames) = 0;

    /// The calls beside these, which leave the content of files alone, from 0 to their number - 1. False, with a
    /// text, for an answer other than the one that is stated.
    virtual std::size_t GetQuestionCount() const = 0;
    virtual bool Ask(std::size_t iQuestion, const std::string& sName, std::string& sWrong) = 0;
};

/// Calls made here, byte by byte, from the address given.
std::unique_ptr<ExportFiles> MakeRawFiles(std::string sExport, std::string sAddress);
/// libnfs.
std::unique_ptr<ExportFiles> MakeLibnfsFiles(std::string sExport);
