// An NFS client that knows what each of its files must hold.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "ExportFiles.h"

/// Which server runs: one after the other, each announced before it is stopped.
struct ServerEpochs {
    std::atomic<unsigned int> nStopping{0};  ///< servers that were told to stop
    std::atomic<unsigned int> nStopped{0};   ///< servers that have ended
};

/// What a ModelledClient finds in its export beside its own files, and how long it may wait.
struct ModelledWorld {
    std::string sExport;                 ///< the export's name
    std::string sDisk;                   ///< what the redirected file "disk" must read as
    std::chrono::microseconds pause{0};  ///< between two pieces of work
    const ServerEpochs* pEpochs;         ///< outlives the client
};

/// Writes, reads, cuts, renames, removes and lists files, and compares every reply with what was acknowledged before;
/// makes each of the other calls too, and mounts anew now and then. Clients mount one after the other, since the MOUNT
/// port serves few at the same time. Where a call fails or its connection is lost because the server was told to stop,
/// it mounts anew and finds out which of the two possible states holds: any third one is an error, and so is a failure
/// of a call to a server that goes on. One thread.
class ModelledClient {
public:
    ModelledClient(ModelledWorld world, std::unique_ptr<ExportFiles> pCalls, std::uint32_t iSeed);

    /// Works until it is told to stop, or until something is wrong. Empty, or what was wrong.
    std::string Run(const std::atomic<bool>& bStop);
    /// What the files must hold in the end, by name.
    const std::map<std::string, std::string>& GetFiles() const { return m_Files; }
    std::uint64_t GetWorkCount() const { return m_nWork; }

private:
    using File = std::map<std::string, std::string>::iterator;

    void WorkOnce();
    void Create();
    void Write(File file);
    void Read(File file);
    void Cut(File file);
    void Rename(File file);
    void Remove(File file);
    void List();
    void MakeFolder();
    void ReadDisk();
    void WriteDisk();
    void ReadHosted();
    void GetSize(File file);
    void AskNext();

    /// Does one call, by its status; false if it failed or nobody knows whether it was done, and then the client has
    /// mounted anew.
    bool Try(const std::function<int()>& call);
    /// The same for a file that must be there.
    bool TryOn(const std::string& sName, const std::function<int()>& call);
    void Recover();
    bool Mount();
    bool Exists(const std::string& sName);
    std::string ReadWhole(const std::string& sName);
    void Settle(const std::string& sName, const std::string& sOther);
    void Require(bool bHolds, const std::string& sWhat) const;
    std::string MakeName();
    std::string MakeContent(std::size_t nBytes);
    std::size_t Below(std::size_t n) { return n == 0 ? 0 : m_Random() % n; }

    const ModelledWorld m_World;
    std::mt19937 m_Random;
    const std::atomic<bool>* m_pbStop = nullptr;
    const std::unique_ptr<ExportFiles> m_pCalls;
    std::map<std::string, std::string> m_Files;  ///< name to content
    unsigned int m_iServer = 0;                  ///< the one mounted from, or one before
    std::size_t m_iQuestion = 0;
    std::uint64_t m_nWork = 0;
};
