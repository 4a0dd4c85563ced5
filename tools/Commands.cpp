// What nfsget does on request.
#include "Commands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LocalFile.h"
#include "LocalTarget.h"
#include "NfsError.h"
#include "NfsSession.h"
#include "Progress.h"
#include "RemoteFile.h"
#include "Transfer.h"

namespace {

/// A resumed transfer does this much again: of what was under way when the first was cut short, a later piece may have
/// arrived without an earlier one.
constexpr std::uint64_t kResumeOverlap = std::uint64_t{1} << 20;
/// So much in front of that must be the same on both sides, or all is copied anew.
constexpr std::uint64_t kCompared = 65536;

/// Where a resumed transfer goes on that left so many bytes, 0 if they are not the beginning of what is to be copied.
std::uint64_t ResumeAt(RemoteFile& remote, const LocalFile& local, std::uint64_t iLeft) {
    if (iLeft <= kResumeOverlap) {
        return 0;
    }
    const std::uint64_t iAt = iLeft - kResumeOverlap;
    const std::uint64_t nCompared = std::min(kCompared, iAt);
    std::vector<char> vcRemote(nCompared);
    remote.ReadWhole(iAt - nCompared, vcRemote);
    if (vcRemote.size() == nCompared && vcRemote == local.ReadAt(iAt - nCompared, nCompared)) {
        return iAt;
    }
    std::fputs("nfsget: what is there is not the beginning of the file: copying it anew\n", stderr);
    return 0;
}

/// Copies to a file that may hold what an earlier run left.
void Receive(RemoteFile& remote, LocalFile& part, bool bResume) {
    const std::uint64_t iSize = remote.Size();
    const std::uint64_t iLeft = bResume ? part.Size() : 0;
    const std::uint64_t iStart = iLeft <= iSize ? ResumeAt(remote, part, iLeft) : 0;
    part.Truncate(iStart);
    part.Seek(iStart);
    Progress progress(iSize, false);
    progress.Skip(iStart);
    Download(remote, part, progress).Run(iStart);
    part.Close();
}

void GetStream(NfsSession& session, const std::string& sPath, const LocalFile& output) {
    RemoteFile remote(session, sPath, O_RDONLY, "open");
    Progress progress(remote.Size(), ::isatty(output.Get()) == 1);
    Download(remote, output, progress).Run(0);
    remote.Close();
}

void GetFile(NfsSession& session, const std::string& sPath, const LocalTarget& target, bool bResume) {
    const std::string sPart = target.PartPath();
    bool bMade = false;
    try {
        RemoteFile remote(session, sPath, O_RDONLY, "open");
        LocalFile part(sPart, O_RDWR | O_CREAT, STDOUT_FILENO);
        bMade = true;
        target.Protect(part);
        Receive(remote, part, bResume);
        if (std::rename(sPart.c_str(), target.Path().c_str()) != 0) {
            throw NfsError("\"" + target.Path() + "\": " + std::strerror(errno));
        }
        remote.Close();
    } catch (const NfsError& error) {
        if (!bMade) {
            throw;
        }
        if (bResume) {
            throw NfsError(std::string(error.what()) + "; what has come is kept for the next get --resume");
        }
        ::unlink(sPart.c_str());
        throw;
    }
}

/// Refuses to put a file onto itself, of which the better part would be gone before it is read. The server tells a
/// file's number, size and time as its own machine does, to the second; what is written to a local file meanwhile makes
/// it larger and later.
void RefuseItself(NfsSession& session, const std::string& sPath, LocalSource& source) {
    if (!source.Total()) {
        return;
    }
    const struct stat before = source.File().State();
    const std::optional<NfsEntry> oThere = session.Find(sPath);
    if (!oThere || oThere->iIdentity != before.st_ino) {
        return;
    }
    const struct stat after = source.File().State();
    const auto iSize = static_cast<std::int64_t>(oThere->iSize);
    if (iSize >= before.st_size && iSize <= after.st_size && oThere->iModified >= before.st_mtime &&
        oThere->iModified <= after.st_mtime) {
        throw NfsError("\"" + source.File().Path() + "\" and \"" + sPath + "\" on the server are the same file");
    }
}

/// Sends the source; a failure tells in what state it leaves the remote file.
void SendAll(NfsSession& session, RemoteFile& remote, LocalSource& source, std::uint64_t iStart) {
    Progress progress(source.Total(), false);
    progress.Skip(iStart);
    Upload upload(remote, source, progress);
    try {
        upload.Run(iStart);
        source.ExpectAll(upload.Stored());
        // A size that is right although COMMIT failed means that COMMIT is not served.
        if (!remote.CloseWritten() && session.SizeOf(remote.Path()) != upload.Stored()) {
            throw NfsError("close \"" + remote.Path() + "\": the server does not hold what it was sent");
        }
    } catch (const NfsError& error) {
        const auto oiTotal = source.Total();
        throw NfsError(std::string(error.what()) + "; \"" + remote.Path() + "\" on the server is incomplete: " +
                       std::to_string(upload.Stored()) + (oiTotal ? " of " + std::to_string(*oiTotal) : "") + " bytes" +
                       (oiTotal ? " (put --resume goes on)" : ""));
    }
}

}  // namespace

void List(const Place& place, int iInterrupt) {
    NfsSession session(place.target, iInterrupt);
    for (const NfsEntry& entry : session.List(place.sPath)) {
        std::printf("%12llu  %s%s\n", static_cast<unsigned long long>(entry.iSize), entry.sName.c_str(),
                    S_ISDIR(entry.iMode) ? "/" : "");
    }
    session.End();
}

void Stat(const Place& place, int iInterrupt) {
    NfsSession session(place.target, iInterrupt);
    const NfsEntry entry = session.Stat(place.sPath);
    session.End();
    std::array<char, 32> vcTime{};
    const std::time_t iTime = entry.iModified;
    std::tm local{};
    std::strftime(vcTime.data(), vcTime.size(), "%Y-%m-%d %H:%M:%S", ::localtime_r(&iTime, &local));
    constexpr unsigned int kPermissions = 07777;
    std::printf("%c%04o %12llu  %s  /%s\n", S_ISDIR(entry.iMode) ? 'd' : '-', entry.iMode & kPermissions,
                static_cast<unsigned long long>(entry.iSize), vcTime.data(), place.sPath.c_str());
}

void Get(const Place& place, const std::string& sLocal, bool bResume, int iInterrupt) {
    const LocalTarget target(sLocal, iInterrupt);  // before anything is asked for
    if (bResume && target.Stream() != nullptr) {
        throw NfsError("\"" + sLocal + "\": only an ordinary file can be resumed");
    }
    NfsSession session(place.target, iInterrupt);
    if (target.Stream() != nullptr) {
        GetStream(session, place.sPath, *target.Stream());
    } else {
        GetFile(session, place.sPath, target, bResume);
    }
    session.End();
}

void Put(const std::string& sLocal, const Place& place, bool bResume, int iInterrupt) {
    LocalSource source(sLocal, iInterrupt);  // before anything is done to the remote file
    const auto oiTotal = source.Total();
    if (bResume && !source.IsWholeFile()) {
        throw NfsError("\"" + sLocal + "\": only an ordinary file can be resumed");
    }
    NfsSession session(place.target, iInterrupt);
    RefuseItself(session, place.sPath, source);
    const std::uint64_t iLeft = bResume ? session.SizeOf(place.sPath) : 0;
    std::uint64_t iStart = 0;
    if (iLeft > 0 && iLeft <= *oiTotal) {
        RemoteFile remote(session, place.sPath, O_RDONLY, "open");
        iStart = ResumeAt(remote, source.File(), iLeft);
        remote.Close();
    }
    if (iStart > 0) {
        source.Seek(iStart);
    }
    {
        RemoteFile remote(session, place.sPath, iStart > 0 ? O_WRONLY : O_WRONLY | O_CREAT | O_TRUNC, "create");
        SendAll(session, remote, source, iStart);
    }
    session.End();
}

void Write(const std::string& sLocal, const Place& place, std::uint64_t iOffset, int iInterrupt) {
    LocalSource source(sLocal, iInterrupt);
    NfsSession session(place.target, iInterrupt);
    RefuseItself(session, place.sPath, source);
    {
        RemoteFile remote(session, place.sPath, O_WRONLY, "open");
        Progress progress(source.Total(), false);
        Upload upload(remote, source, progress);
        try {
            upload.Run(iOffset);
            source.ExpectAll(upload.Stored() - iOffset);
            remote.CloseWritten();
        } catch (const NfsError& error) {
            throw NfsError(std::string(error.what()) + "; \"" + place.sPath +
                           "\" on the server is changed up to byte " + std::to_string(upload.Stored()));
        }
    }
    session.End();
}

void MakeDirectory(const Place& place, int iInterrupt) {
    NfsSession session(place.target, iInterrupt);
    session.MakeDirectory(place.sPath);
    session.End();
}

void Remove(const Place& place, int iInterrupt) {
    NfsSession session(place.target, iInterrupt);
    session.Remove(place.sPath);
    session.End();
}
