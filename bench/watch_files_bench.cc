// Watching files that did not change: each is found, opened, digested and compared with what the database knows of it,
// beside sha512sum, which only digests them.
#include <cstdio>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <veltrane/entry_points.h>

#include "bench/figure.h"
#include "libveltrane/file_place.h"
#include "libveltrane/watched_files.h"
#include "support/work_dir.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

constexpr size_t kFileBytes = 16'384;

std::filesystem::path Files(const Work &work) { return work.directory / "files"; }

std::string FileAt(const Work &work, size_t i)
{
    char name[32];
    snprintf(name, sizeof(name), "settings-%06zu.conf", i);
    return Files(work) / name;
}

// The plug-in says that the digest is the peer's.
void EnterHostWithPlugin(const Work &work)
{
    bench::EnterHost(work);
    const std::filesystem::path plugin = bench::HostDirectory(work) / "lib/veltrane-enterprise.so";
    std::filesystem::copy_file(VT_BENCH_PLUGIN, plugin, std::filesystem::copy_options::skip_existing);
    std::filesystem::permissions(plugin, std::filesystem::perms::owner_all);
    if (GetBestFileChangeHashMethod() != HASH_METHOD_SHA512) {
        throw std::runtime_error("another digest");
    }
}

// Watch all files as the agent does; how many had changed.
size_t WatchAll(const Work &work)
{
    veltrane::WatchedFiles watched;
    size_t changed = 0;
    for (size_t i = 0; i < work.size; i++) {
        const std::string path = FileAt(work, i);
        const veltrane::FoundPlace found = veltrane::FindPlace(path, veltrane::LastLink::kFollowed);
        std::optional<veltrane::Handle> handle;
        veltrane::Sighting sighting;
        if (!found.place.has_value() || veltrane::LookAt(*found.place, &handle).has_value() || !handle.has_value() ||
            watched.Look(path, &*handle, &sighting).has_value() ||
            veltrane::WatchedFiles::Log(sighting, bench::kRunTime).has_value() ||
            watched.Remember(sighting).has_value()) {
            throw std::runtime_error("a file cannot be watched");
        }
        changed += sighting.changes.empty() ? 0 : 1;
    }
    return changed;
}

Cost Prepare(const Work &work)
{
    std::filesystem::create_directory(Files(work));
    for (size_t i = 0; i < work.size; i++) {
        std::string bytes;
        while (bytes.size() < kFileBytes) { bytes += "option_" + std::to_string(i * bytes.size()) + " = yes\n"; }
        WriteFile(FileAt(work, i), bytes.substr(0, kFileBytes));
    }
    EnterHostWithPlugin(work);
    if (WatchAll(work) != work.size) {
        throw std::runtime_error("not every file is new");
    }
    return {};
}

Cost WatchUnchanged(const Work &work)
{
    EnterHostWithPlugin(work);
    const bench::Stopwatch watch;
    const size_t changed = WatchAll(work);
    const Cost cost = watch.Stop();
    if (changed != 0) {
        throw std::runtime_error("a file is said to have changed");
    }
    return cost;
}

const bench::Job kJobs[] = {
    {"watch_files.prepare", Prepare},
    {"watch_files.unchanged", WatchUnchanged},
};

const bench::Figure kFigure = {
    .title = "watching 1,000 files of 16 KiB that did not change",
    .peer_title = "`sha512sum` over them",
    .ratio = bench::Ratio::time,
    .bound = 2,
    .size = 1'000,
    .prepare = "watch_files.prepare",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("watch_files.unchanged", work)}; },
    .peer = [](const Work &work) -> Side {
        return {{{"sh", "-c", "exec sha512sum \"$0\"/*", Files(work)}, work.directory / "digests"}};
    },
};

void AtNumbersOfFiles(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(100, 10'000);
    b->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void WatchingUnchangedFiles(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(WatchingUnchangedFiles)->Apply(AtNumbersOfFiles);

}  // namespace
