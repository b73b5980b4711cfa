// The expansion of a directory of 100,000 names into the sorted list; its limit is the time that
// reading the directory and looking at every name takes.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "dir2files.h"
#include "limits.h"
#include "make_files.h"

namespace
{

constexpr int names = 100000;

const std::string &full_directory()
{
    static const std::string path = [] {
        std::string directory = make_directory();
        for (int i = 0; i < names; ++i)
            std::ofstream(directory + "/" + std::to_string(i * 7919 % names) + ".wav");
        return directory;
    }();
    return path;
}

void look_at_all(const std::string &path)
{
    DIR *directory = opendir(path.c_str());
    struct stat found {
    };
    while (const dirent *entry = readdir(directory))
        benchmark::DoNotOptimize(stat((path + "/" + entry->d_name).c_str(), &found));
    closedir(directory);
}

void expand_list(benchmark::State &state)
{
    std::string program = "sonivane";
    std::string path = full_directory();
    char *arguments[] = {program.data(), path.data(), nullptr};
    double best = 1e9;
    for (auto _ : state) {
        best = std::min(best, best_seconds(1, [&] {
                            if (expand_file_list(1, 2, arguments)[names - 1] == nullptr)
                                std::abort();
                        }));
        pool_reset();
        pool_free();
    }
    state.counters["ours"] = names / best;
    state.counters["limit"] = names / best_seconds(3, [&] { look_at_all(path); });
}
BENCHMARK(expand_list)->Name("names/expand_100000")->Unit(benchmark::kMillisecond);

} // namespace
