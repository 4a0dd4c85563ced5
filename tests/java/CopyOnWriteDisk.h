// A disk that a client uses over NFS, with its own changes kept on its own side.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct nfs_context;
struct nfsfh;

/// Mounts an export of the server on this machine through libnfs and opens a file for reading: the base. Writes go to
/// blocks kept in memory, copied from the base when they are first written to in part; reads prefer those. Operations
/// throw std::runtime_error with libnfs's words.
class CopyOnWriteDisk {
public:
    static constexpr std::size_t kBlock = 4096;

    /// The path begins with a slash and is relative to the export. The export is unmounted at the end.
    CopyOnWriteDisk(const std::string& sExport, const std::string& sPath);
    ~CopyOnWriteDisk();
    CopyOnWriteDisk(const CopyOnWriteDisk&) = delete;
    CopyOnWriteDisk& operator=(const CopyOnWriteDisk&) = delete;

    std::uint64_t Size() const { return m_iSize; }
    std::string Read(std::uint64_t iOffset, std::size_t iLength);
    void Write(std::uint64_t iOffset, std::string_view sBytes);
    /// From its beginning to its end, with the changes; or as the server has it.
    std::string ReadAll() { return Read(0, m_iSize); }
    std::string ReadBase(std::uint64_t iOffset, std::size_t iLength);
    /// How many blocks are not the server's any more.
    std::size_t ChangedBlocks() const { return m_Changed.size(); }

private:
    struct Unmount {
        void operator()(nfs_context* pContext) const;
    };
    std::string& BlockToChange(std::uint64_t iNumber);
    [[noreturn]] void Fail(const std::string& sWhat) const;

    std::unique_ptr<nfs_context, Unmount> m_pContext;
    nfsfh* m_pFile = nullptr;
    std::uint64_t m_iSize = 0;
    std::map<std::uint64_t, std::string>
        m_Changed;  ///< by block number; each is a whole block, the last one perhaps less
};
