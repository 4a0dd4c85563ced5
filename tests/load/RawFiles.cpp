// The files of an export by calls made here.
#include <cerrno>
#include <functional>
#include <map>
#include <utility>

#include <netinet/in.h>

#include "ExportFiles.h"
#include "NfsClient.h"

namespace {

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kFailed = 5;
constexpr std::uint32_t kNotSupported = 10004;
constexpr std::uint32_t kFifo = 7;
constexpr std::uint32_t kAnyAccess = 0x3f;
constexpr std::uint32_t kListingSize = 8192;
constexpr int kPortmapPort = 111;
constexpr std::uint32_t kGetPort = 3;
constexpr std::uint32_t kNfsPort = 2049;

class RawFiles : public ExportFiles {
public:
    RawFiles(std::string sExport, std::string sAddress)
        : m_sExport(std::move(sExport)), m_sAddress(std::move(sAddress)) {}

    int Mount() override {
        m_Handles.clear();
        m_pClient.reset();
        m_pClient = std::make_unique<NfsClient>(Transport::kTcp, m_sAddress);
        m_pClient->Umnt(m_sExport);
        m_sRoot = m_pClient->Mnt(m_sExport).value_or("");
        return m_sRoot.empty() ? EACCES : 0;
    }
    int Find(const std::string& sName) override {
        std::string sHandle;
        const int iStatus = static_cast<int>(m_pClient->Lookup(m_sRoot, sName, sHandle));
        if (iStatus == 0) {
            m_Handles[sName] = sHandle;
        }
        return iStatus;
    }
    int GetSize(const std::string& sName, std::uint64_t& nBytes) override {
        return WithHandle(sName, [&](const std::string& sHandle) {
            Fattr3 attributes;
            const std::uint32_t iStatus = m_pClient->Getattr(sHandle, attributes);
            nBytes = attributes.iSize;
            return iStatus;
        });
    }
    int Create(const std::string& sName) override {
        return static_cast<int>(m_pClient->Create(m_sRoot, sName, m_Handles[sName]));
    }
    int Write(const std::string& sName, std::uint64_t iOffset, std::string_view sData, std::size_t& nWritten) override {
        return WithHandle(sName, [&](const std::string& sHandle) {
            std::uint32_t nStored = 0;
            const std::uint32_t iStatus = m_pClient->Write(sHandle, iOffset, sData, nStored);
            nWritten = nStored;
            return iStatus;
        });
    }
    int Read(const std::string& sName, std::uint64_t iOffset, std::size_t nCount, Piece& piece) override {
        return WithHandle(sName, [&](const std::string& sHandle) {
            bool bEof = false;
            const auto nBytes = static_cast<std::uint32_t>(nCount);
            const std::uint32_t iStatus = m_pClient->Read(sHandle, iOffset, nBytes, piece.sData, bEof);
            piece.bEof = bEof;
            return iStatus;
        });
    }
    int Cut(const std::string& sName, std::uint64_t nBytes) override {
        Sattr3 attributes;
        attributes.iSize = nBytes;
        return WithHandle(sName, [&](const std::string& sHandle) { return m_pClient->Setattr(sHandle, attributes); });
    }
    int Rename(const std::string& sFrom, const std::string& sTo) override {
        m_Handles.erase(sFrom);
        m_Handles.erase(sTo);
        return static_cast<int>(m_pClient->Rename(m_sRoot, sFrom, m_sRoot, sTo));
    }
    int Remove(const std::string& sName) override {
        m_Handles.erase(sName);
        return static_cast<int>(m_pClient->Remove(m_sRoot, sName));
    }
    int MakeFolder(const std::string& sName) override {
        std::string sHandle;
        return static_cast<int>(m_pClient->Mkdir(m_sRoot, sName, sHandle));
    }
    int RemoveFolder(const std::string& sName) override { return static_cast<int>(m_pClient->Rmdir(m_sRoot, sName)); }
    int List(std::vector<std::string>& vsNames) override {
        return static_cast<int>(m_pClient->Readdir(m_sRoot, vsNames, 1024));
    }

    std::size_t GetQuestionCount() const override { return std::size(kQuestions) + std::size(kOthers) + 1; }
    bool Ask(std::size_t iQuestion, const std::string& sName, std::string& sWrong) override {
        if (iQuestion < std::size(kQuestions)) {
            return AskFiles(kQuestions[iQuestion], sName, sWrong);
        }
        const std::size_t iOther = iQuestion - std::size(kQuestions);
        return iOther < std::size(kOthers) ? AskOthers(kOthers[iOther], sWrong) : AskPort(sWrong);
    }

private:
    /// A procedure of NFS and its status; the arguments stand in MakeArguments.
    struct Question {
        std::uint32_t iProcedure;
        std::uint32_t iStatus;
    };
    static constexpr Question kQuestions[] = {
        {kNfsAccess, kOk},   {kNfsReadlink, kFailed}, {kNfsSymlink, kFailed}, {kNfsMknod, kNotSupported},
        {kNfsLink, kFailed}, {kNfsReaddir, kOk},      {kNfsReaddirplus, kOk}, {kNfsFsstat, kOk},
        {kNfsFsinfo, kOk},   {kNfsPathconf, kFailed}, {kNfsCommit, kFailed},
    };
    /// A procedure of any program that has no arguments, or none that matter.
    struct Other {
        std::uint32_t iProgram;
        std::uint32_t iProcedure;
        std::uint32_t iAcceptStatus;
    };
    static constexpr Other kOthers[] = {
        {kNfsProgram, kNfsNull, kAcceptSuccess},           {kMountProgram, kMountNull, kAcceptSuccess},
        {kMountProgram, kMountDump, kAcceptProcUnavail},   {kMountProgram, kMountUmntall, kAcceptProcUnavail},
        {kMountProgram, kMountExport, kAcceptProcUnavail},
    };

    std::string MakeArguments(std::uint32_t iProcedure, const std::string& sHandle) const {
        const std::string sNoAttributes(24, '\0');
        switch (iProcedure) {
            case kNfsAccess:
                return XdrBuilder().Opaque(sHandle).U32(kAnyAccess).Bytes();
            case kNfsSymlink:
                return XdrBuilder().Opaque(m_sRoot).Opaque("link").Bytes() + sNoAttributes +
                       XdrBuilder().Opaque("hosted").Bytes();
            case kNfsMknod:
                return XdrBuilder().Opaque(m_sRoot).Opaque("fifo").U32(kFifo).Bytes() + sNoAttributes;
            case kNfsLink:
                return XdrBuilder().Opaque(sHandle).Opaque(m_sRoot).Opaque("second").Bytes();
            case kNfsReaddir:
                return XdrBuilder().Opaque(m_sRoot).U64(0).U64(0).U32(kListingSize).Bytes();
            case kNfsReaddirplus:
                return XdrBuilder().Opaque(m_sRoot).U64(0).U64(0).U32(kListingSize).U32(kListingSize).Bytes();
            case kNfsCommit:
                return XdrBuilder().Opaque(sHandle).U64(0).U32(0).Bytes();
            default:
                return XdrBuilder().Opaque(sHandle).Bytes();
        }
    }
    bool AskFiles(const Question& question, const std::string& sName, std::string& sWrong) {
        const int iStatus = WithHandle(sName, [&](const std::string& sHandle) {
            return m_pClient->Nfs3(question.iProcedure, MakeArguments(question.iProcedure, sHandle)).U32();
        });
        sWrong = "NFS procedure " + std::to_string(question.iProcedure) + " answers " + std::to_string(iStatus);
        return iStatus == static_cast<int>(question.iStatus);
    }
    bool AskOthers(const Other& other, std::string& sWrong) {
        RpcClient& client = other.iProgram == kNfsProgram ? m_pClient->Nfs() : m_pClient->Mount();
        const std::uint32_t iStatus = client.Call(other.iProgram, 3, other.iProcedure, "").iAcceptStatus;
        sWrong = "program " + std::to_string(other.iProgram) + ", procedure " + std::to_string(other.iProcedure) +
                 ": accept status " + std::to_string(iStatus);
        return iStatus == other.iAcceptStatus;
    }

    bool AskPort(std::string& sWrong) {
        RpcClient client(Transport::kTcp, kPortmapPort, m_sAddress);
        const std::string sArguments = XdrBuilder().U32(kNfsProgram).U32(3).U32(IPPROTO_TCP).U32(0).Bytes();
        const RpcReply reply = client.Call(kPortmapProgram, 2, kGetPort, sArguments);
        sWrong = "GETPORT answers " + reply.sBody;
        return reply.iAcceptStatus == kAcceptSuccess && reply.sBody == XdrBuilder().U32(kNfsPort).Bytes();
    }

    /// Makes a call for a file, which is looked up first unless its handle is known.
    int WithHandle(const std::string& sName, const std::function<std::uint32_t(const std::string&)>& call) {
        if (m_Handles[sName].empty()) {
            if (const int iStatus = Find(sName); iStatus != 0) {
                return iStatus;
            }
        }
        return static_cast<int>(call(m_Handles[sName]));
    }

    const std::string m_sExport;
    const std::string m_sAddress;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::map<std::string, std::string> m_Handles;
};

}  // namespace

std::unique_ptr<ExportFiles> MakeRawFiles(std::string sExport, std::string sAddress) {
    return std::make_unique<RawFiles>(std::move(sExport), std::move(sAddress));
}
