// The probe: what a shell cannot do to a mounted file system, or cannot tell about it. It runs in the guest, linked
// statically, and on the host, where it makes and checks the same content.
#include "Probe.h"

#include <cstdio>
#include <exception>
#include <span>
#include <string_view>

namespace {

struct Command {
    std::string_view sName;
    void (*pRun)(Arguments);
};

constexpr Command kCommands[] = {
    {"write", WriteFile},
    {"append-later", AppendLater},
    {"check", CheckFile},
    {"random", CheckAtRandom},
    {"map-write", WriteMapped},
    {"map-check", CheckMapped},
    {"remove-while-listing", RemoveWhileListing},
    {"list-with-pause", ListWithPause},
    {"tree", MakeTree},
    {"traffic", WriteTraffic},
};

}  // namespace

int main(int argc, char** argv) {
    const std::span<char*> texts(argv, static_cast<std::size_t>(argc));
    for (const Command& command : kCommands) {
        if (argc > 1 && command.sName == texts[1]) {
            try {
                command.pRun(Arguments(texts.subspan(2)));
                return 0;
            } catch (const std::exception& error) {
                std::printf("probe %s: %s\n", texts[1], error.what());
                return 1;
            }
        }
    }
    std::printf("probe: no such command\n");
    return 2;
}
