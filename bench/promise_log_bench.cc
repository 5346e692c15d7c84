// From promise log files to the rows of their chapter.
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/datapack_promise_log.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

std::filesystem::path LogPath(const Work &work) { return bench::HostDirectory(work) / "state/promise_log.jsonl"; }

// What the agent leaves of a repair: the promise as policies have them, a message or two, tags.
std::string Entry(size_t i)
{
    const std::string n = std::to_string(i % 997);
    return "{\"timestamp\":" + std::to_string(bench::kRunTime + static_cast<time_t>(i)) +
           ",\"execution\":{\"promise_hash\":\"8dc3486f2e7a00103bfe865bb873107d547054caccf024fb40ed4f9390917c63\","
           "\"policy_filename\":\"/var/veltrane/inputs/site_" +
           n +
           ".vt\",\"release_id\":\"2f4c1b0e9d8a\",\"promise_outcome\":\"REPAIRED\",\"namespace\":\"default\","
           "\"bundle\":\"site_" +
           n + "\",\"promise_type\":\"files\",\"promiser\":\"/etc/service_" + n +
           "/main.conf\",\"stack_path\":\"/default/site_" + n + "/files/'/etc/service_" + n +
           "/main.conf'[0]\",\"handle\":\"service_" + n +
           "_conf\",\"line_number\":42,\"policy_file_hash\":"
           "\"9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08\",\"promisees\":[\"operations\"],"
           "\"log_messages\":[\"Rewrote '/etc/service_" +
           n + "/main.conf': its content differed\",\"Told \\\"service_" + n +
           "\\\" to read it anew\"],\"meta_tags\":[\"critical\",\"team=operations\"]}}\r\n";
}

Cost Prepare(const Work &work)
{
    bench::EnterHost(work);
    std::ofstream log(LogPath(work), std::ios::binary);
    for (size_t i = 0; i < work.size; i++) { log << Entry(i); }
    return {};
}

Cost Pack(const Work &work)
{
    bench::EnterHost(work);
    const bench::Stopwatch watch;
    const veltrane::SeqPtr reply(SeqNew(500, free));
    PackPromiseLog(reply.get(), 0, nullptr);
    const Cost cost = watch.Stop();
    if (SeqLength(reply.get()) != 1 + work.size) {
        throw std::runtime_error("rows are missing");
    }
    return cost;
}

const bench::Job kJobs[] = {{"promise_log.prepare", Prepare}, {"promise_log.pack", Pack}};

const bench::Figure kFigure = {
    .title = "parsing 200,000 promise log entries into the rows of their chapter",
    .peer_title = "`jq -c .` on the same file",
    .bound = 1.3,
    .aim = 4,
    .size = 200'000,
    .prepare = "promise_log.prepare",
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("promise_log.pack", work)}; },
    .peer = [](const Work &work) -> Side {
        return {{{"jq", "-c", ".", LogPath(work).string()}}};
    },
};

void AtSizesOfLogs(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(2'000, 200'000);
    b->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void PackingAPromiseLog(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(PackingAPromiseLog)->Apply(AtSizesOfLogs);

}  // namespace
