// The files of an export by libnfs.
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

// Needs the above.
#include <nfsc/libnfs.h>

#include "ExportFiles.h"
#include "LibnfsClient.h"

namespace {

class LibnfsFiles : public ExportFiles {
public:
    explicit LibnfsFiles(std::string sExport) : m_sExport(std::move(sExport)) {}

    int Mount() override {
        m_pClient.reset();
        if (const int iResult = LibnfsClient::Release(m_sExport); iResult != 0) {
            return -iResult;
        }
        m_pClient = std::make_unique<LibnfsClient>();
        const int iResult = m_pClient->Mount(m_sExport);
        if (iResult != 0) {
            m_pClient.reset();  // it would keep its connection to the MOUNT port
        }
        return -iResult;
    }
    int Find(const std::string& sName) override {
        nfs_stat_64 status{};
        return -m_pClient->Stat(Path(sName), status);
    }
    int GetSize(const std::string& sName, std::uint64_t& nBytes) override {
        nfs_stat_64 status{};
        const int iResult = m_pClient->Stat(Path(sName), status);
        nBytes = status.nfs_size;
        return -iResult;
    }
    int Create(const std::string& sName) override { return -m_pClient->WriteFile(Path(sName), ""); }
    int Write(const std::string& sName, std::uint64_t iOffset, std::string_view sData, std::size_t& nWritten) override {
        const int iResult = m_pClient->WriteAt(Path(sName), iOffset, sData);
        nWritten = iResult < 0 ? 0 : static_cast<std::size_t>(iResult);
        return iResult < 0 ? -iResult : 0;
    }
    int Read(const std::string& sName, std::uint64_t iOffset, std::size_t nCount, Piece& piece) override {
        return -m_pClient->ReadAt(Path(sName), iOffset, nCount, piece.sData);
    }
    int Cut(const std::string& sName, std::uint64_t nBytes) override {
        return -m_pClient->Truncate(Path(sName), nBytes);
    }
    int Rename(const std::string& sFrom, const std::string& sTo) override {
        return -m_pClient->Rename(Path(sFrom), Path(sTo));
    }
    int Remove(const std::string& sName) override { return -m_pClient->Unlink(Path(sName)); }
    int MakeFolder(const std::string& sName) override { return -m_pClient->Mkdir(Path(sName)); }
    int RemoveFolder(const std::string& sName) override { return -m_pClient->Rmdir(Path(sName)); }
    int List(std::vector<std::string>& vsNames) override {
        std::multiset<std::string> names;
        const int iResult = m_pClient->ListPlus("/", names);
        vsNames.assign(names.begin(), names.end());
        return -iResult;
    }

    std::size_t GetQuestionCount() const override { return std::size(kQuestions); }
    bool Ask(std::size_t iQuestion, const std::string& sName, std::string& sWrong) override {
        const Question& question = kQuestions[iQuestion];
        const int iResult = (this->*question.call)(Path(sName));
        sWrong = std::string(question.pcName) + " answers " + std::to_string(iResult) + " (" + m_pClient->Error() + ")";
        return question.bGranted == (iResult == 0);
    }

private:
    static std::string Path(const std::string& sName) { return "/" + sName; }

    int Statvfs(const std::string& /*sPath*/) {
        struct statvfs figures {};
        const int iResult = m_pClient->Statvfs("/", figures);
        return iResult == 0 && figures.f_blocks == 0 ? -ERANGE : iResult;
    }
    int Access(const std::string& sPath) { return m_pClient->Access(sPath, R_OK | W_OK); }
    int Chmod(const std::string& sPath) {
        m_iMode ^= S_IRGRP;
        nfs_stat_64 status{};
        int iResult = m_pClient->Chmod(sPath, m_iMode);
        if (iResult == 0) {
            iResult = m_pClient->Stat(sPath, status);
        }
        return iResult == 0 && (status.nfs_mode & ALLPERMS) != static_cast<unsigned int>(m_iMode) ? -ERANGE : iResult;
    }
    int Utimes(const std::string& sPath) { return m_pClient->Utimes(sPath, 1000000000); }
    int Symlink(const std::string& /*sPath*/) { return m_pClient->Symlink("hosted", "/link"); }
    int Readlink(const std::string& sPath) { return m_pClient->Readlink(sPath); }
    int Link(const std::string& sPath) { return m_pClient->Link(sPath, "/second"); }
    int Mknod(const std::string& /*sPath*/) { return m_pClient->Mknod("/fifo", S_IFIFO | m_iMode); }
    int Sync(const std::string& sPath) { return m_pClient->Sync(sPath); }

    /// What is not granted is refused with an error number that libnfs also gives for a lost connection.
    struct Question {
        const char* pcName;
        int (LibnfsFiles::*call)(const std::string& sPath);
        bool bGranted;
    };
    static constexpr Question kQuestions[] = {
        {"statvfs", &LibnfsFiles::Statvfs, true},  {"access", &LibnfsFiles::Access, true},
        {"chmod", &LibnfsFiles::Chmod, true},      {"utimes", &LibnfsFiles::Utimes, true},
        {"symlink", &LibnfsFiles::Symlink, false}, {"readlink", &LibnfsFiles::Readlink, false},
        {"link", &LibnfsFiles::Link, false},       {"mknod", &LibnfsFiles::Mknod, false},
        {"fsync", &LibnfsFiles::Sync, false},
    };

    const std::string m_sExport;
    std::unique_ptr<LibnfsClient> m_pClient;
    int m_iMode = S_IRUSR | S_IWUSR;
};

}  // namespace

std::unique_ptr<ExportFiles> MakeLibnfsFiles(std::string sExport) {
    return std::make_unique<LibnfsFiles>(std::move(sExport));
}
