// Path to handle and back: the time must not depend on the number of known paths.
#include "FileTable.h"

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

std::string PathOf(std::int64_t i) {
    return "/srv/export/folder-" + std::to_string(i % 1000) + "/file-" + std::to_string(i);
}

/// A table that knows that many paths, and some of them in an order that leaves the recent hits behind.
class Fixture {
public:
    explicit Fixture(std::int64_t nPaths) {
        for (std::int64_t i = 0; i < nPaths; ++i) {
            table.AddItem(PathOf(i).c_str());
        }
        for (std::int64_t i = 0; i < 4096; ++i) {
            vsPaths.push_back(PathOf(i * 7919 % nPaths));
        }
    }

    CFileTable table;
    std::vector<std::string> vsPaths;
};

void PathToId(benchmark::State& state) {
    Fixture fixture(state.range(0));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.table.GetIDByPath(fixture.vsPaths[i++ % fixture.vsPaths.size()].c_str()));
    }
}
BENCHMARK(PathToId)->RangeMultiplier(10)->Range(10, 1000000);

void IdToPath(benchmark::State& state) {
    Fixture fixture(state.range(0));
    char cPath[4096];
    unsigned int i = 0;
    for (auto _ : state) {
        i = (i + 7919) % static_cast<unsigned int>(state.range(0));
        benchmark::DoNotOptimize(fixture.table.GetPathByID(i, cPath, sizeof(cPath)));
    }
}
BENCHMARK(IdToPath)->RangeMultiplier(10)->Range(10, 1000000);

}  // namespace
