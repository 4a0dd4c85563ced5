// A client that tries to get out of its export, and what tells whether it did.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "ServerFixture.h"

/// What happens to files and folders: those that are opened, read, changed, made or removed.
class Watch {
public:
    Watch();
    void Add(const std::string& sPath);
    /// A folder and all below it.
    void AddTree(const std::string& sTree);
    /// The events so far, each once.
    std::set<std::string> Take();

private:
    CDescriptor m_Queue;
};

/// Everything of a tree that a client could change: each entry's path with its type, mode, owner, links, times and what
/// it holds.
std::map<std::string, std::string> Picture(const std::string& sTree);

inline constexpr const char* kSecret = "not yours";  ///< stands in each file that is not the client's
inline constexpr const char* kSecretName = "top.secret";
inline constexpr std::uint32_t kSecretTime = 0x5EC4E75A;  ///< when each entry that is not the client's was changed

/// Sets the time of all entries of a tree to the one that no client may be told.
void SetSecretTimes(const std::string& sTree);
/// A client each of whose replies is searched for what it must not see.
std::unique_ptr<NfsClient> MakeSpiedClient(const char* pcAddress, Transport transport = Transport::kTcp);

/// The export "data" of the client under test; "other", which another client has mounted; and a folder that nobody
/// exports. All three lie side by side. Those that are not the client's are guarded: none of their entries may change,
/// and no reply to the client may hold a name, a byte or a time of theirs. In the folder that nobody exports, nothing
/// may so much as be opened.
class ContainmentFixture : public ServerFixture {
protected:
    static constexpr const char* kClient = "127.0.0.1";
    static constexpr const char* kOtherClient = "127.0.0.2";
    static constexpr const char* kStranger = "127.0.0.3";  ///< has mounted nothing

    void SetUp() override;
    void TearDown() override;

    /// A tree whose content no reply may show: "file", "dir" with a "file", "empty", and one with the secret name.
    static void FillSecret(const std::string& sTree);
    /// From now on until the end of the test (or until it is guarded anew) nothing of the tree may change. The tree has
    /// to be there until then.
    void Guard(const std::string& sTree);
    void ExpectUntouched();

    /// Makes a file and an empty folder of the client's own, to be renamed to where they must not go. Known by handles.
    void MakeOwn();
    /// Every procedure that goes by a directory and a name, with that name; those that succeed are told by the trees.
    void Attack(const std::string& sDir, const std::string& sName);
    /// Every procedure that goes by a handle. The statuses, NULL aside, by procedure; 0 where one is not served at all.
    std::map<std::uint32_t, std::uint32_t> AttackHandle(NfsClient& client, const std::string& sHandle);
    void AttackHandle(const std::string& sHandle) { AttackHandle(*m_pClient, sHandle); }
    /// Fails the test where any procedure serves the handle.
    void ExpectRefused(NfsClient& client, const std::string& sHandle);

    /// A symbolic link in the client's export, made on the host.
    void Link(const std::string& sTarget, const std::string& sName) const;
    /// "../NAME" of a tree that lies beside the client's export.
    static std::string Beside(const TempFolder& folder);
    /// A handle with that ID.
    static std::string MakeHandle(std::uint32_t iID, std::size_t iSize = 56);
    bool WasRefusedAsAnothers() const;

    TempFolder m_Outside;
    TempFolder m_Other;
    TempFolder m_Third;  ///< empty, for tests that need one more; not guarded
    Watch m_Watch;       ///< of the folder that nobody exports
    std::unique_ptr<NfsClient> m_pClient;
    std::unique_ptr<NfsClient> m_pOwner;
    std::string m_sRoot;   ///< of the client's own export
    std::string m_sOther;  ///< of the other client's

private:
    void AttackWithOwn(const std::string& sDir, const std::string& sName);

    std::map<std::string, std::map<std::string, std::string>> m_Guarded;  ///< pictures by tree
};
