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

#include "NfsClient.h"

/// What a ModelledClient finds in its export beside its own files, and how long it may wait.
struct ModelledWorld {
    std::string sExport;                 ///< the export's name
    std::string sAddress;                ///< where the client calls from
    std::string sDisk;                   ///< what the redirected file "disk" must read as
    std::chrono::microseconds pause{0};  ///< between two pieces of work
};

/// Writes, reads, cuts, renames, removes and lists files, and compares every reply with what was acknowledged before.
/// Where a call fails or its connection is lost, it mounts anew and finds out which of the two possible states holds:
/// any third one is an error. One thread.
class ModelledClient {
public:
    ModelledClient(ModelledWorld world, std::uint32_t iSeed);

    /// Works until it is told to stop, or until something is wrong. Empty, or what was wrong.
    std::string Run(const std::atomic<bool>& bStop);
    /// What the files must hold in the end, by name.
    const std::map<std::string, std::string>& GetFiles() const { return m_Files; }
    std::uint64_t GetCallCount() const { return m_nCalls; }

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

    /// Does one call; false if it failed or nobody knows whether it was done, and then the client has mounted anew.
    bool Try(const std::function<bool()>& call);
    void Recover();
    std::string GetHandle(const std::string& sName);
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
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::map<std::string, std::string> m_Handles;
    std::map<std::string, std::string> m_Files;  ///< name to content
    std::uint64_t m_nCalls = 0;
};
