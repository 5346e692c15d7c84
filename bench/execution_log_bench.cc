// Reducing an execution log to one record a promise.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/diff_execution_log.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

constexpr size_t kEvaluationsEach = 10;  // how often each promise stands in the log

std::filesystem::path LogPath(const Work &work) { return bench::HostDirectory(work) / "state/promise_execution.log"; }

// What one agent run after the other logs of a promise: nearly always the same, now and then a repair with a message.
std::string Evaluation(size_t promise, size_t run)
{
    const bool repaired = (promise + run) % 50 == 0;
    const bool package = promise % 20 == 0;
    char text[1024];
    (void)snprintf(text, sizeof(text),
                   "4be4a6d1c7f3,%d,%064zx,/default/site_%zu/%s/'/etc/service_%zu/main.conf'[0],service_%zu_conf,[],%s,"
                   "default,site_%zu,%s,/etc/service_%zu/main.conf,/var/veltrane/inputs/site_%zu.vt,%zu,%064zx,"
                   "\"[\"\"report\"\",\"\"service\"\"]\"\r\n",
                   repaired ? 114 : 99, promise * 0x9E3779B97F4A7C15, promise / 100, package ? "packages" : "files",
                   promise, promise,
                   repaired ? "\"[\"\"Rewrote the file\"\",\"\"Told the service to read it anew\"\"]\"" : "[]",
                   promise / 100, package ? "packages" : "files", promise, promise / 100, promise % 100 * 7,
                   promise / 100 * 0xBF58476D1CE4E5B9);
    return text;
}

Cost Prepare(const Work &work)
{
    bench::EnterHost(work);
    std::ofstream log(LogPath(work), std::ios::binary);
    for (size_t run = 0; run < kEvaluationsEach; run++) {
        for (size_t promise = 0; promise < work.size / kEvaluationsEach; promise++) { log << Evaluation(promise, run); }
    }
    return {};
}

// From the log on disk to the records, and to their memory given back.
Cost Reduce(const Work &work)
{
    bench::EnterHost(work);
    const bench::Stopwatch watch;
    veltrane::SeqPtr executions(GetCurrentHubPromiseExecutionList(nullptr));
    if (executions == nullptr || SeqLength(executions.get()) != work.size / kEvaluationsEach) {
        throw std::runtime_error("promises are missing");
    }
    executions.reset();
    return watch.Stop();
}

const bench::Job kJobs[] = {{"execution_log.prepare", Prepare}, {"execution_log.reduce", Reduce}};

const bench::Figure kFigure = {
    .title = "reducing an execution log of 100,000 records of 10,000 promises",
    .peer_title = "`LC_ALL=C sort -u` of the same file",
    .ratio = bench::Ratio::time,
    .bound = 3,
    .size = 100'000,
    .prepare = "execution_log.prepare",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("execution_log.reduce", work)}; },
    .peer = [](const Work &work) -> Side {
        return {{{"sort", "-u", LogPath(work).string()}, work.directory / "sorted"}};
    },
};

void ReducingAnExecutionLog(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(ReducingAnExecutionLog)->Apply(bench::AtGrowingSizes);

}  // namespace
