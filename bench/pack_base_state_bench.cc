// Packing a base state into the lines of a reply.
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/datapack_state.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

std::filesystem::path CachePath(const Work &work)
{
    return bench::HostDirectory(work) / "state/previous_state/classes.cache";
}

Cost Prepare(const Work &work)
{
    bench::EnterHost(work);
    bench::WriteClasses(CachePath(work), work.size, bench::Generation::new_run, bench::Order::sorted);
    return {};
}

// From the cache on disk to the lines, and to their memory given back.
Cost Pack(const Work &work)
{
    bench::EnterHost(work);
    std::ofstream(std::filesystem::path(GetStateDir()) / "diff/classes.diff");  // a history that the packing ends
    const size_t rows = bench::CountLines(CachePath(work));
    const bench::Stopwatch watch;
    veltrane::SeqPtr reply(SeqNew(500, free));
    PackBaseState(reply.get(), "CLD", bench::kRunTime, nullptr, report_type_classes, VT_PROTOCOL_COOKIE);
    if (SeqLength(reply.get()) != rows + 1) {
        throw std::runtime_error("rows are missing");
    }
    reply.reset();
    return watch.Stop();
}

const bench::Job kJobs[] = {{"pack_base_state.prepare", Prepare}, {"pack_base_state.pack", Pack}};

const bench::Figure kFigure = {
    .title = "packing a base state of 1,000,000 rows",
    .peer_title = "`mawk` adding two columns to the same file",
    .bound = 0.3,
    .aim = 0.6,
    .size = 1'000'000,
    .prepare = "pack_base_state.prepare",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("pack_base_state.pack", work)}; },
    .peer = [](const Work &work) -> Side {
        return {{{"mawk", "{ print \"1700000000,1,\" $0 }", CachePath(work).string()}, work.directory / "rows"}};
    },
};

void PackingABaseState(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(PackingABaseState)->Apply(bench::AtGrowingSizes);

}  // namespace
