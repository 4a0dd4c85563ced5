// nfsget: a small NFS version 3 client, for trying out a server and for scripts.
//
// It unmounts at its end, also after a failure and when it is interrupted, because the server binds an export to one
// client until that client unmounts it.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "GetRequest.h"
#include "Interruption.h"
#include "NfsSession.h"
#include "StandardStreams.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "usage: nfsget [OPTION...] COMMAND\n"
    "  list HOST:EXPORT[/DIRECTORY]              entries by name: size, then name\n"
    "  stat HOST:EXPORT[/PATH]                   mode, size, time of last change, path\n"
    "  get HOST:EXPORT/FILE [LOCAL_FILE]         copy from the server (\"-\": standard output)\n"
    "  put LOCAL_FILE HOST:EXPORT/FILE           copy to the server (\"-\": standard input)\n"
    "  write LOCAL_FILE HOST:EXPORT/FILE OFFSET  change an existing file from byte OFFSET on, in place\n"
    "  mkdir HOST:EXPORT/DIRECTORY\n"
    "  remove HOST:EXPORT/PATH                   a file or an empty directory\n"
    "  release HOST:EXPORT                       unmount what a run that was cut short left mounted\n"
    "Options:\n"
    "  -p NFS_PORT, -m MOUNT_PORT   without them the host's portmapper is asked; if it does not answer: 2049 and 1058\n"
    "  --resume     get, put: go on where a run that was cut short stopped. What is there must begin as the file "
    "does:\n"
    "               64 KiB are compared, and the last MiB is copied again; if they differ, all is copied anew.\n"
    "               A get that is to be resumed keeps what has come as LOCAL_FILE.nfsget-part.\n"
    "  --           what follows is no option\n"
    "  -h, --help   --version\n"
    "A get that is cut short leaves no file, unless with --resume; a put leaves an incomplete one, and says so.\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage.\n";

void Run(GetRequest request) {
    using Verb = GetRequest::Verb;
    request.place.target = WithAddress(request.place.target);  // no signal is kept from ending that wait
    const Interruption interruption;
    const int iInterrupt = interruption.Get();
    switch (request.verb) {
        case Verb::kList:
            return List(request.place, iInterrupt);
        case Verb::kStat:
            return Stat(request.place, iInterrupt);
        case Verb::kGet:
            return Get(request.place, request.sLocal, request.bResume, iInterrupt);
        case Verb::kPut:
            return Put(request.sLocal, request.place, request.bResume, iInterrupt);
        case Verb::kWrite:
            return Write(request.sLocal, request.place, request.iOffset, iInterrupt);
        case Verb::kMakeDirectory:
            return MakeDirectory(request.place, iInterrupt);
        case Verb::kRemove:
            return Remove(request.place, iInterrupt);
        default:
            return NfsSession::Release(request.place.target, iInterrupt);
    }
}

int Main(const std::vector<std::string>& vsArguments) {
    const GetRequest request = GetRequest::Parse(vsArguments);
    switch (request.verb) {
        case GetRequest::Verb::kUsage:
            std::fputs(kUsage, stderr);
            return kExitUsage;
        case GetRequest::Verb::kHelp:
            std::fputs(kUsage, stdout);
            break;
        case GetRequest::Verb::kVersion:
            std::puts("nfsget " NFSLIB_VERSION);
            break;
        default:
            Run(request);
    }
    FinishOutput();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    try {
        return Main({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        std::fprintf(stderr, "usage: nfsget [OPTION...] COMMAND (nfsget --help tells all)\nnfsget: %s\n", error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "nfsget: %s\n", error.what());
        return kExitFailed;
    }
}
